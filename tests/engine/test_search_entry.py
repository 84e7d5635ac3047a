"""search(): the order of the start-up checks, the data sync, replacement of earlier searches, publication."""
import threading

import pytest

import quillmarsh.agent_onboarding as onboarding
import quillmarsh.search_templates as st
from quillmarsh.sync import SyncError
from engine.helpers import FakeSyncManager, idle_template

WORDS = {code: (advice, message) for code, advice, message in st._helpers.error_codes()}


def assert_search_error(err, code, message=None):
    assert err.error_code == code
    assert err.recovery_advice == WORDS[code][0]
    assert err.message == (WORDS[code][1] if message is None else message)
    assert err.status == st.SearchStatus(running=False)
    assert err.__cause__ is None


def starved(code, detail):
    def check():
        st._helpers.raise_search_error(code, None, detail)
    return check


def test_without_runtime_or_cached_auth_the_caller_sees_auth_error_before_anything_else(monkeypatch):
    monkeypatch.setattr(st, "_library_runtime", None, raising=False)
    monkeypatch.setattr(onboarding, "_auth_manager", None)
    monkeypatch.setattr(st, "_check_memory", starved("OUT_OF_MEMORY", "3.0"))
    with pytest.raises(st.SearchError) as info:
        st.search("not callable", n_jobs=0)
    assert_search_error(info.value, "AUTH_ERROR")


@pytest.mark.parametrize("text, message", [
    ("  disk on fire \n", "Runtime bootstrap failed after authentication. disk on fire"),
    ("   ", "Runtime bootstrap failed after authentication."),
])
def test_a_failed_bootstrap_from_cached_auth_is_reported_with_its_text(monkeypatch, text, message):
    monkeypatch.setattr(st, "_library_runtime", None, raising=False)
    monkeypatch.setattr(onboarding, "_auth_manager", object())

    def ensure(strict=True):
        raise RuntimeError(text)
    monkeypatch.setattr(onboarding, "ensure_runtime_bootstrapped", ensure)
    with pytest.raises(st.SearchError) as info:
        st.search(idle_template)
    assert_search_error(info.value, "RUNTIME_BOOTSTRAP_FAILED", message)


@pytest.mark.parametrize("check, code, message, template", [
    ("_check_memory", "OUT_OF_MEMORY", "Not enough memory: requires 4.0 GB, available 3.0 GB", idle_template),
    ("_check_disk", "DISK_FULL", "Disk space critically low: 3.0 MB remaining", idle_template),
    (None, TypeError, "Template must be callable accepting SearchContext", "not callable"),
    (None, ValueError, "n_jobs must be >= 1", idle_template),
])
def test_a_starved_machine_is_reported_before_bad_arguments(runtime, monkeypatch, check, code, message, template):
    if check is None:
        with pytest.raises(code, match=f"^{message}$"):
            st.search(template, n_jobs=0)
    else:
        monkeypatch.setattr(st, check, starved(code, "3.0"))
        with pytest.raises(st.SearchError) as info:
            st.search("not callable", n_jobs=0)
        assert_search_error(info.value, code, message)
    assert st._search_active is False


def _no_obfuscation(vocabulary_json, era_id, valid_universe_id):
    raise ValueError("no vocabulary")


@pytest.mark.parametrize("change, code, store_flags", [
    (lambda rt, mp: mp.setattr(onboarding, "_config", {"data_dir": None}), "DATA_DIR_REQUIRED", []),
    (lambda rt, mp: setattr(rt, "valid_universe_id", None), "VALID_UNIVERSE_UNAVAILABLE", []),
    (lambda rt, mp: setattr(rt, "search_tracker", None), "SEARCH_TRACKER_UNAVAILABLE", None),
    (lambda rt, mp: setattr(rt, "search_era_config", None), "ERA_CONFIG_UNAVAILABLE", [True, False]),
    # the store's flag is deliberately left as it is on the paths below
    (lambda rt, mp: setattr(rt, "evaluator", None), "BACKTESTER_UNAVAILABLE", [True]),
    (lambda rt, mp: mp.setattr(st, "ObfuscationManager", _no_obfuscation), "VOCABULARY_UNAVAILABLE", [True]),
    (lambda rt, mp: setattr(rt, "vocabulary_raw", "not a map"), "VOCABULARY_UNAVAILABLE", [True]),
])
def test_missing_parts_are_reported_and_leave_no_search_active(runtime, monkeypatch, caplog, change, code,
                                                               store_flags):
    tracker = runtime.search_tracker
    change(runtime, monkeypatch)
    with pytest.raises(st.SearchError) as info:
        st.search(idle_template)
    assert_search_error(info.value, code)
    assert st._search_active is False and st._active_search_handle is None
    if store_flags is not None:
        assert tracker.search_active == store_flags
    if code == "VOCABULARY_UNAVAILABLE":
        assert any(m.startswith(("Failed to instantiate ObfuscationManager: no vocabulary",
                                 "Failed to load vocabulary via load_vocabulary: ")) for m in caplog.messages)


def test_a_started_search_is_published_with_its_collaborators_whatever_its_heartbeat(runtime, seed_dir,
                                                                                     monkeypatch):
    def heartbeat():
        raise RuntimeError("no pulse")
    monkeypatch.setattr(st, "inject_heartbeat", heartbeat)
    h = st.search(idle_template, n_jobs=1)
    assert isinstance(h, st.SearchHandle)
    assert st._active_search_handle is h and h in st._active_handles and st._search_active is True
    assert (h._tracker, h._backtester, h._auth, h._data_dir) == (
        runtime.search_tracker, runtime.evaluator, runtime.auth_proxy, seed_dir)
    assert h._sync_progress == 0.0
    assert st.status().running is True
    assert [t.name for t in h._worker_threads] == ["worker_0"]


def test_n_jobs_above_the_core_count_is_cut(runtime, monkeypatch, caplog):
    import multiprocessing
    monkeypatch.setattr(multiprocessing, "cpu_count", lambda: 1)
    h = st.search(idle_template, n_jobs=3)
    assert h._n_jobs == 1 and h.status().n_jobs == 1
    assert "n_jobs=3 exceeds available cores (1). Using n_jobs=1." in caplog.messages


@pytest.mark.parametrize("manager, error, calls", [
    (lambda: FakeSyncManager([ConnectionError("down")]), None, 2),
    (lambda: FakeSyncManager(), None, 1),
    (lambda: FakeSyncManager(needs_sync=False), None, 0),
    (lambda: FakeSyncManager([ConnectionError("down")] * 12), "after multiple retries", 11),
    (lambda: FakeSyncManager(needs_sync=KeyError("era")), "before search startup", 0),
    (lambda: FakeSyncManager([ValueError("bad data")]), "before search startup", 1),
])
def test_the_data_sync_is_retried_for_connection_errors_only_and_comes_before_the_universe(runtime, manager, error,
                                                                                           calls):
    runtime.sync_manager = manager()
    runtime.valid_universe_id = None if error else "U1"
    if error is None:
        assert st.search(idle_template)._sync_progress == 1.0
    else:
        with pytest.raises(SyncError, match=f"^Data sync failed {error}. Check network and try again.$") as info:
            st.search(idle_template)
        assert (info.value.__cause__ is None) == ("retries" in error)  # the last connection error is not chained
        assert st._search_active is False
    assert runtime.sync_manager.sync_calls == calls


def test_a_second_search_replaces_the_first_whether_stopped_or_running(runtime):
    stopped = st.search(idle_template)
    stopped.stop()
    assert stopped in st._active_handles  # a stopped handle stays listed until the next search
    first = st.search(idle_template)
    assert stopped not in st._active_handles
    second = st.search(idle_template)
    assert first._stopped is True and first._running is False
    assert first not in st._active_handles and second in st._active_handles
    assert st._active_search_handle is second and st._search_active is True
    assert st.status().running is True


class Stubborn:
    def __init__(self):
        self._stopped = False
        self._stop_event = threading.Event()

    def _abort_for_replacement(self):
        raise RuntimeError("stuck")


class Politer:
    """A handle of an older kind: no abort, only stop."""

    def __init__(self):
        self._stopped = False
        self.stopped_with = None

    def stop(self, join_timeout=None):
        self.stopped_with = join_timeout


def test_earlier_handles_that_resist_stay_listed_with_their_stop_event_set(runtime, caplog):
    stubborn, polite = Stubborn(), Politer()
    st._active_handles.add(stubborn)
    st._active_handles.add(polite)
    h = st.search(idle_template)
    assert stubborn._stop_event.is_set() and stubborn in st._active_handles
    assert polite.stopped_with == 2.0 and polite not in st._active_handles
    assert st._active_search_handle is h
    assert "Failed to stop previous search handle: stuck" in caplog.messages
    st._active_handles.discard(stubborn)

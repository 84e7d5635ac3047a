"""The handle's construction, the era's key material, the failure ledger and the status snapshots."""
import logging
import time
from types import SimpleNamespace

import pytest

import quillmarsh.callbacks as callbacks
import quillmarsh.search_templates as st
from quillmarsh.errors import SdkRuntimeNotReadyError
from engine.helpers import FakeAuth, VaultBacktester, idle_template


def quiet_handle(make_handle, **kw):
    """A handle without threads: no backtester means no workers and no supervisor."""
    kw.setdefault("bt", None)
    return make_handle(idle_template, **kw)


def test_a_null_era_config_is_refused_before_anything_else(make_handle):
    with pytest.raises(SdkRuntimeNotReadyError):
        make_handle(idle_template, era_cfg=None, tracker=None, obf=None)


def test_without_a_vault_entry_point_the_era_data_module_initialises(make_handle, monkeypatch):
    seen = []
    monkeypatch.setattr(st, "era_data", SimpleNamespace(initialize=lambda *a: seen.append(a)), raising=False)
    h = quiet_handle(make_handle)
    assert h._era_data_mod is st.era_data
    assert len(seen) == 1 and len(seen[0][0]) == 60 and seen[0][2] == 3


@pytest.mark.parametrize("seed, auth", [
    (None, FakeAuth()),
    (b"\x01" * 59, FakeAuth()),
    (b"\x01" * 60, SimpleNamespace(get_token=lambda: "t")),
    (b"\x01" * 60, FakeAuth(wallet_secret=b"\x00" * 31)),
])
def test_unusable_key_material_leaves_a_live_handle_and_no_log_line(make_handle, tmp_path, caplog, seed, auth):
    data_dir = tmp_path / "d"
    data_dir.mkdir()
    if seed is not None:
        (data_dir / "shuffle_seed.enc").write_bytes(seed)
    bt = VaultBacktester()
    h = make_handle(idle_template, bt=bt, data_dir=str(data_dir), auth_mock=auth)
    assert h._fatal_error is None and h.status().running is True
    assert bt.calls == []
    assert [r for r in caplog.records if r.name == "quillmarsh.search_templates"] == []


@pytest.mark.parametrize("error, fatal, reconstructed", [
    (None, False, True),
    (RuntimeError("vault already initialized"), False, True),
    (RuntimeError("invalid credentials for era"), True, True),
    (RuntimeError("era mismatch"), True, True),
    (RuntimeError("disk hiccup"), False, False),
])
def test_the_key_material_is_handed_on_unread_and_vault_errors_judged_by_their_text(make_handle, monkeypatch,
                                                                                   seed_dir, error, fatal,
                                                                                   reconstructed):
    events = []
    monkeypatch.setattr(callbacks, "emit_event", lambda **kw: events.append(kw))
    bt, auth = VaultBacktester(vault_error=error), FakeAuth()
    h = make_handle(idle_template, bt=bt, auth_mock=auth)
    blob = open(seed_dir + "/shuffle_seed.enc", "rb").read()
    assert bt.calls[0] == ("initialize_era_vault", blob, auth.wallet_secret, 3)
    assert ("init_reconstruction" in bt.names()) is reconstructed
    assert (h._fatal_error is not None) is fatal
    assert h._running is not fatal
    if fatal:
        assert h._fatal_error.message == "Background infrastructure failed permanently: " + str(error)
        # a handle that is fatal from the start runs no threads
        assert h._supervisor_thread is None and h._worker_threads == []
        assert events[0]["event_type"] == "failure" and events[0]["severity"] == "fatal"
    else:
        assert h._supervisor_thread is not None


def test_the_persisted_evaluation_count_is_the_starting_total(make_handle, caplog):
    class Counting:
        def __init__(self, count):
            self.count = count

        def get_evaluation_count(self):
            if isinstance(self.count, Exception):
                raise self.count
            return self.count
    assert quiet_handle(make_handle, tracker=Counting(41)).status().total_evaluated == 41
    assert quiet_handle(make_handle, tracker=Counting("41"))._total_evaluated == 0
    assert quiet_handle(make_handle, tracker=Counting(OSError("locked")))._total_evaluated == 0
    assert "Failed to load persisted evaluation count: locked" in caplog.messages


def test_the_failure_ledger_backs_off_to_300_degrades_once_and_keeps_degradation_past_a_reset(make_handle):
    h = quiet_handle(make_handle)
    backoffs = []
    for i in range(12):
        before = time.monotonic()
        h._record_background_failure("submission", "loop", ValueError("boom"))
        backoffs.append(h._submission_backoff_until - before)
        assert h._submission_degraded is (i >= 9)
        h._record_background_failure("polling", "poll", KeyError("x"), backoff=False)
    assert [round(b) for b in backoffs] == [5, 10, 20, 40, 80, 160, 300, 300, 300, 300, 300, 300]
    degraded = "submission capability degraded after 10 consecutive failures; search continues without submissions"
    assert h._errors.count(degraded) == 1 and h._crash_count == 24
    assert h._errors[0] == "submission loop failed (ValueError): boom"
    # without back-off a failure counts and degrades but leaves the pause alone
    assert h._polling_degraded and (h._polling_backoff_seconds, h._polling_backoff_until) == (5.0, 0.0)
    h._record_background_failure("era", "restart", RuntimeError("x"))  # other components only count
    assert (h._crash_count, h._submission_failures, h._polling_failures) == (25, 12, 12)
    h._reset_background_failures("submission")
    assert h._submission_failures == 0 and h._submission_degraded is True
    assert h._submission_backoff_seconds == 300.0


def test_a_fatal_error_is_raised_anew_by_every_status(make_handle, monkeypatch, caplog):
    h = quiet_handle(make_handle)
    st._active_search_handle = h

    def broken(**kw):
        raise OSError("no events")
    monkeypatch.setattr(callbacks, "emit_event", broken)
    h._append_error("earlier")
    h._set_fatal_error("INFRASTRUCTURE_FAILURE", "register()", "Background infrastructure failed permanently")
    assert "callback dispatch failed during fatal-error: no events" in caplog.messages
    raised = []
    for status in (h.status, st.status):
        with pytest.raises(st.SearchError) as info:
            status()
        raised.append(info.value)
        assert info.value.error_code == "INFRASTRUCTURE_FAILURE"
        assert info.value.status == st.SearchStatus(
            running=False, n_jobs=1, total_evaluated=0, error_code="INFRASTRUCTURE_FAILURE",
            recovery_advice="register()", errors=["earlier"], crash_count=0)
    assert raised[0] is not raised[1] and raised[0] is not h._fatal_error
    assert h._stop_event.is_set() is False


def test_status_reports_a_failed_memory_probe_as_one_and_no_time_as_no_rate(make_handle, monkeypatch, caplog):
    import resource
    h = quiet_handle(make_handle)

    def broken(who):
        raise OSError("no rusage")
    monkeypatch.setattr(resource, "getrusage", broken)
    h._start_time = time.monotonic() + 1000.0
    s = h.status()
    assert s.memory_usage_mb == 1.0 and s.signals_per_hour == 0.0
    assert "Failed to get memory usage: no rusage" in caplog.messages


def test_without_a_backtester_the_handle_runs_without_threads(make_handle):
    h = quiet_handle(make_handle)
    assert h.status().running is True
    assert h._supervisor_thread is None and h._worker_threads == [] and h._submission_thread is None

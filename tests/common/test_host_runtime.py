import collections
import logging
import os
import shutil
import sys
import types
from types import SimpleNamespace as NS

import pytest

import quillmarsh.search_templates as st

LOGGER = "quillmarsh.search_templates"
ONBOARDING = "quillmarsh.agent_onboarding"
GB = 1073741824
MB = 1048576


class Token:
    def __init__(self, *values):
        self.values = list(values)
        self.calls = 0

    def get_token(self):
        self.calls += 1
        value = self.values[min(self.calls, len(self.values)) - 1]
        if isinstance(value, BaseException):
            raise value
        return value


# ---- nudges, memory, disk, management guard --------------------------------------------------


def test_nudge_passes_trigger_and_context(onboarding):
    assert st._safe_update_nudge("search_started", n_jobs=2) is None
    assert onboarding.nudges == [("search_started", {"n_jobs": 2})]


@pytest.mark.parametrize("setup", ["raises", "absent", "no_function", "broken"])
def test_a_failing_nudge_is_only_a_warning(setup, onboarding, absent, broken_dependency, caplog):
    if setup == "raises":
        onboarding.update_nudge = lambda trigger, **ctx: 1 / 0
    elif setup == "absent":
        absent(ONBOARDING)
    elif setup == "no_function":
        del onboarding.update_nudge
    else:
        broken_dependency(ONBOARDING)
    with caplog.at_level(logging.WARNING, logger=LOGGER):
        assert st._safe_update_nudge("t") is None
    assert [r.msg for r in caplog.records] == ["update_nudge call failed: %s"]


def fake_psutil(available):
    return types.SimpleNamespace(virtual_memory=lambda: types.SimpleNamespace(available=available))


@pytest.mark.parametrize("available, shown", [(3.9 * GB, "3.9"), (3.96 * GB, "4.0"), (0, "0.0")])
def test_memory_floor(available, shown, monkeypatch):
    monkeypatch.setitem(sys.modules, "psutil", fake_psutil(available))
    with pytest.raises(st.SearchError) as info:
        st._check_memory()
    err = info.value
    assert str(err) == f"Not enough memory: requires 4.0 GB, available {shown} GB"
    assert err.error_code == "OUT_OF_MEMORY" and err.status == st.SearchStatus(running=False)


def test_memory_at_the_floor_passes_and_missing_psutil_is_skipped(monkeypatch, caplog):
    monkeypatch.setitem(sys.modules, "psutil", fake_psutil(4 * GB))
    assert st._check_memory() is None
    monkeypatch.setitem(sys.modules, "psutil", None)
    with caplog.at_level(logging.WARNING, logger=LOGGER):
        assert st._check_memory() is None
    assert [r.getMessage() for r in caplog.records] == ["psutil not installed \u2014 memory check skipped"]


Usage = collections.namedtuple("Usage", "total used free")


@pytest.fixture
def disk(monkeypatch):
    seen = []

    def set_free(free=None, error=None):
        def usage(path):
            seen.append(path)
            if error:
                raise error
            return Usage(0, 0, free)

        monkeypatch.setattr(shutil, "disk_usage", usage)
        return seen

    return set_free


@pytest.mark.parametrize("free_mb, shown", [(499.6, "500"), (12.3, "12")])
def test_disk_floor_checks_the_home_directory(free_mb, shown, disk):
    seen = disk(free=free_mb * MB)
    with pytest.raises(st.SearchError) as info:
        st._check_disk()
    assert str(info.value) == f"Disk space critically low: {shown} MB remaining"
    assert info.value.error_code == "DISK_FULL" and info.value.status.running is False
    assert seen == [os.path.expanduser("~")]


def test_disk_at_the_floor_passes_and_a_failing_probe_warns(disk, caplog):
    disk(free=500 * MB)
    assert st._check_disk() is None
    disk(error=PermissionError("denied"))
    with caplog.at_level(logging.WARNING, logger=LOGGER):
        assert st._check_disk() is None
    assert [r.getMessage() for r in caplog.records] == ["Disk check failed: denied"]


def test_management_is_blocked_while_a_search_runs(monkeypatch):
    assert st._raise_if_management_blocked() is None
    monkeypatch.setattr(st, "_search_active", True)
    with pytest.raises(RuntimeError, match=r"^Cannot delete evaluations while a search is running\. Call handle\.stop\(\) first\.$"):
        st._raise_if_management_blocked()
    assert not st._search_active_lock.locked()


# ---- configuration and the management tracker --------------------------------------------------


def test_data_dir_from_config_or_default(onboarding, absent, broken_dependency):
    assert st._agent_onboarding_data_dir("d") == "d"
    onboarding._config["data_dir"] = "/x"
    assert st._agent_onboarding_data_dir("d") == "/x"
    del onboarding._config
    with pytest.raises(ImportError, match="_config"):
        st._agent_onboarding_data_dir("d")
    absent(ONBOARDING)
    assert st._agent_onboarding_data_dir("d") == "d"
    assert st._agent_onboarding_data_dir() is None
    broken_dependency(ONBOARDING, "qm_dep")
    with pytest.raises(ModuleNotFoundError) as info:
        st._agent_onboarding_data_dir("d")
    assert info.value.name == "qm_dep"


@pytest.mark.parametrize("value", [None, ""])
def test_tracking_dir_is_required(value, onboarding):
    if value is not None:
        onboarding._config["data_dir"] = value
    with pytest.raises(OSError, match=r"^data_dir is required for search tracking database management\.$"):
        st._configured_tracking_data_dir()


class Tracker:
    made = []

    def __init__(self, data_dir):
        self.data_dir, self.closed = data_dir, False
        Tracker.made.append(self)

    def info(self, *args, **kwargs):
        return ("info", args, kwargs)

    def broken(self):
        raise KeyError("db")

    def close(self):
        self.closed = True


@pytest.fixture
def tracker_setup(onboarding, monkeypatch):
    onboarding._config["data_dir"] = "~/qm-data"
    Tracker.made = []
    monkeypatch.setattr(st, "SearchTracker", Tracker, raising=False)
    return Tracker


def test_management_tracker_uses_the_expanded_dir_and_is_closed(tracker_setup):
    assert st._configured_tracking_data_dir() == os.path.expanduser("~/qm-data")
    assert st._call_management_tracker("info", 1, k=2) == ("info", (1,), {"k": 2})
    with pytest.raises(KeyError):
        st._call_management_tracker("broken")
    assert [(t.data_dir, t.closed) for t in Tracker.made] == [(os.path.expanduser("~/qm-data"), True)] * 2


def test_management_tracker_falls_back_to_search_tracking(tracker_setup, install, monkeypatch):
    class NoClose:
        def __init__(self, data_dir):
            self.data_dir = data_dir
            self.close = "not callable"

        def count(self):
            return 3

    monkeypatch.setattr(st, "SearchTracker", None)
    install("quillmarsh.search_tracking", SearchTracker=NoClose)
    assert isinstance(st._new_management_tracker(), NoClose)
    assert st._call_management_tracker("count") == 3


# ---- authentication -----------------------------------------------------------------------------


@pytest.mark.parametrize(
    "mod, expected",
    [
        (NS(), False),
        (NS(_library_runtime=None), False),
        (NS(_library_runtime=NS(auth_proxy=None)), False),
        (NS(_library_runtime=NS(auth_proxy=Token(""))), True),
        (NS(_library_runtime=NS(auth_proxy=Token(AttributeError("x")))), False),
        (NS(_library_runtime=NS(auth_proxy=Token(TypeError("x")))), False),
        (NS(_library_runtime=NS(auth_proxy=NS())), False),
    ],
)
def test_is_authed(mod, expected):
    assert st._is_authed(mod) is expected


def test_is_authed_lets_other_errors_through(auth_error, caplog):
    with pytest.raises(auth_error):
        st._is_authed(NS(_library_runtime=NS(auth_proxy=Token(auth_error("no")))))
    with caplog.at_level(logging.DEBUG, logger=LOGGER):
        st._is_authed(NS(_library_runtime=NS(auth_proxy=Token(TypeError("bad")))))
    assert [r.getMessage() for r in caplog.records] == ["auth probe get_token() raised: bad"]


def test_bootstrap_from_cached_auth(onboarding, absent, broken_dependency, caplog):
    calls = []
    onboarding.ensure_runtime_bootstrapped = lambda **kw: calls.append(kw)
    assert st._bootstrap_runtime_from_cached_auth(st) is None  # nothing cached
    onboarding._auth_manager = object()
    assert st._bootstrap_runtime_from_cached_auth(st) is None
    assert calls == [{"strict": True}]
    error = RuntimeError("sync failed")
    onboarding.ensure_runtime_bootstrapped = lambda **kw: (_ for _ in ()).throw(error)
    assert st._bootstrap_runtime_from_cached_auth(st) is error
    onboarding.ensure_runtime_bootstrapped = "not callable"
    assert st._bootstrap_runtime_from_cached_auth(st) is None
    for make_unimportable in (lambda: broken_dependency(ONBOARDING), lambda: absent(ONBOARDING)):
        make_unimportable()
        with caplog.at_level(logging.DEBUG, logger=LOGGER):
            assert st._bootstrap_runtime_from_cached_auth(st) is None
    assert [r.msg for r in caplog.records] == ["agent_onboarding import during auth bootstrap failed: %s"] * 2


@pytest.mark.parametrize(
    "config, expected",
    [
        ({"server_url": "https://signals.example"}, "https://signals.example"),
        ({"server_url": "https://signals.invalid"}, None),
        ({"server_url": ""}, None),
        ({"server_url": None}, None),
        ({}, None),
    ],
)
def test_signal_service_url(config, expected, onboarding):
    onboarding._config = config
    assert st._resolve_signal_service_url() == expected


def test_signal_service_url_without_config_or_module(onboarding, absent, broken_dependency):
    del onboarding._config
    assert st._resolve_signal_service_url() is None
    absent(ONBOARDING)
    assert st._resolve_signal_service_url() is None
    broken_dependency(ONBOARDING)
    with pytest.raises(ModuleNotFoundError):
        st._resolve_signal_service_url()


def test_submission_auth_object_order(clean_globals, onboarding, monkeypatch, absent, broken_dependency):
    proxy, module_auth, cached = Token("a"), Token("b"), Token("c")
    assert st._submission_auth_obj() is None
    onboarding._auth_manager = cached
    assert st._submission_auth_obj() is cached
    monkeypatch.setattr(st, "_auth", module_auth, raising=False)
    assert st._submission_auth_obj() is module_auth
    monkeypatch.setattr(st, "_library_runtime", NS(auth_proxy=None), raising=False)
    assert st._submission_auth_obj() is module_auth
    monkeypatch.setattr(st, "_library_runtime", NS(auth_proxy=proxy))
    assert st._submission_auth_obj() is proxy
    monkeypatch.delattr(st, "_library_runtime")
    monkeypatch.delattr(st, "_auth")
    absent(ONBOARDING)
    assert st._submission_auth_obj() is None
    broken_dependency(ONBOARDING)
    with pytest.raises(ModuleNotFoundError):
        st._submission_auth_obj()


@pytest.fixture
def auth_obj(clean_globals, onboarding, auth_error, monkeypatch):
    def use(token):
        monkeypatch.setattr(st, "_auth", token, raising=False)
        return token

    return use


def test_token_is_fetched_fresh(auth_obj):
    token = auth_obj(Token("t1", "t2"))
    assert (st._get_submission_token(), st._get_submission_token()) == ("t1", "t2")


@pytest.mark.parametrize("token", [None, Token(""), Token(None)])
def test_no_token_is_not_authenticated(token, auth_obj, auth_error):
    if token is not None:
        auth_obj(token)
    with pytest.raises(auth_error, match=r"^Not authenticated\. Run register\(\) or login\(private_key\) first\.$"):
        st._get_submission_token()


def test_not_authenticated_reason_is_rephrased_with_cause(auth_obj, auth_error):
    original = auth_error("expired", reason="not_authenticated")
    auth_obj(Token(original))
    with pytest.raises(auth_error) as info:
        st._get_submission_token()
    assert str(info.value) == st._NOT_AUTHENTICATED_MESSAGE and info.value.__cause__ is original


@pytest.mark.parametrize("error", [("locked", "wallet_locked"), ("plain", None), "runtime"])
def test_other_token_errors_pass_unchanged(error, auth_obj, auth_error):
    original = RuntimeError("boom") if error == "runtime" else auth_error(*error)
    auth_obj(Token(original))
    with pytest.raises(type(original)) as info:
        st._get_submission_token()
    assert info.value is original


class Client:
    def __init__(self, server_url, token, timeout=None):
        self.args = (server_url, token, timeout)


def test_signal_service_client_gets_url_token_and_timeout(auth_obj, onboarding, install):
    install("quillmarsh.submit", SignalServiceClient=Client)
    onboarding._config = {"server_url": "https://s.example"}
    auth_obj(Token("t1", "t2"))
    assert st._build_signal_service_client().args == ("https://s.example", "t1", 30.0)
    assert st._build_signal_service_client(timeout=5).args == ("https://s.example", "t2", 5)


@pytest.mark.parametrize("url", ["http://qm.invalid", "", None])
def test_no_server_is_a_connection_error(url, auth_obj, onboarding, install):
    install("quillmarsh.submit", SignalServiceClient=Client)
    onboarding._config = {"server_url": url}
    token = auth_obj(Token("t"))
    with pytest.raises(ConnectionError, match="^No submission server configured$"):
        st._build_signal_service_client()
    assert token.calls == 0

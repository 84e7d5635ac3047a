import collections
import logging
import os
import shutil
import sys
from types import SimpleNamespace as NS

import pytest

import quillmarsh.search_templates as st

LOGGER = "quillmarsh.search_templates"
ONBOARDING = "quillmarsh.agent_onboarding"
GB, MB = 1073741824, 1048576
NOT_AUTHENTICATED = r"^Not authenticated\. Run register\(\) or login\(private_key\) first\.$"


class Token:
    """An auth object whose get_token() answers (or raises) the given values in turn."""

    def __init__(self, *values):
        self.values, self.calls = list(values), 0

    def get_token(self):
        self.calls += 1
        value = self.values[min(self.calls, len(self.values)) - 1]
        if isinstance(value, BaseException):
            raise value
        return value


def messages(caplog):
    return [r.getMessage() for r in caplog.records if r.name == LOGGER]


@pytest.fixture
def unimportable(absent, broken_dependency):
    """unimportable(kind): agent_onboarding itself missing, or missing one of its dependencies."""
    return lambda kind: absent(ONBOARDING) if kind == "absent" else broken_dependency(ONBOARDING, "qm_dep")


# ---- nudges, memory, disk, management guard --------------------------------------------------


@pytest.mark.parametrize("setup", ["ok", "raises", "absent", "no_function", "broken"])
def test_a_nudge_never_harms(setup, onboarding, unimportable, caplog):
    if setup == "raises":
        onboarding.update_nudge = lambda trigger, **ctx: 1 / 0
    elif setup == "no_function":
        del onboarding.update_nudge
    elif setup != "ok":
        unimportable(setup)
    with caplog.at_level(logging.WARNING, logger=LOGGER):
        assert st._safe_update_nudge("search_started", n_jobs=2) is None
    if setup == "ok":
        assert onboarding.nudges == [("search_started", {"n_jobs": 2})] and not caplog.records
    else:
        assert [r.msg for r in caplog.records] == ["update_nudge call failed: %s"]


@pytest.mark.parametrize("available, shown", [(3.9 * GB, "3.9"), (3.96 * GB, "4.0"), (None, None)])
def test_memory_floor(available, shown, monkeypatch, caplog):
    psutil = None if available is None else NS(virtual_memory=lambda: NS(available=available))
    monkeypatch.setitem(sys.modules, "psutil", psutil)
    if shown is None:
        with caplog.at_level(logging.WARNING, logger=LOGGER):
            assert st._check_memory() is None
        assert messages(caplog) == ["psutil not installed \u2014 memory check skipped"]
        return
    with pytest.raises(st.SearchError) as info:
        st._check_memory()
    assert str(info.value) == f"Not enough memory: requires 4.0 GB, available {shown} GB"
    assert info.value.error_code == "OUT_OF_MEMORY" and info.value.status == st.SearchStatus(running=False)
    monkeypatch.setitem(sys.modules, "psutil", NS(virtual_memory=lambda: NS(available=4 * GB)))
    assert st._check_memory() is None


Usage = collections.namedtuple("Usage", "total used free")


@pytest.mark.parametrize("free_mb, shown", [(499.6, "500"), (12.3, "12"), (500, None), (PermissionError("no"), None)])
def test_disk_floor_checks_the_home_directory(free_mb, shown, monkeypatch, caplog):
    seen = []

    def usage(path):
        seen.append(path)
        if isinstance(free_mb, Exception):
            raise free_mb
        return Usage(0, 0, free_mb * MB)

    monkeypatch.setattr(shutil, "disk_usage", usage)
    with caplog.at_level(logging.WARNING, logger=LOGGER):
        if shown is None:
            assert st._check_disk() is None
        else:
            with pytest.raises(st.SearchError) as info:
                st._check_disk()
            assert str(info.value) == f"Disk space critically low: {shown} MB remaining"
            assert info.value.error_code == "DISK_FULL" and info.value.status.running is False
    assert seen == [os.path.expanduser("~")]
    assert messages(caplog) == (["Disk check failed: no"] if isinstance(free_mb, Exception) else [])


def test_management_is_blocked_while_a_search_runs(monkeypatch):
    assert st._raise_if_management_blocked() is None
    monkeypatch.setattr(st, "_search_active", True)
    with pytest.raises(RuntimeError) as info:
        st._raise_if_management_blocked()
    assert str(info.value) == st._MANAGEMENT_ACTIVE_ERROR and not st._search_active_lock.locked()


# ---- configuration and the management tracker --------------------------------------------------


def test_data_dir_from_config_or_default(onboarding, unimportable):
    assert st._agent_onboarding_data_dir("d") == "d"
    onboarding._config["data_dir"] = "/x"
    assert st._agent_onboarding_data_dir("d") == "/x"
    unimportable("absent")
    assert st._agent_onboarding_data_dir("d") == "d"


@pytest.mark.parametrize("value", [None, ""])
def test_tracking_dir_is_required(value, onboarding):
    if value is not None:
        onboarding._config["data_dir"] = value
    with pytest.raises(OSError, match=r"^data_dir is required for search tracking database management\.$"):
        st._configured_tracking_data_dir()


class Tracker:
    def __init__(self, data_dir):
        self.data_dir, self.closed = data_dir, False
        self.made.append(self)

    def info(self, *args, **kwargs):
        return ("info", args, kwargs)

    def broken(self):
        raise KeyError("db")

    def close(self):
        self.closed = True


def test_management_tracker_uses_the_expanded_dir_and_is_always_closed(onboarding, monkeypatch):
    onboarding._config["data_dir"] = "~/qm-data"
    monkeypatch.setattr(Tracker, "made", [], raising=False)
    monkeypatch.setattr(st, "SearchTracker", Tracker, raising=False)
    assert st._call_management_tracker("info", 1, k=2) == ("info", (1,), {"k": 2})
    with pytest.raises(KeyError):
        st._call_management_tracker("broken")
    assert [(t.data_dir, t.closed) for t in Tracker.made] == [(os.path.expanduser("~/qm-data"), True)] * 2


def test_management_tracker_falls_back_to_search_tracking(onboarding, install, monkeypatch):
    onboarding._config["data_dir"] = "/d"
    monkeypatch.setattr(st, "SearchTracker", None, raising=False)
    install("quillmarsh.search_tracking", SearchTracker=lambda d: NS(data_dir=d, count=lambda: 3, close=None))
    assert st._new_management_tracker().data_dir == "/d"
    assert st._call_management_tracker("count") == 3  # a close that is not callable is skipped


# ---- authentication and the signal service -----------------------------------------------------


@pytest.mark.parametrize(
    "mod, expected, logged",
    [
        (NS(), False, []),
        (NS(_library_runtime=NS(auth_proxy=None)), False, []),
        (NS(_library_runtime=NS(auth_proxy=Token(""))), True, []),  # any token, even an empty one
        (NS(_library_runtime=NS(auth_proxy=Token(AttributeError("x")))), False, ["auth probe get_token() raised: x"]),
        (NS(_library_runtime=NS(auth_proxy=Token(TypeError("bad")))), False, ["auth probe get_token() raised: bad"]),
    ],
)
def test_is_authed(mod, expected, logged, caplog):
    with caplog.at_level(logging.DEBUG, logger=LOGGER):
        assert st._is_authed(mod) is expected
    assert messages(caplog) == logged


def test_is_authed_lets_auth_errors_through(auth_error):
    with pytest.raises(auth_error):
        st._is_authed(NS(_library_runtime=NS(auth_proxy=Token(auth_error("no")))))


@pytest.mark.parametrize("kind", ["absent", "broken"])
def test_bootstrap_without_agent_onboarding_is_none(kind, unimportable, caplog):
    unimportable(kind)
    with caplog.at_level(logging.DEBUG, logger=LOGGER):
        assert st._bootstrap_runtime_from_cached_auth(st) is None
    assert [r.msg for r in caplog.records] == ["agent_onboarding import during auth bootstrap failed: %s"]


def test_bootstrap_from_cached_auth(onboarding):
    calls, error = [], RuntimeError("sync failed")
    onboarding.ensure_runtime_bootstrapped = lambda **kw: calls.append(kw)
    assert st._bootstrap_runtime_from_cached_auth(st) is None and calls == []  # nothing cached
    onboarding._auth_manager = object()
    assert st._bootstrap_runtime_from_cached_auth(st) is None and calls == [{"strict": True}]
    onboarding.ensure_runtime_bootstrapped = lambda **kw: (_ for _ in ()).throw(error)
    assert st._bootstrap_runtime_from_cached_auth(st) is error
    onboarding.ensure_runtime_bootstrapped = "not callable"
    assert st._bootstrap_runtime_from_cached_auth(st) is None


@pytest.mark.parametrize(
    "config, expected",
    [({"server_url": "https://s.example"}, "https://s.example"), ({"server_url": "https://s.invalid"}, None),
     ({"server_url": ""}, None), ({}, None), (None, None)],
)
def test_signal_service_url(config, expected, onboarding):
    if config is None:
        del onboarding._config
    else:
        onboarding._config = config
    assert st._resolve_signal_service_url() == expected


@pytest.mark.parametrize("function", [st._resolve_signal_service_url, st._submission_auth_obj,
                                      st._agent_onboarding_data_dir])
def test_doors_tolerate_only_agent_onboarding_itself_missing(function, clean_globals, unimportable):
    unimportable("absent")
    assert function() is None
    unimportable("broken")
    with pytest.raises(ModuleNotFoundError) as info:
        function()
    assert info.value.name == "qm_dep"


def test_submission_auth_object_order(clean_globals, onboarding, monkeypatch):
    proxy, module_auth, cached = Token("a"), Token("b"), Token("c")
    assert st._submission_auth_obj() is None
    onboarding._auth_manager = cached
    assert st._submission_auth_obj() is cached
    monkeypatch.setattr(st, "_auth", module_auth, raising=False)
    monkeypatch.setattr(st, "_library_runtime", NS(auth_proxy=None), raising=False)
    assert st._submission_auth_obj() is module_auth
    monkeypatch.setattr(st, "_library_runtime", NS(auth_proxy=proxy))
    assert st._submission_auth_obj() is proxy


@pytest.fixture
def use_auth(clean_globals, onboarding, auth_error, monkeypatch):
    def use(token):
        monkeypatch.setattr(st, "_auth", token, raising=False)
        return token

    return use


@pytest.mark.parametrize("token", [None, Token(""), Token(None)])
def test_no_token_is_not_authenticated(token, use_auth, auth_error):
    use_auth(token)
    with pytest.raises(auth_error, match=NOT_AUTHENTICATED):
        st._get_submission_token()


def test_not_authenticated_reason_is_rephrased_with_cause(use_auth, auth_error):
    original = auth_error("expired", reason="not_authenticated")
    use_auth(Token(original))
    with pytest.raises(auth_error, match=NOT_AUTHENTICATED) as info:
        st._get_submission_token()
    assert info.value.__cause__ is original


@pytest.mark.parametrize("error", [("locked", "wallet_locked"), ("plain", None), "runtime"])
def test_other_token_errors_pass_unchanged(error, use_auth, auth_error):
    original = RuntimeError("boom") if error == "runtime" else auth_error(*error)
    use_auth(Token(original))
    with pytest.raises(type(original)) as info:
        st._get_submission_token()
    assert info.value is original


class Client:
    def __init__(self, server_url, token, timeout=None):
        self.args = (server_url, token, timeout)


@pytest.mark.parametrize("url", ["https://s.example", "http://qm.invalid", ""])
def test_signal_service_client_is_new_with_a_fresh_token(url, use_auth, onboarding, install):
    install("quillmarsh.submit", SignalServiceClient=Client)
    onboarding._config = {"server_url": url}
    token = use_auth(Token("t1", "t2"))
    if not url.endswith(".example"):
        with pytest.raises(ConnectionError, match="^No submission server configured$"):
            st._build_signal_service_client()
        assert token.calls == 0
        return
    assert st._build_signal_service_client().args == (url, "t1", 30.0)
    assert st._build_signal_service_client(timeout=5).args == (url, "t2", 5)

import collections
import logging
import os
import re
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


@pytest.mark.parametrize("setup", ["ok", "raises", "absent", "broken"])
def test_a_nudge_never_harms(setup, onboarding, unimportable, caplog):
    if setup == "raises":
        onboarding.update_nudge = lambda trigger, **ctx: 1 / 0
    elif setup != "ok":
        unimportable(setup)
    with caplog.at_level(logging.WARNING, logger=LOGGER):
        assert st._safe_update_nudge("search_started", n_jobs=2) is None
    if setup == "ok":
        assert onboarding.nudges == [("search_started", {"n_jobs": 2})] and not caplog.records
    else:
        assert [r.msg for r in caplog.records] == ["update_nudge call failed: %s"]


Usage = collections.namedtuple("Usage", "total used free")


@pytest.fixture
def machine(monkeypatch):
    """machine(memory, disk): what psutil and shutil.disk_usage answer (an exception is raised, None: no psutil)."""
    seen = []

    def set_(memory, disk):
        def usage(path):
            seen.append(path)
            if isinstance(disk, Exception):
                raise disk
            return Usage(0, 0, disk)
        monkeypatch.setitem(sys.modules, "psutil", None if memory is None else NS(
            virtual_memory=lambda: NS(available=memory)))
        monkeypatch.setattr(shutil, "disk_usage", usage)
        return seen
    return set_


@pytest.mark.parametrize("check, memory, disk, message", [
    ("_check_memory", 3.96 * GB, 0, "Not enough memory: requires 4.0 GB, available 4.0 GB"),
    ("_check_memory", 4 * GB, 0, None),
    ("_check_disk", 0, 499.6 * MB, "Disk space critically low: 500 MB remaining"),
    ("_check_disk", 0, 500 * MB, None),
])
def test_machine_floors(check, memory, disk, message, machine):
    seen = machine(memory, disk)
    if message is None:
        assert getattr(st, check)() is None
        return
    with pytest.raises(st.SearchError) as info:
        getattr(st, check)()
    assert str(info.value) == message and info.value.status == st.SearchStatus(running=False)
    assert seen == ([os.path.expanduser("~")] if check == "_check_disk" else [])


def test_a_floor_that_cannot_be_measured_is_skipped_with_a_warning(machine, caplog):
    machine(None, PermissionError("no"))
    with caplog.at_level(logging.WARNING, logger=LOGGER):
        assert st._check_memory() is None and st._check_disk() is None
    assert messages(caplog) == ["psutil not installed \u2014 memory check skipped", "Disk check failed: no"]


# ---- configuration and the management tracker --------------------------------------------------


class Tracker:
    made = []

    def __init__(self, data_dir):
        self.data_dir, self.closed = data_dir, False
        self.made.append(self)

    def broken(self):
        raise KeyError("db")

    def close(self):
        self.closed = True


def test_management_tracker_uses_the_expanded_dir_is_always_closed_and_falls_back(onboarding, install,
                                                                                  monkeypatch):
    onboarding._config["data_dir"] = "~/qm-data"
    monkeypatch.setattr(Tracker, "made", [])
    monkeypatch.setattr(st, "SearchTracker", Tracker, raising=False)
    with pytest.raises(KeyError):
        st._call_management_tracker("broken")
    assert [(t.data_dir, t.closed) for t in Tracker.made] == [(os.path.expanduser("~/qm-data"), True)]
    monkeypatch.setattr(st, "SearchTracker", None)
    install("quillmarsh.search_tracking", SearchTracker=lambda d: NS(data_dir=d, count=lambda: 3, close=None))
    assert st._call_management_tracker("count") == 3  # a close that is not callable is skipped


# ---- authentication and the signal service -----------------------------------------------------


@pytest.mark.parametrize(
    "mod, expected, logged",
    [
        (NS(), False, []),
        (NS(_library_runtime=NS(auth_proxy=None)), False, []),
        (NS(_library_runtime=NS(auth_proxy=Token(""))), True, []),  # any token, even an empty one
        (NS(_library_runtime=NS(auth_proxy=Token(TypeError("bad")))), False, ["auth probe get_token() raised: bad"]),
        ("auth error", "raises", []),  # an auth error is the caller's to see
    ],
)
def test_is_authed(mod, expected, logged, caplog, auth_error):
    if expected == "raises":
        with pytest.raises(auth_error):
            st._is_authed(NS(_library_runtime=NS(auth_proxy=Token(auth_error("no")))))
        return
    with caplog.at_level(logging.DEBUG, logger=LOGGER):
        assert st._is_authed(mod) is expected
    assert messages(caplog) == logged


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


@pytest.mark.parametrize("token, rephrased", [
    (None, "new"), (Token(""), "new"), (Token(None), "new"),
    (("expired", "not_authenticated"), "cause"), (("locked", "wallet_locked"), None), (("plain", None), None),
    ("runtime", None)])
def test_only_a_missing_or_not_authenticated_token_is_rephrased(token, rephrased, use_auth, auth_error):
    original = None
    if isinstance(token, tuple) or token == "runtime":
        original = RuntimeError("boom") if token == "runtime" else auth_error(*token)
        token = Token(original)
    use_auth(token)
    with pytest.raises(auth_error if rephrased else type(original)) as info:
        st._get_submission_token()
    if rephrased:
        assert re.match(NOT_AUTHENTICATED, str(info.value)) and info.value.__cause__ is original
    else:
        assert info.value is original


class Client:
    def __init__(self, server_url, token, timeout=None):
        self.args = (server_url, token, timeout)


@pytest.mark.parametrize("url", ["https://s.example", ""])
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

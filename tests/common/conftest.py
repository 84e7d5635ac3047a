"""Fake sibling modules for the doors of the host runtime: each fixture puts a small module into sys.modules
for the test's duration, so the tests behave the same whether or not the real siblings are installed.
``BrokenDependencyFinder`` is also used by child interpreters that load the component afresh, so this
module does not import the component at load."""
import importlib.abc
import importlib.machinery
import sys
import types

import pytest

ONBOARDING = "quillmarsh.agent_onboarding"


@pytest.fixture
def install(monkeypatch):
    """install(name, **attrs) -> a fresh module bound as sys.modules[name]."""

    def _install(name, **attrs):
        module = types.ModuleType(name)
        for key, value in attrs.items():
            setattr(module, key, value)
        monkeypatch.setitem(sys.modules, name, module)
        return module

    return _install


@pytest.fixture
def absent(monkeypatch):
    """absent(name): importing `name` raises ModuleNotFoundError for that very name."""

    def _absent(name):
        monkeypatch.setitem(sys.modules, name, None)

    return _absent


class BrokenDependencyFinder(importlib.abc.MetaPathFinder, importlib.abc.Loader):
    def __init__(self, name, dependency):
        self.name, self.dependency = name, dependency

    def find_spec(self, fullname, path=None, target=None):
        if fullname == self.name:
            return importlib.machinery.ModuleSpec(fullname, self)
        return None

    def create_module(self, module_spec):
        return None

    def exec_module(self, module):
        raise ModuleNotFoundError(f"No module named {self.dependency!r}", name=self.dependency)


@pytest.fixture
def broken_dependency(monkeypatch):
    """broken_dependency(name, dependency): `name` exists but fails importing a missing `dependency`."""

    def _broken(name, dependency="qm_missing_dependency"):
        monkeypatch.delitem(sys.modules, name, raising=False)
        monkeypatch.setattr(sys, "meta_path", [BrokenDependencyFinder(name, dependency)] + sys.meta_path)

    return _broken


class FakeAuthError(Exception):
    def __init__(self, message, reason=None):
        super().__init__(message)
        if reason is not None:
            self.reason = reason


@pytest.fixture
def auth_error(install):
    install("quillmarsh.auth", AuthError=FakeAuthError)
    return FakeAuthError


@pytest.fixture
def onboarding(install):
    """A fake agent_onboarding with an empty config and no cached auth."""
    module = install(ONBOARDING, _config={}, _auth_manager=None)
    module.nudges = []
    module.update_nudge = lambda trigger, **context: module.nudges.append((trigger, context))
    return module


@pytest.fixture
def clean_globals(monkeypatch):
    """The module without `_library_runtime` and `_auth`, whatever an earlier test left."""
    import quillmarsh.search_templates as st

    monkeypatch.delattr(st, "_library_runtime", raising=False)
    monkeypatch.delattr(st, "_auth", raising=False)
    return st

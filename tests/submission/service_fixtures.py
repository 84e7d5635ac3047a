"""Fixtures of the submission tests, imported by the modules that use them: a scripted signal service on a
loopback port, and the configuration that points the component at it."""
from __future__ import annotations

from types import SimpleNamespace

import pytest

import quillmarsh.search_templates as st
from submission.scripted_service import ScriptedService


class Auth:
    wallet_secret = b"\x07" * 32

    def get_token(self):
        return "token-1"


@pytest.fixture
def service():
    s = ScriptedService()
    yield s
    s.close()


@pytest.fixture
def server_url(service, data_dir, monkeypatch):
    """The component's configuration: ``server_url`` at the scripted service, a logged-in runtime."""
    import quillmarsh.agent_onboarding as onboarding

    def point_at(url):
        monkeypatch.setattr(onboarding, "_config", {"data_dir": data_dir, "server_url": url})

    point_at(service.url)
    monkeypatch.setattr(st, "_library_runtime", SimpleNamespace(auth_proxy=Auth()), raising=False)
    return point_at

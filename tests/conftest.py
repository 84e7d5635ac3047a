"""Shared fixtures: a data directory, a real ``SearchTracker`` on it, and onboarding configured on it.

Fakes of the component's collaborators live beside the tests that use them (``engine/helpers.py``,
``evaluation/fakes.py``); prefer the real tracker wherever the store matters.
"""

from __future__ import annotations


import pytest


@pytest.fixture
def data_dir(tmp_path):
    path = tmp_path / "data"
    path.mkdir()
    return str(path)


@pytest.fixture
def tracker(data_dir):
    from quillmarsh.search_tracking import SearchTracker

    t = SearchTracker(data_dir)
    yield t
    t.close()


@pytest.fixture
def onboarding(data_dir, monkeypatch):
    """``quillmarsh.agent_onboarding`` configured on ``data_dir`` with no login; logged out afterwards."""
    import quillmarsh.agent_onboarding as onboarding

    monkeypatch.setattr(onboarding, "_config", {"data_dir": data_dir, "server_url": None})
    onboarding.logout()
    yield onboarding
    onboarding.logout()

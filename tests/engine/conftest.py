"""Fixtures of the engine tests: a runtime on the module, fast intervals, and a clean module state."""
from __future__ import annotations

import json
from types import SimpleNamespace

import pytest

import quillmarsh.search_templates as st
from engine.helpers import ERA_FIELDS, VOCAB, FakeAuth, FakeBacktester, FakeEraConfig, Obfuscation, RecordingTracker


@pytest.fixture(autouse=True)
def clean_module(monkeypatch):
    """Fast supervisor and era cycles; no machine floors; no search left behind."""
    monkeypatch.setattr(st, "SUPERVISOR_HEALTH_CHECK_INTERVAL", 0.05)
    monkeypatch.setattr(st, "ERA_POLL_INTERVAL", 0.05)
    monkeypatch.setattr(st, "_check_memory", lambda: None)
    monkeypatch.setattr(st, "_check_disk", lambda: None)
    yield
    for h in list(st._active_handles):
        try:
            h._abort_for_replacement()
        except Exception:
            pass
    with st._search_active_lock:
        st._search_active = False
        st._active_search_handle = None


@pytest.fixture
def seed_dir(tmp_path):
    """A data directory holding a 60-byte shuffle seed."""
    d = tmp_path / "seeded"
    d.mkdir()
    (d / "shuffle_seed.enc").write_bytes(b"\x01" * 60)
    return str(d)


@pytest.fixture
def runtime(monkeypatch, seed_dir):
    """A runtime on the module with fakes, and the onboarding configuration pointing at ``seed_dir``."""
    import quillmarsh.agent_onboarding as onboarding

    monkeypatch.setattr(onboarding, "_config", {"data_dir": seed_dir, "server_url": None})
    rt = SimpleNamespace(sync_manager=None, valid_universe_id="U1", vocabulary_raw=VOCAB,
                         search_tracker=RecordingTracker(), search_era_config=FakeEraConfig(**ERA_FIELDS),
                         evaluator=FakeBacktester(), auth_proxy=FakeAuth())
    monkeypatch.setattr(st, "_library_runtime", rt, raising=False)
    monkeypatch.setattr(st, "ObfuscationManager", Obfuscation)
    return rt


@pytest.fixture
def make_handle(seed_dir):
    """Builds a handle directly, as search() would, with the fakes above unless overridden."""
    def make(template, n_jobs=1, **overrides):
        kwargs = dict(template=template, n_jobs=n_jobs, tracker=RecordingTracker(), sync_mgr=None, bt=FakeBacktester(),
                      obf=Obfuscation(json.dumps(VOCAB), 3, "U1"),
                      era_cfg=FakeEraConfig(**ERA_FIELDS), auth_mock=FakeAuth(), data_dir=seed_dir)
        kwargs.update(overrides)
        h = st._SearchHandleImpl(**kwargs)
        st._active_handles.add(h)
        return h
    return make

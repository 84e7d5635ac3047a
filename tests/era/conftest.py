"""Fakes for the era subsystem: the runtime-not-ready error and the metaparameter resolvers, replaced through
the module object, where the component reads them at each call."""
from types import SimpleNamespace

import pytest

import quillmarsh.search_templates as st


class FakeSdkRuntimeNotReadyError(RuntimeError):
    pass


@pytest.fixture
def not_ready(monkeypatch):
    monkeypatch.setattr(st, "SdkRuntimeNotReadyError", FakeSdkRuntimeNotReadyError, raising=False)
    return FakeSdkRuntimeNotReadyError


@pytest.fixture
def resolvers(monkeypatch, not_ready):
    """Resolvers that record each call and answer with ``resolved`` (era-wide) or ``per_pool`` (by pool), or
    raise ``error``; the per-pool answer goes through the canonicalizer wrapped, as the real one's does."""
    fake = SimpleNamespace(calls=[], resolved={"normalization": "none"}, per_pool={}, error=None)

    def resolver(kind, answer):
        def call(*args):
            fake.calls.append((kind, *args))
            if fake.error:
                raise fake.error
            return answer()
        return call

    monkeypatch.setattr(st, "_resolve_metaparameters", resolver("resolve", lambda: fake.resolved), raising=False)
    monkeypatch.setattr(st, "_resolve_metaparameters_per_pool",
                        resolver("per_pool", lambda: {"raw": fake.per_pool}), raising=False)
    monkeypatch.setattr(st, "_canonicalize_metaparameters", lambda value: value["raw"], raising=False)
    return fake

"""Fakes for the era subsystem: the runtime-not-ready error and the metaparameter resolvers.

The sibling modules are replaced through the module object, where the component reads them at each
call, so these fixtures work whether or not the real siblings are installed.
"""
import pytest

import quillmarsh.search_templates as st


class FakeSdkRuntimeNotReadyError(RuntimeError):
    pass


@pytest.fixture
def not_ready(monkeypatch):
    monkeypatch.setattr(st, "SdkRuntimeNotReadyError", FakeSdkRuntimeNotReadyError, raising=False)
    return FakeSdkRuntimeNotReadyError


class FakeResolvers:
    """Records every call and answers with what the test configured."""

    def __init__(self):
        self.calls = []
        self.resolved = {"normalization": "none"}
        self.per_pool = {}
        self.error = None

    def resolve(self, base, pipeline):
        self.calls.append(("resolve", base, pipeline))
        if self.error:
            raise self.error
        return self.resolved

    def resolve_per_pool(self, base, pipeline, pool_ids):
        self.calls.append(("per_pool", base, pipeline, pool_ids))
        if self.error:
            raise self.error
        return {"raw": self.per_pool}

    def canonicalize(self, value):
        self.calls.append(("canonicalize", value))
        return value["raw"]


@pytest.fixture
def resolvers(monkeypatch, not_ready):
    fake = FakeResolvers()
    monkeypatch.setattr(st, "_resolve_metaparameters", fake.resolve, raising=False)
    monkeypatch.setattr(st, "_resolve_metaparameters_per_pool", fake.resolve_per_pool, raising=False)
    monkeypatch.setattr(st, "_canonicalize_metaparameters", fake.canonicalize, raising=False)
    return fake

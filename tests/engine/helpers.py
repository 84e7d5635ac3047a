"""Fakes and helpers of the engine tests."""
from __future__ import annotations

import copy
import json
import time

from evaluation.fakes import GRAPH, THRESHOLDS

VOCAB = {"functions": [{"name": "cs_rank"}], "features": [{"name": "f1"}]}
ERA_FIELDS = dict(era_id=3, max_depth=4, thresholds=THRESHOLDS, max_expression_generation_seconds=5.0,
                  evaluation_pnl_columns=["gross_returns"],
                  signal_pools=[{"signal_pool_id": "pool-a", "mi_pnl_column": "gross_returns",
                                 "found_signal_ids": []}],
                  valid_universe_id="U1",
                  transform_pipeline=[{"name": "decay", "options": [0, 3], "default": 3}])


def graph(i=0):
    """A fresh valid expression graph; ``i`` only names the call site (the vocabulary knows one feature)."""
    return copy.deepcopy(GRAPH)


class Obfuscation:
    def __init__(self, vocabulary_json, era_id, valid_universe_id):
        self.vocab = json.loads(vocabulary_json)

    def get_vocabulary(self):
        return dict(self.vocab)


def wait_until(predicate, timeout=5.0):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        if predicate():
            return True
        time.sleep(0.01)
    return predicate()


def join_all(threads, timeout=5.0):
    for t in list(threads):
        t.join(timeout)
        assert not t.is_alive(), t.name


class FakeAuth:
    def __init__(self, wallet_secret=b"\x07" * 32):
        self.wallet_secret = wallet_secret

    def get_token(self):
        return "token-1"


class FakeEraConfig:
    def __init__(self, **fields):
        self._data = {}
        for name, value in fields.items():
            setattr(self, name, value)


class FakeSyncManager:
    def __init__(self):
        self.ref_count = 0
        self.era_callbacks = []
        self.alive = True
        self.start_calls = 0
        self.start_error = None

    def acquire(self):
        self.ref_count += 1

    def release(self):
        self.ref_count -= 1

    def register_era_callback(self, callback):
        self.era_callbacks.append(callback)

    def unregister_era_callback(self, callback):
        if callback in self.era_callbacks:
            self.era_callbacks.remove(callback)

    def is_alive(self):
        return self.alive

    def start(self):
        self.start_calls += 1
        if self.start_error is not None:
            raise self.start_error
        self.alive = True


def finite_template(n=3):
    def template(ctx):
        for i in range(n):
            yield graph(i)
    return template


def endless_template(ctx):
    i = 0
    while True:
        yield graph(i)
        i += 1


def idle_template(ctx):
    """Yields nothing until the search stops: a worker that stays alive without evaluating."""
    while not ctx._stop_event.wait(0.01):
        pass
    return
    yield


class SyncingManager(FakeSyncManager):
    """A sync manager whose data needs a sync; ``sync_errors`` are raised one per call before it succeeds."""

    def __init__(self, sync_errors=(), needs_sync=True):
        super().__init__()
        self.sync_errors = list(sync_errors)
        self.sync_calls = 0
        self._needs_sync = needs_sync

    def needs_sync(self):
        if isinstance(self._needs_sync, BaseException):
            raise self._needs_sync
        return self._needs_sync

    def sync(self):
        self.sync_calls += 1
        if self.sync_errors:
            raise self.sync_errors.pop(0)


class VaultBacktester:
    """A backtester with the era's key-material entry points; ``vault_error`` is raised by the vault."""

    def __init__(self, vault_error=None):
        self.vault_error = vault_error
        self.calls = []

    def initialize_era_vault(self, *, shuffle_blob, wallet_secret, era_id):
        self.calls.append(("initialize_era_vault", shuffle_blob, wallet_secret, era_id))
        if self.vault_error is not None:
            raise self.vault_error

    def init_reconstruction(self, *, shuffle_blob, wallet_secret, era_id):
        self.calls.append(("init_reconstruction", shuffle_blob, wallet_secret, era_id))

    def names(self):
        return [c[0] for c in self.calls]

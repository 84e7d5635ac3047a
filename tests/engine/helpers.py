"""The fakes of the component's collaborators, shared by the evaluation, engine, template and submission tests:
a backtester with scripted statistics, a tracker without a store, an era, a sync manager, an auth object."""
from __future__ import annotations

import copy
import json
import threading
import time
from types import SimpleNamespace

THRESHOLDS = {"sharpe_min": 0.5, "turnover_max": 1.0, "delta_exposure_max": 0.1, "max_weight_max": 0.05,
              "correlation_max": 0.7, "mi_threshold": 0.1}
POOLS = [{"signal_pool_id": "pool-a", "mi_pnl_column": "gross_returns", "found_signal_ids": []}]
# the era as a map (what a context reads) and as the fields of a configuration object (what a handle reads)
ERA = {"era_id": 4, "max_expression_generation_seconds": 5.0, "thresholds": THRESHOLDS,
       "evaluation_pnl_columns": ["gross_returns"], "signal_pools": POOLS}
ERA_FIELDS = dict(ERA, era_id=3, max_depth=4, valid_universe_id="U1",
                  transform_pipeline=[{"name": "decay", "options": [0, 3], "default": 3}])
VOCAB = {"functions": [{"name": "cs_rank"}], "features": [{"name": "f1"}]}
GRAPH = {"type": "rotation", "node": "cs_rank", "children": [{"type": "feature", "node": "f1"}]}


def graph(i=0):
    """A fresh valid expression graph (the vocabulary knows one feature)."""
    return copy.deepcopy(GRAPH)


def good_stats(**overrides):
    values = dict(sharpe=1.5, fitness=1.1, returns=0.12, drawdown=0.04, turnover=0.3, margin=0.001,
                  long_count=200, short_count=190, delta_exposure=0.01, max_weight=0.01, abs_weight_sum_mean=1.0,
                  correlation=0.2, is_pnl_mi=0.4, passed=True, factor_pnl=[0.1, -0.05],
                  per_column_stats={"gross_returns_sharpe": 1.5})
    values.update(overrides)
    return SimpleNamespace(**values)


_GOOD = object()


class FakeBacktester:
    def __init__(self, stats=_GOOD, evaluate_error=None, backtest_error=None, delay=0.0, on_backtest=None):
        self.stats = good_stats() if stats is _GOOD else stats
        self.evaluate_error, self.backtest_error, self.delay = evaluate_error, backtest_error, delay
        self.on_backtest = on_backtest
        self.calls = []

    def evaluate_expression(self, expr_graph, metaparameters=None, transform_pipeline=None, universe_id=None):
        self.calls.append(("evaluate_expression", expr_graph, universe_id))
        if self.delay:
            time.sleep(self.delay)
        if self.evaluate_error:
            raise self.evaluate_error

    def run_backtest(self, expr_graph, metaparameters=None, transform_pipeline=None, universe_id=None):
        self.calls.append(("run_backtest", expr_graph, universe_id))
        if self.on_backtest:
            self.on_backtest()
        if self.backtest_error:
            raise self.backtest_error
        return self.stats


class VaultBacktester(FakeBacktester):
    """A backtester with the era's key-material entry points; ``vault_error`` is raised by the vault."""

    def __init__(self, vault_error=None):
        super().__init__()
        self.vault_error = vault_error

    def initialize_era_vault(self, *, shuffle_blob, wallet_secret, era_id):
        self.calls.append(("initialize_era_vault", shuffle_blob, wallet_secret, era_id))
        if self.vault_error is not None:
            raise self.vault_error

    def init_reconstruction(self, *, shuffle_blob, wallet_secret, era_id):
        self.calls.append(("init_reconstruction", shuffle_blob, wallet_secret, era_id))

    def names(self):
        return [c[0] for c in self.calls]


class RecordingTracker:
    """A tracker with no SQL store: records evaluations, enqueued submissions and the search-active flag;
    `get_search_stats` answers as given. Workers may share it."""

    def __init__(self, stats=None, record_error=None):
        self.records, self.enqueued, self.search_active = [], [], []
        self._stats = stats
        self.record_error = record_error
        self._lock = threading.Lock()

    def get_search_stats(self):
        return self._stats

    def record_signal_evaluation(self, graph, stats, era_id, passed, universe_id, metaparams, **kwargs):
        if self.record_error:
            raise self.record_error
        with self._lock:
            self.records.append(dict(graph=graph, stats=stats, era_id=era_id, passed=passed,
                                     universe_id=universe_id, metaparams=metaparams, **kwargs))
            return f"eval-{len(self.records)}"

    def enqueue_submission(self, *args):
        self.enqueued.append(args)

    # Without a store, the queues live in the search's memory: nothing to hand out, nothing pending.
    def dequeue_submission(self):
        return None

    def dequeue_retryable(self):
        return None

    def requeue_submission(self, *args):
        self.enqueued.append(args)

    def get_pending_submissions(self):
        return []

    def set_search_active(self, flag):
        self.search_active.append(bool(flag))


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
    """A sync manager whose data needs a sync when ``needs_sync`` says so; ``sync_errors`` are raised one per
    call before a sync succeeds, ``start_error`` by every start."""

    def __init__(self, sync_errors=(), needs_sync=True):
        self.ref_count, self.era_callbacks, self.alive = 0, [], True
        self.start_calls, self.start_error = 0, None
        self.sync_errors, self.sync_calls, self._needs_sync = list(sync_errors), 0, needs_sync

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

    def needs_sync(self):
        if isinstance(self._needs_sync, BaseException):
            raise self._needs_sync
        return self._needs_sync

    def sync(self):
        self.sync_calls += 1
        if self.sync_errors:
            raise self.sync_errors.pop(0)


def finite_template(n=3):
    def template(ctx):
        for i in range(n):
            yield graph(i)
    return template


def idle_template(ctx):
    """Yields nothing until the search stops: a worker that stays alive without evaluating."""
    while not ctx._stop_event.wait(0.01):
        pass
    return
    yield

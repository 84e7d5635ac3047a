"""Shared fixtures and duck-typed fakes of the component's collaborators.

Prefer the real ``SearchTracker`` (fixture ``tracker``) wherever the store matters; ``FakeTracker`` stands
for a tracker without a persistent store.
"""

from __future__ import annotations

import threading
import types

import pytest


class FakeAuth:
    """An auth object: ``get_token()`` returns ``token`` or raises it if it is an exception."""

    def __init__(self, token="token-1", wallet_secret=b"\x07" * 32):
        self.token = token
        self.wallet_secret = wallet_secret
        self.token_calls = 0

    def get_token(self):
        self.token_calls += 1
        if isinstance(self.token, BaseException):
            raise self.token
        return self.token


class FakeEraConfig:
    """An era configuration object: the given fields as attributes, and ``_data`` as the raw map."""

    def __init__(self, _data=None, **fields):
        self._data = {} if _data is None else _data
        fields.setdefault("era_id", 1)
        for name, value in fields.items():
            setattr(self, name, value)


class FakeTracker:
    """A tracker without a persistent store (no ``_conn``): everything lives in lists."""

    def __init__(self, data_dir=None):
        self._data_dir = data_dir
        self.evaluations = []
        self.queue = []
        self.retries = []
        self.submissions = []
        self.submitted = []
        self.search_active = []
        self.lock = threading.Lock()

    def record_signal_evaluation(self, graph, stats, era_id, passed, universe_id, metaparameters, **kwargs):
        with self.lock:
            self.evaluations.append(dict(graph=graph, stats=stats, era_id=era_id, passed=passed,
                                         universe_id=universe_id, metaparameters=metaparameters, **kwargs))
            return "eval-%d" % len(self.evaluations)

    def get_evaluation_count(self):
        return len(self.evaluations)

    def enqueue_submission(self, payload):
        self.queue.append(payload)

    def dequeue_submission(self):
        return self.queue.pop(0) if self.queue else None

    def requeue_submission(self, eval_id, submission_type, payload_json, era_id):
        self.queue.append(payload_json)

    def enqueue_retry(self, eval_id, submission_type, payload_json, era_id, rejection_reason, retry_after=None):
        self.retries.append((eval_id, submission_type, payload_json, era_id, rejection_reason, retry_after))

    def increment_retry(self, retry_id, eval_id, submission_type, payload_json, era_id, rejection_reason,
                        retry_count, retry_after=None):
        self.retries.append((eval_id, submission_type, payload_json, era_id, rejection_reason, retry_after))

    def record_submission(self, eval_id, submission_type, submission_id, era_id, **kwargs):
        self.submissions.append(dict(eval_id=eval_id, submission_type=submission_type,
                                     submission_id=submission_id, era_id=era_id, **kwargs))

    def mark_submitted(self, eval_id, eval_type="signal"):
        self.submitted.append((eval_id, eval_type))

    def get_pending_submissions(self):
        return [types.SimpleNamespace(submission_id=s["submission_id"], eval_type=s["submission_type"],
                                      eval_id=s["eval_id"], era_id=s["era_id"], sim_id=s.get("sim_id"))
                for s in self.submissions]

    def set_search_active(self, flag):
        self.search_active.append(bool(flag))


class FakeBacktester:
    """A backtester whose ``run_backtest`` returns ``stats`` (a namespace built from keywords)."""

    def __init__(self, stats=None, **stat_fields):
        self.stats = stats if stats is not None else types.SimpleNamespace(**stat_fields)
        self.calls = []
        self.registry = None

    def evaluate_expression(self, expr_graph):
        self.calls.append(("evaluate_expression", expr_graph))

    def run_backtest(self, expr_graph):
        self.calls.append(("run_backtest", expr_graph))
        return self.stats

    def initialize_era_vault(self, *, shuffle_blob, wallet_secret, era_id):
        self.calls.append(("initialize_era_vault", era_id))

    def init_reconstruction(self, *, shuffle_blob, wallet_secret, era_id):
        self.calls.append(("init_reconstruction", era_id))


class FakeSyncManager:
    """A sync manager that counts references and remembers era callbacks; ``sync_errors`` are raised
    one per ``sync()`` call before it succeeds."""

    def __init__(self, needs_sync=False, sync_errors=()):
        self._needs_sync = needs_sync
        self.sync_errors = list(sync_errors)
        self.sync_calls = 0
        self.ref_count = 0
        self.era_callbacks = []
        self.alive = True
        self.start_calls = 0

    def needs_sync(self):
        return self._needs_sync

    def sync(self):
        self.sync_calls += 1
        if self.sync_errors:
            raise self.sync_errors.pop(0)

    def request_for_sync(self):
        return []

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
        self.alive = True


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

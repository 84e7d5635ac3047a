"""Helpers of the submission and polling thread tests: a handle without threads on a real store, and
signals queued in it as a passing evaluation leaves them."""
from __future__ import annotations

import json
import threading

import pytest

import quillmarsh.search_templates as st
from engine.helpers import ERA_FIELDS, VOCAB, FakeAuth, FakeEraConfig, Obfuscation, wait_until  # noqa: F401

GRAPH = {"type": "rotation", "node": "cs_rank", "children": [{"type": "feature", "node": "f1"}]}


@pytest.fixture
def quiet_handle(tracker, data_dir, server_url, monkeypatch):
    """A handle on the real store with no thread of its own (it has no backtester): the test drives it."""
    monkeypatch.setattr(st, "SUBMISSION_POLL_INTERVAL", 0.02)
    monkeypatch.setattr(st, "POLLING_INTERVAL", 0.02)
    h = st._SearchHandleImpl(template=lambda ctx: iter(()), n_jobs=0, tracker=tracker, sync_mgr=None, bt=None,
                             obf=Obfuscation(json.dumps(VOCAB), 3, "U1"), era_cfg=FakeEraConfig(**ERA_FIELDS),
                             auth_mock=FakeAuth(), data_dir=data_dir)
    assert h._supervisor_thread is None and h._submission_thread is None
    yield h
    h._stop_event.set()


def queue_signal(h, **extra):
    """A passed evaluation and its queued payload, as evaluate() leaves them; returns the eval_id."""
    tracker = h._tracker
    eval_id = tracker.record_signal_evaluation(GRAPH, None, 3, True, "U1", {"decay": 3}, pool_id="pool-a")
    payload = dict(eval_id=eval_id, submission_type="signal", graph=GRAPH, universe_id="U1",
                   signal_pool_id="pool-a", is_stats={"sharpe": 1.3, "turnover": 0.2}, is_pnl_mi=0.3,
                   metaparameters={"decay": 3}, search_state={}, era_id=3, expression_elapsed_seconds=0.2,
                   _submission_owner=h._submission_owner, **extra)
    tracker.enqueue_submission(eval_id, "signal", st._serialize_submission_payload(payload), 3)
    return eval_id


def pending_submission(h, submission_id="sub-1"):
    """A receipt already recorded: its submission_status row and its in-memory pending entry."""
    with h._tracker_write_lock:
        h._tracker._conn.execute(
            "INSERT INTO submission_status (eval_id, eval_type, pool_id, submission_id, sim_id, era_id, status, "
            "submitted_at) VALUES (?, 'signal', 'pool-a', ?, NULL, 3, 'pending', 1.0)", ("e-" + submission_id,
                                                                                      submission_id))
    h._pending_submissions[submission_id] = dict(submission_id=submission_id, submission_type="signal",
                                                 eval_id="e-" + submission_id, era_id=3, sim_id=None)


def rows(h, sql, *params):
    with h._tracker_write_lock:
        return h._tracker._conn.execute(sql, params).fetchall()


def run_thread(target, name):
    t = threading.Thread(target=target, name=name, daemon=True)
    t.start()
    return t

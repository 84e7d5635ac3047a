"""Handles on a real store whose threads never run (they have no backtester), so that a test drives the
submission pipeline itself, as its threads would; and a scripted signal service on a loopback port.

The store is a ``SearchTracker`` in the data directory or, in a module marked ``both_dialects``, also on
the suite's PostgreSQL server. ``quiet_handle`` is also imported by child processes that a test kills.
"""
from __future__ import annotations

import json
import os
import threading
import time
from types import SimpleNamespace

import pytest

import quillmarsh.search_templates as st
from engine.helpers import ERA_FIELDS, VOCAB, FakeAuth, FakeEraConfig, Obfuscation, wait_until  # noqa: F401
from quillmarsh.search_tracking import SearchTracker
from submission.scripted_service import ScriptedService

ERA_ID = 3
POOL = "pool-a"
JOURNAL_DIR = "submission_receipts_pending"


class Receipt:
    """What the service hands back for an accepted submission."""

    def __init__(self, submission_id):
        self.submission_id = submission_id


def quiet_handle(data_dir, database_url=None):
    """A handle on ``data_dir`` with a tracker of its own (as another process would have) and no threads."""
    h = st._SearchHandleImpl(template=None, n_jobs=0, tracker=SearchTracker(data_dir, database_url=database_url),
                             sync_mgr=None, bt=None, obf=Obfuscation(json.dumps(VOCAB), ERA_ID, "U1"),
                             era_cfg=FakeEraConfig(**ERA_FIELDS), auth_mock=FakeAuth(), data_dir=data_dir)
    assert h._supervisor_thread is None and h._submission_thread is None and h._polling_thread is None
    return h


def close_handle(h, tracker=None):
    h._stop_event.set()
    h._stopped = True
    (tracker or h._tracker).close()


@pytest.fixture
def store_dir(data_dir):
    with open(os.path.join(data_dir, "shuffle_seed.enc"), "wb") as f:
        f.write(b"\x01" * 60)
    return data_dir


@pytest.fixture
def open_handle(store_dir, database_url):
    """``open_handle()`` builds another handle on the shared store; all are closed afterwards."""
    made = []

    def make():
        h = quiet_handle(store_dir, database_url=database_url)
        made.append((h, h._tracker))  # a test may swap the tracker for a fake
        return h
    yield make
    for h, tracker in made:
        close_handle(h, tracker)


@pytest.fixture
def handle(open_handle):
    return open_handle()


@pytest.fixture
def nudges(monkeypatch):
    """The nudges that reach the onboarding module, as (trigger, context) pairs."""
    import quillmarsh.agent_onboarding as onboarding

    seen = []
    monkeypatch.setattr(onboarding, "update_nudge", lambda trigger, **context: seen.append((trigger, context)))
    return seen


@pytest.fixture
def service():
    s = ScriptedService()
    yield s
    s.close()


@pytest.fixture
def server_url(service, data_dir, monkeypatch):
    """``server_url`` of the configuration at the scripted service and a logged-in runtime; call it to point
    the component elsewhere."""
    import quillmarsh.agent_onboarding as onboarding

    def point_at(url):
        monkeypatch.setattr(onboarding, "_config", {"data_dir": data_dir, "server_url": url})

    point_at(service.url)
    monkeypatch.setattr(st, "_library_runtime", SimpleNamespace(auth_proxy=FakeAuth()), raising=False)
    return point_at


@pytest.fixture
def loop_handle(handle, server_url, monkeypatch):
    """A quiet handle talking to the scripted service, with short loop intervals for the thread tests."""
    monkeypatch.setattr(st, "SUBMISSION_POLL_INTERVAL", 0.02)
    monkeypatch.setattr(st, "POLLING_INTERVAL", 0.02)
    return handle


# ---- rows -------------------------------------------------------------------------------------------------

def add_evaluation(conn, eval_id):
    conn.execute("INSERT INTO signal_evaluations (eval_id, era_id, pool_id, graph_json, passed, created_at) "
                 "VALUES (?, ?, ?, '{}', 1, ?)", (eval_id, ERA_ID, POOL, time.time()))


def make_payload(h, eval_id, **extra):
    payload = {"eval_id": eval_id, "submission_type": "signal", "era_id": ERA_ID, "universe_id": "U1",
               "graph": {"type": "rotation", "node": "cs_rank", "children": [{"type": "feature", "node": "f1"}]},
               "signal_pool_id": POOL, "is_stats": {"sharpe": 1.5}, "is_pnl_mi": 0.4, "metaparameters": None,
               "search_state": {}, "expression_elapsed_seconds": 0.25, "_submission_owner": h._submission_owner}
    payload.update(extra)
    return st._serialize_submission_payload(payload)


def _insert(h, eval_id, with_evaluation, sql, params):
    assert h._ensure_submission_claim_columns() and h._ensure_retry_claim_columns()
    with h._tracker_write_lock:
        if with_evaluation:
            add_evaluation(h._tracker._conn, eval_id)
        return h._tracker._conn.execute(sql, params).lastrowid


def enqueue(h, eval_id, with_evaluation=True, priority=0, **extra):
    """A queue row of a passed evaluation, as evaluate() leaves it; returns its queue_id."""
    return _insert(h, eval_id, with_evaluation, "INSERT INTO submission_queue (eval_id, eval_type, payload_json, "
                   "era_id, priority, created_at) VALUES (?, 'signal', ?, ?, ?, ?)",
                   (eval_id, make_payload(h, eval_id, **extra), ERA_ID, priority, time.time()))


def add_retry_row(h, eval_id, retry_count=0, retry_after=None, created_at=None):
    return _insert(h, eval_id, True, "INSERT INTO submission_retry (eval_id, eval_type, pool_id, payload_json, "
                   "era_id, retry_count, last_rejection_reason, retry_after, created_at) "
                   "VALUES (?, 'signal', ?, ?, ?, ?, 'x', ?, ?)",
                   (eval_id, POOL, make_payload(h, eval_id), ERA_ID, retry_count, retry_after,
                    time.time() if created_at is None else created_at))


def rows(h, sql, *params):
    with h._tracker_write_lock:
        return h._tracker._conn.execute(sql, params).fetchall()


def status_rows(h):
    return rows(h, "SELECT submission_id, eval_id, status, finalized_at FROM submission_status")


def journal_files(data_dir):
    d = os.path.join(data_dir, JOURNAL_DIR)
    return sorted(os.listdir(d)) if os.path.isdir(d) else []


def claim(h, table="submission_queue", owner="another-search", age=0.0, row_id=None):
    """Marks a row as claimed by ``owner`` ``age`` seconds ago."""
    key = "queue_id" if table == "submission_queue" else "retry_id"
    with h._tracker_write_lock:
        h._tracker._conn.execute(f"UPDATE {table} SET in_flight_owner=?, in_flight_at=? WHERE {key}=?",
                                 (owner, time.time() - age, row_id))


def run_thread(target, name):
    t = threading.Thread(target=target, name=name, daemon=True)
    t.start()
    return t

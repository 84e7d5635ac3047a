"""Handles on a real store: a ``SearchTracker`` in ``tmp_path`` (or, in a module marked ``both_dialects``,
also on the suite's PostgreSQL server) behind a handle whose threads are quiet.

A handle starts all its threads when it is built; here they are made but never started, so that a test
drives the store operations itself, as the submission thread would, with nothing else touching the rows.
"""
from __future__ import annotations

import contextlib
import json
import os
import threading
import time

import pytest

import quillmarsh.search_templates as st
from engine.helpers import ERA_FIELDS, VOCAB, FakeAuth, FakeEraConfig, Obfuscation, idle_template
from evaluation.fakes import FakeBacktester
from quillmarsh.search_tracking import SearchTracker

ERA_ID = 3
POOL = "pool-a"
JOURNAL_DIR = "submission_receipts_pending"


class Receipt:
    """What the service hands back for an accepted submission."""

    def __init__(self, submission_id):
        self.submission_id = submission_id


HANDLE_THREADS = ("supervisor", "era_thread", "submission_thread", "polling_thread")


@contextlib.contextmanager
def threads_not_started():
    """While a handle is built, its own threads are made but not started; any other thread starts."""
    real_start = threading.Thread.start

    def start(thread):
        if thread.name in HANDLE_THREADS or thread.name.startswith("worker_"):
            return
        real_start(thread)
    threading.Thread.start = start
    try:
        yield
    finally:
        threading.Thread.start = real_start


def quiet_handle(data_dir, tracker=None, database_url=None):
    """A handle on ``data_dir`` (with its own tracker, as another process would have, on the store of
    ``database_url`` if given) whose threads never run, so that only the test drives the store operations."""
    tracker = tracker if tracker is not None else SearchTracker(data_dir, database_url=database_url)
    with threads_not_started():
        h = st._SearchHandleImpl(template=idle_template, n_jobs=0, tracker=tracker, sync_mgr=None,
                                 bt=FakeBacktester(), obf=Obfuscation(json.dumps(VOCAB), ERA_ID, "U1"),
                                 era_cfg=FakeEraConfig(**ERA_FIELDS), auth_mock=FakeAuth(), data_dir=data_dir)
    assert not any(t is not None and t.is_alive()
                   for t in [h._supervisor_thread, h._era_thread, h._submission_thread, h._polling_thread])
    return h


def close_handle(h, tracker=None):
    h._stop_event.set()
    h._stopped = True
    (tracker or h._tracker).close()


@pytest.fixture
def store_dir(tmp_path):
    d = tmp_path / "store"
    d.mkdir()
    (d / "shuffle_seed.enc").write_bytes(b"\x01" * 60)
    return str(d)


@pytest.fixture
def open_handle(store_dir, database_url):
    """``open_handle()`` builds another handle on the shared store; all are closed afterwards."""
    made = []

    def make(data_dir=None):
        h = quiet_handle(data_dir or store_dir, database_url=database_url)
        made.append((h, h._tracker))
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


# ---- rows -------------------------------------------------------------------------------------------------

def add_evaluation(conn, eval_id, pool_id=POOL, era_id=ERA_ID):
    conn.execute("INSERT INTO signal_evaluations (eval_id, era_id, pool_id, graph_json, passed, created_at) "
                 "VALUES (?, ?, ?, '{}', 1, ?)", (eval_id, era_id, pool_id, time.time()))


def ensure_claim_columns(h):
    assert h._ensure_submission_claim_columns() and h._ensure_retry_claim_columns()


def make_payload(eval_id, owner=None, **extra):
    payload = {"eval_id": eval_id, "submission_type": "signal", "era_id": ERA_ID,
               "graph": {"type": "feature", "node": "f1"}, "universe_id": "U1", "signal_pool_id": POOL,
               "is_stats": {"sharpe": 1.5}, "is_pnl_mi": 0.4, "metaparameters": None, "search_state": {},
               "expression_elapsed_seconds": 0.25}
    if owner is not None:
        payload["_submission_owner"] = owner
    payload.update(extra)
    return payload


def enqueue(h, eval_id, with_evaluation=True, priority=0, **extra):
    """A queue row for a new evaluation; returns its queue_id."""
    ensure_claim_columns(h)
    conn = h._tracker._conn
    if with_evaluation:
        add_evaluation(conn, eval_id)
    text = st._serialize_submission_payload(make_payload(eval_id, h._submission_owner, **extra))
    cur = conn.execute("INSERT INTO submission_queue (eval_id, eval_type, payload_json, era_id, priority, "
                       "created_at) VALUES (?, 'signal', ?, ?, ?, ?)", (eval_id, text, ERA_ID, priority, time.time()))
    return cur.lastrowid


def add_retry_row(h, eval_id, retry_count=0, retry_after=None, created_at=None, with_evaluation=True):
    ensure_claim_columns(h)
    conn = h._tracker._conn
    if with_evaluation:
        add_evaluation(conn, eval_id)
    text = st._serialize_submission_payload(make_payload(eval_id, h._submission_owner))
    cur = conn.execute("INSERT INTO submission_retry (eval_id, eval_type, pool_id, payload_json, era_id, retry_count, "
                       "last_rejection_reason, retry_after, created_at) VALUES (?, 'signal', ?, ?, ?, ?, 'x', ?, ?)",
                       (eval_id, POOL, text, ERA_ID, retry_count, retry_after,
                        time.time() if created_at is None else created_at))
    return cur.lastrowid


def rows(h, sql, params=()):
    return h._tracker._conn.execute(sql, params).fetchall()


def status_rows(h, submission_id=None):
    if submission_id is None:
        return rows(h, "SELECT submission_id, eval_id, status, signal_pool_id, finalized_at FROM submission_status")
    return rows(h, "SELECT submission_id, eval_id, status, signal_pool_id, finalized_at FROM submission_status "
                   "WHERE submission_id=?", (submission_id,))


def journal_files(data_dir):
    d = os.path.join(data_dir, JOURNAL_DIR)
    return sorted(os.listdir(d)) if os.path.isdir(d) else []


def claim(h, table="submission_queue", owner=None, age=0.0, row_id=None):
    """Marks a row as claimed by ``owner`` (another search by default) ``age`` seconds ago."""
    key = "queue_id" if table == "submission_queue" else "retry_id"
    h._tracker._conn.execute(f"UPDATE {table} SET in_flight_owner=?, in_flight_at=? WHERE {key}=?",
                             (owner or "another-search", time.time() - age, row_id))

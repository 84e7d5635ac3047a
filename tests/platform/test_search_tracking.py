import json
import threading

import pytest

from quillmarsh.search_tracking import (BacktestStats, SearchTracker, _ensure_submission_sim_parent,
                                        _synthetic_submission_sim_id)

pytestmark = pytest.mark.both_dialects

GRAPH = {"type": "rotation", "node": "rank",
         "children": [{"type": "feature", "node": "close"}, {"type": "int", "node": 5}]}

def record(tracker, passed=True, pool_id="pool-a", graph=GRAPH, **kwargs):
    return tracker.record_signal_evaluation(graph, BacktestStats(sharpe=1.5), 3, passed, "u1",
                                            {"normalization": "rescale"}, pool_id=pool_id, **kwargs)


def test_store_is_a_shared_autocommit_connection(tracker, data_dir, database_url):
    if tracker.dialect == "sqlite":
        assert tracker._conn.execute("PRAGMA journal_mode").fetchone()[0] == "wal"
    # a single statement outside a transaction is committed at once: another connection sees it
    eval_id = record(tracker, passed=False)
    with SearchTracker(data_dir, database_url=database_url) as other:
        assert other._conn.execute("SELECT COUNT(*) FROM signal_evaluations WHERE eval_id=?",
                                   (eval_id,)).fetchone()[0] == 1


def test_recorded_evaluation_is_stored_and_counted(tracker):
    assert tracker.get_evaluation_count() == 0
    eval_id = record(tracker, rejection_reason=None, expression_elapsed_seconds=0.25, is_pnl_mi=float("nan"),
                     agent_is_pnl_mi=0.4, per_column_stats={"gross_returns_sharpe": 1.5})
    other = record(tracker, passed=False, rejection_reason="sharpe_below_min")
    assert eval_id != other and isinstance(eval_id, str)
    assert tracker.get_evaluation_count() == 2
    row = tracker._conn.execute(
        "SELECT era_id, pool_id, passed, sharpe, is_pnl_mi, agent_is_pnl_mi, function_names, feature_names, "
        "metaparameters_json, submitted, expression_elapsed_seconds FROM signal_evaluations WHERE eval_id=?",
        (eval_id,)).fetchone()
    assert row[:6] == (3, "pool-a", 1, 1.5, None, 0.4)
    assert json.loads(row[6]) == ["rank"] and json.loads(row[7]) == ["close"]
    assert json.loads(row[8]) == {"normalization": "rescale"} and row[9] == 0 and row[10] == 0.25
    # an invalid graph is still recorded
    eval_id = tracker.record_signal_evaluation([1, 2], None, 1, False, None, None, rejection_reason="invalid_input")
    assert tracker._conn.execute("SELECT graph_json, rejection_reason FROM signal_evaluations WHERE eval_id=?",
                                 (eval_id,)).fetchone() == ("[1, 2]", "invalid_input")


def test_concurrent_records_from_threads_all_land(tracker):
    def work():
        for _ in range(25):
            record(tracker)
    threads = [threading.Thread(target=work) for _ in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(timeout=30)
    assert tracker.get_evaluation_count() == 100


@pytest.mark.parametrize("eval_type, keep_last, remaining", [(None, 2, 2), ("signal", 0, 0), ("strategy", 0, 5)])
def test_delete_evaluations_keeps_the_newest(tracker, eval_type, keep_last, remaining):
    ids = [record(tracker) for _ in range(5)]
    result = tracker.delete_evaluations(eval_type=eval_type, keep_last=keep_last)
    left = [r[0] for r in tracker._conn.execute("SELECT eval_id FROM signal_evaluations ORDER BY created_at")]
    assert left == ids[len(ids) - remaining:]
    assert result["deleted"] == 5 - remaining


def test_delete_spares_evaluations_still_queued(tracker):
    queued = record(tracker, passed=False)
    record(tracker, passed=False)
    tracker.enqueue_submission(queued, "signal", json.dumps({"eval_id": queued}), 3)
    assert tracker.delete_failed_evaluations()["deleted"] == 1
    assert tracker.get_evaluation_count() == 1
    assert tracker.delete_evaluations(keep_last=0)["signal"] == 0


@pytest.mark.parametrize("kwargs", [{"keep_last": -1}, {"keep_last": True}, {"keep_last": "5"},
                                    {"eval_type": "other"}])
def test_delete_evaluations_refuses_bad_arguments(tracker, kwargs):
    record(tracker)
    with pytest.raises(ValueError):
        tracker.delete_evaluations(**kwargs)
    assert tracker.get_evaluation_count() == 1


def test_get_db_info_reports_the_store(tracker):
    record(tracker)
    record(tracker, passed=False)
    tracker.set_search_active(True)
    info = tracker.get_db_info()
    assert info["tables"]["signal_evaluations"] == 2 and info["tables"]["submission_queue"] == 0
    assert (info["signal_evaluations_passed"], info["signal_evaluations_failed"]) == (1, 1)
    assert info["search_active"] is True and info["size_bytes"] > 0
    tracker.set_search_active(False)
    assert tracker.get_db_info()["search_active"] is False


@pytest.mark.parametrize("args, message", [
    (("", "signal", "{}", 1), "eval_id"),
    (("e1", "other", "{}", 1), "eval_type"),
    (("e1", "signal", "[]", 1), "object"),
    (("e1", "signal", "{", 1), "not valid JSON"),
    (("e1", "signal", "{}", "x"), "era_id"),
])
def test_enqueue_submission_refuses_bad_rows(tracker, args, message):
    with pytest.raises(ValueError, match=message):
        tracker.enqueue_submission(*args)
    assert tracker._conn.execute("SELECT COUNT(*) FROM submission_queue").fetchone()[0] == 0


def test_enqueue_and_requeue_order_by_priority(tracker):
    first = tracker.enqueue_submission("e1", "signal", '{"eval_id": "e1"}', 1)
    second = tracker.requeue_submission("e2", "signal", '{"eval_id": "e2"}', 1)
    rows = tracker._conn.execute("SELECT queue_id FROM submission_queue ORDER BY priority DESC, queue_id").fetchall()
    assert [r[0] for r in rows] == [second, first]


def test_attempts_count_per_key_sim_ids_are_stable_and_parents_idempotent(tracker):
    args = ("e1", "signal", "key-1", 1, '{"eval_id": "e1"}')
    assert [tracker.record_submission_attempt_started(*args, pool_id="p") for _ in range(2)] == [1, 2]
    sim = _synthetic_submission_sim_id("e1", "signal")
    assert sim == _synthetic_submission_sim_id("e1", "signal")
    assert sim != _synthetic_submission_sim_id("e1", "strategy") != _synthetic_submission_sim_id("e2", "signal")
    conn = tracker._conn
    conn.execute("BEGIN IMMEDIATE")
    _ensure_submission_sim_parent(conn, sim, 4)
    _ensure_submission_sim_parent(conn, sim, 4)
    conn.execute("COMMIT")
    assert conn.execute("SELECT sim_id, era_id FROM submission_simulations").fetchall() == [(sim, 4)]
    with pytest.raises(ValueError):
        _ensure_submission_sim_parent(conn, "", 4)


def test_pending_submissions_and_mark_submitted(tracker):
    eval_id = record(tracker)
    tracker._conn.execute(
        "INSERT INTO submission_status (eval_id, eval_type, pool_id, signal_pool_id, submission_id, sim_id, era_id,"
        " status, submitted_at) VALUES (?, 'signal', 'p', NULL, 'sub-1', 'sim-1', 3, 'pending', 1.0)", (eval_id,))
    [item] = tracker.get_pending_submissions()
    assert (item.submission_id, item.eval_type, item.eval_id, item.era_id, item.sim_id) == (
        "sub-1", "signal", eval_id, 3, "sim-1")
    assert tracker.mark_submitted(eval_id, eval_type="signal") == 1
    assert tracker.mark_submitted("missing") == 0


def test_a_closed_tracker_refuses_work(data_dir, database_url):
    t = SearchTracker(data_dir, database_url=database_url)
    t.close()
    t.close()
    assert t._conn is None
    with pytest.raises(RuntimeError, match="closed"):
        t.get_evaluation_count()


def test_a_store_that_cannot_be_written_raises_os_error(tracker, monkeypatch):
    busy = tracker._retryable[0]  # the dialect's "store is busy" error

    class Locked:
        in_transaction = False

        def execute(self, *a):
            raise busy("database is locked")
    monkeypatch.setattr(tracker, "_conn", Locked())
    with pytest.raises(OSError, match="after retry"):
        record(tracker, passed=False)  # a pass is written with its queue row
    monkeypatch.undo()
    assert tracker.get_evaluation_count() == 0


KILLED_BETWEEN = """
import os, sys
from quillmarsh.search_tracking import SearchTracker
t = SearchTracker(sys.argv[1])
eval_id = t.record_signal_evaluation({"type": "feature", "node": "f"}, None, 1, True, "U", None)
if sys.argv[2] == "enqueue":
    t.enqueue_submission(eval_id, "signal", '{"eval_id": "%s"}' % eval_id, 1)
os.kill(os.getpid(), 9)
"""


@pytest.mark.parametrize("step, passes, queued", [("killed before the enqueue", 0, 0), ("enqueue", 1, 1)])
def test_a_pass_and_its_queue_row_are_committed_together(tmp_path, step, passes, queued):
    import subprocess
    import sys

    subprocess.run([sys.executable, "-c", KILLED_BETWEEN, str(tmp_path), step], timeout=60)
    with SearchTracker(str(tmp_path)) as t:
        assert t._query("SELECT COUNT(*) FROM signal_evaluations WHERE passed = 1")[0][0] == passes
        assert t._query("SELECT COUNT(*) FROM submission_queue")[0][0] == queued


def test_a_pass_whose_queue_row_never_comes_is_recorded_on_its_own(tmp_path):
    t = SearchTracker(str(tmp_path))
    t.record_signal_evaluation({"type": "feature", "node": "f"}, None, 1, True, "U", None)
    assert t._conn.execute("SELECT COUNT(*) FROM signal_evaluations").fetchone()[0] == 0  # held
    assert t.get_evaluation_count() == 1  # a reader of the tracker records it
    t.record_signal_evaluation({"type": "feature", "node": "g"}, None, 1, True, "U", None)
    t.close()  # and closing records what is still held
    with SearchTracker(str(tmp_path)) as again:
        assert again.get_evaluation_count() == 2

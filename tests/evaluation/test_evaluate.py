"""The life of one expression through SearchContext.evaluate: every recorded rejection, the pass, and
the points where a stop cancels it."""
import logging
import queue
import threading

import pytest

import quillmarsh.search_templates as st
from engine.helpers import ERA, GRAPH, FakeBacktester, RecordingTracker, good_stats


@pytest.fixture(autouse=True)
def _records(record_type):
    pass


def only_record(tracker):
    assert len(tracker.records) == 1
    return tracker.records[0]


CS_RANK = {"functions": [{"name": "cs_rank"}]}


@pytest.mark.parametrize("graph, vocab, reason", [
    ([GRAPH], CS_RANK, "invalid_input"), ({}, CS_RANK, "invalid_input"), ({"node": "cs_rank"}, CS_RANK, "invalid_input"),
    (dict(GRAPH, extra=1), CS_RANK, "invalid_input"), ("rotation", CS_RANK, "invalid_input"),
    ({"type": "rotation", "node": "x"}, CS_RANK, "unknown_function"),
    ({"type": "filtration"}, CS_RANK, "unknown_function"),
    ({"type": "rotation", "node": "x"}, {"functions": []}, None),   # an empty vocabulary checks nothing
    ({"type": "feature", "node": "x"}, CS_RANK, None),
    ({"type": "rotation", "node": "x"}, {"functions": [{"arity": 1}]}, KeyError),  # an entry without a name
])
def test_graphs_are_checked_before_the_backtester(make_context, graph, vocab, reason):
    tracker, bt = RecordingTracker(), FakeBacktester()
    if reason is KeyError:
        with pytest.raises(KeyError):
            make_context(bt=bt, tracker=tracker, vocab=vocab).evaluate(graph)
        return
    make_context(bt=bt, tracker=tracker, vocab=vocab).evaluate(graph)
    rec = only_record(tracker)
    assert rec["rejection_reason"] == reason
    if reason is not None:
        assert (rec["passed"], rec["expression_elapsed_seconds"], bt.calls) == (False, None, [])


def test_evaluate_expression_failure_is_logged_and_recorded_with_time(make_context, caplog):
    tracker, bt = RecordingTracker(), FakeBacktester(evaluate_error=RuntimeError("compile"))
    assert make_context(bt=bt, tracker=tracker).evaluate(GRAPH) is None
    rec = only_record(tracker)
    assert rec["rejection_reason"] == "evaluate_expression_failed"
    assert rec["expression_elapsed_seconds"] >= 0.0 and rec["failure_reason"] is None
    (log,) = [r for r in caplog.records if r.getMessage() == "evaluate_expression_failed"]
    assert log.levelno == logging.ERROR and log.exc_info[0] is RuntimeError
    assert [c[0] for c in bt.calls] == ["evaluate_expression"]


def test_missing_time_limit_raises_after_the_first_backtester_call(make_context):
    era = {k: v for k, v in ERA.items() if k != "max_expression_generation_seconds"}
    tracker, bt = RecordingTracker(), FakeBacktester()
    with pytest.raises(ValueError, match="^era config missing required field: max_expression_generation_seconds$"):
        make_context(bt=bt, tracker=tracker, era=era).evaluate(GRAPH)
    assert [c[0] for c in bt.calls] == ["evaluate_expression"] and tracker.records == []


SLOW_ERA = dict(ERA, max_expression_generation_seconds=0.0)
FAILED = "backtest_failed: no data"
NO_DATA = ValueError("no data")


@pytest.mark.parametrize("bt, era, reason, failure, per_column, full", [
    (FakeBacktester(stats=None), ERA, "backtester_unavailable", (None, None), None, False),
    (FakeBacktester(backtest_error=NO_DATA), ERA, FAILED, (FAILED, FAILED), None, False),
    # a failed backtest outranks a breach of the time limit
    (FakeBacktester(backtest_error=NO_DATA, delay=0.002), SLOW_ERA, FAILED, (FAILED, FAILED), None, False),
    (FakeBacktester(stats=good_stats(failure_detail="backtester said"), delay=0.002), SLOW_ERA,
     "expression_too_slow", ("expression_too_slow", "backtester said"), {"gross_returns_sharpe": 1.5}, True),
    # a slow expression with an invalid metric passes no statistics
    (FakeBacktester(stats=good_stats(margin=None, per_column_stats={}), delay=0.002), SLOW_ERA,
     "expression_too_slow", ("expression_too_slow", "Expression evaluation exceeded era limit"), None, False),
])
def test_failed_and_slow_backtests(make_context, bt, era, reason, failure, per_column, full):
    tracker = RecordingTracker()
    assert make_context(bt=bt, tracker=tracker, era=era).evaluate(GRAPH) is None
    rec = only_record(tracker)
    assert rec["rejection_reason"] == reason and rec["expression_elapsed_seconds"] is not None
    assert (rec["failure_reason"], rec["failure_detail"]) == failure
    assert isinstance(rec["stats"], st._BacktestStats) and (rec["stats"].kw != {}) is full
    assert rec["per_column_stats"] == per_column


@pytest.mark.parametrize("overrides, reason, full", [
    ({"margin": float("nan")}, "invalid_backtest_metric_margin", False),
    ({"sharpe": 0.1}, "gross_returns_sharpe_below_min", True),
    ({"turnover": 3.0}, "turnover_exceeded", True),
    ({"correlation": 0.9}, "correlation_exceeded", True),
    ({"is_pnl_mi": None}, "missing_is_pnl_mi", True),
    ({"is_pnl_mi": 0.05}, "pnl_mi_below_threshold", True),
    # a correlation that is not a finite number does not reject
    ({"correlation": float("nan")}, None, True), ({"correlation": "high"}, None, True),
    ({"correlation": None}, None, True),
])
def test_judgement_after_the_backtest(make_context, overrides, reason, full):
    tracker = RecordingTracker()
    result = make_context(bt=FakeBacktester(stats=good_stats(**overrides)), tracker=tracker).evaluate(GRAPH)
    rec = only_record(tracker)
    assert (rec["rejection_reason"], rec["passed"], result is not None) == (reason, reason is None, reason is None)
    assert rec["per_column_stats"] == {"gross_returns_sharpe": 1.5}
    assert (rec["stats"].kw != {}) is full
    if reason == "missing_is_pnl_mi":
        assert rec["failure_reason"] == "missing_is_pnl_mi"
        assert rec["failure_detail"] == "BacktestStats.is_pnl_mi must be a finite scalar number"
    if reason == "pnl_mi_below_threshold":
        assert (rec["failure_reason"], rec["failure_detail"]) == ("pnl_mi", "is_pnl_mi=0.05 < threshold=0.1")
        assert rec["is_pnl_mi"] == rec["agent_is_pnl_mi"] == 0.05


def test_a_pass_is_recorded_enqueued_handed_over_and_wakes_the_submitter(make_context):
    tracker, q, wakeup = RecordingTracker(), queue.Queue(), threading.Event()
    ctx = make_context(tracker=tracker, submission_queue=q, submission_wakeup=wakeup, submission_owner="own",
                       bt=FakeBacktester(stats=good_stats(agent_is_pnl_mi=0.9)))
    result = ctx.evaluate(GRAPH)
    assert isinstance(result, st.BacktestResult)
    assert (result.passed, result.mi_passed, result.submitted, result.mi_score) == (True, True, False, 0.4)
    assert (tracker.records[0]["is_pnl_mi"], tracker.records[0]["agent_is_pnl_mi"]) == (0.4, 0.9)
    assert result.factor_pnl == [0.1, -0.05] and result.expression is GRAPH
    (payload,) = tracker.enqueued[0]
    assert list(payload) == ["eval_id", "submission_type", "graph", "universe_id", "signal_pool_id", "is_stats",
                             "is_pnl_mi", "metaparameters", "search_state", "era_id", "expression_elapsed_seconds",
                             "_submission_owner"]
    assert payload["eval_id"] == "eval-1" and payload["is_stats"] is result.stats
    assert (payload["submission_type"], payload["era_id"], payload["_submission_owner"]) == ("signal", 4, "own")
    copy = q.get_nowait()
    assert copy == payload and copy is not payload
    assert wakeup.is_set()
    # without an owner or a queue the payload carries no owner and the wakeup is still set
    tracker, wakeup = RecordingTracker(), threading.Event()
    make_context(tracker=tracker, submission_wakeup=wakeup).evaluate(GRAPH)
    assert "_submission_owner" not in tracker.enqueued[0][0] and wakeup.is_set()


def test_a_null_record_id_becomes_a_uuid(make_context):
    class NoId(RecordingTracker):
        def record_signal_evaluation(self, *a, **k):
            super().record_signal_evaluation(*a, **k)
            return None

    tracker = NoId()
    make_context(tracker=tracker).evaluate(GRAPH)
    import uuid
    uuid.UUID(tracker.enqueued[0][0]["eval_id"])


class CountingEvent(threading.Event):
    """Becomes set at its n-th is_set() question, to stop the pipeline at a chosen point."""

    def __init__(self, set_at):
        super().__init__()
        self.asked, self.set_at = 0, set_at

    def is_set(self):
        self.asked += 1
        if self.asked >= self.set_at:
            self.set()
        return super().is_set()


@pytest.mark.parametrize("set_at, returns_result, recorded, enqueued, queued", [
    (1, False, False, False, False),   # before recording the pass
    (2, True, True, False, False),     # after recording
    (3, True, True, False, False),     # under the lock, before the store
    (4, True, True, True, False),      # under the lock, after the store
    (5, True, True, True, True),       # never
])
def test_cancellation_points(make_context, set_at, returns_result, recorded, enqueued, queued):
    tracker, q = RecordingTracker(), queue.Queue()
    ctx = make_context(tracker=tracker, submission_queue=q, stop_event=CountingEvent(set_at))
    result = ctx.evaluate(GRAPH)
    assert (result is not None) is returns_result
    assert bool(tracker.records) is recorded
    assert bool(tracker.enqueued) is enqueued
    assert (not q.empty()) is queued


def test_sync_failure_is_survived(make_context):
    class Sync:
        def request_for_sync(self):
            raise RuntimeError("offline")

    assert make_context(sync_mgr=Sync()).evaluate(GRAPH) is not None


def test_an_enqueue_failure_leaves_evaluate_and_releases_the_lock(make_context):
    class Refusing(RecordingTracker):
        def enqueue_submission(self, *args):
            raise RuntimeError("queue full")

    ctx = make_context(tracker=Refusing())
    with pytest.raises(RuntimeError, match="queue full"):
        ctx.evaluate(GRAPH)
    assert ctx._tracker_write_lock.acquire(blocking=False)


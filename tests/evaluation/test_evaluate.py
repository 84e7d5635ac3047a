"""The life of one expression through SearchContext.evaluate: every recorded rejection, the pass, and
the points where a stop cancels it."""
import logging
import queue
import threading

import pytest

import quillmarsh.search_templates as st
from evaluation.fakes import ERA, GRAPH, FakeBacktester, RecordingTracker, good_stats


@pytest.fixture(autouse=True)
def _records(record_type):
    pass


def only_record(tracker):
    assert len(tracker.records) == 1
    return tracker.records[0]


@pytest.mark.parametrize("graph", [
    [GRAPH], {}, {"node": "cs_rank"}, dict(GRAPH, extra=1), "rotation",
])
def test_malformed_graphs_record_invalid_input(make_context, graph):
    tracker, bt = RecordingTracker(), FakeBacktester()
    assert make_context(bt=bt, tracker=tracker).evaluate(graph) is None
    rec = only_record(tracker)
    assert (rec["rejection_reason"], rec["passed"], rec["expression_elapsed_seconds"]) == ("invalid_input", False, None)
    assert bt.calls == []


@pytest.mark.parametrize("graph, vocab, reason", [
    ({"type": "rotation", "node": "x"}, {"functions": [{"name": "cs_rank"}]}, "unknown_function"),
    ({"type": "filtration"}, {"functions": [{"name": "cs_rank"}]}, "unknown_function"),
    ({"type": "rotation", "node": "x"}, {"functions": []}, None),
    ({"type": "feature", "node": "x"}, {"functions": [{"name": "cs_rank"}]}, None),
])
def test_function_nodes_must_name_a_vocabulary_function(make_context, graph, vocab, reason):
    tracker = RecordingTracker()
    make_context(tracker=tracker, vocab=vocab).evaluate(graph)
    assert tracker.records[0]["rejection_reason"] == reason


def test_a_function_entry_without_a_name_raises(make_context):
    with pytest.raises(KeyError):
        make_context(vocab={"functions": [{"arity": 1}]}).evaluate({"type": "rotation", "node": "x"})


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
FAILED = {"failure_reason": "backtest_failed: no data", "failure_detail": "backtest_failed: no data"}


@pytest.mark.parametrize("bt, era, reason, metrics", [
    (FakeBacktester(stats=None), ERA, "backtester_unavailable", {}),
    (FakeBacktester(backtest_error=ValueError("no data")), ERA, "backtest_failed: no data", FAILED),
    # a failed backtest outranks a breach of the time limit
    (FakeBacktester(backtest_error=ValueError("no data"), delay=0.002), SLOW_ERA, "backtest_failed: no data", FAILED),
])
def test_backtest_failures(make_context, bt, era, reason, metrics):
    tracker = RecordingTracker()
    assert make_context(bt=bt, tracker=tracker, era=era).evaluate(GRAPH) is None
    rec = only_record(tracker)
    assert rec["rejection_reason"] == reason and rec["expression_elapsed_seconds"] is not None
    assert rec["failure_reason"] == metrics.get("failure_reason")
    assert rec["failure_detail"] == metrics.get("failure_detail")
    assert isinstance(rec["stats"], st._BacktestStats) and rec["per_column_stats"] is None


def test_slow_expression_with_statistics(make_context, caplog):
    tracker = RecordingTracker()
    bt = FakeBacktester(stats=good_stats(failure_detail="backtester said"), delay=0.002)
    assert make_context(bt=bt, tracker=tracker, era=SLOW_ERA).evaluate(GRAPH) is None
    rec = only_record(tracker)
    assert rec["rejection_reason"] == "expression_too_slow"
    assert (rec["failure_reason"], rec["failure_detail"]) == ("expression_too_slow", "backtester said")
    assert rec["per_column_stats"] == {"gross_returns_sharpe": 1.5} and isinstance(rec["stats"], st._BacktestStats)
    (log,) = [r for r in caplog.records if r.getMessage() == "Expression rejected: timing breach"]
    assert log.rejection_reason == "expression_too_slow" and log.threshold == 0.0 and log.elapsed > 0


def test_slow_expression_with_an_invalid_metric_passes_no_stats(make_context):
    tracker = RecordingTracker()
    bt = FakeBacktester(stats=good_stats(margin=None, per_column_stats={}), delay=0.002)
    make_context(bt=bt, tracker=tracker, era=SLOW_ERA).evaluate(GRAPH)
    rec = only_record(tracker)
    assert rec["rejection_reason"] == "expression_too_slow"
    assert isinstance(rec["stats"], st._BacktestStats) and rec["stats"].kw == {} and rec["per_column_stats"] is None
    assert rec["failure_detail"] == "Expression evaluation exceeded era limit"


@pytest.mark.parametrize("overrides, reason, full", [
    ({"margin": float("nan")}, "invalid_backtest_metric_margin", False),
    ({"sharpe": 0.1}, "gross_returns_sharpe_below_min", True),
    ({"turnover": 3.0}, "turnover_exceeded", True),
    ({"correlation": 0.9}, "correlation_exceeded", True),
    ({"is_pnl_mi": None}, "missing_is_pnl_mi", True),
    ({"is_pnl_mi": 0.05}, "pnl_mi_below_threshold", True),
])
def test_rejections_after_the_backtest(make_context, overrides, reason, full):
    tracker = RecordingTracker()
    assert make_context(bt=FakeBacktester(stats=good_stats(**overrides)), tracker=tracker).evaluate(GRAPH) is None
    rec = only_record(tracker)
    assert rec["rejection_reason"] == reason
    assert rec["per_column_stats"] == {"gross_returns_sharpe": 1.5}
    assert (rec["stats"].kw != {}) is full
    if reason == "missing_is_pnl_mi":
        assert rec["failure_reason"] == "missing_is_pnl_mi"
        assert rec["failure_detail"] == "BacktestStats.is_pnl_mi must be a finite scalar number"
    if reason == "pnl_mi_below_threshold":
        assert (rec["failure_reason"], rec["failure_detail"]) == ("pnl_mi", "is_pnl_mi=0.05 < threshold=0.1")
        assert rec["is_pnl_mi"] == rec["agent_is_pnl_mi"] == 0.05


@pytest.mark.parametrize("correlation", [float("nan"), "high", None])
def test_a_correlation_that_is_not_a_finite_number_does_not_reject(make_context, correlation):
    tracker = RecordingTracker()
    ctx = make_context(bt=FakeBacktester(stats=good_stats(correlation=correlation)), tracker=tracker)
    assert ctx.evaluate(GRAPH) is not None
    assert only_record(tracker)["passed"] is True


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


def test_sync_failure_is_survived(make_context, caplog):
    class Sync:
        def request_for_sync(self):
            raise RuntimeError("offline")

    assert make_context(sync_mgr=Sync()).evaluate(GRAPH) is not None
    assert "Failed to request sync files: offline" in caplog.text


def test_an_enqueue_failure_leaves_evaluate_and_releases_the_lock(make_context):
    class Refusing(RecordingTracker):
        def enqueue_submission(self, *args):
            raise RuntimeError("queue full")

    ctx = make_context(tracker=Refusing())
    with pytest.raises(RuntimeError, match="queue full"):
        ctx.evaluate(GRAPH)
    assert ctx._tracker_write_lock.acquire(blocking=False)


"""The context a template receives: construction, read-only view, analytics, recording."""
import threading
from types import SimpleNamespace

import pytest

from quillmarsh.search_analytics import SearchStatsResult

from engine.helpers import ERA, VOCAB, RecordingTracker


def test_constructor_normalises_metaparameters_and_makes_its_own_reentrant_lock(make_context):
    ctx = make_context()
    assert ctx._metaparams_for_db == {"decay": "3", "neutralize": "none"}
    assert (ctx._era_id, ctx._signal_pool_id) == (4, "pool-a")
    assert type(ctx._tracker_write_lock) is type(threading.RLock())


@pytest.mark.parametrize("era, era_id", [
    (dict(ERA, era_id=0), 1), (dict(ERA, era_id="7"), 7), ({k: v for k, v in ERA.items() if k != "era_id"}, 1),
    (SimpleNamespace(era_id="9", thresholds=ERA["thresholds"], signal_pools=[]), "9"),
])
def test_era_id(make_context, era, era_id):
    assert make_context(era=era)._era_id == era_id


def test_no_thresholds_anywhere_refuses_the_context(make_context):
    with pytest.raises(ValueError):
        make_context(era={"era_id": 1})


def test_the_view_is_read_only_and_the_vocabulary_a_fresh_deep_copy(make_context):
    ctx = make_context()
    for prop, value in [("vocabulary", {}), ("universe_id", "U2"), ("metaparameters", {}), ("max_depth", 9),
                        ("analytics", None)]:
        before = getattr(ctx, prop)
        with pytest.raises(AttributeError):
            setattr(ctx, prop, value)
        assert getattr(ctx, prop) == before
    ctx.vocabulary["functions"][0]["name"] = "changed"
    assert ctx.vocabulary == VOCAB and ctx.vocabulary is not ctx.vocabulary


class BadTotal:
    total_evaluations = "12"
    rows = ({"a": 1},)


class BrokenStats:
    @property
    def total_evaluations(self):
        raise RuntimeError("total lost")

    rows = [{"b": 2}]


class FailingTracker(RecordingTracker):
    def get_search_stats(self):
        raise OSError("locked")


class Bare:
    def record_signal_evaluation(self, *a, **k):
        return None


@pytest.mark.parametrize("tracker, total, rows", [
    (RecordingTracker(stats=None), 0, []), (RecordingTracker(stats=BadTotal()), 0, [{"a": 1}]),
    (RecordingTracker(stats=BrokenStats()), 0, [{"b": 2}]),
    (RecordingTracker(stats=SimpleNamespace(total_evaluations=5, rows="x")), 5, []),
    (FailingTracker(), 0, []), (Bare(), 0, []),
])
def test_analytics_snapshot_from_raw_or_missing_statistics(make_context, tracker, total, rows):
    a = make_context(tracker=tracker).analytics
    assert type(a).__name__ == "_AnalyticsSnapshot"
    assert (a.total_evaluations, a.rows) == (total, rows)


def test_a_real_stats_result_is_kept_and_refresh_returns_the_raw_result(make_context):
    result = SearchStatsResult(total_evaluations=3, rows=[{"x": 1}])
    tracker = RecordingTracker(stats=result)
    ctx = make_context(tracker=tracker)
    assert ctx.analytics is result
    tracker._stats = "raw"
    assert ctx.refresh_analytics() == "raw" and ctx.analytics == "raw"
    with pytest.raises(AttributeError, match="tracker has no get_search_stats method"):
        make_context(tracker=Bare()).refresh_analytics()


@pytest.mark.parametrize("stop, abort, cancelled", [
    (None, None, False), (True, None, True), (False, None, False), (False, True, True)])
def test_submission_cancelled(make_context, stop, abort, cancelled):
    def event(state):
        if state is None:
            return None
        e = threading.Event()
        if state:
            e.set()
        return e

    ctx = make_context(stop_event=event(stop), replacement_abort_event=event(abort))
    assert ctx._submission_cancelled() is cancelled


def test_safe_record_passes_defaults_and_metric_keywords(make_context, record_type):
    tracker = RecordingTracker()
    ctx = make_context(tracker=tracker)
    assert ctx._safe_record({"type": "x"}, False, "why", tracking_metric_kwargs={"is_pnl_mi": 0.5}) == "eval-1"
    rec = tracker.records[0]
    assert isinstance(rec["stats"], record_type)
    assert (rec["era_id"], rec["passed"], rec["universe_id"], rec["pool_id"]) == (4, False, "U1", "pool-a")
    assert rec["metaparams"] == {"decay": "3", "neutralize": "none"} and rec["is_pnl_mi"] == 0.5
    assert all(rec[k] is None for k in ("is_correlation", "agent_is_pnl_mi", "failure_reason"))


def test_safe_record_turns_a_store_failure_fatal_and_lets_others_through(make_context):
    calls = []
    ctx = make_context(tracker=RecordingTracker(record_error=OSError("disk I/O error")),
                       fatal_callback=lambda *a: calls.append(a))
    assert ctx._safe_record({"type": "x"}, True) is None
    assert calls == [("DATABASE_ERROR", "Run get_db_info() to check database state. Consider restarting the search.",
                      "Database write failed after retry: disk I/O error")]
    assert ctx._tracker_write_lock.acquire(blocking=False)
    ctx2 = make_context(tracker=RecordingTracker(record_error=KeyError("x")))
    with pytest.raises(KeyError):
        ctx2._safe_record({"type": "x"}, True)

"""Worker threads: the template restarted up to 20 times, crashes counted, evaluation in parallel."""
import logging
import threading

import pytest

import quillmarsh.search_templates as st
from engine.helpers import (ERA_FIELDS, FakeBacktester, FakeEraConfig, finite_template, good_stats, graph, idle_template,
                            join_all, wait_until)


@pytest.fixture
def no_replacements(monkeypatch):
    """The supervisor's replacements are recorded instead of started."""
    calls = []
    monkeypatch.setattr(st, "_restart_worker", lambda handle, count: calls.append(count))
    return calls


@pytest.mark.parametrize("body, detail", [
    ("raise ValueError('bad template')", "bad template"),
    ("open('/etc/hostname')", "forbidden filesystem access from search template"),
])
def test_a_failing_template_costs_a_crash_per_attempt_for_20_attempts(make_handle, no_replacements, caplog, body,
                                                                     detail):
    namespace = {}
    exec("def template(ctx):\n    " + body + "\n    yield {}", namespace)
    h = make_handle(namespace["template"])
    join_all(h._worker_threads)
    assert h._crash_count == 20 and h._total_evaluated == 0
    assert caplog.messages.count("Template sandbox violation in worker 0: " + detail) == 20


def test_a_template_returning_nothing_ends_its_worker_without_a_restart(make_handle, no_replacements, caplog):
    caplog.set_level(logging.INFO, logger="quillmarsh.search_templates")
    calls = []
    h = make_handle(lambda ctx: calls.append(ctx))
    join_all(h._worker_threads)
    assert len(calls) == 1 and h._crash_count == 0
    assert not any("Template exhausted" in m for m in caplog.messages)
    assert wait_until(lambda: no_replacements)


class RaisingContext:
    """Stands in for SearchContext: every evaluation raises, every context and record is kept."""

    records, made = [], []

    def __init__(self, **kwargs):
        self.kwargs = kwargs
        self.made.append(self)

    def evaluate(self, expr):
        raise RuntimeError("backtester exploded")

    def _safe_record(self, expr, passed, rejection_reason=None, tracking_metric_kwargs=None):
        self.records.append((expr, passed, rejection_reason, tracking_metric_kwargs))


def test_a_template_that_runs_dry_is_restarted_20_times_in_fresh_contexts_and_failed_evaluations_count(
        make_handle, monkeypatch, no_replacements, caplog):
    caplog.set_level(logging.INFO, logger="quillmarsh.search_templates")
    RaisingContext.records, RaisingContext.made = [], []
    monkeypatch.setattr(st, "SearchContext", RaisingContext)
    h = make_handle(finite_template(1))
    join_all(h._worker_threads)
    assert h._total_evaluated == 20 and len(RaisingContext.made) == 20 and h._crash_count == 0
    assert caplog.messages.count("Template exhausted in worker 0 \u2014 restarting") == 20
    assert RaisingContext.records[0] == (graph(0), False, "evaluate_exception",
                                         {"failure_reason": "evaluate_exception",
                                          "failure_detail": "backtester exploded"})
    assert caplog.messages.count("Expression evaluation failed: backtester exploded") == 20
    assert wait_until(lambda: no_replacements)  # the supervisor sees the ended worker
    # the context receives the handle's hand-over points
    kw = RaisingContext.made[0].kwargs
    assert (kw["vocab"], kw["universe"], kw["depth"], kw["tracker"], kw["bt"]) == (
        h._vocab, "U1", 4, h._tracker, h._backtester)
    assert kw["submission_queue"] is h._submission_queue and kw["stop_event"] is h._stop_event
    assert kw["tracker_write_lock"] is h._tracker_write_lock and kw["submission_wakeup"] is h._submission_wakeup
    assert kw["replacement_abort_event"] is h._replacement_abort_event
    assert kw["submission_owner"] == h._submission_owner and kw["fatal_callback"].__self__ is h


def test_two_workers_evaluate_at_the_same_moment_when_the_backtester_releases_the_gil(make_handle):
    both_inside = threading.Barrier(2, timeout=5.0)
    met = []

    def meet():
        if not met:
            both_inside.wait()  # blocks (without the GIL) until the other worker is inside too
            met.append(True)
    def template(ctx):
        yield graph()
        yield from idle_template(ctx)
    # a rejected expression leaves the submission thread nothing to send at stop
    h = make_handle(template, n_jobs=2, bt=FakeBacktester(stats=good_stats(sharpe=0.1), on_backtest=meet))
    assert wait_until(lambda: met)
    assert not both_inside.broken
    h.stop(join_timeout=2.0)


def test_a_stop_ends_workers_without_evaluating_what_they_pulled(make_handle):
    pulled = []

    def template(ctx):
        for i in range(1000):
            pulled.append(i)
            if i == 2:
                ctx._stop_event.set()
            yield graph(i)
    h = make_handle(template)
    join_all(h._worker_threads)
    assert h._total_evaluated == 2 and pulled == [0, 1, 2]


def test_a_worker_whose_context_cannot_be_built_logs_its_crash_and_ends(make_handle, monkeypatch, caplog):
    escaped = []
    monkeypatch.setattr(threading, "excepthook", escaped.append)
    h = make_handle(idle_template, era_cfg=FakeEraConfig(**dict(ERA_FIELDS, thresholds=[0.5, 1.0])))
    join_all(h._worker_threads)
    (crash,) = [r for r in caplog.records if r.getMessage() == "worker_loop_crashed"]
    assert crash.levelno == logging.ERROR
    assert crash.exc_info[0] is ValueError and "thresholds" in str(crash.exc_info[1])
    assert escaped == []

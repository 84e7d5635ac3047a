"""The live view: plain lines through a pipe, the rich view on a terminal, attaching to a data directory, and
the health of a search's threads."""
import io
import json
import re
import sqlite3
import subprocess
import sys
import threading
import time
from types import SimpleNamespace

import pytest

from quillmarsh import live

PLAIN = re.compile(
    r"^\d\d:\d\d:\d\d (running|stopped|unknown) elapsed [\d:-]+  evaluated (\d+)  ([\d.]+) eval/s  "
    r"passed (\d+) \(([\d.]+)%\)  sent (\d+)  accepted (\d+)  rejected (\d+)  pending (\d+)  queued (\d+)  "
    r"retrying (\d+)  errors (\d+)  threads (.+)$")


def snapshot(**overrides):
    fields = dict(at=time.time(), running=True, elapsed=12.0, evaluated=200, rate=50.0, passed=5, sent=3,
                  accepted=1, rejected=1, pending=1, queued=2, retrying=0,
                  threads={"workers": "ok", "supervisor": "ok"},
                  best=[{"sharpe": 2.5, "fitness": 1.5, "status": "found", "os_sharpe": 1.1,
                         "expression": "cs_rank(f_1)"}])
    fields.update(overrides)
    return live.Snapshot(**fields)


class Scripted:
    """A source that plays a list of snapshots, then repeats the last."""

    def __init__(self, snaps):
        self.snaps, self.calls = list(snaps), 0

    def snapshot(self):
        self.calls += 1
        return self.snaps[min(self.calls, len(self.snaps)) - 1]


class Tty(io.StringIO):
    def isatty(self):
        return True


def test_through_a_pipe_the_view_is_plain_lines_until_the_search_stops():
    out = io.StringIO()
    source = Scripted([snapshot(), snapshot(evaluated=400),
                       snapshot(running=False, evaluated=600, threads={"workers": "1/2 alive"},
                                error_code="INFRASTRUCTURE_FAILURE")])
    last = live.follow(source, out, interval=0.01, plain_interval=0.0, sleep=lambda s: None)
    lines = out.getvalue().splitlines()
    assert last.running is False and "\x1b" not in out.getvalue()
    assert [PLAIN.match(line).group(2) for line in lines] == ["200", "400", "600"]
    assert PLAIN.match(lines[0]).group(13) == "ok"
    assert lines[-1].endswith("threads workers 1/2 alive  FATAL INFRASTRUCTURE_FAILURE")


def test_plain_lines_are_spaced_by_their_interval():
    out = io.StringIO()
    clock = [0.0]
    source = Scripted([snapshot()] * 30 + [snapshot(running=False)])

    def sleep(seconds):
        clock[0] += seconds

    live.follow(source, out, interval=1.0, plain_interval=5.0, sleep=sleep, clock=lambda: clock[0])
    # 30 one-second refreshes give a line at 0, 5, ..., 25 s, and the closing one
    assert len(out.getvalue().splitlines()) == 7


def test_a_fatal_error_ends_the_view_with_its_code(tracker):
    import quillmarsh.search_templates as st

    def status():
        raise st.SearchError("DATABASE_ERROR", "Run get_db_info()", "Database write failed after retry: full",
                             st.SearchStatus(running=False, n_jobs=2, error_code="DATABASE_ERROR",
                                             recovery_advice="Run get_db_info()"))

    out = io.StringIO()
    last = live.follow(live.HandleSource(SimpleNamespace(status=status), tracker._conn), out, seconds=30,
                       sleep=lambda s: None)
    assert (last.running, last.error_code, last.recovery_advice) == (False, "DATABASE_ERROR", "Run get_db_info()")
    assert out.getvalue().splitlines()[-1].endswith("FATAL DATABASE_ERROR")


def test_on_a_terminal_the_view_is_drawn_with_the_best_signals_and_problems():
    out = Tty()
    source = Scripted([snapshot(errors=["submission send failed (ConnectionError): refused"],
                                threads={"workers": "ok", "polling": "degraded"}, running=False,
                                error_code="INFRASTRUCTURE_FAILURE", recovery_advice="register()")])
    live.follow(source, out, seconds=5, sleep=lambda s: None)
    text = out.getvalue()
    assert "\x1b[" in text  # drawn by rich, not printed as a line
    for fragment in ("best signals so far", "cs_rank(f_1)", "polling", "degraded", "submission send failed",
                     "FATAL INFRASTRUCTURE_FAILURE: register()"):
        assert fragment in text


def alive(flag=True):
    return SimpleNamespace(is_alive=lambda: flag)


@pytest.mark.parametrize("changes, running, expected", [
    ({}, True, "ok"),
    ({"_worker_threads": [alive(), alive(False)], "_polling_degraded": True}, True, "workers 1/2 alive, polling degraded"),
    ({"_era_thread": alive(False), "_supervisor_thread": None}, True, "supervisor dead, era dead"),
    ({"_submission_degraded": True, "_polling_thread": alive(False)}, True, "submission degraded, polling dead"),
    ({"_submission_backoff": True}, True, "submission backing off"),
    ({"_worker_threads": [alive(False)] * 2, "_era_thread": alive(False)}, False, "stopped"),  # an orderly stop
    (None, None, "unknown"),  # no handle to look at
])
def test_the_plain_line_names_only_the_threads_of_a_handle_in_trouble(changes, running, expected):
    handle = SimpleNamespace(_n_jobs=2, _worker_threads=[alive(), alive()], _supervisor_thread=alive(),
                             _era_thread=alive(), _submission_thread=alive(), _polling_thread=alive(),
                             _submission_degraded=False, _polling_degraded=False, _submission_backoff=False)
    vars(handle).update(changes or {})
    threads = {} if changes is None else live.handle_threads(handle)
    assert live.plain_line(snapshot(threads=threads, running=running)).endswith("threads " + expected)


def test_the_rate_is_measured_over_the_recent_window():
    rate = live._Rate(window=10.0)
    assert rate.add(0.0, 0) == 0.0
    assert rate.add(5.0, 500) == 100.0
    assert rate.add(10.0, 1000) == 100.0
    # a sample goes once the next one is a window old: measured from t=10 on, 1500 more in 10 s
    assert rate.add(20.0, 2500) == 150.0
    assert rate.add(21.0, 2500) == pytest.approx(1500 / 11)


def store_counts(data_dir):
    with sqlite3.connect(data_dir / "search_tracking.db") as db:
        return db.execute("SELECT COUNT(*), SUM(passed) FROM signal_evaluations").fetchone()


def publish(data_dir, **fields):
    record = dict(at=time.time(), running=True, elapsed=61.0, baseline_rowid=0, started_at=0.0,
                  threads={"workers": "ok", "submission": "degraded"}, errors=["x failed"], n_jobs=1)
    record.update(fields)
    (data_dir / live.LIVE_STATUS_FILE_NAME).write_text(json.dumps(record))


def test_watch_through_a_pipe_attaches_to_what_the_search_publishes(searched_dir):
    data_dir, _ = searched_dir
    publish(data_dir)
    try:
        proc = subprocess.run([sys.executable, "-m", "quillmarsh.cli", "watch", "--data-dir", str(data_dir),
                               "--seconds", "0.6", "--interval", "0.2", "--plain-interval", "0.2"],
                              capture_output=True, text=True, timeout=60)
    finally:
        (data_dir / live.LIVE_STATUS_FILE_NAME).unlink()
    assert proc.returncode == 0, proc.stderr
    lines = proc.stdout.splitlines()
    assert len(lines) >= 2 and "\x1b" not in proc.stdout
    evaluated, passed = store_counts(data_dir)
    for line in lines:
        m = PLAIN.match(line)
        assert m, line
        assert (m.group(1), int(m.group(2)), int(m.group(4))) == ("running", evaluated, passed)
        # the verdicts of the fixture: one each accepted, rejected, pending; one waits for a retry
        assert [int(m.group(i)) for i in (6, 7, 8, 9, 11)] == [3, 1, 1, 1, 1]
        assert m.group(12) == "1" and m.group(13) == "submission degraded"


def test_watch_without_a_published_search_counts_from_when_it_attached(searched_dir):
    data_dir, _ = searched_dir
    with sqlite3.connect(data_dir / "search_tracking.db") as db:
        source = live.DirectorySource(data_dir, db)
        snap = source.snapshot()
        assert (snap.running, snap.evaluated, snap.threads) == (None, 0, {})
        publish(data_dir, at=time.time() - 3600)  # a search long gone: ignored
        try:
            assert source.snapshot().running is None
        finally:
            (data_dir / live.LIVE_STATUS_FILE_NAME).unlink()


def test_a_search_publishes_its_snapshot_for_watchers(tmp_path, tracker):
    from quillmarsh.search_tracking import BacktestStats

    tracker.record_signal_evaluation({"type": "feature", "node": "old"}, BacktestStats(sharpe=9.0), 1, True, "U", None)
    tracker.get_evaluation_count()
    stopped = threading.Event()
    handle = SimpleNamespace(status=lambda: SimpleNamespace(
        running=not stopped.is_set(), elapsed_seconds=3.0, errors=[], crash_count=0, era="1", n_jobs=1,
        memory_usage_mb=50.0, error_code=None, recovery_advice=None))
    out_dir = tmp_path / "pub"
    out_dir.mkdir()
    source = live.HandleSource(handle, tracker._conn, publish_dir=out_dir)
    tracker.record_signal_evaluation({"type": "feature", "node": "new"}, BacktestStats(sharpe=1.0, quality_score=0.7, returns=0.3), 1, True, "U", None)
    tracker.record_signal_evaluation({"type": "feature", "node": "bad"}, BacktestStats(), 1, False, "U", None)
    tracker.get_evaluation_count()  # passes without a queue row are held until a reader of the tracker asks
    snap = source.snapshot()
    # the evaluation stored before the search began is not this search's
    assert (snap.evaluated, snap.passed, [(b["expression"], b["sharpe"], b["fitness"]) for b in snap.best]) == (
        2, 1, [("new", 1.0, 0.7)])
    published = live.read_published(out_dir)
    assert (published["evaluated"], published["running"], published["baseline_rowid"]) == (2, True, 1)
    stopped.set()
    source.snapshot()
    assert live.read_published(out_dir)["running"] is False
    assert live.read_published(out_dir, now=time.time() + live.PUBLISHED_FRESH_SECONDS + 1) is None


def test_publish_follows_a_search_of_its_own_until_it_stops(tmp_path, tracker):
    stopped = threading.Event()
    calls = []

    def status():
        calls.append(1)
        if len(calls) >= 3:
            stopped.set()
        return SimpleNamespace(running=not stopped.is_set(), elapsed_seconds=1.0, errors=[], crash_count=0, era="1",
                               n_jobs=1, memory_usage_mb=1.0, error_code=None, recovery_advice=None)

    thread = live.publish(SimpleNamespace(status=status), tracker._data_dir, interval=0.01)
    thread.join(timeout=30)
    assert not thread.is_alive() and len(calls) == 3
    assert live.read_published(tracker._data_dir)["running"] is False

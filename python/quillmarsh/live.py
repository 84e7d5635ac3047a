"""A live view of a running search: evaluations, rate, passes, the road of the signals, errors and the health of
the search's threads, and the best signals so far.

Two sources feed it. ``HandleSource`` is in the process of the search: it asks the handle for its status and
its threads, reads the store for the rest, and publishes each snapshot to ``live_status.json`` in the data
directory. ``DirectorySource`` attaches to a data directory from another process: it reads the store and,
while a search publishes one, that snapshot file.

``follow`` draws the snapshots with rich's live display on a terminal and prints one plain line every few
seconds otherwise (a pipe, a CI log), so that logs stay readable.
"""
from __future__ import annotations

import collections
import dataclasses
import json
import logging
import os
import sqlite3
import threading
import time
from pathlib import Path
from typing import IO, Any, Callable, Protocol

from quillmarsh.signals import Signal, load_signals, open_store, status_group

logger = logging.getLogger(__name__)

__all__ = ["Snapshot", "HandleSource", "publish", "DirectorySource", "StoreCounter", "follow", "plain_line", "render",
           "LIVE_STATUS_FILE_NAME", "read_published"]

LIVE_STATUS_FILE_NAME = "live_status.json"
PUBLISHED_FRESH_SECONDS = 15.0   # a published snapshot older than this belongs to a search that has gone
RATE_WINDOW_SECONDS = 10.0       # the rate is measured over the samples of this window
BEST_SIGNALS = 5
BEST_REFRESH_SECONDS = 3.0       # the best signals are re-read this often (a wider scan than the counts)


@dataclasses.dataclass
class Snapshot:
    """What the view shows at one moment."""

    at: float                      # wall clock of the snapshot
    running: bool | None           # None: not known (no search publishes its state)
    elapsed: float | None
    evaluated: int                 # evaluations since the baseline
    rate: float                    # evaluations per second, recent
    passed: int                    # passing evaluations since the baseline
    sent: int                      # answered by the service (a receipt), since the start
    accepted: int
    rejected: int
    pending: int
    queued: int
    retrying: int
    errors: list[str] = dataclasses.field(default_factory=list)
    crash_count: int = 0
    discarded: int = 0             # submissions given up (known to the search's own process only)
    threads: dict[str, str] = dataclasses.field(default_factory=dict)   # name -> "ok" or what is wrong
    best: list[dict] = dataclasses.field(default_factory=list)
    era: str | None = None
    n_jobs: int | None = None
    memory_mb: float | None = None
    error_code: str | None = None
    recovery_advice: str | None = None
    learning: str | None = None    # what a learning template says of itself (adaptive_weighted)
    cache: str | None = None       # the evaluator's subtree cache, when it has one

    @property
    def pass_share(self) -> float:
        return self.passed / self.evaluated if self.evaluated else 0.0


class Source(Protocol):
    def snapshot(self) -> Snapshot: ...


# ----- the store ----------------------------------------------------------------------------------------

class StoreCounter:
    """Counts of a tracking store since a baseline, cheap enough to read every second.

    Evaluations are counted by rowid above the largest rowid at the start, so that each read touches only
    the rows added since; submissions since ``since`` (wall clock) come from the small submission tables.
    """

    def __init__(self, conn: sqlite3.Connection, baseline_rowid: int | None = None, since: float | None = None):
        self.conn = conn
        self.baseline_rowid = self.max_rowid(conn) if baseline_rowid is None else int(baseline_rowid)
        self.since = since
        self._tables = {row[0] for row in conn.execute("SELECT name FROM sqlite_master WHERE type='table'")}
        self._best: tuple[float, list[dict]] | None = None

    @staticmethod
    def max_rowid(conn: sqlite3.Connection) -> int:
        try:
            value = conn.execute("SELECT MAX(rowid) FROM signal_evaluations").fetchone()[0]
        except sqlite3.OperationalError:
            return 0
        return int(value or 0)

    def evaluations(self) -> tuple[int, int]:
        """(evaluated, passed) since the baseline."""
        if "signal_evaluations" not in self._tables:
            return 0, 0
        n, passed = self.conn.execute(
            "SELECT COUNT(*), COALESCE(SUM(passed), 0) FROM signal_evaluations WHERE rowid > ?",
            (self.baseline_rowid,)).fetchone()
        return int(n), int(passed)

    def submissions(self) -> dict[str, int]:
        """sent, accepted, rejected, pending (since ``since``), and queued, retrying (now)."""
        counts = dict(sent=0, accepted=0, rejected=0, pending=0, queued=0, retrying=0)
        if "submission_status" in self._tables:
            sql = "SELECT status, COUNT(*) FROM submission_status"
            params: tuple = ()
            if self.since is not None:
                sql, params = sql + " WHERE submitted_at >= ?", (self.since,)
            for status, n in self.conn.execute(sql + " GROUP BY status", params):
                counts["sent"] += n
                counts[status_group(status, False, False)] += n
        for table, key in (("submission_queue", "queued"), ("submission_retry", "retrying")):
            if table in self._tables:
                counts[key] = int(self.conn.execute(f"SELECT COUNT(*) FROM {table}").fetchone()[0])
        return counts

    def best(self, limit: int = BEST_SIGNALS) -> list[dict]:
        """The best distinct expressions since ``since``: sharpe, fitness, status, expression."""
        now = time.monotonic()
        if self._best is None or now - self._best[0] >= BEST_REFRESH_SECONDS:
            found = load_signals(self.conn, since=self.since, limit=limit,
                                 after_rowid=self.baseline_rowid if self.since is not None else None)
            self._best = (now, [_best_entry(s) for s in found])
        return self._best[1]


def _best_entry(s: Signal) -> dict:
    return {"sharpe": s.sharpe, "fitness": s.fitness, "status": s.submission_status or s.status,
            "os_sharpe": s.os_sharpe, "expression": s.expression}


class _Rate:
    """Evaluations per second over the recent samples."""

    def __init__(self, window: float = RATE_WINDOW_SECONDS):
        self.window = window
        self.samples: collections.deque[tuple[float, int]] = collections.deque()

    def add(self, t: float, count: int) -> float:
        self.samples.append((t, count))
        while len(self.samples) > 2 and t - self.samples[1][0] >= self.window:
            self.samples.popleft()
        t0, c0 = self.samples[0]
        return (count - c0) / (t - t0) if t > t0 else 0.0


# ----- sources ------------------------------------------------------------------------------------------

def _thread_alive(thread: Any) -> bool:
    alive = getattr(thread, "is_alive", None)
    return bool(alive()) if callable(alive) else False


def handle_threads(handle: Any) -> dict[str, str]:
    """The health of a handle's threads: "ok", or what is wrong ("dead", "degraded", "backing off")."""
    out: dict[str, str] = {}
    workers = list(getattr(handle, "_worker_threads", None) or [])
    n_jobs = getattr(handle, "_n_jobs", len(workers)) or len(workers)
    alive = sum(1 for t in workers if _thread_alive(t))
    out["workers"] = "ok" if alive >= n_jobs else f"{alive}/{n_jobs} alive"
    for name in ("supervisor", "era"):
        out[name] = "ok" if _thread_alive(getattr(handle, f"_{name}_thread", None)) else "dead"
    for name in ("submission", "polling"):
        if getattr(handle, f"_{name}_degraded", False):
            out[name] = "degraded"
        elif not _thread_alive(getattr(handle, f"_{name}_thread", None)):
            out[name] = "dead"
        elif name == "submission" and getattr(handle, "_submission_backoff", False):
            out[name] = "backing off"
        else:
            out[name] = "ok"
    return out


class HandleSource:
    """Snapshots of a search in this process. ``publish_dir`` receives each one as ``live_status.json``."""

    def __init__(self, handle: Any, conn: sqlite3.Connection, *, publish_dir: str | Path | None = None,
                 clock: Callable[[], float] = time.time):
        self.handle = handle
        self.clock = clock
        self.started_at = clock()
        self.counter = StoreCounter(conn, since=self.started_at)
        self.publish_dir = Path(publish_dir) if publish_dir is not None else None
        self._rate = _Rate()

    def snapshot(self) -> Snapshot:
        from quillmarsh.search_templates import SearchError

        error_code = advice = None
        try:
            status = self.handle.status()
        except SearchError as exc:  # a fatal error: the view shows it, the caller meets it at its own status()
            status, error_code, advice = exc.status, exc.error_code, exc.recovery_advice
        now = self.clock()
        evaluated, passed = self.counter.evaluations()
        snap = Snapshot(
            at=now, running=bool(status.running), elapsed=float(status.elapsed_seconds), evaluated=evaluated,
            rate=self._rate.add(time.monotonic(), evaluated), passed=passed, **self.counter.submissions(),
            errors=list(status.errors), crash_count=int(status.crash_count),
            discarded=int(getattr(status, "submission_discarded", 0) or 0), threads=handle_threads(self.handle),
            best=self.counter.best(), era=status.era or None, n_jobs=int(status.n_jobs),
            memory_mb=float(status.memory_usage_mb), error_code=error_code or status.error_code,
            recovery_advice=advice or status.recovery_advice)
        snap.learning, snap.cache = _learning_text(), _cache_text()
        if self.publish_dir is not None:
            self.publish(snap)
        return snap

    def publish(self, snap: Snapshot) -> None:
        """Write the snapshot where ``quillmarsh watch`` finds it: atomically, so a reader never sees half."""
        assert self.publish_dir is not None
        record = dataclasses.asdict(snap)
        record.update(started_at=self.started_at, baseline_rowid=self.counter.baseline_rowid, pid=os.getpid())
        path = self.publish_dir / LIVE_STATUS_FILE_NAME
        tmp = path.with_name(f"{path.name}.{os.getpid()}.tmp")
        try:
            tmp.write_text(json.dumps(record, default=str, allow_nan=False))
            os.replace(tmp, path)
        except (OSError, ValueError):
            tmp.unlink(missing_ok=True)  # a view that cannot publish still shows


def publish(handle: Any, data_dir: str | Path | None = None, interval: float = 1.0) -> threading.Thread:
    """Publish the state of ``handle`` for ``quillmarsh watch`` every ``interval`` seconds, from a daemon
    thread, until the search stops; returns the thread. For a search started from your own code:

        handle = quillmarsh.search(template)
        quillmarsh.live.publish(handle)      # then `quillmarsh watch` in another terminal

    ``data_dir`` defaults to the configured data directory.
    """
    if data_dir is None:
        from quillmarsh import agent_onboarding
        data_dir = agent_onboarding._config.get("data_dir")
        if not data_dir:
            raise ValueError("no data directory: pass data_dir or configure one before the search")
    target = Path(data_dir).expanduser()
    if not interval > 0:
        raise ValueError(f"interval must be positive, got {interval!r}")

    def run() -> None:
        conn = open_store(target)
        try:
            source = HandleSource(handle, conn, publish_dir=target)
            while source.snapshot().running:
                time.sleep(interval)
        except Exception as exc:  # a view never takes the search down
            logger.warning("publishing the search state stopped: %s", exc)
        finally:
            conn.close()

    thread = threading.Thread(target=run, name="live_status_publisher", daemon=True)
    thread.start()
    return thread


def read_published(data_dir: str | Path, now: float | None = None) -> dict | None:
    """The snapshot a search in this data directory published, if it is fresh; else None."""
    path = Path(data_dir) / LIVE_STATUS_FILE_NAME
    try:
        record = json.loads(path.read_text())
    except (OSError, ValueError):
        return None
    now = time.time() if now is None else now
    if not isinstance(record, dict) or not isinstance(record.get("at"), (int, float)):
        return None
    if now - record["at"] > PUBLISHED_FRESH_SECONDS:
        return None
    return record


class DirectorySource:
    """Snapshots of whatever search runs in ``data_dir``, from another process.

    While the search publishes its state, the counts start where it started and the threads' health and
    errors are its own; otherwise evaluations are counted from when the view attached, the signals and
    their verdicts are those of the whole store, and the threads are unknown.
    """

    def __init__(self, data_dir: str | Path, conn: sqlite3.Connection, clock: Callable[[], float] = time.time):
        self.data_dir = Path(data_dir)
        self.conn = conn
        self.clock = clock
        self.attached_at = clock()
        self._own_baseline = StoreCounter.max_rowid(conn)
        self._rate = _Rate()
        self._counter: StoreCounter | None = None
        self._counter_key: tuple | None = None

    def _counter_for(self, published: dict | None) -> StoreCounter:
        if published is not None and isinstance(published.get("baseline_rowid"), int):
            key: tuple = (published["baseline_rowid"], published.get("started_at"))
        else:  # evaluations from now on; the signals and their verdicts of the whole store
            key = (self._own_baseline, None)
        if key != self._counter_key:
            since = key[1] if isinstance(key[1], (int, float)) else None
            self._counter, self._counter_key = StoreCounter(self.conn, key[0], since), key
            self._rate = _Rate()
        assert self._counter is not None
        return self._counter

    def snapshot(self) -> Snapshot:
        now = self.clock()
        published = read_published(self.data_dir, now)
        counter = self._counter_for(published)
        evaluated, passed = counter.evaluations()
        snap = Snapshot(at=now, running=None, elapsed=None, evaluated=evaluated,
                        rate=self._rate.add(time.monotonic(), evaluated), passed=passed, **counter.submissions(),
                        best=counter.best())
        if published is not None:
            snap.running = bool(published.get("running"))
            snap.elapsed = published.get("elapsed")
            for name in ("errors", "crash_count", "discarded", "threads", "era", "n_jobs", "memory_mb",
                         "error_code", "recovery_advice"):
                if published.get(name) is not None:
                    setattr(snap, name, published[name])
        return snap


# ----- drawing ------------------------------------------------------------------------------------------

def _clock_text(seconds: float | None) -> str:
    if seconds is None:
        return "-"
    seconds = int(seconds)
    return f"{seconds // 3600:d}:{seconds // 60 % 60:02d}:{seconds % 60:02d}"


def _learning_text() -> str | None:
    """adaptive_weighted's own account of the running search: its exploration share and what it skipped."""
    import quillmarsh.search_templates as st

    report = getattr(st, "adaptive_weighted_learning", None)
    try:
        learning = report() if callable(report) else None
    except Exception:  # a view never fails for a template's report
        return None
    if not isinstance(learning, dict) or not learning.get("draws"):
        return None
    draws = learning.get("draws") or {}
    return (f"adaptive_weighted: explore {100.0 * float(learning.get('exploration_share') or 0.0):.1f}%  "
            f"local moves {draws.get('local', 0)}  repeats skipped {learning.get('repeats_skipped', 0)}  "
            f"near-copies skipped {learning.get('near_copies_skipped', 0)}")


def _cache_text() -> str | None:
    """The evaluator's subtree cache: hits, misses and bytes held."""
    import quillmarsh.search_templates as st

    runtime = getattr(st, "_library_runtime", None)
    info = getattr(getattr(runtime, "evaluator", None), "cache_info", None)
    try:
        data = info() if callable(info) else None
    except Exception:  # a view never fails for the evaluator's figures
        return None
    if not isinstance(data, dict):
        return None
    hits, misses = int(data.get("hits", 0) or 0), int(data.get("misses", 0) or 0)
    held = float(data.get("bytes", 0) or 0) / 1048576.0
    share = 100.0 * hits / (hits + misses) if hits + misses else 0.0
    return f"evaluator cache: hits {hits} ({share:.0f}%)  misses {misses}  held {held:.0f} MiB"


def _threads_text(threads: dict[str, str]) -> str:
    if not threads:
        return "unknown"
    problems = [f"{name} {state}" for name, state in threads.items() if state != "ok"]
    return "ok" if not problems else ", ".join(problems)


def plain_line(snap: Snapshot) -> str:
    """One line of the view for logs: no colours, no cursor movement, fields in a fixed order."""
    stamp = time.strftime("%H:%M:%S", time.localtime(snap.at))
    state = "running" if snap.running else "unknown" if snap.running is None else "stopped"
    # after an orderly stop the threads have ended as they should
    threads = "stopped" if snap.running is False and not snap.error_code else _threads_text(snap.threads)
    text = (f"{stamp} {state} elapsed {_clock_text(snap.elapsed)}  evaluated {snap.evaluated}  "
            f"{snap.rate:.1f} eval/s  passed {snap.passed} ({100.0 * snap.pass_share:.1f}%)  "
            f"sent {snap.sent}  accepted {snap.accepted}  rejected {snap.rejected}  pending {snap.pending}  "
            f"queued {snap.queued}  retrying {snap.retrying}  errors {len(snap.errors)}  "
            f"threads {threads}")
    if snap.learning:
        text += "  " + snap.learning.split(": ", 1)[1].split("  ")[0]
    if snap.error_code:
        text += f"  FATAL {snap.error_code}"
    return text


def _num(value: float | None, digits: int = 2) -> str:
    return "-" if value is None else f"{value:.{digits}f}"


def render(snap: Snapshot) -> Any:
    """The view as a rich renderable."""
    from rich.console import Group
    from rich.panel import Panel
    from rich.table import Table
    from rich.text import Text

    grid = Table.grid(padding=(0, 3))
    for _ in range(4):
        grid.add_column()
    grid.add_row(Text.assemble(("evaluated ", "dim"), (f"{snap.evaluated:,}", "bold")),
                 Text.assemble(("rate ", "dim"), (f"{snap.rate:,.1f}/s", "bold")),
                 Text.assemble(("passed ", "dim"), (f"{snap.passed:,}", "bold green"),
                               (f" ({100.0 * snap.pass_share:.1f}%)", "")),
                 Text.assemble(("memory ", "dim"), (_num(snap.memory_mb, 0) + " MB", "")))
    grid.add_row(Text.assemble(("sent ", "dim"), (str(snap.sent), "bold")),
                 Text.assemble(("accepted ", "dim"), (str(snap.accepted), "bold green")),
                 Text.assemble(("pending ", "dim"), (str(snap.pending), "bold yellow")),
                 Text.assemble(("rejected ", "dim"), (str(snap.rejected), "bold red")))
    grid.add_row(Text.assemble(("queued ", "dim"), (str(snap.queued), "")),
                 Text.assemble(("retrying ", "dim"), (str(snap.retrying), ""),
                               (f"  discarded {snap.discarded}" if snap.discarded else "", "red")),
                 Text.assemble(("errors ", "dim"), (str(len(snap.errors)), "bold red" if snap.errors else "")),
                 Text.assemble(("crashes ", "dim"), (str(snap.crash_count), "")))
    threads = Text("threads ", style="dim")
    if snap.running is False and not snap.error_code:
        threads.append("stopped", style="yellow")
    elif not snap.threads:
        threads.append("unknown (the search publishes no state)", style="yellow")
    for name, state in snap.threads.items() if snap.running is not False or snap.error_code else ():
        threads.append(f"{name} ", style="")
        threads.append(state + "  ", style="green" if state == "ok" else "bold red")
    parts: list[Any] = [grid, threads]
    for note in (snap.learning, snap.cache):
        if note:
            parts.append(Text(note, style="dim"))
    for message in snap.errors[-3:]:
        parts.append(Text(f"! {message}", style="red", overflow="ellipsis", no_wrap=True))
    if snap.error_code:
        parts.append(Text(f"FATAL {snap.error_code}: {snap.recovery_advice or ''}", style="bold red"))
    best = Table(title="best signals so far", title_justify="left", expand=True, show_edge=False)
    for name, justify in (("sharpe", "right"), ("fitness", "right"), ("status", "left"),
                          ("os sharpe", "right"), ("expression", "left")):
        best.add_column(name, justify=justify, no_wrap=name != "expression",  # type: ignore[arg-type]
                        overflow="fold" if name == "expression" else "ellipsis")
    for entry in snap.best:
        best.add_row(_num(entry["sharpe"]), _num(entry["fitness"]), str(entry["status"]),
                     _num(entry["os_sharpe"]), entry["expression"])
    if not snap.best:
        best.add_row("-", "-", "-", "-", "no signal has passed yet")
    parts.append(best)
    state = ("[green]running[/]" if snap.running else "[yellow]attached[/]" if snap.running is None
             else "[red]stopped[/]")
    title = f"quillmarsh search  {state}  {_clock_text(snap.elapsed)}"
    if snap.era:
        title += f"  era {snap.era}"
    if snap.n_jobs:
        title += f"  {snap.n_jobs} job(s)"
    return Panel(Group(*parts), title=title, title_align="left")


def follow(source: Source, out: IO[str], *, seconds: float | None = None, interval: float = 1.0,
           plain_interval: float = 5.0, stop_when_stopped: bool = True,
           sleep: Callable[[float], None] = time.sleep, clock: Callable[[], float] = time.monotonic) -> Snapshot:
    """Show ``source`` until ``seconds`` have passed (None: until interrupted) or, with
    ``stop_when_stopped``, until the search stops; returns the last snapshot.

    On a terminal the view is redrawn in place every ``interval`` seconds; otherwise a plain line is printed
    every ``plain_interval`` seconds and once more at the end.
    """
    deadline = None if seconds is None else clock() + seconds

    def remaining() -> float:
        return float("inf") if deadline is None else deadline - clock()

    def done(snap: Snapshot) -> bool:
        return remaining() <= 0 or (stop_when_stopped and snap.running is False)

    snap = source.snapshot()
    if out.isatty():
        from rich.console import Console
        from rich.live import Live

        with Live(render(snap), console=Console(file=out), refresh_per_second=4, transient=False) as live:
            while not done(snap):
                sleep(max(0.0, min(interval, remaining())))
                snap = source.snapshot()
                live.update(render(snap))
        return snap
    next_line = 0.0
    while not done(snap):
        if clock() >= next_line:
            print(plain_line(snap), file=out, flush=True)
            next_line = clock() + plain_interval
        sleep(max(0.0, min(interval, remaining(), next_line - clock())))
        snap = source.snapshot()
    print(plain_line(snap), file=out, flush=True)
    return snap

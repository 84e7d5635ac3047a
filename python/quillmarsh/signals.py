"""The signals of a data directory: every expression that passed, with its metrics and the service's verdict.

``load_signals(conn)`` joins the tracking store's passing evaluations with where their submission stands:
still in ``submission_queue``, waiting in ``submission_retry``, or answered by the service in
``submission_status`` (pending until the service judges the signal on the days the search never saw, then
accepted or rejected with out-of-sample statistics). Nothing here writes to the store, and a store that
lacks a table or a column simply reads as if no submission had happened yet.

``write_signals(signals, fmt, out)`` renders them as a text table, CSV or JSON; the CSV and JSON forms are
flat records with the same column names, so ``pandas.read_csv`` and ``pandas.read_json`` take them as they
are.
"""
from __future__ import annotations

import csv
import dataclasses
import datetime as _dt
import json
import math
import re
import sqlite3
import time
from collections.abc import Iterable, Mapping, Sequence
from pathlib import Path
from typing import IO, Any

from quillmarsh.submission_status_notify import ACCEPTED_STATUSES, REJECTED_STATUSES, TERMINAL_STATUSES

__all__ = ["Signal", "SIGNAL_FIELDS", "STATUS_GROUPS", "FORMATS", "open_store", "load_signals", "parse_since",
           "parse_statuses", "status_group", "write_signals", "format_expression"]

FORMATS = ("table", "csv", "json")

# Where a passing signal stands. The groups are what a user filters on; a raw service status (such as
# "is_validating" or "found") is accepted by the filter as well.
UNSENT, QUEUED, RETRYING, PENDING, ACCEPTED, REJECTED = "unsent", "queued", "retrying", "pending", "accepted", \
    "rejected"
STATUS_GROUPS = (UNSENT, QUEUED, RETRYING, PENDING, ACCEPTED, REJECTED)


@dataclasses.dataclass
class Signal:
    """One passing evaluation and what became of it. Out-of-sample fields stay None until a verdict."""

    eval_id: str
    expression: str
    created_at: float
    sharpe: float | None
    fitness: float | None
    returns: float | None
    turnover: float | None
    drawdown: float | None
    is_pnl_mi: float | None
    pool_id: str | None
    status: str
    submission_status: str | None
    submission_id: str | None
    submitted_at: float | None
    finalized_at: float | None
    os_sharpe: float | None
    os_fitness: float | None
    os_returns: float | None
    os_turnover: float | None
    os_correlation: float | None
    rejection_reason: str | None
    retry_count: int | None
    graph: Any = dataclasses.field(default=None, repr=False)
    metaparameters: Any = dataclasses.field(default=None, repr=False)

    def record(self) -> dict:
        """The flat record of the CSV and JSON forms (the graph object only in JSON)."""
        out = {name: getattr(self, name) for name in SIGNAL_FIELDS}
        out["created_at"] = _iso(self.created_at)
        out["submitted_at"] = _iso(self.submitted_at)
        out["finalized_at"] = _iso(self.finalized_at)
        return out


SIGNAL_FIELDS = ("eval_id", "expression", "created_at", "sharpe", "fitness", "returns", "turnover", "drawdown",
                 "is_pnl_mi", "pool_id", "status", "submission_status", "submission_id", "submitted_at",
                 "finalized_at", "os_sharpe", "os_fitness", "os_returns", "os_turnover", "os_correlation",
                 "rejection_reason", "retry_count")


def format_expression(graph: Any) -> str:
    """An expression graph in functional form: cs_rank(ts_mean_20(f_3a9c))."""
    if not isinstance(graph, dict):
        return repr(graph)
    kind, node = graph.get("type"), graph.get("node")
    if kind == "feature":
        return str(node)
    if kind in ("int", "float", "bool", "string"):
        return repr(node)
    children = graph.get("children") or []
    return f"{node}({', '.join(format_expression(c) for c in children)})"


# ----- reading ------------------------------------------------------------------------------------------

def open_store(data_dir: str | Path) -> sqlite3.Connection:
    """A read-only connection to the tracking store of ``data_dir``; FileNotFoundError when it has none."""
    from quillmarsh.search_tracking import DB_FILE_NAME

    path = Path(data_dir).expanduser() / DB_FILE_NAME
    if not path.is_file():
        raise FileNotFoundError(f"no tracking store at {path}: run a search in this data directory first")
    return sqlite3.connect(f"file:{path}?mode=ro", uri=True, timeout=10.0, check_same_thread=False)


def _columns(conn: sqlite3.Connection, table: str) -> set[str]:
    return {row[1] for row in conn.execute(f'PRAGMA table_info("{table}")')}


def status_group(submission_status: str | None, queued: bool, retrying: bool) -> str:
    """The group of a signal: the service's verdict first, then the queue it waits in."""
    if submission_status is not None:
        if submission_status in ACCEPTED_STATUSES:
            return ACCEPTED
        if submission_status in REJECTED_STATUSES:
            return REJECTED
        return PENDING
    if retrying:
        return RETRYING
    if queued:
        return QUEUED
    return UNSENT


def _float(value: Any) -> float | None:
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        return None
    value = float(value)
    return value if math.isfinite(value) else None


def _json_map(text: Any) -> dict:
    if not isinstance(text, str) or not text:
        return {}
    try:
        value = json.loads(text)
    except ValueError:
        return {}
    return value if isinstance(value, dict) else {}


def _first_number(stats: Mapping, *keys: str) -> float | None:
    for key in keys:
        value = _float(stats.get(key))
        if value is not None:
            return value
    return None


# How far a signal has gone: of several passing evaluations of one expression, the furthest stands for it.
_PROGRESS = {UNSENT: 0, QUEUED: 1, RETRYING: 2, PENDING: 3, REJECTED: 4, ACCEPTED: 4}


def load_signals(conn: sqlite3.Connection, *, statuses: Iterable[str] | None = None, limit: int | None = None,
                 since: float | None = None, distinct: bool = True,
                 after_rowid: int | None = None) -> list[Signal]:
    """The passing signal evaluations of the store, best first (in-sample Sharpe, then fitness).

    With ``distinct``, an expression that passed more than once is listed once, by the evaluation whose
    submission has gone furthest. ``statuses`` then keeps the signals whose group (``STATUS_GROUPS``) or raw
    service status is among them; ``since`` keeps those evaluated at or after that wall-clock time;
    ``limit`` keeps the first ones. ``after_rowid`` reads only the evaluations stored after that row, so
    that a view of a running search does not scan what was there before it.
    """
    tables = {row[0] for row in conn.execute("SELECT name FROM sqlite_master WHERE type='table'")}
    if "signal_evaluations" not in tables:
        return []
    # Where each evaluation's submission stands, read once per table and merged here: the submission tables
    # are small beside the evaluations, and have no index on eval_id to join through.
    wanted = ("status", "submission_id", "submitted_at", "finalized_at", "is_stats_json", "is_correlation",
              "rejection_reason")
    answers: dict[str, dict] = {}
    if "submission_status" in tables:
        status_cols = _columns(conn, "submission_status")
        if {"eval_id", "status_id"} <= status_cols:
            picked = ", ".join(c if c in status_cols else "NULL" for c in wanted)
            for eval_id, *values in conn.execute(
                    f"SELECT eval_id, {picked} FROM submission_status ORDER BY status_id"):
                answers[str(eval_id)] = dict(zip(wanted, values))  # the newest row of a re-sent signal wins
    queued: set[str] = set()
    if "submission_queue" in tables:
        queued = {str(e) for (e,) in conn.execute("SELECT DISTINCT eval_id FROM submission_queue")}
    retries: dict[str, int] = {}
    if "submission_retry" in tables:
        retries = {str(e): int(n or 0) for e, n in conn.execute(
            "SELECT eval_id, MAX(retry_count) FROM submission_retry GROUP BY eval_id")}
    no_answer = dict.fromkeys(wanted)
    ev_cols = _columns(conn, "signal_evaluations")
    metric_cols = ("sharpe", "quality_score", "returns", "turnover", "drawdown", "is_pnl_mi", "pool_id",
                   "metaparameters_json")
    metrics = ", ".join(f"e.{c}" if c in ev_cols else "NULL" for c in metric_cols)
    sql = f"SELECT e.eval_id, e.graph_json, e.created_at, {metrics} FROM signal_evaluations e WHERE e.passed = 1"
    params: list[Any] = []
    if since is not None:
        sql += " AND e.created_at >= ?"
        params.append(float(since))
    if after_rowid is not None:
        sql += " AND e.rowid > ?"
        params.append(int(after_rowid))
    order = [f"e.{c} IS NULL, e.{c} DESC" for c in ("sharpe", "quality_score") if c in ev_cols]
    sql += " ORDER BY " + ", ".join(order + ["e.created_at", "e.eval_id"])
    keep = None if statuses is None else set(statuses)
    found: list[Signal] = []
    for row in conn.execute(sql, params):
        (eval_id, graph_json, created_at, sharpe, fitness, returns, turnover, drawdown, mi, pool_id,
         meta_json) = row
        eval_id = str(eval_id)
        st = answers.get(eval_id, no_answer)
        retry_count = retries.get(eval_id)
        service_status = st["status"]
        group = status_group(service_status, eval_id in queued, retry_count is not None)
        try:
            graph = json.loads(graph_json) if graph_json else None
        except ValueError:
            graph = graph_json
        os_stats = _json_map(st["is_stats_json"])
        found.append(Signal(
            eval_id=eval_id, expression=format_expression(graph), created_at=float(created_at),
            sharpe=_float(sharpe), fitness=_float(fitness), returns=_float(returns), turnover=_float(turnover),
            drawdown=_float(drawdown), is_pnl_mi=_float(mi), pool_id=pool_id, status=group,
            submission_status=service_status, submission_id=st["submission_id"],
            submitted_at=_float(st["submitted_at"]), finalized_at=_float(st["finalized_at"]),
            os_sharpe=_first_number(os_stats, "sharpe"),
            os_fitness=_first_number(os_stats, "fitness", "quality_score"),
            os_returns=_first_number(os_stats, "returns"), os_turnover=_first_number(os_stats, "turnover"),
            os_correlation=_float(st["is_correlation"]), rejection_reason=st["rejection_reason"],
            retry_count=retry_count, graph=graph,
            metaparameters=_json_map(meta_json) or None))
    if distinct:
        first: dict[str, int] = {}
        for i, signal in enumerate(found):
            j = first.setdefault(signal.expression, i)
            if j != i and _PROGRESS[signal.status] > _PROGRESS[found[j].status]:
                found[j] = signal
        kept = set(first.values())
        found = [s for i, s in enumerate(found) if i in kept]
    out = [s for s in found if keep is None or s.status in keep or s.submission_status in keep]
    return out if limit is None else out[:limit]


# ----- arguments ----------------------------------------------------------------------------------------

_DURATION = re.compile(r"^\s*(\d+(?:\.\d+)?)\s*([smhdw])\s*$")
_UNIT_SECONDS = {"s": 1.0, "m": 60.0, "h": 3600.0, "d": 86400.0, "w": 604800.0}


def parse_since(text: str, now: float | None = None) -> float:
    """A wall-clock time from "90m", "2h", "3d" (that long ago), an ISO date or time (local time unless it
    names its zone), or seconds since the epoch. ValueError for anything else."""
    now = time.time() if now is None else now
    match = _DURATION.match(text)
    if match:
        return now - float(match.group(1)) * _UNIT_SECONDS[match.group(2)]
    try:
        value = float(text)
    except ValueError:
        pass
    else:
        if math.isfinite(value) and value >= 0:
            return value
    try:
        moment = _dt.datetime.fromisoformat(text.strip())
    except ValueError:
        raise ValueError(f"expected a duration such as 90m, 2h or 3d, an ISO date or time, or epoch seconds; "
                         f"got {text!r}") from None
    return moment.timestamp()


def parse_statuses(text: str) -> set[str]:
    """A comma-separated list of status groups or raw service statuses; ValueError for an unknown one."""
    names = {part.strip() for part in text.split(",") if part.strip()}
    if not names:
        raise ValueError("expected at least one status")
    known = set(STATUS_GROUPS) | set(TERMINAL_STATUSES) | {"pending", "is_validating"}
    unknown = sorted(names - known)
    if unknown:
        raise ValueError(f"unknown status {', '.join(unknown)}; use {', '.join(STATUS_GROUPS)} or a service "
                         "status such as found or is_rejected")
    return names


# ----- writing ------------------------------------------------------------------------------------------

def _iso(ts: float | None) -> str | None:
    if ts is None:
        return None
    return _dt.datetime.fromtimestamp(ts, _dt.timezone.utc).isoformat(timespec="seconds")


def _cell(value: Any, digits: int = 3) -> str:
    if value is None:
        return "-"
    if isinstance(value, float):
        return f"{value:.{digits}f}"
    return str(value)


TABLE_COLUMNS = (("#", None), ("sharpe", "sharpe"), ("fitness", "fitness"), ("returns", "returns"),
                 ("turnover", "turnover"), ("pnl MI", "is_pnl_mi"), ("status", "status"),
                 ("os sharpe", "os_sharpe"), ("os fitness", "os_fitness"), ("os corr", "os_correlation"),
                 ("expression", "expression"))


def table_rows(signals: Sequence[Signal]) -> list[list[str]]:
    rows = []
    for rank, s in enumerate(signals, 1):
        row = []
        for _, field in TABLE_COLUMNS:
            if field is None:
                row.append(str(rank))
            elif field == "status":
                row.append(s.submission_status if s.submission_status and s.status == PENDING else s.status)
            else:
                row.append(_cell(getattr(s, field), 2 if field in ("sharpe", "fitness", "os_sharpe",
                                                                      "os_fitness") else 3))
        rows.append(row)
    return rows


def plain_table(rows: Sequence[Sequence[Any]], headers: Sequence[str]) -> str:
    rows = [[str(c) for c in r] for r in rows]
    widths = [max([len(h)] + [len(r[i]) for r in rows]) for i, h in enumerate(headers)]

    def line(cells: Sequence[str]) -> str:
        return "  ".join(c.ljust(w) for c, w in zip(cells, widths)).rstrip()

    return "\n".join([line(headers), line(["-" * w for w in widths])] + [line(r) for r in rows])


def _strict_json(value: Any) -> Any:
    """``value`` with every non-finite float as its text ("nan", "inf"), so that the output is strict JSON."""
    if isinstance(value, float) and not math.isfinite(value):
        return repr(value)
    if isinstance(value, dict):
        return {k: _strict_json(v) for k, v in value.items()}
    if isinstance(value, list):
        return [_strict_json(v) for v in value]
    return value


def write_signals(signals: Sequence[Signal], fmt: str, out: IO[str]) -> None:
    """Write ``signals`` to ``out`` as "table", "csv" or "json"."""
    if fmt == "json":
        records = []
        for s in signals:
            record = s.record()
            record["graph"] = _strict_json(s.graph)
            record["metaparameters"] = _strict_json(s.metaparameters)
            records.append(record)
        json.dump(records, out, indent=1, allow_nan=False, default=str)
        out.write("\n")
    elif fmt == "csv":
        writer = csv.DictWriter(out, fieldnames=SIGNAL_FIELDS, lineterminator="\n")
        writer.writeheader()
        for s in signals:
            writer.writerow({k: ("" if v is None else repr(v) if isinstance(v, float) else v)
                             for k, v in s.record().items()})
    elif fmt == "table":
        headers = [h for h, _ in TABLE_COLUMNS]
        if not signals:
            out.write("No signals.\n")
        elif out.isatty():
            from rich.console import Console
            from rich.table import Table

            table = Table(*headers, title=f"{len(signals)} signal(s), best first", header_style="bold")
            for row in table_rows(signals):
                table.add_row(*row)
            Console(file=out).print(table)
        else:
            out.write(plain_table(table_rows(signals), headers) + "\n")
    else:
        raise ValueError(f"format must be one of {', '.join(FORMATS)}, got {fmt!r}")

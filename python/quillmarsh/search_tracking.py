"""The tracking store: ``<data_dir>/search_tracking.db``, or a PostgreSQL database shared by many processes.

SQLite in WAL mode, one connection per tracker shared by the threads of a process
(``check_same_thread=False``, ``isolation_level=None``: autocommit, so that a caller's explicit
"BEGIN IMMEDIATE ... COMMIT" on ``tracker._conn`` works). Several processes may open the same file.

Given a ``postgresql://`` URL (the ``database_url`` argument, else ``database_url`` in
``quillmarsh.agent_onboarding._config``, else the environment variable ``QUILLMARSH_DATABASE_URL``), the
store lives on that server instead, for searches on several machines: ``_conn`` is then a
``quillmarsh.pg_store.PostgresConnection`` with ``dialect == "postgres"``, the same autocommit behaviour
and the same statements, written once for SQLite and converted for the server. The data directory still
holds what is local to a machine (the receipt journal, the key material).

Tables: ``signal_evaluations``, ``strategy_evaluations``, ``submission_queue``, ``submission_retry`` and
``submission_status``, plus three small ones of the tracker's own: ``submission_simulations`` (the parent
rows that ``submission_status.sim_id`` names), ``submission_attempts`` (one row per idempotency key) and
``tracker_state`` (the search-active flag). The queue tables' claim columns ``in_flight_owner`` and
``in_flight_at`` are not created here: the search component adds them itself.

The tracker's own writes are single statements or short transactions taken under ``self._lock``. A single
statement issued while a caller holds a transaction open on the shared connection becomes part of it.
A write that fails twice raises ``TrackerWriteError``, an ``OSError``, so that callers can treat a failing
store like a failing disk.
"""

from __future__ import annotations

import atexit
import dataclasses
import hashlib
import json
import math
import os
import sqlite3
import sys
import threading
import time
import weakref
from collections.abc import Mapping

__all__ = [
    "DB_FILE_NAME",
    "BacktestStats",
    "PendingSubmission",
    "SearchTracker",
    "TrackerWriteError",
    "_ensure_submission_sim_parent",
    "_synthetic_submission_sim_id",
    "resolve_database_url",
]

DB_FILE_NAME = "search_tracking.db"
# A passing evaluation is held this long for its queue row before it is recorded on its own.
PASS_HOLD_SECONDS = 5.0
DATABASE_URL_ENV = "QUILLMARSH_DATABASE_URL"
# The tables whose key the store generates, and that key: an insert there reports it as ``lastrowid``.
GENERATED_KEYS = {"submission_queue": "queue_id", "submission_retry": "retry_id", "submission_status": "status_id"}
EVAL_TYPES = ("signal", "strategy")
_FUNCTION_NODE_TYPES = frozenset(("rotation", "filtration", "reduction"))
_MAX_GRAPH_NODES = 100000

_SCHEMA = (
    """CREATE TABLE IF NOT EXISTS signal_evaluations (
        eval_id TEXT PRIMARY KEY,
        era_id INTEGER NOT NULL,
        universe_id TEXT,
        pool_id TEXT,
        graph_json TEXT NOT NULL,
        function_names TEXT NOT NULL DEFAULT '[]',
        feature_names TEXT NOT NULL DEFAULT '[]',
        metaparameters_json TEXT,
        passed INTEGER NOT NULL,
        rejection_reason TEXT,
        sharpe REAL, returns REAL, turnover REAL, drawdown REAL, delta_exposure REAL,
        max_weight REAL, quality_score REAL, correlation REAL, abs_weight_sum_mean REAL,
        stats_json TEXT,
        per_column_stats_json TEXT,
        expression_elapsed_seconds REAL,
        is_correlation REAL, is_pnl_mi REAL, agent_is_pnl_mi REAL, is_weights_mi REAL,
        failure_reason TEXT, failure_detail TEXT,
        submitted INTEGER NOT NULL DEFAULT 0,
        created_at REAL NOT NULL)""",
    "CREATE INDEX IF NOT EXISTS signal_evaluations_pool ON signal_evaluations (pool_id, created_at)",
    "CREATE INDEX IF NOT EXISTS signal_evaluations_era ON signal_evaluations (era_id, created_at)",
    """CREATE TABLE IF NOT EXISTS strategy_evaluations (
        eval_id TEXT PRIMARY KEY,
        era_id INTEGER NOT NULL,
        strategy_pool_id TEXT,
        signal_pool_id TEXT,
        payload_json TEXT,
        passed INTEGER NOT NULL DEFAULT 0,
        rejection_reason TEXT,
        submitted INTEGER NOT NULL DEFAULT 0,
        created_at REAL NOT NULL)""",
    """CREATE TABLE IF NOT EXISTS submission_queue (
        queue_id INTEGER PRIMARY KEY AUTOINCREMENT,
        eval_id TEXT NOT NULL,
        eval_type TEXT NOT NULL,
        payload_json TEXT NOT NULL,
        era_id INTEGER NOT NULL,
        priority INTEGER NOT NULL DEFAULT 0,
        created_at REAL NOT NULL)""",
    """CREATE TABLE IF NOT EXISTS submission_retry (
        retry_id INTEGER PRIMARY KEY AUTOINCREMENT,
        eval_id TEXT NOT NULL,
        eval_type TEXT NOT NULL,
        pool_id TEXT,
        payload_json TEXT NOT NULL,
        era_id INTEGER NOT NULL,
        retry_count INTEGER NOT NULL DEFAULT 0,
        last_rejection_reason TEXT,
        retry_after REAL,
        created_at REAL NOT NULL)""",
    """CREATE TABLE IF NOT EXISTS submission_status (
        status_id INTEGER PRIMARY KEY AUTOINCREMENT,
        eval_id TEXT NOT NULL,
        eval_type TEXT NOT NULL,
        era_id INTEGER NOT NULL,
        pool_id TEXT,
        signal_pool_id TEXT,
        submission_id TEXT NOT NULL,
        sim_id TEXT,
        status TEXT NOT NULL DEFAULT 'pending',
        submitted_at REAL NOT NULL,
        finalized_at REAL,
        rejection_reason TEXT,
        is_stats_json TEXT, payment_json TEXT,
        is_correlation REAL, is_pnl_mi REAL, agent_is_pnl_mi REAL, is_weights_mi REAL,
        failure_reason TEXT, failure_detail TEXT,
        updated_at REAL)""",
    "CREATE INDEX IF NOT EXISTS submission_status_submission ON submission_status (submission_id)",
    """CREATE TABLE IF NOT EXISTS submission_simulations (
        sim_id TEXT PRIMARY KEY,
        era_id INTEGER NOT NULL,
        created_at REAL NOT NULL)""",
    """CREATE TABLE IF NOT EXISTS submission_attempts (
        idempotency_key TEXT PRIMARY KEY,
        eval_id TEXT NOT NULL,
        eval_type TEXT NOT NULL,
        era_id INTEGER NOT NULL,
        pool_id TEXT,
        payload_json TEXT NOT NULL,
        attempts INTEGER NOT NULL DEFAULT 1,
        first_attempt_at REAL NOT NULL,
        last_attempt_at REAL NOT NULL)""",
    # Outcome counts of signal evaluations per pool and name, kept current as outcomes are recorded, so
    # that the statistics of a store of any size are read from a few hundred rows. ``kind`` is
    # 'function', 'feature' or 'total' (with name ''). Each outcome counts twice: in the row of hour -1,
    # which holds all time, and in the row of its wall-clock hour, which the recent window reads.
    """CREATE TABLE IF NOT EXISTS signal_name_stats (
        pool_id TEXT NOT NULL,
        kind TEXT NOT NULL,
        name TEXT NOT NULL,
        hour INTEGER NOT NULL,
        evaluation_count INTEGER NOT NULL DEFAULT 0,
        pass_count INTEGER NOT NULL DEFAULT 0,
        PRIMARY KEY (pool_id, kind, name, hour))""",
    "CREATE INDEX IF NOT EXISTS signal_name_stats_hour ON signal_name_stats (pool_id, hour)",
    """CREATE TABLE IF NOT EXISTS tracker_state (
        key TEXT PRIMARY KEY,
        value TEXT NOT NULL,
        updated_at REAL NOT NULL)""",
)

STORE_TABLES = ("signal_evaluations", "strategy_evaluations", "submission_queue", "submission_retry",
                "submission_status")
OWN_TABLES = ("submission_simulations", "submission_attempts", "tracker_state")


def resolve_database_url(database_url=None):
    """The PostgreSQL URL the store should use, or None for SQLite in the data directory.

    An explicit argument wins, then ``database_url`` of the platform's configuration, then the
    environment's ``QUILLMARSH_DATABASE_URL``; an empty value counts as none. Anything but a
    ``postgresql://`` (or ``postgres://``) URL is refused."""
    url = database_url
    if url is None or url == "":
        onboarding = sys.modules.get("quillmarsh.agent_onboarding")
        config = getattr(onboarding, "_config", None)
        url = config.get("database_url") if isinstance(config, Mapping) else None
    if url is None or url == "":
        url = os.environ.get(DATABASE_URL_ENV) or None
    if url is None:
        return None
    from quillmarsh.pg_store import is_postgres_url, redact_url

    if not is_postgres_url(url):
        shown = redact_url(url) if isinstance(url, str) else type(url).__name__
        raise ValueError("database_url must be a postgresql:// URL, got %r" % (shown,))
    return url


class TrackerWriteError(OSError):
    """A write to the tracking store failed, also on its retry."""


@dataclasses.dataclass
class BacktestStats:
    """The statistics of one backtest as the store keeps them."""

    sharpe: float = 0.0
    returns: float = 0.0
    turnover: float = 0.0
    drawdown: float = 0.0
    delta_exposure: float = 0.0
    max_weight: float = 0.0
    quality_score: float = 0.0
    correlation: float = 0.0
    liquidity_metrics: dict = dataclasses.field(default_factory=dict)
    custom_stats: dict = dataclasses.field(default_factory=dict)
    passed: bool = True
    abs_weight_sum_mean: float = 0.0
    weight_quality_metrics: dict = dataclasses.field(default_factory=dict)


@dataclasses.dataclass(frozen=True)
class PendingSubmission:
    """A submission that the service has taken in and not yet judged."""

    submission_id: str
    eval_type: str
    eval_id: str
    era_id: int
    sim_id: str | None


def _synthetic_submission_sim_id(eval_id, submission_type) -> str:
    """A stable simulation id for a submission that came without one."""
    digest = hashlib.sha256(("%s\x00%s" % (submission_type, eval_id)).encode("utf-8")).hexdigest()
    return "sim-" + digest[:32]


def _ensure_submission_sim_parent(conn, sim_id, era_id) -> None:
    """Make sure the simulation row named by ``sim_id`` exists; runs inside the caller's transaction."""
    if sim_id is None or str(sim_id) == "":
        raise ValueError("sim_id must be a non-empty id")
    conn.execute("INSERT INTO submission_simulations (sim_id, era_id, created_at) VALUES (?, ?, ?) "
                 "ON CONFLICT (sim_id) DO NOTHING", (str(sim_id), int(era_id), time.time()))


_UPSERT_NAME_STATS = (
    "INSERT INTO signal_name_stats (pool_id, kind, name, hour, evaluation_count, pass_count) "
    "VALUES (?, ?, ?, ?, ?, ?) ON CONFLICT (pool_id, kind, name, hour) DO UPDATE SET "
    "evaluation_count = signal_name_stats.evaluation_count + excluded.evaluation_count, "
    "pass_count = signal_name_stats.pass_count + excluded.pass_count")
_SECONDS_PER_HOUR = 3600.0
_ALL_TIME = -1  # the hour of the rows that count every outcome of a name


def _name_stat_rows(pool_id, functions, features, passed, created_at) -> list:
    """The rows that one outcome adds to ``signal_name_stats``: its total, its functions, its features."""
    pool = "" if pool_id is None else str(pool_id)
    p = 1 if passed else 0
    rows = []
    for hour in (_ALL_TIME, int(created_at // _SECONDS_PER_HOUR)):
        rows.append((pool, "total", "", hour, 1, p))
        rows.extend((pool, "function", name, hour, 1, p) for name in functions)
        rows.extend((pool, "feature", name, hour, 1, p) for name in features)
    return rows


_INSERT_SIGNAL_EVALUATION = (
    "INSERT INTO signal_evaluations (eval_id, era_id, universe_id, pool_id, graph_json, "
    "function_names, feature_names, metaparameters_json, passed, rejection_reason, sharpe, "
    "returns, turnover, drawdown, delta_exposure, max_weight, quality_score, correlation, "
    "abs_weight_sum_mean, stats_json, per_column_stats_json, expression_elapsed_seconds, "
    "is_correlation, is_pnl_mi, agent_is_pnl_mi, is_weights_mi, failure_reason, failure_detail, "
    "created_at) VALUES (" + ", ".join("?" * 29) + ")")


def _finite_or_none(value):
    if type(value) is float:  # the common case, without the conversions below
        return value if math.isfinite(value) else None
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        return None
    try:
        value = float(value)
    except (OverflowError, ValueError):
        return None
    return value if math.isfinite(value) else None


def _new_eval_id() -> str:
    """32 hex digits: the wall clock in nanoseconds, then 64 random bits. Ids made later sort later, so each
    insert lands at the end of the key index instead of at a random page of it."""
    return "%016x%s" % (time.time_ns(), os.urandom(8).hex())


def _make_json_writer():
    """The JSON text of a value as the store keeps it: sorted keys, anything unserialisable as its str().

    json.dumps builds a new encoder, and a new C scanner under it, on every call; this builds the C encoder
    once and calls it directly. It skips the circular-reference bookkeeping, which would have to be kept
    per call to be safe across threads: a value that contains itself ends in RecursionError instead of
    ValueError. Without the C accelerator, the plain encoder does the same work."""
    from json import encoder
    if encoder.c_make_encoder is None:  # pragma: no cover - CPython always ships it
        return json.JSONEncoder(sort_keys=True, default=str).encode
    chunks = encoder.c_make_encoder(None, str, encoder.encode_basestring_ascii, None, ": ", ", ", True, False,
                                    True)
    join = "".join

    def write(value):
        return join(chunks(value, 0))

    return write


_json = _make_json_writer()


def _graph_names(graph) -> tuple[list, list]:
    """Sorted distinct function names and feature names of an expression graph."""
    functions, features = set(), set()
    stack, seen = [graph], 0
    while stack and seen < _MAX_GRAPH_NODES:
        node = stack.pop()
        seen += 1
        if type(node) is not dict and not isinstance(node, Mapping):
            continue
        kind, name = node.get("type"), node.get("node")
        if isinstance(name, str) and name:
            if kind in _FUNCTION_NODE_TYPES:
                functions.add(name)
            elif kind == "feature":
                features.add(name)
        children = node.get("children")
        if isinstance(children, (list, tuple)):
            stack.extend(children)
    return sorted(functions), sorted(features)


def _require_id(value, what: str) -> str:
    if value is None or isinstance(value, bool) or str(value) == "":
        raise ValueError("%s must be a non-empty id" % what)
    return str(value)


def _require_int(value, what: str) -> int:
    if isinstance(value, bool):
        raise ValueError("%s must be an integer, not a boolean" % what)
    try:
        return int(value)
    except (TypeError, ValueError):
        raise ValueError("%s must be an integer, got %r" % (what, value)) from None


def _require_eval_type(value, allow_none: bool = False):
    if value is None and allow_none:
        return None
    if value not in EVAL_TYPES:
        raise ValueError("eval_type must be 'signal' or 'strategy', got %r" % (value,))
    return value


def _require_payload_json(payload_json) -> str:
    if not isinstance(payload_json, str) or not payload_json:
        raise ValueError("payload_json must be a non-empty JSON string")
    try:
        decoded = json.loads(payload_json)
    except ValueError as exc:
        raise ValueError("payload_json is not valid JSON: %s" % exc) from None
    if not isinstance(decoded, dict):
        raise ValueError("payload_json must decode to an object")
    return payload_json


_OPEN_TRACKERS = weakref.WeakSet()


@atexit.register
def _flush_held_passes_at_exit() -> None:
    """At exit (after running searches have been stopped) every pass still held is recorded."""
    for tracker in list(_OPEN_TRACKERS):
        try:
            with tracker._lock:
                if tracker._conn is not None:
                    tracker._flush_held_passes()
        except Exception:  # noqa: BLE001 - the interpreter is going away; nothing to report to
            pass


class SearchTracker:
    """The tracking store of one data directory."""

    def __init__(self, data_dir, database_url=None):
        if data_dir is None or os.fspath(data_dir) == "":
            raise ValueError("SearchTracker needs a data directory")
        url = resolve_database_url(database_url)
        self._data_dir = os.path.abspath(os.path.expanduser(os.fspath(data_dir)))
        os.makedirs(self._data_dir, exist_ok=True)
        self._lock = threading.RLock()
        # Passing evaluations waiting for their queue row, so that the two are committed together:
        # eval_id -> (row, name counts, monotonic time held).
        self._held_passes = {}
        _OPEN_TRACKERS.add(self)
        self._conn = None
        if url is None:
            self.dialect = "sqlite"
            self._db_path = os.path.join(self._data_dir, DB_FILE_NAME)
            self._retryable, self._store_errors = (sqlite3.OperationalError,), (sqlite3.Error,)
            self._row_order = "rowid"
            self._conn = sqlite3.connect(self._db_path, timeout=10.0, check_same_thread=False,
                                         isolation_level=None)
        else:
            from quillmarsh import pg_store

            self.dialect = "postgres"
            self._db_path = None
            psycopg = pg_store._import_psycopg()
            # busy store: a lock wait that timed out, a deadlock, a serialisation failure
            self._retryable = (psycopg.errors.LockNotAvailable, psycopg.errors.DeadlockDetected,
                               psycopg.errors.SerializationFailure)
            self._store_errors = (psycopg.Error,)
            self._row_order = "eval_id"  # no rowid there; the ids sort by creation time
            self._conn = pg_store.PostgresConnection(url, generated_keys=GENERATED_KEYS)
        try:
            if self.dialect == "sqlite":
                self._conn.execute("PRAGMA journal_mode=WAL")
                self._conn.execute("PRAGMA synchronous=NORMAL")
            self._transaction(lambda conn: [conn.execute(sql) for sql in _SCHEMA])
            # A store written before the aggregates existed gets them counted once.
            if (self._conn.execute("SELECT 1 FROM signal_evaluations LIMIT 1").fetchall()
                    and not self._conn.execute("SELECT 1 FROM signal_name_stats LIMIT 1").fetchall()):
                self._transaction(self._rebuild_name_stats)
        except BaseException:
            self._conn.close()
            self._conn = None
            raise

    # -- plumbing ----------------------------------------------------------------------------------

    def _connection(self):
        conn = self._conn
        if conn is None:
            raise RuntimeError("SearchTracker is closed")
        return conn

    def _write(self, sql: str, params=()):
        """One statement, retried once; the cursor is returned."""
        with self._lock:
            conn = self._connection()
            try:
                return conn.execute(sql, params)
            except self._retryable:
                if conn.in_transaction and self.dialect == "postgres":
                    raise  # the server has aborted the caller's transaction: nothing to retry within it
                try:
                    return conn.execute(sql, params)
                except self._store_errors as exc:
                    raise TrackerWriteError("Database write failed after retry: %s" % exc) from exc

    def _transaction(self, body):
        """``body(conn)`` in a transaction of its own, or inside the caller's if one is open."""
        with self._lock:
            conn = self._connection()
            if conn.in_transaction:
                return body(conn)
            for attempt in (1, 2):
                try:
                    conn.execute("BEGIN IMMEDIATE")
                except self._retryable as exc:
                    if attempt == 2:
                        raise TrackerWriteError("Database write failed after retry: %s" % exc) from exc
                    continue
                try:
                    result = body(conn)
                    conn.execute("COMMIT")
                    return result
                except BaseException:
                    if conn.in_transaction:
                        conn.execute("ROLLBACK")
                    raise

    def _query(self, sql: str, params=()):
        with self._lock:
            self._flush_held_passes()  # a reader sees every pass recorded so far
            return self._connection().execute(sql, params).fetchall()

    def _flush_held_passes(self, older_than: float = 0.0) -> None:
        """Record the held passes older than ``older_than`` seconds on their own: their queue row did not come
        (the search was stopped between the two), and a recorded pass stays recorded."""
        if not self._held_passes:
            return
        now = time.monotonic()
        due = [k for k, (_row, _counts, held_at) in self._held_passes.items() if now - held_at >= older_than]
        if not due:
            return

        def body(conn):
            for eval_id in due:
                row, counts, _held_at = self._held_passes[eval_id]
                self._insert_evaluation(conn, row, counts)
        self._transaction(body)
        for eval_id in due:
            self._held_passes.pop(eval_id, None)

    def _insert_evaluation(self, conn, row, counts) -> None:
        try:
            conn.execute(_INSERT_SIGNAL_EVALUATION, row)
            conn.executemany(_UPSERT_NAME_STATS, counts)
        except self._store_errors as exc:
            raise TrackerWriteError("Database write failed: %s" % exc) from exc

    # -- evaluations -------------------------------------------------------------------------------

    def record_signal_evaluation(self, graph, stats, era_id, passed, universe_id, metaparameters, *,
                                 pool_id=None, rejection_reason=None, per_column_stats=None,
                                 expression_elapsed_seconds=None, is_correlation=None, is_pnl_mi=None,
                                 agent_is_pnl_mi=None, is_weights_mi=None, failure_reason=None,
                                 failure_detail=None) -> str:
        """Store one evaluated expression; returns its new ``eval_id``."""
        era = _require_int(era_id, "era_id")
        stats = stats if stats is not None else BacktestStats()
        functions, features = _graph_names(graph)
        metrics = [_finite_or_none(getattr(stats, name, None)) for name in
                   ("sharpe", "returns", "turnover", "drawdown", "delta_exposure", "max_weight",
                    "quality_score", "correlation", "abs_weight_sum_mean")]
        extra = {name: getattr(stats, name, None) for name in
                 ("liquidity_metrics", "custom_stats", "weight_quality_metrics")}
        extra["passed"] = getattr(stats, "passed", None)
        eval_id = _new_eval_id()
        created_at = time.time()
        row = (eval_id, era, None if universe_id is None else str(universe_id),
               None if pool_id is None else str(pool_id), _json(graph), _json(functions), _json(features),
               None if metaparameters is None else _json(metaparameters), 1 if passed else 0,
               rejection_reason, *metrics, _json(extra),
               None if per_column_stats is None else _json(per_column_stats),
               _finite_or_none(expression_elapsed_seconds), _finite_or_none(is_correlation),
               _finite_or_none(is_pnl_mi), _finite_or_none(agent_is_pnl_mi), _finite_or_none(is_weights_mi),
               failure_reason, failure_detail, created_at)
        counts = _name_stat_rows(pool_id, functions, features, passed, created_at)
        with self._lock:
            self._connection()
            self._flush_held_passes(PASS_HOLD_SECONDS)
            if passed:
                # A pass is written with its queue row, in one commit: a process that dies between the two
                # leaves neither, never a found signal that no queue will ever send.
                self._held_passes[eval_id] = (row, counts, time.monotonic())
                return eval_id
            self._transaction(lambda conn: self._insert_evaluation(conn, row, counts))
        return eval_id

    def get_evaluation_count(self) -> int:
        return int(self._query("SELECT COUNT(*) FROM signal_evaluations")[0][0])

    def mark_submitted(self, eval_id, eval_type="signal") -> int:
        table = "strategy_evaluations" if _require_eval_type(eval_type) == "strategy" else "signal_evaluations"
        return self._write("UPDATE %s SET submitted=1 WHERE eval_id=?" % table,
                           (_require_id(eval_id, "eval_id"),)).rowcount

    def signal_outcomes(self, pool_ids=None, since=None) -> list:
        """(function names, feature names, passed, created_at) of signal evaluations, oldest first."""
        sql = "SELECT function_names, feature_names, passed, created_at FROM signal_evaluations"
        clauses, params = [], []
        if pool_ids:
            pools = [str(p) for p in pool_ids]
            clauses.append("pool_id IN (%s)" % ", ".join("?" * len(pools)))
            params.extend(pools)
        if since is not None:
            clauses.append("created_at >= ?")
            params.append(float(since))
        if clauses:
            sql += " WHERE " + " AND ".join(clauses)
        rows = self._query(sql + " ORDER BY created_at, " + self._row_order, params)
        return [(json.loads(f), json.loads(fe), bool(p), t) for f, fe, p, t in rows]

    def signal_name_stats(self, pool_ids=None, recent_since=None) -> list:
        """Outcome counts per name: (kind, name, evaluations, passes, recent evaluations, recent passes).

        ``kind`` is 'function', 'feature' or 'total' (name ''). Recent counts are those of the hours from
        the one holding ``recent_since`` on (all zero without it). Read from the aggregates that
        ``record_signal_evaluation`` keeps current, so the cost does not grow with the store."""
        since_hour = int(float(recent_since) // _SECONDS_PER_HOUR) if recent_since is not None else 2 ** 62
        pools = [str(p) for p in pool_ids] if pool_ids else []
        where = " AND pool_id IN (%s)" % ", ".join("?" * len(pools)) if pools else ""
        sql = ("SELECT kind, name, SUM(e_all), SUM(p_all), SUM(e_recent), SUM(p_recent) FROM ("
               "SELECT kind, name, evaluation_count AS e_all, pass_count AS p_all, 0 AS e_recent, 0 AS p_recent "
               "FROM signal_name_stats WHERE hour = ?" + where + " UNION ALL "
               "SELECT kind, name, 0, 0, evaluation_count, pass_count "
               "FROM signal_name_stats WHERE hour >= ?" + where + ") AS counts "
               "GROUP BY kind, name ORDER BY kind, name")
        rows = self._query(sql, [_ALL_TIME, *pools, since_hour, *pools])
        return [(k, n, int(e or 0), int(p or 0), int(re or 0), int(rp or 0)) for k, n, e, p, re, rp in rows]

    def signal_graphs(self, era_id, *, passed=None, since=None, sharpe_at_most=None) -> list:
        """(graph_json, passed, sharpe, created_at) of the era's signal evaluations, oldest first;
        only passes or only failures with ``passed``, only those recorded at ``since`` or later, only
        those whose Sharpe is ``sharpe_at_most`` or less."""
        sql = "SELECT graph_json, passed, sharpe, created_at FROM signal_evaluations WHERE era_id = ?"
        params = [_require_int(era_id, "era_id")]
        if passed is not None:
            sql += " AND passed = ?"
            params.append(1 if passed else 0)
        if since is not None:
            sql += " AND created_at >= ?"
            params.append(float(since))
        if sharpe_at_most is not None:
            sql += " AND sharpe <= ?"
            params.append(float(sharpe_at_most))
        rows = self._query(sql + " ORDER BY created_at", params)
        return [(g, bool(p), s, t) for g, p, s, t in rows]

    def _rebuild_name_stats(self, conn) -> None:
        """Recount ``signal_name_stats`` from the evaluations (a store from before the aggregates, or
        after a deletion). Runs inside the caller's transaction."""
        totals: dict = {}
        cursor = conn.execute("SELECT pool_id, function_names, feature_names, passed, created_at "
                              "FROM signal_evaluations")
        while True:
            batch = cursor.fetchmany(10000)
            if not batch:
                break
            for pool_id, functions, features, passed, created_at in batch:
                for key in _name_stat_rows(pool_id, json.loads(functions), json.loads(features), passed,
                                           created_at):
                    counts = totals.setdefault(key[:4], [0, 0])
                    counts[0] += 1
                    counts[1] += key[5]
        conn.execute("DELETE FROM signal_name_stats")
        conn.executemany("INSERT INTO signal_name_stats (pool_id, kind, name, hour, evaluation_count, "
                         "pass_count) VALUES (?, ?, ?, ?, ?, ?)",
                         [(*key, n, p) for key, (n, p) in totals.items()])

    def _eval_tables(self, eval_type):
        if _require_eval_type(eval_type, allow_none=True) is None:
            return EVAL_TYPES
        return (eval_type,)

    def _delete_evaluations(self, eval_type, condition: str, params: tuple) -> dict:
        """Delete matching evaluations that no queued or retrying submission still refers to."""
        with self._lock:
            self._flush_held_passes()

        def body(conn):
            counts = {}
            for kind in self._eval_tables(eval_type):
                table = kind + "_evaluations"
                cur = conn.execute(
                    "DELETE FROM %s WHERE %s AND eval_id NOT IN (SELECT eval_id FROM submission_queue "
                    "UNION SELECT eval_id FROM submission_retry)" % (table, condition.format(table=table)),
                    params)
                counts[kind] = cur.rowcount
            counts["deleted"] = sum(counts.values())
            if counts.get("signal"):
                self._rebuild_name_stats(conn)
            return counts
        return self._transaction(body)

    def delete_evaluations(self, eval_type=None, keep_last=50000) -> dict:
        """Delete all but the newest ``keep_last`` evaluations of each type (or of ``eval_type``)."""
        if isinstance(keep_last, bool) or not isinstance(keep_last, int) or keep_last < 0:
            raise ValueError("keep_last must be a non-negative integer, got %r" % (keep_last,))
        return self._delete_evaluations(
            eval_type, "{key} NOT IN (SELECT {key} FROM {table} ORDER BY created_at DESC, {key} DESC "
            "LIMIT ?)".replace("{key}", self._row_order), (keep_last,))

    def delete_failed_evaluations(self, eval_type=None) -> dict:
        """Delete every evaluation that did not pass."""
        return self._delete_evaluations(eval_type, "passed=0", ())

    # -- submissions -------------------------------------------------------------------------------

    def enqueue_submission(self, eval_id, submission_type, payload_json, era_id) -> int:
        """Queue a payload for sending; returns the new ``queue_id``."""
        return self._enqueue(eval_id, submission_type, payload_json, era_id, priority=0)

    def requeue_submission(self, eval_id, submission_type, payload_json, era_id) -> int:
        """Put a payload whose send failed back in the queue, ahead of fresh ones."""
        return self._enqueue(eval_id, submission_type, payload_json, era_id, priority=1)

    def _enqueue(self, eval_id, submission_type, payload_json, era_id, priority: int) -> int:
        params = (_require_id(eval_id, "eval_id"), _require_eval_type(submission_type),
                  _require_payload_json(payload_json), _require_int(era_id, "era_id"), priority, time.time())
        sql = ("INSERT INTO submission_queue (eval_id, eval_type, payload_json, era_id, priority, created_at) "
               "VALUES (?, ?, ?, ?, ?, ?)")
        with self._lock:
            held = self._held_passes.get(params[0])
            if held is None:
                return self._write(sql, params).lastrowid

            def body(conn):
                self._insert_evaluation(conn, held[0], held[1])
                return conn.execute(sql, params).lastrowid
            queue_id = self._transaction(body)
            self._held_passes.pop(params[0], None)
            return queue_id

    def record_submission_attempt_started(self, eval_id, submission_type, idempotency_key, era_id,
                                          payload_json, pool_id=None) -> int:
        """Note that a send begins; returns how many sends this idempotency key has seen."""
        key = _require_id(idempotency_key, "idempotency_key")
        now = time.time()
        self._write(
            "INSERT INTO submission_attempts (idempotency_key, eval_id, eval_type, era_id, pool_id, "
            "payload_json, attempts, first_attempt_at, last_attempt_at) VALUES (?, ?, ?, ?, ?, ?, 1, ?, ?) "
            "ON CONFLICT(idempotency_key) DO UPDATE SET attempts=submission_attempts.attempts+1, "
            "last_attempt_at=excluded.last_attempt_at, payload_json=excluded.payload_json",
            (key, _require_id(eval_id, "eval_id"), _require_eval_type(submission_type),
             _require_int(era_id, "era_id"), pool_id, _require_payload_json(payload_json), now, now))
        return int(self._query("SELECT attempts FROM submission_attempts WHERE idempotency_key=?",
                               (key,))[0][0])

    def get_pending_submissions(self) -> list:
        rows = self._query("SELECT submission_id, eval_type, eval_id, era_id, sim_id FROM submission_status "
                           "WHERE finalized_at IS NULL ORDER BY submitted_at, status_id")
        return [PendingSubmission(*row) for row in rows]

    def update_submission_status(self, submission_id, status, *, final: bool, **fields) -> int:
        """Write the service's verdict on a submission; ``final`` also sets ``finalized_at`` once."""
        allowed = ("rejection_reason", "is_stats_json", "payment_json", "signal_pool_id", "is_correlation",
                   "is_pnl_mi", "agent_is_pnl_mi", "is_weights_mi", "failure_reason", "failure_detail")
        unknown = sorted(set(fields) - set(allowed))
        if unknown:
            raise TypeError("unknown submission_status fields: %s" % ", ".join(unknown))
        now = time.time()
        sets = ["status=?", "updated_at=?"]
        params = [str(status), now]
        for name in allowed:
            if fields.get(name) is not None:
                sets.append("%s=?" % name)
                value = fields[name]
                params.append(_finite_or_none(value) if name.startswith(("is_", "agent_")) and
                              not name.endswith("_json") else value)
        if final:
            sets.append("finalized_at=COALESCE(finalized_at, ?)")
            params.append(now)
        params.append(_require_id(submission_id, "submission_id"))
        return self._write("UPDATE submission_status SET %s WHERE submission_id=?" % ", ".join(sets),
                           params).rowcount

    # -- state and inspection ----------------------------------------------------------------------

    def set_search_active(self, flag) -> None:
        self._write("INSERT INTO tracker_state (key, value, updated_at) VALUES ('search_active', ?, ?) "
                    "ON CONFLICT(key) DO UPDATE SET value=excluded.value, updated_at=excluded.updated_at",
                    ("1" if flag else "0", time.time()))

    def is_search_active(self) -> bool:
        rows = self._query("SELECT value FROM tracker_state WHERE key='search_active'")
        return bool(rows) and rows[0][0] == "1"

    def _store_size(self) -> tuple:
        """(where the store is, its size in bytes, its journal mode or None)."""
        if self.dialect == "postgres":
            size = self._query(
                "SELECT COALESCE(SUM(pg_total_relation_size(c.oid)), 0) FROM pg_class c "
                "JOIN pg_namespace n ON n.oid = c.relnamespace WHERE n.nspname = current_schema() "
                "AND c.relkind = 'r' AND c.relname IN (%s)" % ", ".join("?" * len(STORE_TABLES + OWN_TABLES)),
                STORE_TABLES + OWN_TABLES)[0][0]
            return self._conn.url, int(size), None
        size = 0
        for suffix in ("", "-wal", "-shm"):
            try:
                size += os.path.getsize(self._db_path + suffix)
            except OSError:
                pass
        return self._db_path, size, self._query("PRAGMA journal_mode")[0][0]

    def get_db_info(self) -> dict:
        counts = {table: int(self._query("SELECT COUNT(*) FROM %s" % table)[0][0]) for table in STORE_TABLES}
        passed = int(self._query("SELECT COUNT(*) FROM signal_evaluations WHERE passed=1")[0][0])
        path, size, journal_mode = self._store_size()
        return {
            "dialect": self.dialect,
            "path": path,
            "size_bytes": size,
            "journal_mode": journal_mode,
            "tables": counts,
            "signal_evaluations_passed": passed,
            "signal_evaluations_failed": counts["signal_evaluations"] - passed,
            "pending_submissions": len(self.get_pending_submissions()),
            "search_active": self.is_search_active(),
        }

    def close(self) -> None:
        with self._lock:
            if self._conn is not None:
                self._flush_held_passes()
            conn, self._conn = self._conn, None
        if conn is not None:
            conn.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

"""The service's own store: one SQLite file in WAL mode, committed before any answer leaves.

A submission row is also the idempotency record of its key: the status code and body of the first answer
are kept with it and replayed for every repeat of the key. Bad requests and refusals store nothing.
"""
from __future__ import annotations

import json
import logging
import sqlite3
import threading
import time
from pathlib import Path

import numpy as np

logger = logging.getLogger(__name__)

DB_FILE_NAME = "signal_service.sqlite3"
MAX_BATCH = 256
PENDING_STATUS = "is_validating"

_SCHEMA = (
    """CREATE TABLE IF NOT EXISTS submissions (
        submission_id   TEXT PRIMARY KEY,
        account_id      TEXT NOT NULL,
        idempotency_key TEXT NOT NULL,
        fingerprint     TEXT NOT NULL,
        signal_pool_id  TEXT NOT NULL,
        universe_id     TEXT NOT NULL,
        body_json       TEXT NOT NULL,
        response_code   INTEGER NOT NULL,
        response_json   TEXT NOT NULL,
        received_at     REAL NOT NULL,
        review_at       REAL NOT NULL,
        status          TEXT NOT NULL,
        verdict_json    TEXT,
        oos_pnl         BLOB,
        judged_at       REAL,
        UNIQUE (account_id, idempotency_key))""",
    "CREATE INDEX IF NOT EXISTS submissions_due ON submissions (status, review_at)",
    "CREATE INDEX IF NOT EXISTS submissions_by_account ON submissions (account_id, received_at)",
)


class StoredAnswer:
    """The first answer given to an idempotency key, and what it was given for."""

    __slots__ = ("submission_id", "fingerprint", "status_code", "body")

    def __init__(self, submission_id, fingerprint, status_code, body):
        self.submission_id = submission_id
        self.fingerprint = fingerprint
        self.status_code = status_code
        self.body = body


def _connect(path: Path, durable: bool, check_same_thread: bool = True) -> sqlite3.Connection:
    conn = sqlite3.connect(str(path), timeout=30.0, isolation_level=None, check_same_thread=check_same_thread)
    conn.execute("PRAGMA journal_mode=WAL")
    # FULL syncs the log at each commit (safe against power loss); NORMAL syncs at checkpoints only, which
    # still loses nothing when the process alone dies.
    conn.execute("PRAGMA synchronous=%s" % ("FULL" if durable else "NORMAL"))
    conn.execute("PRAGMA busy_timeout=30000")
    return conn


_INSERT = ("INSERT INTO submissions (submission_id, account_id, idempotency_key, fingerprint, signal_pool_id, "
           "universe_id, body_json, response_code, response_json, received_at, review_at, status) "
           "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT (account_id, idempotency_key) DO NOTHING")
# A submission as ``_row_map`` reads it.
_SELECT_ROWS = ("SELECT submission_id, account_id, idempotency_key, signal_pool_id, universe_id, body_json, "
                "received_at, review_at, status, verdict_json, judged_at FROM submissions")
_SELECT_ANSWER = ("SELECT submission_id, fingerprint, response_code, response_json FROM submissions "
                  "WHERE account_id = ? AND idempotency_key = ?")



def _stored_answer(row) -> StoredAnswer:
    """The answer of a row of ``_SELECT_ANSWER``."""
    return StoredAnswer(row[0], row[1], int(row[2]), json.loads(row[3]))


class _SubmissionWriter:
    """The connection that inserts submissions, a batch per transaction, and the thread that copies the
    log back into the database (so that no commit waits for a checkpoint)."""

    def __init__(self, path: Path, durable: bool, checkpoint_interval: float = 0.5):
        self._lock = threading.Lock()
        self._conn = _connect(path, durable, check_same_thread=False)
        self._conn.execute("PRAGMA wal_autocheckpoint=0")
        self._checkpoint_conn = _connect(path, durable, check_same_thread=False)
        self._checkpoint_interval = checkpoint_interval
        self._stop = threading.Event()
        self._checkpointer = threading.Thread(target=self._checkpoints, name="signal_store_checkpoint", daemon=True)
        self._checkpointer.start()

    def close(self, timeout: float = 10.0) -> None:
        self._stop.set()
        self._checkpointer.join(timeout)
        with self._lock:
            self._conn.close()
        self._checkpoint_conn.close()

    def _checkpoints(self) -> None:
        while not self._stop.wait(self._checkpoint_interval):
            try:
                self._checkpoint_conn.execute("PRAGMA wal_checkpoint(PASSIVE)")
            except sqlite3.Error as exc:  # busy or locked: the next round copies what this one could not
                logger.debug("checkpoint skipped: %s", exc)

    def commit(self, rows: list) -> list:
        """Insert ``rows`` in one transaction; for each, None if stored, else the answer already stored for
        its key (then that row is not written)."""
        with self._lock:
            conn = self._conn
            try:
                conn.execute("BEGIN IMMEDIATE")
                answers = []
                for row in rows:
                    if conn.execute(_INSERT, row).rowcount == 1:
                        answers.append(None)
                    else:
                        answers.append(_stored_answer(conn.execute(_SELECT_ANSWER, (row[1], row[2])).fetchone()))
                conn.execute("COMMIT")
            except BaseException:
                try:
                    conn.execute("ROLLBACK")
                except sqlite3.Error as rollback_error:
                    logger.warning("rollback after a failed insert failed: %s", rollback_error)
                raise
            return answers


class ServiceStore:
    """Thread-safe access to the service's SQLite file. Reads and verdicts go through one connection under a
    lock; new submissions through the writer's, in batches."""

    def __init__(self, data_dir, *, durable: bool = True):
        self.path = Path(data_dir) / DB_FILE_NAME
        self._lock = threading.Lock()
        self._conn = _connect(self.path, durable, check_same_thread=False)
        with self._lock:
            for statement in _SCHEMA:
                self._conn.execute(statement)
        self._writer = _SubmissionWriter(self.path, durable)

    def close(self) -> None:
        self._writer.close()
        with self._lock:
            self._conn.close()

    # ----- submissions --------------------------------------------------------------------------------
    def answer_for_key(self, account_id: str, key: str) -> StoredAnswer | None:
        with self._lock:
            row = self._conn.execute(_SELECT_ANSWER, (account_id, key)).fetchone()
        return None if row is None else _stored_answer(row)

    @staticmethod
    def submission_row(*, submission_id, account_id, key, fingerprint, body: dict, status_code: int, answer: dict,
                       received_at: float, review_at: float) -> tuple:
        """The row of a new submission and the answer it is stored with, for ``commit_submissions``."""
        row = (submission_id, account_id, key, fingerprint, body["signal_pool_id"], body["universe_id"],
               json.dumps(body, sort_keys=True, allow_nan=False), status_code, json.dumps(answer, sort_keys=True),
               received_at, review_at, PENDING_STATUS)
        return row, StoredAnswer(submission_id, fingerprint, status_code, answer)

    def commit_submissions(self, rows: list) -> list:
        """Store new submissions in one committed transaction. For each row, the answer stored for its key
        once committed: None for its own, or the earlier answer if the key was stored before (then that row
        is not written)."""
        return self._writer.commit(rows)

    def submission(self, submission_id: str, account_id: str | None = None) -> dict | None:
        sql = _SELECT_ROWS + " WHERE submission_id = ?"
        args: tuple = (submission_id,)
        if account_id is not None:
            sql += " AND account_id = ?"
            args += (account_id,)
        with self._lock:
            row = self._conn.execute(sql, args).fetchone()
        return None if row is None else _row_map(row)

    def submissions(self, account_id: str, *, status: str | None = None, limit: int = 100) -> list:
        sql = _SELECT_ROWS + " WHERE account_id = ?"
        args: tuple = (account_id,)
        if status is not None:
            sql += " AND status = ?"
            args += (status,)
        sql += " ORDER BY received_at DESC, submission_id LIMIT ?"
        with self._lock:
            rows = self._conn.execute(sql, args + (int(limit),)).fetchall()
        return [_row_map(r) for r in rows]

    def status_counts(self, account_id: str) -> dict:
        with self._lock:
            rows = self._conn.execute("SELECT status, COUNT(*) FROM submissions WHERE account_id = ? GROUP BY 1",
                                      (account_id,)).fetchall()
        return {status: int(n) for status, n in rows}

    def received_since(self, since: float) -> dict:
        """account id -> receipt times after ``since``, oldest first (to rebuild the quota windows)."""
        with self._lock:
            rows = self._conn.execute("SELECT account_id, received_at FROM submissions WHERE received_at > ? "
                                      "ORDER BY received_at", (since,)).fetchall()
        out: dict = {}
        for account_id, at in rows:
            out.setdefault(account_id, []).append(float(at))
        return out

    # ----- review -------------------------------------------------------------------------------------
    def due_for_review(self, now: float, limit: int = 32) -> list:
        with self._lock:
            rows = self._conn.execute(
                _SELECT_ROWS + " WHERE status = ? AND review_at <= ? ORDER BY review_at, received_at LIMIT ?",
                (PENDING_STATUS, now, int(limit))).fetchall()
        return [_row_map(r) for r in rows]

    def next_review_at(self) -> float | None:
        with self._lock:
            row = self._conn.execute("SELECT MIN(review_at) FROM submissions WHERE status = ?",
                                     (PENDING_STATUS,)).fetchone()
        return None if row is None or row[0] is None else float(row[0])

    def record_verdict(self, submission_id: str, status: str, verdict: dict, oos_pnl=None) -> None:
        blob = None if oos_pnl is None else np.asarray(oos_pnl, dtype="<f8").tobytes()
        with self._lock:
            cur = self._conn.execute(
                "UPDATE submissions SET status = ?, verdict_json = ?, oos_pnl = ?, judged_at = ? "
                "WHERE submission_id = ? AND status = ?",
                (status, json.dumps(verdict, sort_keys=True, allow_nan=False), blob, time.time(), submission_id,
                 PENDING_STATUS))
            if cur.rowcount != 1:
                raise RuntimeError(f"submission {submission_id!r} is not awaiting a verdict")

    def found_signals(self, accepted_statuses) -> list:
        """(submission_id, signal_pool_id, body, out-of-sample pnl) of every accepted signal, oldest first."""
        marks = ",".join("?" * len(accepted_statuses))
        with self._lock:
            rows = self._conn.execute(
                f"SELECT submission_id, signal_pool_id, body_json, oos_pnl FROM submissions "
                f"WHERE status IN ({marks}) ORDER BY judged_at, submission_id", tuple(accepted_statuses)).fetchall()
        return [(sid, pool, json.loads(body), None if blob is None else np.frombuffer(blob, dtype="<f8").copy())
                for sid, pool, body, blob in rows]


def _row_map(row) -> dict:
    keys = ("submission_id", "account_id", "idempotency_key", "signal_pool_id", "universe_id", "body",
            "received_at", "review_at", "status", "verdict", "judged_at")
    out = dict(zip(keys, row))
    out["body"] = json.loads(out["body"])
    out["verdict"] = json.loads(out["verdict"]) if out["verdict"] else None
    return out

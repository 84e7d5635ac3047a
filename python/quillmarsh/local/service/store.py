"""The service's own store: one SQLite file in WAL mode, committed before any answer leaves.

A submission row is also the idempotency record of its key: the status code and body of the first answer
are kept with it and replayed for every repeat of the key. Bad requests and refusals store nothing.
"""
from __future__ import annotations

import json
import sqlite3
import threading
import time
from pathlib import Path

import numpy as np

DB_FILE_NAME = "signal_service.sqlite3"
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


class ServiceStore:
    """Thread-safe access to the service's SQLite file; every write is its own committed transaction."""

    def __init__(self, data_dir, *, durable: bool = True):
        self.path = Path(data_dir) / DB_FILE_NAME
        self._lock = threading.Lock()
        self._conn = sqlite3.connect(str(self.path), timeout=30.0, isolation_level=None, check_same_thread=False)
        self._conn.execute("PRAGMA journal_mode=WAL")
        # FULL syncs the log at each commit (safe against power loss); NORMAL syncs at checkpoints only, which
        # still loses nothing when the process alone dies.
        self._conn.execute("PRAGMA synchronous=%s" % ("FULL" if durable else "NORMAL"))
        self._conn.execute("PRAGMA busy_timeout=30000")
        with self._lock:
            for statement in _SCHEMA:
                self._conn.execute(statement)

    def close(self) -> None:
        with self._lock:
            self._conn.close()

    # ----- submissions --------------------------------------------------------------------------------
    def answer_for_key(self, account_id: str, key: str) -> StoredAnswer | None:
        with self._lock:
            row = self._conn.execute(
                "SELECT submission_id, fingerprint, response_code, response_json FROM submissions "
                "WHERE account_id = ? AND idempotency_key = ?", (account_id, key)).fetchone()
        if row is None:
            return None
        return StoredAnswer(row[0], row[1], int(row[2]), json.loads(row[3]))

    def insert_submission(self, *, submission_id, account_id, key, fingerprint, body: dict, status_code: int,
                          answer: dict, received_at: float, review_at: float) -> StoredAnswer:
        """Store a new submission with its answer. If the key was stored meanwhile, the stored answer is
        returned instead and nothing is written."""
        with self._lock:
            try:
                self._conn.execute(
                    "INSERT INTO submissions (submission_id, account_id, idempotency_key, fingerprint, "
                    "signal_pool_id, universe_id, body_json, response_code, response_json, received_at, "
                    "review_at, status) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
                    (submission_id, account_id, key, fingerprint, body["signal_pool_id"], body["universe_id"],
                     json.dumps(body, sort_keys=True, allow_nan=False), status_code,
                     json.dumps(answer, sort_keys=True), received_at, review_at, PENDING_STATUS))
            except sqlite3.IntegrityError:
                existing = None
            else:
                return StoredAnswer(submission_id, fingerprint, status_code, answer)
        existing = self.answer_for_key(account_id, key)
        if existing is None:  # the id itself collided: not a repeat of the key
            raise RuntimeError(f"submission id {submission_id!r} is already taken")
        return existing

    def submission(self, submission_id: str, account_id: str | None = None) -> dict | None:
        sql = ("SELECT submission_id, account_id, idempotency_key, signal_pool_id, universe_id, body_json, "
               "received_at, review_at, status, verdict_json, judged_at FROM submissions WHERE submission_id = ?")
        args: tuple = (submission_id,)
        if account_id is not None:
            sql += " AND account_id = ?"
            args += (account_id,)
        with self._lock:
            row = self._conn.execute(sql, args).fetchone()
        return None if row is None else _row_map(row)

    def submissions(self, account_id: str, *, status: str | None = None, limit: int = 100) -> list:
        sql = ("SELECT submission_id, account_id, idempotency_key, signal_pool_id, universe_id, body_json, "
               "received_at, review_at, status, verdict_json, judged_at FROM submissions WHERE account_id = ?")
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
                "SELECT submission_id, account_id, idempotency_key, signal_pool_id, universe_id, body_json, "
                "received_at, review_at, status, verdict_json, judged_at FROM submissions "
                "WHERE status = ? AND review_at <= ? ORDER BY review_at, received_at LIMIT ?",
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

"""The service's working parts, apart from HTTP: accounts, the contract, idempotency, quotas, the store and
the reviewer.

Idempotency works as payment APIs do it. A key belongs to an account. The first answer given to it is stored
with the submission, in the same committed transaction, and every repeat gets that answer again (same status
code, same ``submission_id``). A repeat with another body is refused with 422; a repeat that arrives while
the first is still being handled gets 409. A body without a key gets the key the client would derive from it.
"""
from __future__ import annotations

import asyncio
import collections
import concurrent.futures
import json
import logging
import os
import threading
import time
import uuid
from pathlib import Path

from quillmarsh.auth import AuthManager, load_private_key, save_private_key
from quillmarsh.local.era import LocalEraConfig, local_era_map
from quillmarsh.local.evaluator import LocalEvaluator
from quillmarsh.local.market import load_market
from quillmarsh.sync import ERA_CONFIG_FILE_NAME

from . import contract as _contract
from .app import ServiceError, create_app
from .config import ServiceConfig
from .feed import publish_found_signals, read_found_signals
from .judge import ACCEPTED_STATUSES, OutOfSampleJudge, Reviewer
from .store import MAX_BATCH, PENDING_STATUS, ServiceStore

logger = logging.getLogger(__name__)

PRIVATE_KEY_FILE_NAME = "private_key"
QUOTA_WINDOW_SECONDS = 3600.0
ACCEPTED_CODE = 202


def account_auth(data_dir) -> AuthManager:
    """The local account of the data directory, created if it has none yet (as ``register()`` would)."""
    import secrets

    key_path = Path(data_dir) / PRIVATE_KEY_FILE_NAME
    if not key_path.exists():
        try:
            save_private_key(str(key_path), secrets.token_bytes(32))
        except FileExistsError:  # created by the platform at the same moment
            pass
    return AuthManager(load_private_key(str(key_path)))


def _era_map(data_dir: Path, era_id: int) -> dict:
    """The era of the data directory's file when there is one, else the local platform's default."""
    try:
        era = json.loads((data_dir / ERA_CONFIG_FILE_NAME).read_text(encoding="utf-8"))
        if isinstance(era, dict) and era.get("signal_pools"):
            return era
    except (OSError, ValueError):
        pass
    return local_era_map(era_id=era_id)


class SignalService:
    """One service over one data directory. ``start()`` starts the reviewer; ``app`` is the ASGI
    application; ``close()`` stops the reviewer and closes the store."""

    def __init__(self, data_dir, config: ServiceConfig | None = None):
        self.config = config or ServiceConfig()
        self.data_dir = Path(os.path.expanduser(os.fspath(data_dir))).resolve()
        self.data_dir.mkdir(parents=True, exist_ok=True)
        self.auth = account_auth(self.data_dir)
        cfg = self.config
        market = load_market(self.data_dir, cfg.n_instruments, cfg.n_days, cfg.seed)
        era = _era_map(self.data_dir, cfg.era_id)
        self.evaluator = LocalEvaluator(market, seed=cfg.seed, era=LocalEraConfig(json.loads(json.dumps(era))))
        pool_ids = [p.get("signal_pool_id") for p in era.get("signal_pools") or () if isinstance(p, dict)]
        universe = era.get("valid_universe_id") or era.get("universe_id")
        self.contract = _contract.SubmissionContract(universe, pool_ids, self.evaluator.vocabulary.feature_to_canonical,
                                                     max_node_count=era.get("max_node_count"))
        self.store = ServiceStore(self.data_dir, durable=cfg.durable_commits)
        self.judge = OutOfSampleJudge(self.evaluator, era, cfg)
        self._found_entries = []
        for sid, pool, body, oos in self.store.found_signals(ACCEPTED_STATUSES):
            if oos is not None:
                self.judge.add_found(sid, pool, oos)
            self._found_entries.append({"signal_id": sid, "signal_pool_id": pool, "graph": body["graph"],
                                        "metaparameters": body.get("metaparameters")})
        if len(read_found_signals(self.data_dir)) != len(self._found_entries):
            publish_found_signals(self.data_dir, self._found_entries)
        self.reviewer = Reviewer(self.store, self.judge, on_found=self._publish_found)
        self._lock = threading.Lock()
        self._in_flight: dict = {}            # (account, key) -> fingerprint of the request being handled
        self._in_flight_per_account = collections.Counter()
        now = time.time()
        self._windows = {acc: collections.deque(times)
                         for acc, times in self.store.received_since(now - QUOTA_WINDOW_SECONDS).items()}
        self._app = None
        self._batcher = CommitBatcher(self.store)

    # ----- life -----------------------------------------------------------------------------------------
    @property
    def app(self):
        if self._app is None:
            self._app = create_app(self)
        return self._app

    def start(self) -> "SignalService":
        self.reviewer.start()
        return self

    def close(self) -> None:
        self.reviewer.stop()
        self._batcher.close()
        self.store.close()

    # ----- accounts -------------------------------------------------------------------------------------
    def authenticate(self, header: str | None) -> str:
        """The account of a bearer token issued by the local account and still fresh; 401 otherwise."""
        challenge = {"WWW-Authenticate": "Bearer"}
        if not header or not header.startswith("Bearer ") or not header[7:].strip():
            raise ServiceError(401, "missing bearer token", challenge)
        token = header[7:].strip()
        if self.auth.verify_token(token, self.config.token_ttl_seconds):
            return self.auth.account_id
        if self.auth.verify_token(token, float("inf")):
            raise ServiceError(401, "token has expired", challenge)
        raise ServiceError(401, "invalid token", challenge)

    # ----- submissions ----------------------------------------------------------------------------------
    async def submit(self, account: str, raw: bytes, header_key: str | None):
        """(status code, body, replayed) for one POST."""
        body = _contract.parse_body(raw)
        key = _contract.idempotency_key(body, header_key)
        self.contract.check(body)
        fp = _contract.fingerprint(body)
        stored = self.store.answer_for_key(account, key)
        if stored is not None:
            return self._replay(stored, fp)
        slot = (account, key)
        now = time.time()
        with self._lock:
            if slot in self._in_flight:
                if self._in_flight[slot] != fp:
                    raise ServiceError(422, "idempotency key was already used with a different request body")
                raise ServiceError(409, "a request with this idempotency key is still being processed")
            self._check_quota(account, now)
            self._in_flight[slot] = fp
            self._in_flight_per_account[account] += 1
        try:
            await self.pause()
            body["idempotency_key"] = key
            submission_id = "sig-" + uuid.uuid4().hex
            received_at = time.time()
            answer = {"submission_id": submission_id, "status": PENDING_STATUS, "idempotency_key": key,
                      "signal_pool_id": body["signal_pool_id"], "received_at": received_at}
            row, mine = self.store.submission_row(
                submission_id=submission_id, account_id=account, key=key, fingerprint=fp, body=body,
                status_code=ACCEPTED_CODE, answer=answer, received_at=received_at,
                review_at=received_at + self.config.review_delay_seconds)
            stored = await self._batcher.insert(row) or mine
            if stored.submission_id != submission_id:  # stored by another process on the same file
                return self._replay(stored, fp)
            with self._lock:
                self._windows.setdefault(account, collections.deque()).append(received_at)
        finally:
            with self._lock:
                self._in_flight.pop(slot, None)
                self._in_flight_per_account[account] -= 1
        if self.config.review_delay_seconds <= 0:
            self.reviewer.wake()
        return stored.status_code, stored.body, False

    @staticmethod
    def _replay(stored, fp: str):
        if stored.fingerprint != fp:
            raise ServiceError(422, "idempotency key was already used with a different request body",
                               submission_id=stored.submission_id)
        return stored.status_code, stored.body, True

    def _check_quota(self, account: str, now: float) -> None:
        window = self._windows.setdefault(account, collections.deque())
        while window and window[0] <= now - QUOTA_WINDOW_SECONDS:
            window.popleft()
        limit = self.config.quota_per_hour
        if len(window) + self._in_flight_per_account[account] >= limit:
            oldest = window[0] if window else now
            ban_expiry = oldest + QUOTA_WINDOW_SECONDS
            raise ServiceError(403, f"quota of {limit} submissions per hour used up; try again after ban_expiry",
                               ban_expiry=ban_expiry)

    async def pause(self) -> None:
        """The added latency of the fault settings, inside the handling of a request."""
        latency = self.config.faults.latency_seconds
        if latency > 0:
            await asyncio.sleep(latency)

    # ----- status ---------------------------------------------------------------------------------------
    def status_body(self, account: str, submission_id: str) -> dict:
        row = self.store.submission(submission_id, account)
        if row is None:
            raise ServiceError(404, f"no submission {submission_id!r}")
        return _status_body(row)

    def list_body(self, account: str, status: str | None, limit: int) -> dict:
        rows = self.store.submissions(account, status=status, limit=limit)
        return {"submissions": [dict(_status_body(r), graph=r["body"]["graph"]) for r in rows],
                "counts": self.store.status_counts(account)}

    def waiting_count(self) -> int:
        return self.store.status_counts(self.auth.account_id).get(PENDING_STATUS, 0)

    # ----- found signals --------------------------------------------------------------------------------
    def _publish_found(self, submission_id: str, pool_id: str, body: dict) -> None:
        self._found_entries.append({"signal_id": submission_id, "signal_pool_id": pool_id, "graph": body["graph"],
                                    "metaparameters": body.get("metaparameters")})
        publish_found_signals(self.data_dir, self._found_entries)


class CommitBatcher:
    """Gathers the submissions of concurrent requests into shared commits, run on one thread off the event
    loop: while one commit is under way, the rows that arrive wait for the next, which takes them all."""

    def __init__(self, store: ServiceStore, max_batch: int = MAX_BATCH):
        self.store = store
        self.max_batch = max_batch
        self._pending: list = []
        self._task = None
        self._executor = concurrent.futures.ThreadPoolExecutor(1, thread_name_prefix="signal_store_commit")

    async def insert(self, row: tuple):
        """The answer stored before for the row's key, or None once the row itself is committed."""
        loop = asyncio.get_running_loop()
        future = loop.create_future()
        self._pending.append((row, future))
        if self._task is None or self._task.done():
            self._task = loop.create_task(self._flush())
        return await future

    async def _flush(self) -> None:
        loop = asyncio.get_running_loop()
        while self._pending:
            batch, self._pending = self._pending[: self.max_batch], self._pending[self.max_batch:]
            try:
                answers = await loop.run_in_executor(self._executor, self.store.commit_submissions,
                                                     [row for row, _ in batch])
            except Exception as exc:
                for _, future in batch:
                    if not future.done():
                        future.set_exception(exc)
                continue
            for (_, future), answer in zip(batch, answers):
                if not future.done():  # a request given up meanwhile; its row is stored all the same
                    future.set_result(answer)

    def close(self) -> None:
        self._executor.shutdown(wait=True)


def _status_body(row: dict) -> dict:
    verdict = row.get("verdict") or {}
    return {
        "submission_id": row["submission_id"], "status": row["status"], "signal_pool_id": row["signal_pool_id"],
        "idempotency_key": row["idempotency_key"], "received_at": row["received_at"], "judged_at": row["judged_at"],
        "is_stats": verdict.get("is_stats") or {}, "is_correlation": verdict.get("is_correlation"),
        "is_pnl_mi": verdict.get("is_pnl_mi"), "payment": verdict.get("payment"),
        "rejection_reason": verdict.get("rejection_reason"), "failure_reason": verdict.get("failure_reason"),
        "failure_detail": verdict.get("failure_detail"),
        "in_sample_sharpe": (row["body"].get("is_stats") or {}).get("sharpe"),
    }

"""The verdict on a submission, out of sample, and the reviewer thread that hands it out.

A submission waits "is_validating" for the review delay. Then its graph is evaluated on the market and its
book is run over the days that the search's evaluator never sees (those after its in-sample share). The
out-of-sample statistics are the in-sample set's ten metrics and ``abs_weight_sum_mean``; the correlation is
the greatest absolute correlation of its out-of-sample gross pnl with the signals already found in its pool;
``is_pnl_mi`` is the information of its pnl that those signals do not explain.

Statuses: "found" (accepted, paid), "not_useful" (good alone but a near-copy of a found signal:
"correlation_exceeded"), "is_rejected" (below the out-of-sample thresholds, or the expression cannot be
computed).
"""
from __future__ import annotations

import logging
import math
import threading
import time

import numpy as np

from quillmarsh.local.evaluator import column_metrics, pnl_information

from .config import ServiceConfig

logger = logging.getLogger(__name__)

FOUND = "found"
NOT_USEFUL = "not_useful"
REJECTED = "is_rejected"
ACCEPTED_STATUSES = (FOUND, "useful")
PNL_COLUMNS = ("gross_returns", "net_returns")
PAYMENT_PER_SHARPE = 10.0
PAYMENT_CURRENCY = "QMC"


class Verdict:
    __slots__ = ("status", "body", "oos_pnl")

    def __init__(self, status: str, body: dict, oos_pnl=None):
        self.status, self.body, self.oos_pnl = status, body, oos_pnl


class OutOfSampleJudge:
    """Judges signals on the held-out days of one market. Not thread-safe: the reviewer thread owns it."""

    def __init__(self, evaluator, era_map: dict, config: ServiceConfig):
        self.evaluator = evaluator
        self.config = config
        self.universe_id = era_map.get("universe_id")
        self.pool_columns = {p["signal_pool_id"]: p.get("mi_pnl_column", PNL_COLUMNS[0])
                             for p in era_map.get("signal_pools") or ()}
        cols = era_map.get("evaluation_pnl_columns") or PNL_COLUMNS
        self.primary = cols[0] if cols and cols[0] in PNL_COLUMNS else PNL_COLUMNS[0]
        self.first_day = evaluator.in_sample_days
        self._found: dict = {p: [] for p in self.pool_columns}  # pool -> [(id, {column: oos pnl})]

    def add_found(self, submission_id: str, pool_id: str, oos_pnl) -> None:
        """Enter an accepted signal (its stacked out-of-sample gross and net pnl) in its pool."""
        series = np.asarray(oos_pnl, dtype=float).reshape(len(PNL_COLUMNS), -1)
        self._found.setdefault(pool_id, []).append((submission_id, dict(zip(PNL_COLUMNS, series))))

    def judge(self, body: dict) -> Verdict:
        pool_id = body["signal_pool_id"]
        try:
            signal = self.evaluator.evaluate_expression(body["graph"], universe_id=body.get("universe_id"))
            s = self.evaluator.pnl_series(signal, body.get("metaparameters"))
        except (ValueError, TypeError, KeyError) as exc:
            return Verdict(REJECTED, {"rejection_reason": "invalid_expression", "failure_reason": "invalid_expression",
                                      "failure_detail": str(exc)[:500], "is_stats": {}})
        lo, hi = self.first_day, s["gross_returns"].size - 1  # the last day has no next-day return
        if hi - lo < 2:
            raise RuntimeError("the market holds no out-of-sample days to judge on")
        traded = s["traded"][lo:hi]
        abs_sum = s["abs_sum"][lo:hi]
        series = {c: np.ascontiguousarray(s[c][lo:hi], dtype=float) for c in PNL_COLUMNS}
        if not bool((abs_sum > 0).any()):
            return Verdict(REJECTED, {"rejection_reason": "empty_book", "failure_reason": "empty_book",
                                      "failure_detail": "the signal never formed a book out of sample",
                                      "is_stats": {}})
        metrics = column_metrics(series[self.primary], traded)
        days = abs_sum.size
        stats = {
            "sharpe": metrics["sharpe"], "fitness": metrics["fitness"], "returns": metrics["returns"],
            "drawdown": metrics["drawdown"], "turnover": metrics["turnover"], "margin": metrics["margin"],
            "long_count": float(s["longs"][lo:hi].sum()) / days, "short_count": float(s["shorts"][lo:hi].sum()) / days,
            "delta_exposure": float(np.abs(s["net"][lo:hi]).sum()) / days,
            "max_weight": float(s["max_share"][lo:hi].max()), "abs_weight_sum_mean": float(abs_sum.sum()) / days,
            "days": float(days),
        }
        for col in PNL_COLUMNS:
            if col != self.primary:
                stats[f"{col}_sharpe"] = column_metrics(series[col], traded)["sharpe"]
        stats = {k: (float(v) if math.isfinite(v) else 0.0) for k, v in stats.items()}
        found = self._found.get(pool_id, [])
        correlation = 0.0
        gross = series["gross_returns"]
        if gross.std() > 0:
            for _sid, other in found:
                o = other["gross_returns"]
                if o.size == gross.size and o.std() > 0:
                    correlation = max(correlation, abs(float(np.corrcoef(gross, o)[0, 1])))
        mi_col = self.pool_columns.get(pool_id, PNL_COLUMNS[0])
        is_pnl_mi = pnl_information(series[mi_col], [other[mi_col] for _sid, other in found
                                                     if other[mi_col].size == gross.size])
        verdict = {"is_stats": stats, "is_correlation": correlation, "is_pnl_mi": float(is_pnl_mi),
                   "signal_pool_id": pool_id, "in_sample_sharpe": _float_or_none(body["is_stats"].get("sharpe"))}
        oos_pnl = np.vstack([series[c] for c in PNL_COLUMNS])
        cfg = self.config
        if correlation > cfg.correlation_max:
            verdict["rejection_reason"] = "correlation_exceeded"
            return Verdict(NOT_USEFUL, verdict, oos_pnl)
        if stats["sharpe"] < cfg.oos_sharpe_min:
            verdict["rejection_reason"] = "oos_sharpe_below_min"
            return Verdict(REJECTED, verdict, oos_pnl)
        if stats["fitness"] < cfg.oos_fitness_min:
            verdict["rejection_reason"] = "oos_fitness_below_min"
            return Verdict(REJECTED, verdict, oos_pnl)
        # Paid for what it adds: Sharpe out of sample, less the share the pool already explains.
        amount = PAYMENT_PER_SHARPE * max(0.0, stats["sharpe"]) * (1.0 - correlation)
        verdict["payment"] = {"amount": round(amount, 2), "currency": PAYMENT_CURRENCY}
        return Verdict(FOUND, verdict, oos_pnl)


def _float_or_none(value):
    return float(value) if isinstance(value, (int, float)) and not isinstance(value, bool) else None


class Reviewer:
    """The thread that judges each submission once its review delay has passed, oldest first, and records
    the verdict. An accepted signal joins its pool before the next one is judged; ``on_found`` is then told
    (the found-signal feed of the data directory)."""

    def __init__(self, store, judge: OutOfSampleJudge, on_found=None, batch: int = 32):
        self.store, self.judge, self.on_found, self.batch = store, judge, on_found, batch
        self._wakeup = threading.Event()
        self._stop = threading.Event()
        self._thread: threading.Thread | None = None
        self.errors = 0

    def start(self) -> None:
        self._thread = threading.Thread(target=self._run, name="signal_reviewer", daemon=True)
        self._thread.start()

    def wake(self) -> None:
        self._wakeup.set()

    def stop(self, timeout: float = 10.0) -> None:
        self._stop.set()
        self._wakeup.set()
        if self._thread is not None:
            self._thread.join(timeout)

    def review_due(self) -> int:
        """Judge every submission that is due now; returns how many were judged."""
        judged = 0
        while not self._stop.is_set():
            rows = self.store.due_for_review(time.time(), self.batch)
            if not rows:
                break
            for row in rows:
                if self._stop.is_set():
                    break
                try:
                    verdict = self.judge.judge(row["body"])
                except Exception as exc:  # one bad submission must not hold up the others
                    logger.exception("judging submission %s failed", row["submission_id"])
                    verdict = Verdict(REJECTED, {"rejection_reason": "review_failed", "failure_reason": "review_failed",
                                                 "failure_detail": f"{type(exc).__name__}: {exc}"[:500],
                                                 "is_stats": {}})
                self.store.record_verdict(row["submission_id"], verdict.status, verdict.body, verdict.oos_pnl)
                judged += 1
                if verdict.status in ACCEPTED_STATUSES:
                    self.judge.add_found(row["submission_id"], row["signal_pool_id"], verdict.oos_pnl)
                    if self.on_found is not None:
                        try:
                            self.on_found(row["submission_id"], row["signal_pool_id"], row["body"])
                        except Exception:  # the verdict stands; the feed is rewritten on the next find
                            logger.exception("publishing found signal %s failed", row["submission_id"])
        return judged

    def _run(self) -> None:
        while not self._stop.is_set():
            self._wakeup.clear()
            try:
                self.review_due()
                nxt = self.store.next_review_at()
                wait = 1.0 if nxt is None else min(1.0, max(0.0, nxt - time.time()))
            except Exception:
                self.errors += 1
                logger.exception("signal review failed; trying again")
                wait = 1.0
            if wait > 0:
                self._wakeup.wait(wait)


__all__ = ["ACCEPTED_STATUSES", "FOUND", "NOT_USEFUL", "REJECTED", "OutOfSampleJudge", "Reviewer", "Verdict"]

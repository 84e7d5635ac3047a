"""Writes the service's verdict on a submission into the store and tells the user."""

from __future__ import annotations

import logging

__all__ = ["ACCEPTED_STATUSES", "REJECTED_STATUSES", "TERMINAL_STATUSES", "notify_submission_status"]

logger = logging.getLogger(__name__)

ACCEPTED_STATUSES = frozenset(("found", "useful"))
REJECTED_STATUSES = frozenset(("is_rejected", "not_useful", "os_failed", "useful_transition_failed"))
TERMINAL_STATUSES = ACCEPTED_STATUSES | REJECTED_STATUSES


def notify_submission_status(submission_id, status, *, tracker=None, data_dir=None, is_stats_json=None,
                             payment_json=None, payment=None, rejection_reason=None, signal_pool_id=None,
                             is_correlation=None, is_pnl_mi=None, agent_is_pnl_mi=None, is_weights_mi=None,
                             failure_reason=None, failure_detail=None, require_tracker=True) -> bool:
    """Record ``status`` for ``submission_id``; a terminal status also sets ``finalized_at``.

    Without a tracker, one is opened on ``data_dir`` for the write. With ``require_tracker``, a write that
    cannot be made (no store, no such submission, a store error) raises; without it, it is logged and
    False is returned. An event "submission_status" goes to ``data_dir`` (or the tracker's) either way.
    """
    if not isinstance(submission_id, str) or not submission_id:
        raise ValueError("submission_id must be a non-empty string")
    if not isinstance(status, str) or not status:
        raise ValueError("status must be a non-empty string")
    fields = dict(is_stats_json=is_stats_json, payment_json=payment_json, rejection_reason=rejection_reason,
                  signal_pool_id=signal_pool_id, is_correlation=is_correlation, is_pnl_mi=is_pnl_mi,
                  agent_is_pnl_mi=agent_is_pnl_mi, is_weights_mi=is_weights_mi,
                  failure_reason=failure_reason, failure_detail=failure_detail)
    final = status in TERMINAL_STATUSES
    written = False
    try:
        written = _write(tracker, data_dir, submission_id, status, final, fields)
    except Exception as exc:
        if require_tracker:
            raise
        logger.warning("submission status %s for %s not recorded: %s", status, submission_id, exc)
    event_dir = data_dir or getattr(tracker, "_data_dir", None)
    severity = "warning" if status in REJECTED_STATUSES else "info"
    try:
        from quillmarsh.callbacks import emit_event
        emit_event(data_dir=event_dir, event_type="submission_status", severity=severity,
                   payload={"submission_id": submission_id, "status": status, "final": final,
                            "rejection_reason": rejection_reason, "payment": payment})
    except Exception as exc:  # the verdict is stored; a failed notice does not undo it
        logger.warning("submission status event failed: %s", exc)
    return written


def _write(tracker, data_dir, submission_id, status, final, fields) -> bool:
    own = None
    if tracker is None:
        if not data_dir:
            raise RuntimeError("notify_submission_status needs a tracker or a data_dir")
        from quillmarsh.search_tracking import SearchTracker
        tracker = own = SearchTracker(data_dir)
    try:
        update = getattr(tracker, "update_submission_status", None)
        if not callable(update):
            raise TypeError("tracker cannot record submission statuses")
        rows = update(submission_id, status, final=final, **fields)
        if not rows:
            raise LookupError("no submission_status row for submission_id %r" % submission_id)
        return True
    finally:
        if own is not None:
            own.close()

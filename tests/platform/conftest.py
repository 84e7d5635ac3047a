"""A data directory whose store was filled by a short real search on a small local market, then given the
verdicts a signal service would write: the views of the signals are tested on that. And the onboarding state,
put back as it was after a test (or a fixture) that sets up a local platform."""
from __future__ import annotations

import contextlib
import json
import sqlite3
import time

import pytest

SEARCH_SECONDS = 90.0   # the most a short search may take to find its signals
WANTED_PASSES = 6      # four get an answer or a retry below; the rest stay queued


@contextlib.contextmanager
def onboarding_restored():
    from quillmarsh import agent_onboarding

    config = dict(agent_onboarding._config)
    try:
        yield
    finally:
        agent_onboarding.logout()
        agent_onboarding._config.clear()
        agent_onboarding._config.update(config)
        agent_onboarding.set_evaluator_factory(None)


@pytest.fixture
def restore_onboarding():
    with onboarding_restored():
        yield


@pytest.fixture(scope="session")
def searched_dir(tmp_path_factory):
    """(data_dir, eval ids of the verdicts): a search ran here until it had passed a few signals; three of
    them then got a service answer ("found", "is_rejected", "is_validating") and one waits for a retry."""
    from quillmarsh.local import platform
    from quillmarsh.search_tracking import SearchTracker
    from quillmarsh.submission_status_notify import notify_submission_status

    data_dir = tmp_path_factory.mktemp("searched")
    with onboarding_restored():
        platform.setup(data_dir, n_instruments=60, n_days=300)
        import quillmarsh.search_templates as st

        handle = st.search(st.random_weighted, n_jobs=1)
        db = sqlite3.connect(data_dir / "search_tracking.db")
        try:
            deadline = time.monotonic() + SEARCH_SECONDS
            while time.monotonic() < deadline:
                passed = db.execute("SELECT COUNT(DISTINCT graph_json) FROM signal_evaluations "
                                    "WHERE passed = 1").fetchone()[0]
                if passed >= WANTED_PASSES:
                    break
                time.sleep(0.2)
        finally:
            handle.stop()
        ids = [r[0] for r in db.execute(
            "SELECT MIN(eval_id) FROM signal_evaluations WHERE passed = 1 GROUP BY graph_json "
            "ORDER BY MAX(sharpe) DESC")]
        db.close()
        assert len(ids) >= WANTED_PASSES, "the short search found too few signals to test the views on"

    verdicts = {ids[0]: ("found", {"sharpe": 1.25, "fitness": 0.8, "returns": 0.1, "turnover": 0.3}, None),
                ids[1]: ("is_rejected", {"sharpe": -0.4, "fitness": -0.2}, "os_sharpe_below_threshold"),
                ids[2]: ("is_validating", None, None)}
    tracker = SearchTracker(data_dir)
    try:
        conn = tracker._conn
        for n, (eval_id, (status, os_stats, reason)) in enumerate(verdicts.items()):
            # What the component writes when the service takes a submission in: the receipt's row, and the
            # queue row gone.
            conn.execute("DELETE FROM submission_queue WHERE eval_id = ?", (eval_id,))
            conn.execute("INSERT INTO submission_status (eval_id, eval_type, era_id, pool_id, submission_id, "
                         "sim_id, status, submitted_at) VALUES (?, 'signal', 1, 'p', ?, NULL, 'pending', ?)",
                         (eval_id, f"sub-{n}", time.time()))
            notify_submission_status(f"sub-{n}", status, tracker=tracker, data_dir=str(data_dir),
                                     is_stats_json=None if os_stats is None else json.dumps(os_stats),
                                     is_correlation=None if os_stats is None else 0.25, rejection_reason=reason)
        retry_id = ids[3]
        conn.execute("DELETE FROM submission_queue WHERE eval_id = ?", (retry_id,))
        conn.execute("INSERT INTO submission_retry (eval_id, eval_type, pool_id, payload_json, era_id, retry_count, "
                     "last_rejection_reason, retry_after, created_at) VALUES (?, 'signal', 'p', '{}', 1, 2, "
                     "'connection refused', NULL, ?)", (retry_id, time.time()))
    finally:
        tracker.close()
    return data_dir, {"found": ids[0], "is_rejected": ids[1], "is_validating": ids[2], "retrying": ids[3]}

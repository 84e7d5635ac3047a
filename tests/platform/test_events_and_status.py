import json
import os

import pytest

from quillmarsh import callbacks
from quillmarsh.search_tracking import BacktestStats
from quillmarsh.submission_status_notify import notify_submission_status


def read_events(data_dir):
    with open(os.path.join(data_dir, "events.jsonl")) as fh:
        return [json.loads(line) for line in fh]


def test_events_are_appended_as_json_lines_and_reach_listeners(data_dir):
    heard = []
    callbacks.add_listener(heard.append)
    callbacks.add_listener(lambda event: 1 / 0)  # a broken listener is skipped
    try:
        callbacks.emit_event(data_dir=data_dir, event_type="failure", severity="fatal",
                             payload={"code": "X", "when": object()})
        callbacks.emit_event(data_dir=data_dir, event_type="nudge", severity="info")
    finally:
        callbacks._listeners.clear()
    events = read_events(data_dir)
    assert [(e["event_type"], e["severity"]) for e in events] == [("failure", "fatal"), ("nudge", "info")]
    assert events[0]["payload"]["code"] == "X" and events[1]["payload"] == {}
    assert [e["event_type"] for e in heard] == ["failure", "nudge"]


@pytest.mark.parametrize("kwargs", [dict(event_type="", severity="info"), dict(event_type="x", severity=None),
                                    dict(event_type="x", severity="info", payload=[1])])
def test_bad_events_are_refused_and_nothing_is_written(data_dir, kwargs):
    with pytest.raises((ValueError, TypeError)):
        callbacks.emit_event(data_dir=data_dir, **kwargs)
    assert not os.path.exists(os.path.join(data_dir, "events.jsonl"))


def add_status_row(tracker, submission_id="sub-1"):
    eval_id = tracker.record_signal_evaluation({"type": "feature", "node": "x"}, BacktestStats(), 1, True, "u",
                                               {}, pool_id="p")
    tracker._conn.execute(
        "INSERT INTO submission_status (eval_id, eval_type, pool_id, submission_id, sim_id, era_id, status,"
        " submitted_at) VALUES (?, 'signal', 'p', ?, 's', 1, 'pending', 1.0)", (eval_id, submission_id))


def status_row(tracker, submission_id="sub-1"):
    return tracker._conn.execute("SELECT status, finalized_at, rejection_reason, is_pnl_mi FROM submission_status"
                                 " WHERE submission_id=?", (submission_id,)).fetchone()


@pytest.mark.parametrize("status, terminal", [("is_validating", False), ("found", True), ("is_rejected", True)])
def test_a_terminal_status_sets_finalized_at_once_and_emits_an_event(tracker, status, terminal):
    add_status_row(tracker)
    assert notify_submission_status("sub-1", status, tracker=tracker, data_dir=tracker._data_dir,
                                    rejection_reason="retry_exhausted") is True
    row = status_row(tracker)
    assert row[0] == status and (row[1] is not None) is terminal and row[2] == "retry_exhausted"
    assert len(tracker.get_pending_submissions()) == (0 if terminal else 1)
    if terminal:
        [event] = read_events(tracker._data_dir)
        assert event["event_type"] == "submission_status" and event["payload"]["status"] == status
    # a later verdict keeps the first verdict's time; without a tracker the data directory's store is used
    first = status_row(tracker)[1]
    notify_submission_status("sub-1", "useful", data_dir=tracker._data_dir)
    after = status_row(tracker)
    assert after[0] == "useful" and after[1] is not None and (after[1] == first or not terminal)


def test_a_failed_write_raises_only_when_a_tracker_is_required(tracker):
    with pytest.raises(LookupError, match="sub-unknown"):
        notify_submission_status("sub-unknown", "found", tracker=tracker)
    assert notify_submission_status("sub-unknown", "found", tracker=tracker, require_tracker=False) is False
    with pytest.raises(RuntimeError):
        notify_submission_status("sub-1", "found")

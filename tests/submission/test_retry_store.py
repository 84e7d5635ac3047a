"""What each refusal of the service leaves in the store: a retry row, a deferred row, or an exhausted payload
closed at the service, always on the row this search has claimed and never on one it has lost."""
import time

import pytest

import quillmarsh.search_templates as st
from submission.conftest import add_retry_row, claim, enqueue, rows

pytestmark = pytest.mark.both_dialects

BAN_END = 1_900_000_000.5


def retry_rows(h):
    return rows(h, "SELECT eval_id, retry_count, last_rejection_reason, retry_after, in_flight_owner "
                   "FROM submission_retry")


def queue_rows(h):
    return rows(h, "SELECT eval_id, priority, in_flight_owner, in_flight_at FROM submission_queue")


def refuse(h, payload, refusal):
    """What the submission thread does with each kind of refusal of a claimed retry row."""
    if refusal == "connection":
        h._defer_claimed_retry_payload(payload, BAN_END, "network_error")
    else:
        h._enqueue_retry_payload(payload, *(("banned", BAN_END) if refusal == "403-ban" else ("token_expired",)))


@pytest.mark.parametrize("refusal, count_after, reason_after, after_after", [
    ("401", 3, "token_expired", None),
    ("403-ban", 3, "banned", BAN_END),
    ("connection", 2, "network_error", BAN_END),  # no verdict on the signal: no try used up
])
def test_refusal_of_a_claimed_retry_row(handle, refusal, count_after, reason_after, after_after):
    add_retry_row(handle, "e1", retry_count=2)
    payload = handle._peek_retry_payload()
    (created_before,), = rows(handle, "SELECT created_at FROM submission_retry")
    refuse(handle, payload, refusal)
    assert retry_rows(handle) == [("e1", count_after, reason_after, after_after, None)]
    (created_after,), = rows(handle, "SELECT created_at FROM submission_retry")
    assert (created_after > created_before) is (refusal != "connection")  # a verdict sends it to the back


def test_retry_count_given_as_text_counts_as_its_number(handle):
    add_retry_row(handle, "e1")
    payload = handle._peek_retry_payload()
    payload["retry_count"] = "2"
    handle._enqueue_retry_payload(payload, "again")
    assert retry_rows(handle)[0][1] == 3


def test_fifth_failure_exhausts_the_payload_and_closes_its_status(handle):
    add_retry_row(handle, "e1", retry_count=4)
    payload = handle._peek_retry_payload()
    rows(handle, "INSERT INTO submission_status (eval_id, eval_type, era_id, submission_id, status, submitted_at) "
                 "VALUES ('e1', 'signal', 3, 'sub-old', 'pending', ?)", time.time())
    handle._enqueue_retry_payload(payload, "quota", retry_after=time.time() + 60)
    assert retry_rows(handle) == []
    assert (handle._submission_discarded, handle._submission_rejected) == (1, 1)
    assert any("submission retry exhausted: quota" in e for e in handle._errors)
    (status, reason, finalized), = rows(handle, "SELECT status, rejection_reason, finalized_at FROM submission_status")
    assert (status, reason) == ("not_useful", "retry_exhausted: quota") and finalized is not None


def test_a_persistent_submission_is_sent_six_times_in_all(handle):
    enqueue(handle, "e1")
    sends = 0
    while True:
        payload = handle._dequeue_submission_payload() or handle._dequeue_retry_payload()
        if payload is None:
            break
        sends += 1
        handle._enqueue_retry_payload(payload, "token_expired")
    assert sends == 6
    assert (handle._submission_discarded, retry_rows(handle), queue_rows(handle)) == (1, [], [])


def test_exhaustion_that_cannot_close_at_the_service_keeps_the_row(handle, monkeypatch):
    add_retry_row(handle, "e1", retry_count=4)
    payload = handle._peek_retry_payload()
    payload["submission_id"] = "sub-1"

    def refuse_notify(*args, **kwargs):
        raise OSError("store unavailable")
    monkeypatch.setattr(st, "notify_submission_status", refuse_notify)
    handle._enqueue_retry_payload(payload, "quota")
    assert len(retry_rows(handle)) == 1
    assert (handle._submission_discarded, handle._submission_rejected) == (0, 0)
    assert handle._submission_failures == 1


@pytest.mark.parametrize("operation", ["move", "update", "defer-retry", "defer-queue"])
@pytest.mark.parametrize("loss", ["taken-over", "rewritten"])
def test_writes_to_a_lost_claim_raise_and_change_nothing(handle, operation, loss):
    on_queue = operation in ("move", "defer-queue")
    row_id = enqueue(handle, "e1") if on_queue else add_retry_row(handle, "e1")
    payload = handle._peek_submission_payload() if on_queue else handle._peek_retry_payload()
    table = "submission_queue" if on_queue else "submission_retry"
    if loss == "taken-over":
        claim(handle, table, owner="another", row_id=row_id)
    else:
        rows(handle, f"UPDATE {table} SET payload_json=? WHERE {'queue_id' if on_queue else 'retry_id'}=?",
             payload["_source_payload_json"].replace("U1", "U9"), row_id)
    before = (queue_rows(handle), retry_rows(handle))
    text = st._serialize_submission_payload(st._submission_payload_for_storage(payload))
    with pytest.raises(RuntimeError) as info:
        if operation == "move":
            handle._move_claimed_queue_to_retry(payload, text, "token_expired", None)
        elif operation == "update":
            handle._update_claimed_retry_payload(payload, text, "token_expired", 1, None)
        elif operation == "defer-retry":
            handle._defer_claimed_retry_payload(payload, None, "network_error")
        else:
            handle._defer_claimed_queue_payload(payload)
    assert str(info.value) in ("claimed submission_queue row was not moved to retry",
                               "claimed submission_retry row was not updated",
                               "claimed submission_retry row stale or missing",
                               "claimed submission_queue row stale or missing")
    assert (queue_rows(handle), retry_rows(handle)) == before


def test_failed_move_leaves_the_row_claimed_for_its_lease(handle):
    enqueue(handle, "e1", with_evaluation=False, signal_pool_id="")  # no pool to move it under
    payload = handle._peek_submission_payload()
    handle._enqueue_retry_payload(payload, "token_expired")
    assert retry_rows(handle) == []
    assert queue_rows(handle)[0][2] == handle._submission_owner
    assert handle._retry_queue == [] and handle._submission_failures == 1


@pytest.mark.parametrize("storeless, retry_count", [(True, 0), (False, 0), (False, 3)])
def test_refused_payload_that_no_table_takes_waits_in_memory(handle, monkeypatch, storeless, retry_count):
    # Without a store, or for an in-memory retry (its first move to the store failed) refused again: only
    # memory can keep it, and it must not vanish.
    if storeless:
        handle._tracker_uses_persistent_store = False
        monkeypatch.setattr(handle, "_tracker", type("NoStore", (), {"enqueue_retry": None})())
    payload = {"eval_id": "e1", "submission_type": "signal", "era_id": 3, "retry_count": retry_count}
    handle._enqueue_retry_payload(payload, "token_expired", 7.0)
    assert [(p["eval_id"], p["retry_count"], p["retry_after"]) for p in handle._retry_queue] == [
        ("e1", retry_count + 1, 7.0)]
    assert handle._submission_retrying == 1 and handle._submission_wakeup.is_set()

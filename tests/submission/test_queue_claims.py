"""Claims under a lease on the shared store: who gets a row, when a claim may be taken over, and that only
the holder of a claim (or nobody) may delete a row."""
import concurrent.futures
import time

import pytest

import quillmarsh.search_templates as st
from submission.conftest import Receipt, add_retry_row, claim, enqueue, rows, status_rows

pytestmark = pytest.mark.both_dialects


def queue_rows(h):
    return rows(h, "SELECT queue_id, in_flight_owner FROM submission_queue ORDER BY queue_id")


def drain(h):
    """Claims and records rows until the queue offers none; returns the queue ids this handle got."""
    got = []
    for _ in range(200):  # bounded: a row that is never recorded must not keep the test alive
        payload = h._peek_submission_payload()
        if payload is None:
            break
        if payload:
            got.append(payload["_queue_id"])
            h._handle_submission_success(payload, Receipt(f"sub-{payload['_queue_id']}"))
    return got


def test_two_handles_competing_for_one_queue_never_get_the_same_row(open_handle):
    a, b = open_handle(), open_handle()
    ids = [enqueue(a, f"e{i}") for i in range(40)]
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        got_a, got_b = [f.result(30.0) for f in [pool.submit(drain, a), pool.submit(drain, b)]]
    assert not set(got_a) & set(got_b)
    assert sorted(got_a + got_b) == ids
    assert len(status_rows(a)) == len(ids) and queue_rows(a) == []


@pytest.mark.parametrize("holder, age, lease, offered", [
    (None, 0.0, None, True),            # free
    ("another", 299.0, None, False),    # fresh claim of another search
    ("another", 301.0, None, True),     # expired: taken over
    ("self", 0.0, None, True),          # our own claim
    ("another", 20.0, 10.0, True),      # the lease is read from the module when the claim is made
    ("another", 20.0, 60.0, False),
])
def test_lease_decides_who_may_claim(handle, monkeypatch, holder, age, lease, offered):
    if lease is not None:
        monkeypatch.setattr(st, "SUBMISSION_QUEUE_LEASE_SECONDS", lease)
    qid = enqueue(handle, "e1")
    assert handle._ensure_submission_claim_columns()
    if holder is not None:
        claim(handle, owner=handle._submission_owner if holder == "self" else "another", age=age, row_id=qid)
    payload = handle._peek_submission_payload()
    if offered:
        assert payload["_queue_id"] == qid and payload["eval_id"] == "e1"
        assert queue_rows(handle) == [(qid, handle._submission_owner)]
    else:
        assert payload is None
        assert queue_rows(handle) == [(qid, "another")]


def test_queue_order_is_priority_then_id(handle):
    low1, high, low2 = enqueue(handle, "a"), enqueue(handle, "b", priority=1), enqueue(handle, "c")
    order = []
    for _ in range(3):
        payload = handle._peek_submission_payload()
        order.append(payload["_queue_id"])
        assert handle._delete_claimed_submission_source(payload)
    assert order == [high, low1, low2]
    assert handle._peek_submission_payload() is None


def test_retry_claims_skip_exhausted_and_waiting_rows_and_take_the_oldest_due(handle):
    now = time.time()
    add_retry_row(handle, "spent", retry_count=5, retry_after=None, created_at=now - 100)
    add_retry_row(handle, "later", retry_after=now + 3600, created_at=now - 90)
    newer = add_retry_row(handle, "newer", created_at=now - 10)
    older = add_retry_row(handle, "older", retry_after=now - 1, created_at=now - 20)
    first = handle._peek_retry_payload()
    assert (first["retry_id"], first["retry_count"], first["retry_after"]) == (older, 0, now - 1)
    assert handle._delete_claimed_submission_source(first)
    assert handle._peek_retry_payload()["retry_id"] == newer


@pytest.mark.parametrize("loss, how", [(None, "payload"), ("taken-over", "item"), ("taken-over", "payload"),
                                       ("rewritten", "payload")])
def test_only_the_holder_of_a_claim_deletes_its_row(handle, loss, how):
    qid, other = enqueue(handle, "e1"), enqueue(handle, "e2")
    payload = handle._peek_submission_payload()
    if loss == "taken-over":
        claim(handle, owner="another", row_id=qid)
    elif loss == "rewritten":  # the row was rewritten under the same id since our claim
        rows(handle, "UPDATE submission_queue SET payload_json=? WHERE queue_id=?",
             payload["_source_payload_json"].replace("U1", "U2"), qid)
    before = rows(handle, "SELECT * FROM submission_queue ORDER BY queue_id")
    deleted = (handle._delete_submission_queue_item(qid) if how == "item"
               else handle._delete_claimed_submission_source(payload))
    assert deleted is (loss is None)
    after = rows(handle, "SELECT * FROM submission_queue ORDER BY queue_id")
    assert after == (before[1:] if loss is None else before) and after[-1][0] == other


@pytest.mark.parametrize("payload_json", ["[]", "{not json", '{"eval_id": "x"}'])
def test_undecodable_row_is_dropped_and_the_dequeue_goes_on(handle, payload_json):
    bad = enqueue(handle, "bad", priority=1)
    rows(handle, "UPDATE submission_queue SET payload_json=? WHERE queue_id=?", payload_json, bad)
    good = enqueue(handle, "good")
    payload = handle._dequeue_submission_payload()
    assert payload["_queue_id"] == good
    assert [r[0] for r in queue_rows(handle)] == [good]
    assert handle._submission_failures == 0  # the dequeue's success reset the ledger
    assert handle._submission_backoff is False


def test_finished_row_is_deleted_not_sent_and_leaves_the_set_only_when_gone(handle):
    qid, other = enqueue(handle, "e1"), enqueue(handle, "e2")
    handle._finished_queue_ids.add(qid)
    claim(handle, owner="another", age=400.0, row_id=qid)  # expired: we may take it, and then delete it
    assert handle._peek_submission_payload() == {}
    assert qid not in handle._finished_queue_ids
    assert handle._dequeue_submission_payload()["_queue_id"] == other


def test_dequeue_holds_back_while_a_receipt_waits_and_when_stopped(handle):
    enqueue(handle, "e1")
    handle._pending_receipts_by_queue_id[("queue", 999)] = ({"eval_id": "missing", "submission_type": "signal",
                                                             "era_id": 3, "_queue_id": 999}, Receipt("s-1"))
    assert handle._dequeue_submission_payload() is None
    assert handle._has_in_memory_submission_work()
    handle._pending_receipts_by_queue_id.clear()
    handle._stop_event.set()
    assert handle._dequeue_submission_payload() is None
    assert queue_rows(handle)[0][1] is None  # the store was not read
    handle._stop_event.clear()
    assert handle._dequeue_submission_payload()["eval_id"] == "e1"


def test_in_memory_retries_come_back_when_due(handle):
    handle._retry_queue.extend([{"eval_id": "later", "retry_after": time.time() + 3600},
                                {"eval_id": "due", "retry_after": None}])
    assert handle._dequeue_retry_payload()["eval_id"] == "due"
    assert [p["eval_id"] for p in handle._retry_queue] == ["later"]
    assert handle._dequeue_retry_payload() is None

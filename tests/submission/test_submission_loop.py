"""The submission thread against a scripted signal service on a loopback port and a real store: what each
outcome of a send does to the queue, the retry table, the status table, the counters and the back-off."""
import time

import pytest

from submission.conftest import enqueue, rows, run_thread, wait_until
from submission.scripted_service import DROP, Slow, refused_url

BAN = time.time() + 3600.0


def send_next(h):
    payload = h._dequeue_submission_payload()
    assert payload, "nothing to send"
    h._submit_payload(payload)
    return payload


def test_a_signal_travels_from_the_queue_to_a_terminal_status(loop_handle, service):
    h = loop_handle
    eval_id = "e1"
    enqueue(h, eval_id)
    service.script("poll", (200, {"status": "is_validating"}), (200, {"status": "is_validating"}))
    service.poll_default = (200, {"status": "found", "payment": {"amount": 2}})
    threads = [run_thread(h._submission_loop, "submission_thread"), run_thread(h._polling_loop, "polling_thread")]
    assert wait_until(lambda: rows(h, "SELECT status FROM submission_status") == [("found",)], 10.0)
    assert rows(h, "SELECT submission_id, eval_id, pool_id, finalized_at IS NOT NULL FROM submission_status") == \
        [("sub-1", eval_id, "pool-a", 1)]
    assert rows(h, "SELECT COUNT(*) FROM submission_queue") == [(0,)]
    assert rows(h, "SELECT submitted FROM signal_evaluations WHERE eval_id=?", eval_id) == [(1,)]
    status = h.status()
    assert (status.total_found, status.submission_accepted, status.submission_pending) == (1, 1, 0)
    asked = len(service.of("poll"))
    assert asked == 3
    time.sleep(0.15)  # several polling intervals: a terminal id is not asked about again
    assert len(service.of("poll")) == asked
    h._stop_event.set()
    for t in threads:
        t.join(5.0)
        assert not t.is_alive()


@pytest.mark.parametrize("answer, outcome", [
    ((401, {"error": "token expired"}), ("retry", None, "token expired")),
    ((403, {"error": "banned", "ban_expiry": BAN}), ("retry", BAN, "banned")),
    ((403, {"error": "banned", "ban_expiry": 0}), ("retry", 0, "banned")),
    ((403, {"error": "forbidden"}), ("final", "submission 403: forbidden")),
    ((400, {"error": "bad graph"}), ("final", "submission 400: bad graph")),
    ((404, {}), ("final", "submission 404: Not Found")),
    ((500, {"error": "boom"}), ("later",)),
    (DROP, ("later",)),
    ((200, {"accepted": True}), ("defect", "submission failed: signal submission response missing required "
                                           "submission_id")),
])
def test_each_outcome_of_a_send_is_routed_where_it_belongs(loop_handle, service, answer, outcome):
    h = loop_handle
    eval_id = "e1"
    enqueue(h, eval_id)
    service.script("submit", answer)
    h._submission_backoff_seconds = 40.0  # a pause from earlier failures
    send_next(h)
    queue = rows(h, "SELECT priority, in_flight_owner FROM submission_queue")
    retry = rows(h, "SELECT eval_id, retry_after, last_rejection_reason FROM submission_retry")
    kind = outcome[0]
    assert rows(h, "SELECT COUNT(*) FROM submission_status") == [(0,)]
    if kind == "retry":
        assert queue == [] and retry == [(eval_id, outcome[1], outcome[2])]
        assert (h._submission_discarded, h._submission_backoff) == (0, False)
    elif kind == "later":
        assert queue == [(1, None)] and retry == []
        assert (h._submission_discarded, h._submission_backoff, h._submission_backoff_seconds) == (0, True, 80.0)
        assert 39.0 < h._submission_backoff_until - time.monotonic() <= 40.0
        assert h._submission_failures == 0  # the service being away is no failure of ours
    else:
        assert queue == [] and retry == []
        assert (h._submission_discarded, h._submission_rejected) == (1, 1)
        assert h._errors[-1] == outcome[1]
        # a final refusal shows the service is reachable; a defect says nothing about it
        expected = (False, 5.0) if kind == "final" else (False, 40.0)
        assert (h._submission_backoff, h._submission_backoff_seconds) == expected


def test_a_refused_token_is_sent_again_with_the_same_key_and_then_recorded(loop_handle, service):
    h = loop_handle
    eval_id = "e1"
    enqueue(h, eval_id)
    service.script("submit", (401, {"error": "token expired"}))
    send_next(h)
    retry = h._dequeue_retry_payload()
    assert retry["eval_id"] == eval_id
    h._submit_payload(retry)
    first, second = service.of("submit")
    assert first["idempotency_key"] == second["idempotency_key"] and first["body"] == second["body"]
    assert rows(h, "SELECT COUNT(*) FROM submission_retry") == [(0,)]
    assert rows(h, "SELECT eval_id, status FROM submission_status") == [(eval_id, "pending")]
    assert rows(h, "SELECT submitted FROM signal_evaluations") == [(1,)]


def test_connection_failures_double_the_pause_up_to_its_ceiling(loop_handle, server_url):
    h = loop_handle
    enqueue(h, "e1")
    server_url(refused_url())
    pauses = []
    for _ in range(3):
        send_next(h)
        pauses.append(round(h._submission_backoff_until - time.monotonic()))
    assert pauses == [5, 10, 20] and h._submission_backoff_seconds == 40.0
    for _ in range(5):
        send_next(h)
    assert h._submission_backoff_seconds == 300.0
    assert rows(h, "SELECT priority, in_flight_owner FROM submission_queue") == [(1, None)]


def test_a_replacement_waits_for_the_send_in_flight_and_nothing_leaves_after_it(loop_handle, service):
    h = loop_handle
    first, second = "e1", "e2"
    enqueue(h, first), enqueue(h, second)
    service.script("submit", Slow(0.3, (200, {"submission_id": "sub-slow"})))
    sender = run_thread(h._submission_loop, "submission_thread")
    assert wait_until(lambda: len(service.of("submit")) == 1, 5.0)
    began = time.monotonic()
    h._abort_for_replacement()
    assert time.monotonic() - began >= 0.2  # it held on until the send in flight had its answer
    sender.join(5.0)
    assert not sender.is_alive()
    time.sleep(0.1)
    assert len(service.of("submit")) == 1  # the second signal never left
    assert rows(h, "SELECT COUNT(*) FROM submission_queue") == [(0,)]  # this handle's rows went with it
    recorded = rows(h, "SELECT eval_id FROM submission_status")
    assert recorded in ([], [(first,)]) and (second,) not in recorded

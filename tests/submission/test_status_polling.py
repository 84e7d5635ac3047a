"""The polling thread against a scripted signal service, and how the supervisor treats the submission and
polling threads when they keep failing."""
import json

import pytest

import quillmarsh.search_templates as st
from engine.helpers import ERA_FIELDS, VOCAB, FakeAuth, FakeEraConfig, Obfuscation, idle_template
from evaluation.fakes import FakeBacktester, RecordingTracker
from submission.conftest import rows, run_thread, wait_until


def pending_submission(h, submission_id="sub-1"):
    """A receipt already recorded: its submission_status row and its in-memory pending entry."""
    rows(h, "INSERT INTO submission_status (eval_id, eval_type, pool_id, submission_id, sim_id, era_id, status, "
            "submitted_at) VALUES (?, 'signal', 'pool-a', ?, NULL, 3, 'pending', 1.0)", "e-" + submission_id,
         submission_id)
    h._pending_submissions[submission_id] = dict(submission_id=submission_id, submission_type="signal",
                                                 eval_id="e-" + submission_id, era_id=3, sim_id=None)


def observed(h):
    (status, final), = rows(h, "SELECT status, finalized_at IS NOT NULL FROM submission_status")
    return dict(status=status, final=bool(final), pending="sub-1" in h._pending_submissions,
                accepted=h._submission_accepted, rejected=h._submission_rejected,
                backoff=h._polling_backoff_seconds)


@pytest.mark.parametrize("answer, forget, expected, error", [
    ((200, {"status": "is_validating"}), False,
     dict(status="is_validating", final=False, pending=True, accepted=0, rejected=0, backoff=5.0), None),
    ((200, {"status": "found"}), False,
     dict(status="found", final=True, pending=False, accepted=1, rejected=0, backoff=5.0), None),
    ((200, {"status": "useful"}), True,
     dict(status="useful", final=True, pending=False, accepted=1, rejected=0, backoff=5.0), None),
    ((200, {"status": "os_failed"}), False,
     dict(status="os_failed", final=True, pending=False, accepted=0, rejected=1, backoff=5.0), None),
    ((404, {"error": "unknown submission"}), False,
     dict(status="is_rejected", final=True, pending=False, accepted=0, rejected=1, backoff=5.0),
     "poll sub-1: 404 unknown submission"),
    ((503, {}), False, dict(status="pending", final=False, pending=True, accepted=0, rejected=0, backoff=10.0), None),
])
def test_each_answer_to_a_poll_is_written_and_judged(loop_handle, service, answer, forget, expected, error):
    h = loop_handle
    pending_submission(h)
    if forget:  # a restarted process knows the id from the store alone
        h._pending_submissions.clear()
    errors_before = list(h._errors)
    service.script("poll", answer)
    poller = run_thread(h._polling_loop, "polling_thread")
    assert wait_until(lambda: observed(h) == expected, 5.0), observed(h)
    h._stop_event.set()
    poller.join(5.0)
    assert not poller.is_alive()
    assert service.of("poll")[0]["path"] == "/v1/signals/sub-1"
    assert h._errors[len(errors_before):] == ([error] if error else [])
    assert h._polling_failures == 0 and h._last_poll_time > 0


def test_a_good_answer_after_an_outage_resets_the_pause(loop_handle, service):
    h = loop_handle
    pending_submission(h)
    service.script("poll", (503, {}), (503, {}))
    poller = run_thread(h._polling_loop, "polling_thread")
    for seconds in (10.0, 20.0):
        assert wait_until(lambda: h._polling_backoff_seconds == seconds, 5.0)
        h._polling_backoff_until = 0.0  # the pause is over
    assert wait_until(lambda: len(service.of("poll")) >= 3, 5.0)
    assert wait_until(lambda: h._polling_backoff_seconds == 5.0 and h._polling_backoff_until == 0.0, 5.0)
    h._stop_event.set()
    poller.join(5.0)


def test_pending_items_merge_the_store_and_the_memory(loop_handle):
    h = loop_handle
    rows(h, "INSERT INTO submission_status (eval_id, eval_type, pool_id, submission_id, sim_id, era_id, status, "
            "submitted_at) VALUES ('e1', 'signal', 'pool-a', 'both', NULL, 4, 'pending', 1.0), "
            "('e2', 'signal', 'pool-a', 'store-only', 's2', 5, 'pending', 2.0)")
    item = lambda sid, eval_id, era, sim: dict(submission_id=sid, submission_type="signal",  # noqa: E731
                                               eval_id=eval_id, era_id=era, sim_id=sim)
    h._pending_submissions.update({"both": item("both", "e1", 3, "s1"), "memory-only": item("memory-only", "e3", 3,
                                                                                             None)})
    items = {i["submission_id"]: i for i in h._pending_payloads()}
    assert items == {"both": item("both", "e1", 3, "s1"), "store-only": item("store-only", "e2", 5, "s2"),
                     "memory-only": item("memory-only", "e3", 3, None)}
    items["both"]["era_id"] = 99
    assert h._pending_submissions["both"]["era_id"] == 3  # copies, not the live entries


def _fails(self):
    raise RuntimeError("store away")


# A thread that dies and is restarted ten times is the supervisor's test; here the loop itself keeps failing.
@pytest.mark.parametrize("component", ["submission", "polling"])
def test_a_loop_that_keeps_failing_degrades_and_stays_down(monkeypatch, server_url, component):
    monkeypatch.setattr(st, "SUPERVISOR_HEALTH_CHECK_INTERVAL", 0.02)
    monkeypatch.setattr(st, "SUBMISSION_POLL_INTERVAL", 0.01)
    monkeypatch.setattr(st._SearchHandleImpl, f"_{component}_loop_inner", _fails)
    h = st._SearchHandleImpl(template=idle_template, n_jobs=1, tracker=RecordingTracker(), sync_mgr=None,
                             bt=FakeBacktester(), obf=Obfuscation(json.dumps(VOCAB), 3, "U1"),
                             era_cfg=FakeEraConfig(**ERA_FIELDS), auth_mock=FakeAuth())
    try:
        assert wait_until(lambda: getattr(h, f"_{component}_degraded"), 10.0)
        last = getattr(h, f"_{component}_thread")
        assert wait_until(lambda: not last.is_alive(), 5.0)
        for _ in range(5):  # several supervisor cycles: nothing restarts it
            h._stop_event.wait(0.03)
            assert getattr(h, f"_{component}_thread") is last and not last.is_alive()
        status = h.status()
        assert status.running and sum("capability degraded" in e for e in status.errors) == 1
        assert any(e.startswith(f"{component} loop failed (RuntimeError)") for e in status.errors)
    finally:
        h.stop()

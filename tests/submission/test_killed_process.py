"""A process killed at each step of a receipt's road loses nothing and sends or records nothing twice."""
import os
import signal
import subprocess
import sys
import textwrap

import pytest

import quillmarsh.search_templates as st
from submission.conftest import enqueue, journal_files, rows, status_rows

pytestmark = pytest.mark.both_dialects

TESTS_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

CHILD = textwrap.dedent("""
    import os, signal, sys
    from types import SimpleNamespace
    import quillmarsh.agent_onboarding as onboarding
    import quillmarsh.search_templates as st
    from submission.conftest import FakeAuth, Receipt, quiet_handle
    store_dir, step, url = sys.argv[1:]
    onboarding._config = {"data_dir": store_dir, "server_url": url}
    st._library_runtime = SimpleNamespace(auth_proxy=FakeAuth())
    h = quiet_handle(store_dir)
    payload = h._dequeue_submission_payload()
    assert payload is not None
    receipt = Receipt("sub-killed")
    if step == "after_send":  # dies with the service's receipt unseen
        h._handle_submission_success = lambda payload, receipt: os.kill(os.getpid(), signal.SIGKILL)
        h._submit_payload(payload)
    elif step != "after_claim":
        h._append_receipt_journal(payload, receipt)
        if step == "after_commit":
            h._record_submission_and_delete_queue(payload, receipt)
    os.kill(os.getpid(), signal.SIGKILL)
""")


def run_and_kill(store_dir, step, database_url, url):
    env = dict(os.environ, PYTHONPATH=os.pathsep.join([TESTS_DIR, os.environ.get("PYTHONPATH", "")]))
    if database_url:
        env["QUILLMARSH_DATABASE_URL"] = database_url  # the child's tracker opens the same shared store
    proc = subprocess.run([sys.executable, "-c", CHILD, store_dir, step, url], env=env, capture_output=True,
                          timeout=120)
    assert proc.returncode == -signal.SIGKILL, proc.stderr.decode()


@pytest.mark.parametrize("step, files_left", [("after_claim", 0), ("after_send", 0), ("after_journal", 1),
                                              ("after_commit", 1)])
def test_receipt_survives_a_killed_process(open_handle, store_dir, database_url, service, server_url, monkeypatch,
                                           step, files_left):
    seeder = open_handle()
    qid = enqueue(seeder, "e1")
    run_and_kill(store_dir, step, database_url, service.url)
    assert len(journal_files(store_dir)) == files_left

    heir = open_handle()
    assert heir._flush_pending_receipt_finalizations() is True
    if step in ("after_claim", "after_send"):
        # Nothing reached the store's books: the row waits, claimed by the dead process, for its lease.
        assert status_rows(heir) == []
        assert heir._dequeue_submission_payload() is None
        monkeypatch.setattr(st, "SUBMISSION_QUEUE_LEASE_SECONDS", 0.0)
        payload = heir._dequeue_submission_payload()
        assert payload["_queue_id"] == qid
        if step == "after_send":  # sent again under the same key: the service answers it as the same signal
            heir._submit_payload(payload)
            first, second = service.of("submit")
            assert first["idempotency_key"] == second["idempotency_key"] and first["body"] == second["body"]
            assert [r[1] for r in status_rows(heir)] == ["e1"]
    else:
        assert [r[:2] for r in status_rows(heir)] == [("sub-killed", "e1")]
        assert rows(heir, "SELECT COUNT(*) FROM submission_queue") == [(0,)]
        assert heir._flush_pending_receipt_finalizations() is True
        assert len(status_rows(heir)) == 1
        # a receipt the dead process had not recorded is the heir's find; one it had recorded is not
        assert list(heir._pending_submissions) == (["sub-killed"] if step == "after_journal" else [])
    assert journal_files(store_dir) == []

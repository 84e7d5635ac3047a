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
    from submission.conftest import Receipt, quiet_handle
    h = quiet_handle(sys.argv[1])
    payload = h._dequeue_submission_payload()
    assert payload is not None
    step = sys.argv[2]
    receipt = Receipt("sub-killed")
    if step != "after_claim":
        h._append_receipt_journal(payload, receipt)
        if step == "after_commit":
            h._record_submission_and_delete_queue(payload, receipt)
    os.kill(os.getpid(), signal.SIGKILL)
""")


def run_and_kill(store_dir, step, database_url=None):
    env = dict(os.environ, PYTHONPATH=os.pathsep.join([TESTS_DIR, os.environ.get("PYTHONPATH", "")]))
    if database_url:
        env["QUILLMARSH_DATABASE_URL"] = database_url  # the child's tracker opens the same shared store
    proc = subprocess.run([sys.executable, "-c", CHILD, store_dir, step], env=env, capture_output=True,
                          timeout=120)
    assert proc.returncode == -signal.SIGKILL, proc.stderr.decode()


@pytest.mark.parametrize("step, files_left", [("after_claim", 0), ("after_journal", 1), ("after_commit", 1)])
def test_receipt_survives_a_killed_process(open_handle, store_dir, database_url, monkeypatch, step, files_left):
    seeder = open_handle()
    qid = enqueue(seeder, "e1")
    run_and_kill(store_dir, step, database_url)
    assert len(journal_files(store_dir)) == files_left

    heir = open_handle()
    assert heir._flush_pending_receipt_finalizations() is True
    if step == "after_claim":
        # Nothing reached the service's books here: the row waits, claimed by the dead process, for its lease.
        assert status_rows(heir) == []
        assert heir._dequeue_submission_payload() is None
        monkeypatch.setattr(st, "SUBMISSION_QUEUE_LEASE_SECONDS", 0.0)
        assert heir._dequeue_submission_payload()["_queue_id"] == qid
    else:
        assert [r[:2] for r in status_rows(heir)] == [("sub-killed", "e1")]
        assert rows(heir, "SELECT COUNT(*) FROM submission_queue") == [(0,)]
        assert heir._flush_pending_receipt_finalizations() is True
        assert len(status_rows(heir)) == 1
        # a receipt the dead process had not recorded is the heir's find; one it had recorded is not
        assert list(heir._pending_submissions) == (["sub-killed"] if step == "after_journal" else [])
    assert journal_files(store_dir) == []

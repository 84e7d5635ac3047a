"""Receipts: journalled before the store's transaction, recorded exactly once, waiting in memory and on disk
while the store refuses, and replayed by the next handle after a crash."""
import json
import os
import time

import pytest

from submission.conftest import (JOURNAL_DIR, Receipt, add_evaluation, claim, close_handle, enqueue, journal_files,
                                 rows, status_rows)

pytestmark = pytest.mark.both_dialects

# The store refuses new status rows, on either dialect; the second statement of each pair lifts that.
REFUSE = {"sqlite": ("CREATE TRIGGER refuse_status BEFORE INSERT ON submission_status BEGIN "
                     "SELECT RAISE(ABORT, 'refused'); END", "DROP TRIGGER refuse_status"),
          "postgres": ("ALTER TABLE submission_status ADD CONSTRAINT refuse_status CHECK (false) NOT VALID",
                       "ALTER TABLE submission_status DROP CONSTRAINT refuse_status")}


def claimed(h, eval_id="e1"):
    enqueue(h, eval_id)
    payload = h._dequeue_submission_payload()
    assert payload["eval_id"] == eval_id
    return payload


def queue_ids(h):
    return [r[0] for r in rows(h, "SELECT queue_id FROM submission_queue")]


def test_receipt_is_recorded_in_one_step_and_leaves_no_journal(handle, store_dir, nudges, monkeypatch):
    fsynced = []
    real_fsync = os.fsync
    monkeypatch.setattr(os, "fsync", lambda fd: (fsynced.append(fd), real_fsync(fd))[1])
    payload = claimed(handle)
    handle._handle_submission_success(payload, Receipt("sub-1"))
    assert status_rows(handle) == [("sub-1", "e1", "pending", None)]
    assert rows(handle, "SELECT submitted FROM signal_evaluations WHERE eval_id='e1'") == [(1,)]
    assert queue_ids(handle) == []
    assert journal_files(store_dir) == [] and not os.path.exists(os.path.join(store_dir, JOURNAL_DIR))
    assert len(fsynced) == 3  # the file and its directory on the way in, the directory on the way out
    assert list(handle._pending_submissions) == ["sub-1"]
    assert handle._pending_submissions["sub-1"]["sim_id"]  # a stable substitute for a payload without one
    assert (handle._total_found, handle._submission_pending) == (1, 1)
    assert [t for t, _ in nudges] == ["first_signal"]


def test_refused_commit_keeps_the_receipt_until_a_flush_records_it_once(handle, store_dir):
    payload = claimed(handle)
    refuse, accept = REFUSE[handle._tracker.dialect]
    handle._tracker._conn.execute(refuse)
    handle._handle_submission_success(payload, Receipt("sub/1 x"))
    # In memory and on disk; the row stays claimed by us; nothing recorded.
    assert list(handle._pending_receipts_by_queue_id) == [("queue", payload["_queue_id"])]
    [name] = journal_files(store_dir)
    assert name == f"queue__{payload['_queue_id']}__sub_1_x.json"
    with open(os.path.join(store_dir, JOURNAL_DIR, name), encoding="utf-8") as f:
        entry = json.load(f)
    assert (entry["source_kind"], entry["source_id"], entry["submission_id"]) == ("queue", payload["_queue_id"],
                                                                                "sub/1 x")
    assert entry["payload"]["_source_payload_json"] == payload["_source_payload_json"]
    assert status_rows(handle) == [] and queue_ids(handle) == [payload["_queue_id"]]
    assert handle._submission_failures == 1 and handle._submission_backoff
    # While the store refuses, nothing new starts.
    enqueue(handle, "e2")
    assert handle._flush_pending_receipt_finalizations() is False
    assert handle._dequeue_submission_payload() is None
    handle._tracker._conn.execute(accept)
    assert handle._flush_pending_receipt_finalizations() is True
    assert handle._flush_pending_receipt_finalizations() is True
    assert [r[0] for r in status_rows(handle)] == ["sub/1 x"]
    assert handle._pending_receipts_by_queue_id == {} and journal_files(store_dir) == []
    assert list(handle._pending_submissions) == ["sub/1 x"] and handle._total_found == 1
    assert handle._submission_failures == 0 and not handle._submission_backoff


def test_entry_whose_source_row_was_replaced_is_dropped_and_the_new_row_stays(open_handle, store_dir):
    first = open_handle()
    payload = claimed(first)
    first._append_receipt_journal(payload, Receipt("sub-3"))
    close_handle(first)
    second = open_handle()
    rows(second, "UPDATE submission_queue SET payload_json=? WHERE queue_id=?",
         payload["_source_payload_json"].replace("U1", "U2"), payload["_queue_id"])
    assert second._flush_pending_receipt_finalizations() is True
    assert status_rows(second) == [] and queue_ids(second) == [payload["_queue_id"]]
    assert journal_files(store_dir) == []
    assert any("source row missing or mismatched" in e for e in second._errors)


def test_entry_that_cannot_be_recorded_holds_back_those_after_it(open_handle, store_dir):
    first = open_handle()
    a = claimed(first, "a")
    claim(first, owner="crashed-run", row_id=a["_queue_id"])  # so that the next claim takes the next row
    b = claimed(first, "b")
    rows(first, "DELETE FROM signal_evaluations WHERE eval_id='a'")
    first._append_receipt_journal(a, Receipt("s-a"))
    first._append_receipt_journal(b, Receipt("s-b"))
    close_handle(first)
    second = open_handle()
    assert second._flush_pending_receipt_finalizations() is False
    assert status_rows(second) == [] and len(journal_files(store_dir)) == 2
    add_evaluation(second._tracker._conn, "a")
    assert second._flush_pending_receipt_finalizations() is True
    assert sorted(r[0] for r in status_rows(second)) == ["s-a", "s-b"]


@pytest.mark.parametrize("name, content, stays", [
    ("queue__1__torn.json", '{"source_kind": "queue", "sou', True),       # torn: reported, kept
    ("queue__3__x.json.owner.tmp", "{}", True),                            # leftover of a write: never read
    ("other__4__x.json", json.dumps({"source_kind": "other", "source_id": 4, "submission_id": "x",
                                     "payload": {}}), False),
])
def test_damaged_or_foreign_files_never_block_the_search(handle, store_dir, name, content, stays):
    d = os.path.join(store_dir, JOURNAL_DIR)
    os.makedirs(d)
    with open(os.path.join(d, name), "w", encoding="utf-8") as f:
        f.write(content)
    payload = claimed(handle)
    handle._handle_submission_success(payload, Receipt("sub-ok"))
    assert handle._flush_pending_receipt_finalizations() is True
    assert [r[0] for r in status_rows(handle)] == ["sub-ok"]
    assert journal_files(store_dir) == ([name] if stays else [])
    assert handle._submission_backoff is False  # a bad file costs no back-off


def test_journal_needs_a_place(handle, monkeypatch):
    handle._data_dir = None
    monkeypatch.setattr(handle, "_tracker", type("Bare", (), {"_conn": handle._tracker._conn})())
    payload = {"eval_id": "e", "submission_type": "signal", "era_id": 3, "_queue_id": 1}
    assert handle._append_receipt_journal(payload, Receipt("s")) is None
    with pytest.raises(RuntimeError, match="receipt journal path unavailable"):
        handle._append_receipt_journal(payload, Receipt("s"), required=True)
    assert handle._submission_failures == 0


def test_abort_after_the_send_drops_the_receipt_with_the_payload(handle, store_dir):
    payload = claimed(handle)
    handle._replacement_abort_event_handle().set()
    handle._handle_submission_success(payload, Receipt("sub-x"))
    assert status_rows(handle) == [] and queue_ids(handle) == [] and journal_files(store_dir) == []


@pytest.mark.parametrize("before, trigger", [(0, "first_signal"), (9, "10_signals"), (10, None),
                                             (99, "strategy_unlock")])
def test_milestones_fire_when_the_count_crosses_them(handle, nudges, before, trigger):
    handle._total_found = before
    handle._finalize_persisted_receipt({"eval_id": "e", "submission_type": "signal", "era_id": 3}, "s")
    assert [t for t, _ in nudges] == ([trigger] if trigger else [])


def add_statuses(h, prefix, count, age):
    h._tracker._conn.executemany(
        "INSERT INTO submission_status (eval_id, eval_type, era_id, submission_id, submitted_at) "
        "VALUES ('e', 'signal', 3, ?, ?)", [(f"{prefix}{i}", time.time() - age) for i in range(count)])


@pytest.mark.parametrize("prior, current, fires", [(12, 8, 1), (12, 9, 0), (0, 0, 0), (6, "recovers", 2)])
def test_discovery_rate_nudge_fires_once_per_decline(handle, nudges, prior, current, fires):
    add_statuses(handle, "p", prior, 30000)
    if current == "recovers":  # declined, recovered, declined again: fires twice
        handle._maybe_fire_discovery_rate_declining_nudge()
        add_statuses(handle, "c", 6, 100)
        handle._maybe_fire_discovery_rate_declining_nudge()
        rows(handle, "DELETE FROM submission_status WHERE submission_id LIKE 'c%'")
    else:
        add_statuses(handle, "c", current, 100)
    handle._maybe_fire_discovery_rate_declining_nudge()
    handle._maybe_fire_discovery_rate_declining_nudge()  # edge-triggered
    fired = [c for t, c in nudges if t == "discovery_rate_declining"]
    assert len(fired) == fires
    if fires == 1:
        assert fired == [{"current_window": current / 6.0, "prior_window": prior / 6.0}]


def test_entry_replayed_by_another_live_search_is_neither_lost_nor_recorded_twice(open_handle, store_dir,
                                                                                monkeypatch):
    writer, other = open_handle(), open_handle()
    payload = claimed(writer)
    real_replace = os.replace

    def replace_then_let_the_other_search_flush(src, dst):
        real_replace(src, dst)
        if dst.endswith(".json"):  # the entry is in place and the writer has not committed yet
            monkeypatch.setattr(os, "replace", real_replace)
            assert other._flush_pending_receipt_finalizations() is True
    monkeypatch.setattr(os, "replace", replace_then_let_the_other_search_flush)
    writer._handle_submission_success(payload, Receipt("sub-race"))
    assert [r[0] for r in status_rows(writer)] == ["sub-race"]
    assert queue_ids(writer) == [] and journal_files(store_dir) == []
    assert writer._pending_receipts_by_queue_id == {} and writer._submission_failures == 0
    assert list(other._pending_submissions) == ["sub-race"] and writer._pending_submissions == {}


class StorelessTracker:
    """A tracker without SQL tables; ``old_style`` takes the evaluation type only by position."""

    _conn = None

    def __init__(self, old_style=False):
        self.old_style, self.recorded, self.marked = old_style, [], []

    def record_submission(self, eval_id, submission_type, submission_id, era_id, sim_id=None, pool_id=None,
                          signal_pool_id=None):
        self.recorded.append((eval_id, submission_type, submission_id, era_id, pool_id, signal_pool_id))

    def mark_submitted(self, eval_id, *args, **kwargs):
        if self.old_style and kwargs:
            raise TypeError("mark_submitted() got an unexpected keyword argument 'eval_type'")
        self.marked.append((eval_id, *args, *kwargs.values()))


@pytest.mark.parametrize("old_style, kind, pools, expected", [
    (False, "signal", {"signal_pool_id": "sp"}, ("sp", "sp")),
    (False, "signal", {"pool_id": "p", "signal_pool_id": "sp"}, ("p", "sp")),
    (True, "strategy", {"strategy_pool_id": "st", "pool_id": "p", "signal_pool_id": "sp"}, ("st", "sp")),
])
def test_receipt_without_a_store_goes_to_the_tracker(handle, store_dir, monkeypatch, old_style, kind, pools,
                                                     expected):
    monkeypatch.setattr(handle, "_tracker", StorelessTracker(old_style))
    tracker = handle._tracker
    handle._tracker_uses_persistent_store = False
    payload = {"eval_id": "e1", "submission_type": kind, "era_id": 3, **pools}
    handle._handle_submission_success(payload, Receipt("sub-m"))
    assert tracker.recorded == [("e1", kind, "sub-m", 3, *expected)]
    assert tracker.marked == [("e1", kind)]
    assert list(handle._pending_submissions) == ["sub-m"] and journal_files(store_dir) == []


@pytest.mark.parametrize("vanishes", ["inside makedirs", "after makedirs"])
def test_journal_directory_removed_by_another_search_mid_write_is_made_again(handle, store_dir, monkeypatch,
                                                                             vanishes):
    real_makedirs, calls = os.makedirs, []

    def racing_makedirs(path, exist_ok=False):
        calls.append(path)
        if len(calls) > 1:
            return real_makedirs(path, exist_ok=exist_ok)
        if vanishes == "inside makedirs":  # found existing, then gone before makedirs could check
            raise FileExistsError(17, "File exists", path)
        real_makedirs(path, exist_ok=exist_ok)
        os.rmdir(path)

    monkeypatch.setattr(os, "makedirs", racing_makedirs)
    key = handle._append_receipt_journal(claimed(handle), Receipt("s1"), required=True)
    assert len(calls) == 2 and journal_files(store_dir) == [os.path.basename(handle._receipt_journal_file_path(key))]

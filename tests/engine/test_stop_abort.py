"""Ending a search: the orderly stop, the hard abort on replacement, and the last resort at collection."""
import gc
import json
import threading

import pytest

import quillmarsh.search_templates as st
from engine.helpers import FakeSyncManager, idle_template, join_all


def all_threads(h):
    return [t for t in (h._supervisor_thread, h._era_thread, h._submission_thread, h._polling_thread,
                        *h._worker_threads) if t is not None]


def recorder(h, name, calls, result=None):
    """Records the calls made on the test's own thread; the handle's threads keep the real operation."""
    me, original = threading.current_thread(), getattr(h, name)

    def record(*args):
        if threading.current_thread() is not me:
            return original(*args)
        calls.append((name, *args))
        return result
    setattr(h, name, record)


@pytest.fixture
def idle_submission_thread(monkeypatch):
    """A submission thread that only waits for stop, so that what stop and abort do is seen alone."""
    monkeypatch.setattr(st._SearchHandleImpl, "_submission_loop", lambda self: self._stop_event.wait())


def test_stop_flushes_twice_joins_releases_and_clears_the_module_state(make_handle, idle_submission_thread):
    sync = FakeSyncManager()
    h = make_handle(idle_template, n_jobs=2, sync_mgr=sync)
    st._search_active, st._active_search_handle = True, h
    calls = []
    recorder(h, "_flush_pending_receipt_finalizations", calls, True)
    h._submission_queue.put({"eval_id": "e1"})
    h.stop(join_timeout=2.0)
    assert calls == [("_flush_pending_receipt_finalizations",)] * 2
    join_all(all_threads(h), timeout=0.1)
    assert (h._stopped, h._running, h._submission_queued, h._submission_backoff) == (True, False, 0, False)
    assert h._submission_queue.empty()
    assert sync.ref_count == 0 and sync.era_callbacks == []
    assert h._tracker.search_active == [False]
    assert st._search_active is False and st._active_search_handle is None
    with pytest.raises(st.SearchError) as info:
        st.status()
    assert info.value.error_code == "NO_ACTIVE_SEARCH"
    assert h.status().running is False
    h.stop()  # a second stop returns at once
    assert len(calls) == 2 and h._tracker.search_active == [False]


def test_stopping_a_handle_that_is_not_the_active_one_leaves_the_slot_alone(make_handle):
    other = make_handle(idle_template)
    h = make_handle(idle_template)
    st._search_active, st._active_search_handle = True, other
    h.stop()
    assert st._search_active is False and st._active_search_handle is other


def test_failures_of_collaborators_during_stop_are_logged_and_stop_completes(make_handle, caplog):
    class Broken(FakeSyncManager):
        def release(self):
            raise RuntimeError("refcount lost")

    class BrokenTracker:
        def set_search_active(self, flag):
            raise OSError("read-only store")
    h = make_handle(idle_template, sync_mgr=Broken(), tracker=BrokenTracker())
    h.stop()
    assert h._stopped
    assert "Failed to release sync manager during stop: refcount lost" in caplog.messages
    assert "Failed to set search inactive: read-only store" in caplog.messages


def test_a_failing_flush_reaches_the_caller_and_a_later_stop_goes_through_again(make_handle):
    h = make_handle(idle_template)
    calls = []

    def flush():
        calls.append(1)
        if len(calls) == 1:
            raise RuntimeError("store locked")
        return True
    h._flush_pending_receipt_finalizations = flush
    with pytest.raises(RuntimeError, match="store locked"):
        h.stop()
    assert h._stopped is False
    h.stop()
    assert h._stopped is True and len(calls) == 3


def insert(conn, table, payload, owner=None):
    columns = "eval_id, eval_type, payload_json, era_id, created_at, in_flight_owner"
    conn.execute(f"INSERT INTO {table} ({columns}) VALUES (?, 'signal', ?, 3, 0.0, ?)",
                 (payload["eval_id"], json.dumps(payload, sort_keys=True), owner))


def test_abort_deletes_only_this_handles_rows_and_clears_its_state(make_handle, tracker, caplog,
                                                                   idle_submission_thread):
    sync = FakeSyncManager()
    h = make_handle(idle_template, tracker=tracker, sync_mgr=sync)
    st._search_active, st._active_search_handle = True, h
    assert h._tracker_uses_persistent_store and h._ensure_submission_claim_columns()
    assert h._ensure_retry_claim_columns()
    mine, other = h._submission_owner, "someone-else"
    conn = tracker._conn
    for table in ("submission_queue", "submission_retry"):
        insert(conn, table, {"eval_id": table + "-mine", "_submission_owner": mine})
        insert(conn, table, {"eval_id": table + "-claimed"}, owner=mine)
        insert(conn, table, {"eval_id": table + "-other", "_submission_owner": other}, owner=other)
        insert(conn, table, {"eval_id": table + "-ownerless"})
    h._retry_queue.append({"eval_id": "r"})
    h._pending_submissions["s1"] = {"eval_id": "p"}
    h._submission_queue.put({"eval_id": "q"})
    h._abort_for_replacement()
    for table in ("submission_queue", "submission_retry"):
        left = sorted(r[0] for r in conn.execute(f"SELECT eval_id FROM {table}"))
        assert left == [table + "-other", table + "-ownerless"]
    assert h._replacement_abort_requested() and h._stop_event.is_set() and h._submission_wakeup.is_set()
    assert (h._running, h._stopped, h._submission_degraded, h._polling_degraded) == (False, True, True, True)
    assert h._retry_queue == [] and h._pending_submissions == {} and h._submission_queue.empty()
    assert sync.ref_count == 0 and sync.era_callbacks == []
    assert tracker.is_search_active() is False
    assert st._search_active is False and st._active_search_handle is None
    assert join_all(all_threads(h)) is None
    flushes = []
    recorder(h, "_flush_pending_receipt_finalizations", flushes)
    h.stop()  # stop on an aborted handle returns at once
    h._abort_for_replacement()
    assert flushes == []


def test_a_failed_delete_during_abort_is_logged_and_the_abort_completes(make_handle, caplog):
    class Conn:
        def execute(self, *args):
            raise RuntimeError("database is locked")

    class Tracker:
        _conn = Conn()

        def set_search_active(self, flag):
            pass
    h = make_handle(idle_template, tracker=Tracker())
    h._submission_claim_columns_ready = h._retry_claim_columns_ready = True
    h._abort_for_replacement()
    assert h._stopped
    assert "Failed to delete replacement-aborted persistent submissions: database is locked" in caplog.messages


def test_missing_abort_primitives_are_made_on_first_use(make_handle):
    h = make_handle(idle_template, bt=None)
    submission_lock = h._submission_start_lock
    h._replacement_abort_event = None
    h._poll_start_lock = None
    assert h._replacement_abort_requested() is False
    assert isinstance(h._replacement_abort_event, threading.Event)
    assert h._poll_start_guard() is h._poll_start_lock and h._poll_start_lock is not None
    assert h._submission_start_guard() is submission_lock


def test_dropping_an_aborted_payload_removes_its_journal_entry_then_its_source(make_handle):
    h = make_handle(idle_template, bt=None)
    calls = []
    for name in ("_rewrite_receipt_journal_without", "_delete_claimed_submission_source",
                 "_update_submission_counts"):
        recorder(h, name, calls)
    payload = {"eval_id": "e"}
    h._drop_replacement_aborted_payload(payload, "key-1")
    h._drop_replacement_aborted_payload(payload)
    assert calls == [("_rewrite_receipt_journal_without", "key-1"), ("_delete_claimed_submission_source", payload),
                     ("_update_submission_counts",), ("_delete_claimed_submission_source", payload),
                     ("_update_submission_counts",)]


def test_collection_of_an_unstopped_handle_signals_and_releases(make_handle):
    sync = FakeSyncManager()
    h = make_handle(idle_template, bt=None, sync_mgr=sync)
    sync.acquire()
    stop_event = h._stop_event
    del h
    gc.collect()
    assert stop_event.is_set() and sync.ref_count == 0


@pytest.mark.parametrize("loop", ["_submission_loop", "_polling_loop"])
def test_a_stopped_search_with_nothing_in_memory_ends_its_background_loops(make_handle, loop):
    h = make_handle(idle_template, bt=None)
    h._stop_event.set()
    t = threading.Thread(target=getattr(h, loop))
    t.start()
    t.join(2.0)
    assert not t.is_alive()

// Ending a search: the orderly stop, the hard abort when a new search replaces this one, and the last
// resort at collection. Lock order, outermost first: _submission_start_lock, _poll_start_lock,
// _tracker_write_lock; `_lock` and the module's `_search_active_lock` are taken with none of those held.
#include "common/py_helpers.hpp"
#include "engine/search_handle.hpp"

#include <string>

namespace quillmarsh::st {

namespace {

bool missing(const py::object& o) { return !o || o.is_none(); }

// Drains the in-memory queue; an error other than the queue's empty error is logged with `message`.
void drain_submission_queue(SearchHandle& h, const char* message) {
    try {
        py::object get_nowait = h._submission_queue.attr("get_nowait");
        while (true) {
            try {
                get_nowait();
            } catch (py::error_already_set& e) {
                if (e.matches(h._queue_empty)) break;
                throw;
            }
        }
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e)) throw;
        log_warning(message, e.value());
    }
}

void release_sync_manager(SearchHandle& h, const char* message) {
    if (h._sync_mgr.is_none()) return;
    try {
        h._sync_mgr.attr("unregister_era_callback")(h.self().attr("_on_era_change"));
        h._sync_mgr.attr("release")();
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e)) throw;
        log_warning(message, e.value());
    }
}

void set_search_inactive(SearchHandle& h, const char* message) {
    try {
        h._tracker.attr("set_search_active")(false);
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e)) throw;
        log_warning(message, e.value());
    }
}

// The module's activity flag goes down; the active slot is cleared only if it holds this handle.
void clear_module_activity(SearchHandle& h) {
    py::module_ m = module();
    PyLockHold hold(module_attr("_search_active_lock"));
    m.attr("_search_active") = false;
    if (module_attr("_active_search_handle").is(h.self())) m.attr("_active_search_handle") = py::none();
}

}  // namespace

void SearchHandle::ensure_replacement_abort_primitives() {
    if (!missing(_replacement_abort_event) && !missing(_submission_start_lock) && !missing(_poll_start_lock)) return;
    py::module_ threading = py::module_::import("threading");
    PyLockHold hold(module_attr("_REPLACEMENT_ABORT_BOOTSTRAP_LOCK"));
    if (missing(_replacement_abort_event)) _replacement_abort_event = threading.attr("Event")();
    if (missing(_submission_start_lock)) _submission_start_lock = threading.attr("Lock")();
    if (missing(_poll_start_lock)) _poll_start_lock = threading.attr("Lock")();
}

py::object SearchHandle::replacement_abort_event_handle() {
    ensure_replacement_abort_primitives();
    return _replacement_abort_event;
}

py::object SearchHandle::submission_start_guard() {
    ensure_replacement_abort_primitives();
    return _submission_start_lock;
}

py::object SearchHandle::poll_start_guard() {
    ensure_replacement_abort_primitives();
    return _poll_start_lock;
}

bool SearchHandle::replacement_abort_requested() {
    return truthy(replacement_abort_event_handle().attr("is_set")());
}

void SearchHandle::drop_replacement_aborted_payload(py::object payload, py::object journal_key) {
    py::object me = self();
    if (!journal_key.is_none()) me.attr("_rewrite_receipt_journal_without")(journal_key);
    me.attr("_delete_claimed_submission_source")(payload);
    me.attr("_update_submission_counts")();
}

void SearchHandle::abort_for_replacement() {
    if (_stopped) return;
    py::object me = self();
    {
        PyLockHold submission_guard(submission_start_guard());
        PyLockHold poll_guard(poll_start_guard());
        PyLockHold write_guard(_tracker_write_lock);
        replacement_abort_event_handle().attr("set")();
        drain_submission_queue(*this, "Failed to drain replacement-aborted submission queue: %s");
        if (_tracker_uses_persistent_store) {
            try {
                py::str owner_pattern("%\"_submission_owner\": \"" + str(_submission_owner) + "\"%");
                py::object conn = _tracker.attr("_conn");
                struct Table {
                    const char* ensure;
                    const char* with_claims;
                    const char* without_claims;
                };
                static const Table kTables[] = {
                    {"_ensure_submission_claim_columns",
                     "DELETE FROM submission_queue WHERE payload_json LIKE ? OR in_flight_owner = ?",
                     "DELETE FROM submission_queue WHERE payload_json LIKE ?"},
                    {"_ensure_retry_claim_columns",
                     "DELETE FROM submission_retry WHERE payload_json LIKE ? OR in_flight_owner = ?",
                     "DELETE FROM submission_retry WHERE payload_json LIKE ?"},
                };
                for (const Table& t : kTables) {
                    if (truthy(me.attr(t.ensure)()))
                        conn.attr("execute")(t.with_claims, py::make_tuple(owner_pattern, _submission_owner));
                    else
                        conn.attr("execute")(t.without_claims, py::make_tuple(owner_pattern));
                }
                _tracker.attr("_conn").attr("commit")();
            } catch (py::error_already_set& e) {
                if (!is_general_exception(e)) throw;
                log_warning("Failed to delete replacement-aborted persistent submissions: %s", e.value());
            }
        }
    }
    _stop_event.attr("set")();
    try {
        _submission_wakeup.attr("set")();
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e)) throw;
        log_warning("Failed to wake replacement-aborted submission thread: %s", e.value());
    }
    {
        PyLockHold hold(_lock);
        _running = false;
        _submission_degraded = true;
        _polling_degraded = true;
        _submission_backoff = false;
        _submission_backoff_until = 0.0;
        _retry_queue.attr("clear")();
        _pending_submissions.attr("clear")();
    }
    // Only a glance at each thread: abort has made them harmless, and a new search must not wait.
    auto glance = [](const py::object& thread) {
        if (!thread || thread.is_none()) return;
        try {
            thread.attr("join")(0.05);
        } catch (py::error_already_set& e) {
            if (!is_general_exception(e)) throw;
        }
    };
    for (auto t : new_list(_worker_threads)) glance(py::reinterpret_borrow<py::object>(t));
    glance(_supervisor_thread);
    glance(_era_thread);
    glance(_submission_thread);
    glance(_polling_thread);

    release_sync_manager(*this, "Failed to release sync manager during replacement abort: %s");
    set_search_inactive(*this, "Failed to set search inactive during replacement abort: %s");
    me.attr("_update_submission_counts")();
    _stopped = true;
    clear_module_activity(*this);
}

void SearchHandle::stop(py::object join_timeout) {
    if (_stopped) return;
    py::object me = self();
    me.attr("_flush_pending_receipt_finalizations")();
    _stop_event.attr("set")();
    for (auto t : new_list(_worker_threads)) py::reinterpret_borrow<py::object>(t).attr("join")(5.0);
    for (py::object* thread : {&_supervisor_thread, &_era_thread, &_submission_thread, &_polling_thread})
        if (!thread->is_none()) thread->attr("join")(join_timeout);
    me.attr("_flush_pending_receipt_finalizations")();
    release_sync_manager(*this, "Failed to release sync manager during stop: %s");
    drain_submission_queue(*this, "Failed to drain submission queue during stop: %s");
    me.attr("_update_submission_counts")();
    {
        PyLockHold hold(_lock);
        _running = false;
        _submission_backoff = false;
        _submission_backoff_until = 0.0;
        _submission_queued = 0;
    }
    set_search_inactive(*this, "Failed to set search inactive: %s");
    _stopped = true;
    clear_module_activity(*this);
}

void SearchHandle::del() {
    if (_stopped || missing(_stop_event)) return;
    try {
        _stop_event.attr("set")();
        _running = false;
        if (_sync_mgr && !_sync_mgr.is_none()) {
            _sync_mgr.attr("unregister_era_callback")(self().attr("_on_era_change"));
            _sync_mgr.attr("release")();
        }
    } catch (py::error_already_set& e) {
        // What interpreter shutdown throws is swallowed without a word; anything else is a real fault.
        if (!e.matches(PyExc_AttributeError) && !e.matches(PyExc_RuntimeError) && !e.matches(PyExc_OSError) &&
            !e.matches(PyExc_ReferenceError))
            throw;
    }
}

}  // namespace quillmarsh::st

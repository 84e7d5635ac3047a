// The submission thread; see submission_loops.hpp.
#include "common/constants.hpp"
#include "common/py_helpers.hpp"
#include "engine/search_handle.hpp"
#include "submission/direct_submission.hpp"
#include "submission/submission_loops.hpp"
#include "submission/submission_store.hpp"

#include <algorithm>
#include <exception>
#include <string>
#include <string_view>

namespace quillmarsh::st {

namespace {

constexpr double PAUSED_STEP_SECONDS = 0.05;

bool event_is_set(const py::object& event) { return truthy(event.attr("is_set")()); }

double poll_interval() {
    py::object value = module_attr_or_none("SUBMISSION_POLL_INTERVAL");
    return value.is_none() ? SUBMISSION_POLL_INTERVAL : value.cast<double>();
}

// A pipeline operation of the handle, looked up on the Python object so that its current binding is the
// one that runs.
py::object op(SearchHandle& h, const char* name) { return h.self().attr(name); }

bool has_in_memory_work(SearchHandle& h) { return truthy(op(h, "_has_in_memory_submission_work")()); }

bool stopped(SearchHandle& h) { return event_is_set(h._stop_event); }

py::object get(py::handle payload, const char* key) { return key_or_attr(payload, key); }

// A payload that has met its final verdict: its source row goes, or, when that delete finds nothing, its
// queue id waits in `_finished_queue_ids` so that it is removed instead of sent again.
void finish_source(SearchHandle& h, py::handle payload) {
    bool deleted = truthy(op(h, "_delete_claimed_submission_source")(payload));
    py::object queue_id = get(payload, "_queue_id");
    if (!deleted && !queue_id.is_none()) {
        PyLockHold hold(h._lock);
        h._finished_queue_ids.attr("add")(queue_id);
    }
}

void on_connection_error(SearchHandle& h, py::object payload) {
    py::object queue_id = get(payload, "_queue_id");
    const double current_backoff = h._submission_backoff_seconds;
    {
        PyLockHold write(h._tracker_write_lock);
        if (h.replacement_abort_requested()) {
            op(h, "_drop_replacement_aborted_payload")(payload);
            return;
        }
        {
            PyLockHold hold(h._lock);
            h._submission_backoff = true;
            h._submission_backoff_seconds = std::min(h._submission_backoff_seconds * LOOP_BACKOFF_FACTOR,
                                                     LOOP_BACKOFF_CEILING_SECONDS);
            h._submission_backoff_until = monotonic_now() + current_backoff;
        }
        bool kept_in_store = false;
        try {
            if (!get(payload, "retry_id").is_none() && h._tracker_uses_persistent_store) {
                kept_in_store = true;
                op(h, "_defer_claimed_retry_payload")(payload, wall_now() + current_backoff, "network_error");
            } else if (!queue_id.is_none() && h._tracker_uses_persistent_store) {
                kept_in_store = true;
                op(h, "_defer_claimed_queue_payload")(payload);
            } else {
                py::str payload_json = serialize_submission_payload(submission_payload_for_storage(payload));
                h._tracker.attr("requeue_submission")(get(payload, "eval_id"), get(payload, "submission_type"),
                                                      payload_json, get(payload, "era_id"));
            }
        } catch (py::error_already_set& e) {
            if (!is_general_exception(e)) throw;
            h.record_background_failure(py::str("submission"), py::str("requeue_submission"), e.value(), true);
        }
        if (!kept_in_store) {
            h._submission_queue.attr("put")(copy_of(payload));
            h._submission_wakeup.attr("set")();
        }
    }
    submission_backoff_sleep(py::float_(current_backoff));
    op(h, "_update_submission_counts")();
}

void on_rejection(SearchHandle& h, py::object payload, py::handle exc) {
    py::object details = attr_or(exc, "details");
    if (!is_dict(details)) details = py::dict();
    py::object reason = rejection_reason(exc);
    py::object status_code = attr_or(exc, "status_code");
    {
        PyLockHold write(h._tracker_write_lock);
        if (h.replacement_abort_requested()) {
            op(h, "_drop_replacement_aborted_payload")(payload);
            return;
        }
        py::object ban_expiry = details.attr("get")("ban_expiry");
        if (py_equal(status_code, py::int_(401))) {
            op(h, "_enqueue_retry_payload")(payload, reason);
        } else if (py_equal(status_code, py::int_(403)) && !ban_expiry.is_none()) {
            // A ban is served out, not fought.
            op(h, "_enqueue_retry_payload")(payload, reason, py::arg("retry_after") = ban_expiry);
        } else {
            {
                PyLockHold hold(h._lock);
                h._submission_discarded += 1;
                h._submission_rejected += 1;
                h._submission_backoff = false;
                h._submission_backoff_seconds = LOOP_BACKOFF_RESET_SECONDS;
                h._submission_backoff_until = 0.0;
            }
            h.append_error(py::str("submission " + str(status_code) + ": " + str(reason)));
            finish_source(h, payload);
        }
    }
    op(h, "_update_submission_counts")();
}

void on_defect(SearchHandle& h, py::object payload, py::handle exc) {
    {
        PyLockHold write(h._tracker_write_lock);
        if (h.replacement_abort_requested()) {
            op(h, "_drop_replacement_aborted_payload")(payload);
            return;
        }
        {
            PyLockHold hold(h._lock);
            h._submission_discarded += 1;
            h._submission_rejected += 1;
        }
        h.append_error(py::str("submission failed: " + str(exc)));
        finish_source(h, payload);
    }
    op(h, "_update_submission_counts")();
}

}  // namespace

py::dict copy_of(py::handle payload) {
    py::object copy = py::reinterpret_steal<py::object>(PyObject_CallOneArg((PyObject*)&PyDict_Type, payload.ptr()));
    if (!copy) throw py::error_already_set();
    return copy.cast<py::dict>();
}

py::object rejection_reason(py::handle exc) {
    py::object details = attr_or(exc, "details");
    if (!is_dict(details)) details = py::dict();
    py::object reason = attr_or(exc, "reason");
    if (!truthy(reason)) reason = details.attr("get")("error");
    if (!truthy(reason)) reason = py::str("unknown");
    return reason;
}

void submission_backoff_sleep(py::object seconds) {
    const double wanted = py::float_(seconds).cast<double>();
    sleep_without_gil(std::min(wanted, poll_interval()));
}

py::object ensure_submission_idempotency_key(py::object payload) {
    py::object existing = get(payload, "idempotency_key");
    if (truthy(existing)) return existing;
    py::dict body;
    for (const char* key : SIGNAL_SUBMIT_KWARGS) {
        if (std::string_view(key) == "idempotency_key") continue;
        py::str k(key);
        if (py_contains(payload, k)) body[k] = payload[k];
    }
    py::object client_type = import_from("quillmarsh.submit", "SignalServiceClient");
    py::object key = client_type.attr("_idempotency_key_for_body")(body);
    payload[py::str("idempotency_key")] = key;
    return key;
}

bool payload_has_persistent_submission_source(SearchHandle& h, py::handle payload) {
    return h._tracker_uses_persistent_store &&
           (!get(payload, "_queue_id").is_none() || !get(payload, "retry_id").is_none());
}

void record_submission_attempt_started(SearchHandle& h, py::object payload) {
    py::object key = op(h, "_ensure_submission_idempotency_key")(payload);
    if (!h._tracker_uses_persistent_store) return;
    py::object submission_type = get(payload, "submission_type");
    py::object pool_id;
    if (py_equal(submission_type, py::str("strategy"))) {
        pool_id = get(payload, "strategy_pool_id");
        if (!truthy(pool_id)) pool_id = get(payload, "pool_id");
    } else {
        pool_id = get(payload, "pool_id");
        if (!truthy(pool_id)) pool_id = get(payload, "signal_pool_id");
    }
    py::str payload_json = serialize_submission_payload(submission_payload_for_storage(payload));
    PyLockHold write(h._tracker_write_lock);
    try {
        h._tracker.attr("record_submission_attempt_started")(get(payload, "eval_id"), submission_type, key,
                                                             get(payload, "era_id"), payload_json,
                                                             py::arg("pool_id") = pool_id);
    } catch (py::error_already_set&) {
        h._tracker.attr("_conn").attr("rollback")();
        throw;
    }
}

void submit_payload(SearchHandle& h, py::object payload) {
    py::object rejected_type = import_from("quillmarsh.submit", "SubmissionRejectedError");
    py::object receipt;
    try {
        PyLockHold guard(h.submission_start_guard());
        if (h.replacement_abort_requested()) {
            op(h, "_drop_replacement_aborted_payload")(payload);
            return;
        }
        try {
            op(h, "_record_submission_attempt_started")(payload);
        } catch (py::error_already_set& e) {
            // A claimed row survives a failed note; without one, the failure is the payload's own.
            if (!is_general_exception(e) || !payload_has_persistent_submission_source(h, payload)) throw;
            h.record_background_failure(py::str("submission"), py::str("record_submission_attempt_started"),
                                        e.value(), false);
        }
        receipt = module_attr("_submit_signal_payload")(payload);
    } catch (py::error_already_set& e) {
        if (e.matches(PyExc_ConnectionError)) return on_connection_error(h, payload);
        if (error_matches(e, rejected_type)) return on_rejection(h, payload, e.value());
        if (!is_general_exception(e)) throw;
        return on_defect(h, payload, e.value());
    } catch (const std::exception& ex) {
        return on_defect(h, payload, loop_runtime_error(ex));
    }
    if (h.replacement_abort_requested())
        op(h, "_drop_replacement_aborted_payload")(payload);
    else
        op(h, "_handle_submission_success")(payload, receipt);
}

void submission_loop_inner(SearchHandle& h) {
    while (!stopped(h) || has_in_memory_work(h)) {
        if (h._submission_degraded || h.replacement_abort_requested()) return;
        bool waited = false;
        if (!stopped(h) && !has_in_memory_work(h)) {
            h._submission_wakeup.attr("wait")(poll_interval());
            h._submission_wakeup.attr("clear")();
            waited = true;
        }
        if (h.replacement_abort_requested()) return;
        if (stopped(h) && !has_in_memory_work(h)) return;
        op(h, "_flush_pending_receipt_finalizations")();
        if (h.replacement_abort_requested()) return;

        double paused_for = 0.0;
        {
            PyLockHold hold(h._lock);
            if (h._submission_backoff) {
                const double now = monotonic_now();
                if (now < h._submission_backoff_until)
                    paused_for = h._submission_backoff_until - now;
                else
                    h._submission_backoff = false;
            }
        }
        if (paused_for > 0.0) {
            // Sending is paused. A pass that did not wait for the wake-up (work in memory after a stop)
            // sleeps a short step here instead of spinning, and sees at once when stop has drained it.
            if (!waited) sleep_without_gil(std::min(paused_for, PAUSED_STEP_SECONDS));
            continue;
        }

        py::object submit = op(h, "_submit_payload");
        while (true) {
            if ((stopped(h) && !has_in_memory_work(h)) || h.replacement_abort_requested()) break;
            bool found = false;
            py::object fresh = op(h, "_dequeue_submission_payload")();
            if (!fresh.is_none()) {
                found = true;
                submit(fresh);
                if (h._submission_backoff) break;
            }
            py::object retry = op(h, "_dequeue_retry_payload")();
            if (!retry.is_none()) {
                found = true;
                // A retry dequeued after stop or abort is not sent; its claim runs out by its lease.
                if (!stopped(h) && !h.replacement_abort_requested()) {
                    submit(retry);
                    if (h._submission_backoff) break;
                }
            }
            if (!found) break;
        }
    }
}

py::object loop_runtime_error(const std::exception& ex) {
    return py::reinterpret_borrow<py::object>(PyExc_RuntimeError)(ex.what());
}

void run_guarded_loop(SearchHandle& h, const char* component, const char* inner, const bool& degraded,
                      const double& backoff_seconds, bool (*keep_going)(SearchHandle&)) {
    while (keep_going(h) && !degraded) {
        py::object failure;
        try {
            op(h, inner)();
            return;
        } catch (py::error_already_set& e) {
            if (!is_general_exception(e)) throw;
            failure = e.value();
        } catch (const std::exception& ex) {
            failure = loop_runtime_error(ex);
        }
        h.record_background_failure(py::str(component), py::str("loop"), failure, true);
        if (degraded) return;
        submission_backoff_sleep(py::float_(backoff_seconds));
    }
}

void submission_loop(SearchHandle& h) {
    // Work in memory keeps the thread alive past a stop, so that what was accepted gets finished.
    run_guarded_loop(h, "submission", "_submission_loop_inner", h._submission_degraded, h._submission_backoff_seconds,
                     [](SearchHandle& handle) { return !stopped(handle) || has_in_memory_work(handle); });
}

}  // namespace quillmarsh::st

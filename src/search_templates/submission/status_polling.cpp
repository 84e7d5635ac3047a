// The polling thread; see submission_loops.hpp.
#include "common/constants.hpp"
#include "common/host_runtime.hpp"
#include "common/py_helpers.hpp"
#include "engine/search_handle.hpp"
#include "submission/submission_loops.hpp"

#include <algorithm>
#include <exception>
#include <string>

namespace quillmarsh::st {

namespace {

bool stopped(SearchHandle& h) { return truthy(h._stop_event.attr("is_set")()); }

double polling_interval() {
    py::object value = module_attr_or_none("POLLING_INTERVAL");
    return value.is_none() ? POLLING_INTERVAL : value.cast<double>();
}

py::object op(SearchHandle& h, const char* name) { return h.self().attr(name); }

// json.dumps(value, sort_keys=True, default=str)
py::object to_json(py::handle value) {
    static PyObject* dumps = import_from("json", "dumps").release().ptr();
    py::dict kwargs;
    kwargs["sort_keys"] = true;
    kwargs["default"] = py::module_::import("builtins").attr("str");
    return call_kw(dumps, {value}, kwargs);
}

void drop_pending(SearchHandle& h, py::handle submission_id) { h._pending_submissions.attr("pop")(submission_id, py::none()); }

}  // namespace

py::list pending_payloads(SearchHandle& h) {
    if (h.replacement_abort_requested()) return py::list();
    py::dict result;
    try {
        {
            PyLockHold write(h._tracker_write_lock);
            if (h.replacement_abort_requested()) return py::list();
            py::object read = h._tracker.is_none() ? py::object(py::none())
                                                   : callable_attr(h._tracker, "get_pending_submissions");
            py::object items = read.is_none() ? py::object(py::none()) : read();
            if (!items.is_none()) {
                for (py::handle item : items) {
                    py::dict entry;
                    py::object submission_id = key_or_attr(item, "submission_id");
                    entry["submission_id"] = submission_id;
                    entry["submission_type"] = key_or_attr(item, "eval_type", py::str("signal"));
                    entry["eval_id"] = key_or_attr(item, "eval_id");
                    entry["era_id"] = key_or_attr(item, "era_id", py::int_(1));
                    entry["sim_id"] = key_or_attr(item, "sim_id");
                    result[submission_id] = entry;
                }
            }
        }
        h.reset_background_failures(py::str("polling"));
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e)) throw;
        h.record_background_failure(py::str("polling"), py::str("get_pending_submissions"), e.value(), true);
        if (h.replacement_abort_requested()) return py::list();
    }
    py::list snapshot;
    {
        PyLockHold hold(h._lock);
        snapshot = new_list(h._pending_submissions.attr("items")());
    }
    // The memory's view wins: it is what this run has just recorded.
    for (py::handle pair : snapshot) {
        py::tuple kv = pair.cast<py::tuple>();
        result[kv[0]] = copy_of(py::object(kv[1]));
    }
    return new_list(result.attr("values")());
}

void apply_polled_status(SearchHandle& h, py::object payload, py::object poll_result) {
    py::object submission_id = key_or_attr(payload, "submission_id");
    py::object status = attr_or(poll_result, "status", py::str("is_validating"));
    py::object payment = attr_or(poll_result, "payment");
    try {
        PyLockHold write(h._tracker_write_lock);
        if (h.replacement_abort_requested()) return;
        py::object is_stats = attr_or(poll_result, "is_stats");
        if (!truthy(is_stats)) is_stats = py::dict();
        py::dict kwargs;
        kwargs["tracker"] = h._tracker;
        kwargs["data_dir"] = attr_or(h._tracker, "_data_dir");
        kwargs["is_stats_json"] = to_json(is_stats);
        kwargs["payment_json"] = to_json(payment);
        kwargs["payment"] = payment;
        for (const char* field : {"rejection_reason", "signal_pool_id", "is_correlation", "is_pnl_mi", "agent_is_pnl_mi",
                                  "is_weights_mi", "failure_reason", "failure_detail"})
            kwargs[field] = attr_or(poll_result, field);
        kwargs["require_tracker"] = true;
        call_kw(bound_sibling("notify_submission_status"), {submission_id, status}, kwargs);
        if (py_contains(module_attr("_SUBMISSION_TERMINAL_STATUSES"), status)) {
            const bool accepted = py_contains(module_attr("_SUBMISSION_ACCEPTED_STATUSES"), status);
            PyLockHold hold(h._lock);
            drop_pending(h, submission_id);
            if (accepted)
                h._submission_accepted += 1;
            else
                h._submission_rejected += 1;
        }
        h.reset_background_failures(py::str("polling"));
    } catch (py::error_already_set& e) {
        // The entry stays pending and is asked about again on the next pass.
        if (!is_general_exception(e)) throw;
        h.record_background_failure(py::str("polling"), py::str("update_submission_status"), e.value(), true);
    }
    op(h, "_update_submission_counts")();
}

void finalize_pending_error(SearchHandle& h, py::object payload, py::object status_code, py::object reason) {
    py::object submission_id = key_or_attr(payload, "submission_id");
    try {
        PyLockHold write(h._tracker_write_lock);
        if (h.replacement_abort_requested()) return;
        py::dict kwargs;
        kwargs["tracker"] = h._tracker;
        kwargs["data_dir"] = attr_or(h._tracker, "_data_dir");
        kwargs["rejection_reason"] = reason;
        kwargs["require_tracker"] = true;
        call_kw(bound_sibling("notify_submission_status"), {submission_id, py::str("is_rejected")}, kwargs);
        {
            PyLockHold hold(h._lock);
            drop_pending(h, submission_id);
            h._submission_rejected += 1;
        }
        h.append_error(py::str("poll " + str(submission_id) + ": " + str(status_code) + " " + str(reason)));
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e)) throw;
        h.record_background_failure(py::str("polling"), py::str("update_submission_status"), e.value(), true);
    }
    op(h, "_update_submission_counts")();
}

void polling_loop_inner(SearchHandle& h) {
    py::object rejected_type = import_from("quillmarsh.submit", "SubmissionRejectedError");
    while (!stopped(h)) {
        if (h._polling_degraded || h.replacement_abort_requested()) return;
        if (SearchHandle::interruptible_wait(h._stop_event, polling_interval())) return;
        if (h.replacement_abort_requested()) return;
        if (monotonic_now() < h._polling_backoff_until) continue;
        op(h, "_flush_pending_receipt_finalizations")();
        if (h.replacement_abort_requested()) return;
        {
            PyLockHold hold(h._lock);
            h._last_poll_time = py::float_(wall_now());
        }
        for (py::handle item_handle : op(h, "_pending_payloads")()) {
            py::object item = py::reinterpret_borrow<py::object>(item_handle);
            if (stopped(h)) break;
            if (h.replacement_abort_requested()) return;
            py::object poll_result;
            try {
                PyLockHold guard(h.poll_start_guard());
                if (h.replacement_abort_requested()) return;
                poll_result = module_attr("_poll_status_internal")(key_or_attr(item, "submission_id"));
            } catch (py::error_already_set& e) {
                if (e.matches(PyExc_ConnectionError)) {
                    // The service is away: pause polling, and leave the rest of this pass for later.
                    const double current_backoff = h._polling_backoff_seconds;
                    if (h.replacement_abort_requested()) return;
                    PyLockHold hold(h._lock);
                    h._polling_backoff_seconds =
                        std::min(h._polling_backoff_seconds * LOOP_BACKOFF_FACTOR, LOOP_BACKOFF_CEILING_SECONDS);
                    h._polling_backoff_until = monotonic_now() + current_backoff;
                    break;
                }
                if (error_matches(e, rejected_type)) {
                    if (h.replacement_abort_requested()) return;
                    py::object exc = e.value();
                    op(h, "_finalize_pending_error")(item, attr_or(exc, "status_code"), rejection_reason(exc));
                    continue;
                }
                if (!is_general_exception(e)) throw;
                if (h.replacement_abort_requested()) return;
                h.append_error(py::str("poll failed: " + str(e.value())));
                continue;
            } catch (const std::exception& ex) {
                if (h.replacement_abort_requested()) return;
                h.append_error(py::str("poll failed: " + str(loop_runtime_error(ex))));
                continue;
            }
            if (h.replacement_abort_requested()) return;
            op(h, "_apply_polled_status")(item, poll_result);
            if (h.replacement_abort_requested()) return;
            PyLockHold hold(h._lock);
            h._polling_backoff_seconds = LOOP_BACKOFF_RESET_SECONDS;
            h._polling_backoff_until = 0.0;
        }
    }
}

void polling_loop(SearchHandle& h) {
    run_guarded_loop(h, "polling", "_polling_loop_inner", h._polling_degraded, h._polling_backoff_seconds,
                     [](SearchHandle& handle) { return !stopped(handle); });
}

}  // namespace quillmarsh::st

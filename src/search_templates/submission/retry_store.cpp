// The retry store: payloads that the service refused for now wait in `submission_retry` for their
// `retry_after`, and are tried again at most five times.
//
// Every write here is to a row this owner has claimed, and carries the full guards of
// `_source_sql_predicates` with the owner: a row that was replaced, changed or taken over by another
// worker fails the rowcount check, and the transaction is rolled back. A move from the queue is one
// transaction, so the row is never in both tables and never in neither.
#include "common/host_runtime.hpp"
#include "common/py_helpers.hpp"
#include "engine/search_handle.hpp"
#include "submission/store_transaction.hpp"
#include "submission/submission_store.hpp"

namespace quillmarsh::st {

namespace {

// One UPDATE of a claimed row, guarded by its predicates with the owner.
void update_claimed_row(SearchHandle& h, const py::object& payload, const char* id_key, const char* id_name,
                        const char* head, py::list params, const char* stale_message,
                        const char* rollback_message) {
    py::object row_id = payload_get(payload, id_key);
    write_transaction(h, rollback_message, [&](py::object conn) -> py::object {
        py::tuple predicates = h.source_sql_predicates(payload, py::str(id_name), row_id, true);
        for (auto p : predicates[1].cast<py::list>()) params.append(p);
        std::string sql = std::string(head) + predicates[0].cast<std::string>();
        if (rowcount(execute(conn, sql.c_str(), py::tuple(params))) != 1) raise_runtime_error(stale_message);
        return py::none();
    });
}

py::object as_python_int(py::handle value) { return py::reinterpret_borrow<py::object>((PyObject*)&PyLong_Type)(value); }

}  // namespace

void SearchHandle::enqueue_retry_payload(py::object payload, py::object rejection_reason, py::object retry_after) {
    py::object previous = payload_get(payload, "retry_count");
    long long next_retry_count = (previous.is_none() ? 0 : as_python_int(previous).cast<long long>()) + 1;
    py::object payload_json = serialize_submission_payload(submission_payload_for_storage(payload));

    if (next_retry_count >= 5) {
        if (!finalize_retry_exhausted_payload(payload, rejection_reason)) {
            // The source row stays claimed; its lease runs out and the whole step comes back.
            update_submission_counts();
            return;
        }
        {
            PyLockHold hold(_lock);
            _submission_discarded += 1;
            _submission_rejected += 1;
        }
        append_error(py::str("submission retry exhausted: ") + py::str(rejection_reason));
        delete_claimed_submission_source(payload);
        update_submission_counts();
        return;
    }

    py::object retry_id = payload_get(payload, "retry_id");
    py::object queue_id = payload_get(payload, "_queue_id");
    bool taken = true;  // some store took the payload
    try {
        if (!retry_id.is_none() && _tracker_uses_persistent_store) {
            update_claimed_retry_payload(payload, payload_json, rejection_reason, py::int_(next_retry_count),
                                         retry_after);
        } else if (!retry_id.is_none()) {
            PyLockHold write_guard(_tracker_write_lock);
            _tracker.attr("increment_retry")(retry_id, payload_require(payload, "eval_id"),
                                             payload_require(payload, "submission_type"), payload_json,
                                             payload_require(payload, "era_id"), rejection_reason,
                                             next_retry_count - 1, py::arg("retry_after") = retry_after);
        } else if (!queue_id.is_none() && _tracker_uses_persistent_store) {
            move_claimed_queue_to_retry(payload, payload_json, rejection_reason, retry_after);
        } else if (next_retry_count == 1) {
            PyLockHold write_guard(_tracker_write_lock);
            _tracker.attr("enqueue_retry")(payload_require(payload, "eval_id"),
                                           payload_require(payload, "submission_type"), payload_json,
                                           payload_require(payload, "era_id"), rejection_reason,
                                           py::arg("retry_after") = retry_after);
        } else if (!_tracker_uses_persistent_store) {
            PyLockHold write_guard(_tracker_write_lock);
            _tracker.attr("increment_retry")(py::none(), payload_require(payload, "eval_id"),
                                             payload_require(payload, "submission_type"), payload_json,
                                             payload_require(payload, "era_id"), rejection_reason,
                                             next_retry_count - 1, py::arg("retry_after") = retry_after);
        } else {
            // A payload that only ever lived in memory, on a persistent store, past its first retry: no
            // table holds it, so memory keeps it rather than nothing.
            taken = false;
        }
        if (taken && _tracker_uses_persistent_store) {
            update_submission_counts();
            return;
        }
    } catch (...) {
        py::object exc = caught_general_exception();
        record_background_failure(py::str("submission"), py::str("enqueue_retry"), exc, true);
        if (_tracker_uses_persistent_store && (!queue_id.is_none() || !retry_id.is_none())) {
            // The row stays claimed and comes back when its lease runs out.
            update_submission_counts();
            return;
        }
    }
    // Nothing durable took the payload: it waits in memory.
    py::dict entry = payload.attr("copy")();
    dict_set(entry, "retry_count", py::int_(next_retry_count));
    dict_set(entry, "retry_after", retry_after);
    _retry_queue.attr("append")(entry);
    _submission_wakeup.attr("set")();
    update_submission_counts();
}

py::object SearchHandle::move_claimed_queue_to_retry(py::object payload, py::object payload_json,
                                                     py::object rejection_reason, py::object retry_after) {
    py::object queue_id = payload_get(payload, "_queue_id");
    if (queue_id.is_none()) raise_value_error("queue_id required to move submission_queue row to retry");
    require_payload_typed_keys(payload, py::str("submission_queue"), queue_id);
    return write_transaction(*this, "ROLLBACK failed during retry-move: %s", [&](py::object conn) {
        py::tuple predicates = source_sql_predicates(payload, py::str("queue_id"), queue_id, true);
        py::object pool_id = resolve_submission_pool_ids(conn, payload)[0];
        if (!is_str(pool_id) || !truthy(pool_id)) raise_value_error("pool_id must be a non-empty string");
        py::object inserted = execute(
            conn,
            "INSERT INTO submission_retry (eval_id, eval_type, pool_id, payload_json, era_id, retry_count, "
            "last_rejection_reason, retry_after, created_at) VALUES (?, ?, ?, ?, ?, 0, ?, ?, ?)",
            py::make_tuple(payload_require(payload, "eval_id"), payload_require(payload, "submission_type"),
                           pool_id, payload_json, payload_require(payload, "era_id"), rejection_reason,
                           retry_after, wall_now()));
        std::string sql = "DELETE FROM submission_queue WHERE " + predicates[0].cast<std::string>();
        if (rowcount(execute(conn, sql.c_str(), py::tuple(predicates[1]))) != 1)
            raise_runtime_error("claimed submission_queue row was not moved to retry");
        return py::object(inserted.attr("lastrowid"));
    });
}

void SearchHandle::update_claimed_retry_payload(py::object payload, py::object payload_json,
                                                py::object rejection_reason, py::object retry_count,
                                                py::object retry_after) {
    py::object retry_id = payload_get(payload, "retry_id");
    if (retry_id.is_none()) raise_value_error("retry_id required to update submission_retry row");
    require_payload_typed_keys(payload, py::str("submission_retry"), retry_id);
    if (!ensure_retry_claim_columns()) raise_runtime_error("submission_retry claim columns unavailable");
    py::list params;
    params.append(payload_json);
    params.append(retry_count);
    params.append(rejection_reason);
    params.append(retry_after);
    params.append(wall_now());
    update_claimed_row(*this, payload, "retry_id", "retry_id",
                       "UPDATE submission_retry SET payload_json=?, retry_count=?, last_rejection_reason=?, "
                       "retry_after=?, created_at=?, in_flight_owner=NULL, in_flight_at=NULL WHERE ",
                       params, "claimed submission_retry row was not updated",
                       "ROLLBACK failed during retry-payload update: %s");
}

void SearchHandle::defer_claimed_retry_payload(py::object payload, py::object retry_after,
                                               py::object rejection_reason) {
    if (payload_get(payload, "retry_id").is_none()) raise_value_error("retry_id required to defer submission_retry row");
    if (!ensure_retry_claim_columns()) raise_runtime_error("submission_retry claim columns unavailable");
    py::list params;
    params.append(serialize_submission_payload(submission_payload_for_storage(payload)));
    params.append(rejection_reason);
    params.append(retry_after);
    update_claimed_row(*this, payload, "retry_id", "retry_id",
                       "UPDATE submission_retry SET payload_json=?, last_rejection_reason=?, retry_after=?, "
                       "in_flight_owner=NULL, in_flight_at=NULL WHERE ",
                       params, "claimed submission_retry row stale or missing",
                       "ROLLBACK failed during retry-defer: %s");
}

void SearchHandle::defer_claimed_queue_payload(py::object payload) {
    if (payload_get(payload, "_queue_id").is_none()) raise_value_error("queue_id required to defer submission_queue row");
    if (!ensure_submission_claim_columns()) raise_runtime_error("submission_queue claim columns unavailable");
    update_claimed_row(*this, payload, "_queue_id", "queue_id",
                       "UPDATE submission_queue SET priority=1, in_flight_owner=NULL, in_flight_at=NULL WHERE ",
                       py::list(), "claimed submission_queue row stale or missing",
                       "ROLLBACK failed during queue-defer: %s");
}

py::object SearchHandle::retry_exhausted_submission_id(py::object payload) {
    py::object submission_id = payload_get(payload, "submission_id");
    if (truthy(submission_id)) return submission_id;
    if (!_tracker_uses_persistent_store) return py::none();
    PyLockHold write_guard(_tracker_write_lock);
    py::object row = execute(_tracker.attr("_conn"),
                             "SELECT submission_id FROM submission_status WHERE eval_id=? AND eval_type=? AND "
                             "era_id=? AND finalized_at IS NULL ORDER BY submitted_at DESC LIMIT 1",
                             py::make_tuple(payload_get(payload, "eval_id"), payload_get(payload, "submission_type"),
                                            payload_get(payload, "era_id")))
                         .attr("fetchone")();
    return row.is_none() ? py::none() : py::object(row[py::int_(0)]);
}

bool SearchHandle::finalize_retry_exhausted_payload(py::object payload, py::object rejection_reason) {
    try {
        py::object submission_id = retry_exhausted_submission_id(payload);
        if (!truthy(submission_id)) return true;  // nothing at the service to close
        py::object final_reason = truthy(rejection_reason)
                                      ? py::object(py::str("retry_exhausted: ") + py::str(rejection_reason))
                                      : py::object(py::str("retry_exhausted"));
        py::object notify = bound_sibling("notify_submission_status");
        PyLockHold write_guard(_tracker_write_lock);
        notify(submission_id, "not_useful", py::arg("tracker") = _tracker,
               py::arg("data_dir") = attr_or(_tracker, "_data_dir"), py::arg("rejection_reason") = final_reason,
               py::arg("require_tracker") = true);
        return true;
    } catch (...) {
        py::object exc = caught_general_exception();
        record_background_failure(py::str("submission"), py::str("finalize_retry_exhausted"), exc, true);
        return false;
    }
}

}  // namespace quillmarsh::st

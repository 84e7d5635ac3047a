// Queue claims under a lease.
//
// A worker claims a row of `submission_queue` or `submission_retry` by writing its owner string and the
// wall-clock time into `in_flight_owner`/`in_flight_at`, inside one "BEGIN IMMEDIATE" transaction that
// also reads the row, so that two claimers (threads of this process or other processes on the same store)
// never both get it. A claim older than the lease may be taken over; this owner's own claims are offered
// again at once, since a restarted send can only be ours. Rows leave the store only by the owner-guarded
// deletes below, or by the moves and finalisation that go through `_source_sql_predicates`.
#include "common/py_helpers.hpp"
#include "engine/search_handle.hpp"
#include "submission/store_transaction.hpp"
#include "submission/submission_store.hpp"

#include <string>
#include <utility>

namespace quillmarsh::st {

namespace {

struct ClaimSql {
    const char* table;               // source kind of a row of this table
    const char* select;
    const char* claim;
    const char* lost_message;
    const char* lost_operation;
    const char* failure_operation;
    const char* rollback_message;
};

const ClaimSql kQueueClaim = {
    "submission_queue",
    "SELECT queue_id, eval_id, eval_type, payload_json, era_id, priority, created_at FROM submission_queue "
    "WHERE in_flight_owner IS NULL OR in_flight_owner = ? OR in_flight_at IS NULL OR in_flight_at < ? "
    "ORDER BY priority DESC, queue_id ASC LIMIT 1",
    "UPDATE submission_queue SET in_flight_owner=?, in_flight_at=? WHERE queue_id=? AND "
    "(in_flight_owner IS NULL OR in_flight_owner=? OR in_flight_at IS NULL OR in_flight_at < ?)",
    "submission_queue claim lost",
    "claim_submission_queue",
    "dequeue_submission",
    "ROLLBACK failed during dequeue_submission: %s",
};

const ClaimSql kRetryClaim = {
    "submission_retry",
    "SELECT retry_id, eval_id, eval_type, payload_json, era_id, retry_count, last_rejection_reason, "
    "retry_after, created_at FROM submission_retry WHERE retry_count < 5 AND (retry_after IS NULL OR "
    "retry_after <= ?) AND (in_flight_owner IS NULL OR in_flight_owner = ? OR in_flight_at IS NULL OR "
    "in_flight_at < ?) ORDER BY created_at ASC LIMIT 1",
    "UPDATE submission_retry SET in_flight_owner=?, in_flight_at=? WHERE retry_id=? AND "
    "(in_flight_owner IS NULL OR in_flight_owner=? OR in_flight_at IS NULL OR in_flight_at < ?)",
    "submission_retry claim lost",
    "claim_submission_retry",
    "dequeue_retryable",
    "ROLLBACK failed during dequeue_retryable: %s",
};

// The claimed row, read inside the claim's transaction and decoded after it.
struct ClaimedRow {
    py::object row;  // None when no row could be had
    bool ok = false;
};

// The transaction of a claim: it reads one claimable row and writes this owner's claim on it. A lost claim or
// a store error rolls back, is recorded, and yields no row.
ClaimedRow claim_one_row(SearchHandle& h, const ClaimSql& sql, bool retry) {
    double now = wall_now();
    double expired_before = now - submission_queue_lease_seconds();
    PyLockHold write_guard(h._tracker_write_lock);
    py::object conn = h._tracker.attr("_conn");
    try {
        execute(conn, "BEGIN IMMEDIATE");
        py::tuple select_params = retry ? py::tuple(py::make_tuple(now, h._submission_owner, expired_before))
                                        : py::tuple(py::make_tuple(h._submission_owner, expired_before));
        py::object row = execute(conn, sql.select, select_params).attr("fetchone")();
        if (row.is_none()) {
            execute(conn, "COMMIT");
            h.reset_background_failures(py::str("submission"));
            return {py::none(), false};
        }
        py::object row_id = row[py::int_(0)];
        py::object cur = execute(conn, sql.claim,
                                 py::make_tuple(h._submission_owner, now, row_id, h._submission_owner, expired_before));
        if (rowcount(cur) != 1) {
            execute(conn, "ROLLBACK");
            py::object lost = py::reinterpret_borrow<py::object>(PyExc_RuntimeError)(sql.lost_message);
            h.record_background_failure(py::str("submission"), py::str(sql.lost_operation), lost, true);
            return {py::none(), false};
        }
        execute(conn, "COMMIT");
        return {row, true};
    } catch (...) {
        rollback_quietly(conn, sql.rollback_message);  // whatever the error, the transaction ends here
        py::object exc = caught_general_exception();
        h.record_background_failure(py::str("submission"), py::str(sql.failure_operation), exc, true);
        return {py::none(), false};
    }
}

// Decodes the payload of a claimed row; a row that can't be decoded is recorded and deleted for good, and
// the result is an empty map.
py::object decode_claimed_row(SearchHandle& h, const py::object& row_id, const py::object& payload_json,
                              const char* source_kind, bool retry) {
    try {
        py::object payload = load_submission_payload(payload_json);
        require_payload_typed_keys(payload, py::str(source_kind), row_id);
        return payload;
    } catch (...) {
        py::object exc = caught_general_exception();
        h.record_background_failure(py::str("submission"), py::str("payload_json decode"), exc, false);
        if (retry)
            h.delete_submission_retry_item(row_id);
        else
            h.delete_submission_queue_item(row_id);
        return py::dict();
    }
}

// What a dequeue hands out: the payload (or nothing), or nothing when a replacement abort overtook the
// payload (it is then dropped); the counts are brought up to date either way.
py::object hand_out(SearchHandle& h, py::object payload) {
    if (!payload.is_none() && h.replacement_abort_requested()) {
        h.drop_replacement_aborted_payload(payload, py::none());
        payload = py::none();
    }
    h.update_submission_counts();
    return payload;
}

// What the tracker of a store-less search hands out (dequeue_submission()/dequeue_retryable()): a map is
// the payload itself, anything else an item with `queue_id` and `payload_json`. When it gave something,
// the dequeue returns `payload` (None if an abort dropped it); else the dequeue goes on to memory.
struct TrackerTake {
    bool returned = false;  // the caller returns `payload`
    py::object payload;
};

TrackerTake take_from_tracker(SearchHandle& h, const char* method) {
    py::object item;
    try {
        item = h._tracker.attr(method)();
    } catch (...) {
        py::object exc = caught_general_exception();
        h.record_background_failure(py::str("submission"), py::str(method), exc, true);
        return {};
    }
    if (item.is_none()) return {};
    py::object payload;
    if (is_dict(item)) {
        payload = item.attr("copy")();
    } else {
        payload = h.payload_from_tracker_item(item);
        if (payload.is_none()) return {};
    }
    return {true, hand_out(h, payload)};
}

// Both dequeues open alike: nothing while a replacement aborts or a receipt waits for the store, then a
// tracker without a persistent store is asked first. True when that settled the dequeue's result.
bool open_dequeue(SearchHandle& h, const char* tracker_method, py::object& result) {
    if (h.replacement_abort_requested() || !h.flush_pending_receipt_finalizations()) {
        h.update_submission_counts();
        result = py::none();
        return true;
    }
    if (h._tracker_uses_persistent_store) return false;
    TrackerTake taken = take_from_tracker(h, tracker_method);
    if (taken.returned) result = taken.payload;
    return taken.returned;
}

// A dequeue from the persistent store: peek until a payload, nothing, or a reason to stop (stop, abort,
// degraded submission); a payload that an abort overtook is dropped.
py::object dequeue_from_store(SearchHandle& h, bool retry) {
    py::object payload;
    while (true) {
        if (truthy(h._stop_event.attr("is_set")()) || h._submission_degraded || h.replacement_abort_requested()) {
            h.update_submission_counts();
            return py::none();
        }
        payload = retry ? h.peek_retry_payload() : h.peek_submission_payload();
        if (payload.is_none()) {
            h.update_submission_counts();
            return py::none();
        }
        if (py::len(payload) != 0) break;
    }
    if (h.replacement_abort_requested()) {
        h.drop_replacement_aborted_payload(payload, py::none());
        h.update_submission_counts();
        return py::none();
    }
    h.reset_background_failures(py::str("submission"));
    h.update_submission_counts();
    return payload;
}

// Deletes by id, provided the row is unclaimed or claimed by this owner.
// One delete under the write lock, committed: true if it removed exactly one row. `statement()` gives the
// SQL and its parameters; any failure, its own included, is recorded under `operation` as nothing removed.
template <class Statement>
bool committed_delete(SearchHandle& h, const char* operation, Statement&& statement) {
    try {
        auto [sql, params] = statement();
        PyLockHold write_guard(h._tracker_write_lock);
        py::object conn = h._tracker.attr("_conn");
        py::object cur = execute(conn, sql.c_str(), params);
        conn.attr("commit")();
        return rowcount(cur) == 1;
    } catch (...) {
        py::object exc = caught_general_exception();
        h.record_background_failure(py::str("submission"), py::str(operation), exc, true);
        return false;
    }
}

bool delete_item(SearchHandle& h, const char* sql, const py::object& row_id, const char* operation) {
    if (!h._tracker_uses_persistent_store) return false;
    return committed_delete(h, operation, [&] {
        return std::make_pair(std::string(sql), py::make_tuple(row_id, h._submission_owner));
    });
}

// Deletes the claimed row of a payload, guarded by its content and by this owner (or no owner).
bool delete_payload(SearchHandle& h, const py::object& payload, const char* id_key, const char* id_name,
                    const char* head, const char* operation) {
    py::object row_id = payload_get(payload, id_key);
    if (row_id.is_none() || !h._tracker_uses_persistent_store) return false;
    return committed_delete(h, operation, [&] {
        py::tuple predicates = h.source_sql_predicates(payload, py::str(id_name), row_id, false);
        py::list params = predicates[1].cast<py::list>();
        params.append(h._submission_owner);
        std::string sql = std::string(head) + predicates[0].cast<std::string>() +
                          " AND (in_flight_owner IS NULL OR in_flight_owner=?)";
        return std::make_pair(sql, py::tuple(params));
    });
}

}  // namespace

bool SearchHandle::ensure_submission_claim_columns() {
    return ensure_claim_columns(self(), ClaimTable::SubmissionQueue);
}

bool SearchHandle::ensure_retry_claim_columns() { return ensure_claim_columns(self(), ClaimTable::SubmissionRetry); }

py::set SearchHandle::persistent_table_columns(const std::string& table_name) {
    return quillmarsh::st::persistent_table_columns(_tracker.attr("_conn"), table_name);
}

py::object SearchHandle::peek_submission_payload() {
    if (!ensure_submission_claim_columns()) return py::none();
    ClaimedRow claimed = claim_one_row(*this, kQueueClaim, false);
    if (!claimed.ok) return py::none();
    py::object row = claimed.row;
    py::object queue_id = row[py::int_(0)];
    bool finished;
    {
        PyLockHold hold(_lock);
        finished = py_contains(_finished_queue_ids, queue_id);
    }
    if (finished) {
        if (delete_submission_queue_item(queue_id)) {
            PyLockHold hold(_lock);
            _finished_queue_ids.attr("discard")(queue_id);
        }
        return py::dict();
    }
    py::object payload_json = row[py::int_(3)];
    py::object payload = decode_claimed_row(*this, queue_id, payload_json, kQueueClaim.table, false);
    if (py::len(payload) == 0) return payload;
    dict_set(payload, "_queue_id", queue_id);
    dict_set(payload, "_source_created_at", py::object(row[py::int_(6)]));
    dict_set(payload, "_source_payload_json", payload_json);
    return payload;
}

py::object SearchHandle::peek_retry_payload() {
    if (!ensure_retry_claim_columns()) return py::none();
    ClaimedRow claimed = claim_one_row(*this, kRetryClaim, true);
    if (!claimed.ok) return py::none();
    py::object row = claimed.row;
    py::object retry_id = row[py::int_(0)];
    py::object payload_json = row[py::int_(3)];
    py::object payload = decode_claimed_row(*this, retry_id, payload_json, kRetryClaim.table, true);
    if (py::len(payload) == 0) return payload;
    dict_set(payload, "retry_count", py::object(row[py::int_(5)]));
    dict_set(payload, "retry_after", py::object(row[py::int_(7)]));
    dict_set(payload, "retry_id", retry_id);
    dict_set(payload, "_source_created_at", py::object(row[py::int_(8)]));
    dict_set(payload, "_source_payload_json", payload_json);
    return payload;
}

py::object SearchHandle::dequeue_submission_payload() {
    py::object opened;
    if (open_dequeue(*this, "dequeue_submission", opened)) return opened;
    py::object item = py::none();
    try {
        item = _submission_queue.attr("get_nowait")();
    } catch (py::error_already_set& e) {
        if (!e.matches(_queue_empty)) {
            if (!is_general_exception(e)) throw;
            log_warning("Failed to get from submission queue: %s", e.value());
        }
        item = py::none();
    }
    if (!_tracker_uses_persistent_store) return hand_out(*this, item);
    // In persistent mode an item of the in-memory queue is only a wake-up: the work comes from the store.
    return dequeue_from_store(*this, false);
}

py::object SearchHandle::dequeue_retry_payload() {
    py::object opened;
    if (open_dequeue(*this, "dequeue_retryable", opened)) return opened;
    // A due entry of the in-memory retry list, the oldest first, in every mode.
    double now = wall_now();
    py::list snapshot = new_list(_retry_queue);
    for (size_t i = 0; i < snapshot.size(); ++i) {
        py::object retry_after = payload_get(snapshot[i], "retry_after");
        if (!retry_after.is_none() && py_gt(retry_after, py::float_(now))) continue;
        return hand_out(*this, _retry_queue.attr("pop")(i));
    }
    if (!_tracker_uses_persistent_store) {
        update_submission_counts();
        return py::none();
    }
    return dequeue_from_store(*this, true);
}

py::object SearchHandle::payload_from_tracker_item(py::object tracker_item) {
    try {
        py::object queue_id = attr_or(tracker_item, "queue_id");
        py::object payload = load_submission_payload(attr_or(tracker_item, "payload_json"));
        require_payload_typed_keys(payload, py::str("tracker_item"), queue_id);
        if (!queue_id.is_none() && !py_contains(payload, py::str("_queue_id")))
            dict_set(payload, "_queue_id", queue_id);
        return payload;
    } catch (...) {
        py::object exc = caught_general_exception();
        record_background_failure(py::str("submission"), py::str("payload_json decode"), exc, false);
        return py::none();
    }
}

py::tuple SearchHandle::source_sql_predicates(py::object payload, py::object id_name, py::object source_id,
                                              bool require_owner) {
    bool queue = is_str(id_name) && id_name.cast<std::string>() == "queue_id";
    require_payload_typed_keys(payload, py::str(queue ? "submission_queue" : "submission_retry"), source_id);
    std::string condition = str(id_name) + "=? AND eval_id=? AND eval_type=? AND era_id=?";
    py::list params;
    params.append(source_id);
    params.append(payload_require(payload, "eval_id"));
    params.append(payload_require(payload, "submission_type"));
    params.append(payload_require(payload, "era_id"));
    py::object created_at = payload_get(payload, "_source_created_at");
    if (!created_at.is_none()) {
        condition += " AND created_at=?";
        params.append(created_at);
    }
    py::object source_json = payload_get(payload, "_source_payload_json");
    if (!source_json.is_none()) {
        condition += " AND payload_json=?";
        params.append(source_json);
    }
    if (require_owner) {
        condition += " AND in_flight_owner=?";
        params.append(_submission_owner);
    }
    return py::make_tuple(py::str(condition), params);
}

bool SearchHandle::delete_submission_queue_item(py::object queue_id) {
    return delete_item(*this,
                       "DELETE FROM submission_queue WHERE queue_id=? AND (in_flight_owner IS NULL OR "
                       "in_flight_owner=?)",
                       queue_id, "delete_submission_queue");
}

bool SearchHandle::delete_submission_retry_item(py::object retry_id) {
    return delete_item(*this,
                       "DELETE FROM submission_retry WHERE retry_id=? AND (in_flight_owner IS NULL OR "
                       "in_flight_owner=?)",
                       retry_id, "delete_submission_retry");
}

bool SearchHandle::delete_submission_queue_payload(py::object payload) {
    return delete_payload(*this, payload, "_queue_id", "queue_id", "DELETE FROM submission_queue WHERE ",
                          "delete_submission_queue");
}

bool SearchHandle::delete_submission_retry_payload(py::object payload) {
    return delete_payload(*this, payload, "retry_id", "retry_id", "DELETE FROM submission_retry WHERE ",
                          "delete_submission_retry");
}

bool SearchHandle::delete_claimed_submission_source(py::object payload) {
    if (!payload_get(payload, "retry_id").is_none()) return delete_submission_retry_payload(payload);
    return delete_submission_queue_payload(payload);
}

bool SearchHandle::has_in_memory_submission_work() {
    try {
        if (py::int_(_submission_queue.attr("qsize")()).cast<long long>() > 0) return true;
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e)) throw;
        py::object type_name = py::type::of(e.value()).attr("__name__");
        if (e.matches(PyExc_NotImplementedError))
            log_debug("Submission queue size unavailable: %s", type_name);
        else
            log_warning("Failed to inspect submission queue size: %s", type_name);
    }
    PyLockHold hold(_lock);
    return py::len(_retry_queue) > 0 || py::len(_pending_receipts_by_queue_id) > 0;
}

}  // namespace quillmarsh::st

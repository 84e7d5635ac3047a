// A receipt becomes fact: one transaction inserts the status row, marks the evaluation as submitted and
// deletes the source row; then the in-memory state takes the receipt over. When the store refuses, the
// receipt waits in `_pending_receipts_by_queue_id` and in its journal file until a later flush records it.
// Also here: the status counters and the nudge that fires when the discovery rate declines.
#include "common/host_runtime.hpp"
#include "common/py_helpers.hpp"
#include "engine/search_handle.hpp"
#include "submission/store_transaction.hpp"
#include "submission/submission_store.hpp"

#include <initializer_list>
#include <string>

namespace quillmarsh::st {

namespace {

// The payload's sim_id, or the stable substitute when it is absent or empty.
py::object submission_sim_id(const py::object& payload, const py::object& eval_id, const py::object& submission_type) {
    py::object sim_id = payload_get(payload, "sim_id");
    if (truthy(sim_id)) return sim_id;
    return bound_sibling("_synthetic_submission_sim_id")(eval_id, submission_type);
}

bool is_strategy(const py::object& submission_type) {
    return is_str(submission_type) && submission_type.cast<std::string>() == "strategy";
}

// `a or b`: the first when truthy, else the second.
py::object either(py::object a, py::object b) { return truthy(a) ? a : b; }

}  // namespace

void SearchHandle::record_submission_and_delete_queue(py::object payload, py::object receipt) {
    py::object submission_type = payload_require(payload, "submission_type");
    py::object eval_id = payload_require(payload, "eval_id");
    py::object era_id = payload_require(payload, "era_id");
    py::object sim_id = submission_sim_id(payload, eval_id, submission_type);
    py::object submission_id = key_or_attr(receipt, "submission_id");

    if (!_tracker_uses_persistent_store) {
        py::object pool_id, signal_pool_id = payload_get(payload, "signal_pool_id");
        if (is_strategy(submission_type)) {
            pool_id = either(payload_get(payload, "strategy_pool_id"), payload_get(payload, "pool_id"));
        } else {
            pool_id = either(payload_get(payload, "pool_id"), payload_get(payload, "signal_pool_id"));
            if (signal_pool_id.is_none()) signal_pool_id = pool_id;
        }
        {
            PyLockHold write_guard(_tracker_write_lock);
            _tracker.attr("record_submission")(eval_id, submission_type, submission_id, era_id,
                                               py::arg("sim_id") = sim_id, py::arg("pool_id") = pool_id,
                                               py::arg("signal_pool_id") = signal_pool_id);
        }
        maybe_fire_discovery_rate_declining_nudge();
        return;
    }

    bool journal_replay = truthy(payload_get(payload, "_journal_replay"));
    write_transaction(*this, "ROLLBACK failed during submission commit: %s", [&](py::object conn) {
        py::tuple pools = resolve_submission_pool_ids(conn, payload);
        py::object pool_id = pools[0];
        if (!is_str(pool_id) || !truthy(pool_id)) raise_value_error("pool_id must be a non-empty string");
        bound_sibling("_ensure_submission_sim_parent")(conn, sim_id, era_id);
        execute(conn,
                "INSERT INTO submission_status (eval_id, eval_type, pool_id, signal_pool_id, submission_id, "
                "sim_id, era_id, status, submitted_at) VALUES (?, ?, ?, ?, ?, ?, ?, 'pending', ?)",
                py::make_tuple(eval_id, submission_type, pool_id, pools[1], submission_id, sim_id, era_id,
                               wall_now()));
        std::string table = is_strategy(submission_type) ? "strategy_evaluations" : "signal_evaluations";
        std::string mark = "UPDATE " + table + " SET submitted=1 WHERE eval_id=?";
        if (rowcount(execute(conn, mark.c_str(), py::make_tuple(eval_id))) != 1)
            raise_value_error("eval_id=" + str(eval_id) + " not found in " + table);

        py::object retry_id = payload_get(payload, "retry_id");
        bool retry = !retry_id.is_none();
        py::object source_id = retry ? retry_id : payload_get(payload, "_queue_id");
        py::object cur;
        if (!journal_replay) {
            const char* sql = retry ? "DELETE FROM submission_retry WHERE retry_id=? AND in_flight_owner=?"
                                    : "DELETE FROM submission_queue WHERE queue_id=? AND in_flight_owner=?";
            cur = execute(conn, sql, py::make_tuple(source_id, _submission_owner));
        } else {
            // The owner of the crashed run is gone: the row is pinned by its content instead.
            std::string sql = retry ? "DELETE FROM submission_retry WHERE retry_id=? AND eval_id=? AND "
                                      "eval_type=? AND era_id=?"
                                    : "DELETE FROM submission_queue WHERE queue_id=? AND eval_id=? AND "
                                      "eval_type=? AND era_id=?";
            py::list params;
            for (py::handle p : {source_id.ptr(), eval_id.ptr(), submission_type.ptr(), era_id.ptr()})
                params.append(p);
            py::object created_at = payload_get(payload, "_source_created_at");
            if (!created_at.is_none()) {
                sql += " AND created_at=?";
                params.append(created_at);
            }
            py::object source_json = payload_get(payload, "_source_payload_json");
            if (!source_json.is_none()) {
                sql += " AND payload_json=?";
                params.append(source_json);
            }
            cur = execute(conn, sql.c_str(), py::tuple(params));
        }
        // A claim lost between send and commit rolls everything back; the receipt then waits.
        if (rowcount(cur) != 1) raise_runtime_error("claimed submission row was not deleted");
        return py::none();
    });
    maybe_fire_discovery_rate_declining_nudge();
}

void SearchHandle::finalize_persisted_receipt(py::object payload, py::object submission_id) {
    py::object submission_type = payload_require(payload, "submission_type");
    py::object eval_id = payload_require(payload, "eval_id");
    py::object era_id = payload_require(payload, "era_id");
    py::object sim_id = submission_sim_id(payload, eval_id, submission_type);
    long long before, after;
    {
        PyLockHold hold(_lock);
        py::dict item;
        item["submission_id"] = submission_id;
        item["submission_type"] = submission_type;
        item["eval_id"] = eval_id;
        item["era_id"] = era_id;
        item["sim_id"] = sim_id;
        _pending_submissions[submission_id] = item;
        _submission_backoff = false;
        _submission_backoff_seconds = 5.0;
        _submission_backoff_until = 0.0;
        before = _total_found;
        _total_found += 1;
        after = _total_found;
    }
    struct Mark {
        long long count;
        const char* trigger;
    };
    for (const Mark& mark : {Mark{1, "first_signal"}, Mark{10, "10_signals"}, Mark{100, "strategy_unlock"}})
        if (before < mark.count && after >= mark.count) safe_update_nudge(py::str(mark.trigger), py::dict());
    reset_background_failures(py::str("submission"));
}

void SearchHandle::handle_submission_success(py::object payload, py::object receipt) {
    py::object eval_id = payload_require(payload, "eval_id");
    py::object submission_type = payload_require(payload, "submission_type");
    payload_require(payload, "era_id");
    py::object journal_key = py::none();
    try {
        PyLockHold write_guard(_tracker_write_lock);
        if (replacement_abort_requested()) {
            drop_replacement_aborted_payload(payload, py::none());
            update_submission_counts();
            return;
        }
        journal_key = append_receipt_journal(payload, receipt, false);
        record_submission_and_delete_queue(payload, receipt);
        rewrite_receipt_journal_without(journal_key);
        if (payload_get(payload, "_queue_id").is_none() || !_tracker_uses_persistent_store) {
            try {
                _tracker.attr("mark_submitted")(eval_id, py::arg("eval_type") = submission_type);
            } catch (py::error_already_set& e) {
                if (!e.matches(PyExc_TypeError)) throw;
                _tracker.attr("mark_submitted")(eval_id, submission_type);
            }
        }
        finalize_persisted_receipt(payload, key_or_attr(receipt, "submission_id"));
    } catch (...) {
        py::object exc = caught_general_exception();
        PyLockHold write_guard(_tracker_write_lock);
        if (replacement_abort_requested()) {
            drop_replacement_aborted_payload(payload, journal_key);
            update_submission_counts();
            return;
        }
        // Another search on this store replayed the journal entry and committed it first: the receipt is
        // recorded, and that search follows it.
        if (receipt_recorded_meanwhile(key_or_attr(receipt, "submission_id"))) {
            rewrite_receipt_journal_without(journal_key);
            update_submission_counts();
            return;
        }
        // The commit failed: now the journal must hold the receipt, whatever it takes.
        if (journal_key.is_none() && !receipt_journal_entry(payload, receipt).is_none())
            journal_key = append_receipt_journal_until_durable(payload, receipt);
        py::object pair_key = py::none();
        py::object queue_id = payload_get(payload, "_queue_id");
        py::object retry_id = payload_get(payload, "retry_id");
        if (!queue_id.is_none())
            pair_key = py::make_tuple("queue", queue_id);
        else if (!retry_id.is_none())
            pair_key = py::make_tuple("retry", retry_id);
        if (!pair_key.is_none()) {
            PyLockHold hold(_lock);
            _pending_receipts_by_queue_id[pair_key] = py::make_tuple(payload.attr("copy")(), receipt);
        }
        record_background_failure(py::str("submission"), py::str("record_submission"), exc, true);
    }
    update_submission_counts();
}

bool SearchHandle::flush_pending_receipt_finalizations() {
    PyLockHold write_guard(_tracker_write_lock);
    if (replacement_abort_requested()) {
        // Deliberately discarded: the journal files stay for whoever owns the store next.
        PyLockHold hold(_lock);
        _pending_receipts_by_queue_id.attr("clear")();
        return false;
    }
    py::list snapshot;
    {
        PyLockHold hold(_lock);
        snapshot = new_list(_pending_receipts_by_queue_id.attr("items")());
    }
    for (auto item : snapshot) {
        py::object pair_key = item[py::int_(0)];
        py::object value = item[py::int_(1)];
        py::object payload = value[py::int_(0)];
        py::object receipt = value[py::int_(1)];
        py::object submission_id = key_or_attr(receipt, "submission_id");
        bool recorded_here = true;
        try {
            record_submission_and_delete_queue(payload, receipt);
        } catch (...) {
            py::object exc = caught_general_exception();
            // Recorded meanwhile by another search's replay of the journal entry: that search follows it.
            recorded_here = false;
            if (!receipt_recorded_meanwhile(submission_id)) {
                record_background_failure(py::str("submission"), py::str("record_submission"), exc, true);
                return false;
            }
        }
        {
            PyLockHold hold(_lock);
            _pending_receipts_by_queue_id.attr("pop")(pair_key, py::none());
        }
        rewrite_receipt_journal_without(receipt_journal_key_for_payload(payload, submission_id));
        if (recorded_here) finalize_persisted_receipt(payload, submission_id);
    }
    return replay_receipt_journal();
}

void SearchHandle::update_submission_counts() {
    long long queued = 0;
    try {
        queued = py::int_(_submission_queue.attr("qsize")()).cast<long long>();
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e)) throw;
        queued = 0;
    }
    PyLockHold hold(_lock);
    _submission_queued = queued;
    _submission_pending = static_cast<long long>(py::len(_pending_submissions));
    _submission_retrying = static_cast<long long>(py::len(_retry_queue));
}

void SearchHandle::maybe_fire_discovery_rate_declining_nudge() {
    try {
        if (!_tracker_uses_persistent_store) return;
        py::object conn = attr_or(_tracker, "_conn");
        if (conn.is_none()) return;
        double now = wall_now();
        double current_window_start = now - 21600.0;
        double prior_window_start = now - 43200.0;
        long long prior_count, current_count;
        {
            PyLockHold write_guard(_tracker_write_lock);
            prior_count = py::int_(execute(conn,
                                           "SELECT COUNT(*) FROM submission_status WHERE submitted_at >= ? AND "
                                           "submitted_at < ?",
                                           py::make_tuple(prior_window_start, current_window_start))
                                       .attr("fetchone")()[py::int_(0)])
                              .cast<long long>();
            current_count = py::int_(execute(conn,
                                             "SELECT COUNT(*) FROM submission_status WHERE submitted_at >= ? AND "
                                             "submitted_at <= ?",
                                             py::make_tuple(current_window_start, now))
                                         .attr("fetchone")()[py::int_(0)])
                                .cast<long long>();
        }
        double prior_window = static_cast<double>(prior_count) / 6.0;
        double current_window = static_cast<double>(current_count) / 6.0;
        bool declining = prior_window > 0.0 && current_window < 0.7 * prior_window;
        bool should_fire = false;
        {
            PyLockHold hold(_lock);
            if (declining && !_discovery_rate_declining_nudge_active) {
                _discovery_rate_declining_nudge_active = true;
                should_fire = true;
            } else if (!declining) {
                _discovery_rate_declining_nudge_active = false;
            }
        }
        if (should_fire) {
            py::dict context;
            context["current_window"] = current_window;
            context["prior_window"] = prior_window;
            safe_update_nudge(py::str("discovery_rate_declining"), context);
        }
    } catch (...) {
        py::object exc = caught_general_exception();
        log_warning("discovery_rate_declining nudge evaluation failed: %s", exc);
    }
}

}  // namespace quillmarsh::st

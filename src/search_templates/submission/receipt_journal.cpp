// The handle's side of the receipt journal: where it lives, what an entry holds, writing one durably,
// reading, removing and replaying entries.
#include "submission/receipt_journal.hpp"

#include "common/constants.hpp"
#include "common/py_helpers.hpp"
#include "engine/search_handle.hpp"
#include "submission/store_transaction.hpp"

#include <algorithm>
#include <string>

namespace quillmarsh::st {

namespace {

py::object os_path() {
    static PyObject* path = py::module_::import("os.path").release().ptr();
    return py::reinterpret_borrow<py::object>(path);
}

py::object os_module() {
    static PyObject* os = py::module_::import("os").release().ptr();
    return py::reinterpret_borrow<py::object>(os);
}

bool missing_or_empty(const py::object& value) { return !value || value.is_none() || !truthy(value); }

// The pause between two attempts at a write that must succeed: the module's `_submission_backoff_sleep`
// when it is bound, else the same capped sleep with the GIL released.
void backoff_sleep(double seconds) {
    py::object sleep = module_attr_or_none("_submission_backoff_sleep");
    if (!sleep.is_none()) {
        sleep(seconds);
        return;
    }
    sleep_without_gil(std::min(seconds, SUBMISSION_POLL_INTERVAL));
}

bool is_exact_text(const py::object& value, const char* text) {
    return is_str(value) && value.cast<std::string>() == text;
}

}  // namespace

py::object SearchHandle::receipt_journal_path() {
    py::object base = _data_dir ? _data_dir : py::none();
    if (missing_or_empty(base)) base = attr_or(_tracker, "_data_dir");
    if (missing_or_empty(base)) {
        py::object db_path = attr_or(_tracker, "_db_path");
        base = missing_or_empty(db_path) ? py::object(py::none()) : py::object(os_path().attr("dirname")(db_path));
    }
    if (missing_or_empty(base)) return py::none();
    return os_path().attr("join")(base, RECEIPT_JOURNAL_DIR_NAME);
}

py::object SearchHandle::receipt_journal_entry(py::object payload, py::object receipt) {
    if (!_tracker_uses_persistent_store) return py::none();
    py::object retry_id = payload_get(payload, "retry_id");
    py::object queue_id = payload_get(payload, "_queue_id");
    if (retry_id.is_none() && queue_id.is_none()) return py::none();
    py::dict entry;
    entry["source_kind"] = py::str(retry_id.is_none() ? "queue" : "retry");
    entry["source_id"] = retry_id.is_none() ? queue_id : retry_id;
    entry["submission_id"] = key_or_attr(receipt, "submission_id");
    entry["payload"] = payload.attr("copy")();
    entry["created_at"] = wall_now();
    return entry;
}

py::object SearchHandle::receipt_journal_key(py::object entry) { return receipt_journal_key_of_entry(entry); }

py::object SearchHandle::receipt_journal_key_for_payload(py::object payload, py::object submission_id) {
    py::object retry_id = payload_get(payload, "retry_id");
    if (!retry_id.is_none()) return py::make_tuple("retry", py::str(retry_id), py::str(submission_id));
    py::object queue_id = payload_get(payload, "_queue_id");
    if (!queue_id.is_none()) return py::make_tuple("queue", py::str(queue_id), py::str(submission_id));
    return py::none();
}

py::object SearchHandle::receipt_journal_file_path(py::object key) {
    if (key.is_none()) return py::none();
    py::object directory = receipt_journal_path();
    if (directory.is_none()) return py::none();
    return os_path().attr("join")(directory, receipt_journal_file_name(key));
}

py::object SearchHandle::append_receipt_journal(py::object payload, py::object receipt, bool required) {
    py::object entry = receipt_journal_entry(payload, receipt);
    if (entry.is_none()) return py::none();
    py::object directory = receipt_journal_path();
    py::object key = receipt_journal_key(entry);
    py::object path = receipt_journal_file_path(key);
    if (directory.is_none() || path.is_none()) {
        if (required) raise_runtime_error("receipt journal path unavailable");
        return py::none();
    }
    try {
        py::object tmp_path = path + py::str(".") + py::str(_submission_owner) + py::str(".tmp");
        py::str text = receipt_journal_text(entry);
        // Another search on this store removes the directory when its last entry goes. One that vanishes
        // between its creation here and the temporary file's is created again; one that vanishes inside
        // makedirs (found existing, then gone before it could check) surfaces as FileExistsError.
        for (int attempt = 1;; ++attempt) {
            try {
                os_module().attr("makedirs")(directory, py::arg("exist_ok") = true);
                write_receipt_journal_file(directory, path, tmp_path, text);
                return key;
            } catch (py::error_already_set& e) {
                bool vanished = e.matches(PyExc_FileNotFoundError) || e.matches(PyExc_FileExistsError);
                if (attempt >= 5 || !vanished) throw;
            }
        }
    } catch (...) {
        if (required) throw;
        py::object exc = caught_general_exception();
        record_background_failure(py::str("submission"), py::str("receipt_journal_write"), exc, false);
        return py::none();
    }
}

py::object SearchHandle::append_receipt_journal_until_durable(py::object payload, py::object receipt) {
    // No exit by stop, abort or count: this is the last copy of a receipt the service has accepted.
    while (true) {
        try {
            return append_receipt_journal(payload, receipt, true);
        } catch (...) {
            py::object exc = caught_general_exception();
            record_background_failure(py::str("submission"), py::str("receipt_journal_write"), exc, true);
        }
        backoff_sleep(_submission_backoff_seconds);
    }
}

py::list SearchHandle::read_receipt_journal() {
    py::list entries;
    py::object directory = receipt_journal_path();
    if (directory.is_none() || !truthy(os_path().attr("isdir")(directory))) return entries;
    py::list names;
    try {
        names = py::module_::import("builtins").attr("sorted")(os_module().attr("listdir")(directory));
    } catch (...) {
        py::object exc = caught_general_exception();
        record_background_failure(py::str("submission"), py::str("receipt_journal_read"), exc, true);
        return py::list();
    }
    py::object json = py::module_::import("json");
    py::object io = py::module_::import("io");
    for (auto name : names) {
        if (!truthy(name.attr("endswith")(".json"))) continue;
        try {
            py::object path = os_path().attr("join")(directory, name);
            py::object f;
            try {
                f = io.attr("open")(path, "r", py::arg("encoding") = "utf-8");
            } catch (py::error_already_set& e) {
                // Finished and removed by another search on this store since the listing: nothing to read.
                if (e.matches(PyExc_FileNotFoundError)) continue;
                throw;
            }
            py::object entry;
            try {
                entry = json.attr("load")(f);
            } catch (...) {
                f.attr("close")();
                throw;
            }
            f.attr("close")();
            // A file that parses to something other than an entry is as damaged as one that doesn't parse.
            if (!is_dict(entry)) raise_value_error("receipt journal entry must be an object: " + str(name));
            entries.append(entry);
        } catch (...) {
            py::object exc = caught_general_exception();
            record_background_failure(py::str("submission"), py::str("receipt_journal_decode"), exc, false);
        }
    }
    return entries;
}

void SearchHandle::rewrite_receipt_journal_without(py::object completed_key) {
    try {
        py::object path = receipt_journal_file_path(completed_key);
        if (path.is_none()) return;
        py::object os = os_module();
        try {
            os.attr("remove")(path);
        } catch (py::error_already_set& e) {
            if (!e.matches(PyExc_FileNotFoundError)) throw;
        }
        py::object directory = receipt_journal_path();
        if (!directory.is_none() && truthy(os_path().attr("isdir")(directory))) {
            bool gone = false;
            try {
                fsync_directory(directory);
            } catch (py::error_already_set& e) {
                // Removed by another search on this store since the test above: nothing left to sync.
                if (!e.matches(PyExc_FileNotFoundError)) throw;
                gone = true;
            }
            if (!gone) {
                try {
                    os.attr("rmdir")(directory);  // only once the last entry is gone
                } catch (py::error_already_set& e) {
                    if (!e.matches(PyExc_OSError)) throw;
                }
            }
        }
    } catch (...) {
        py::object exc = caught_general_exception();
        record_background_failure(py::str("submission"), py::str("receipt_journal_compact"), exc, false);
    }
}

bool SearchHandle::submission_status_exists(py::object submission_id) {
    PyLockHold write_guard(_tracker_write_lock);
    py::object row = execute(_tracker.attr("_conn"), "SELECT status_id FROM submission_status WHERE submission_id=? LIMIT 1",
                             py::make_tuple(submission_id))
                         .attr("fetchone")();
    return !row.is_none();
}

bool SearchHandle::receipt_recorded_meanwhile(py::object submission_id) {
    if (!_tracker_uses_persistent_store) return false;
    try {
        return truthy(submission_id) && submission_status_exists(submission_id);
    } catch (...) {
        caught_general_exception();
        return false;
    }
}

bool SearchHandle::journal_source_still_matches(py::object payload) {
    const char* sql;
    py::object source_id = payload_get(payload, "retry_id");
    if (!source_id.is_none()) {
        sql = "SELECT eval_id, eval_type, era_id, payload_json, created_at FROM submission_retry WHERE retry_id=?";
    } else {
        source_id = payload_get(payload, "_queue_id");
        if (source_id.is_none()) return false;
        sql = "SELECT eval_id, eval_type, era_id, payload_json, created_at FROM submission_queue WHERE queue_id=?";
    }
    py::object row;
    {
        PyLockHold write_guard(_tracker_write_lock);
        row = execute(_tracker.attr("_conn"), sql, py::make_tuple(source_id)).attr("fetchone")();
    }
    if (row.is_none()) return false;
    auto same_text = [](py::handle a, py::handle b) { return py_equal(py::str(a), py::str(b)); };
    if (!same_text(row[py::int_(0)], payload_get(payload, "eval_id")) ||
        !same_text(row[py::int_(1)], payload_get(payload, "submission_type")) ||
        !same_text(row[py::int_(2)], payload_get(payload, "era_id")))
        return false;
    py::object created_at = payload_get(payload, "_source_created_at");
    if (!created_at.is_none() && !same_text(row[py::int_(4)], created_at)) return false;
    py::object source_json = payload_get(payload, "_source_payload_json");
    if (!source_json.is_none() && !py_equal(row[py::int_(3)], source_json)) return false;
    return true;
}

bool SearchHandle::replay_receipt_journal() {
    if (!_tracker_uses_persistent_store) return true;
    for (auto item : read_receipt_journal()) {
        py::object entry = py::reinterpret_borrow<py::object>(item);
        py::object key = receipt_journal_key(entry);
        py::object submission_id = entry.attr("get")("submission_id");
        py::object stored = entry.attr("get")("payload");
        if (!truthy(submission_id) || !is_dict(stored)) {
            rewrite_receipt_journal_without(key);
            continue;
        }
        py::dict payload = stored.attr("copy")();
        dict_set(payload, "_journal_replay", py::bool_(true));
        py::object source_kind = entry.attr("get")("source_kind");
        py::object source_id = entry.attr("get")("source_id");
        if (is_exact_text(source_kind, "retry")) {
            dict_set(payload, "retry_id", source_id);
            payload.attr("pop")("_queue_id", py::none());
        } else if (is_exact_text(source_kind, "queue")) {
            dict_set(payload, "_queue_id", source_id);
            payload.attr("pop")("retry_id", py::none());
        } else {
            rewrite_receipt_journal_without(key);
            continue;
        }
        try {
            if (submission_status_exists(submission_id)) {
                // The commit happened; only the clean-up was missing.
                rewrite_receipt_journal_without(key);
                continue;
            }
            if (!journal_source_still_matches(payload)) {
                append_error(py::str("submission receipt journal source row missing or mismatched; dropping stale entry"));
                rewrite_receipt_journal_without(key);
                continue;
            }
            record_submission_and_delete_queue(payload, module_attr("_ReceiptRecord")(submission_id));
        } catch (...) {
            py::object exc = caught_general_exception();
            // The search that wrote the entry was alive and committed it first: only the file is left.
            if (receipt_recorded_meanwhile(submission_id)) {
                rewrite_receipt_journal_without(key);
                continue;
            }
            // This entry and those after it wait for the next flush.
            record_background_failure(py::str("submission"), py::str("receipt_journal_replay"), exc, true);
            return false;
        }
        rewrite_receipt_journal_without(key);
        finalize_persisted_receipt(payload, submission_id);
    }
    return true;
}

}  // namespace quillmarsh::st

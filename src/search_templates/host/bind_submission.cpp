// Names of the submission pipeline: payloads, row schema, queue tables.
#include "common/py_helpers.hpp"
#include "engine/search_handle.hpp"
#include "host/bindings.hpp"
#include "submission/receipt_journal.hpp"
#include "submission/submission_store.hpp"

#include <string>

namespace quillmarsh::st {

namespace {

ClaimTable claim_table_by_name(const std::string& name) {
    if (name == "submission_queue") return ClaimTable::SubmissionQueue;
    if (name == "submission_retry") return ClaimTable::SubmissionRetry;
    throw py::value_error("no claim columns on table " + name);
}

}  // namespace

void bind_submission(py::module_& m) {
    py::object row_schema_error = create_row_schema_error_type();
    row_schema_error.attr("__doc__") =
        "A stored submission row whose payload lacks what identifies it (eval_id, submission_type, era_id).\n\n"
        "Args:\n"
        "    source_kind: the table of the row (\"submission_queue\", \"submission_retry\") or \"tracker_item\".\n"
        "    missing: the keys that are missing (default: none).\n"
        "    row_id: the id of the row, or None.\n"
        "    message: the text to use instead of the standard one, or None.\n\n"
        "Attributes:\n"
        "    source_kind, missing, row_id: as given.";
    m.attr("RowSchemaError") = row_schema_error;
    register_row_schema_error_type(row_schema_error);
    m.attr("_ReceiptRecord") = create_receipt_record_type();

    py::tuple required(REQUIRED_ROW_PAYLOAD_KEYS.size());
    for (size_t i = 0; i < REQUIRED_ROW_PAYLOAD_KEYS.size(); ++i) required[i] = py::str(REQUIRED_ROW_PAYLOAD_KEYS[i]);
    m.attr("_REQUIRED_ROW_PAYLOAD_KEYS") = required;

    m.def("_tracker_uses_persistent_store", [](py::object tracker) { return tracker_uses_persistent_store(tracker); },
          py::arg("tracker"));
    m.def("_serialize_submission_payload", [](py::object payload) { return serialize_submission_payload(payload); },
          py::arg("payload"));
    m.def("_submission_payload_for_storage",
          [](py::object payload) { return submission_payload_for_storage(payload); }, py::arg("payload"));
    m.def("_load_submission_payload", [](py::object text) { return load_submission_payload(text); },
          py::arg("payload_json"));
    m.def("_require_payload_typed_keys",
          [](py::object payload, py::object source_kind, py::object row_id) {
              require_payload_typed_keys(payload, source_kind, row_id);
          },
          py::arg("payload"), py::arg("source_kind"), py::arg("row_id"));
    m.def("_resolve_submission_pool_ids",
          [](py::object conn, py::object payload) { return resolve_submission_pool_ids(conn, payload); },
          py::arg("conn"), py::arg("payload"));

    // The handle binds these as its methods; the free forms serve the tests of the store schema.
    py::module_ h = m.attr("_helpers").cast<py::module_>();
    h.def("persistent_table_columns",
          [](py::object conn, const std::string& table) { return persistent_table_columns(conn, table); });
    h.def("ensure_claim_columns", [](py::object handle, const std::string& table) {
        return ensure_claim_columns(handle, claim_table_by_name(table));
    });
}

void bind_submission_handle(py::class_<SearchHandle>& cls) {
    using H = SearchHandle;
    auto none = py::none();

    // Claim columns and queue claims under a lease.
    cls.def("_ensure_submission_claim_columns", &H::ensure_submission_claim_columns);
    cls.def("_ensure_retry_claim_columns", &H::ensure_retry_claim_columns);
    cls.def("_persistent_table_columns", &H::persistent_table_columns, py::arg("table_name"));
    cls.def("_peek_submission_payload", &H::peek_submission_payload);
    cls.def("_peek_retry_payload", &H::peek_retry_payload);
    cls.def("_dequeue_submission_payload", &H::dequeue_submission_payload);
    cls.def("_dequeue_retry_payload", &H::dequeue_retry_payload);
    cls.def("_payload_from_tracker_item", &H::payload_from_tracker_item, py::arg("tracker_item"));
    cls.def("_source_sql_predicates", &H::source_sql_predicates, py::arg("payload"), py::arg("id_name"),
            py::arg("source_id"), py::arg("require_owner") = false);
    cls.def("_delete_submission_queue_item", &H::delete_submission_queue_item, py::arg("queue_id"));
    cls.def("_delete_submission_retry_item", &H::delete_submission_retry_item, py::arg("retry_id"));
    cls.def("_delete_submission_queue_payload", &H::delete_submission_queue_payload, py::arg("payload"));
    cls.def("_delete_submission_retry_payload", &H::delete_submission_retry_payload, py::arg("payload"));
    cls.def("_delete_claimed_submission_source", &H::delete_claimed_submission_source, py::arg("payload"));
    cls.def("_has_in_memory_submission_work", &H::has_in_memory_submission_work);

    // The retry store.
    cls.def("_enqueue_retry_payload", &H::enqueue_retry_payload, py::arg("payload"), py::arg("rejection_reason"),
            py::arg("retry_after") = none);
    cls.def("_move_claimed_queue_to_retry", &H::move_claimed_queue_to_retry, py::arg("payload"),
            py::arg("payload_json"), py::arg("rejection_reason"), py::arg("retry_after"));
    cls.def("_update_claimed_retry_payload", &H::update_claimed_retry_payload, py::arg("payload"),
            py::arg("payload_json"), py::arg("rejection_reason"), py::arg("retry_count"), py::arg("retry_after"));
    cls.def("_defer_claimed_retry_payload", &H::defer_claimed_retry_payload, py::arg("payload"),
            py::arg("retry_after"), py::arg("rejection_reason"));
    cls.def("_defer_claimed_queue_payload", &H::defer_claimed_queue_payload, py::arg("payload"));
    cls.def("_retry_exhausted_submission_id", &H::retry_exhausted_submission_id, py::arg("payload"));
    cls.def("_finalize_retry_exhausted_payload", &H::finalize_retry_exhausted_payload, py::arg("payload"),
            py::arg("rejection_reason"));

    // The receipt journal.
    cls.def("_receipt_journal_path", &H::receipt_journal_path);
    cls.def("_receipt_journal_entry", &H::receipt_journal_entry, py::arg("payload"), py::arg("receipt"));
    cls.def("_receipt_journal_key", &H::receipt_journal_key, py::arg("entry"));
    cls.def("_receipt_journal_key_for_payload", &H::receipt_journal_key_for_payload, py::arg("payload"),
            py::arg("submission_id"));
    cls.def("_receipt_journal_file_path", &H::receipt_journal_file_path, py::arg("key"));
    cls.def("_append_receipt_journal", &H::append_receipt_journal, py::arg("payload"), py::arg("receipt"),
            py::arg("required") = false);
    cls.def("_append_receipt_journal_until_durable", &H::append_receipt_journal_until_durable, py::arg("payload"),
            py::arg("receipt"));
    cls.def("_read_receipt_journal", &H::read_receipt_journal);
    cls.def("_rewrite_receipt_journal_without", &H::rewrite_receipt_journal_without, py::arg("completed_key"));
    cls.def("_submission_status_exists", &H::submission_status_exists, py::arg("submission_id"));
    cls.def("_journal_source_still_matches", &H::journal_source_still_matches, py::arg("payload"));
    cls.def("_replay_receipt_journal", &H::replay_receipt_journal);

    // Finalisation and counts.
    cls.def("_record_submission_and_delete_queue", &H::record_submission_and_delete_queue, py::arg("payload"),
            py::arg("receipt"));
    cls.def("_finalize_persisted_receipt", &H::finalize_persisted_receipt, py::arg("payload"),
            py::arg("submission_id"));
    cls.def("_flush_pending_receipt_finalizations", &H::flush_pending_receipt_finalizations);
    cls.def("_update_submission_counts", &H::update_submission_counts);
    cls.def("_maybe_fire_discovery_rate_declining_nudge", &H::maybe_fire_discovery_rate_declining_nudge);
    cls.def("_handle_submission_success", &H::handle_submission_success, py::arg("payload"), py::arg("receipt"));
}

}  // namespace quillmarsh::st

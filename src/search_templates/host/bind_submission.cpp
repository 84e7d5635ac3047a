// Names of the submission pipeline: payloads, row schema, queue tables.
#include "common/py_helpers.hpp"
#include "host/bindings.hpp"
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

}  // namespace quillmarsh::st

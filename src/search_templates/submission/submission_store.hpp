// Submission payloads and the store's queue tables.
//
// A passing signal travels as one string-keyed map, the submission payload. It is stored as JSON with
// sorted keys (so that a claimed row's text can be compared byte for byte), loaded back under a small
// schema (`_REQUIRED_ROW_PAYLOAD_KEYS`), and stripped of the keys that only exist while a row is claimed.
// The queue tables gain two claim columns, `in_flight_owner` and `in_flight_at`, added in place on a store
// that predates them. All statements use `?` placeholders; a connection with `dialect == "postgres"` is
// asked through information_schema, any other through SQLite's PRAGMA.
#pragma once

#include <pybind11/pybind11.h>

#include <array>
#include <string_view>

namespace quillmarsh::st {

namespace py = pybind11;

// Keys that exist only in memory while a row is claimed; never stored.
inline constexpr std::array<const char*, 7> TRANSIENT_PAYLOAD_KEYS = {
    "_queue_id", "retry_id", "retry_count", "retry_after", "_journal_replay", "_source_created_at",
    "_source_payload_json"};
// What a decoded row must hold before anything acts on it, in this order.
inline constexpr std::array<const char*, 3> REQUIRED_ROW_PAYLOAD_KEYS = {"eval_id", "submission_type", "era_id"};

// True when the tracker has a SQL connection (`tracker._conn` present and not None).
bool tracker_uses_persistent_store(py::handle tracker);

// json.dumps(payload, sort_keys=True, default=str)
py::str serialize_submission_payload(py::handle payload);
// A new map without the transient keys; every other key (owner, idempotency key, ...) stays.
py::dict submission_payload_for_storage(py::handle payload);
// The map held by a row's payload_json; ValueError for an empty text or a non-object.
py::object load_submission_payload(py::handle payload_json);
// Raises RowSchemaError when `payload` is not a map or lacks a required key.
void require_payload_typed_keys(py::handle payload, py::handle source_kind, py::handle row_id);

// The exception type RowSchemaError(source_kind, missing=(), row_id=None, message=None), a ValueError.
py::object create_row_schema_error_type();
void register_row_schema_error_type(py::object type);
py::object row_schema_error_type();
// The record _ReceiptRecord(submission_id): a receipt rebuilt from a journal entry.
py::object create_receipt_record_type();

// (pool_id, signal_pool_id) of a payload, from the payload first and then its evaluation row.
py::tuple resolve_submission_pool_ids(py::handle conn, py::handle payload);

// The column names of a table.
py::set persistent_table_columns(py::handle conn, std::string_view table_name);

// The two queue tables that carry claim columns.
enum class ClaimTable { SubmissionQueue, SubmissionRetry };
// Adds the claim columns of `table` when missing, under the handle's `_tracker_write_lock`, and sets the
// handle's ready flag. A failure goes to the handle's `_record_background_failure` and returns false,
// leaving the flag clear so that the next use tries again. `handle` is read by attribute.
bool ensure_claim_columns(py::handle handle, ClaimTable table);

// SUBMISSION_QUEUE_LEASE_SECONDS as the module holds it now, as a float: a claim older than this may be
// taken over by another owner.
double submission_queue_lease_seconds();

}  // namespace quillmarsh::st

// The direct interface to the signal service: one submission and one status poll, with or without a
// running search.
//
// The submission thread sends through the same code as `submit_signal`, so the contract of a submission
// is checked in one place only. The client's answers are translated into exactly three kinds of outcome,
// whose classes carry the retry decision for the rest of the pipeline:
//   * ConnectionError: no answer, or a 5xx answer; try again later;
//   * SubmissionRejectedError (of quillmarsh.submit): the service answered and said no;
//   * anything else, SubmissionProtocolError included: a defect that no retry will cure.
// A client is built for every call, from the configured server URL and a fresh token, and is always
// closed again, also when the call fails.
#pragma once

#include <pybind11/pybind11.h>

#include <array>

namespace quillmarsh::st {

namespace py = pybind11;

// The keywords of SignalServiceClient.submit_signal, in order: the fields of a submission's body.
inline constexpr std::array<const char*, 9> SIGNAL_SUBMIT_KWARGS = {
    "graph",         "universe_id",          "signal_pool_id",
    "is_stats",      "is_pnl_mi",            "metaparameters",
    "expression_elapsed_seconds", "search_state", "idempotency_key"};

// The Python forms bound on the module: _SIGNAL_SUBMIT_KWARGS, _STRATEGY_SUBMIT_KWARGS (the same plus
// referenced_signal_ids) and _SUBMIT_KWARG_DEFAULTS (what may be left out).
py::tuple signal_submit_kwargs();
py::tuple strategy_submit_kwargs();
py::dict submit_kwarg_defaults();

// ValueError with the first broken rule of the submission contract, checked in a fixed order.
void validate_submit_contract_kwargs(py::handle kwargs);
// The client's keywords taken from a payload: validated, then exactly the keys of `allowed`, a missing one
// taking its default or raising "<key> is required". Transient and internal keys never pass.
py::dict submit_kwargs_from_payload(py::handle payload, py::handle allowed);
// `body` if it is a map, else None.
py::object details_from_body(py::handle body);
// A SubmissionReceipt from the client's result, or the exception of its outcome.
py::object result_to_receipt(py::handle result, py::handle submission_type, py::handle receipt_type,
                             py::handle rejected_error_type);

// One send of a payload: returns a SubmissionReceipt or raises as above.
py::object submit_signal_payload(py::handle payload);
// The SubmissionStatus of one submission id, or raises as above.
py::object poll_status_internal(py::handle submission_id);

// The public functions.
py::object submit_signal(py::object graph, py::object universe_id, py::object signal_pool_id, py::object is_stats,
                         py::object is_pnl_mi, py::object expression_elapsed_seconds, py::object metaparameters,
                         py::object search_state);
py::object poll_status(py::object submission_id);

}  // namespace quillmarsh::st

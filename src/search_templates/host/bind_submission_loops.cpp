// Names of the road from the queue to the signal service: the direct interface (module functions) and
// the submission and polling threads (methods of the handle class bound by bind_engine).
#include "common/py_helpers.hpp"
#include "engine/search_handle.hpp"
#include "host/bindings.hpp"
#include "submission/direct_submission.hpp"
#include "submission/submission_loops.hpp"

namespace quillmarsh::st {

void bind_submission_loops(py::module_& m) {
    m.attr("_SIGNAL_SUBMIT_KWARGS") = signal_submit_kwargs();
    m.attr("_STRATEGY_SUBMIT_KWARGS") = strategy_submit_kwargs();
    m.attr("_SUBMIT_KWARG_DEFAULTS") = submit_kwarg_defaults();

    m.def("submit_signal", &submit_signal, py::arg("graph"), py::arg("universe_id"), py::arg("signal_pool_id"),
          py::arg("is_stats"), py::arg("is_pnl_mi"), py::arg("expression_elapsed_seconds"), py::kw_only(),
          py::arg("metaparameters") = py::none(), py::arg("search_state") = py::none(),
          "Submit one signal to the signal service; returns its SubmissionReceipt.");
    m.def("poll_status", &poll_status, py::arg("submission_id"),
          "The signal service's SubmissionStatus of one submission.");
    m.def("_submit_signal_payload", [](py::object payload) { return submit_signal_payload(payload); },
          py::arg("payload"));
    m.def("_poll_status_internal", [](py::object submission_id) { return poll_status_internal(submission_id); },
          py::arg("submission_id"));
    m.def("_submit_kwargs_from_payload",
          [](py::object payload, py::object allowed) { return submit_kwargs_from_payload(payload, allowed); },
          py::arg("payload"), py::arg("allowed"));
    m.def("_validate_submit_contract_kwargs", [](py::object kwargs) { validate_submit_contract_kwargs(kwargs); },
          py::arg("kwargs"));
    m.def("_details_from_body", [](py::object body) { return details_from_body(body); }, py::arg("body"));
    m.def("_result_to_receipt",
          [](py::object result, py::object submission_type, py::object receipt_type, py::object rejected_type) {
              return result_to_receipt(result, submission_type, receipt_type, rejected_type);
          },
          py::arg("result"), py::arg("submission_type"), py::arg("SubmissionReceipt"),
          py::arg("SubmissionRejectedError"));
    m.def("_submission_backoff_sleep", &submission_backoff_sleep, py::arg("seconds"));

    using Handle = SearchHandle;
    auto cls = py::reinterpret_borrow<py::class_<Handle>>(m.attr("_SearchHandleImpl"));
    cls.def("_submission_loop", [](Handle& h) { submission_loop(h); });
    cls.def("_submission_loop_inner", [](Handle& h) { submission_loop_inner(h); });
    cls.def("_submit_payload", [](Handle& h, py::object payload) { submit_payload(h, payload); }, py::arg("payload"));
    cls.def("_ensure_submission_idempotency_key",
            [](Handle&, py::object payload) { return ensure_submission_idempotency_key(payload); }, py::arg("payload"));
    cls.def("_record_submission_attempt_started",
            [](Handle& h, py::object payload) { record_submission_attempt_started(h, payload); }, py::arg("payload"));
    cls.def("_payload_has_persistent_submission_source",
            [](Handle& h, py::object payload) { return payload_has_persistent_submission_source(h, payload); },
            py::arg("payload"));
    cls.def("_polling_loop", [](Handle& h) { polling_loop(h); });
    cls.def("_polling_loop_inner", [](Handle& h) { polling_loop_inner(h); });
    cls.def("_pending_payloads", [](Handle& h) { return pending_payloads(h); });
    cls.def("_apply_polled_status",
            [](Handle& h, py::object payload, py::object poll_result) { apply_polled_status(h, payload, poll_result); },
            py::arg("payload"), py::arg("poll_result"));
    cls.def("_finalize_pending_error",
            [](Handle& h, py::object payload, py::object status_code, py::object reason) {
                finalize_pending_error(h, payload, status_code, reason);
            },
            py::arg("payload"), py::arg("status_code"), py::arg("reason"));
}

}  // namespace quillmarsh::st

// The direct interface to the signal service; see direct_submission.hpp.
#include "submission/direct_submission.hpp"

#include "common/py_helpers.hpp"
#include "evaluation/metric_contract.hpp"
#include "submission/store_transaction.hpp"

#include <string>

namespace quillmarsh::st {

namespace {

[[noreturn]] void raise_connection_error(const std::string& message) {
    raise_new(py::handle(PyExc_ConnectionError), py::make_tuple(message));
}

bool has_key(py::handle map, const char* key) { return py_contains(map, py::str(key)); }

// The client of one call. Closing is part of every path, the failing ones included; a client without a
// callable `close` needs none.
void close_client(py::handle client) {
    py::object close = callable_attr(client, "close");
    if (!close.is_none()) close();
}

template <typename Body>
py::object with_client(Body&& body) {
    py::object client = module_attr("_build_signal_service_client")();
    py::object out;
    try {
        out = body(client);
    } catch (...) {
        close_client(client);
        throw;
    }
    close_client(client);
    return out;
}

long long status_code_of(py::handle result) { return py::int_(key_or_attr(result, "status_code")).cast<long long>(); }

// The service's refusal: SubmissionRejectedError(status_code, error or "unknown", details, body=body).
[[noreturn]] void raise_rejection(py::handle rejected_error_type, long long status_code, py::handle result) {
    py::object error = key_or_attr(result, "error");
    py::object body = key_or_attr(result, "body");
    py::object reason = truthy(error) ? error : py::object(py::str("unknown"));
    py::dict kwargs;
    kwargs["body"] = body;
    raise_instance(call_kw(rejected_error_type, {py::int_(status_code), reason, details_from_body(body)}, kwargs));
}

// The service's answer sorted by its status code, `what` naming the call ("during signal submission",
// "while polling <id>"): no answer at all or a 5xx is a connection error, anything else outside 2xx a
// refusal; a 2xx passes.
void raise_unless_success(py::handle result, py::handle rejected_error_type, const std::string& what) {
    const long long code = status_code_of(result);
    if (code == 0 && truthy(key_or_attr(result, "error"))) raise_connection_error("transport error " + what);
    if (code >= 500) raise_connection_error("Server error " + std::to_string(code) + " " + what);
    if (code < 200 || code > 299) raise_rejection(rejected_error_type, code, result);
}

}  // namespace

py::tuple signal_submit_kwargs() {
    py::tuple out(SIGNAL_SUBMIT_KWARGS.size());
    for (size_t i = 0; i < SIGNAL_SUBMIT_KWARGS.size(); ++i) out[i] = py::str(SIGNAL_SUBMIT_KWARGS[i]);
    return out;
}

py::tuple strategy_submit_kwargs() {
    py::tuple out(SIGNAL_SUBMIT_KWARGS.size() + 1);
    for (size_t i = 0; i < SIGNAL_SUBMIT_KWARGS.size(); ++i) out[i] = py::str(SIGNAL_SUBMIT_KWARGS[i]);
    out[SIGNAL_SUBMIT_KWARGS.size()] = py::str("referenced_signal_ids");
    return out;
}

py::dict submit_kwarg_defaults() {
    py::dict d;
    d["metaparameters"] = py::none();
    d["search_state"] = py::none();
    d["idempotency_key"] = py::none();
    d["referenced_signal_ids"] = py::list();
    return d;
}

void validate_submit_contract_kwargs(py::handle kwargs) {
    static const char* const kRetired[] = {"is_pnl_mi_values", "is_mi_values", "is_mi"};
    for (const char* retired : kRetired)
        if (has_key(kwargs, retired))
            raise_value_error(std::string(retired) + " is no longer supported; provide is_pnl_mi as a scalar");

    if (!has_key(kwargs, "signal_pool_id")) raise_value_error("signal_pool_id is required");
    py::object pool = kwargs[py::str("signal_pool_id")];
    if (!is_str(pool) || py::len(pool) == 0) raise_value_error("signal_pool_id must be a non-empty string");

    if (!has_key(kwargs, "is_stats")) raise_value_error("is_stats is required");
    py::object is_stats = kwargs[py::str("is_stats")];
    if (!is_dict(is_stats)) raise_value_error("is_stats must be a dict");
    if (has_disallowed_mi_contract_field(is_stats)) raise_value_error("is_stats must not contain MI contract fields");
    if (has_non_finite_number(is_stats)) raise_value_error("is_stats values must be finite numbers");

    if (!has_key(kwargs, "is_pnl_mi")) raise_value_error("is_pnl_mi is required");
    if (!is_finite_number(kwargs[py::str("is_pnl_mi")])) raise_value_error("is_pnl_mi must be a finite scalar number");

    if (!has_key(kwargs, "expression_elapsed_seconds")) raise_value_error("expression_elapsed_seconds is required");
    py::object elapsed = kwargs[py::str("expression_elapsed_seconds")];
    if (!is_finite_number(elapsed) || !py_gt(elapsed, py::float_(0.0)))
        raise_value_error("expression_elapsed_seconds must be a positive float");
}

py::dict submit_kwargs_from_payload(py::handle payload, py::handle allowed) {
    py::dict copy = py::reinterpret_steal<py::dict>(PyObject_CallOneArg((PyObject*)&PyDict_Type, payload.ptr()));
    if (!copy) throw py::error_already_set();
    validate_submit_contract_kwargs(copy);
    py::dict defaults = submit_kwarg_defaults();
    py::dict out;
    for (py::handle key : allowed) {
        if (py_contains(copy, key))
            out[key] = copy[key];
        else if (py_contains(defaults, key))
            out[key] = defaults[key];
        else
            raise_value_error(str(key) + " is required");
    }
    return out;
}

py::object details_from_body(py::handle body) {
    return is_dict(body) ? py::reinterpret_borrow<py::object>(body) : py::object(py::none());
}

py::object result_to_receipt(py::handle result, py::handle submission_type, py::handle receipt_type,
                             py::handle rejected_error_type) {
    const std::string kind = str(submission_type);
    raise_unless_success(result, rejected_error_type, "during " + kind + " submission");
    py::object submission_id = key_or_attr(result, "submission_id");
    if (!truthy(submission_id))
        raise_new(module_attr("SubmissionProtocolError"),
                  py::make_tuple(kind + " submission response missing required submission_id"));
    return receipt_type(submission_id);
}

py::object submit_signal_payload(py::handle payload) {
    py::object receipt_type = import_from("quillmarsh.submit", "SubmissionReceipt");
    py::object rejected_type = import_from("quillmarsh.submit", "SubmissionRejectedError");
    return with_client([&](py::object client) {
        py::dict kwargs = submit_kwargs_from_payload(payload, module_attr("_SIGNAL_SUBMIT_KWARGS"));
        py::object result = call_kw(client.attr("submit_signal"), {}, kwargs);
        return result_to_receipt(result, py::str("signal"), receipt_type, rejected_type);
    });
}

py::object poll_status_internal(py::handle submission_id) {
    py::object status_type = import_from("quillmarsh.submit", "SubmissionStatus");
    py::object rejected_type = import_from("quillmarsh.submit", "SubmissionRejectedError");
    return with_client([&](py::object client) {
        py::object result = client.attr("get_signal_status")(submission_id);
        raise_unless_success(result, rejected_type, "while polling " + str(submission_id));
        py::object raw = key_or_attr(result, "body");
        py::dict body = is_dict(raw) ? py::reinterpret_borrow<py::dict>(raw) : py::dict();
        auto get = [&](const char* key, py::object dflt) { return body.attr("get")(key, dflt); };
        py::dict keywords;
        for (const char* key : {"signal_pool_id", "is_correlation", "is_pnl_mi", "agent_is_pnl_mi", "is_weights_mi",
                                "failure_reason", "failure_detail"})
            keywords[key] = get(key, py::none());
        return call_kw(status_type,
                       {submission_id, get("status", py::str("is_validating")), get("is_stats", py::dict()),
                        get("payment", py::none()), get("rejection_reason", py::none())},
                       keywords);
    });
}

py::object submit_signal(py::object graph, py::object universe_id, py::object signal_pool_id, py::object is_stats,
                         py::object is_pnl_mi, py::object expression_elapsed_seconds, py::object metaparameters,
                         py::object search_state) {
    py::dict payload;
    payload["graph"] = graph;
    payload["universe_id"] = universe_id;
    payload["signal_pool_id"] = signal_pool_id;
    payload["is_stats"] = is_stats;
    payload["is_pnl_mi"] = is_pnl_mi;
    payload["expression_elapsed_seconds"] = expression_elapsed_seconds;
    payload["metaparameters"] = metaparameters;
    payload["search_state"] = search_state;
    return module_attr("_submit_signal_payload")(payload);
}

py::object poll_status(py::object submission_id) { return module_attr("_poll_status_internal")(submission_id); }

}  // namespace quillmarsh::st

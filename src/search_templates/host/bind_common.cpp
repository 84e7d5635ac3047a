// Names of the common model: exceptions, records, constants, status sets, module globals, logger.
#include "common/constants.hpp"
#include "common/py_helpers.hpp"
#include "common/search_error.hpp"
#include "common/search_status.hpp"
#include "host/bindings.hpp"

#include <cstring>
#include <string>
#include <vector>

#include <pybind11/stl.h>

namespace quillmarsh::st {

namespace {

py::frozenset status_set(const auto& values) {
    py::set s;
    for (auto v : values) s.add(py::str(std::string(v)));
    return py::frozenset(s);
}

std::optional<std::string_view> optional_detail(const py::object& detail, std::string& storage) {
    if (detail.is_none()) return std::nullopt;
    storage = py::str(detail).cast<std::string>();
    return std::string_view(storage);
}

ErrorCode code_by_name(const std::string& name) {
    for (auto* w = error_table_begin(); w != error_table_end(); ++w)
        if (w->code == name) return static_cast<ErrorCode>(w - error_table_begin());
    throw py::value_error("unknown error code: " + name);
}

// Thin wrappers over the boundary helpers, for the tests of the helpers themselves.
void bind_helper_tests(py::module_& m) {
    py::module_ h = m.def_submodule("_helpers", "Boundary helpers exposed for the test suite.");
    h.def("attr_or", [](py::object o, const std::string& n, py::object d) { return attr_or(o, n.c_str(), d); },
          py::arg("obj"), py::arg("name"), py::arg("default") = py::none());
    h.def("key_or_attr",
          [](py::object o, const std::string& n, py::object d) { return key_or_attr(o, n.c_str(), d); },
          py::arg("obj"), py::arg("name"), py::arg("default") = py::none());
    h.def("callable_attr", [](py::object o, const std::string& n) { return callable_attr(o, n.c_str()); });
    h.def("module_attr_or_none", [](const std::string& n) { return module_attr_or_none(n.c_str()); });
    // Every name goes through one reused buffer, as a caller passing a temporary's c_str() would.
    h.def("cached_names", [](const std::vector<std::string>& names) {
        char buffer[256];
        py::list out;
        for (const std::string& n : names) {
            if (n.size() >= sizeof buffer) throw py::value_error("name too long for the test buffer");
            std::memcpy(buffer, n.c_str(), n.size() + 1);
            out.append(py::handle(cached_name(buffer)));
        }
        return out;
    });
    h.def("type_tests", [](py::object o) {
        py::dict d;
        d["dict"] = is_dict(o);
        d["exact_dict"] = is_exact_dict(o);
        d["list"] = is_list(o);
        d["exact_list"] = is_exact_list(o);
        d["str"] = is_str(o);
        d["int_not_bool"] = is_int_not_bool(o);
        d["real_not_bool"] = is_real_not_bool(o);
        d["bool"] = is_bool(o);
        return d;
    });
    h.def("py_format", [](py::object o, const std::string& format_spec) { return py_format(o, format_spec.c_str()); });
    h.def("log", [](int level, const std::string& fmt, py::args args) {
        if (log_enabled(static_cast<LogLevel>(level))) log_args(static_cast<LogLevel>(level), fmt.c_str(), args);
    });
    h.def("log_exception", [](const std::string& msg, py::object fn) {
        try {
            fn();
        } catch (py::error_already_set& e) {
            log_exception(msg.c_str(), e);
        }
    });
    h.def("error_codes", [] {
        py::list out;
        for (auto* w = error_table_begin(); w != error_table_end(); ++w)
            out.append(py::make_tuple(std::string(w->code), std::string(w->advice), std::string(w->message)));
        return out;
    });
    h.def("error_message", [](const std::string& code, py::object detail) {
        std::string storage;
        return error_message(code_by_name(code), optional_detail(detail, storage));
    }, py::arg("code"), py::arg("detail") = py::none());
    h.def("raise_search_error", [](const std::string& code, py::object status, py::object detail) {
        std::string storage;
        raise_search_error(code_by_name(code), status.is_none() ? py::object() : status,
                           optional_detail(detail, storage));
    }, py::arg("code"), py::arg("status") = py::none(), py::arg("detail") = py::none());
    h.def("is_terminal_submission_status",
          [](const std::string& s) { return is_terminal_submission_status(s); });
}

}  // namespace

void bind_common(py::module_& m) {
    py::module_ logging = py::module_::import("logging");
    py::module_ threading = py::module_::import("threading");
    py::module_ weakref = py::module_::import("weakref");

    m.attr("logger") = logging.attr("getLogger")("quillmarsh.search_templates");

    py::object search_error = create_search_error_type();
    py::object sandbox_violation = create_template_sandbox_violation_type();
    py::object protocol_error = create_submission_protocol_error_type();
    m.attr("SearchError") = search_error;
    m.attr("TemplateSandboxViolation") = sandbox_violation;
    m.attr("SubmissionProtocolError") = protocol_error;
    register_exception_types(search_error, sandbox_violation, protocol_error);

    py::object search_status = create_search_status_type();
    py::object backtest_result = create_backtest_result_type();
    m.attr("SearchStatus") = search_status;
    m.attr("BacktestResult") = backtest_result;
    register_record_types(search_status, backtest_result);

    m.attr("_NOT_AUTHENTICATED_MESSAGE") = std::string(NOT_AUTHENTICATED_MESSAGE);
    m.attr("_MANAGEMENT_ACTIVE_ERROR") = std::string(MANAGEMENT_ACTIVE_ERROR);

    m.attr("SUPERVISOR_HEALTH_CHECK_INTERVAL") = SUPERVISOR_HEALTH_CHECK_INTERVAL;
    m.attr("SYNC_POLL_INTERVAL") = SYNC_POLL_INTERVAL;
    m.attr("ERA_POLL_INTERVAL") = ERA_POLL_INTERVAL;
    m.attr("SUBMISSION_POLL_INTERVAL") = SUBMISSION_POLL_INTERVAL;
    m.attr("POLLING_INTERVAL") = POLLING_INTERVAL;
    m.attr("SUBMISSION_QUEUE_LEASE_SECONDS") = SUBMISSION_QUEUE_LEASE_SECONDS;
    m.attr("_INFRASTRUCTURE_FAILURE_THRESHOLD") = INFRASTRUCTURE_FAILURE_THRESHOLD;

    py::frozenset accepted = status_set(SUBMISSION_ACCEPTED_STATUSES);
    py::frozenset rejected = status_set(SUBMISSION_REJECTED_STATUSES);
    m.attr("_SUBMISSION_ACCEPTED_STATUSES") = accepted;
    m.attr("_SUBMISSION_REJECTED_STATUSES") = rejected;
    m.attr("_SUBMISSION_TERMINAL_STATUSES") = accepted.attr("__or__")(rejected);

    m.attr("_search_active_lock") = threading.attr("Lock")();
    m.attr("_search_active") = false;
    m.attr("_active_search_handle") = py::none();
    m.attr("_active_handles") = weakref.attr("WeakSet")();
    m.attr("_REPLACEMENT_ABORT_BOOTSTRAP_LOCK") = threading.attr("Lock")();

    bind_helper_tests(m);
}

}  // namespace quillmarsh::st

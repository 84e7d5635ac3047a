#include "common/search_error.hpp"

#include "common/py_helpers.hpp"
#include "common/search_status.hpp"

#include <iterator>

namespace quillmarsh::st {

namespace {

constexpr ErrorWords kErrorTable[] = {
    {"AUTH_ERROR", "Run register() or login(private_key) first.",
     "Not authenticated. Run register() or login(private_key) first."},
    {"RUNTIME_BOOTSTRAP_FAILED",
     "Inspect the data sync/runtime bootstrap error, then rerun register() or login(private_key).",
     "Runtime bootstrap failed after authentication."},
    {"OUT_OF_MEMORY", "Run get_db_info() then delete_evaluations(). Reduce n_jobs if needed.",
     "Not enough memory: requires 4.0 GB, available {} GB"},
    {"DISK_FULL", "Run get_db_info() then delete_evaluations() or delete_failed_evaluations().",
     "Disk space critically low: {} MB remaining"},
    {"DATA_DIR_REQUIRED", "Set quillmarsh.agent_onboarding._config['data_dir'] before calling search().",
     "data_dir is required to start a search."},
    {"VALID_UNIVERSE_UNAVAILABLE", "Configure valid_universe_id before searching.",
     "search() requires a target valid_universe_id so vocabulary lookup is scoped to one universe."},
    {"SEARCH_TRACKER_UNAVAILABLE", "Run get_db_info() and reinitialize the database before searching.",
     "SearchTracker unavailable: runtime did not provide a tracker. Run get_db_info() and reinitialize the "
     "database before searching."},
    {"ERA_CONFIG_UNAVAILABLE", "Run register() or login(private_key) again after data sync completes.",
     "search() requires synced era config before expressions can be generated."},
    {"VOCABULARY_UNAVAILABLE",
     "Vocabulary data not found. Run search() after data sync completes, or ensure the per-universe "
     "vocabulary.json exists in your data directory.",
     "search() requires vocabulary data to validate and generate expressions."},
    {"BACKTESTER_UNAVAILABLE", "Run register() or login(private_key) again after data sync completes.",
     "search() requires a usable private evaluation runtime/backtester."},
    {"NO_ACTIVE_SEARCH", "Call quillmarsh.search(template) first to start one.",
     "No active search. Call quillmarsh.search(template) first to start one."},
    {"INFRASTRUCTURE_FAILURE", "register()", "Background infrastructure failed permanently"},
    {"DATABASE_ERROR", "Run get_db_info() to check database state. Consider restarting the search.",
     "Database write failed after retry: "},
};
static_assert(std::size(kErrorTable) == static_cast<size_t>(ErrorCode::DatabaseError) + 1);

PyObject* g_search_error = nullptr;
PyObject* g_sandbox_violation = nullptr;
PyObject* g_protocol_error = nullptr;

std::string replace_placeholder(std::string_view tmpl, std::string_view value) {
    std::string out(tmpl);
    auto pos = out.find("{}");
    if (pos != std::string::npos) out.replace(pos, 2, value);
    return out;
}

py::object new_exception_type(const char* qualified_name, const char* doc, PyObject* base) {
    PyObject* type = PyErr_NewExceptionWithDoc(qualified_name, doc, base, nullptr);
    if (type == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::object>(type);
}

// SearchError.__init__(self, error_code, recovery_advice, message, status): the four fields are stored
// first to last, then the base class gets `message` alone, so that str(error) is exactly the message.
PyObject* search_error_init(PyObject* /*unused*/, PyObject* args, PyObject* kwargs) {
    static const char* kwlist[] = {"self", "error_code", "recovery_advice", "message", "status", nullptr};
    PyObject *self, *error_code, *recovery_advice, *message, *status;
    if (!PyArg_ParseTupleAndKeywords(args, kwargs, "OOOOO:__init__", const_cast<char**>(kwlist), &self,
                                     &error_code, &recovery_advice, &message, &status))
        return nullptr;
    if (PyObject_SetAttrString(self, "error_code", error_code) < 0 ||
        PyObject_SetAttrString(self, "recovery_advice", recovery_advice) < 0 ||
        PyObject_SetAttrString(self, "message", message) < 0 || PyObject_SetAttrString(self, "status", status) < 0)
        return nullptr;
    PyObject* base_args = PyTuple_Pack(1, message);
    if (base_args == nullptr) return nullptr;
    int rc = reinterpret_cast<PyTypeObject*>(PyExc_Exception)->tp_init(self, base_args, nullptr);
    Py_DECREF(base_args);
    if (rc < 0) return nullptr;
    Py_RETURN_NONE;
}

PyMethodDef kSearchErrorInit = {"__init__", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(search_error_init)),
                                METH_VARARGS | METH_KEYWORDS, nullptr};

}  // namespace

const ErrorWords& error_words(ErrorCode code) { return kErrorTable[static_cast<size_t>(code)]; }
const ErrorWords* error_table_begin() { return std::begin(kErrorTable); }
const ErrorWords* error_table_end() { return std::end(kErrorTable); }

std::string error_message(ErrorCode code, std::optional<std::string_view> detail) {
    const ErrorWords& words = error_words(code);
    switch (code) {
        case ErrorCode::OutOfMemory:
        case ErrorCode::DiskFull:
            return replace_placeholder(words.message, detail.value_or(""));
        case ErrorCode::RuntimeBootstrapFailed: {
            std::string out(words.message);
            if (detail) {
                // Python's own idea of blank: str.strip() covers every Unicode space.
                std::string stripped =
                    py::str(py::str(std::string(*detail)).attr("strip")()).cast<std::string>();
                if (!stripped.empty()) out += " " + stripped;
            }
            return out;
        }
        case ErrorCode::InfrastructureFailure:
            if (detail) return std::string(words.message) + ": " + std::string(*detail);
            return std::string(words.message);
        case ErrorCode::DatabaseError:
            return std::string(words.message) + std::string(detail.value_or(""));
        default:
            return std::string(words.message);
    }
}

py::object create_search_error_type() {
    py::object cls = new_exception_type("quillmarsh.search_templates.SearchError",
                                        "Raised when a fatal error occurs during search.", PyExc_Exception);
    py::object fn = py::reinterpret_steal<py::object>(PyCFunction_NewEx(&kSearchErrorInit, nullptr, nullptr));
    if (!fn) throw py::error_already_set();
    py::object method = py::reinterpret_steal<py::object>(PyInstanceMethod_New(fn.ptr()));
    if (!method) throw py::error_already_set();
    cls.attr("__init__") = method;
    return cls;
}

py::object create_template_sandbox_violation_type() {
    return new_exception_type("quillmarsh.search_templates.TemplateSandboxViolation",
                              "Raised when template code attempts forbidden direct system access.",
                              PyExc_RuntimeError);
}

py::object create_submission_protocol_error_type() {
    return new_exception_type("quillmarsh.search_templates.SubmissionProtocolError",
                              "Raised when a successful submission response violates the client protocol.",
                              PyExc_RuntimeError);
}

void register_exception_types(py::object search_error, py::object sandbox_violation, py::object protocol_error) {
    g_search_error = search_error.release().ptr();
    g_sandbox_violation = sandbox_violation.release().ptr();
    g_protocol_error = protocol_error.release().ptr();
}

py::object search_error_type() { return py::reinterpret_borrow<py::object>(g_search_error); }
py::object template_sandbox_violation_type() { return py::reinterpret_borrow<py::object>(g_sandbox_violation); }
py::object submission_protocol_error_type() { return py::reinterpret_borrow<py::object>(g_protocol_error); }

py::object make_search_error(ErrorCode code, py::object status, std::optional<std::string_view> detail) {
    const ErrorWords& words = error_words(code);
    if (!status) status = stopped_search_status();
    return search_error_type()(py::str(std::string(words.code)), py::str(std::string(words.advice)),
                               py::str(error_message(code, detail)), status);
}

void raise_search_error(ErrorCode code, py::object status, std::optional<std::string_view> detail) {
    raise_instance(make_search_error(code, std::move(status), detail));
}

}  // namespace quillmarsh::st

#include "common/host_runtime.hpp"

#include "common/constants.hpp"
#include "common/py_helpers.hpp"
#include "common/search_error.hpp"
#include "common/search_status.hpp"

#include <array>
#include <cstring>
#include <string>

namespace quillmarsh::st {

namespace {

// A name bound into the module at load from a sibling module; `fallback_module`, when set, is tried
// if the first import fails for any import error.
struct SiblingBinding {
    const char* bound_name;
    const char* sibling_module;
    const char* attribute;
    const char* fallback_module;
};

constexpr std::array<SiblingBinding, 10> kSiblingBindings = {{
    {"SyncManager", "quillmarsh.sync", "SyncManager", nullptr},
    {"_BacktestStats", "quillmarsh.search_tracking", "BacktestStats", nullptr},
    {"_ensure_submission_sim_parent", "quillmarsh.search_tracking", "_ensure_submission_sim_parent", nullptr},
    {"_synthetic_submission_sim_id", "quillmarsh.search_tracking", "_synthetic_submission_sim_id", nullptr},
    {"ObfuscationManager", "quillmarsh.obfuscation", "ObfuscationManager", nullptr},
    {"SdkRuntimeNotReadyError", "quillmarsh.errors", "SdkRuntimeNotReadyError", nullptr},
    {"notify_submission_status", "quillmarsh.submission_status_notify", "notify_submission_status", nullptr},
    {"_canonicalize_metaparameters", "quillmarsh.simulate_primitives.metaparameters", "canonicalize",
     "quillmarsh._simulate_primitives"},
    {"_resolve_metaparameters", "quillmarsh.simulate_primitives.metaparameters", "resolve_metaparameters",
     "quillmarsh._simulate_primitives"},
    {"_resolve_metaparameters_per_pool", "quillmarsh.simulate_primitives.metaparameters",
     "resolve_metaparameters_per_pool", "quillmarsh._simulate_primitives"},
}};

const SiblingBinding* find_binding(const char* bound_name) {
    for (const auto& b : kSiblingBindings)
        if (std::strcmp(b.bound_name, bound_name) == 0) return &b;
    return nullptr;
}

py::object import_binding(const SiblingBinding& b) {
    if (b.fallback_module == nullptr) return import_from(b.sibling_module, b.attribute);
    try {
        return import_from(b.sibling_module, b.attribute);
    } catch (py::error_already_set& e) {
        if (!error_matches(e, PyExc_ImportError)) throw;
    }
    return import_from(b.fallback_module, b.attribute);
}

// True when `err` says that `module_name` itself (or one of its parent packages) is not installed,
// as opposed to a dependency of it being missing.
bool sibling_not_installed(const py::error_already_set& err, const char* module_name) {
    if (!error_matches(err, PyExc_ModuleNotFoundError)) return false;
    py::object name = attr_or(err.value(), "name");
    if (!is_str(name)) return false;
    std::string missing = name.cast<std::string>();
    std::string_view wanted(module_name);
    return wanted == missing ||
           (wanted.size() > missing.size() && wanted.substr(0, missing.size()) == missing &&
            wanted[missing.size()] == '.');
}

void bind_one(py::module_& m, const SiblingBinding& b) {
    try {
        m.attr(b.bound_name) = import_binding(b);
    } catch (py::error_already_set& e) {
        const char* last = b.fallback_module ? b.fallback_module : b.sibling_module;
        if (!sibling_not_installed(e, last)) throw;
    }
}

py::object import_agent_onboarding_or_none() {
    try {
        return import_module(AGENT_ONBOARDING_MODULE);
    } catch (py::error_already_set& e) {
        if (is_module_not_found(e, AGENT_ONBOARDING_MODULE)) return py::none();
        throw;
    }
}

py::object auth_error_type() { return import_from("quillmarsh.auth", "AuthError"); }

[[noreturn]] void raise_not_authenticated(py::object auth_error) {
    raise_instance(auth_error(py::str(std::string(NOT_AUTHENTICATED_MESSAGE))));
}

// Holds a threading.Lock for a scope; release() runs even when the body throws.
class PyLockGuard {
public:
    explicit PyLockGuard(py::object lock) : lock_(std::move(lock)) { lock_.attr("acquire")(); }
    ~PyLockGuard() {
        try {
            lock_.attr("release")();
        } catch (py::error_already_set&) {
            // Releasing a lock we hold does not fail; nothing sensible to do in a destructor if it does.
        }
    }
    PyLockGuard(const PyLockGuard&) = delete;
    PyLockGuard& operator=(const PyLockGuard&) = delete;

private:
    py::object lock_;
};

}  // namespace

void bind_sibling_imports(py::module_& m) {
    for (const auto& b : kSiblingBindings) bind_one(m, b);
}

py::object bound_sibling(const char* bound_name) {
    PyObject* value = PyDict_GetItemString(PyModule_GetDict(module().ptr()), bound_name);  // borrowed
    if (value != nullptr) return py::reinterpret_borrow<py::object>(value);
    const SiblingBinding* b = find_binding(bound_name);
    if (b == nullptr) return module_attr(bound_name);  // raises the AttributeError
    return import_binding(*b);
}

py::object sdk_runtime_not_ready_error_type() { return bound_sibling("SdkRuntimeNotReadyError"); }

void safe_update_nudge(py::object trigger, py::dict context) {
    try {
        py::object update_nudge = import_from(AGENT_ONBOARDING_MODULE, "update_nudge");
        update_nudge(trigger, **context);
    } catch (py::error_already_set& e) {
        if (!error_matches(e, PyExc_Exception)) throw;
        log_warning("update_nudge call failed: %s", e.value());
    }
}

void check_memory() {
    py::object psutil;
    try {
        psutil = import_module("psutil");
    } catch (py::error_already_set& e) {
        if (!error_matches(e, PyExc_ImportError)) throw;
        log_warning("psutil not installed \u2014 memory check skipped");
        return;
    }
    py::object available = psutil.attr("virtual_memory")().attr("available");
    py::object available_gb = available / py::int_(1073741824);
    if (available_gb < py::float_(4.0))
        raise_search_error(ErrorCode::OutOfMemory, stopped_search_status(), py_format(available_gb, ".1f"));
}

void check_disk() {
    try {
        py::object home = import_module("os.path").attr("expanduser")("~");
        py::object usage = import_module("shutil").attr("disk_usage")(home);
        py::object free_bytes = usage.attr("free");
        py::object available_mb = free_bytes / py::int_(1048576);
        if (available_mb < py::int_(500))
            raise_search_error(ErrorCode::DiskFull, stopped_search_status(), py_format(available_mb, ".0f"));
    } catch (py::error_already_set& e) {
        if (error_matches(e, search_error_type()) || !error_matches(e, PyExc_Exception)) throw;
        log_warning("Disk check failed: %s", e.value());
    }
}

void raise_if_management_blocked() {
    PyLockGuard guard(module_attr("_search_active_lock"));
    if (truthy(module_attr("_search_active"))) {
        PyErr_SetString(PyExc_RuntimeError, std::string(MANAGEMENT_ACTIVE_ERROR).c_str());
        throw py::error_already_set();
    }
}

py::object agent_onboarding_data_dir(py::object dflt) {
    py::object config;
    try {
        config = import_from(AGENT_ONBOARDING_MODULE, "_config");
    } catch (py::error_already_set& e) {
        if (is_module_not_found(e, AGENT_ONBOARDING_MODULE)) return dflt;
        throw;
    }
    return config.attr("get")("data_dir", dflt);
}

py::object configured_tracking_data_dir() {
    py::object data_dir = agent_onboarding_data_dir();
    if (!truthy(data_dir)) {
        PyErr_SetString(PyExc_OSError, "data_dir is required for search tracking database management.");
        throw py::error_already_set();
    }
    return import_module("os.path").attr("expanduser")(data_dir);
}

py::object new_management_tracker() {
    py::object tracker_type = module_attr_or_none("SearchTracker");
    if (tracker_type.is_none()) tracker_type = import_from("quillmarsh.search_tracking", "SearchTracker");
    return tracker_type(configured_tracking_data_dir());
}

py::object call_management_tracker(py::object method_name, py::tuple args, py::dict kwargs) {
    py::object tracker = new_management_tracker();
    auto close_tracker = [&tracker] {
        py::object close = callable_attr(tracker, "close");
        if (!close.is_none()) close();
    };
    py::object result;
    try {
        result = tracker.attr(method_name)(*args, **kwargs);
    } catch (py::error_already_set& first) {
        try {
            close_tracker();
        } catch (py::error_already_set& second) {
            // As a `finally` would: the error of close() wins, with the method's error as its context.
            PyException_SetContext(second.value().ptr(), first.value().inc_ref().ptr());
            throw;
        }
        throw;
    }
    close_tracker();
    return result;
}

bool is_authed(py::handle mod) {
    py::object runtime = attr_or(mod, "_library_runtime");
    if (runtime.is_none()) return false;
    py::object auth_proxy = attr_or(runtime, "auth_proxy");
    if (auth_proxy.is_none()) return false;
    try {
        auth_proxy.attr("get_token")();
    } catch (py::error_already_set& e) {
        if (!error_matches(e, PyExc_AttributeError) && !error_matches(e, PyExc_TypeError)) throw;
        log_debug("auth probe get_token() raised: %s", e.value());
        return false;
    }
    return true;
}

py::object bootstrap_runtime_from_cached_auth(py::handle /*mod*/) {
    py::object onboarding;
    try {
        onboarding = import_module(AGENT_ONBOARDING_MODULE);
    } catch (py::error_already_set& e) {
        if (!error_matches(e, PyExc_Exception)) throw;
        log_debug("agent_onboarding import during auth bootstrap failed: %s", e.value());
        return py::none();
    }
    if (attr_or(onboarding, "_auth_manager").is_none()) return py::none();
    py::object ensure = callable_attr(onboarding, "ensure_runtime_bootstrapped");
    if (ensure.is_none()) return py::none();
    try {
        ensure(py::arg("strict") = true);
    } catch (py::error_already_set& e) {
        if (!error_matches(e, PyExc_Exception)) throw;
        return e.value();
    }
    return py::none();
}

py::object resolve_signal_service_url() {
    py::object onboarding = import_agent_onboarding_or_none();
    if (onboarding.is_none()) return py::none();
    py::object config = attr_or(onboarding, "_config", py::dict());
    py::object server_url = config.attr("get")("server_url");
    if (is_str(server_url) && truthy(server_url.attr("endswith")(".invalid"))) return py::none();
    if (!truthy(server_url)) return py::none();
    return server_url;
}

py::object submission_auth_obj() {
    py::object auth_proxy = attr_or(module_attr_or_none("_library_runtime"), "auth_proxy");
    if (!auth_proxy.is_none()) return auth_proxy;
    py::object auth = module_attr_or_none("_auth");
    if (!auth.is_none()) return auth;
    py::object onboarding = import_agent_onboarding_or_none();
    if (onboarding.is_none()) return py::none();
    return attr_or(onboarding, "_auth_manager");
}

py::object get_submission_token() {
    py::object auth_error = auth_error_type();
    py::object auth_obj = submission_auth_obj();
    if (auth_obj.is_none()) raise_not_authenticated(auth_error);
    py::object token;
    try {
        token = auth_obj.attr("get_token")();
    } catch (py::error_already_set& e) {
        if (error_matches(e, auth_error)) {
            py::object reason = attr_or(e.value(), "reason", py::str(""));
            if (py_equal(reason, py::str("not_authenticated")))
                raise_from(auth_error(py::str(std::string(NOT_AUTHENTICATED_MESSAGE))), e.value());
        }
        throw;
    }
    if (!truthy(token)) raise_not_authenticated(auth_error);
    return token;
}

py::object build_signal_service_client(py::object timeout) {
    py::object client_type = import_from("quillmarsh.submit", "SignalServiceClient");
    py::object server_url = resolve_signal_service_url();
    if (!truthy(server_url)) {
        PyErr_SetString(PyExc_ConnectionError, "No submission server configured");
        throw py::error_already_set();
    }
    py::object token = get_submission_token();
    return client_type(server_url, token, py::arg("timeout") = timeout);
}

}  // namespace quillmarsh::st

// The doors to the sibling modules of the package: configuration, authentication, resources and the
// signal service client.
//
// Siblings that the module binds at load (SyncManager, _BacktestStats, ObfuscationManager,
// SdkRuntimeNotReadyError, notify_submission_status, the metaparameter resolvers, ...) live in the
// module's namespace and are read from there at each use, so that a host or a test can replace them. A
// sibling that is not installed leaves its names unbound at load; `bound_sibling` then tries the import
// again at the moment of use and raises the import's own error if it still fails.
//
// Every other sibling import happens inside the function that needs it, so the module loads and its
// guards work when, say, quillmarsh.agent_onboarding is absent. The functions hold no state; tokens and
// clients are fetched fresh on the calling thread.
#pragma once

#include <pybind11/pybind11.h>

namespace quillmarsh::st {

namespace py = pybind11;

inline constexpr const char* AGENT_ONBOARDING_MODULE = "quillmarsh.agent_onboarding";

// Tries every load-time sibling import and binds the names it can into `m`. A sibling that is not
// installed is skipped; any other failure of its import propagates.
void bind_sibling_imports(py::module_& m);
// The current value of a name bound at load from a sibling (see the table in host_runtime.cpp),
// importing it now if it is not bound.
py::object bound_sibling(const char* bound_name);
// SdkRuntimeNotReadyError, as bound at load (or imported now).
py::object sdk_runtime_not_ready_error_type();

// update_nudge(trigger, **context); every Exception, its import included, is logged and swallowed.
void safe_update_nudge(py::object trigger, py::dict context);
// The start-up floors: OUT_OF_MEMORY below 4.0 GB available, DISK_FULL below 500 MB free in ~.
void check_memory();
void check_disk();
// RuntimeError(_MANAGEMENT_ACTIVE_ERROR) while a search owns the process.
void raise_if_management_blocked();

// _config.get("data_dir", dflt) of quillmarsh.agent_onboarding; `dflt` when that module is missing.
py::object agent_onboarding_data_dir(py::object dflt = py::none());
// The configured data directory with ~ expanded, or OSError when none is configured.
py::object configured_tracking_data_dir();
// SearchTracker(<configured data dir>); the caller closes it.
py::object new_management_tracker();
// getattr(new tracker, method_name)(*args, **kwargs), closing the tracker whatever happens.
py::object call_management_tracker(py::object method_name, py::tuple args, py::dict kwargs);

// True when `mod._library_runtime.auth_proxy.get_token()` returns, whatever it returns.
bool is_authed(py::handle mod);
// None, or the Exception raised by agent_onboarding.ensure_runtime_bootstrapped(strict=True).
py::object bootstrap_runtime_from_cached_auth(py::handle mod);

// The configured "server_url", or None (absent, falsy, or ending in ".invalid").
py::object resolve_signal_service_url();
// The first auth object available: runtime proxy, module `_auth`, agent_onboarding `_auth_manager`.
py::object submission_auth_obj();
// A fresh token, or AuthError(_NOT_AUTHENTICATED_MESSAGE).
py::object get_submission_token();
// SignalServiceClient(server_url, token, timeout=timeout), new for every use.
py::object build_signal_service_client(py::object timeout);

}  // namespace quillmarsh::st

// Names of the doors to the sibling modules, and the sibling names bound at load.
#include "common/host_runtime.hpp"
#include "host/bindings.hpp"

namespace quillmarsh::st {

void bind_host_runtime(py::module_& m) {
    bind_sibling_imports(m);

    m.def("_safe_update_nudge", [](py::object trigger, py::kwargs context) { safe_update_nudge(trigger, context); },
          py::arg("trigger"));
    m.def("_check_memory", &check_memory);
    m.def("_check_disk", &check_disk);
    m.def("_raise_if_management_blocked", &raise_if_management_blocked);
    m.def("_agent_onboarding_data_dir", &agent_onboarding_data_dir, py::arg("default") = py::none());
    m.def("_configured_tracking_data_dir", &configured_tracking_data_dir);
    m.def("_new_management_tracker", &new_management_tracker);
    m.def("_call_management_tracker",
          [](py::object method_name, py::args args, py::kwargs kwargs) {
              return call_management_tracker(method_name, args, kwargs);
          },
          py::arg("method_name"));
    m.def("_is_authed", [](py::object mod) { return is_authed(mod); }, py::arg("mod"));
    m.def("_bootstrap_runtime_from_cached_auth", [](py::object mod) { return bootstrap_runtime_from_cached_auth(mod); },
          py::arg("mod"));
    m.def("_resolve_signal_service_url", &resolve_signal_service_url);
    m.def("_submission_auth_obj", &submission_auth_obj);
    m.def("_get_submission_token", &get_submission_token);
    m.def("_build_signal_service_client", &build_signal_service_client, py::arg("timeout") = 30.0);
}

}  // namespace quillmarsh::st

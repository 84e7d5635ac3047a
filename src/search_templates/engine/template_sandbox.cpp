#include "engine/template_sandbox.hpp"

#include "common/py_helpers.hpp"
#include "common/search_error.hpp"
#include "engine/search_handle.hpp"

#include <pythread.h>

namespace quillmarsh::st {

namespace {

py::object current_thread_id() { return py::int_(PyThread_get_thread_ident()); }

// One hook: refuse a marked thread, else hand every argument to the original unchanged.
py::object call_hooked(const char* operation, const char* original_name, py::args args, py::kwargs kwargs) {
    if (template_sandbox_active()) raise_template_sandbox_violation(operation);
    return module_attr(original_name)(*args, **kwargs);
}

struct SandboxContext {};

// A standard module, imported once: every sandbox entry re-installs the hooks, and the import machinery
// would cost more than the installation itself. Set under the GIL, never freed.
py::object cached_module(PyObject*& slot, const char* name) {
    if (slot == nullptr) slot = import_module(name).release().ptr();
    return py::reinterpret_borrow<py::object>(slot);
}
PyObject* g_urllib_request = nullptr;
PyObject* g_builtins = nullptr;
PyObject* g_sqlite3 = nullptr;

}  // namespace

bool template_sandbox_active() {
    py::object thread_id = current_thread_id();
    PyLockHold hold(module_attr("_template_sandbox_lock"));
    return module_attr("_template_sandbox_threads").contains(thread_id);
}

void raise_template_sandbox_violation(const std::string& operation) {
    raise_new(template_sandbox_violation_type(),
              py::make_tuple("forbidden " + operation + " access from search template"));
}

void install_template_sandbox_hooks() {
    // Imported before the lock is taken: an import must never run under it.
    py::object urllib_request = cached_module(g_urllib_request, "urllib.request");
    py::object builtins = cached_module(g_builtins, "builtins");
    py::object sqlite3 = cached_module(g_sqlite3, "sqlite3");
    py::module_ m = module();
    PyLockHold hold(module_attr("_template_sandbox_lock"));
    py::object sandboxed_urlopen = module_attr("_sandboxed_urllib_urlopen");
    builtins.attr("open") = module_attr("_sandboxed_open");
    sqlite3.attr("connect") = module_attr("_sandboxed_sqlite_connect");
    if (truthy(module_attr("_template_sandbox_hooks_installed"))) {
        if (!py::object(urllib_request.attr("urlopen")).is(sandboxed_urlopen)) urllib_request.attr("urlopen") = sandboxed_urlopen;
        return;
    }
    m.attr("_original_urllib_urlopen") = urllib_request.attr("urlopen");
    urllib_request.attr("urlopen") = sandboxed_urlopen;
    m.attr("_template_sandbox_hooks_installed") = true;
}

TemplateSandboxScope::TemplateSandboxScope() {
    install_template_sandbox_hooks();
    thread_id_ = current_thread_id();
    PyLockHold hold(module_attr("_template_sandbox_lock"));
    module_attr("_template_sandbox_threads").attr("add")(thread_id_);
}

TemplateSandboxScope::~TemplateSandboxScope() {
    // Without the GIL this is a daemon thread being unwound at interpreter exit: touch nothing.
    if (PyGILState_Check() == 0) {
        thread_id_.release();
        return;
    }
    try {
        PyLockHold hold(module_attr("_template_sandbox_lock"));
        module_attr("_template_sandbox_threads").attr("discard")(thread_id_);
    } catch (py::error_already_set& e) {
        // Leaving the set cannot fail short of the module being torn down; nothing to unwind into here.
        e.discard_as_unraisable("leaving the template sandbox");
    }
}

py::object new_template_sandbox_context() {
    return py::cast(SandboxContext{});
}

void init_template_sandbox(py::module_& m) {
    py::module_ threading = py::module_::import("threading");
    m.attr("_template_sandbox_lock") = threading.attr("Lock")();
    m.attr("_template_sandbox_threads") = py::set();
    m.attr("_template_sandbox_hooks_installed") = false;
    m.attr("_original_open") = py::module_::import("builtins").attr("open");
    m.attr("_original_sqlite_connect") = py::module_::import("sqlite3").attr("connect");
    m.attr("_original_urllib_urlopen") = py::none();

    m.def("_sandboxed_open", [](py::args a, py::kwargs k) { return call_hooked("filesystem", "_original_open", a, k); });
    m.def("_sandboxed_sqlite_connect",
          [](py::args a, py::kwargs k) { return call_hooked("sqlite", "_original_sqlite_connect", a, k); });
    m.def("_sandboxed_urllib_urlopen",
          [](py::args a, py::kwargs k) { return call_hooked("network", "_original_urllib_urlopen", a, k); });
    m.def("_template_sandbox_active", &template_sandbox_active);
    m.def("_raise_template_sandbox_violation",
          [](const std::string& operation) { raise_template_sandbox_violation(operation); }, py::arg("operation"));
    m.def("_install_template_sandbox_hooks", &install_template_sandbox_hooks);

    // The context manager of `_template_sandbox()`: marks the thread on entry, unmarks it on any exit.
    py::class_<SandboxContext>(m, "_TemplateSandboxContext")
        .def("__enter__", [](SandboxContext&) {
            install_template_sandbox_hooks();
            PyLockHold hold(module_attr("_template_sandbox_lock"));
            module_attr("_template_sandbox_threads").attr("add")(current_thread_id());
        })
        .def("__exit__", [](SandboxContext&, py::args) {
            PyLockHold hold(module_attr("_template_sandbox_lock"));
            module_attr("_template_sandbox_threads").attr("discard")(current_thread_id());
            return false;
        });
    m.def("_template_sandbox", &new_template_sandbox_context);
}

}  // namespace quillmarsh::st

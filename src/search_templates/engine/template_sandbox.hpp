// The template sandbox: while a template runs on a worker thread, the host's `open`, `sqlite3.connect`
// and `urllib.request.urlopen` refuse that thread with TemplateSandboxViolation; every other thread gets
// the originals. The hooks are installed process-wide at the first entry and put back at every entry, so
// a library that replaced one of them in the meantime loses to the hook. Behind them, an audit hook
// refuses the same thread every other door to files, sockets, processes, native code and SQLite, and a
// thread that a marked thread starts is marked too.
//
// The set of marked threads is guarded by the module's `_template_sandbox_lock` (a Python lock), held only
// for a set operation or for an installation, never while an original runs.
#pragma once

#include <pybind11/pybind11.h>

namespace quillmarsh::st {

namespace py = pybind11;

// Remembers the originals of `open` and `sqlite3.connect` and binds the sandbox's module state.
void init_template_sandbox(py::module_& m);

bool template_sandbox_active();
[[noreturn]] void raise_template_sandbox_violation(const std::string& operation);
void install_template_sandbox_hooks();
// The second line behind the hooks, for a host that asks for it (`_harden_template_sandbox()`): installed at
// once and at every later entry, and kept for the life of the process:
// an audit hook that refuses a marked thread every other way of opening or changing files, of reaching
// the network, of starting or signalling processes, of loading native code and of opening SQLite; and
// thread-starting functions that mark a thread started from a marked thread for as long as it runs.
void install_template_sandbox_guard();
// Asks for the second line from now on, for the life of the process; by default only the three hooks guard.
void harden_template_sandbox();
bool template_sandbox_hardened();

// The calling thread is marked for the life of this object: the worker's form of `_template_sandbox()`.
class TemplateSandboxScope {
public:
    TemplateSandboxScope();
    ~TemplateSandboxScope();
    TemplateSandboxScope(const TemplateSandboxScope&) = delete;
    TemplateSandboxScope& operator=(const TemplateSandboxScope&) = delete;

private:
    py::object thread_id_;
};

// `_template_sandbox()`: a context manager object for Python callers.
py::object new_template_sandbox_context();

}  // namespace quillmarsh::st

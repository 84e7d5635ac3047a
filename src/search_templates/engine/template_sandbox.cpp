#include "engine/template_sandbox.hpp"

#include "common/py_helpers.hpp"
#include "common/search_error.hpp"
#include "engine/search_handle.hpp"

#include <pythread.h>

#include <fcntl.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

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

// ---- the marked threads, as the audit hook sees them ------------------------------------------
//
// A mirror of `_template_sandbox_threads`, changed together with it under `_template_sandbox_lock`. The
// audit hook runs for every audited operation of every thread in the process, so it must answer without
// touching Python state: an atomic count answers "nobody is marked" with one load, and the set is read
// under a C++ mutex that is never held while Python runs.
std::mutex g_marked_mutex;
std::unordered_set<unsigned long> g_marked;
std::atomic<size_t> g_marked_count{0};

bool thread_marked(unsigned long ident) {
    if (g_marked_count.load(std::memory_order_acquire) == 0) return false;
    std::lock_guard<std::mutex> hold(g_marked_mutex);
    return g_marked.count(ident) != 0;
}

void mirror_mark(unsigned long ident) {
    std::lock_guard<std::mutex> hold(g_marked_mutex);
    g_marked.insert(ident);
    g_marked_count.store(g_marked.size(), std::memory_order_release);
}

void mirror_unmark(unsigned long ident) {
    std::lock_guard<std::mutex> hold(g_marked_mutex);
    g_marked.erase(ident);
    g_marked_count.store(g_marked.size(), std::memory_order_release);
}

void mark_current_thread() {
    py::object thread_id = current_thread_id();
    PyLockHold hold(module_attr("_template_sandbox_lock"));
    module_attr("_template_sandbox_threads").attr("add")(thread_id);
    mirror_mark(PyThread_get_thread_ident());
}

void unmark_thread(const py::object& thread_id) {
    PyLockHold hold(module_attr("_template_sandbox_lock"));
    module_attr("_template_sandbox_threads").attr("discard")(thread_id);
    mirror_unmark(thread_id.cast<unsigned long>());
}

// ---- the audit hook: every other door of the host ------------------------------------------------

// The audited operations that a marked thread is refused, with the word of the refusal.
struct GuardedEvent {
    const char* event;
    const char* word;
};
constexpr GuardedEvent GUARDED_EVENTS[] = {
    {"open", "filesystem"},           {"os.remove", "filesystem"},      {"os.rename", "filesystem"},
    {"os.rmdir", "filesystem"},       {"os.mkdir", "filesystem"},       {"os.truncate", "filesystem"},
    {"os.chmod", "filesystem"},       {"os.chown", "filesystem"},       {"os.link", "filesystem"},
    {"os.symlink", "filesystem"},     {"os.utime", "filesystem"},       {"os.chflags", "filesystem"},
    {"shutil.rmtree", "filesystem"},  {"sqlite3.connect", "sqlite"},    {"socket.connect", "network"},
    {"socket.bind", "network"},       {"socket.sendto", "network"},     {"socket.sendmsg", "network"},
    {"socket.getaddrinfo", "network"}, {"socket.gethostbyname", "network"},
    {"socket.gethostbyaddr", "network"}, {"subprocess.Popen", "process"}, {"os.system", "process"},
    {"os.exec", "process"},           {"os.posix_spawn", "process"},    {"os.spawn", "process"},
    {"os.fork", "process"},           {"os.forkpty", "process"},        {"os.startfile", "process"},
    {"os.kill", "process"},           {"os.killpg", "process"},         {"ctypes.dlopen", "native code"},
};

const GuardedEvent* guarded_event(const char* event) {
    // Every guarded name starts with one of these letters: most events are told apart by the first.
    const char first = event[0];
    if (first != 'o' && first != 's' && first != 'c') return nullptr;
    static const auto* by_name = [] {
        auto* table = new std::unordered_map<std::string_view, const GuardedEvent*>();
        for (const GuardedEvent& g : GUARDED_EVENTS) table->emplace(g.event, &g);
        return table;
    }();
    auto it = by_name->find(std::string_view(event));
    return it == by_name->end() ? nullptr : it->second;
}

// Where a frame's code comes from, by its module's name.
enum class FrameOrigin { Other, ImportSystem, LineCache, Tokenize };

FrameOrigin frame_origin(PyFrameObject* frame) {
#if PY_VERSION_HEX >= 0x030B0000
    PyObject* globals = PyFrame_GetGlobals(frame);  // new reference
#else
    PyObject* globals = frame->f_globals;
    Py_XINCREF(globals);
#endif
    if (globals == nullptr) return FrameOrigin::Other;
    FrameOrigin origin = FrameOrigin::Other;
    PyObject* name = PyDict_Check(globals) ? PyDict_GetItemString(globals, "__name__") : nullptr;  // borrowed
    if (name != nullptr && PyUnicode_Check(name)) {
        for (const char* import_module_name : {"importlib._bootstrap", "importlib._bootstrap_external",
                                               "_frozen_importlib", "_frozen_importlib_external", "zipimport"})
            if (PyUnicode_CompareWithASCIIString(name, import_module_name) == 0) origin = FrameOrigin::ImportSystem;
        if (PyUnicode_CompareWithASCIIString(name, "linecache") == 0) origin = FrameOrigin::LineCache;
        if (PyUnicode_CompareWithASCIIString(name, "tokenize") == 0) origin = FrameOrigin::Tokenize;
    }
    Py_DECREF(globals);
    return origin;
}

// An "open" that can neither write, create nor truncate: its flags are the operating system's.
bool read_only_open(const char* event, PyObject* args) {
    if (std::strcmp(event, "open") != 0 || !PyTuple_Check(args) || PyTuple_GET_SIZE(args) < 3) return false;
    long flags = PyLong_AsLong(PyTuple_GET_ITEM(args, 2));
    if (flags == -1 && PyErr_Occurred()) {
        PyErr_Clear();
        return false;
    }
    return (flags & O_ACCMODE) == O_RDONLY && (flags & (O_CREAT | O_TRUNC | O_APPEND)) == 0;
}

// What the host itself does on a marked thread and stays allowed: the import system reading the module
// files it needs (and caching their bytecode); a module body that reads its package's files while it is
// imported; and the source lines that tracebacks and warnings show (linecache, through tokenize.open).
bool allowed_host_file_access(const char* event, PyObject* args) {
    PyFrameObject* top = PyEval_GetFrame();  // borrowed
    if (top == nullptr) return false;
    const FrameOrigin top_origin = frame_origin(top);
    if (top_origin == FrameOrigin::ImportSystem) return true;
    if (!read_only_open(event, args)) return false;
    if (top_origin == FrameOrigin::LineCache) return true;
    bool allowed = false;
    bool caller_of_top = true;
    PyFrameObject* frame = PyFrame_GetBack(top);  // new reference
    while (frame != nullptr && !allowed) {
        const FrameOrigin origin = frame_origin(frame);
        allowed = origin == FrameOrigin::ImportSystem ||
                  (caller_of_top && top_origin == FrameOrigin::Tokenize && origin == FrameOrigin::LineCache);
        caller_of_top = false;
        PyFrameObject* back = PyFrame_GetBack(frame);
        Py_DECREF(frame);
        frame = back;
    }
    Py_XDECREF(frame);
    return allowed;
}

int refuse(const char* word) {
    PyObject* type = template_sandbox_violation_type().ptr();
    PyObject* exc = PyObject_CallFunction(type, "s", ("forbidden " + std::string(word) + " access from search template").c_str());
    if (exc == nullptr) return -1;
    PyErr_SetObject(type, exc);
    Py_DECREF(exc);
    return -1;
}

// Runs with the GIL for every audited operation in the process, from any thread, up to finalisation:
// it reads no module state, and a thread that is not marked leaves after one atomic load (or a name
// comparison and a set lookup while some worker is inside).
int sandbox_audit_hook(const char* event, PyObject* args, void*) {
    if (g_marked_count.load(std::memory_order_acquire) == 0) return 0;
    const GuardedEvent* guarded = guarded_event(event);
    if (guarded == nullptr || !thread_marked(PyThread_get_thread_ident())) return 0;
    if (std::strcmp(guarded->word, "filesystem") == 0 && allowed_host_file_access(event, args)) return 0;
    // ctypes.CDLL(None) opens the running program itself, which loads no code: `import ctypes` does it.
    if (std::strcmp(event, "ctypes.dlopen") == 0 && PyTuple_Check(args) && PyTuple_GET_SIZE(args) >= 1 &&
        PyTuple_GET_ITEM(args, 0) == Py_None)
        return 0;
    try {
        return refuse(guarded->word);
    } catch (...) {
        // The message could not be built (out of memory): the operation still fails.
        if (!PyErr_Occurred()) PyErr_NoMemory();
        return -1;
    }
}

// ---- threads started from a marked thread are marked too ----------------------------------------

// The target of a thread started from a marked thread: it marks its own thread before the original
// target runs, and unmarks it when that returns, by return or by any exception.
struct InheritedSandboxTarget {
    py::object target;
};

py::object call_inherited_target(InheritedSandboxTarget& self, py::args args, py::kwargs kwargs) {
    mark_current_thread();
    py::object thread_id = current_thread_id();
    struct Unmark {
        py::object& thread_id;
        ~Unmark() {
            if (PyGILState_Check() == 0) {
                thread_id.release();  // a daemon thread unwound at interpreter exit: touch nothing
                return;
            }
            PyObject *type, *value, *trace;
            PyErr_Fetch(&type, &value, &trace);
            try {
                unmark_thread(thread_id);
            } catch (py::error_already_set& e) {
                e.discard_as_unraisable("leaving the template sandbox");
            }
            PyErr_Restore(type, value, trace);
        }
    } unmark{thread_id};
    return self.target(*args, **kwargs);
}

// The thread-starting functions of the host, each with the original it stands for. `threading` starts
// every Thread through its own module global, `_thread` offers the same function to direct callers.
struct ThreadStartDoor {
    const char* module_name;
    const char* attr;
};
constexpr ThreadStartDoor THREAD_START_DOORS[] = {
    {"threading", "_start_new_thread"},     {"threading", "_start_joinable_thread"},
    {"_thread", "start_new_thread"},        {"_thread", "start_new"},
    {"_thread", "start_joinable_thread"},
};
constexpr size_t THREAD_START_DOOR_COUNT = sizeof(THREAD_START_DOORS) / sizeof(THREAD_START_DOORS[0]);
PyObject* g_thread_start_modules[THREAD_START_DOOR_COUNT] = {};
PyObject* g_thread_start_wrappers[THREAD_START_DOOR_COUNT] = {};

py::object make_thread_start_wrapper(py::object original) {
    return py::cpp_function([original](py::object target, py::args args, py::kwargs kwargs) -> py::object {
        if (thread_marked(PyThread_get_thread_ident())) target = py::cast(InheritedSandboxTarget{target});
        return original(target, *args, **kwargs);
    });
}

bool g_audit_hook_added = false;
bool g_thread_start_doors_found = false;
// The hardened sandbox is asked for by the host; without it only the three hooked entry points are guarded.
bool g_guard_requested = false;

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

void install_template_sandbox_guard() {
    if (!g_audit_hook_added) {
        if (PySys_AddAuditHook(&sandbox_audit_hook, nullptr) < 0) throw py::error_already_set();
        g_audit_hook_added = true;
    }
    if (!g_thread_start_doors_found) {
        for (size_t i = 0; i < THREAD_START_DOOR_COUNT; ++i) {
            const ThreadStartDoor& door = THREAD_START_DOORS[i];
            py::object mod = import_module(door.module_name);
            py::object original = attr_or(mod, door.attr);
            if (original.is_none()) continue;  // not offered by this version of the host
            g_thread_start_wrappers[i] = make_thread_start_wrapper(original).release().ptr();
            g_thread_start_modules[i] = mod.release().ptr();
        }
        g_thread_start_doors_found = true;
    }
    // Put back at every entry, like the hooks: the function found first stays the original for good.
    for (size_t i = 0; i < THREAD_START_DOOR_COUNT; ++i) {
        if (g_thread_start_modules[i] == nullptr) continue;
        const ThreadStartDoor& door = THREAD_START_DOORS[i];
        py::handle mod(g_thread_start_modules[i]);
        py::handle wrapper(g_thread_start_wrappers[i]);
        if (!attr_or(mod, door.attr).is(wrapper)) set_attr(mod, door.attr, wrapper);
    }
}

void harden_template_sandbox() {
    g_guard_requested = true;
    install_template_sandbox_guard();
}

bool template_sandbox_hardened() { return g_guard_requested; }

namespace {

// Entering the sandbox: the hooks (and the hardened guard, when the host asked for it) in place, then this
// thread marked.
void enter_template_sandbox() {
    install_template_sandbox_hooks();
    if (g_guard_requested) install_template_sandbox_guard();
    mark_current_thread();
}

}  // namespace

TemplateSandboxScope::TemplateSandboxScope() {
    thread_id_ = current_thread_id();
    enter_template_sandbox();
}

TemplateSandboxScope::~TemplateSandboxScope() {
    // Without the GIL this is a daemon thread being unwound at interpreter exit: touch nothing.
    if (PyGILState_Check() == 0) {
        thread_id_.release();
        return;
    }
    try {
        unmark_thread(thread_id_);
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
    m.def("_harden_template_sandbox", &harden_template_sandbox);
    m.def("_template_sandbox_hardened", &template_sandbox_hardened);

    // The context manager of `_template_sandbox()`: marks the thread on entry, unmarks it on any exit.
    py::class_<SandboxContext>(m, "_TemplateSandboxContext")
        .def("__enter__", [](SandboxContext&) { enter_template_sandbox(); })
        .def("__exit__", [](SandboxContext&, py::args) {
            unmark_thread(current_thread_id());
            return false;
        });
    m.def("_template_sandbox", &new_template_sandbox_context);

    py::class_<InheritedSandboxTarget>(m, "_InheritedSandboxTarget")
        .def("__call__", &call_inherited_target)
        .def_property_readonly("target", [](const InheritedSandboxTarget& t) { return t.target; });
}

}  // namespace quillmarsh::st

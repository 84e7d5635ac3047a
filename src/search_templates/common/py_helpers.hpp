// Small helpers that every subsystem of the search component uses at the C++/Python boundary.
//
//  * The live module object: names that a host or a test may replace (collaborator classes, hooks,
//    `_library_runtime`, the logger) are read from the module's namespace at each use, never cached.
//  * Tolerant reads with Python's own semantics: `attr_or` behaves like `getattr(obj, name, default)`
//    (only AttributeError falls back to the default), `key_or_attr` reads a map's key or else an
//    attribute, `callable_attr` yields an attribute only when it is callable.
//  * Exact-type tests: `type(x) is dict` versus `isinstance(x, dict)`, and "an int that is not a bool".
//  * Logging through the module's `logger` with a %-format and its arguments, so that records look the
//    same as records made by Python code.
//  * Raising a Python exception instance from C++.
//
// None of these hold a C++ lock; all of them expect the GIL to be held.
#pragma once

#include <initializer_list>

#include <pybind11/pybind11.h>

#include <string>
#include <type_traits>
#include <string_view>
#include <utility>

namespace quillmarsh::st {

namespace py = pybind11;

// ---- the live module -------------------------------------------------------------------------

// Remembers the module object; called once by the module's initialiser.
void set_module(py::module_ m);
// The module object `quillmarsh.search_templates`.
py::module_ module();
// The current value of a module global; raises AttributeError naming the module when it is unset.
py::object module_attr(const char* name);
// The current value of a module global, or None when it is unset.
py::object module_attr_or_none(const char* name);

// ---- tolerant reads --------------------------------------------------------------------------

// getattr(obj, name, dflt): an AttributeError yields `dflt`, any other error propagates.
py::object attr_or(py::handle obj, const char* name, py::object dflt = py::none());
// obj.get(name, dflt) when obj is a dict (or subclass), else attr_or(obj, name, dflt).
py::object key_or_attr(py::handle obj, const char* name, py::object dflt = py::none());
// The same two reads with the name as a Python str (see ST_NAME for literals read on hot paths).
py::object attr_or(py::handle obj, py::handle name, py::object dflt = py::none());
py::object key_or_attr(py::handle obj, py::handle name, py::object dflt = py::none());

// The interned str of `name`, made once per distinct name for the process (a borrowed reference). The
// helpers that take a `const char*` name go through it, so a hot path pays no str construction.
PyObject* cached_name(const char* name);
// An interned str made once for the process; ST_NAME("x") gives each call site its own.
PyObject* intern_name(const char* literal);
#define ST_NAME(literal)                                                                  \
    ([]() -> ::pybind11::handle {                                                         \
        static PyObject* const interned_ = ::quillmarsh::st::intern_name(literal);       \
        return interned_;                                                                 \
    }())
// d[key] = value for a dict, and d.get(key) for a dict (None for anything else), the key made once per
// process.
inline void dict_set(py::handle d, const char* key, py::handle value) {
    if (PyDict_SetItem(d.ptr(), cached_name(key), value.ptr()) < 0) throw py::error_already_set();
}
template <typename T>
    requires(!std::is_base_of_v<py::handle, std::decay_t<T>>)
void dict_set(py::handle d, const char* key, T&& value) {
    dict_set(d, key, py::handle(py::cast(std::forward<T>(value))));
}
inline py::object dict_get(py::handle d, const char* key) {
    if (!PyDict_Check(d.ptr())) return py::none();
    PyObject* v = PyDict_GetItemWithError(d.ptr(), cached_name(key));
    if (v == nullptr && PyErr_Occurred()) throw py::error_already_set();
    return v ? py::reinterpret_borrow<py::object>(v) : py::object(py::none());
}
// The attribute when it exists and is callable, else None.
py::object callable_attr(py::handle obj, const char* name);

// fn(*args, **kwargs) with `kwargs` a dict (or None), straight through the interpreter: no per-keyword
// work on our side.
py::object call_kw(py::handle fn, std::initializer_list<py::handle> args, py::handle kwargs);
// obj.name() with the name made once per process.
py::object call_method(py::handle obj, const char* name);
// setattr(obj, name, value) with the name made once per process.
inline void set_attr(py::handle obj, const char* name, py::handle value) {
    if (PyObject_SetAttr(obj.ptr(), cached_name(name), value.ptr()) < 0) throw py::error_already_set();
}

// ---- type tests ------------------------------------------------------------------------------

inline bool is_none(py::handle h) { return h.is_none(); }
inline bool is_dict(py::handle h) { return PyDict_Check(h.ptr()); }
inline bool is_exact_dict(py::handle h) { return PyDict_CheckExact(h.ptr()); }
inline bool is_list(py::handle h) { return PyList_Check(h.ptr()); }
inline bool is_exact_list(py::handle h) { return PyList_CheckExact(h.ptr()); }
inline bool is_str(py::handle h) { return PyUnicode_Check(h.ptr()); }
inline bool is_exact_str(py::handle h) { return PyUnicode_CheckExact(h.ptr()); }
inline bool is_bool(py::handle h) { return PyBool_Check(h.ptr()); }
// isinstance(x, int) and not isinstance(x, bool)
inline bool is_int_not_bool(py::handle h) { return PyLong_Check(h.ptr()) && !PyBool_Check(h.ptr()); }
inline bool is_exact_int(py::handle h) { return PyLong_CheckExact(h.ptr()); }
inline bool is_float(py::handle h) { return PyFloat_Check(h.ptr()); }
inline bool is_exact_float(py::handle h) { return PyFloat_CheckExact(h.ptr()); }
// isinstance(x, (int, float)): booleans count as integers
inline bool is_int_or_float(py::handle h) { return PyLong_Check(h.ptr()) || PyFloat_Check(h.ptr()); }
// isinstance(x, (int, float)) and not isinstance(x, bool)
inline bool is_real_not_bool(py::handle h) { return is_int_not_bool(h) || PyFloat_Check(h.ptr()); }
inline bool is_callable(py::handle h) { return PyCallable_Check(h.ptr()) != 0; }
// `item in container` with Python's operator (pybind11's object_api::contains goes through a method call).
bool py_contains(py::handle container, py::handle item);
// list(x): always a new list, even when x already is one (py::list(x) would hand back x itself).
py::list new_list(py::handle iterable);
// bool(x) with Python's truth rules; errors propagate.
bool truthy(py::handle h);
// a == b and a != b with Python's operators (no identity shortcut); errors propagate.
// The truth of `a <op> b` with Python's rich comparison (op is Py_LT, Py_LE, Py_EQ, ...); errors propagate.
bool py_compare(py::handle a, py::handle b, int op);
bool py_equal(py::handle a, py::handle b);
bool py_not_equal(py::handle a, py::handle b);
bool py_lt(py::handle a, py::handle b);
bool py_gt(py::handle a, py::handle b);
// repr(x), as `%r` shows it.
std::string repr(py::handle h);
// str(x).
std::string str(py::handle h);
// format(x, format_spec), e.g. py_format(3.94, ".1f") == "3.9".
std::string py_format(py::handle h, const char* format_spec);

// ---- logging ---------------------------------------------------------------------------------

enum class LogLevel : int { Debug = 10, Info = 20, Warning = 30, Error = 40 };

// logger.log(level, fmt, *args) through the module's current `logger`. The level test comes first, so
// a disabled level costs one call and no argument conversion.
bool log_enabled(LogLevel level);
void log_args(LogLevel level, const char* fmt, py::tuple args, py::object exc_info = py::none());
// logger.log(level, msg, extra=extra): a record with extra fields, as structured handlers read them.
void log_with_extra(LogLevel level, const char* msg, py::dict extra);

template <typename... Args>
void log(LogLevel level, const char* fmt, Args&&... args) {
    if (!log_enabled(level)) return;
    log_args(level, fmt, py::make_tuple(std::forward<Args>(args)...));
}
template <typename... Args> void log_debug(const char* fmt, Args&&... a) { log(LogLevel::Debug, fmt, std::forward<Args>(a)...); }
template <typename... Args> void log_info(const char* fmt, Args&&... a) { log(LogLevel::Info, fmt, std::forward<Args>(a)...); }
template <typename... Args> void log_warning(const char* fmt, Args&&... a) { log(LogLevel::Warning, fmt, std::forward<Args>(a)...); }
template <typename... Args> void log_error(const char* fmt, Args&&... a) { log(LogLevel::Error, fmt, std::forward<Args>(a)...); }

// (type, value, traceback) of an error, as `exc_info` takes it: None for a part that is missing, such as
// the traceback of an error that native code raised.
py::tuple exc_info_of(const py::error_already_set& err);
// logger.error(msg, exc_info=<the exception>): a loop's crash line with its traceback. Never throws: a
// failure of the logging itself is reported as unraisable.
void log_exception(const char* msg, const py::error_already_set& err);

// ---- raising ---------------------------------------------------------------------------------

// Sets `instance` (an exception object) as the pending Python error and throws error_already_set,
// which pybind11 hands back to the interpreter unchanged.
[[noreturn]] void raise_instance(py::handle instance);
// Calls `exc_type(*args)` and raises the result.
[[noreturn]] void raise_new(py::handle exc_type, py::tuple args);

// `raise instance from cause`: sets __cause__ (and __context__) before raising.
[[noreturn]] void raise_from(py::handle instance, py::handle cause);

// True when the pending exception of `err` is an instance of `exc_type` (isinstance semantics).
bool error_matches(const py::error_already_set& err, py::handle exc_type);
// True when `err` is a ModuleNotFoundError whose `name` is exactly `module_name`.
bool is_module_not_found(const py::error_already_set& err, const char* module_name);

// ---- imports ---------------------------------------------------------------------------------

// `import module_name` (the submodule itself, not the top package).
py::object import_module(const char* module_name);
// `from module_name import name`: a missing attribute raises ImportError as the statement would.
py::object import_from(const char* module_name, const char* name);
// hasattr(obj, name): only AttributeError means "no".
bool has_attr(py::handle obj, const char* name);

}  // namespace quillmarsh::st

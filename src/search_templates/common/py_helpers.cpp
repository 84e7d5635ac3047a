#include "common/py_helpers.hpp"

#include <cstdint>
#include <cstring>

#include <string>
#include <unordered_map>

namespace quillmarsh::st {

namespace {
// A strong reference for the life of the process: the module object outlives every caller.
PyObject* g_module = nullptr;
}  // namespace

void set_module(py::module_ m) {
    Py_XDECREF(g_module);
    g_module = m.release().ptr();
}

py::module_ module() {
    if (g_module == nullptr) throw std::runtime_error("quillmarsh.search_templates is not initialised");
    return py::reinterpret_borrow<py::module_>(g_module);
}

py::object module_attr(const char* name) {
    PyObject* dict = PyModule_GetDict(module().ptr());  // borrowed
    PyObject* value = PyDict_GetItemWithError(dict, cached_name(name));  // borrowed
    if (value == nullptr) {
        if (PyErr_Occurred()) throw py::error_already_set();
        PyErr_Format(PyExc_AttributeError, "module 'quillmarsh.search_templates' has no attribute '%s'", name);
        throw py::error_already_set();
    }
    return py::reinterpret_borrow<py::object>(value);
}

py::object module_attr_or_none(const char* name) {
    PyObject* value = PyDict_GetItemWithError(PyModule_GetDict(module().ptr()), cached_name(name));
    if (value == nullptr && PyErr_Occurred()) throw py::error_already_set();
    return value ? py::reinterpret_borrow<py::object>(value) : py::none();
}

// getattr without building the AttributeError that a miss would otherwise raise: 1 found (a new
// reference in *value), 0 missing, -1 another error (set).
static int lookup_attr(py::handle obj, py::handle name, PyObject** value) {
#if PY_VERSION_HEX >= 0x030D0000
    return PyObject_GetOptionalAttr(obj.ptr(), name.ptr(), value);
#else
    return _PyObject_LookupAttr(obj.ptr(), name.ptr(), value);
#endif
}

py::object attr_or(py::handle obj, py::handle name, py::object dflt) {
    PyObject* value = nullptr;
    int found = lookup_attr(obj, name, &value);
    if (found < 0) throw py::error_already_set();
    if (found == 0) return dflt;
    return py::reinterpret_steal<py::object>(value);
}

py::object attr_or(py::handle obj, const char* name, py::object dflt) {
    return attr_or(obj, py::handle(cached_name(name)), std::move(dflt));
}

py::object key_or_attr(py::handle obj, py::handle name, py::object dflt) {
    if (PyDict_Check(obj.ptr())) {
        // dict.get semantics, including a subclass's own get()
        if (PyDict_CheckExact(obj.ptr())) {
            PyObject* value = PyDict_GetItemWithError(obj.ptr(), name.ptr());
            if (value != nullptr) return py::reinterpret_borrow<py::object>(value);
            if (PyErr_Occurred()) throw py::error_already_set();
            return dflt;
        }
        return obj.attr("get")(name, dflt);
    }
    return attr_or(obj, name, std::move(dflt));
}

py::object key_or_attr(py::handle obj, const char* name, py::object dflt) {
    return key_or_attr(obj, py::handle(cached_name(name)), std::move(dflt));
}

PyObject* cached_name(const char* name) {
    // Two levels, both touched only with the GIL held, which serialises every use. In front, a small
    // table keyed by the pointer: a call site passes the same literal every time, so a hit costs one
    // strcmp against the cached str's own UTF-8, which also makes a reused buffer of a temporary string
    // safe. Behind it, the map keyed by content.
    struct Slot { const char* ptr; PyObject* str; };
    static Slot front[256];
    Slot& slot = front[(reinterpret_cast<std::uintptr_t>(name) >> 3) & 255];
    if (slot.ptr == name && std::strcmp(PyUnicode_AsUTF8(slot.str), name) == 0) return slot.str;

    static auto* names = new std::unordered_map<std::string, PyObject*>();
    auto it = names->find(name);
    if (it != names->end()) {
        slot = {name, it->second};
        return it->second;
    }
    PyObject* s = intern_name(name);
    if (names->size() < 4096) {
        names->emplace(name, s);
        slot = {name, s};
        return s;
    }
    // Past the bound (names that callers made up at run time) the str lives until the next such call,
    // which is long enough for the lookup it was made for.
    static PyObject* overflow = nullptr;
    Py_XSETREF(overflow, s);
    return s;
}

PyObject* intern_name(const char* literal) {
    PyObject* s = PyUnicode_InternFromString(literal);
    if (s == nullptr) throw py::error_already_set();
    return s;  // kept for the life of the process
}

py::object callable_attr(py::handle obj, const char* name) {
    py::object value = attr_or(obj, name);
    return PyCallable_Check(value.ptr()) ? value : py::none();
}

py::object call_kw(py::handle fn, std::initializer_list<py::handle> args, py::handle kwargs) {
    PyObject* tuple = PyTuple_New(static_cast<Py_ssize_t>(args.size()));
    if (tuple == nullptr) throw py::error_already_set();
    Py_ssize_t i = 0;
    for (py::handle a : args) PyTuple_SET_ITEM(tuple, i++, py::handle(a).inc_ref().ptr());
    PyObject* out = PyObject_Call(fn.ptr(), tuple, kwargs.ptr());
    Py_DECREF(tuple);
    if (out == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::object>(out);
}

py::object call_method(py::handle obj, const char* name) {
    PyObject* out = PyObject_CallMethodNoArgs(obj.ptr(), cached_name(name));
    if (out == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::object>(out);
}

bool py_contains(py::handle container, py::handle item) {
    int r = PySequence_Contains(container.ptr(), item.ptr());
    if (r < 0) throw py::error_already_set();
    return r != 0;
}

py::list new_list(py::handle iterable) {
    PyObject* out = PySequence_List(iterable.ptr());
    if (out == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::list>(out);
}

bool truthy(py::handle h) {
    int r = PyObject_IsTrue(h.ptr());
    if (r < 0) throw py::error_already_set();
    return r != 0;
}

bool py_compare(py::handle a, py::handle b, int op) {
    PyObject* result = PyObject_RichCompare(a.ptr(), b.ptr(), op);
    if (result == nullptr) throw py::error_already_set();
    return truthy(py::reinterpret_steal<py::object>(result));
}

bool py_equal(py::handle a, py::handle b) { return py_compare(a, b, Py_EQ); }
bool py_not_equal(py::handle a, py::handle b) { return py_compare(a, b, Py_NE); }
bool py_lt(py::handle a, py::handle b) { return py_compare(a, b, Py_LT); }
bool py_gt(py::handle a, py::handle b) { return py_compare(a, b, Py_GT); }

std::string repr(py::handle h) { return py::repr(h).cast<std::string>(); }
std::string str(py::handle h) { return py::str(h).cast<std::string>(); }

std::string py_format(py::handle h, const char* format_spec) {
    PyObject* out = PyObject_Format(h.ptr(), py::str(format_spec).ptr());
    if (out == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::str>(out).cast<std::string>();
}

bool log_enabled(LogLevel level) {
    return truthy(module_attr("logger").attr("isEnabledFor")(static_cast<int>(level)));
}

void log_args(LogLevel level, const char* fmt, py::tuple args, py::object exc_info) {
    py::object logger = module_attr("logger");
    py::tuple call_args(args.size() + 2);
    call_args[0] = py::int_(static_cast<int>(level));
    call_args[1] = py::str(fmt);
    for (size_t i = 0; i < args.size(); ++i) call_args[i + 2] = args[i];
    py::dict kwargs;
    if (!exc_info.is_none()) kwargs["exc_info"] = exc_info;
    logger.attr("log")(*call_args, **kwargs);
}

void log_with_extra(LogLevel level, const char* msg, py::dict extra) {
    if (!log_enabled(level)) return;
    module_attr("logger").attr("log")(static_cast<int>(level), msg, py::arg("extra") = extra);
}

namespace {
py::object or_none(py::handle h) { return h ? py::reinterpret_borrow<py::object>(h) : py::object(py::none()); }
}  // namespace

py::tuple exc_info_of(const py::error_already_set& err) {
    // An error raised by native code and never unwound through a Python frame has no traceback: logging
    // takes None there, as sys.exc_info() would show it.
    return py::make_tuple(or_none(err.type()), or_none(err.value()), or_none(err.trace()));
}

void log_exception(const char* msg, const py::error_already_set& err) {
    // (type, value, traceback): the value alone may not carry its traceback once fetched from C.
    try {
        log_args(LogLevel::Error, msg, py::tuple(), exc_info_of(err));
    } catch (py::error_already_set& failure) {
        // Called from the last guard of a thread loop: a logger that fails must not end the thread with an
        // escaped error; the failure goes where Python reports errors nobody can catch.
        failure.discard_as_unraisable(msg);
    } catch (const std::exception& failure) {
        PyErr_SetString(PyExc_RuntimeError, failure.what());
        PyErr_WriteUnraisable(nullptr);
    }
}

void raise_instance(py::handle instance) {
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(instance.ptr())), instance.ptr());
    throw py::error_already_set();
}

void raise_new(py::handle exc_type, py::tuple args) { raise_instance(exc_type(*args)); }

bool error_matches(const py::error_already_set& err, py::handle exc_type) {
    return PyErr_GivenExceptionMatches(err.type().ptr(), exc_type.ptr()) != 0;
}

void raise_from(py::handle instance, py::handle cause) {
    // The setter of __cause__ also sets __suppress_context__, as `raise ... from` does.
    PyException_SetCause(instance.ptr(), py::reinterpret_borrow<py::object>(cause).release().ptr());
    PyException_SetContext(instance.ptr(), py::reinterpret_borrow<py::object>(cause).release().ptr());
    raise_instance(instance);
}

bool is_module_not_found(const py::error_already_set& err, const char* module_name) {
    if (!error_matches(err, PyExc_ModuleNotFoundError)) return false;
    py::object name = attr_or(err.value(), "name");
    return is_str(name) && name.cast<std::string>() == module_name;
}

py::object import_module(const char* module_name) {
    PyObject* mod = PyImport_ImportModule(module_name);
    if (mod == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::object>(mod);
}

py::object import_from(const char* module_name, const char* name) {
    py::object mod = import_module(module_name);
    PyObject* value = PyObject_GetAttrString(mod.ptr(), name);
    if (value != nullptr) return py::reinterpret_steal<py::object>(value);
    if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw py::error_already_set();
    PyErr_Clear();
    py::object err = py::reinterpret_borrow<py::object>(PyExc_ImportError)(
        py::str("cannot import name '{}' from '{}'").format(name, module_name), py::arg("name") = module_name);
    raise_instance(err);
}

bool has_attr(py::handle obj, const char* name) {
    PyObject* value = nullptr;
    int found = lookup_attr(obj, py::str(name), &value);
    if (found < 0) throw py::error_already_set();
    Py_XDECREF(value);
    return found == 1;
}

}  // namespace quillmarsh::st

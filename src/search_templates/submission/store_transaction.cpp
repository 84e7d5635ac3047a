#include "submission/store_transaction.hpp"

#include "common/py_helpers.hpp"

#include <exception>
#include <string>

namespace quillmarsh::st {

py::object caught_general_exception() {
    try {
        throw;
    } catch (py::error_already_set& e) {
        if (!e.matches(PyExc_Exception)) throw;
        return e.value();
    } catch (py::builtin_exception& e) {
        e.set_error();
        py::error_already_set err;
        return err.value();
    } catch (std::exception& e) {
        return py::reinterpret_borrow<py::object>(PyExc_RuntimeError)(e.what());
    }
}

py::object execute(py::handle conn, const char* sql, py::handle params) {
    return conn.attr(ST_NAME("execute"))(sql, params);
}

py::object execute(py::handle conn, const char* sql) { return conn.attr(ST_NAME("execute"))(sql); }

long long rowcount(py::handle cursor) { return cursor.attr(ST_NAME("rowcount")).cast<long long>(); }

void rollback_quietly(py::handle conn, const char* message) {
    try {
        execute(conn, "ROLLBACK");
    } catch (py::error_already_set& e) {
        if (!e.matches(PyExc_Exception)) throw;
        log_warning(message, e.value());
    }
}

void raise_runtime_error(const std::string& message) {
    raise_new(PyExc_RuntimeError, py::make_tuple(message));
}

void raise_value_error(const std::string& message) { raise_new(PyExc_ValueError, py::make_tuple(message)); }

py::object payload_get(py::handle payload, const char* key) {
    if (PyDict_Check(payload.ptr())) return dict_get(payload, key);
    return payload.attr(ST_NAME("get"))(key);
}

py::object payload_require(py::handle payload, const char* key) {
    if (PyDict_Check(payload.ptr())) {
        py::object value = dict_get(payload, key);
        if (!value.is_none() || PyDict_Contains(payload.ptr(), cached_name(key)) == 1) return value;
        raise_new(PyExc_KeyError, py::make_tuple(key));
    }
    return payload[py::str(key)];
}

}  // namespace quillmarsh::st

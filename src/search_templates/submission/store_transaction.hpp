// Small pieces shared by the handle's store operations of the submission pipeline: statements on the
// tracker's connection, guarded rollbacks, and turning whatever a guarded step threw into the Python
// exception object that the failure ledger records.
#pragma once

#include <pybind11/pybind11.h>

#include <initializer_list>

namespace quillmarsh::st {

namespace py = pybind11;

// To be called inside `catch (...)`: the exception in flight as a Python exception object when it is of
// the general exception class (Python errors, pybind11's builtin errors, C++ standard exceptions as
// RuntimeError). Anything else (KeyboardInterrupt, SystemExit, ...) is rethrown.
py::object caught_general_exception();

// conn.execute(sql, params) (params as a tuple) and conn.execute(sql).
py::object execute(py::handle conn, const char* sql, py::handle params);
py::object execute(py::handle conn, const char* sql);
// cursor.rowcount as an integer.
long long rowcount(py::handle cursor);

// "ROLLBACK" in a guard of its own: a general exception there is logged at warning level with
// `message` (a %s format) and swallowed, so that the first error goes on.
void rollback_quietly(py::handle conn, const char* message);

// Raises RuntimeError(message) / ValueError(message) as Python exceptions.
[[noreturn]] void raise_runtime_error(const std::string& message);
[[noreturn]] void raise_value_error(const std::string& message);

// payload.get(key) on a map (None when absent), and payload[key] (KeyError when absent).
py::object payload_get(py::handle payload, const char* key);
py::object payload_require(py::handle payload, const char* key);

}  // namespace quillmarsh::st

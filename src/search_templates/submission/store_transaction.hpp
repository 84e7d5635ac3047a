// Small pieces shared by the handle's store operations of the submission pipeline: statements on the
// tracker's connection, guarded rollbacks, and turning whatever a guarded step threw into the Python
// exception object that the failure ledger records.
#pragma once

#include "engine/search_handle.hpp"

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

// One write transaction on the tracker's connection, under `_tracker_write_lock`: "BEGIN IMMEDIATE",
// `body(conn)`, "COMMIT"; on any error a guarded "ROLLBACK" (logged with `rollback_message`) and the error
// goes on. Returns what `body` returned.
template <typename Body>
py::object write_transaction(SearchHandle& h, const char* rollback_message, Body&& body) {
    PyLockHold write_guard(h._tracker_write_lock);
    py::object conn = h._tracker.attr("_conn");
    try {
        execute(conn, "BEGIN IMMEDIATE");
        py::object result = body(conn);
        execute(conn, "COMMIT");
        return result;
    } catch (...) {
        rollback_quietly(conn, rollback_message);
        throw;
    }
}

// Raises RuntimeError(message) / ValueError(message) as Python exceptions.
[[noreturn]] void raise_runtime_error(const std::string& message);
[[noreturn]] void raise_value_error(const std::string& message);

// payload.get(key) on a map (None when absent), and payload[key] (KeyError when absent).
py::object payload_get(py::handle payload, const char* key);
py::object payload_require(py::handle payload, const char* key);

}  // namespace quillmarsh::st

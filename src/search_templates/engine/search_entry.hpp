// search(): the public start of a search, on the caller's thread; status() of the module; and the
// management operations on the tracking store that work without a search.
#pragma once

#include <pybind11/pybind11.h>

namespace quillmarsh::st {

namespace py = pybind11;

// Authenticates, checks the machine, replaces earlier searches of this process, syncs data, collects
// the runtime's collaborators, builds the handle (which starts its threads), publishes and returns it.
// The order of the checks is part of the contract: a caller failing two sees the earlier one.
py::object search(py::object template_, py::object n_jobs);
// The status of the active search; NO_ACTIVE_SEARCH without one.
py::object module_status();

py::object delete_evaluations(py::object eval_type, py::object keep_last);
py::object delete_failed_evaluations(py::object eval_type);
py::object get_db_info();
void inject_heartbeat();

}  // namespace quillmarsh::st

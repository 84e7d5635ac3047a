// Function eligibility: which functions of the vocabulary the random template may place in a SIGNAL
// expression. A function is safe when it is a rotation, is not reserved for the engine, has a usable runtime
// entry (when a runtime registry is present), and its `param_schema` is fully synthesizable with at least one
// data input. The result is a list of safe rotation records and a map of excluded names to reasons.
//
// The runtime registry is foreign and duck-typed: `has`, `get_entry` and `get_class` are each optional, and
// exceptions from `has`/`get_entry` count as "no usable entry".
#pragma once

#include <pybind11/pybind11.h>

#include <string>

namespace quillmarsh::st {

namespace py = pybind11;

py::object random_weighted_runtime_registry(py::handle ctx);
py::object random_weighted_registry_function_metadata(py::handle fn, py::handle registry);
py::object random_weighted_registry_safety_reason(py::handle name, py::handle registry);
std::string random_weighted_unsafe_function_reason(py::handle function_type, py::handle schema_reason);
// (list of safe rotation records, dict name -> reason).
py::tuple random_weighted_function_safety(py::handle functions, bool log_reasons, py::handle window_limit,
                                          py::handle node_limit, py::handle registry);
py::list random_weighted_safe_rotations(py::handle functions, py::handle window_limit, py::handle node_limit,
                                        py::handle registry);

}  // namespace quillmarsh::st

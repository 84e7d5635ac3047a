// Parameter synthesis: reading a rotation's `param_schema`, sorting its parameters into data inputs and
// configuration values, and finding a safe fixed value for every configuration parameter from its declared
// default or range. A schema that cannot be read, or a parameter without a safe value, refuses the function
// with a stable reason text; nothing here raises for bad metadata.
//
// Results that the module exposes keep their Python shapes: a schema result is a dict with `safe` and
// either `reason` or `data_params`/`config_children`; pairs are (value or None, reason or None).
#pragma once

#include <pybind11/pybind11.h>

#include <optional>
#include <string>

namespace quillmarsh::st {

namespace py = pybind11;

struct NumericBounds {
    bool has_min = false;
    double min_value = 0.0;
    bool has_max = false;
    double max_value = 0.0;
    bool bounds_valid = true;
    bool min_read = false;  // the values are None in the tuple until read
    bool max_read = false;
};

NumericBounds random_weighted_numeric_bounds(py::handle param);
// The bounds tuple as the module exposes it: (has_min, min or None, has_max, max or None, valid).
py::tuple numeric_bounds_tuple(const NumericBounds& b);
std::string random_weighted_numeric_range_label(const NumericBounds& b);
std::optional<std::string> random_weighted_numeric_bounds_reason(py::handle param, py::handle value);
std::optional<std::string> random_weighted_config_value_reason(py::handle param_name, py::handle value, bool integer);
py::dict random_weighted_window_bounded_param(py::handle param, py::handle window_limit);
std::optional<std::string> random_weighted_window_budget_reason(py::handle param_name, py::handle value,
                                                                py::handle window_limit);
py::object random_weighted_stateful_window_default(py::handle param);
py::object random_weighted_numeric_default(py::handle param, bool integer);
py::object random_weighted_first_choice(py::handle param);

// A parameter map, or None when the raw entry cannot be used.
py::object random_weighted_param_dict(py::handle raw_param, py::handle default_name);
// (list of parameter maps, reason or None).
py::tuple random_weighted_schema_params(py::handle schema, py::handle node_limit);
// (arity or None, reason or None).
py::tuple random_weighted_declared_arity(py::handle fn);
// (config leaf or None, reason or None); `function_name` plays no part in the result.
py::tuple random_weighted_config_child(py::handle function_name, py::handle param, py::handle window_limit);
// The schema result of a function entry.
py::dict random_weighted_rotation_schema(py::handle fn, py::handle window_limit, py::handle node_limit);

}  // namespace quillmarsh::st

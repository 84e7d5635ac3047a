// The thresholds of a search and the wiring of the analytics engine.
//
// A search has one threshold map, from an explicit argument or from the era, copied so that later
// changes of the caller's map stay invisible. Numbers are read from it under a strict contract: a
// required name must be present and numeric (int or float, never bool); an optional one may be
// absent but, when present, must be numeric as well.
#pragma once

#include <pybind11/pybind11.h>

#include <limits>

namespace quillmarsh::st {

namespace py = pybind11;

// A copy of `thresholds` when it is a dict, else a copy of the era's `thresholds` (never from `_data`);
// ValueError otherwise.
py::dict resolve_search_thresholds(py::handle thresholds, py::handle era_config);
// thresholds[name], unconverted; ValueError when absent or not numeric. Non-finite values pass.
py::object require_search_threshold(py::handle thresholds, py::handle name);
// require_search_threshold when `name` is present, else `dflt` unchecked.
py::object search_threshold_or_default(py::handle thresholds, py::handle name, py::object dflt);
// The same reads as doubles, for C++ callers comparing statistics.
double require_search_threshold_value(py::handle thresholds, const char* name);
double search_threshold_or_default_value(py::handle thresholds, const char* name,
                                         double dflt = -std::numeric_limits<double>::infinity());
// SearchAnalytics(tracker, pool_configs) from quillmarsh.search_analytics, or None whenever anything
// is missing or fails: callers report the missing engine in their own words.
py::object build_search_analytics_from_era_config(py::handle tracker, py::handle era_config);

}  // namespace quillmarsh::st

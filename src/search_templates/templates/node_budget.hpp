// Limits of the random weighted template: its constants, the tolerant number readers that all of its code
// shares, the era's node budget and lookback budget, and the node-count arithmetic that bounds how deep a
// tree of the surviving rotations may grow.
//
// The number readers never raise for a bad value: a failed Python conversion (TypeError, ValueError,
// OverflowError) or a non-finite float gives the caller's default. Other exceptions propagate.
#pragma once

#include <pybind11/pybind11.h>

#include <optional>
#include <string>

namespace quillmarsh::st {

namespace py = pybind11;

inline constexpr long long RANDOM_WEIGHTED_DEFAULT_MAX_NODE_COUNT = 100;
inline constexpr long long RANDOM_WEIGHTED_HARD_MAX_NODE_COUNT = 1000;
inline constexpr long long RANDOM_WEIGHTED_DEFAULT_BUFFER_DURATION_MINUTES = 20160;  // 14 days
inline constexpr long long RANDOM_WEIGHTED_MAX_RECURSIVE_DEPTH = 128;
inline constexpr long long RANDOM_WEIGHTED_MAX_ANALYTICS_ROWS = 10000;
inline constexpr long long RANDOM_WEIGHTED_MAX_ANALYTICS_NAMES_PER_ROW = 64;
inline constexpr long long RANDOM_WEIGHTED_MAX_ANALYTICS_UNIQUE_NAMES = 4096;
inline constexpr long long RANDOM_WEIGHTED_MAX_ANALYTICS_WEIGHT = 1000000000;
inline constexpr double RANDOM_WEIGHTED_MAX_ABS_YIELD_RATE = 1000.0;
inline constexpr long long RANDOM_WEIGHTED_MAX_ABS_CONFIG_INT = 1000000000;
inline constexpr double RANDOM_WEIGHTED_MAX_ABS_CONFIG_FLOAT = 1000000000.0;
inline constexpr long long RANDOM_WEIGHTED_MAX_DEPTH = 6;
inline constexpr long long RANDOM_WEIGHTED_DEFAULT_STATEFUL_WINDOW = 20;

// ---- conversions with Python's semantics -----------------------------------------------------------

// float(value); nullopt on TypeError, ValueError or OverflowError.
std::optional<double> try_py_float(py::handle value);
// int(value); an unset object on TypeError, ValueError or OverflowError.
py::object try_py_int(py::handle value);
// A Python int clamped into [lo, hi] as a C++ integer (no overflow for huge values).
long long clamp_py_int(py::handle value, long long lo, long long hi);
// repr(value): the printable form that messages show for %r.
inline std::string printable(py::handle value) { return py::repr(value).cast<std::string>(); }
// A non-empty str (subclasses included).
bool is_nonempty_str(py::handle h);
// dict.get(key, dflt) for a dict (a subclass through its own get), attribute `get` otherwise.
py::object map_get(py::handle mapping, const char* key, py::object dflt = py::none());
py::object map_get(py::handle mapping, py::handle key, py::object dflt = py::none());

// ---- tolerant number readers -----------------------------------------------------------------------

bool random_weighted_is_finite_number(py::handle value);
py::object random_weighted_float(py::handle value, py::object dflt);
py::object random_weighted_int(py::handle value, py::object dflt);
py::object random_weighted_positive_int(py::handle value, py::object dflt);
// C++ forms of the float reader for the template's own arithmetic.
double random_weighted_float_value(py::handle value, double dflt);
double random_weighted_safe_yield_rate_value(py::handle value);

// ---- era access and limits -------------------------------------------------------------------------

py::object random_weighted_era_value(py::handle ctx, const char* name, py::object dflt);
long long random_weighted_node_limit(py::handle ctx);
py::object random_weighted_buffer_duration_limit(py::handle ctx);
py::object random_weighted_window_limit(py::handle ctx, py::handle max_depth);

// ---- node arithmetic -------------------------------------------------------------------------------

long long random_weighted_min_node_count(py::handle rotation);
py::list random_weighted_rotations_within_node_budget(py::handle rotations, py::handle node_limit);
long long random_weighted_max_depth_within_node_budget(py::handle rotations, long long requested_depth,
                                                       long long node_limit);
long long random_weighted_worst_case_node_count(py::handle rotations, long long depth, long long node_limit);

}  // namespace quillmarsh::st

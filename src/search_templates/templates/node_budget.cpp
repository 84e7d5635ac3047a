#include "templates/node_budget.hpp"

#include "common/py_helpers.hpp"

#include <algorithm>
#include <cmath>

namespace quillmarsh::st {

namespace {

// A pending TypeError, ValueError or OverflowError: the failures that a tolerant conversion absorbs.
bool clear_conversion_error() {
    if (PyErr_ExceptionMatches(PyExc_TypeError) || PyErr_ExceptionMatches(PyExc_ValueError) ||
        PyErr_ExceptionMatches(PyExc_OverflowError)) {
        PyErr_Clear();
        return true;
    }
    return false;
}

}  // namespace

std::optional<double> try_py_float(py::handle value) {
    if (PyFloat_CheckExact(value.ptr())) return PyFloat_AS_DOUBLE(value.ptr());
    PyObject* f = PyNumber_Float(value.ptr());
    if (f == nullptr) {
        if (clear_conversion_error()) return std::nullopt;
        throw py::error_already_set();
    }
    double out = PyFloat_AS_DOUBLE(f);
    Py_DECREF(f);
    return out;
}

py::object try_py_int(py::handle value) {
    if (PyLong_CheckExact(value.ptr())) return py::reinterpret_borrow<py::object>(value);
    PyObject* i = PyNumber_Long(value.ptr());
    if (i == nullptr) {
        if (clear_conversion_error()) return py::object();
        throw py::error_already_set();
    }
    return py::reinterpret_steal<py::object>(i);
}

long long clamp_py_int(py::handle value, long long lo, long long hi) {
    int overflow = 0;
    long long v = PyLong_AsLongLongAndOverflow(value.ptr(), &overflow);
    if (v == -1 && PyErr_Occurred()) throw py::error_already_set();
    if (overflow > 0) return hi;
    if (overflow < 0) return lo;
    return std::clamp(v, lo, hi);
}

bool is_nonempty_str(py::handle h) { return PyUnicode_Check(h.ptr()) && PyUnicode_GET_LENGTH(h.ptr()) > 0; }

py::object map_get(py::handle mapping, py::handle key, py::object dflt) {
    if (PyDict_CheckExact(mapping.ptr())) {
        PyObject* v = PyDict_GetItemWithError(mapping.ptr(), key.ptr());
        if (v != nullptr) return py::reinterpret_borrow<py::object>(v);
        if (PyErr_Occurred()) throw py::error_already_set();
        return dflt;
    }
    return mapping.attr("get")(key, dflt);
}

py::object map_get(py::handle mapping, const char* key, py::object dflt) {
    return map_get(mapping, py::str(key), std::move(dflt));
}

// ---- number readers ----------------------------------------------------------------------------------

bool random_weighted_is_finite_number(py::handle value) {
    if (PyFloat_CheckExact(value.ptr())) return std::isfinite(PyFloat_AS_DOUBLE(value.ptr()));
    // value == value and value != inf and value != -inf, by the value's own operators
    py::float_ inf(std::numeric_limits<double>::infinity());
    py::float_ ninf(-std::numeric_limits<double>::infinity());
    return py_equal(value, value) && py_not_equal(value, inf) && py_not_equal(value, ninf);
}

py::object random_weighted_float(py::handle value, py::object dflt) {
    std::optional<double> f = try_py_float(value);
    if (!f || !std::isfinite(*f)) return dflt;
    return py::float_(*f);
}

double random_weighted_float_value(py::handle value, double dflt) {
    std::optional<double> f = try_py_float(value);
    return (f && std::isfinite(*f)) ? *f : dflt;
}

double random_weighted_safe_yield_rate_value(py::handle value) {
    double r = random_weighted_float_value(value, 0.0);
    if (r > RANDOM_WEIGHTED_MAX_ABS_YIELD_RATE) return RANDOM_WEIGHTED_MAX_ABS_YIELD_RATE;
    if (r < -1.0) return -1.0;
    return r;
}

py::object random_weighted_int(py::handle value, py::object dflt) {
    py::object i = try_py_int(value);
    return i ? i : dflt;
}

py::object random_weighted_positive_int(py::handle value, py::object dflt) {
    py::object result = random_weighted_int(value, dflt);
    // The default comes back unchecked; a converted value must be above zero.
    if (result.ptr() == dflt.ptr()) return result;
    if (!py_gt(result, py::int_(0))) return dflt;
    return result;
}

// ---- era access --------------------------------------------------------------------------------------

py::object random_weighted_era_value(py::handle ctx, const char* name, py::object dflt) {
    // Attributes only: a plain map of settings yields the default, by design.
    for (const char* slot : {"era_config", "_era_config"}) {
        py::object candidate = attr_or(ctx, slot);
        if (candidate.is_none()) continue;
        PyObject* v = PyObject_GetAttrString(candidate.ptr(), name);
        if (v != nullptr) return py::reinterpret_steal<py::object>(v);
        if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw py::error_already_set();
        PyErr_Clear();
    }
    return dflt;
}

long long random_weighted_node_limit(py::handle ctx) {
    py::int_ dflt(RANDOM_WEIGHTED_DEFAULT_MAX_NODE_COUNT);
    py::object raw = random_weighted_era_value(ctx, "max_node_count", dflt);
    py::object limit = random_weighted_positive_int(raw, dflt);
    return clamp_py_int(limit, 1, RANDOM_WEIGHTED_HARD_MAX_NODE_COUNT);
}

py::object random_weighted_buffer_duration_limit(py::handle ctx) {
    py::int_ dflt(RANDOM_WEIGHTED_DEFAULT_BUFFER_DURATION_MINUTES);
    return random_weighted_positive_int(random_weighted_era_value(ctx, "buffer_duration_minutes", dflt), dflt);
}

py::object random_weighted_window_limit(py::handle ctx, py::handle max_depth) {
    py::object buffer_limit = random_weighted_buffer_duration_limit(ctx);
    py::object depth = random_weighted_positive_int(max_depth, py::int_(1));
    PyObject* q = PyNumber_FloorDivide(buffer_limit.ptr(), depth.ptr());
    if (q == nullptr) throw py::error_already_set();
    py::object share = py::reinterpret_steal<py::object>(q);
    py::int_ one(1);
    return py_lt(share, one) ? py::object(one) : share;
}

// ---- node arithmetic ---------------------------------------------------------------------------------

namespace {
long long field_len(py::handle rotation, const char* key) {
    return static_cast<long long>(py::len(map_get(rotation, key, py::list())));
}
}  // namespace

long long random_weighted_min_node_count(py::handle rotation) {
    return 1 + field_len(rotation, "data_params") + field_len(rotation, "config_children");
}

py::list random_weighted_rotations_within_node_budget(py::handle rotations, py::handle node_limit) {
    py::list kept;
    for (py::handle rotation : rotations) {
        py::int_ count(random_weighted_min_node_count(rotation));
        if (!py_gt(count, node_limit)) {
            kept.append(rotation);
            continue;
        }
        log_info("random_weighted excluded %s from SIGNAL generation: minimum node count %r exceeds node budget %r",
                 map_get(rotation, "name", py::str("<unknown>")), count, node_limit);
    }
    return kept;
}

long long random_weighted_worst_case_node_count(py::handle rotations, long long depth, long long node_limit) {
    if (depth <= 1) return 1;
    long long max_data = 0, max_config = 0;
    for (py::handle rotation : rotations) {
        max_data = std::max(max_data, field_len(rotation, "data_params"));
        max_config = std::max(max_config, field_len(rotation, "config_children"));
    }
    long long count = 1;
    for (long long level = 2; level <= depth; ++level) {
        long long grown = 0;
        if (__builtin_mul_overflow(max_data, count, &grown) || __builtin_add_overflow(grown, 1 + max_config, &grown) ||
            grown > node_limit)
            return node_limit + 1;
        count = grown;
    }
    return count;
}

long long random_weighted_max_depth_within_node_budget(py::handle rotations, long long requested_depth,
                                                       long long node_limit) {
    if (requested_depth < 2 || py::len(rotations) == 0) return 1;
    long long max_candidate = std::min({requested_depth, node_limit, RANDOM_WEIGHTED_MAX_RECURSIVE_DEPTH});
    long long max_depth = 1;
    for (long long depth = 2; depth <= max_candidate; ++depth) {
        if (random_weighted_worst_case_node_count(rotations, depth, node_limit) > node_limit) break;
        max_depth = depth;
    }
    return max_depth;
}

}  // namespace quillmarsh::st

#include "templates/param_synthesis.hpp"

#include "common/py_helpers.hpp"
#include "templates/node_budget.hpp"

#include <cmath>

namespace quillmarsh::st {

namespace {

using Reason = std::optional<std::string>;

py::dict dict_copy(py::handle h) {
    PyObject* out = PyDict_Check(h.ptr()) ? PyDict_Copy(h.ptr()) : PyObject_CallOneArg((PyObject*)&PyDict_Type, h.ptr());
    if (out == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::dict>(out);
}

bool str_is(py::handle h, const char* text) {
    return PyUnicode_Check(h.ptr()) && PyUnicode_CompareWithASCIIString(h.ptr(), text) == 0;
}

// `key` is present and its value is not None.
bool has_value(py::handle param, const char* key) { return !map_get(param, key).is_none(); }

py::object from_double_int(double v) {
    PyObject* out = PyLong_FromDouble(v);
    if (out == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::object>(out);
}

std::string float_text(double v) { return printable(py::float_(v)); }

py::tuple pair(py::object a, const Reason& reason) {
    return py::make_tuple(std::move(a), reason ? py::object(py::str(*reason)) : py::object(py::none()));
}

py::dict refused(const std::string& reason) {
    py::dict out;
    out["safe"] = false;
    out["reason"] = reason;
    return out;
}

std::string param_prefix(py::handle param_name) { return "config param " + printable(param_name); }

py::dict leaf(const char* type, py::object value) {
    py::dict out;
    out["type"] = type;
    out["node"] = std::move(value);
    return out;
}

// isinstance(value, int), not a bool, and above zero.
bool positive_int_value(py::handle value) { return is_int_not_bool(value) && py_gt(value, py::int_(0)); }

}  // namespace

NumericBounds random_weighted_numeric_bounds(py::handle param) {
    NumericBounds b;
    b.has_min = has_value(param, "min");
    b.has_max = has_value(param, "max");
    auto read = [&](const char* key, double& out, bool& done) {
        py::object raw = map_get(param, key);
        if (is_bool(raw)) return false;
        std::optional<double> f = try_py_float(raw);
        if (!f || !std::isfinite(*f)) return false;
        out = *f;
        done = true;
        return true;
    };
    if (b.has_min && !read("min", b.min_value, b.min_read)) {
        b.bounds_valid = false;
        return b;
    }
    if (b.has_max && !read("max", b.max_value, b.max_read)) {
        b.bounds_valid = false;
        return b;
    }
    if (b.has_min && b.has_max && b.min_value > b.max_value) b.bounds_valid = false;
    return b;
}

py::tuple numeric_bounds_tuple(const NumericBounds& b) {
    auto value = [](bool read, double v) { return read ? py::object(py::float_(v)) : py::object(py::none()); };
    return py::make_tuple(b.has_min, value(b.min_read, b.min_value), b.has_max, value(b.max_read, b.max_value),
                          b.bounds_valid);
}

std::string random_weighted_numeric_range_label(const NumericBounds& b) {
    return "[" + (b.has_min ? float_text(b.min_value) : std::string("-inf")) + ", " +
           (b.has_max ? float_text(b.max_value) : std::string("inf")) + "]";
}

Reason random_weighted_numeric_bounds_reason(py::handle param, py::handle value) {
    std::optional<double> numeric = try_py_float(value);
    if (!numeric) return "has non-numeric default/range";
    if (!std::isfinite(*numeric)) return "has non-finite numeric default/range";
    NumericBounds b = random_weighted_numeric_bounds(param);
    if (!b.bounds_valid) return "has invalid numeric range metadata";
    if ((b.has_min && *numeric < b.min_value) || (b.has_max && *numeric > b.max_value))
        return "default " + printable(value) + " outside declared range " + random_weighted_numeric_range_label(b);
    return std::nullopt;
}

Reason random_weighted_config_value_reason(py::handle param_name, py::handle value, bool integer) {
    std::optional<double> numeric = try_py_float(value);
    if (!numeric) return param_prefix(param_name) + " has non-numeric emitted value";
    if (!std::isfinite(*numeric)) return param_prefix(param_name) + " has non-finite emitted value";
    double limit = integer ? static_cast<double>(RANDOM_WEIGHTED_MAX_ABS_CONFIG_INT) : RANDOM_WEIGHTED_MAX_ABS_CONFIG_FLOAT;
    if (std::fabs(*numeric) > limit)
        return param_prefix(param_name) + " emitted value " + printable(value) + " exceeds hard config bound +/-" +
               float_text(limit);
    return std::nullopt;
}

py::dict random_weighted_window_bounded_param(py::handle param, py::handle window_limit) {
    py::dict bounded = dict_copy(param);
    if (window_limit.is_none()) return bounded;
    if (map_get(bounded, "min").is_none()) bounded["min"] = 1;
    py::object declared_max = map_get(bounded, "max");
    if (declared_max.is_none()) {
        bounded["max"] = window_limit;
        return bounded;
    }
    py::object existing_max = try_py_int(declared_max);
    if (!existing_max) {
        bounded["max"] = window_limit;
        return bounded;
    }
    // min(existing_max, window_limit), keeping the first on a tie as Python's min does
    bounded["max"] = py_lt(window_limit, existing_max) ? py::reinterpret_borrow<py::object>(window_limit) : existing_max;
    return bounded;
}

Reason random_weighted_window_budget_reason(py::handle param_name, py::handle value, py::handle window_limit) {
    if (window_limit.is_none() || !py_gt(value, window_limit)) return std::nullopt;
    return param_prefix(param_name) + " window " + printable(value) + " exceeds per-node lookback budget " +
           printable(window_limit);
}

py::object random_weighted_stateful_window_default(py::handle param) {
    NumericBounds b = random_weighted_numeric_bounds(param);
    if (!b.bounds_valid || !b.has_max) return py::none();
    // The bounds are finite floats, so their ceiling and floor are exact in doubles, and so is every value
    // compared below.
    double lower = b.has_min ? std::ceil(b.min_value) : 1.0;
    double upper = std::floor(b.max_value);
    if (lower <= 0) lower = 1.0;
    if (upper < lower) return py::none();
    double value = static_cast<double>(RANDOM_WEIGHTED_DEFAULT_STATEFUL_WINDOW);
    if (value < lower) value = lower;
    if (value > upper) value = upper;
    py::object out = from_double_int(value);
    if (random_weighted_numeric_bounds_reason(param, out)) return py::none();
    return out;
}

py::object random_weighted_numeric_default(py::handle param, bool integer) {
    NumericBounds b = random_weighted_numeric_bounds(param);
    if (!b.bounds_valid) return py::none();
    if (!b.has_min && !b.has_max) return py::none();
    double value = (b.has_min && b.has_max) ? (b.min_value + b.max_value) / 2.0 : (b.has_min ? b.min_value : b.max_value);
    if (!integer) {
        py::float_ out(value);
        if (random_weighted_numeric_bounds_reason(param, out)) return py::none();
        return out;
    }
    if (!std::isfinite(value)) return py::none();  // round() of an infinite midpoint overflows
    value = std::nearbyint(value);                 // to nearest, halves to even, as round() does
    if (value <= 0) value = 1.0;
    if (b.has_min && value < b.min_value) {
        value = std::trunc(b.min_value);
        if (value < b.min_value) value += 1.0;
    }
    if (b.has_max && value > b.max_value) {
        value = std::trunc(b.max_value);
        if (value > b.max_value) value -= 1.0;
    }
    if (value <= 0) return py::none();
    py::object out = from_double_int(value);
    if (random_weighted_numeric_bounds_reason(param, out)) return py::none();
    return out;
}

py::object random_weighted_first_choice(py::handle param) {
    for (const char* key : {"choices", "options", "enum"}) {
        py::object v = map_get(param, key);
        if ((PyList_Check(v.ptr()) || PyTuple_Check(v.ptr())) && py::len(v) > 0) return v[py::int_(0)];
    }
    return py::none();
}

py::object random_weighted_param_dict(py::handle raw_param, py::handle default_name) {
    py::dict param;
    if (PyDict_Check(raw_param.ptr())) {
        param = dict_copy(raw_param);
    } else if (PyUnicode_Check(raw_param.ptr())) {
        param["type"] = raw_param;
    } else {
        for (const char* attr : {"name", "type", "min", "max", "default", "variadic", "choices", "options", "enum"}) {
            PyObject* v = PyObject_GetAttrString(raw_param.ptr(), attr);
            if (v == nullptr) {
                if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw py::error_already_set();
                PyErr_Clear();
                continue;
            }
            param[attr] = py::reinterpret_steal<py::object>(v);
        }
    }
    if (param.size() == 0) return py::none();
    if (!is_nonempty_str(map_get(param, "name"))) param["name"] = default_name;
    if (!param.contains("type")) return py::none();
    if (truthy(map_get(param, "variadic"))) return py::none();
    return param;
}

py::tuple random_weighted_schema_params(py::handle schema, py::handle node_limit) {
    py::object child_limit = py::none();
    if (!node_limit.is_none()) {
        PyObject* d = PyNumber_Subtract(node_limit.ptr(), py::int_(1).ptr());
        if (d == nullptr) throw py::error_already_set();
        py::object less = py::reinterpret_steal<py::object>(d);
        child_limit = py_gt(less, py::int_(1)) ? less : py::object(py::int_(1));
    }
    auto fail = [](const std::string& reason) { return py::make_tuple(py::list(), reason); };
    if (schema.is_none()) return fail("rotation metadata missing param_schema");
    bool is_map = PyDict_Check(schema.ptr());
    bool is_seq = PyList_Check(schema.ptr()) || PyTuple_Check(schema.ptr());
    if (!is_map && !is_seq)
        return fail("unsupported param_schema container " + py::str(py::type::handle_of(schema).attr("__name__")).cast<std::string>());
    size_t size = py::len(schema);
    if (size == 0) return fail("rotation metadata param_schema is empty");
    if (!child_limit.is_none() && py_gt(py::int_(size), child_limit))
        return fail("param_schema size " + std::to_string(size) + " exceeds node budget child limit " + printable(child_limit));
    py::list params;
    if (is_map) {
        for (auto item : py::reinterpret_borrow<py::dict>(schema)) {
            py::object p = random_weighted_param_dict(item.second, item.first);
            if (p.is_none()) return fail("unsupported param_schema entry for " + printable(item.first));
            params.append(p);
        }
    } else {
        size_t i = 0;
        for (py::handle raw : schema) {
            py::object p = random_weighted_param_dict(raw, py::str("param_" + std::to_string(i)));
            if (p.is_none()) return fail("unsupported param_schema entry at index " + std::to_string(i));
            params.append(p);
            ++i;
        }
    }
    return py::make_tuple(params, py::none());
}

py::tuple random_weighted_declared_arity(py::handle fn) {
    py::object raw = map_get(fn, "arity");
    if (raw.is_none()) return py::make_tuple(py::none(), py::none());
    py::object arity = random_weighted_int(raw, py::none());
    if (arity.is_none() || py_lt(arity, py::int_(1)))
        return py::make_tuple(py::none(), "invalid arity metadata " + printable(raw));
    return py::make_tuple(arity, py::none());
}

py::tuple random_weighted_config_child(py::handle /*function_name*/, py::handle param, py::handle window_limit) {
    py::object default_value = map_get(param, "default");
    bool has_default = !default_value.is_none();
    py::object param_name = map_get(param, "name", py::str(""));
    py::object param_type = map_get(param, "type");
    std::string prefix = param_prefix(param_name);
    py::object none = py::none();

    if (str_is(param_type, "int")) {
        py::object value;
        if (has_default) {
            value = default_value;
            if (!positive_int_value(value)) return pair(none, prefix + " has no safe int default/range");
            if (Reason r = random_weighted_numeric_bounds_reason(param, value)) return pair(none, prefix + " " + *r);
            if (Reason r = random_weighted_window_budget_reason(param_name, value, window_limit)) return pair(none, r);
        } else {
            py::dict bounded = random_weighted_window_bounded_param(param, window_limit);
            value = window_limit.is_none() ? random_weighted_numeric_default(bounded, true)
                                           : random_weighted_stateful_window_default(bounded);
        }
        if (!positive_int_value(value)) return pair(none, prefix + " has no safe int default/range");
        if (Reason r = random_weighted_config_value_reason(param_name, value, true)) return pair(none, r);
        if (Reason r = random_weighted_window_budget_reason(param_name, value, window_limit)) return pair(none, r);
        return pair(leaf("int", value), std::nullopt);
    }
    if (str_is(param_type, "float")) {
        py::object value;
        if (has_default) {
            value = default_value;
            if (!is_real_not_bool(value)) return pair(none, prefix + " has no safe float default/range");
            if (Reason r = random_weighted_numeric_bounds_reason(param, value)) return pair(none, prefix + " " + *r);
        } else {
            value = random_weighted_numeric_default(param, false);
        }
        if (!is_real_not_bool(value)) return pair(none, prefix + " has no safe float default/range");
        if (Reason r = random_weighted_config_value_reason(param_name, value, false)) return pair(none, r);
        PyObject* f = PyNumber_Float(value.ptr());
        if (f == nullptr) throw py::error_already_set();
        return pair(leaf("float", py::reinterpret_steal<py::object>(f)), std::nullopt);
    }
    if (str_is(param_type, "bool")) {
        return pair(leaf("bool", py::bool_(truthy(map_get(param, "default", py::bool_(false))))), std::nullopt);
    }
    if (str_is(param_type, "string")) {
        py::object value = has_default ? default_value : random_weighted_first_choice(param);
        if (!is_nonempty_str(value)) return pair(none, prefix + " has no safe string default/range");
        return pair(leaf("string", value), std::nullopt);
    }
    return pair(none, "unsupported config param type " + printable(param_type));
}

py::dict random_weighted_rotation_schema(py::handle fn, py::handle window_limit, py::handle node_limit) {
    py::object name = map_get(fn, "name", py::str("<unknown>"));
    py::tuple arity = random_weighted_declared_arity(fn);
    if (!arity[1].is_none()) return refused(arity[1].cast<std::string>());
    py::object declared_arity = arity[0];
    py::tuple parsed = random_weighted_schema_params(map_get(fn, "param_schema"), node_limit);
    if (!parsed[1].is_none()) return refused(parsed[1].cast<std::string>());
    py::list data_params, config_children;
    bool stateful = truthy(map_get(fn, "stateful", py::bool_(false)));
    for (py::handle param : parsed[0]) {
        if (!node_limit.is_none() &&
            !py_lt(py::int_(1 + py::len(data_params) + py::len(config_children)), node_limit))
            return refused("param_schema minimum node count exceeds node budget " + printable(node_limit));
        py::object param_type = map_get(param, "type");
        if (str_is(param_type, "data")) {
            data_params.append(param);
            continue;
        }
        if (str_is(param_type, "filtration")) return refused("rotation requires filtration input, which is not SIGNAL-safe");
        if (str_is(param_type, "int") || str_is(param_type, "float") || str_is(param_type, "string") ||
            str_is(param_type, "bool")) {
            py::handle limit = (stateful && str_is(param_type, "int")) ? window_limit : py::handle(Py_None);
            py::tuple child = random_weighted_config_child(name, param, limit);
            if (!child[1].is_none()) return refused(child[1].cast<std::string>());
            config_children.append(child[0]);
            continue;
        }
        return refused("unsupported param_schema type " + printable(param_type));
    }
    if (py::len(data_params) == 0) return refused("rotation metadata declares no data input");
    if (!declared_arity.is_none() && py_not_equal(declared_arity, py::int_(py::len(data_params))))
        return refused("arity metadata " + printable(declared_arity) + " does not match param_schema data inputs " +
                       std::to_string(py::len(data_params)));
    py::dict out;
    out["safe"] = true;
    out["data_params"] = data_params;
    out["config_children"] = config_children;
    return out;
}

}  // namespace quillmarsh::st

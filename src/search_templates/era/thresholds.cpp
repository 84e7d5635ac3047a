#include "era/thresholds.hpp"

#include "common/py_helpers.hpp"

#include <string>

namespace quillmarsh::st {

namespace {

[[noreturn]] void raise_value_error(const std::string& message) {
    PyErr_SetString(PyExc_ValueError, message.c_str());
    throw py::error_already_set();
}

py::dict copy_dict(py::handle d) {
    PyObject* copy = PyDict_Copy(d.ptr());
    if (copy == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::dict>(copy);
}

bool is_exception(const py::error_already_set& e) { return error_matches(e, PyExc_Exception); }

}  // namespace

py::dict resolve_search_thresholds(py::handle thresholds, py::handle era_config) {
    if (is_dict(thresholds)) return copy_dict(thresholds);
    if (!thresholds.is_none()) raise_value_error("SearchContext thresholds must be a dict");
    py::object from_era;
    if (is_dict(era_config))
        from_era = key_or_attr(era_config, ST_NAME("thresholds"));
    else if (!era_config.is_none())
        from_era = attr_or(era_config, ST_NAME("thresholds"));
    if (from_era && is_dict(from_era)) return copy_dict(from_era);
    raise_value_error("SearchContext thresholds must be provided");
}

py::object require_search_threshold(py::handle thresholds, py::handle name) {
    if (!py_contains(thresholds, name))
        raise_value_error("SearchContext thresholds missing required threshold '" + str(name) + "'");
    py::object value = thresholds[name];
    if (is_bool(value) || !is_real_not_bool(value))
        raise_value_error("SearchContext threshold '" + str(name) + "' must be numeric");
    return value;
}

py::object search_threshold_or_default(py::handle thresholds, py::handle name, py::object dflt) {
    if (py_contains(thresholds, name)) return require_search_threshold(thresholds, name);
    return dflt;
}

double require_search_threshold_value(py::handle thresholds, const char* name) {
    return py::float_(require_search_threshold(thresholds, py::str(name))).cast<double>();
}

double search_threshold_or_default_value(py::handle thresholds, const char* name, double dflt) {
    py::str key(name);
    if (!py_contains(thresholds, key)) return dflt;
    return py::float_(require_search_threshold(thresholds, key)).cast<double>();
}

py::object build_search_analytics_from_era_config(py::handle tracker, py::handle era_config) {
    if (era_config.is_none()) return py::none();
    py::object analytics_type;
    py::object resolve_pool_configs;
    try {
        analytics_type = import_from("quillmarsh.search_analytics", "SearchAnalytics");
        resolve_pool_configs = import_from("quillmarsh.search_analytics", "_resolve_pool_configs");
    } catch (py::error_already_set& e) {
        if (!is_exception(e)) throw;
        return py::none();
    }
    py::object pool_configs;
    try {
        py::dict argument;
        argument["era_config"] = era_config;
        pool_configs = resolve_pool_configs(argument);
    } catch (py::error_already_set& e) {
        if (!is_exception(e)) throw;
        return py::none();
    }
    if (!truthy(pool_configs)) return py::none();
    try {
        return analytics_type(tracker, pool_configs);
    } catch (py::error_already_set& e) {
        if (!is_exception(e)) throw;
        return py::none();
    }
}

}  // namespace quillmarsh::st

#include "evaluation/metric_contract.hpp"

#include "common/py_helpers.hpp"

#include <cmath>
#include <limits>

namespace quillmarsh::st {

namespace {

PyObject* g_missing = nullptr;

constexpr std::array<const char*, 3> RETIRED_MI_KEYS = {"is_pnl_mi_values", "is_mi_values", "is_mi"};

py::object primary_evaluation_pnl_column(py::handle era_config) {
    return module_attr("_primary_evaluation_pnl_column")(era_config);
}

py::object mi_threshold(py::handle thresholds) {
    return module_attr("_search_threshold_or_default")(thresholds, "mi_threshold",
                                                       -std::numeric_limits<double>::infinity());
}

[[noreturn]] void raise_is_pnl_mi_error() { throw py::value_error(IS_PNL_MI_ERROR); }

// float(x) of an int or float, catching only the conversion errors; nullopt on such an error.
std::optional<double> convert_to_float(py::handle value) {
    PyObject* f = PyNumber_Float(value.ptr());
    if (f == nullptr) {
        if (PyErr_ExceptionMatches(PyExc_TypeError) || PyErr_ExceptionMatches(PyExc_ValueError) ||
            PyErr_ExceptionMatches(PyExc_OverflowError)) {
            PyErr_Clear();
            return std::nullopt;
        }
        throw py::error_already_set();
    }
    double d = PyFloat_AS_DOUBLE(f);
    Py_DECREF(f);
    return d;
}

py::dict copy_if_map(py::handle value) {
    if (is_dict(value)) return py::reinterpret_steal<py::dict>(PyDict_Copy(value.ptr()));
    return py::dict();
}


bool is_list_or_tuple(py::handle h) { return PyList_Check(h.ptr()) || PyTuple_Check(h.ptr()); }

}  // namespace

py::object create_missing_metric_sentinel() {
    py::object sentinel = py::module_::import("builtins").attr("object")();
    g_missing = sentinel.inc_ref().ptr();
    return sentinel;
}

py::handle missing_metric() { return py::handle(g_missing); }

std::string invalid_backtest_metric_reason(std::string_view attr) {
    return "invalid_backtest_metric_" + std::string(attr);
}

py::object backtest_per_column_metric_value(py::handle bt_stats, const char* attr, py::handle era_config) {
    py::object per_column = attr_or(bt_stats, "per_column_stats");
    if (!is_dict(per_column)) return py::reinterpret_borrow<py::object>(missing_metric());
    py::object primary = primary_evaluation_pnl_column(era_config);
    py::dict table = py::reinterpret_borrow<py::dict>(per_column);
    py::str prefixed = py::str(primary) + py::str("_") + py::str(attr);
    if (table.contains(prefixed)) return table[prefixed];
    py::str plain(attr);
    if (table.contains(plain)) return table[plain];
    return py::reinterpret_borrow<py::object>(missing_metric());
}

py::object backtest_metric_value(py::handle bt_stats, const char* attr, py::handle era_config) {
    py::object missing = py::reinterpret_borrow<py::object>(missing_metric());
    py::object value = attr_or(bt_stats, attr, missing);
    if (!value.is(missing)) return value;
    std::string_view name(attr);
    if (name == "turnover") return attr_or(bt_stats, "avg_turnover", missing);
    if (name == "fitness") {
        py::object quality = attr_or(bt_stats, "quality_score", missing);
        if (!quality.is(missing)) return quality;
        return backtest_per_column_metric_value(bt_stats, "quality_score", era_config);
    }
    if (name == "sharpe" || name == "returns" || name == "drawdown")
        return backtest_per_column_metric_value(bt_stats, attr, era_config);
    return missing;
}

std::pair<std::optional<double>, std::optional<std::string>> required_backtest_metric_value(
    py::handle bt_stats, const char* attr, py::handle era_config) {
    auto failure = [&] { return std::make_pair(std::optional<double>(), std::optional(invalid_backtest_metric_reason(attr))); };
    py::object value = backtest_metric_value(bt_stats, attr, era_config);
    if (value.is(missing_metric())) return failure();
    if (is_bool(value) || !(PyLong_Check(value.ptr()) || PyFloat_Check(value.ptr()))) return failure();
    std::optional<double> number = convert_to_float(value);
    if (!number || !std::isfinite(*number)) return failure();
    return {number, std::nullopt};
}

std::pair<py::object, std::optional<std::string>> collect_required_backtest_stats(py::handle bt_stats,
                                                                                  py::handle era_config) {
    py::dict stats;
    for (const char* metric : REQUIRED_BACKTEST_METRICS) {
        auto [value, reason] = required_backtest_metric_value(bt_stats, metric, era_config);
        if (reason) return {py::none(), reason};
        dict_set(stats, metric, *value);
    }
    dict_set(stats, "abs_weight_sum_mean", finite_number_or_default(attr_or(bt_stats, "abs_weight_sum_mean"), 0.0));
    return {stats, std::nullopt};
}

py::list normalize_factor_pnl(py::handle value) {
    auto one_zero = [] {
        py::list out;
        out.append(0.0);
        return out;
    };
    if (PyList_Check(value.ptr()) || PyTuple_Check(value.ptr())) {
        py::list out = py::reinterpret_steal<py::list>(PySequence_List(value.ptr()));
        if (!out) throw py::error_already_set();
        return out.empty() ? one_zero() : out;
    }
    py::object tolist = attr_or(value, "tolist");
    if (is_callable(tolist)) {
        py::object result = py::none();
        try {
            result = tolist();
        } catch (py::error_already_set&) {
            result = py::none();
        }
        if (PyList_Check(result.ptr())) {
            py::list out = py::reinterpret_borrow<py::list>(result);
            return out.empty() ? one_zero() : out;
        }
    }
    if (is_real_not_bool(value)) {
        // float(value): a plain float even for a subclass of float (py::float_ would keep the subclass).
        PyObject* number = PyNumber_Float(value.ptr());
        if (number == nullptr) throw py::error_already_set();
        py::list out;
        out.append(py::reinterpret_steal<py::object>(number));
        return out;
    }
    return one_zero();
}

py::dict normalize_per_column_stats(py::handle value) { return copy_if_map(value); }

bool is_finite_number(py::handle value) {
    if (!PyLong_CheckExact(value.ptr()) && !PyFloat_CheckExact(value.ptr())) return false;
    std::optional<double> d = convert_to_float(value);
    return d && std::isfinite(*d);
}

std::optional<double> finite_optional_number(py::handle value) {
    if (!is_finite_number(value)) return std::nullopt;
    return convert_to_float(value);
}

double finite_number_or_default(py::handle value, double dflt) { return finite_optional_number(value).value_or(dflt); }

double is_pnl_mi_from_backtest_stats(py::handle bt_stats) {
    py::object value = attr_or(bt_stats, "is_pnl_mi");
    if (!is_finite_number(value)) raise_is_pnl_mi_error();
    return *convert_to_float(value);
}

std::pair<double, bool> submission_pnl_mi_from_backtest_or_compute(py::handle backtester, py::handle bt_stats,
                                                                  py::handle era_config, py::handle signal_pool_id,
                                                                  py::handle thresholds) {
    py::object own = attr_or(bt_stats, "is_pnl_mi");
    if (is_finite_number(own)) {
        py::float_ score(*convert_to_float(own));
        int ge = PyObject_RichCompareBool(score.ptr(), mi_threshold(thresholds).ptr(), Py_GE);
        if (ge < 0) throw py::error_already_set();
        return {score.cast<double>(), ge == 1};
    }
    py::object compute = attr_or(backtester, "compute_mi_per_pool");
    if (!is_callable(compute)) raise_is_pnl_mi_error();
    py::object pool = module_attr("_selected_signal_pool_from_era_config")(era_config, signal_pool_id);
    if (pool.is_none()) raise_is_pnl_mi_error();
    py::object pool_id = module_attr("_pool_id_from_config_entry")(pool);
    if (!truthy(pool_id)) raise_is_pnl_mi_error();
    py::object pool_field = module_attr("_pool_field");
    py::object pnl_column = pool_field(pool, "mi_pnl_column", primary_evaluation_pnl_column(era_config));
    py::object signals = pool_field(pool, "found_signal_ids", py::list());
    if (signals.is_none()) signals = py::list();
    py::list fresh_signals = py::reinterpret_steal<py::list>(PySequence_List(signals.ptr()));
    if (!fresh_signals) throw py::error_already_set();
    py::object result = compute(pool_id, pnl_column, fresh_signals, mi_threshold(thresholds));

    // score, passed = result  (with the interpreter's own unpacking errors)
    py::list items;
    for (auto item : py::iter(result)) {
        items.append(item);
        if (items.size() > 2) throw py::value_error("too many values to unpack (expected 2)");
    }
    if (items.size() < 2)
        throw py::value_error("not enough values to unpack (expected 2, got " + std::to_string(items.size()) + ")");
    if (!is_finite_number(items[0])) raise_is_pnl_mi_error();
    return {*convert_to_float(items[0]), truthy(items[1])};
}

double tracking_quality_score(py::handle bt_stats, py::handle stats_dict, py::handle per_column_stats,
                              py::handle era_config) {
    py::object quality = attr_or(bt_stats, "quality_score");
    if (is_finite_number(quality)) return *convert_to_float(quality);
    if (is_dict(per_column_stats)) {
        py::str key = py::str(primary_evaluation_pnl_column(era_config)) + py::str("_quality_score");
        py::object value = py::reinterpret_borrow<py::object>(per_column_stats).attr("get")(key);
        if (is_finite_number(value)) return *convert_to_float(value);
    }
    py::object fitness = dict_get(stats_dict, "fitness");
    if (is_finite_number(fitness)) return *convert_to_float(fitness);
    return 0.0;
}

py::object tracking_stats_from_backtest(py::handle bt_stats, py::handle stats_dict, py::handle per_column_stats,
                                        py::handle era_config) {
    py::dict kwargs;
    for (const char* key : {"sharpe", "returns", "turnover", "drawdown", "delta_exposure", "max_weight"})
        dict_set(kwargs, key, finite_number_or_default(dict_get(stats_dict, key), 0.0));
    dict_set(kwargs, "quality_score", tracking_quality_score(bt_stats, stats_dict, per_column_stats, era_config));
    dict_set(kwargs, "correlation", finite_number_or_default(attr_or(bt_stats, "correlation"), 0.0));
    dict_set(kwargs, "liquidity_metrics", copy_if_map(attr_or(bt_stats, "liquidity_metrics")));
    dict_set(kwargs, "custom_stats", copy_if_map(attr_or(bt_stats, "custom_stats")));
    return call_kw(module_attr("_BacktestStats"), {}, kwargs);
}

py::object rejection_stats_from_backtest(py::handle bt_stats, py::handle tracking_stats, py::handle stats_dict) {
    if (tracking_stats.is_none()) return py::reinterpret_borrow<py::object>(bt_stats);
    py::object record = py::reinterpret_borrow<py::object>(tracking_stats);
    // A statistics object that cannot say whether it passed is taken to have passed.
    try {
        set_attr(record, "passed", py::bool_(truthy(attr_or(bt_stats, "passed", py::bool_(true)))));
    } catch (py::error_already_set&) {
        set_attr(record, "passed", py::bool_(true));
    }
    set_attr(record, "abs_weight_sum_mean",
             py::float_(finite_number_or_default(dict_get(stats_dict, "abs_weight_sum_mean"), 0.0)));
    set_attr(record, "weight_quality_metrics", copy_if_map(attr_or(bt_stats, "weight_quality_metrics")));
    return record;
}

py::dict tracking_metric_kwargs_from_backtest(py::handle bt_stats) {
    py::dict out;
    for (const char* key : {"is_correlation", "is_pnl_mi", "agent_is_pnl_mi", "is_weights_mi"}) {
        std::optional<double> v = finite_optional_number(attr_or(bt_stats, key));
        dict_set(out, key, v ? py::object(py::float_(*v)) : py::object(py::none()));
    }
    for (const char* key : {"failure_reason", "failure_detail"}) {
        py::object v = attr_or(bt_stats, key);
        dict_set(out, key, is_str(v) ? v : py::none());
    }
    return out;
}

bool has_non_finite_number(py::handle value) {
    if (PyLong_CheckExact(value.ptr()) || PyFloat_CheckExact(value.ptr())) return !is_finite_number(value);
    if (is_dict(value)) {
        for (auto item : py::reinterpret_borrow<py::dict>(value))
            if (has_non_finite_number(item.second)) return true;
        return false;
    }
    if (is_list_or_tuple(value)) {
        for (auto item : value)
            if (has_non_finite_number(item)) return true;
    }
    return false;
}

bool has_disallowed_mi_contract_field(py::handle value) {
    if (is_dict(value)) {
        for (auto item : py::reinterpret_borrow<py::dict>(value)) {
            if (is_str(item.first)) {
                std::string key = item.first.cast<std::string>();
                for (const char* retired : RETIRED_MI_KEYS)
                    if (key == retired) return true;
            }
            if (has_disallowed_mi_contract_field(item.second)) return true;
        }
        return false;
    }
    if (is_list_or_tuple(value)) {
        for (auto item : value)
            if (has_disallowed_mi_contract_field(item)) return true;
    }
    return false;
}

}  // namespace quillmarsh::st

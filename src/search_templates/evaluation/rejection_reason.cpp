#include "evaluation/rejection_reason.hpp"

#include "common/py_helpers.hpp"

#include <limits>
#include <string>

namespace quillmarsh::st {

namespace {

py::object require_threshold(py::handle thresholds, const char* name) {
    return module_attr("_require_search_threshold")(thresholds, name);
}

py::object entry_get(py::handle entry, const char* key, py::object dflt = py::none()) {
    return py::reinterpret_borrow<py::object>(entry).attr("get")(key, dflt);
}

// A map entry whose `passed` (default true) is false.
bool failed_entry(py::handle entry) {
    return is_dict(entry) && !truthy(entry_get(entry, "passed", py::bool_(true)));
}

py::str bound_reason(const char* prefix, py::handle name, py::handle entry) {
    py::object lo = entry_get(entry, "min");
    py::object hi = entry_get(entry, "max");
    py::object value = entry_get(entry, "value", py::int_(0));
    py::str head = py::str(prefix) + py::str(name);
    if (!lo.is_none() && py_compare(value, lo, Py_LT)) return head + py::str("_below_min");
    if (!hi.is_none() && py_compare(value, hi, Py_GT)) return head + py::str("_above_max");
    return head + py::str("_below_min");
}

// The first failed entry of a rule map, as its bound reason; None when every entry passed.
py::object first_bound_failure(const char* prefix, py::handle rules) {
    if (!is_dict(rules)) return py::none();
    for (auto item : py::reinterpret_borrow<py::dict>(rules))
        if (failed_entry(item.second)) return bound_reason(prefix, item.first, item.second);
    return py::none();
}

}  // namespace

py::object derive_rejection_reason(py::handle stats, py::handle thresholds, py::handle era_config) {
    bool passed = truthy(attr_or(stats, "passed", py::bool_(true)));

    struct Limit {
        const char* metric;
        const char* threshold;
        int op;  // the comparison that rejects
        const char* reason;
    };
    static constexpr Limit kLimits[] = {
        {"sharpe", "sharpe_min", Py_LT, "gross_returns_sharpe_below_min"},
        {"turnover", "turnover_max", Py_GT, "turnover_exceeded"},
        {"delta_exposure", "delta_exposure_max", Py_GT, "delta_exposure_exceeded"},
        {"max_weight", "max_weight_max", Py_GT, "max_weight_exceeded"},
    };
    for (const Limit& limit : kLimits) {
        py::object value = attr_or(stats, limit.metric, py::float_(0.0));
        py::object bound = require_threshold(thresholds, limit.threshold);
        if (is_int_or_float(value) && py_compare(value, bound, limit.op)) return py::str(limit.reason);
    }
    {
        // At or below: equality rejects here, unlike the Sharpe rule.
        py::object value = attr_or(stats, "abs_weight_sum_mean", py::float_(0.0));
        py::object bound = module_attr("_search_threshold_or_default")(
            thresholds, "abs_weight_sum_mean_min", -std::numeric_limits<double>::infinity());
        if (is_int_or_float(value) && py_compare(value, bound, Py_LE)) return py::str("abs_weight_sum_mean_below_min");
    }

    py::object weight_quality = attr_or(stats, "weight_quality_metrics", py::dict());
    if (is_dict(weight_quality)) {
        for (auto item : py::reinterpret_borrow<py::dict>(weight_quality)) {
            if (!failed_entry(item.second)) continue;
            if (entry_get(item.second, "value").is_none()) return py::str("invalid_weights");
            return py::str("weight_quality_") + py::str(item.first) + py::str("_exceeded");
        }
    }

    py::object liquidity = first_bound_failure("liquidity_", attr_or(stats, "liquidity_metrics", py::dict()));
    if (!liquidity.is_none()) return liquidity;

    py::object custom_stats = attr_or(stats, "custom_stats", py::dict());
    bool custom_failure = false;
    if (is_dict(custom_stats)) {
        for (auto item : py::reinterpret_borrow<py::dict>(custom_stats))
            custom_failure = custom_failure || failed_entry(item.second);
    }

    bool correlation_failure = false;
    py::object correlation = attr_or(stats, "correlation");
    if (is_int_or_float(correlation))
        correlation_failure = py_compare(correlation, require_threshold(thresholds, "correlation_max"), Py_GT);

    if (!passed && !custom_failure && !correlation_failure) {
        // The backtester failed the signal on a column: the era's first column rule names it. The rule
        // list is read as a plain attribute, without tolerance.
        py::object rules = era_config.is_none() ? py::object(py::none())
                                                : py::reinterpret_borrow<py::object>(era_config).attr("column_threshold_rules");
        if (truthy(rules)) {
            py::object rule = rules[py::int_(0)];
            return py::str(entry_get(rule, "column", py::str("gross_returns"))) + py::str("_") +
                   py::str(entry_get(rule, "stat", py::str("sharpe"))) + py::str("_below_min");
        }
        return py::str("gross_returns_sharpe_below_min");
    }

    py::object custom = first_bound_failure("custom_stat_", custom_stats);
    if (!custom.is_none()) return custom;
    if (correlation_failure) return py::str("correlation_exceeded");
    if (passed) return py::none();
    return py::str("gross_returns_sharpe_below_min");
}

}  // namespace quillmarsh::st

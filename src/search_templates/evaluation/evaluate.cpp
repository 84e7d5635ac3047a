// SearchContext.evaluate: one expression from check to record, and for a pass into the submission queue.
#include "common/py_helpers.hpp"
#include "common/search_status.hpp"
#include "evaluation/metric_contract.hpp"
#include "evaluation/search_context.hpp"
#include "submission/submission_store.hpp"

#include <chrono>
#include <limits>
#include <optional>
#include <string>
#include <tuple>

namespace quillmarsh::st {

namespace {

double monotonic_seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}


// A graph may hold `type`, `node` and `children`, and must hold `type`.
bool is_well_formed_graph(py::handle graph) {
    if (!is_dict(graph)) return false;
    if (PyDict_GET_SIZE(graph.ptr()) == 0) return false;
    int has_type = PyDict_Contains(graph.ptr(), cached_name("type"));
    if (has_type < 0) throw py::error_already_set();
    if (!has_type) return false;
    PyObject *key, *value;
    Py_ssize_t pos = 0;
    while (PyDict_Next(graph.ptr(), &pos, &key, &value)) {
        if (!PyUnicode_Check(key)) return false;
        if (PyUnicode_CompareWithASCIIString(key, "type") != 0 && PyUnicode_CompareWithASCIIString(key, "node") != 0 &&
            PyUnicode_CompareWithASCIIString(key, "children") != 0)
            return false;
    }
    return true;
}

bool is_function_node_type(py::handle type) {
    if (!is_str(type)) return false;
    std::string t = type.cast<std::string>();
    return t == "rotation" || t == "filtration" || t == "reduction";
}

// The graph's top node names a function of the vocabulary; an empty function list checks nothing.
bool names_known_function(py::handle vocabulary, py::handle graph) {
    py::object functions = is_dict(vocabulary) ? key_or_attr(vocabulary, "functions", py::list())
                                               : py::reinterpret_borrow<py::object>(vocabulary).attr("get")("functions", py::list());
    if (!truthy(functions)) return true;
    py::object node = key_or_attr(graph, "node", py::str(""));  // the graph is a dict by now
    // Every entry's name is read (one without a name raises) and compared with ==, as `in` would.
    bool found = false;
    for (auto entry : functions) {
        py::object name = entry[py::handle(cached_name("name"))];
        if (!found) found = py_equal(name, node);
    }
    return found;
}

py::object non_empty_or_none(const py::dict& d) { return d.empty() ? py::object(py::none()) : py::object(d); }

}  // namespace

py::object SearchContext::evaluate(py::object expr_graph) {
    const py::object none = py::none();
    auto record = [&](py::object reason, py::object stats = py::none(), py::object per_column = py::none(),
                      py::object elapsed = py::none(), py::object metrics = py::none()) {
        return safe_record(expr_graph, false, reason, stats, per_column, elapsed, metrics);
    };

    // Input checks.
    if (!is_well_formed_graph(expr_graph)) {
        record(py::str("invalid_input"));
        return none;
    }
    if (is_function_node_type(key_or_attr(expr_graph, "type", py::str(""))) &&
        !names_known_function(_vocabulary, expr_graph)) {
        record(py::str("unknown_function"));
        return none;
    }

    // Time check: the era limits the time of evaluate_expression alone.
    py::object transform_pipeline = module_attr("_era_transform_pipeline_config")(_era_config);
    py::object call_backtester = module_attr("_call_backtester_with_transform_context");
    const double t0 = monotonic_seconds();
    try {
        call_backtester(_backtester, "evaluate_expression", expr_graph, _metaparameters, transform_pipeline,
                        _universe_id);
    } catch (py::error_already_set& e) {
        py::float_ elapsed(monotonic_seconds() - t0);
        log_exception("evaluate_expression_failed", e);
        record(py::str("evaluate_expression_failed"), none, none, elapsed);
        return none;
    }
    const py::float_ elapsed(monotonic_seconds() - t0);

    py::object limit = none;
    if (is_dict(_era_config))
        limit = key_or_attr(_era_config, "max_expression_generation_seconds");
    else if (!_era_config.is_none())
        limit = attr_or(_era_config, "max_expression_generation_seconds");
    if (limit.is_none()) throw py::value_error("era config missing required field: max_expression_generation_seconds");
    std::optional<std::string> timing_rejection;
    if (py_gt(elapsed, limit)) {
        py::dict extra;
        dict_set(extra, "elapsed", elapsed);
        dict_set(extra, "threshold", limit);
        dict_set(extra, "rejection_reason", "expression_too_slow");
        log_with_extra(LogLevel::Warning, "Expression rejected: timing breach", extra);
        timing_rejection = "expression_too_slow";
    }

    // Backtest.
    py::object bt_stats = none;
    std::optional<std::string> backtest_failure;
    try {
        bt_stats = call_backtester(_backtester, "run_backtest", expr_graph, _metaparameters, transform_pipeline,
                                   _universe_id);
    } catch (py::error_already_set& e) {
        log_warning("Backtest failed: %s", e.value());
        backtest_failure = "backtest_failed: " + str(e.value());
        bt_stats = none;
    }
    if (bt_stats.is_none()) {
        py::dict metrics;
        if (backtest_failure) {
            dict_set(metrics, "failure_reason", *backtest_failure);
            dict_set(metrics, "failure_detail", *backtest_failure);
        }
        record(py::str(backtest_failure.value_or("backtester_unavailable")), none, none, elapsed, metrics);
        return none;
    }

    // Derivation of statistics.
    py::dict per_column = normalize_per_column_stats(attr_or(bt_stats, "per_column_stats", py::dict()));
    auto [stats_dict, stats_reason] = collect_required_backtest_stats(bt_stats, _era_config);
    py::dict metrics = tracking_metric_kwargs_from_backtest(bt_stats);
    py::object tracking_stats = none;
    py::object rejection_stats = none;
    if (!stats_reason) {
        tracking_stats = tracking_stats_from_backtest(bt_stats, stats_dict, per_column, _era_config);
        rejection_stats = rejection_stats_from_backtest(bt_stats, tracking_stats, stats_dict);
    }

    // Rejections, in order.
    if (timing_rejection) {
        if (dict_get(metrics, "failure_reason").is_none()) dict_set(metrics, "failure_reason", *timing_rejection);
        if (dict_get(metrics, "failure_detail").is_none()) dict_set(metrics, "failure_detail", "Expression evaluation exceeded era limit");
        record(py::str(*timing_rejection), tracking_stats, non_empty_or_none(per_column), elapsed, metrics);
        return none;
    }
    if (stats_reason) {
        record(py::str(*stats_reason), none, non_empty_or_none(per_column), elapsed, metrics);
        return none;
    }
    auto record_full = [&](py::object reason) {
        record(reason, tracking_stats, tracking_stats.is_none() ? none : py::object(per_column), elapsed, metrics);
    };
    py::object reason = derive_rejection_reason(rejection_stats.is_none() ? bt_stats : rejection_stats);
    if (!reason.is_none()) {
        record_full(reason);
        return none;
    }
    py::object correlation = attr_or(bt_stats, "correlation");
    if (is_int_or_float(correlation) &&
        py_gt(correlation, module_attr("_require_search_threshold")(_thresholds, "correlation_max"))) {
        record_full(py::str("correlation_exceeded"));
        return none;
    }

    // Sync and MI.
    if (!_sync_mgr.is_none()) {
        try {
            _sync_mgr.attr("request_for_sync")();  // the files it names are the sync manager's affair
        } catch (py::error_already_set& e) {
            if (!e.matches(PyExc_Exception)) throw;
            log_warning("Failed to request sync files: %s", e.value());
        }
    }
    py::list factor_pnl = normalize_factor_pnl(attr_or(bt_stats, "factor_pnl"));
    double mi_score = 0.0;
    bool mi_passed = false;
    {
        std::optional<std::string> mi_error;
        try {
            std::tie(mi_score, mi_passed) = submission_pnl_mi_from_backtest_or_compute(
                _backtester, bt_stats, _era_config, _signal_pool_id, _thresholds);
        } catch (const py::value_error& e) {
            mi_error = e.what();
        } catch (py::error_already_set& e) {
            if (!e.matches(PyExc_ValueError)) throw;
            mi_error = str(e.value());
        }
        if (mi_error) {
            dict_set(metrics, "failure_reason", "missing_is_pnl_mi");
            dict_set(metrics, "failure_detail", *mi_error);
            record_full(py::str("missing_is_pnl_mi"));
            return none;
        }
    }
    py::float_ score(mi_score);
    dict_set(metrics, "is_pnl_mi", score);
    if (dict_get(metrics, "agent_is_pnl_mi").is_none()) dict_set(metrics, "agent_is_pnl_mi", score);
    if (!mi_passed) {
        py::object threshold = module_attr("_search_threshold_or_default")(
            _thresholds, "mi_threshold", -std::numeric_limits<double>::infinity());
        dict_set(metrics, "failure_reason", "pnl_mi");
        dict_set(metrics, "failure_detail", py::str("is_pnl_mi=") + py::str(score) + py::str(" < threshold=") + py::str(threshold));
        record_full(py::str("pnl_mi_below_threshold"));
        return none;
    }

    // Pass: record, then store, then hand over; cancellation is checked at four points.
    py::dict fields;
    dict_set(fields, "expression", expr_graph);
    dict_set(fields, "passed", true);
    dict_set(fields, "stats", stats_dict);
    dict_set(fields, "factor_pnl", factor_pnl);
    dict_set(fields, "per_column_stats", per_column);
    dict_set(fields, "mi_score", score);
    dict_set(fields, "mi_passed", true);
    dict_set(fields, "submitted", false);
    py::object result = new_backtest_result(fields);
    if (submission_cancelled()) return none;
    py::object eval_id = safe_record(expr_graph, true, none, tracking_stats, per_column, elapsed, metrics);
    if (submission_cancelled()) return result;
    if (eval_id.is_none()) eval_id = py::str(py::module_::import("uuid").attr("uuid4")());

    py::dict payload;
    dict_set(payload, "eval_id", eval_id);
    dict_set(payload, "submission_type", "signal");
    dict_set(payload, "graph", expr_graph);
    dict_set(payload, "universe_id", _universe_id);
    dict_set(payload, "signal_pool_id", _signal_pool_id);
    dict_set(payload, "is_stats", stats_dict);
    dict_set(payload, "is_pnl_mi", score);
    dict_set(payload, "metaparameters", _metaparams_for_db);
    dict_set(payload, "search_state", py::dict());
    dict_set(payload, "era_id", _era_id);
    dict_set(payload, "expression_elapsed_seconds", elapsed);
    if (!_submission_owner.is_none()) dict_set(payload, "_submission_owner", _submission_owner);

    call_method(_tracker_write_lock, "acquire");
    try {
        if (!submission_cancelled()) {
            if (tracker_uses_persistent_store(_tracker)) {
                _tracker.attr("enqueue_submission")(eval_id, payload["submission_type"],
                                                    serialize_submission_payload(payload), _era_id);
            } else {
                _tracker.attr("enqueue_submission")(payload);
            }
            if (!submission_cancelled()) {
                if (!_submission_queue.is_none())
                    _submission_queue.attr("put")(py::reinterpret_steal<py::dict>(PyDict_Copy(payload.ptr())));
                if (!_submission_wakeup.is_none()) call_method(_submission_wakeup, "set");
            }
        }
    } catch (...) {
        call_method(_tracker_write_lock, "release");
        throw;
    }
    call_method(_tracker_write_lock, "release");
    return result;
}

}  // namespace quillmarsh::st

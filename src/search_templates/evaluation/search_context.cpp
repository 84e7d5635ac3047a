#include "evaluation/search_context.hpp"

#include "common/py_helpers.hpp"
#include "common/search_error.hpp"
#include "evaluation/rejection_reason.hpp"

namespace quillmarsh::st {

namespace {

PyObject* g_analytics_snapshot = nullptr;

bool is_exception(const py::error_already_set& e) { return e.matches(PyExc_Exception); }

py::object deepcopy(py::handle value) {
    static PyObject* fn = py::object(py::module_::import("copy").attr("deepcopy")).release().ptr();
    return py::reinterpret_borrow<py::object>(fn)(value);
}

py::dict metaparams_for_db(py::handle metaparams) {
    py::dict out;
    for (auto item : py::reinterpret_borrow<py::object>(metaparams).attr("items")()) {
        py::tuple kv = py::reinterpret_borrow<py::tuple>(item);
        out[kv[0]] = kv[1].is_none() ? py::str("none") : py::str(kv[1]);
    }
    return out;
}

py::object era_id_of(py::handle era_config) {
    if (era_config.is_none()) return py::int_(1);
    if (is_dict(era_config)) {
        py::object value = py::reinterpret_borrow<py::object>(era_config).attr("get")("era_id");
        if (!truthy(value)) value = py::int_(1);
        return py::int_(value);
    }
    return era_config.attr("era_id");
}

// Total and rows of whatever statistics came back, each read in its own guard.
py::object analytics_snapshot(py::handle raw) {
    py::object total = py::int_(0);
    py::list rows;
    if (!raw.is_none()) {
        try {
            py::object value = attr_or(raw, "total_evaluations", py::int_(0));
            if (PyLong_Check(value.ptr())) total = value;
        } catch (py::error_already_set& e) {
            if (!is_exception(e)) throw;
            log_warning("Failed to read total_evaluations from stats: %s", e.value());
        }
        try {
            py::object value = attr_or(raw, "rows", py::list());
            if (PyList_Check(value.ptr()) || PyTuple_Check(value.ptr()))
                rows = py::reinterpret_steal<py::list>(PySequence_List(value.ptr()));
        } catch (py::error_already_set& e) {
            if (!is_exception(e)) throw;
            log_warning("Failed to read rows from stats: %s", e.value());
        }
    }
    return py::reinterpret_borrow<py::object>(g_analytics_snapshot)(py::arg("total_evaluations") = total,
                                                                      py::arg("rows") = rows);
}

}  // namespace

py::object create_analytics_snapshot_type() {
    py::module_ dc = py::module_::import("dataclasses");
    py::module_ builtins = py::module_::import("builtins");
    py::list fields;
    fields.append(py::make_tuple("total_evaluations", builtins.attr("int"), dc.attr("field")(py::arg("default") = 0)));
    fields.append(py::make_tuple("rows", builtins.attr("list"),
                                 dc.attr("field")(py::arg("default_factory") = builtins.attr("list"))));
    py::dict ns;
    ns["__doc__"] = "Analytics of a search that has no statistics yet.";
    ns["__module__"] = "quillmarsh.search_templates";
    return dc.attr("make_dataclass")("_AnalyticsSnapshot", fields, py::arg("namespace") = ns);
}

void register_analytics_snapshot_type(py::object type) { g_analytics_snapshot = type.release().ptr(); }

SearchContext::SearchContext(py::object vocab, py::object universe, py::object metaparams, py::object depth,
                             py::object tracker, py::object sync_mgr, py::object bt, py::object thresholds,
                             py::object era_config, py::object fatal_callback, py::object submission_queue,
                             py::object tracker_write_lock, py::object submission_wakeup, py::object stop_event,
                             py::object submission_owner, py::object replacement_abort_event)
    : _vocabulary(std::move(vocab)),
      _universe_id(std::move(universe)),
      _metaparameters(std::move(metaparams)),
      _max_depth(std::move(depth)),
      _tracker(std::move(tracker)),
      _sync_mgr(std::move(sync_mgr)),
      _backtester(std::move(bt)),
      _analytics_engine(py::none()) {
    py::object raw = py::none();
    py::object get_stats = attr_or(_tracker, "get_search_stats");
    if (is_callable(get_stats)) {
        try {
            raw = get_stats();
        } catch (py::error_already_set& e) {
            if (!is_exception(e)) throw;
            log_warning("Failed to get search stats: %s", e.value());
        }
    } else {
        py::object engine = module_attr("_build_search_analytics_from_era_config")(_tracker, era_config);
        if (engine.is_none()) {
            log_warning("Failed to get search stats: tracker exposes no get_search_stats method and era_config has "
                        "no usable signal_pools.");
        } else {
            try {
                raw = engine.attr("get_search_stats")();
            } catch (py::error_already_set& e) {
                if (!is_exception(e)) throw;
                log_warning("Failed to get search stats: %s", e.value());
            }
        }
        _analytics_engine = engine;
    }
    py::object stats_result_type = py::module_::import("quillmarsh.search_analytics").attr("SearchStatsResult");
    _analytics = py::isinstance(raw, stats_result_type) ? raw : analytics_snapshot(raw);

    _thresholds = module_attr("_resolve_search_thresholds")(thresholds, era_config);
    _era_config = era_config;
    _fatal_callback = std::move(fatal_callback);
    _submission_queue = std::move(submission_queue);
    _submission_wakeup = std::move(submission_wakeup);
    _tracker_write_lock = truthy(tracker_write_lock) ? tracker_write_lock
                                                     : py::module_::import("threading").attr("RLock")();
    _stop_event = std::move(stop_event);
    _submission_owner = std::move(submission_owner);
    _replacement_abort_event = std::move(replacement_abort_event);
    _signal_pool_id = module_attr("_first_signal_pool_id_from_era_config")(_era_config);
    _metaparams_for_db = metaparams_for_db(_metaparameters);
    _era_id = era_id_of(_era_config);
}

py::object SearchContext::vocabulary_copy() const { return deepcopy(_vocabulary); }

bool SearchContext::submission_cancelled() const {
    if (!_stop_event.is_none() && truthy(call_method(_stop_event, "is_set"))) return true;
    if (_replacement_abort_event.is_none()) return false;
    return truthy(call_method(_replacement_abort_event, "is_set"));
}

py::object SearchContext::safe_record(py::object graph, bool passed_thresholds, py::object rejection_reason,
                                      py::object stats, py::object per_column_stats,
                                      py::object expression_elapsed_seconds, py::object tracking_metric_kwargs) {
    if (stats.is_none()) stats = module_attr("_BacktestStats")();
    py::dict metrics = tracking_metric_kwargs.is_none() ? py::dict() : py::dict(tracking_metric_kwargs);
    try {
        py::dict kwargs;
        dict_set(kwargs, "pool_id", _signal_pool_id);
        dict_set(kwargs, "rejection_reason", rejection_reason);
        dict_set(kwargs, "per_column_stats", per_column_stats);
        dict_set(kwargs, "expression_elapsed_seconds", expression_elapsed_seconds);
        for (const char* key :
             {"is_correlation", "is_pnl_mi", "agent_is_pnl_mi", "is_weights_mi", "failure_reason", "failure_detail"})
            dict_set(kwargs, key, dict_get(metrics, key));
        py::object record = py::getattr(_tracker, cached_name("record_signal_evaluation"));
        call_method(_tracker_write_lock, "acquire");
        py::object result;
        try {
            result = call_kw(record, {graph, stats, _era_id, py::bool_(passed_thresholds), _universe_id,
                                      _metaparams_for_db}, kwargs);
        } catch (...) {
            call_method(_tracker_write_lock, "release");
            throw;
        }
        call_method(_tracker_write_lock, "release");
        return result;
    } catch (py::error_already_set& e) {
        if (!e.matches(PyExc_OSError)) throw;
        if (truthy(_fatal_callback)) {
            const ErrorWords& words = error_words(ErrorCode::DatabaseError);
            std::string text = str(e.value());
            _fatal_callback(std::string(words.code), std::string(words.advice),
                            error_message(ErrorCode::DatabaseError, text));
        }
        return py::none();
    }
}

py::object SearchContext::refresh_analytics() {
    py::object result;
    py::object get_stats = attr_or(_tracker, "get_search_stats");
    if (is_callable(get_stats)) {
        result = get_stats();
    } else {
        if (_analytics_engine.is_none())
            _analytics_engine = module_attr("_build_search_analytics_from_era_config")(_tracker, _era_config);
        if (_analytics_engine.is_none()) {
            PyErr_SetString(PyExc_AttributeError,
                            "Cannot refresh analytics: tracker has no get_search_stats method and era_config has no "
                            "usable signal_pools.");
            throw py::error_already_set();
        }
        result = _analytics_engine.attr("get_search_stats")();
    }
    _analytics = result;
    return result;
}

py::object SearchContext::derive_rejection_reason(py::object stats) const {
    return st::derive_rejection_reason(stats, _thresholds, _era_config);
}

}  // namespace quillmarsh::st

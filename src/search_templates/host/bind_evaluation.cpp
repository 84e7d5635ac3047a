// Names of expression evaluation: the backtest metric contract.
#include "common/py_helpers.hpp"
#include "evaluation/metric_contract.hpp"
#include "evaluation/rejection_reason.hpp"
#include "evaluation/search_context.hpp"
#include "host/bindings.hpp"

#include <string>

namespace quillmarsh::st {

namespace {

py::object optional_float(const std::optional<double>& v) { return v ? py::object(py::float_(*v)) : py::object(py::none()); }
py::object optional_str(const std::optional<std::string>& v) { return v ? py::object(py::str(*v)) : py::object(py::none()); }

template <typename Getter>
void read_only(py::class_<SearchContext>& cls, const char* name, Getter getter) {
    std::string message = std::string(name) + " is read-only";
    cls.def_property(
        name, getter,
        [message](SearchContext&, py::object) -> void { throw py::attribute_error(message); });
}

void bind_search_context(py::module_& m) {
    py::class_<SearchContext> cls(m, "SearchContext", py::dynamic_attr(), 
                                  "Context passed to template functions.\n\n"
                                  "A template is called with one per worker thread and reads what to build from it;\n"
                                  "ctx.evaluate(graph) judges an expression it built.\n\n"
                                  "Attributes (read-only):\n"
                                  "    vocabulary (dict): a copy of the vocabulary: lists \"functions\" and \"features\".\n"
                                  "    universe_id (str): the universe the expressions are evaluated in.\n"
                                  "    metaparameters (dict): the metaparameters of the signal pool.\n"
                                  "    max_depth (int): the largest expression depth allowed.\n"
                                  "    analytics: the statistics of earlier evaluations, as of construction or the last\n"
                                  "        refresh_analytics().");
    cls.def(py::init<py::object, py::object, py::object, py::object, py::object, py::object, py::object, py::object,
                     py::object, py::object, py::object, py::object, py::object, py::object, py::object, py::object>(),
            py::arg("vocab"), py::arg("universe"), py::arg("metaparams"), py::arg("depth"), py::arg("tracker"),
            py::arg("sync_mgr"), py::arg("bt"), py::arg("thresholds") = py::none(), py::arg("era_config") = py::none(),
            py::arg("fatal_callback") = py::none(), py::arg("submission_queue") = py::none(),
            py::arg("tracker_write_lock") = py::none(), py::arg("submission_wakeup") = py::none(),
            py::arg("stop_event") = py::none(), py::arg("submission_owner") = py::none(),
            py::arg("replacement_abort_event") = py::none(),
            "A context for one worker. A search builds one per worker thread; build one yourself only to\n"
            "drive a template or analyze_random_weighted outside a search.\n\n"
            "Args:\n"
            "    vocab: the vocabulary map (lists \"functions\" and \"features\").\n"
            "    universe: the universe id the expressions are evaluated in.\n"
            "    metaparams: the metaparameters of the signal pool (a map, may be empty).\n"
            "    depth: the largest expression depth allowed.\n"
            "    tracker: the SearchTracker that records evaluations.\n"
            "    sync_mgr: the SyncManager, or None.\n"
            "    bt: the backtester (evaluator).\n"
            "    thresholds: the era's thresholds; None reads them from `era_config`.\n"
            "    era_config: the era configuration.\n"
            "    fatal_callback, submission_queue, tracker_write_lock, submission_wakeup, stop_event,\n"
            "    submission_owner, replacement_abort_event: the search's plumbing; None outside a search.\n\n"
            "Raises:\n"
            "    ValueError: a required threshold is missing or not a number.");
    read_only(cls, "vocabulary", [](const SearchContext& c) { return c.vocabulary_copy(); });
    read_only(cls, "universe_id", [](const SearchContext& c) { return c._universe_id; });
    read_only(cls, "metaparameters", [](const SearchContext& c) { return c._metaparameters; });
    read_only(cls, "max_depth", [](const SearchContext& c) { return c._max_depth; });
    cls.def_property_readonly("analytics", [](const SearchContext& c) { return c._analytics; });
    cls.def("evaluate", &SearchContext::evaluate, py::arg("expr_graph"),
            "Judge one expression: check it, backtest it against the era's thresholds, record the outcome\n"
            "in the tracking store and, when it passes, queue it durably for submission.\n\n"
            "Args:\n"
            "    expr_graph: an expression graph: a map with \"type\" and, as the type requires, \"node\"\n"
            "        and \"children\", e.g. {\"type\": \"rotation\", \"node\": \"cs_rank\", \"children\": [...]}.\n\n"
            "Returns:\n"
            "    BacktestResult | None: the result of a pass; None for a rejection, whose reason is\n"
            "    recorded in the store.\n\n"
            "Raises:\n"
            "    ValueError: the era lacks a threshold or max_expression_generation_seconds (nothing is\n"
            "        recorded). A bad expression is a rejection, not an error.");
    cls.def("refresh_analytics", &SearchContext::refresh_analytics,
            "Re-read the search statistics of the store, keep them as `analytics` and return them.\n\n"
            "Returns:\n"
            "    SearchStatsResult: the evaluations so far: total_evaluations and the per-name rows.\n\n"
            "Raises:\n"
            "    AttributeError: the context has no analytics engine (a tracker without statistics).\n"
            "    Exception: an error of the statistics query passes through; `analytics` stays as it was.");
    cls.def("_submission_cancelled", &SearchContext::submission_cancelled);
    cls.def("_safe_record", &SearchContext::safe_record, py::arg("graph"), py::arg("passed_thresholds"),
            py::arg("rejection_reason") = py::none(), py::arg("stats") = py::none(),
            py::arg("per_column_stats") = py::none(), py::arg("expression_elapsed_seconds") = py::none(),
            py::arg("tracking_metric_kwargs") = py::none());
    cls.def("_derive_rejection_reason", &SearchContext::derive_rejection_reason, py::arg("stats"));
#define QM_FIELD(name) cls.def_readwrite(#name, &SearchContext::name)
    QM_FIELD(_vocabulary); QM_FIELD(_universe_id); QM_FIELD(_metaparameters); QM_FIELD(_max_depth);
    QM_FIELD(_tracker); QM_FIELD(_sync_mgr); QM_FIELD(_backtester); QM_FIELD(_thresholds); QM_FIELD(_era_config);
    QM_FIELD(_fatal_callback); QM_FIELD(_submission_queue); QM_FIELD(_tracker_write_lock);
    QM_FIELD(_submission_wakeup); QM_FIELD(_stop_event); QM_FIELD(_submission_owner);
    QM_FIELD(_replacement_abort_event); QM_FIELD(_analytics_engine); QM_FIELD(_analytics); QM_FIELD(_signal_pool_id);
    QM_FIELD(_metaparams_for_db); QM_FIELD(_era_id);
#undef QM_FIELD
}

}  // namespace

void bind_evaluation(py::module_& m) {
    m.attr("_MISSING_BACKTEST_METRIC") = create_missing_metric_sentinel();
    py::tuple required(REQUIRED_BACKTEST_METRICS.size());
    for (size_t i = 0; i < REQUIRED_BACKTEST_METRICS.size(); ++i) required[i] = py::str(REQUIRED_BACKTEST_METRICS[i]);
    m.attr("_REQUIRED_BACKTEST_METRICS") = required;

    m.def("_invalid_backtest_metric_reason", [](const std::string& attr) { return invalid_backtest_metric_reason(attr); },
          py::arg("attr"));
    m.def("_backtest_per_column_metric_value",
          [](py::object s, const std::string& attr, py::object era) { return backtest_per_column_metric_value(s, attr.c_str(), era); },
          py::arg("bt_stats"), py::arg("attr"), py::arg("era_config"));
    m.def("_backtest_metric_value",
          [](py::object s, const std::string& attr, py::object era) { return backtest_metric_value(s, attr.c_str(), era); },
          py::arg("bt_stats"), py::arg("attr"), py::arg("era_config"));
    m.def("_required_backtest_metric_value",
          [](py::object s, const std::string& attr, py::object era) {
              auto [value, reason] = required_backtest_metric_value(s, attr.c_str(), era);
              return py::make_tuple(optional_float(value), optional_str(reason));
          },
          py::arg("bt_stats"), py::arg("attr"), py::arg("era_config") = py::none());
    m.def("_collect_required_backtest_stats",
          [](py::object s, py::object era) {
              auto [stats, reason] = collect_required_backtest_stats(s, era);
              return py::make_tuple(stats, optional_str(reason));
          },
          py::arg("bt_stats"), py::arg("era_config") = py::none());
    m.def("_normalize_factor_pnl", [](py::object v) { return normalize_factor_pnl(v); }, py::arg("value"));
    m.def("_normalize_per_column_stats", [](py::object v) { return normalize_per_column_stats(v); }, py::arg("value"));
    m.def("_is_pnl_mi_from_backtest_stats", [](py::object s) { return is_pnl_mi_from_backtest_stats(s); },
          py::arg("bt_stats"));
    m.def("_submission_pnl_mi_from_backtest_or_compute",
          [](py::object backtester, py::object s, py::object era, py::object pool_id, py::object thresholds) {
              auto [score, passed] = submission_pnl_mi_from_backtest_or_compute(backtester, s, era, pool_id, thresholds);
              return py::make_tuple(score, passed);
          },
          py::arg("backtester"), py::arg("bt_stats"), py::arg("era_config"), py::arg("signal_pool_id"),
          py::arg("thresholds"));
    m.def("_is_finite_number", [](py::object v) { return is_finite_number(v); }, py::arg("value"));
    m.def("_finite_optional_number", [](py::object v) { return optional_float(finite_optional_number(v)); },
          py::arg("value"));
    m.def("_finite_number_or_default",
          [](py::object v, py::object dflt) {
              std::optional<double> d = finite_optional_number(v);
              return d ? py::float_(*d) : py::float_(dflt);
          },
          py::arg("value"), py::arg("default") = 0.0);
    m.def("_tracking_quality_score",
          [](py::object s, py::object stats, py::object per_column, py::object era) {
              return tracking_quality_score(s, stats, per_column, era);
          },
          py::arg("bt_stats"), py::arg("stats_dict"), py::arg("per_column_stats"), py::arg("era_config"));
    m.def("_tracking_stats_from_backtest",
          [](py::object s, py::object stats, py::object per_column, py::object era) {
              return tracking_stats_from_backtest(s, stats, per_column, era);
          },
          py::arg("bt_stats"), py::arg("stats_dict"), py::arg("per_column_stats"), py::arg("era_config"));
    m.def("_rejection_stats_from_backtest",
          [](py::object s, py::object tracking, py::object stats) { return rejection_stats_from_backtest(s, tracking, stats); },
          py::arg("bt_stats"), py::arg("tracking_stats"), py::arg("stats_dict"));
    m.def("_tracking_metric_kwargs_from_backtest", [](py::object s) { return tracking_metric_kwargs_from_backtest(s); },
          py::arg("bt_stats"));
    m.def("_has_non_finite_number", [](py::object v) { return has_non_finite_number(v); }, py::arg("value"));
    m.def("_has_disallowed_mi_contract_field", [](py::object v) { return has_disallowed_mi_contract_field(v); },
          py::arg("value"));

    register_analytics_snapshot_type(create_analytics_snapshot_type());
    bind_search_context(m);

    // SearchContext binds this as `_derive_rejection_reason`; the free form serves the tests of the rules.
    m.attr("_helpers").attr("derive_rejection_reason") = py::cpp_function(
        [](py::object stats, py::object thresholds, py::object era) { return derive_rejection_reason(stats, thresholds, era); },
        py::arg("stats"), py::arg("thresholds"), py::arg("era_config"));
}

}  // namespace quillmarsh::st

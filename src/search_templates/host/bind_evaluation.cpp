// Names of expression evaluation: the backtest metric contract.
#include "common/py_helpers.hpp"
#include "evaluation/metric_contract.hpp"
#include "evaluation/rejection_reason.hpp"
#include "host/bindings.hpp"

#include <string>

namespace quillmarsh::st {

namespace {

py::object optional_float(const std::optional<double>& v) { return v ? py::object(py::float_(*v)) : py::object(py::none()); }
py::object optional_str(const std::optional<std::string>& v) { return v ? py::object(py::str(*v)) : py::object(py::none()); }

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

    // SearchContext binds this as `_derive_rejection_reason`; the free form serves the tests of the rules.
    m.attr("_helpers").attr("derive_rejection_reason") = py::cpp_function(
        [](py::object stats, py::object thresholds, py::object era) { return derive_rejection_reason(stats, thresholds, era); },
        py::arg("stats"), py::arg("thresholds"), py::arg("era_config"));
}

}  // namespace quillmarsh::st

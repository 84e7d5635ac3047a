// What a backtest must deliver, and the one place that knows the shapes a statistics object comes in.
//
// A metric may stand as an attribute, under another name (`avg_turnover`, `quality_score`), or only in
// the per-column table keyed "<primary column>_<metric>" or "<metric>". From such an object this file
// derives the required metrics as a plain map (or the reason that made the result unusable), the record
// the tracking store keeps, the keyword values of the store's MI and failure columns, and the MI score
// of a signal. Absence is the sentinel `_MISSING_BACKTEST_METRIC`, compared by identity, because a metric
// can legitimately be None, zero or False.
#pragma once

#include <pybind11/pybind11.h>

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace quillmarsh::st {

namespace py = pybind11;

// Checked in this order; the first failure is the reason.
inline constexpr std::array<const char*, 10> REQUIRED_BACKTEST_METRICS = {
    "sharpe", "fitness", "returns", "drawdown", "turnover", "margin",
    "long_count", "short_count", "delta_exposure", "max_weight"};

inline constexpr const char* IS_PNL_MI_ERROR = "BacktestStats.is_pnl_mi must be a finite scalar number";

// The sentinel object; made once at module initialisation.
py::object create_missing_metric_sentinel();
py::handle missing_metric();

std::string invalid_backtest_metric_reason(std::string_view attr);
py::object backtest_per_column_metric_value(py::handle bt_stats, const char* attr, py::handle era_config);
py::object backtest_metric_value(py::handle bt_stats, const char* attr, py::handle era_config);
// (float, None) or (None, reason)
std::pair<std::optional<double>, std::optional<std::string>> required_backtest_metric_value(
    py::handle bt_stats, const char* attr, py::handle era_config);
// (stats map, None) or (None, reason): the ten metrics as floats plus `abs_weight_sum_mean`.
std::pair<py::object, std::optional<std::string>> collect_required_backtest_stats(py::handle bt_stats,
                                                                                  py::handle era_config);

py::list normalize_factor_pnl(py::handle value);
py::dict normalize_per_column_stats(py::handle value);

double is_pnl_mi_from_backtest_stats(py::handle bt_stats);
// (score, passed), or ValueError with IS_PNL_MI_ERROR.
std::pair<double, bool> submission_pnl_mi_from_backtest_or_compute(py::handle backtester, py::handle bt_stats,
                                                                  py::handle era_config, py::handle signal_pool_id,
                                                                  py::handle thresholds);

// type(x) is int or float, and float(x) is finite.
bool is_finite_number(py::handle value);
std::optional<double> finite_optional_number(py::handle value);
double finite_number_or_default(py::handle value, double dflt = 0.0);

double tracking_quality_score(py::handle bt_stats, py::handle stats_dict, py::handle per_column_stats,
                              py::handle era_config);
// A new `_BacktestStats` record for the tracking store.
py::object tracking_stats_from_backtest(py::handle bt_stats, py::handle stats_dict, py::handle per_column_stats,
                                        py::handle era_config);
// The tracking record completed with what the rejection rules read (`passed`, `abs_weight_sum_mean`,
// `weight_quality_metrics`); `bt_stats` itself when there is no record.
py::object rejection_stats_from_backtest(py::handle bt_stats, py::handle tracking_stats, py::handle stats_dict);
// is_correlation, is_pnl_mi, agent_is_pnl_mi, is_weights_mi, failure_reason, failure_detail
py::dict tracking_metric_kwargs_from_backtest(py::handle bt_stats);

// Checks on a value headed for the wire.
bool has_non_finite_number(py::handle value);
bool has_disallowed_mi_contract_field(py::handle value);

}  // namespace quillmarsh::st

// The judgement on one backtest: a rejection reason, or None for a signal that may go on.
//
// Five tiers in a fixed order: the metric thresholds, weight quality, liquidity, custom statistics
// together with the era's column rules, and correlation. The first failing rule names the rejection.
// Nothing is computed here: the metrics and the rule results are the backtester's, the thresholds the
// search's. A required threshold is read at its turn, so a missing one is reported in that order.
#pragma once

#include <pybind11/pybind11.h>

namespace quillmarsh::st {

namespace py = pybind11;

// The reason as a str, or None.
py::object derive_rejection_reason(py::handle stats, py::handle thresholds, py::handle era_config);

}  // namespace quillmarsh::st

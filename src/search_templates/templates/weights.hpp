// Weight analytics: from whatever `ctx.analytics` holds to one yield rate per function and per feature, and
// from yield rates to selection weights. A name's weight is max(1.0 + yield_rate, 0.0), the rate clamped to
// [-1.0, 1000.0]; a name with no history weighs 1.0. Every step bounds what it accepts (rows, names per row,
// distinct names, counts, rates) and skips anything malformed without a word.
//
// Stat maps stay Python dicts of dicts (name -> {yield_total, weight_total, evaluation_count, yield_rate,
// failure_rate}) because the module exposes them; the cumulative weights that the generator searches are
// plain doubles.
#pragma once

#include <pybind11/pybind11.h>

#include <vector>

namespace quillmarsh::st {

namespace py = pybind11;

struct AnalyticsEntry {
    py::list function_names;
    py::list feature_names;
    double yield_rate = 0.0;
    py::object evaluation_count;
};

// Reads the entries of an analytics object lazily: nothing is touched before the first `next`.
class AnalyticsEntryReader {
public:
    explicit AnalyticsEntryReader(py::object analytics) : analytics_(std::move(analytics)) {}
    // Fills `out` with the next entry; false once the rows are used up or the row cap is reached.
    bool next(AnalyticsEntry& out);

private:
    bool start();
    py::object analytics_;
    py::object iterator_;
    long long rows_read_ = 0;
    bool started_ = false;
    bool done_ = false;
};

// The entry as the module's generator yields it: (1, function names, feature names, yield rate, count).
py::tuple analytics_entry_tuple(const AnalyticsEntry& e);

py::list random_weighted_feature_specs(py::handle features);
py::list random_weighted_feature_names(py::handle features);
py::list random_weighted_valid_names(py::handle names);
py::object random_weighted_allowed_name_set(py::handle names);
bool random_weighted_skip_analytics_name(py::handle name, py::handle allowed_names, py::handle seen_names);
void random_weighted_add_stat(py::handle stats, py::handle name, py::handle yield_rate, py::handle evaluation_count);
void random_weighted_finalize_stats(py::handle stats);
// (rows seen, function stats, feature stats).
py::tuple random_weighted_analytics_stats(py::handle analytics, py::handle allowed_function_names,
                                          py::handle allowed_feature_names);
// (function name -> yield rate, feature name -> yield rate).
py::tuple random_weighted_yield_maps(py::handle analytics, py::handle function_names, py::handle feature_names);
double random_weighted_safe_yield_rate(py::handle value);
std::vector<double> random_weighted_cum_weights(py::handle names, py::handle yield_map);
py::dict random_weighted_normalized_weights(py::handle names, py::handle stats);

}  // namespace quillmarsh::st

// analyze_random_weighted: what the random template would do now, as a JSON-serializable map. It draws
// nothing and changes nothing; bad vocabulary or analytics show as empty maps and reasons, never as errors.
#include "common/py_helpers.hpp"
#include "era/vocabulary.hpp"
#include "templates/eligibility.hpp"
#include "templates/node_budget.hpp"
#include "templates/random_weighted.hpp"
#include "templates/weights.hpp"

namespace quillmarsh::st {

py::dict random_weighted_weight_entry(py::handle normalized_weights, py::handle stats, py::handle name) {
    py::object item = map_get(stats, name, py::dict());
    py::object weights = map_get(normalized_weights, name, py::dict());
    py::dict entry;
    entry["yield_rate"] = random_weighted_safe_yield_rate(map_get(item, "yield_rate", py::float_(0.0)));
    // No history says nothing in a name's favour: its failure rate defaults to 1.0.
    entry["failure_rate"] = random_weighted_float(map_get(item, "failure_rate", py::float_(1.0)), py::float_(1.0));
    py::object count = map_get(item, "evaluation_count", py::int_(0));
    PyObject* as_int = PyNumber_Long(count.ptr());
    if (as_int == nullptr) throw py::error_already_set();
    entry["evaluation_count"] = py::reinterpret_steal<py::object>(as_int);
    for (const char* key : {"cold_weight", "warm_weight", "warm_delta"})
        entry[key] = random_weighted_float(map_get(weights, key, py::float_(0.0)), py::float_(0.0));
    return entry;
}

namespace {
py::dict weight_report(py::handle records, py::handle normalized_weights, py::handle stats, const char* family_key,
                       const char* subfamily_key) {
    py::dict report;
    for (py::handle record : records) {
        py::object name = record["name"];
        py::dict entry = random_weighted_weight_entry(normalized_weights, stats, name);
        entry[family_key] = map_get(record, family_key, py::str(""));
        entry[subfamily_key] = map_get(record, subfamily_key, py::str(""));
        report[name] = entry;  // a duplicated name keeps the last entry
    }
    return report;
}

py::list record_names(py::handle records) {
    py::list names;
    for (py::handle record : records) names.append(record["name"]);
    return names;
}
}  // namespace

py::dict random_weighted_function_weight_report(py::handle safe_rotations, py::handle normalized_weights,
                                                py::handle stats) {
    return weight_report(safe_rotations, normalized_weights, stats, "function_family", "function_subfamily");
}

py::dict random_weighted_feature_weight_report(py::handle feature_specs, py::handle normalized_weights,
                                               py::handle stats) {
    return weight_report(feature_specs, normalized_weights, stats, "feature_family", "feature_subfamily");
}

py::dict analyze_random_weighted(py::handle ctx) {
    py::dict vocab = normalize_template_vocabulary(ctx.attr("vocabulary"));
    py::object functions = map_get(vocab, "functions", py::list());
    py::object features = map_get(vocab, "features", py::list());

    // A report is wanted even where the generator would disable itself: a bad depth reads as 2.
    py::object max_depth = try_py_int(ctx.attr("max_depth"));
    if (!max_depth) max_depth = py::int_(2);
    if (py_gt(max_depth, py::int_(RANDOM_WEIGHTED_MAX_DEPTH))) max_depth = py::int_(RANDOM_WEIGHTED_MAX_DEPTH);

    py::object window_limit = random_weighted_window_limit(ctx, max_depth);
    py::int_ node_limit(random_weighted_node_limit(ctx));
    py::object registry = random_weighted_runtime_registry(ctx);

    py::tuple safety = random_weighted_function_safety(functions, false, window_limit, node_limit, registry);
    py::list safe_rotations = random_weighted_rotations_within_node_budget(safety[0], node_limit);
    py::object unsafe_functions = safety[1];
    py::list feature_specs = random_weighted_feature_specs(features);
    py::object analytics = attr_or(ctx, "analytics");

    py::list function_names = record_names(safe_rotations);
    py::list feature_names = record_names(feature_specs);
    py::tuple stats = random_weighted_analytics_stats(analytics, function_names, feature_names);

    py::dict report;
    report["analytics_rows_seen"] = stats[0];
    report["function_weights"] = random_weighted_function_weight_report(
        safe_rotations, random_weighted_normalized_weights(function_names, stats[1]), stats[1]);
    report["feature_weights"] = random_weighted_feature_weight_report(
        feature_specs, random_weighted_normalized_weights(feature_names, stats[2]), stats[2]);
    report["unsafe_functions"] = unsafe_functions;
    return report;
}

}  // namespace quillmarsh::st

// Names of the built-in random weighted template: its constants, eligibility, parameter synthesis, node
// budget, weight analytics, the generator and its report; and the template that learns while it runs.
#include "common/py_helpers.hpp"
#include "host/bindings.hpp"
#include "templates/adaptive_weighted.hpp"
#include "templates/eligibility.hpp"
#include "templates/node_budget.hpp"
#include "templates/param_synthesis.hpp"
#include "templates/random_weighted.hpp"
#include "templates/weights.hpp"

#include <optional>
#include <string>

namespace quillmarsh::st {

namespace {

py::object reason_or_none(const std::optional<std::string>& reason) {
    return reason ? py::object(py::str(*reason)) : py::object(py::none());
}

py::list as_list(const std::vector<double>& values) {
    py::list out(values.size());
    for (size_t i = 0; i < values.size(); ++i) out[i] = py::float_(values[i]);
    return out;
}

// The lazy iterator of `_random_weighted_analytics_entries`.
class AnalyticsEntries {
public:
    explicit AnalyticsEntries(py::object analytics) : reader_(std::move(analytics)) {}
    py::tuple next() {
        AnalyticsEntry entry;
        if (!reader_.next(entry)) throw py::stop_iteration();
        return analytics_entry_tuple(entry);
    }

private:
    AnalyticsEntryReader reader_;
};

void bind_constants(py::module_& m) {
    m.attr("_RANDOM_WEIGHTED_DEFAULT_MAX_NODE_COUNT") = RANDOM_WEIGHTED_DEFAULT_MAX_NODE_COUNT;
    m.attr("_RANDOM_WEIGHTED_HARD_MAX_NODE_COUNT") = RANDOM_WEIGHTED_HARD_MAX_NODE_COUNT;
    m.attr("_RANDOM_WEIGHTED_DEFAULT_BUFFER_DURATION_MINUTES") = RANDOM_WEIGHTED_DEFAULT_BUFFER_DURATION_MINUTES;
    m.attr("_RANDOM_WEIGHTED_MAX_RECURSIVE_DEPTH") = RANDOM_WEIGHTED_MAX_RECURSIVE_DEPTH;
    m.attr("_RANDOM_WEIGHTED_MAX_ANALYTICS_ROWS") = RANDOM_WEIGHTED_MAX_ANALYTICS_ROWS;
    m.attr("_RANDOM_WEIGHTED_MAX_ANALYTICS_NAMES_PER_ROW") = RANDOM_WEIGHTED_MAX_ANALYTICS_NAMES_PER_ROW;
    m.attr("_RANDOM_WEIGHTED_MAX_ANALYTICS_UNIQUE_NAMES") = RANDOM_WEIGHTED_MAX_ANALYTICS_UNIQUE_NAMES;
    m.attr("_RANDOM_WEIGHTED_MAX_ANALYTICS_WEIGHT") = RANDOM_WEIGHTED_MAX_ANALYTICS_WEIGHT;
    m.attr("_RANDOM_WEIGHTED_MAX_ABS_YIELD_RATE") = RANDOM_WEIGHTED_MAX_ABS_YIELD_RATE;
    m.attr("_RANDOM_WEIGHTED_MAX_ABS_CONFIG_INT") = RANDOM_WEIGHTED_MAX_ABS_CONFIG_INT;
    m.attr("_RANDOM_WEIGHTED_MAX_ABS_CONFIG_FLOAT") = RANDOM_WEIGHTED_MAX_ABS_CONFIG_FLOAT;
    m.attr("_RANDOM_WEIGHTED_MAX_DEPTH") = RANDOM_WEIGHTED_MAX_DEPTH;
    m.attr("_RANDOM_WEIGHTED_DEFAULT_STATEFUL_WINDOW") = RANDOM_WEIGHTED_DEFAULT_STATEFUL_WINDOW;
}

void bind_node_budget(py::module_& m) {
    m.def("_random_weighted_float", [](py::object v, py::object d) { return random_weighted_float(v, d); },
          py::arg("value"), py::arg("default"));
    m.def("_random_weighted_int", [](py::object v, py::object d) { return random_weighted_int(v, d); },
          py::arg("value"), py::arg("default"));
    m.def("_random_weighted_positive_int",
          [](py::object v, py::object d) { return random_weighted_positive_int(v, d); }, py::arg("value"),
          py::arg("default"));
    m.def("_random_weighted_era_value",
          [](py::object ctx, const std::string& name, py::object d) { return random_weighted_era_value(ctx, name.c_str(), d); },
          py::arg("ctx"), py::arg("name"), py::arg("default"));
    m.def("_random_weighted_node_limit", [](py::object ctx) { return random_weighted_node_limit(ctx); }, py::arg("ctx"));
    m.def("_random_weighted_buffer_duration_limit",
          [](py::object ctx) { return random_weighted_buffer_duration_limit(ctx); }, py::arg("ctx"));
    m.def("_random_weighted_window_limit",
          [](py::object ctx, py::object max_depth) { return random_weighted_window_limit(ctx, max_depth); },
          py::arg("ctx"), py::arg("max_depth"));
    m.def("_random_weighted_min_node_count", [](py::object rotation) { return random_weighted_min_node_count(rotation); },
          py::arg("rotation"));
    m.def("_random_weighted_rotations_within_node_budget",
          [](py::object rotations, py::object node_limit) {
              return random_weighted_rotations_within_node_budget(rotations, node_limit);
          },
          py::arg("rotations"), py::arg("node_limit"));
    m.def("_random_weighted_max_depth_within_node_budget",
          [](py::object rotations, long long requested_depth, long long node_limit) {
              return random_weighted_max_depth_within_node_budget(rotations, requested_depth, node_limit);
          },
          py::arg("rotations"), py::arg("requested_depth"), py::arg("node_limit"));
    m.def("_random_weighted_worst_case_node_count",
          [](py::object rotations, long long depth, long long node_limit) {
              return random_weighted_worst_case_node_count(rotations, depth, node_limit);
          },
          py::arg("rotations"), py::arg("depth"), py::arg("node_limit"));
}

void bind_param_synthesis(py::module_& m) {
    m.def("_random_weighted_rotation_schema",
          [](py::object fn, py::object window_limit, py::object node_limit) {
              return random_weighted_rotation_schema(fn, window_limit, node_limit);
          },
          py::arg("fn"), py::arg("window_limit") = py::none(), py::arg("node_limit") = py::none());
    m.def("_random_weighted_declared_arity", [](py::object fn) { return random_weighted_declared_arity(fn); },
          py::arg("fn"));
    m.def("_random_weighted_schema_params",
          [](py::object schema, py::object node_limit) { return random_weighted_schema_params(schema, node_limit); },
          py::arg("schema"), py::arg("node_limit") = py::none());
    m.def("_random_weighted_param_dict",
          [](py::object raw, py::object default_name) { return random_weighted_param_dict(raw, default_name); },
          py::arg("raw_param"), py::arg("default_name"));
    m.def("_random_weighted_config_child",
          [](py::object function_name, py::object param, py::object window_limit) {
              return random_weighted_config_child(function_name, param, window_limit);
          },
          py::arg("function_name"), py::arg("param"), py::arg("window_limit") = py::none());
    m.def("_random_weighted_is_finite_number", [](py::object v) { return random_weighted_is_finite_number(v); },
          py::arg("value"));
    m.def("_random_weighted_numeric_bounds",
          [](py::object param) { return numeric_bounds_tuple(random_weighted_numeric_bounds(param)); }, py::arg("param"));
    m.def("_random_weighted_numeric_range_label",
          [](py::object has_min, py::object min_value, py::object has_max, py::object max_value) {
              return "[" + (truthy(has_min) ? str(min_value) : std::string("-inf")) + ", " +
                     (truthy(has_max) ? str(max_value) : std::string("inf")) + "]";
          },
          py::arg("has_min"), py::arg("min_value"), py::arg("has_max"), py::arg("max_value"));
    m.def("_random_weighted_numeric_bounds_reason",
          [](py::object param, py::object value) { return reason_or_none(random_weighted_numeric_bounds_reason(param, value)); },
          py::arg("param"), py::arg("value"));
    m.def("_random_weighted_config_value_reason",
          [](py::object param_name, py::object value, py::object integer) {
              return reason_or_none(random_weighted_config_value_reason(param_name, value, truthy(integer)));
          },
          py::arg("param_name"), py::arg("value"), py::arg("integer"));
    m.def("_random_weighted_window_bounded_param",
          [](py::object param, py::object window_limit) { return random_weighted_window_bounded_param(param, window_limit); },
          py::arg("param"), py::arg("window_limit"));
    m.def("_random_weighted_window_budget_reason",
          [](py::object param_name, py::object value, py::object window_limit) {
              return reason_or_none(random_weighted_window_budget_reason(param_name, value, window_limit));
          },
          py::arg("param_name"), py::arg("value"), py::arg("window_limit"));
    m.def("_random_weighted_stateful_window_default",
          [](py::object param) { return random_weighted_stateful_window_default(param); }, py::arg("param"));
    m.def("_random_weighted_numeric_default",
          [](py::object param, py::object integer) { return random_weighted_numeric_default(param, truthy(integer)); },
          py::arg("param"), py::arg("integer"));
    m.def("_random_weighted_first_choice", [](py::object param) { return random_weighted_first_choice(param); },
          py::arg("param"));
}

void bind_eligibility(py::module_& m) {
    m.def("_random_weighted_runtime_registry", [](py::object ctx) { return random_weighted_runtime_registry(ctx); },
          py::arg("ctx"));
    m.def("_random_weighted_safe_rotations",
          [](py::object functions, py::object window_limit, py::object node_limit, py::object registry) {
              return random_weighted_safe_rotations(functions, window_limit, node_limit, registry);
          },
          py::arg("functions"), py::arg("window_limit") = py::none(), py::arg("node_limit") = py::none(),
          py::arg("registry") = py::none());
    m.def("_random_weighted_function_safety",
          [](py::object functions, py::object log_reasons, py::object window_limit, py::object node_limit,
             py::object registry) {
              return random_weighted_function_safety(functions, truthy(log_reasons), window_limit, node_limit, registry);
          },
          py::arg("functions"), py::arg("log_reasons"), py::arg("window_limit") = py::none(),
          py::arg("node_limit") = py::none(), py::arg("registry") = py::none());
    m.def("_random_weighted_registry_function_metadata",
          [](py::object fn, py::object registry) { return random_weighted_registry_function_metadata(fn, registry); },
          py::arg("fn"), py::arg("registry"));
    m.def("_random_weighted_registry_safety_reason",
          [](py::object name, py::object registry) { return random_weighted_registry_safety_reason(name, registry); },
          py::arg("name"), py::arg("registry"));
    m.def("_random_weighted_unsafe_function_reason",
          [](py::object function_type, py::object schema_reason) {
              return random_weighted_unsafe_function_reason(function_type, schema_reason);
          },
          py::arg("function_type"), py::arg("schema_reason"));
}

void bind_weights(py::module_& m) {
    py::class_<AnalyticsEntries>(m, "_RandomWeightedAnalyticsEntries")
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", &AnalyticsEntries::next);
    m.def("_random_weighted_analytics_entries",
          [](py::object analytics) { return AnalyticsEntries(std::move(analytics)); }, py::arg("analytics"),
          "A lazy iterator of (1, function names, feature names, yield rate, evaluation count) entries.");
    m.def("_random_weighted_feature_specs", [](py::object f) { return random_weighted_feature_specs(f); },
          py::arg("features"));
    m.def("_random_weighted_feature_names", [](py::object f) { return random_weighted_feature_names(f); },
          py::arg("features"));
    m.def("_random_weighted_valid_names", [](py::object n) { return random_weighted_valid_names(n); }, py::arg("names"));
    m.def("_random_weighted_allowed_name_set", [](py::object n) { return random_weighted_allowed_name_set(n); },
          py::arg("names"));
    m.def("_random_weighted_skip_analytics_name",
          [](py::object name, py::object allowed, py::object seen) {
              return random_weighted_skip_analytics_name(name, allowed, seen);
          },
          py::arg("name"), py::arg("allowed_names"), py::arg("seen_names"));
    m.def("_random_weighted_add_stat",
          [](py::object stats, py::object name, py::object yield_rate, py::object count) {
              random_weighted_add_stat(stats, name, yield_rate, count);
          },
          py::arg("stats"), py::arg("name"), py::arg("yield_rate"), py::arg("evaluation_count"));
    m.def("_random_weighted_finalize_stats", [](py::object stats) { random_weighted_finalize_stats(stats); },
          py::arg("stats"));
    m.def("_random_weighted_analytics_stats",
          [](py::object analytics, py::object functions, py::object features) {
              return random_weighted_analytics_stats(analytics, functions, features);
          },
          py::arg("analytics"), py::arg("allowed_function_names") = py::none(),
          py::arg("allowed_feature_names") = py::none());
    m.def("_random_weighted_yield_maps",
          [](py::object analytics, py::object functions, py::object features) {
              return random_weighted_yield_maps(analytics, functions, features);
          },
          py::arg("analytics"), py::arg("function_names") = py::none(), py::arg("feature_names") = py::none());
    m.def("_random_weighted_cum_weights",
          [](py::object names, py::object yield_map) { return as_list(random_weighted_cum_weights(names, yield_map)); },
          py::arg("names"), py::arg("yield_map"));
    m.def("_random_weighted_normalized_weights",
          [](py::object names, py::object stats) { return random_weighted_normalized_weights(names, stats); },
          py::arg("names"), py::arg("stats"));
    m.def("_random_weighted_safe_yield_rate", [](py::object v) { return random_weighted_safe_yield_rate(v); },
          py::arg("value"));
}

void bind_generator(py::module_& m) {
    m.attr("_RandomWeightedGenerator") = random_weighted_generator_type();
    m.def("random_weighted", &random_weighted, py::arg("ctx"),
          "Built-in template: yields weighted random SIGNAL expression graphs for as long as it is asked. Nothing "
          "runs before the first request for a value.\n\n"
          "Functions and features are drawn with weights learnt from the analytics of earlier evaluations\n"
          "(those that passed more often are drawn more often); functions that cannot be used safely are\n"
          "left out (see analyze_random_weighted). Pass it to search(): search(random_weighted).\n\n"
          "Args:\n"
          "    ctx: the SearchContext of the worker.\n\n"
          "Returns:\n"
          "    Iterator[dict]: an endless generator of expression graphs; it ends at once when the\n"
          "    vocabulary or the era leaves nothing to draw.\n\n"
          "Raises:\n"
          "    Nothing for bad vocabulary, analytics or era values: those end the generator quietly.");
    m.def("_build_random_signal_expression", &build_random_signal_expression, py::arg("func_names"),
          py::arg("func_specs"), py::arg("func_weights"), py::arg("feat_names"), py::arg("feat_weights"),
          py::arg("target_depth"));
    m.def("_weighted_choice", &weighted_choice, py::arg("items"), py::arg("cum_weights"));
}

void bind_report(py::module_& m) {
    m.def("analyze_random_weighted", [](py::object ctx) { return analyze_random_weighted(ctx); }, py::arg("ctx"),
          "JSON-serializable diagnostics for random_weighted sampling.\n\n"
          "Draws nothing and changes nothing: it shows what random_weighted would do now.\n\n"
          "Args:\n"
          "    ctx: a SearchContext (its vocabulary, max_depth, era and analytics are read).\n\n"
          "Returns:\n"
          "    dict: \"analytics_rows_seen\" (int); \"function_weights\" and \"feature_weights\", maps of\n"
          "    name to yield_rate, failure_rate, evaluation_count, cold_weight (with no analytics),\n"
          "    warm_weight (with them), warm_delta and the family; \"unsafe_functions\", a map of name to\n"
          "    the reason it is left out.\n\n"
          "Raises:\n"
          "    Nothing for bad vocabulary or analytics; an error of ctx.vocabulary passes through.");
    m.def("_random_weighted_function_weight_report",
          [](py::object rotations, py::object weights, py::object stats) {
              return random_weighted_function_weight_report(rotations, weights, stats);
          },
          py::arg("safe_rotations"), py::arg("normalized_weights"), py::arg("stats"));
    m.def("_random_weighted_feature_weight_report",
          [](py::object specs, py::object weights, py::object stats) {
              return random_weighted_feature_weight_report(specs, weights, stats);
          },
          py::arg("feature_specs"), py::arg("normalized_weights"), py::arg("stats"));
    m.def("_random_weighted_weight_entry",
          [](py::object weights, py::object stats, py::object name) {
              return random_weighted_weight_entry(weights, stats, name);
          },
          py::arg("normalized_weights"), py::arg("stats"), py::arg("name"));
}

}  // namespace

void bind_templates(py::module_& m) {
    bind_constants(m);
    bind_node_budget(m);
    bind_param_synthesis(m);
    bind_eligibility(m);
    bind_weights(m);
    bind_generator(m);
    bind_report(m);
    bind_adaptive_weighted(m);
}

}  // namespace quillmarsh::st

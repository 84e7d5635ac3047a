// Names of the era subsystem: configuration accessors, transform pipeline, vocabulary, thresholds.
#include "era/era_config.hpp"
#include "era/thresholds.hpp"
#include "era/transform_pipeline.hpp"
#include "era/vocabulary.hpp"
#include "host/bindings.hpp"

#include <string>

namespace quillmarsh::st {

namespace {

void bind_era_config(py::module_& m) {
    m.def("_era_config_lookup",
          [](py::object era_config, py::object name, py::object dflt) {
              return era_config_lookup(era_config, name, dflt);
          },
          py::arg("era_config"), py::arg("name"), py::arg("default") = py::none());
    m.def("_era_config_raw_dict", [](py::object era_config) { return era_config_raw_dict(era_config); },
          py::arg("era_config"));
    m.def("_era_config_field",
          [](py::object era_config, py::object name, py::object dflt) {
              return era_config_field(era_config, name, dflt);
          },
          py::arg("era_config"), py::arg("name"), py::arg("default") = py::none());
    m.def("_primary_evaluation_pnl_column",
          [](py::object era_config) { return primary_evaluation_pnl_column(era_config); }, py::arg("era_config"));
    m.def("_pool_id_from_config_entry", [](py::object pool) { return pool_id_from_config_entry(pool); },
          py::arg("pool"));
    m.def("_pool_field",
          [](py::object pool, py::object name, py::object dflt) { return pool_field(pool, name, dflt); },
          py::arg("pool"), py::arg("name"), py::arg("default") = py::none());
    m.def("_signal_pools_from_era_config",
          [](py::object era_config) { return signal_pools_from_era_config(era_config); }, py::arg("era_config"));
    m.def("_first_signal_pool_id_from_era_config",
          [](py::object era_config) { return first_signal_pool_id_from_era_config(era_config); },
          py::arg("era_config"));
    m.def("_selected_signal_pool_from_era_config",
          [](py::object era_config, py::object signal_pool_id) {
              return selected_signal_pool_from_era_config(era_config, signal_pool_id);
          },
          py::arg("era_config"), py::arg("signal_pool_id"));
    m.def("_coerce_search_rule_id", [](py::object value) { return coerce_search_rule_id(value); }, py::arg("value"));
    m.def("_search_rule_id_from_universe_entry",
          [](py::object entry) { return search_rule_id_from_universe_entry(entry); }, py::arg("entry"));
    m.def("_search_universe_candidates_from_era_config",
          [](py::object era_config) { return search_universe_candidates_from_era_config(era_config); },
          py::arg("era_config"));
    m.def("_derive_search_universe_id",
          [](py::object era_config, py::object configured) { return derive_search_universe_id(era_config, configured); },
          py::arg("era_config"), py::arg("configured_valid_universe_id") = py::none());
}

void bind_transform_pipeline(py::module_& m) {
    m.def("_era_transform_pipeline_config",
          [](py::object era_config) { return era_transform_pipeline_config(era_config); }, py::arg("era_config"));
    m.def("_stage_value",
          [](py::object stage, py::object name, py::object dflt) { return stage_value(stage, name, dflt); },
          py::arg("stage"), py::arg("name"), py::arg("default") = py::none());
    m.def("_stage_has_default_contract", [](py::object stage) { return stage_has_default_contract(stage); },
          py::arg("stage"));
    m.def("_pipeline_has_per_pool_default",
          [](py::object pipeline) { return pipeline_has_per_pool_default(pipeline); }, py::arg("transform_pipeline"));
    m.def("_resolve_search_metaparameters_from_era_config",
          [](py::object era_config, py::object signal_pool_id) {
              return resolve_search_metaparameters_from_era_config(era_config, signal_pool_id);
          },
          py::arg("era_config"), py::arg("signal_pool_id"));
    m.def("_method_transform_context_kwargs",
          [](py::object method, py::object metaparameters, py::object transform_pipeline, py::object universe_id) {
              return method_transform_context_kwargs(method, metaparameters, transform_pipeline, universe_id);
          },
          py::arg("method"), py::arg("metaparameters"), py::arg("transform_pipeline"), py::arg("universe_id"));
    m.def("_call_backtester_with_transform_context",
          [](py::object backtester, py::object method_name, py::object expr_graph, py::object metaparameters,
             py::object transform_pipeline, py::object universe_id) {
              return call_backtester_with_transform_context(backtester, method_name, expr_graph, metaparameters,
                                                            transform_pipeline, universe_id);
          },
          py::arg("backtester"), py::arg("method_name"), py::arg("expr_graph"), py::arg("metaparameters"),
          py::arg("transform_pipeline"), py::arg("universe_id"));
}

void bind_vocabulary(py::module_& m) {
    py::object vocab_schema_error = create_vocab_schema_error_type();
    m.attr("VocabSchemaError") = vocab_schema_error;
    register_vocab_schema_error_type(vocab_schema_error);

    m.attr("_ROTATION_REQUIRED_FIELDS") = field_set(ROTATION_REQUIRED_FIELDS);
    m.attr("_FILTRATION_REQUIRED_FIELDS") = field_set(FILTRATION_REQUIRED_FIELDS);
    m.attr("_FILTRATION_FORBIDDEN_FIELDS") = field_set(FILTRATION_FORBIDDEN_FIELDS);
    m.attr("_REDUCTION_REQUIRED_FIELDS") = field_set(REDUCTION_REQUIRED_FIELDS);
    m.attr("_FEATURE_REQUIRED_FIELDS") = field_set(FEATURE_REQUIRED_FIELDS);
    m.attr("_FEATURE_STATS_REQUIRED_KEYS") = field_set(FEATURE_STATS_REQUIRED_KEYS);

    m.def("_flatten_vocabulary_entries", [](py::object node) { return flatten_vocabulary_entries(node); },
          py::arg("node"));
    m.def("_normalize_template_vocabulary", [](py::object vocab) { return normalize_template_vocabulary(vocab); },
          py::arg("vocab"));
    m.def("_validate_function_entry",
          [](py::object entry, py::object source_kind) { validate_function_entry(entry, source_kind); },
          py::arg("entry"), py::arg("source_kind"));
    m.def("_validate_feature_entry", [](py::object entry) { validate_feature_entry(entry); }, py::arg("entry"));
}

void bind_thresholds(py::module_& m) {
    m.def("_resolve_search_thresholds",
          [](py::object thresholds, py::object era_config) { return resolve_search_thresholds(thresholds, era_config); },
          py::arg("thresholds"), py::arg("era_config"));
    m.def("_require_search_threshold",
          [](py::object thresholds, py::object name) { return require_search_threshold(thresholds, name); },
          py::arg("thresholds"), py::arg("name"));
    m.def("_search_threshold_or_default",
          [](py::object thresholds, py::object name, py::object dflt) {
              return search_threshold_or_default(thresholds, name, dflt);
          },
          py::arg("thresholds"), py::arg("name"), py::arg("default"));
    m.def("_build_search_analytics_from_era_config",
          [](py::object tracker, py::object era_config) {
              return build_search_analytics_from_era_config(tracker, era_config);
          },
          py::arg("tracker"), py::arg("era_config"));
}

}  // namespace

void bind_era(py::module_& m) {
    bind_era_config(m);
    bind_transform_pipeline(m);
    bind_vocabulary(m);
    bind_thresholds(m);
}

}  // namespace quillmarsh::st

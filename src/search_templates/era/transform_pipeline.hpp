// The era's transform pipeline: reading it, the contract of a stage, the search metaparameters it
// resolves to, and calling a backtester method with the pipeline context.
//
// A stage is a dict or an object with `name`, `options`, `default` and an optional `per_pool_default`.
// Metaparameters are resolved by the platform's resolvers, read from the module at each call as
// `_resolve_metaparameters`, `_resolve_metaparameters_per_pool` and `_canonicalize_metaparameters`.
#pragma once

#include <pybind11/pybind11.h>

namespace quillmarsh::st {

namespace py = pybind11;

// A new list of stages: transform_pipeline_config, else the raw transform_pipeline, else the
// transform_pipeline field; anything but a list gives [].
py::list era_transform_pipeline_config(py::handle era_config);
// One field of a stage, from the key of a dict or the attribute of anything else.
py::object stage_value(py::handle stage, py::handle name, py::object dflt = py::none());
// `name` is not None, and `options` and `default` exist (their values may be None).
bool stage_has_default_contract(py::handle stage);
// True when any stage has a truthy per_pool_default.
bool pipeline_has_per_pool_default(py::handle transform_pipeline);
// The metaparameters of a search, keys as strings; SdkRuntimeNotReadyError on any pipeline or
// resolver problem. A "normalization" stage offering "rescale" always resolves to "rescale".
py::dict resolve_search_metaparameters_from_era_config(py::handle era_config, py::handle signal_pool_id);
// The keywords among metaparameters, transform_pipeline and universe_id that `method` accepts; all
// three for a method with **kwargs or one whose signature cannot be inspected.
py::dict method_transform_context_kwargs(py::handle method, py::handle metaparameters,
                                         py::handle transform_pipeline, py::handle universe_id);
// backtester.<method_name>(expr_graph, **accepted keywords), retried once with the graph alone when
// the method rejects one of those keywords as unexpected. Runs with no lock of ours held.
py::object call_backtester_with_transform_context(py::handle backtester, py::handle method_name,
                                                  py::handle expr_graph, py::handle metaparameters,
                                                  py::handle transform_pipeline, py::handle universe_id);

}  // namespace quillmarsh::st

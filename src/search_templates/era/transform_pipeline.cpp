#include "era/transform_pipeline.hpp"

#include "common/host_runtime.hpp"
#include "common/py_helpers.hpp"
#include "era/era_config.hpp"

namespace quillmarsh::st {

namespace {

[[noreturn]] void raise_not_ready(const char* message) {
    raise_new(sdk_runtime_not_ready_error_type(), py::make_tuple(message));
}

// The resolver step: per pool when any stage's default depends on the pool, else for the era.
py::object resolve_metaparameters(const py::list& pipeline, py::handle signal_pool_id) {
    if (pipeline_has_per_pool_default(pipeline)) {
        if (!truthy(signal_pool_id)) {
            PyErr_SetString(PyExc_ValueError, "per-pool transform defaults require a signal pool id");
            throw py::error_already_set();
        }
        py::list pool_ids;
        pool_ids.append(signal_pool_id);
        py::object per_pool = bound_sibling("_resolve_metaparameters_per_pool")(py::none(), pipeline, pool_ids);
        py::object canonical = bound_sibling("_canonicalize_metaparameters")(per_pool);
        return canonical.attr("get")(signal_pool_id, py::dict());
    }
    return bound_sibling("_resolve_metaparameters")(py::none(), pipeline);
}

}  // namespace

py::list era_transform_pipeline_config(py::handle era_config) {
    py::object pipeline = era_config_field(era_config, ST_NAME("transform_pipeline_config"));
    if (pipeline.is_none()) pipeline = key_or_attr(era_config_raw_dict(era_config), ST_NAME("transform_pipeline"));
    if (pipeline.is_none()) pipeline = era_config_field(era_config, ST_NAME("transform_pipeline"));
    if (is_list(pipeline)) return new_list(pipeline);
    return py::list();
}

py::object stage_value(py::handle stage, py::handle name, py::object dflt) {
    return key_or_attr(stage, name, std::move(dflt));
}

bool stage_has_default_contract(py::handle stage) {
    if (is_dict(stage)) {
        return !key_or_attr(stage, ST_NAME("name")).is_none() && py_contains(stage, ST_NAME("options")) &&
               py_contains(stage, ST_NAME("default"));
    }
    return !attr_or(stage, ST_NAME("name")).is_none() && has_attr(stage, "options") && has_attr(stage, "default");
}

bool pipeline_has_per_pool_default(py::handle transform_pipeline) {
    for (py::handle stage : transform_pipeline)
        if (truthy(stage_value(stage, ST_NAME("per_pool_default")))) return true;
    return false;
}

py::dict resolve_search_metaparameters_from_era_config(py::handle era_config, py::handle signal_pool_id) {
    py::list pipeline = era_transform_pipeline_config(era_config);
    if (pipeline.empty()) raise_not_ready("search era config missing transform_pipeline");
    for (py::handle stage : pipeline)
        if (!stage_has_default_contract(stage))
            raise_not_ready("search era transform_pipeline must include name, options, and default for every stage");

    py::object resolved;
    try {
        resolved = resolve_metaparameters(pipeline, signal_pool_id);
    } catch (py::error_already_set& e) {
        if (!error_matches(e, PyExc_Exception)) throw;
        raise_from(sdk_runtime_not_ready_error_type()("failed to resolve search metaparameters from era config"),
                   e.value());
    }

    py::dict out;
    for (py::handle item : resolved.attr("items")()) out[py::str(item[py::int_(0)])] = item[py::int_(1)];

    // The era's default for normalization gives way whenever "rescale" is on offer.
    for (py::handle stage : pipeline) {
        py::object name = stage_value(stage, ST_NAME("name"));
        if (!truthy(name) || !py_equal(py::str(name), py::str("normalization"))) continue;
        py::object options = stage_value(stage, ST_NAME("options"));
        py::set offered;
        if (truthy(options))
            for (py::handle option : options) offered.add(py::str(option));
        if (offered.contains(py::str("rescale"))) out["normalization"] = py::str("rescale");
    }
    return out;
}

namespace {

constexpr const char* kContextKeywords[] = {"metaparameters", "transform_pipeline", "universe_id"};

// Which of the context keywords `method` accepts, as bits in the order of kContextKeywords.
long accepted_keyword_bits(py::handle method) {
    py::object inspect = import_module("inspect");
    py::object signature;
    try {
        signature = inspect.attr("signature")(method);
    } catch (py::error_already_set& e) {
        if (error_matches(e, PyExc_TypeError) || error_matches(e, PyExc_ValueError)) return 0b111;
        throw;
    }
    py::object parameters = signature.attr("parameters");
    py::object var_keyword = inspect.attr("Parameter").attr("VAR_KEYWORD");
    for (py::handle parameter : parameters.attr("values")())
        if (py_equal(parameter.attr("kind"), var_keyword)) return 0b111;
    long bits = 0;
    for (int i = 0; i < 3; ++i)
        if (py_contains(parameters, py::str(kContextKeywords[i]))) bits |= 1L << i;
    return bits;
}

// The signature of a Python function, and of a method bound to it, is fixed by the function object, so the
// answer is kept per function: a worker calls the same two backtester methods for every expression, and
// inspect.signature costs more than the rest of the call. Other callables are inspected every time.
long cached_keyword_bits(py::handle method) {
    PyObject* key = nullptr;
    if (PyMethod_Check(method.ptr())) key = PyMethod_GET_FUNCTION(method.ptr());
    else if (PyFunction_Check(method.ptr())) key = method.ptr();
    if (key == nullptr || !PyFunction_Check(key)) return accepted_keyword_bits(method);

    static PyObject* cache = PyDict_New();
    PyObject* hit = PyDict_GetItemWithError(cache, key);
    if (hit != nullptr) return PyLong_AsLong(hit);
    if (PyErr_Occurred()) throw py::error_already_set();
    long bits = accepted_keyword_bits(method);
    if (PyDict_Size(cache) >= 1024) PyDict_Clear(cache);  // bounded: one entry per backtester method
    if (PyDict_SetItem(cache, key, py::int_(bits).ptr()) < 0) throw py::error_already_set();
    return bits;
}

}  // namespace

py::dict method_transform_context_kwargs(py::handle method, py::handle metaparameters,
                                         py::handle transform_pipeline, py::handle universe_id) {
    const py::handle values[] = {metaparameters, transform_pipeline, universe_id};
    long bits = cached_keyword_bits(method);
    py::dict accepted;
    for (int i = 0; i < 3; ++i)
        if (bits & (1L << i)) dict_set(accepted, kContextKeywords[i], values[i]);
    return accepted;
}

py::object call_backtester_with_transform_context(py::handle backtester, py::handle method_name,
                                                  py::handle expr_graph, py::handle metaparameters,
                                                  py::handle transform_pipeline, py::handle universe_id) {
    py::object method = backtester.attr(method_name);
    py::dict kwargs = method_transform_context_kwargs(method, metaparameters, transform_pipeline, universe_id);
    if (kwargs.empty()) return method(expr_graph);
    try {
        return call_kw(method, {expr_graph}, kwargs);
    } catch (py::error_already_set& e) {
        if (!error_matches(e, PyExc_TypeError)) throw;
        std::string text = str(e.value());
        if (text.find("unexpected keyword argument") == std::string::npos) throw;
        bool names_ours = false;
        for (auto item : kwargs)
            if (text.find(item.first.cast<std::string>()) != std::string::npos) names_ours = true;
        if (!names_ours) throw;
    }
    // The signature promised more than the method takes: once more with the graph alone.
    return method(expr_graph);
}

}  // namespace quillmarsh::st

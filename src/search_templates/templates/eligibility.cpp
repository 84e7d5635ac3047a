#include "templates/eligibility.hpp"

#include "common/py_helpers.hpp"
#include "templates/node_budget.hpp"
#include "templates/param_synthesis.hpp"

namespace quillmarsh::st {

namespace {

const char* const NO_REGISTRY_ENTRY = "SDK runtime registry has no entry for function";
const char* const NO_FACTORY = "no SDK-local factory metadata";
const char* const ENGINE_ONLY = "engine_only runtime transform";

// An ordinary exception (not a KeyboardInterrupt or SystemExit) raised by foreign registry code.
bool is_ordinary_exception(const py::error_already_set& err) { return error_matches(err, PyExc_Exception); }

bool is_rotation(py::handle function_type) { return py_equal(function_type, py::str("rotation")); }

}  // namespace

py::object random_weighted_runtime_registry(py::handle ctx) {
    try {
        py::object backtester = attr_or(ctx, "_backtester");
        if (backtester.is_none()) return py::none();
        return attr_or(backtester, "registry");
    } catch (py::error_already_set& err) {
        if (!is_ordinary_exception(err)) throw;
        return py::none();
    }
}

py::object random_weighted_registry_function_metadata(py::handle fn, py::handle registry) {
    py::object original = py::reinterpret_borrow<py::object>(fn);
    if (registry.is_none() || !is_dict(fn)) return original;
    py::object name = map_get(fn, "name");
    if (!is_nonempty_str(name)) return original;
    py::object has = callable_attr(registry, "has");
    py::object get_entry = callable_attr(registry, "get_entry");
    if (has.is_none() || get_entry.is_none()) return original;
    py::object entry;
    try {
        if (!truthy(has(name))) return original;
        entry = get_entry(name);
    } catch (py::error_already_set& err) {
        if (!is_ordinary_exception(err)) throw;
        return original;
    }
    py::dict merged = py::reinterpret_steal<py::dict>(PyDict_Copy(fn.ptr()));
    if (!merged) throw py::error_already_set();
    static const std::pair<const char*, const char*> fields[] = {
        {"function_type", "function_type"}, {"family", "function_family"}, {"subfamily", "function_subfamily"},
        {"param_schema", "param_schema"},   {"stateful", "stateful"},      {"arity", "arity"},
        {"engine_only", "engine_only"}};
    for (const auto& [attr, key] : fields) {
        py::object value = attr_or(entry, attr);
        if (!value.is_none()) merged[key] = value;
    }
    return merged;
}

py::object random_weighted_registry_safety_reason(py::handle name, py::handle registry) {
    if (registry.is_none()) return py::none();
    if (!callable_attr(registry, "get_class").is_none()) return py::none();  // resolves classes by itself
    py::object has = callable_attr(registry, "has");
    py::object get_entry = callable_attr(registry, "get_entry");
    if (has.is_none() || get_entry.is_none()) return py::none();  // a registry of unknown shape objects to nothing
    py::object entry;
    try {
        if (!truthy(has(name))) return py::str(NO_REGISTRY_ENTRY);
        entry = get_entry(name);
    } catch (py::error_already_set& err) {
        if (!is_ordinary_exception(err)) throw;
        return py::str(NO_REGISTRY_ENTRY);
    }
    if (!attr_or(entry, "factory").is_none()) return py::none();
    bool has_module_path = truthy(attr_or(entry, "module_path", py::str("")));
    bool has_class_name = truthy(attr_or(entry, "class_name", py::str("")));
    if (has_module_path && has_class_name) return py::none();
    return py::str(NO_FACTORY);
}

std::string random_weighted_unsafe_function_reason(py::handle function_type, py::handle schema_reason) {
    if (!is_rotation(function_type))
        return "function_type=" + printable(function_type) +
               " is not a SIGNAL-safe rotation; random_weighted can only synthesize SIGNAL expression graphs from "
               "rotations";
    if (is_nonempty_str(schema_reason)) return schema_reason.cast<std::string>();
    return "unsupported rotation metadata for SIGNAL-safe random_weighted generation";
}

py::tuple random_weighted_function_safety(py::handle functions, bool log_reasons, py::handle window_limit,
                                          py::handle node_limit, py::handle registry) {
    py::list safe;
    py::dict unsafe;
    if (!is_list(functions)) {
        if (log_reasons) log_info("random_weighted excluded function vocabulary: functions must be a list");
        return py::make_tuple(safe, unsafe);
    }
    const char* excluded = "random_weighted excluded %s from SIGNAL generation: %s";
    for (py::handle entry : py::reinterpret_borrow<py::list>(functions)) {
        if (!is_dict(entry)) {
            if (log_reasons) log_info("random_weighted excluded function entry: expected dict metadata");
            continue;
        }
        py::object name = map_get(entry, "name");
        if (!is_nonempty_str(name)) {
            if (log_reasons) log_info("random_weighted excluded function with missing name from SIGNAL generation");
            continue;
        }
        py::object fn = random_weighted_registry_function_metadata(entry, registry);
        py::object function_type = map_get(fn, "function_type");
        if (!is_rotation(function_type)) {
            if (log_reasons)
                log_info("random_weighted excluded %s from SIGNAL generation: function_type=%r is not rotation", name,
                         function_type);
            unsafe[name] = random_weighted_unsafe_function_reason(function_type, py::none());
            continue;
        }
        if (truthy(map_get(fn, "engine_only", py::bool_(false)))) {
            if (log_reasons) log_info("random_weighted excluded %s from SIGNAL generation: engine_only runtime transform", name);
            unsafe[name] = ENGINE_ONLY;
            continue;
        }
        py::object registry_reason = random_weighted_registry_safety_reason(name, registry);
        if (!registry_reason.is_none()) {
            if (log_reasons) log_info(excluded, name, registry_reason);
            unsafe[name] = registry_reason;
            continue;
        }
        py::dict schema = random_weighted_rotation_schema(fn, window_limit, node_limit);
        if (!truthy(map_get(schema, "safe", py::bool_(false)))) {
            py::object reason = map_get(schema, "reason", py::str("unsupported rotation metadata"));
            if (log_reasons) log_info(excluded, name, reason);
            unsafe[name] = random_weighted_unsafe_function_reason(function_type, reason);
            continue;
        }
        py::dict record;
        record["name"] = name;
        record["function_type"] = "rotation";
        record["function_family"] = map_get(fn, "function_family", py::str(""));
        record["function_subfamily"] = map_get(fn, "function_subfamily", py::str(""));
        record["stateful"] = truthy(map_get(fn, "stateful", py::bool_(false)));
        record["data_params"] = schema["data_params"];
        record["config_children"] = schema["config_children"];
        safe.append(record);
    }
    return py::make_tuple(safe, unsafe);
}

py::list random_weighted_safe_rotations(py::handle functions, py::handle window_limit, py::handle node_limit,
                                        py::handle registry) {
    return random_weighted_function_safety(functions, true, window_limit, node_limit, registry)[0];
}

}  // namespace quillmarsh::st

#include "era/era_config.hpp"

#include "common/host_runtime.hpp"
#include "common/py_helpers.hpp"

namespace quillmarsh::st {

namespace {

bool is_nonempty_str(py::handle h) { return is_str(h) && PyUnicode_GET_LENGTH(h.ptr()) > 0; }
bool is_list_or_tuple(py::handle h) { return PyList_Check(h.ptr()) || PyTuple_Check(h.ptr()); }

// `first` of a dict or object, or `second` when `first` is falsy; missing ones count as None.
py::object first_truthy_field(py::handle entry, py::handle first, py::handle second) {
    py::object value = key_or_attr(entry, first);
    if (truthy(value)) return value;
    return key_or_attr(entry, second);
}

// The names of `candidates` whose rule id is in `rule_ids`, in candidate order, duplicates kept.
py::list names_with_rule_ids(const py::list& candidates, const py::set& rule_ids) {
    py::list names;
    for (py::handle pair : candidates) {
        py::handle rule_id = PyTuple_GET_ITEM(pair.ptr(), 1);
        if (!rule_id.is_none() && rule_ids.contains(rule_id)) names.append(PyTuple_GET_ITEM(pair.ptr(), 0));
    }
    return names;
}

}  // namespace

py::object era_config_lookup(py::handle era_config, py::handle name, py::object dflt) {
    if (era_config.is_none()) return dflt;
    return key_or_attr(era_config, name, std::move(dflt));
}

py::object era_config_raw_dict(py::handle era_config) {
    if (is_dict(era_config)) return py::reinterpret_borrow<py::object>(era_config);
    py::object data = attr_or(era_config, ST_NAME("_data"));
    if (is_dict(data)) return data;
    return py::dict();
}

py::object era_config_field(py::handle era_config, py::handle name, py::object dflt) {
    py::object value = era_config_lookup(era_config, name);
    if (!value.is_none()) return value;
    return key_or_attr(era_config_raw_dict(era_config), name, std::move(dflt));
}

py::object primary_evaluation_pnl_column(py::handle era_config) {
    py::object columns = era_config_lookup(era_config, ST_NAME("evaluation_pnl_columns"), py::make_tuple("gross_returns"));
    if (is_list_or_tuple(columns) && py::len(columns) > 0) {
        py::object first = columns[py::int_(0)];
        if (is_nonempty_str(first)) return first;
    }
    return py::str("gross_returns");
}

py::object pool_id_from_config_entry(py::handle pool) {
    py::object value = first_truthy_field(pool, ST_NAME("signal_pool_id"), ST_NAME("name"));
    return is_nonempty_str(value) ? value : py::none();
}

py::object pool_field(py::handle pool, py::handle name, py::object dflt) {
    return key_or_attr(pool, name, std::move(dflt));
}

py::list signal_pools_from_era_config(py::handle era_config) {
    py::object pools = era_config_field(era_config, ST_NAME("signal_pools"));
    if (is_list_or_tuple(pools)) return new_list(pools);
    return py::list();
}

py::object first_signal_pool_id_from_era_config(py::handle era_config) {
    py::object selected = era_config_lookup(era_config, ST_NAME("signal_pool_id"));
    if (is_nonempty_str(selected)) return selected;

    // Unlike signal_pools_from_era_config, an empty attribute list gives way to the raw map.
    py::object pools;
    if (is_dict(era_config)) {
        pools = key_or_attr(era_config, ST_NAME("signal_pools"));
    } else if (!era_config.is_none()) {
        pools = attr_or(era_config, ST_NAME("signal_pools"));
        if (!(is_list_or_tuple(pools) && py::len(pools) > 0)) {
            py::object data = attr_or(era_config, ST_NAME("_data"));
            if (is_dict(data)) pools = key_or_attr(data, ST_NAME("signal_pools"));
        }
    }
    if (!pools || !is_list_or_tuple(pools)) return py::none();
    for (py::handle pool : pools) {
        py::object pool_id = pool_id_from_config_entry(pool);
        if (!pool_id.is_none()) return pool_id;
    }
    return py::none();
}

py::object selected_signal_pool_from_era_config(py::handle era_config, py::handle signal_pool_id) {
    py::list pools = signal_pools_from_era_config(era_config);
    if (pools.empty()) return py::none();
    if (truthy(signal_pool_id)) {
        for (py::handle pool : pools)
            if (py_equal(pool_id_from_config_entry(pool), signal_pool_id)) return py::reinterpret_borrow<py::object>(pool);
    }
    return pools[0];
}

py::object coerce_search_rule_id(py::handle value) {
    PyObject* converted = PyNumber_Long(value.ptr());  // int(value)
    if (converted == nullptr) {
        if (PyErr_ExceptionMatches(PyExc_TypeError) || PyErr_ExceptionMatches(PyExc_ValueError)) {
            PyErr_Clear();
            return py::none();
        }
        throw py::error_already_set();
    }
    py::object rule_id = py::reinterpret_steal<py::object>(converted);
    if (rule_id < py::int_(0)) return py::none();
    return rule_id;
}

py::object search_rule_id_from_universe_entry(py::handle entry) {
    // A truth test: a rule_id of 0 gives way to universe_rule_id.
    return coerce_search_rule_id(first_truthy_field(entry, ST_NAME("rule_id"), ST_NAME("universe_rule_id")));
}

py::list search_universe_candidates_from_era_config(py::handle era_config) {
    py::object raw = era_config_raw_dict(era_config);
    py::list candidates;
    auto add = [&candidates](py::handle name, py::handle rule_id) {
        if (!is_nonempty_str(name) || py_equal(py::str(name), py::str("default"))) return;
        py::tuple pair = py::make_tuple(name, coerce_search_rule_id(rule_id));
        if (!py_contains(candidates, pair)) candidates.append(pair);
    };

    py::object universes = era_config_field(era_config, ST_NAME("universes"));
    if (is_dict(universes)) {
        for (auto item : py::reinterpret_borrow<py::dict>(universes))
            add(py::str(item.first), search_rule_id_from_universe_entry(item.second));
    } else if (is_list(universes)) {
        for (py::handle entry : universes) {
            if (!is_dict(entry)) continue;
            add(first_truthy_field(entry, ST_NAME("id"), ST_NAME("name")), search_rule_id_from_universe_entry(entry));
        }
    }

    py::object rules = key_or_attr(raw, ST_NAME("universe_rules"));
    if (rules.is_none()) rules = era_config_field(era_config, ST_NAME("universe_rules"));
    if (is_dict(rules)) {
        for (auto item : py::reinterpret_borrow<py::dict>(rules))
            add(py::str(item.first), search_rule_id_from_universe_entry(item.second));
    }
    return candidates;
}

// The ladder; the first rung with an answer ends it:
//   1. valid_universe_id, 2. universe_id (non-empty strings, `_data` consulted);
//   3-4. the one candidate whose rule id is among allowed_universes;
//   5. the one candidate whose rule id is among those of era_universes;
//   6. the lone candidate, whatever its rule id;
//   7. the caller's configured id: what the era says wins over what the user configured.
py::object derive_search_universe_id(py::handle era_config, py::handle configured_valid_universe_id) {
    for (py::handle name : {ST_NAME("valid_universe_id"), ST_NAME("universe_id")}) {
        py::object direct = era_config_field(era_config, name);
        if (is_nonempty_str(direct)) return direct;
    }

    py::list candidates = search_universe_candidates_from_era_config(era_config);

    py::object allowed = era_config_field(era_config, ST_NAME("allowed_universes"), py::list());
    py::set allowed_ids;
    if (is_list(allowed)) {
        for (py::handle value : allowed) {
            py::object rule_id = coerce_search_rule_id(value);
            if (!rule_id.is_none()) allowed_ids.add(rule_id);
        }
    }
    if (!allowed_ids.empty()) {
        py::list names = names_with_rule_ids(candidates, allowed_ids);
        if (names.size() == 1) return names[0];
    }

    py::object era_universes = era_config_field(era_config, ST_NAME("era_universes"), py::list());
    if (is_list(era_universes) && py::len(era_universes) > 0) {
        py::set era_ids;
        for (py::handle entry : era_universes) {
            py::object rule_id = search_rule_id_from_universe_entry(entry);
            if (!rule_id.is_none()) era_ids.add(rule_id);
        }
        py::list names = names_with_rule_ids(candidates, era_ids);
        if (names.size() == 1) return names[0];
    }

    if (candidates.size() == 1) return py::reinterpret_borrow<py::object>(PyTuple_GET_ITEM(candidates[0].ptr(), 0));
    if (is_nonempty_str(configured_valid_universe_id))
        return py::reinterpret_borrow<py::object>(configured_valid_universe_id);
    raise_new(sdk_runtime_not_ready_error_type(), py::make_tuple("search era config does not define a universe id"));
}

}  // namespace quillmarsh::st

// Tolerant access to an era configuration.
//
// An era configuration arrives in one of three shapes and every accessor here takes all three:
//   * None: no configuration; every lookup yields its default;
//   * a dict: fields are its keys;
//   * an object: fields are its attributes, optionally with `_data`, the raw dict it was built from.
// The accessors never fail on a missing or ill-typed field; they return a default and leave the
// decision to the caller. Whether a lookup also consults `_data` differs from accessor to accessor and
// is part of each one's contract. Only `derive_search_universe_id` raises, because a search cannot go
// on without a universe.
//
// All functions read their arguments only and hold no state; they expect the GIL to be held.
#pragma once

#include <pybind11/pybind11.h>

namespace quillmarsh::st {

namespace py = pybind11;

// One field, never looking in `_data`. A present field holding None yields None, not `dflt`.
py::object era_config_lookup(py::handle era_config, py::handle name, py::object dflt = py::none());
// The raw dict: a dict configuration itself (not a copy), else its `_data` if that is a dict, else {}.
py::object era_config_raw_dict(py::handle era_config);
// One field: the lookup first, then `_data` when the lookup gave None; `dflt` only after both.
py::object era_config_field(py::handle era_config, py::handle name, py::object dflt = py::none());
// The same two reads by a C string name (ST_NAME("x") is the cheaper spelling on hot paths).
inline py::object era_config_lookup(py::handle era_config, const char* name, py::object dflt = py::none()) {
    return era_config_lookup(era_config, py::str(name), std::move(dflt));
}
inline py::object era_config_field(py::handle era_config, const char* name, py::object dflt = py::none()) {
    return era_config_field(era_config, py::str(name), std::move(dflt));
}

// The first of `evaluation_pnl_columns` when it is a non-empty string, else "gross_returns".
py::object primary_evaluation_pnl_column(py::handle era_config);

// `signal_pool_id`, or `name` when that is falsy, of a pool entry; a non-empty string or None.
py::object pool_id_from_config_entry(py::handle pool);
// One field of a pool entry, from the key of a dict or the attribute of anything else.
py::object pool_field(py::handle pool, py::handle name, py::object dflt = py::none());
// A new list of the configuration's pool entries (empty unless `signal_pools` is a list or tuple).
py::list signal_pools_from_era_config(py::handle era_config);
// The pool a search works for: `signal_pool_id`, else the first identifiable pool, else None.
py::object first_signal_pool_id_from_era_config(py::handle era_config);
// The pool entry named `signal_pool_id`, the first pool when it names none, None without pools.
py::object selected_signal_pool_from_era_config(py::handle era_config, py::handle signal_pool_id);

// int(value) when that succeeds and is not negative, else None. OverflowError passes through.
py::object coerce_search_rule_id(py::handle value);
// The rule id of a universe entry: `rule_id`, or `universe_rule_id` when that is falsy, coerced.
py::object search_rule_id_from_universe_entry(py::handle entry);
// (name, rule id or None) pairs from `universes` and `universe_rules`, in discovery order, without
// duplicate pairs and never with the name "default".
py::list search_universe_candidates_from_era_config(py::handle era_config);
// The search universe of the era, by the ladder documented in era_config.cpp; raises
// SdkRuntimeNotReadyError when no rung gives an answer.
py::object derive_search_universe_id(py::handle era_config, py::handle configured_valid_universe_id);

}  // namespace quillmarsh::st

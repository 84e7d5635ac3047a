"""Era subsystem: the configuration accessors and vocabulary normalisation, against plain Python.

Each case runs the module's function and a plain Python function doing the same work on the same
input, and prints the time per call of both and their ratio (module / Python; below 1 is faster).
There is no target: these are the baseline figures to watch.
"""
import random
import timeit
from types import SimpleNamespace

import quillmarsh.search_templates as st

ROTATION_REQUIRED = frozenset({"name", "function_type", "function_family", "function_subfamily", "param_schema"})
FILTRATION_REQUIRED = frozenset({"name", "function_type", "function_family", "param_schema"})
FILTRATION_FORBIDDEN = frozenset({"function_subfamily"})
FEATURE_REQUIRED = frozenset({"name", "function_type", "feature_family", "feature_subfamily", "rotation_families",
                              "feature_hash", "stats"})
STATS_REQUIRED = frozenset({"mean", "std", "pct_nan", "min", "max"})
KINDS = {"rotation": (ROTATION_REQUIRED, frozenset()), "filtration": (FILTRATION_REQUIRED, FILTRATION_FORBIDDEN),
         "reduction": (ROTATION_REQUIRED, frozenset())}


# ---- the same work in plain Python ----------------------------------------------------------------

def py_lookup(cfg, name, default=None):
    if cfg is None:
        return default
    if isinstance(cfg, dict):
        return cfg.get(name, default)
    return getattr(cfg, name, default)


def py_raw(cfg):
    if isinstance(cfg, dict):
        return cfg
    data = getattr(cfg, "_data", None)
    return data if isinstance(data, dict) else {}


def py_field(cfg, name, default=None):
    value = py_lookup(cfg, name)
    if value is not None:
        return value
    return py_raw(cfg).get(name, default)


def py_primary(cfg):
    cols = py_lookup(cfg, "evaluation_pnl_columns", ("gross_returns",))
    if isinstance(cols, (list, tuple)) and cols and isinstance(cols[0], str) and cols[0]:
        return cols[0]
    return "gross_returns"


def py_pool_id(pool):
    if isinstance(pool, dict):
        value = pool.get("signal_pool_id") or pool.get("name")
    else:
        value = getattr(pool, "signal_pool_id", None) or getattr(pool, "name", None)
    return value if isinstance(value, str) and value else None


def py_first_pool(cfg):
    selected = py_lookup(cfg, "signal_pool_id")
    if isinstance(selected, str) and selected:
        return selected
    if isinstance(cfg, dict):
        pools = cfg.get("signal_pools")
    elif cfg is None:
        pools = None
    else:
        pools = getattr(cfg, "signal_pools", None)
        if not (isinstance(pools, (list, tuple)) and pools):
            data = getattr(cfg, "_data", None)
            if isinstance(data, dict):
                pools = data.get("signal_pools")
    if not isinstance(pools, (list, tuple)):
        return None
    for pool in pools:
        pool_id = py_pool_id(pool)
        if pool_id is not None:
            return pool_id
    return None


def py_coerce(value):
    try:
        result = int(value)
    except (TypeError, ValueError):
        return None
    return result if result >= 0 else None


def py_entry_rule(entry):
    if isinstance(entry, dict):
        value = entry.get("rule_id") or entry.get("universe_rule_id")
    else:
        value = getattr(entry, "rule_id", None) or getattr(entry, "universe_rule_id", None)
    return py_coerce(value)


def py_candidates(cfg):
    raw = py_raw(cfg)
    out = []

    def add(name, rule):
        if not isinstance(name, str) or not name or name == "default":
            return
        pair = (name, py_coerce(rule))
        if pair not in out:
            out.append(pair)

    universes = py_field(cfg, "universes")
    if isinstance(universes, dict):
        for key, value in universes.items():
            add(str(key), py_entry_rule(value))
    elif isinstance(universes, list):
        for entry in universes:
            if isinstance(entry, dict):
                add(entry.get("id") or entry.get("name"), py_entry_rule(entry))
    rules = raw.get("universe_rules")
    if rules is None:
        rules = py_field(cfg, "universe_rules")
    if isinstance(rules, dict):
        for key, value in rules.items():
            add(str(key), py_entry_rule(value))
    return out


def py_derive(cfg, configured=None):
    for name in ("valid_universe_id", "universe_id"):
        value = py_field(cfg, name)
        if isinstance(value, str) and value:
            return value
    candidates = py_candidates(cfg)
    allowed = py_field(cfg, "allowed_universes", [])
    ids = {r for r in (py_coerce(v) for v in allowed) if r is not None} if isinstance(allowed, list) else set()
    if ids:
        names = [n for n, r in candidates if r in ids]
        if len(names) == 1:
            return names[0]
    era = py_field(cfg, "era_universes", [])
    if isinstance(era, list) and era:
        ids = {r for r in (py_entry_rule(e) for e in era) if r is not None}
        names = [n for n, r in candidates if r in ids]
        if len(names) == 1:
            return names[0]
    if len(candidates) == 1:
        return candidates[0][0]
    if isinstance(configured, str) and configured:
        return configured
    raise RuntimeError("search era config does not define a universe id")


def py_flatten(node):
    if isinstance(node, list):
        return [dict(item) for item in node if isinstance(item, dict)]
    if isinstance(node, dict):
        out = []
        for value in node.values():
            out.extend(py_flatten(value))
        return out
    return []


def py_validate_function(entry, kind):
    required, forbidden = KINDS[kind]
    missing = required - entry.keys()
    unexpected = set(forbidden & entry.keys())
    if "function_type" in entry and entry["function_type"] != kind:
        unexpected.add("function_type")
    if missing or unexpected:
        raise ValueError(kind)


def py_validate_feature(entry):
    missing = set(FEATURE_REQUIRED - entry.keys())
    stats = entry.get("stats")
    if isinstance(stats, dict):
        missing |= {"stats." + k for k in STATS_REQUIRED - stats.keys()}
    elif "stats" in entry:
        missing |= {"stats." + k for k in STATS_REQUIRED}
    if missing or ("function_type" in entry and entry["function_type"] != "feature"):
        raise ValueError("feature")


def py_normalize(vocab):
    if not isinstance(vocab, dict):
        return {"functions": [], "features": []}
    normalized = dict(vocab)
    if not isinstance(normalized.get("functions"), list):
        functions = []
        for key, kind in (("rotations", "rotation"), ("filtrations", "filtration"), ("reductions", "reduction")):
            for entry in py_flatten(normalized.get(key, {})):
                py_validate_function(entry, kind)
                functions.append(entry)
        normalized["functions"] = functions
    if not isinstance(normalized.get("features"), list):
        features = py_flatten(normalized.get("features"))
        for entry in features:
            py_validate_feature(entry)
        normalized["features"] = features
    return normalized


# ---- inputs --------------------------------------------------------------------------------------

def realistic_vocabulary(rng, n_functions=240, n_features=160):
    """A nested vocabulary of a few hundred entries, grouped by family and subfamily."""
    schema = {"window": {"type": "int", "min": 2, "max": 250}, "decay": {"type": "float", "min": 0.0, "max": 1.0}}

    def grouped(kind, count, subfamily):
        groups = {}
        for i in range(count):
            entry = {"name": f"{kind}_{i}", "function_type": kind, "function_family": f"fam{i % 6}",
                     "param_schema": schema, "arity": 1 + i % 2, "engine_only": False, "stateful": i % 5 == 0}
            if subfamily:
                entry["function_subfamily"] = f"sub{i % 4}"
            groups.setdefault(f"fam{i % 6}", {}).setdefault(f"sub{i % 4}", []).append(entry)
        return groups

    features = {}
    for i in range(n_features):
        features.setdefault(f"family{i % 8}", []).append({
            "name": f"feat_{i}", "function_type": "feature", "feature_family": f"family{i % 8}",
            "feature_subfamily": f"sub{i % 3}", "rotation_families": ["fam0", "fam1"], "feature_hash": f"{i:032x}",
            "stats": {"mean": rng.random(), "std": 1.0, "pct_nan": 0.01, "min": -3.0, "max": 3.0}})
    third = n_functions // 3
    return {"rotations": grouped("rotation", third, True), "filtrations": grouped("filtration", third, False),
            "reductions": grouped("reduction", third, True), "features": features, "era_id": 12}


def era_configs():
    fields = {
        "era_id": 12,
        "evaluation_pnl_columns": ["net_returns", "gross_returns"],
        "signal_pools": [{"signal_pool_id": f"pool{i}", "mi_pnl_column": "net_returns"} for i in range(8)],
        "universes": {f"u{i}": {"rule_id": i} for i in range(12)},
        "universe_rules": {"default": {"rule_id": 0}, "u3": {"rule_id": 3}},
        "allowed_universes": [3],
        "thresholds": {"sharpe_min": 1.0},
    }
    obj = SimpleNamespace(signal_pools=[], evaluation_pnl_columns=fields["evaluation_pnl_columns"],
                          valid_universe_id=None, _data=dict(fields))
    return {"map": fields, "object": obj}


# ---- the run -------------------------------------------------------------------------------------

def per_call(fn, number):
    return min(timeit.repeat(fn, number=number, repeat=5)) / number


def compare(label, ours, theirs, number):
    assert ours() == theirs(), label  # the same work, the same answer
    t_ours, t_py = per_call(ours, number), per_call(theirs, number)
    print(f"{label:<46} {t_ours * 1e6:10.2f} us {t_py * 1e6:10.2f} us {t_ours / t_py:8.2f}")


def main():
    rng = random.Random(7)
    vocab = realistic_vocabulary(rng)
    print(f"{'case':<46} {'module':>13} {'python':>13} {'ratio':>8}")
    for shape, cfg in era_configs().items():
        compare(f"_era_config_field ({shape})", lambda: st._era_config_field(cfg, "thresholds"),
                lambda: py_field(cfg, "thresholds"), 200_000)
        compare(f"_primary_evaluation_pnl_column ({shape})", lambda: st._primary_evaluation_pnl_column(cfg),
                lambda: py_primary(cfg), 200_000)
        compare(f"_first_signal_pool_id_from_era_config ({shape})",
                lambda: st._first_signal_pool_id_from_era_config(cfg), lambda: py_first_pool(cfg), 200_000)
        compare(f"_derive_search_universe_id ({shape})", lambda: st._derive_search_universe_id(cfg),
                lambda: py_derive(cfg), 20_000)
    n_entries = sum(len(e) for e in [py_normalize(vocab)["functions"], py_normalize(vocab)["features"]])
    compare(f"_normalize_template_vocabulary ({n_entries} entries)",
            lambda: st._normalize_template_vocabulary(vocab), lambda: py_normalize(vocab), 300)


if __name__ == "__main__":
    main()

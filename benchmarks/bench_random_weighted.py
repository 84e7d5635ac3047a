"""Graphs per second drawn from random_weighted, against a plain-Python generator that follows the same rules.

The vocabulary has 60 rotations (one or two data inputs, zero to two configuration values) and 200 features;
the analytics object carries rows for a third of the names, so the weights are not uniform. The era allows
1000 nodes, so that depth 6 is reachable (with 2 data inputs and 2 configuration values the worst tree of
depth 6 has 125 nodes, above the default budget of 100). Both generators are drawn for the same wall time at
each depth, in alternating rounds; the mean node count per graph is printed as a check that both draw the same distribution.

Run: .venv/bin/python benchmarks/bench_random_weighted.py
"""

from __future__ import annotations

import bisect
import random
import time
from types import SimpleNamespace

import quillmarsh.search_templates as st
from quillmarsh.search_analytics import AnalyticsRow, AnalyticsWindow, SearchStatsResult

SECONDS_PER_RUN = 1.0
ROUNDS = 3  # the two generators take turns; the best round of each counts, the machine being shared
CONFIG_PARAMS = [{"type": "int", "min": 2, "max": 40}, {"type": "float", "default": 0.25},
                 {"type": "string", "choices": ["fast", "slow"]}]


def vocabulary():
    functions = []
    for i in range(60):
        schema = ["data"] * (1 + i % 2) + [dict(CONFIG_PARAMS[(i + k) % 3]) for k in range(i % 3)]
        functions.append({"name": "rot_%02d" % i, "function_type": "rotation", "function_family": "fam%d" % (i % 4),
                          "param_schema": schema})
    features = [{"name": "feat_%03d" % i, "feature_family": "px"} for i in range(200)]
    return {"functions": functions, "features": features}


def analytics(vocab):
    rows = []
    for i, fn in enumerate(vocab["functions"][::3]):
        feats = [vocab["features"][(7 * i + k) % 200]["name"] for k in range(3)]
        rate = (i % 7) / 3.0 - 1.0
        rows.append(AnalyticsRow(([fn["name"]], feats), [AnalyticsWindow("all", rate, 10 + i, 0)], 10 + i))
    return SearchStatsResult(total_evaluations=sum(r.evaluation_count for r in rows), rows=rows)


# ---- the plain-Python generator -----------------------------------------------------------------------

def _config_leaf(param):
    """The synthesized value of the benchmark's three kinds of configuration parameter."""
    if param["type"] == "int":
        return {"type": "int", "node": round((param["min"] + param["max"]) / 2.0)}
    if param["type"] == "float":
        return {"type": "float", "node": float(param["default"])}
    return {"type": "string", "node": param["choices"][0]}


def _yield_maps(stats):
    functions, features = {}, {}
    for target, index in ((functions, 0), (features, 1)):
        totals = {}
        for row in stats.rows:
            window = row.windows[0]
            weight = float(max(row.evaluation_count, 1))
            rate = min(max(float(window.yield_rate), -1.0), 1000.0)
            for name in row.group_key[index]:
                total = totals.setdefault(name, [0.0, 0.0])
                total[0] += rate * weight
                total[1] += weight
        target.update((name, y / w) for name, (y, w) in totals.items())
    return functions, features


def _cum_weights(names, yields):
    cum, total = [], 0.0
    for name in names:
        total += max(1.0 + yields.get(name, 0.0), 0.0)
        cum.append(total)
    return cum if total > 0.0 else [float(i + 1) for i in range(len(names))]


def _weighted_choice(items, cum):
    i = bisect.bisect_left(cum, random.random() * cum[-1])
    return items[i] if i < len(items) else items[-1]


def _build(func_names, func_specs, fw, feat_names, few, depth):
    if depth <= 1:
        return {"type": "feature", "node": _weighted_choice(feat_names, few)}
    func = _weighted_choice(func_names, fw)
    data_count, config = func_specs[func]
    children = [_build(func_names, func_specs, fw, feat_names, few, depth - 1) for _ in range(data_count)]
    children.extend(dict(leaf) for leaf in config)
    return {"type": "rotation", "node": func, "children": children}


def python_random_weighted(ctx, effective_max_depth):
    """Rotations over features, full trees, weights rebuilt when the analytics object changes."""
    vocab = ctx.vocabulary
    func_names, func_specs = [], {}
    for fn in vocab["functions"]:
        schema = fn["param_schema"]
        data = sum(1 for p in schema if p == "data")
        func_specs[fn["name"]] = (data, [_config_leaf(p) for p in schema if p != "data"])
        func_names.append(fn["name"])
    feat_names = [f["name"] for f in vocab["features"]]
    cached_id, fw, few = None, None, None
    while True:
        depth = random.randint(2, effective_max_depth)
        stats = ctx.analytics
        if id(stats) != cached_id:
            fy, fey = _yield_maps(stats)
            fw, few = _cum_weights(func_names, fy), _cum_weights(feat_names, fey)
            cached_id = id(stats)
        yield _build(func_names, func_specs, fw, feat_names, few, depth)


# ---- measurement --------------------------------------------------------------------------------------

def _count_nodes(node):
    return 1 + sum(_count_nodes(c) for c in node.get("children", ()))


def measure(gen):
    next(gen)  # preparation is not part of the rate
    drawn, nodes, sample = 0, 0, 0
    deadline = time.perf_counter() + SECONDS_PER_RUN
    start = time.perf_counter()
    while True:
        for _ in range(200):
            graph = next(gen)
            if sample < 2000:
                nodes += _count_nodes(graph)
                sample += 1
        drawn += 200
        now = time.perf_counter()
        if now >= deadline:
            break
    return drawn / (now - start), nodes / max(sample, 1)


def main():
    vocab = vocabulary()
    stats = analytics(vocab)
    era = SimpleNamespace(max_node_count=1000)
    print("random_weighted: %d rotations, %d features, %d analytics rows, node budget %d"
          % (len(vocab["functions"]), len(vocab["features"]), len(stats.rows), era.max_node_count))
    for max_depth in (4, 6):
        ctx = SimpleNamespace(vocabulary=vocab, max_depth=max_depth, analytics=stats, era_config=era)
        native_rate = python_rate = 0.0
        for _ in range(ROUNDS):
            random.seed(1)
            rate, native_nodes = measure(st.random_weighted(ctx))
            native_rate = max(native_rate, rate)
            random.seed(1)
            rate, python_nodes = measure(python_random_weighted(ctx, max_depth))
            python_rate = max(python_rate, rate)
        print("max_depth %d: random_weighted %9.0f graphs/s (%.1f nodes/graph) | plain Python %9.0f graphs/s "
              "(%.1f nodes/graph) | ratio %.1fx"
              % (max_depth, native_rate, native_nodes, python_rate, python_nodes, native_rate / python_rate))


if __name__ == "__main__":
    main()

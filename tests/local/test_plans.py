"""Whole-graph plans against the operator-by-operator path, the native book statistics against NumPy's, and
the subtree cache: keys, bounds, read-only panels and one computation for threads that ask at once."""
import copy
import math
import random
import threading

import numpy as np
import pytest

from quillmarsh.local import _evaluator as ev
from quillmarsh.local.era import LocalEraConfig, local_era_map
from quillmarsh.local.evaluator import LocalEvaluator, _era_pool
from quillmarsh.local.market import generate_market
from quillmarsh.local.vocabulary import FEATURE_RECIPES, FUNCTIONS

PANEL = 30 * 37 * 8  # bytes of one panel of the small market below


def small_evaluator(cache_bytes=512 << 20, seed=3):
    # 30 days (shorter than the longest windows) of 37 instruments (no whole number of blocks or lanes).
    e = LocalEvaluator(generate_market(n_instruments=37, n_days=30, seed=seed), seed=seed,
                       era=LocalEraConfig(local_era_map(max_node_count=200)), cache_bytes=cache_bytes)
    rng = np.random.default_rng(seed)
    shape = e.market.shape
    odd = {  # inputs the market does not produce by itself
        "alt_0": np.where(rng.random(shape) < 0.7, np.nan, rng.standard_normal(shape)),   # mostly missing
        "alt_1": np.full(shape, 3.25),                                                    # constant
        "alt_2": np.where(rng.random(shape) < 0.3, 0.0, rng.standard_normal(shape) * 1e6),  # zeros, large
        "alt_3": np.round(rng.standard_normal(shape), 1),                                  # many ties
    }
    odd["alt_4"] = odd["alt_3"].copy()
    odd["alt_4"][:, 5] = np.nan  # an instrument never observed
    odd["alt_4"][7] = np.nan      # a day with nothing
    for name, panel in odd.items():
        assert name in FEATURE_RECIPES
        panel.setflags(write=False)
        e._features[name] = panel
    return e


def random_graph(rng, e, depth):
    features = sorted(e.vocabulary.feature_to_canonical)
    if depth <= 1 or rng.random() < 0.15:
        return {"type": "feature", "node": rng.choice(features)}
    info = rng.choice(list(FUNCTIONS.values()))
    children = [random_graph(rng, e, depth - 1) for _ in info.data_inputs]
    for name, typ, default, lo, hi in info.config:
        if rng.random() < 0.5:
            value = rng.choice([lo, hi, default, int(lo + (hi - lo) * rng.random())] if typ == "int"
                               else [lo, hi, default, lo + (hi - lo) * rng.random()])
            children.append({"node": value, "type": typ})  # keys in another order than usual
        else:
            break
    return {"type": info.kind, "node": info.name, "children": children}


def per_node(e):
    """A twin of `e` on the operator-by-operator path, over the same features."""
    twin = LocalEvaluator(copy.deepcopy(e.market), seed=e.seed, era=e.era, cache_bytes=0)
    twin._per_node = True
    twin._features = e._features
    return twin


@pytest.fixture(scope="module")
def evaluator():
    return small_evaluator()


@pytest.mark.parametrize("block", [0, 1, 5, 16])
def test_plans_give_the_bits_of_the_per_operator_path(evaluator, block):
    reference = per_node(evaluator)
    rng = random.Random(block)
    default, evaluator._engine.block = evaluator._engine.block, block
    kinds = set()
    try:
        for _ in range(120):
            graph = random_graph(rng, evaluator, rng.randint(2, 5))
            expected = reference._eval(graph)
            got = evaluator.evaluate_expression(graph)
            np.testing.assert_array_equal(got, expected, err_msg=str(graph))
            if graph["type"] != "feature":
                kinds.add(FUNCTIONS[graph["node"]].op)
    finally:
        evaluator._engine.block = default
    assert len(kinds) > 25  # the draws cover the operators


@pytest.mark.parametrize("meta", [None, {"normalization": "rank", "decay": 4, "truncation": 0.1},
                                  {"normalization": "none", "truncation": 0.0},
                                  {"normalization": "rescale", "decay": 2, "truncation": 0.03}])
def test_native_statistics_agree_with_numpy(meta):
    e = LocalEvaluator(generate_market(n_instruments=60, n_days=400, seed=9), seed=9)
    reference = per_node(e)
    rng = random.Random(str(meta))
    e.add_found_signal("s1", {"type": "rotation", "node": "cs_rank",
                              "children": [{"type": "feature", "node": e.feature_name("ret_5")}]})
    reference._pool_pnls = e._pool_pnls
    checked = 0
    while checked < 15:
        graph = random_graph(rng, e, 4)
        try:
            reference.evaluate_expression(graph)
        except ValueError:
            continue
        want = reference.run_backtest(graph, metaparameters=meta)
        e.evaluate_expression(graph)
        got = e.run_backtest(graph, metaparameters=meta)
        for name, value in vars(want).items():
            _close(getattr(got, name), value, name)
        pool = _era_pool(e.era)["signal_pool_id"]
        for column in ("gross_returns", "net_returns"):
            assert e.compute_mi_per_pool(pool, column, ["s1"], 0.0) == \
                pytest.approx(reference.compute_mi_per_pool(pool, column, ["s1"], 0.0), rel=1e-9, abs=1e-12)
        checked += 1


def _close(a, b, where):
    if isinstance(b, dict):
        assert a.keys() == b.keys(), where
        for k in b:
            _close(a[k], b[k], f"{where}.{k}")
    elif isinstance(b, list):
        np.testing.assert_allclose(a, b, rtol=1e-12, atol=1e-15, err_msg=where)
    elif isinstance(b, float):
        assert (math.isnan(a) and math.isnan(b)) or a == pytest.approx(b, rel=1e-12, abs=1e-13), where
    else:
        assert a == b, where


@pytest.mark.parametrize("n", list(range(0, 40)) + [127, 128, 129, 255, 256, 257, 1007, 1260])
def test_pairwise_sum_is_numpys_sum(n):
    x = np.random.default_rng(n).standard_normal(n) * 10.0 ** np.random.default_rng(n + 1).integers(-8, 8, n)
    assert ev.pairwise_sum(x) == float(x.sum())


# ----- the cache ----------------------------------------------------------------------------------------------
def feat(e, name):
    return {"type": "feature", "node": e.feature_name(name)}


def graph_of(e, window=20, name="ts_mean_20", feature="ret_5"):
    inner = {"type": "rotation", "node": name,
             "children": [feat(e, feature), {"type": "int", "node": window}]}
    return {"type": "rotation", "node": "cs_rank", "children": [inner]}


def reordered(node):
    if isinstance(node, dict):
        return {k: reordered(node[k]) for k in reversed(list(node))}
    if isinstance(node, list):
        return [reordered(c) for c in node]
    return node


def counts(e):
    info = e.cache_info()
    return info["hits"], info["misses"]


def test_reordered_keys_hit_and_another_configuration_value_misses():
    e = small_evaluator()
    first = e.evaluate_expression(graph_of(e))
    assert counts(e) == (0, 2) and e.cache_info()["entries"] == 0  # seen once: remembered, not kept
    second = e.evaluate_expression(reordered(graph_of(e)))
    assert counts(e) == (0, 4) and e.cache_info()["entries"] == 2  # the signal and what cs_rank reads
    np.testing.assert_array_equal(first, second)
    again = e.evaluate_expression(reordered(graph_of(e)))
    assert counts(e) == (1, 4) and np.shares_memory(second, again)
    for _ in range(2):
        e.evaluate_expression(graph_of(e, window=21))
    assert counts(e) == (1, 8)
    # The same computation under another name is the same subtree: ts_mean_5 with a window of 20.
    e.evaluate_expression(graph_of(e, name="ts_mean_5"))
    assert counts(e) == (2, 8)
    assert e.cache_info()["hit_rate"] == pytest.approx(2 / 10)


def test_a_cached_panel_cannot_be_written():
    e = small_evaluator()
    for _ in range(3):
        signal = e.evaluate_expression(graph_of(e))
        assert not signal.flags.writeable
        with pytest.raises(ValueError):
            signal[0, 0] = 1.0
        with pytest.raises(ValueError):
            signal.setflags(write=True)
    off = small_evaluator(cache_bytes=0)
    assert off.evaluate_expression(graph_of(off)).flags.writeable
    assert counts(off) == (0, 0) and off.cache_info()["bytes"] == 0


@pytest.mark.parametrize("room", [0.5, 1, 3, 7])
def test_the_byte_bound_is_never_exceeded(room):
    e = small_evaluator(cache_bytes=int(room * PANEL))
    reference = per_node(e)
    rng = random.Random(7)
    for graph in [random_graph(rng, e, 4) for _ in range(30)] * 2:  # the second time round they are kept
        np.testing.assert_array_equal(e.evaluate_expression(graph), reference._eval(graph))
        info = e.cache_info()
        assert info["bytes"] <= info["max_bytes"] and info["bytes"] == info["entries"] * PANEL
    assert e.cache_info()["evictions"] > 0 or room < 1


def test_least_recently_used_goes_first():
    e = small_evaluator(cache_bytes=2 * PANEL)
    a, b, c = ({"type": "rotation", "node": "ts_mean_20", "children": [feat(e, "ret_5"), {"type": "int", "node": w}]}
               for w in (10, 11, 12))  # one panel each: the signal
    for g in (a, a, b, b, a, c, c):  # a is used again before c is kept, so b is the one to go
        e.evaluate_expression(g)
    assert counts(e) == (1, 6)
    e.evaluate_expression(a)
    assert counts(e) == (2, 6)
    e.evaluate_expression(b)
    assert counts(e) == (2, 7)


def test_cleared_cache_recomputes_the_same_bits():
    e = small_evaluator()
    first = np.array(e.evaluate_expression(graph_of(e)))
    e.cache_clear()
    assert e.cache_info()["bytes"] == 0
    np.testing.assert_array_equal(e.evaluate_expression(graph_of(e)), first)
    assert counts(e) == (0, 4)


def test_two_threads_asking_for_one_subtree_get_one_computation():
    # A market large enough that the first thread is still computing when the second asks.
    e = LocalEvaluator(generate_market(n_instruments=400, n_days=1000, seed=2), seed=2)
    graph = {"type": "rotation", "node": "cs_zscore", "children": [
        {"type": "rotation", "node": "ts_rank_60", "children": [
            {"type": "rotation", "node": "ts_corr_60", "children": [feat(e, "ret_5"), feat(e, "ret_20")]}]}]}
    start, results, errors = threading.Barrier(2, timeout=30), [], []

    def work():
        try:
            start.wait()
            results.append(e.evaluate_expression(graph))
        except Exception as exc:  # noqa: BLE001 - reported below
            errors.append(exc)

    threads = [threading.Thread(target=work) for _ in range(2)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(60)
    assert not errors and len(results) == 2
    # One thread computed the three panels; the other waited for the signal, which it gets although a
    # panel seen for the first time is not kept.
    assert counts(e) == (1, 3) and e.cache_info()["entries"] == 0
    assert np.shares_memory(results[0], results[1])


def test_threads_on_many_graphs_agree_with_one_thread():
    e = small_evaluator(cache_bytes=6 * PANEL)
    reference = per_node(e)
    graphs = [random_graph(random.Random(i), e, 4) for i in range(40)] * 3
    want = [reference._eval(g) for g in graphs]
    failures = []

    def work(offset):
        for i in range(offset, len(graphs), 2):
            if not np.array_equal(e.evaluate_expression(graphs[i]), want[i], equal_nan=True):
                failures.append(i)

    threads = [threading.Thread(target=work, args=(k,)) for k in range(2)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(60)
    assert not any(t.is_alive() for t in threads) and not failures


@pytest.mark.parametrize("cache_bytes", [-1, 1.5, True, "1"])
def test_cache_bytes_must_be_a_non_negative_integer(cache_bytes):
    with pytest.raises(ValueError, match="cache_bytes"):
        LocalEvaluator(generate_market(n_instruments=10, n_days=40, seed=1), seed=1, cache_bytes=cache_bytes)


@pytest.mark.parametrize("nodes, message", [
    ([("ts", "mean", 0, 0.0, [-1], "k")], "window"),
    ([("ts", "median", 5, 0.0, [-1], "k")], "unknown time-series"),
    ([("binary", "add", 0, 0.0, [-1], "k")], "2 input"),
    ([("unary", "neg", 0, 0.0, [0], "k")], "names no earlier"),
    ([("cs", "rank", 0, 0.0, [-2], "k")], "names no earlier"),
    ([], "at least one"),
])
def test_malformed_plans_are_refused(evaluator, nodes, message):
    leaf = evaluator._feature(evaluator.feature_name("ret_5"))
    with pytest.raises(ValueError, match=message):
        evaluator._engine.signal(nodes, [leaf])


def test_a_repeated_graph_reuses_its_book_only_under_the_same_metaparameters():
    e = small_evaluator()
    reference = per_node(e)
    graph = graph_of(e)
    metas = [None, {"normalization": "rank"}, None, {"decay": 3}, {"normalization": "rank"}]
    for meta in metas:
        reference.evaluate_expression(graph)
        want = reference.run_backtest(graph, metaparameters=meta)
        e.evaluate_expression(reordered(graph))
        got = e.run_backtest(graph, metaparameters=meta)
        for name, value in vars(want).items():
            _close(getattr(got, name), value, name)
    assert len(e._books) == 3
    got.per_column_stats["gross_returns_sharpe"] = 99.0  # a caller's change stays with the caller
    e.evaluate_expression(graph)
    assert e.run_backtest(graph, metaparameters=metas[-1]).per_column_stats["gross_returns_sharpe"] != 99.0

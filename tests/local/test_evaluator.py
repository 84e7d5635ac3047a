"""The evaluator over a small market: planted edges found, noise not, contract attributes, pool and vault."""
import threading
import warnings

import numpy as np
import pytest

from quillmarsh.local.era import LocalEraConfig, THRESHOLDS, local_era_map
from quillmarsh.local.evaluator import LocalEvaluator
from quillmarsh.local.market import generate_market
from quillmarsh.local.vocabulary import FEATURE_RECIPES

REQUIRED = ("sharpe", "fitness", "returns", "drawdown", "turnover", "margin", "long_count", "short_count",
            "delta_exposure", "max_weight")


@pytest.fixture(scope="module")
def evaluator():
    return LocalEvaluator(generate_market(n_instruments=150, n_days=600, seed=11, edge=0.02), seed=11)


def feat(e, name):
    return {"type": "feature", "node": e.feature_name(name)}


def rot(name, *children):
    return {"type": "rotation", "node": name, "children": list(children)}


def backtest(e, graph, **kw):
    e.evaluate_expression(graph, **kw)
    return e.run_backtest(graph, **kw)


@pytest.mark.parametrize("graph", [
    lambda e: rot("neg", rot("cs_rank", feat(e, "ret_5"))),
    lambda e: rot("cs_rank", feat(e, "quality")),
])
def test_planted_signals_pass(evaluator, graph):
    stats = backtest(evaluator, graph(evaluator))
    assert stats.sharpe > THRESHOLDS["sharpe_min"]
    assert stats.passed and stats.is_pnl_mi > THRESHOLDS["mi_threshold"]
    for rules in (stats.liquidity_metrics, stats.weight_quality_metrics, stats.custom_stats):
        assert all(entry["passed"] for entry in rules.values()), rules
    assert stats.turnover <= THRESHOLDS["turnover_max"] and stats.max_weight <= THRESHOLDS["max_weight_max"]


def test_noise_features_do_not_pass(evaluator):
    alts = [n for n in FEATURE_RECIPES if n.startswith("alt_")]
    sharpes = [abs(backtest(evaluator, rot("cs_rank", feat(evaluator, n))).sharpe) for n in alts]
    assert max(sharpes) < THRESHOLDS["sharpe_min"]


def test_stats_carry_every_contract_attribute(evaluator):
    stats = backtest(evaluator, rot("ts_mean_5", feat(evaluator, "ret_1")))
    for name in REQUIRED + ("abs_weight_sum_mean", "quality_score", "correlation", "is_pnl_mi"):
        value = getattr(stats, name)
        assert isinstance(value, float) and np.isfinite(value), name
    assert stats.per_column_stats["gross_returns_sharpe"] == stats.sharpe
    assert stats.per_column_stats["net_returns_sharpe"] < stats.sharpe  # costs
    for rules in (stats.liquidity_metrics, stats.weight_quality_metrics, stats.custom_stats):
        assert all({"value", "passed"} <= set(entry) for entry in rules.values())
    assert len(stats.factor_pnl) == evaluator.in_sample_days
    assert stats.max_weight <= 0.05 + 1e-12  # the era's default truncation
    assert stats.abs_weight_sum_mean == pytest.approx(1.0, abs=0.05)


def test_metaparameters_change_the_book(evaluator):
    g = rot("cs_rank", feat(evaluator, "ret_5"))
    base = backtest(evaluator, g)
    decayed = backtest(evaluator, g, metaparameters={"decay": 5, "truncation": 0.1})
    assert decayed.turnover < base.turnover


@pytest.mark.parametrize("graph, message", [
    ({"type": "rotation", "node": "nope", "children": []}, "unknown function"),
    ({"type": "filtration", "node": "cs_rank", "children": []}, "is a rotation"),
    ({"type": "feature", "node": "fx_missing"}, "unknown feature"),
    ({"type": "rotation", "node": "ts_mean_5", "children": [{"type": "int", "node": 5}]}, "data input"),
    ({"type": "rotation", "node": "ts_mean_5",
      "children": [{"type": "feature", "node": "close"}, {"type": "int", "node": 999}]}, "outside"),
    ({"type": "rotation", "node": "ts_mean_5",
      "children": [{"type": "feature", "node": "close"}, {"type": "float", "node": 5.0}]}, "int leaf"),
    ({"type": "rotation", "node": "abs", "children": [], "extra": 1}, "must be a map"),
    ([], "must be a map"),
])
def test_bad_graphs_are_refused(evaluator, graph, message):
    with pytest.raises(ValueError, match=message):
        evaluator.evaluate_expression(graph)


def test_node_budget_and_universe_are_enforced(evaluator):
    deep = feat(evaluator, "close")
    for _ in range(45):
        deep = rot("abs", deep)
    with pytest.raises(ValueError, match="max_node_count"):
        evaluator.evaluate_expression(deep)
    with pytest.raises(ValueError, match="universe"):
        evaluator.evaluate_expression(feat(evaluator, "close"), universe_id="elsewhere")


def test_config_leaf_overrides_the_default_window(evaluator):
    x = feat(evaluator, "close")
    explicit = evaluator.evaluate_expression(rot("ts_mean_5", x, {"type": "int", "node": 20}))
    np.testing.assert_array_equal(explicit, evaluator.evaluate_expression(rot("ts_mean_20", x)))


def test_threads_keep_their_own_signal(evaluator):
    graphs = [rot("cs_rank", feat(evaluator, n)) for n in ("ret_5", "quality", "alt_2", "gap")]
    expected = [backtest(evaluator, g).sharpe for g in graphs]
    results, errors = {}, []

    def work(i):
        try:
            for _ in range(3):
                evaluator.evaluate_expression(graphs[i])
                results[i] = evaluator.run_backtest(graphs[i]).sharpe
        except Exception as exc:  # reported below
            errors.append(exc)

    threads = [threading.Thread(target=work, args=(i,)) for i in range(len(graphs))]
    for t in threads:
        t.start()
    for t in threads:
        t.join(timeout=60)
    assert not errors
    assert [results[i] for i in range(len(graphs))] == expected


def test_pool_correlation_and_information():
    e = LocalEvaluator(generate_market(n_instruments=60, n_days=300, seed=5, edge=0.02), seed=5)
    g = rot("cs_rank", feat(e, "quality"))
    alone = backtest(e, g)
    score, passed = e.compute_mi_per_pool("local_pool", "gross_returns", [], 0.0)
    assert score == pytest.approx(alone.is_pnl_mi) and passed == (score >= 0.0)
    e.add_found_signal("sig-1", g)
    assert e.era.signal_pools[0]["found_signal_ids"] == ["sig-1"]
    again = backtest(e, g)
    assert again.correlation == pytest.approx(1.0)
    assert again.is_pnl_mi == pytest.approx(0.0, abs=1e-9)
    assert e.compute_mi_per_pool("local_pool", "gross_returns", ["sig-1"], 0.1) == (pytest.approx(0.0, abs=1e-9), False)
    with pytest.raises(ValueError, match="not in pool"):
        e.compute_mi_per_pool("local_pool", "gross_returns", ["sig-2"], 0.1)


def test_registry_entries_compute_like_the_graph(evaluator):
    reg = evaluator.registry
    assert reg.has("ts_zscore_20") and not reg.has("nope")
    entry = reg.get_entry("ts_zscore_20")
    assert entry.function_type == "rotation" and entry.stateful and callable(entry.factory)
    assert entry.module_path and entry.class_name
    x = evaluator.evaluate_expression(feat(evaluator, "ret_1"))
    np.testing.assert_array_equal(entry.factory(x), evaluator.evaluate_expression(
        rot("ts_zscore_20", feat(evaluator, "ret_1"))))
    assert reg.get_entry("sector_neutralize").engine_only


def test_era_vault_and_reconstruction():
    e = LocalEvaluator(generate_market(n_instruments=20, n_days=60, seed=1), seed=1)
    blob, secret = bytes(range(60)), bytes(32)
    with pytest.raises(RuntimeError):
        e.init_reconstruction(shuffle_blob=blob, wallet_secret=secret, era_id=1)
    with pytest.raises(ValueError, match="era mismatch"):
        e.initialize_era_vault(shuffle_blob=blob, wallet_secret=secret, era_id=2)
    with pytest.raises(ValueError, match="invalid credentials"):
        e.initialize_era_vault(shuffle_blob=blob, wallet_secret=b"short", era_id=1)
    e.initialize_era_vault(shuffle_blob=blob, wallet_secret=secret, era_id=1)
    with pytest.raises(RuntimeError, match="vault already initialized"):
        e.initialize_era_vault(shuffle_blob=blob, wallet_secret=secret, era_id=1)
    with pytest.raises(ValueError, match="invalid credentials"):
        e.init_reconstruction(shuffle_blob=blob, wallet_secret=bytes([1] * 32), era_id=1)
    e.init_reconstruction(shuffle_blob=blob, wallet_secret=secret, era_id=1)


def test_era_object_mirrors_its_map():
    era = LocalEraConfig(era_id=3, max_node_count=25)
    assert era._data == local_era_map(era_id=3, max_node_count=25)
    assert era.max_node_count == 25 and era.era_id == 3 and era.signal_pools is era._data["signal_pools"]
    assert all({"name", "options", "default"} <= set(s) for s in era.transform_pipeline)
    with pytest.raises(ValueError):
        local_era_map(max_depth=0)


def test_filtrations_reductions_and_groups(evaluator):
    x = feat(evaluator, "ret_1")
    raw = evaluator.evaluate_expression(x)
    close = evaluator.market.fields["close"]
    cheap = {"type": "filtration", "node": "keep_above_price", "children": [x, {"type": "float", "node": 20.0}]}
    got = evaluator.evaluate_expression(cheap)
    np.testing.assert_array_equal(np.isnan(got), np.isnan(raw) | ~(close >= 20.0))
    mean = evaluator.evaluate_expression({"type": "reduction", "node": "cs_mean", "children": [x]})
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", RuntimeWarning)  # days with no valid value
        want = np.where(np.isnan(raw), np.nan, np.nanmean(raw, axis=1)[:, None])
    np.testing.assert_allclose(mean, want, rtol=1e-12)
    neutral = evaluator.evaluate_expression(rot("sector_neutralize", x))
    for s in np.unique(evaluator.market.sector):
        cols = evaluator.market.sector == s
        sums = np.nansum(neutral[:, cols], axis=1)
        np.testing.assert_allclose(sums, 0.0, atol=1e-12)

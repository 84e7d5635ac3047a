"""The five tiers of judgement: thresholds, weight quality, liquidity, custom stats with column rules,
correlation."""
from types import SimpleNamespace

import pytest

import quillmarsh.search_templates as st

THRESHOLDS = {"sharpe_min": 0.0, "turnover_max": 1.0, "delta_exposure_max": 0.1, "max_weight_max": 0.05,
              "correlation_max": 0.7}


def judge(era=None, thresholds=THRESHOLDS, **attrs):
    return st._helpers.derive_rejection_reason(SimpleNamespace(**attrs), thresholds, era)


@pytest.mark.parametrize("attrs, reason, changed", [
    ({}, None, {}),                                     # the defaults with passed give no reason
    ({"sharpe": -0.1}, "gross_returns_sharpe_below_min", {}),
    ({"sharpe": 0.0}, None, {}),                        # at the minimum is not below it
    ({"sharpe": "bad"}, None, {}),
    ({"sharpe": float("nan"), "turnover": float("nan")}, None, {}),
    ({"turnover": 1.5}, "turnover_exceeded", {}),
    ({"turnover": True}, None, {}),                     # True compares as 1, not above 1.0
    ({"turnover": True}, "turnover_exceeded", {"turnover_max": 0.5}),
    ({"delta_exposure": 0.2}, "delta_exposure_exceeded", {}),
    ({"max_weight": 0.06}, "max_weight_exceeded", {}),
    ({"sharpe": -1, "turnover": 9}, "gross_returns_sharpe_below_min", {}),
    ({"turnover": 9, "max_weight": 9}, "turnover_exceeded", {}),
    # the weight sum rejects at or below its minimum, and only when a minimum is set
    ({"abs_weight_sum_mean": 0.5}, "abs_weight_sum_mean_below_min", {"abs_weight_sum_mean_min": 0.5}),
    ({"abs_weight_sum_mean": 0.6}, None, {"abs_weight_sum_mean_min": 0.5}),
    ({"abs_weight_sum_mean": 0.0}, None, {}),
])
def test_metric_thresholds_in_order(attrs, reason, changed):
    assert judge(thresholds=dict(THRESHOLDS, **changed), **attrs) == reason


@pytest.mark.parametrize("missing", ["sharpe_min", "turnover_max", "delta_exposure_max", "max_weight_max"])
def test_required_thresholds_are_read_even_for_non_numeric_metrics(missing):
    thresholds = {k: v for k, v in THRESHOLDS.items() if k != missing}
    with pytest.raises(ValueError):
        judge(thresholds=thresholds, sharpe="n/a", turnover=None)


def test_correlation_maximum_is_read_only_for_a_numeric_correlation():
    thresholds = {k: v for k, v in THRESHOLDS.items() if k != "correlation_max"}
    assert judge(thresholds=thresholds, correlation=None) is None
    with pytest.raises(ValueError):
        judge(thresholds=thresholds, correlation=0.1)


@pytest.mark.parametrize("metrics, reason", [
    ({"w": {"passed": False}}, "invalid_weights"),
    ({"w": {"passed": False, "value": 2}}, "weight_quality_w_exceeded"),
    ({"w": {}}, None),
    ({"w": "failed", "v": {"passed": 0, "value": 0}}, "weight_quality_v_exceeded"),
])
def test_weight_quality(metrics, reason):
    assert judge(weight_quality_metrics=metrics) == reason


@pytest.mark.parametrize("entry, suffix", [
    ({"passed": False, "value": 1, "min": 0, "max": 2}, "_below_min"),
    ({"passed": False, "value": 3, "min": 0, "max": 2}, "_above_max"),
    ({"passed": False, "max": -1}, "_above_max"),        # a missing value is 0
    ({"passed": False}, "_below_min"),
])
def test_bound_reasons_for_liquidity_and_custom_stats(entry, suffix):
    assert judge(liquidity_metrics={"adv": entry}) == "liquidity_adv" + suffix
    assert judge(custom_stats={"ic": entry}) == "custom_stat_ic" + suffix


def test_an_incomparable_rule_value_raises_type_error():
    with pytest.raises(TypeError):
        judge(liquidity_metrics={"adv": {"passed": False, "value": "x", "min": 0}})


def test_weight_quality_comes_before_liquidity_and_liquidity_before_custom():
    both = dict(weight_quality_metrics={"w": {"passed": False}},
                liquidity_metrics={"adv": {"passed": False}}, custom_stats={"ic": {"passed": False}})
    assert judge(**both) == "invalid_weights"
    del both["weight_quality_metrics"]
    assert judge(**both) == "liquidity_adv_below_min"


class Era:
    def __init__(self, rules):
        self.column_threshold_rules = rules


@pytest.mark.parametrize("era, reason", [
    (Era([{"column": "net", "stat": "fitness"}, {"column": "x"}]), "net_fitness_below_min"),
    (Era([{}]), "gross_returns_sharpe_below_min"),
    (Era([{"column": "net"}]), "net_sharpe_below_min"),
    (Era([]), "gross_returns_sharpe_below_min"),
    (None, "gross_returns_sharpe_below_min"),
])
def test_a_failed_verdict_without_explanation_is_named_by_the_first_column_rule(era, reason):
    assert judge(era=era, passed=False) == reason


def test_column_rules_are_read_as_a_plain_attribute():
    with pytest.raises(AttributeError):
        judge(era={"column_threshold_rules": [{"column": "net"}]}, passed=False)


@pytest.mark.parametrize("attrs, reason", [
    ({"passed": False, "custom_stats": {"ic": {"passed": False, "value": 5, "max": 1}}}, "custom_stat_ic_above_max"),
    ({"passed": False, "correlation": 0.9}, "correlation_exceeded"),
    ({"passed": True, "correlation": 0.9}, "correlation_exceeded"),
    ({"passed": True, "correlation": 0.7}, None),
    ({"passed": True, "custom_stats": {"ic": {"passed": False}}, "correlation": 0.9}, "custom_stat_ic_below_min"),
])
def test_custom_failure_and_correlation_take_precedence_over_column_rules(attrs, reason):
    assert judge(era=Era([{"column": "net"}]), **attrs) == reason


def test_a_verdict_that_cannot_be_read_as_truth_propagates():
    class Bad:
        def __bool__(self):
            raise RuntimeError("no verdict")

    with pytest.raises(RuntimeError):
        judge(passed=Bad())

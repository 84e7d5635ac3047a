"""The five tiers of judgement: thresholds, weight quality, liquidity, custom stats with column rules,
correlation."""
from types import SimpleNamespace

import pytest

import quillmarsh.search_templates as st

THRESHOLDS = {"sharpe_min": 0.0, "turnover_max": 1.0, "delta_exposure_max": 0.1, "max_weight_max": 0.05,
              "correlation_max": 0.7}


class Era:
    def __init__(self, rules):
        self.column_threshold_rules = rules


def judge(era=None, thresholds=THRESHOLDS, **attrs):
    return st._helpers.derive_rejection_reason(SimpleNamespace(**attrs), thresholds, era)


WQ, LIQ, CUSTOM = "weight_quality_metrics", "liquidity_metrics", "custom_stats"


@pytest.mark.parametrize("attrs, reason, changed", [
    ({}, None, {}),                                     # the defaults with passed give no reason
    ({"sharpe": -0.1}, "gross_returns_sharpe_below_min", {}),
    ({"sharpe": 0.0}, None, {}),                        # at the minimum is not below it
    ({"sharpe": "bad"}, None, {}),
    ({"sharpe": float("nan"), "turnover": float("nan")}, None, {}),
    ({"turnover": 1.5}, "turnover_exceeded", {}),
    ({"turnover": 1.0}, None, {}),                      # at the maximum is not above it
    ({"turnover": True}, "turnover_exceeded", {"turnover_max": 0.5}),  # True compares as 1
    ({"delta_exposure": 0.2}, "delta_exposure_exceeded", {}),
    ({"max_weight": 0.06}, "max_weight_exceeded", {}),
    ({"sharpe": -1, "turnover": 9}, "gross_returns_sharpe_below_min", {}),
    ({"turnover": 9, "max_weight": 9}, "turnover_exceeded", {}),
    # the weight sum rejects at or below its minimum, and only when a minimum is set
    ({"abs_weight_sum_mean": 0.5}, "abs_weight_sum_mean_below_min", {"abs_weight_sum_mean_min": 0.5}),
    ({"abs_weight_sum_mean": 0.6}, None, {"abs_weight_sum_mean_min": 0.5}),
    ({"abs_weight_sum_mean": 0.0}, None, {}),
    # weight quality, then liquidity, then custom statistics; a missing value is 0
    ({WQ: {"w": {"passed": False}}, LIQ: {"adv": {"passed": False}}}, "invalid_weights", {}),
    ({WQ: {"w": {"passed": False, "value": 2}}}, "weight_quality_w_exceeded", {}),
    ({WQ: {"w": {}}}, None, {}),
    ({WQ: {"w": "failed", "v": {"passed": 0, "value": 0}}}, "weight_quality_v_exceeded", {}),
    ({LIQ: {"adv": {"passed": False}}, CUSTOM: {"ic": {"passed": False}}}, "liquidity_adv_below_min", {}),
    ({LIQ: {"adv": {"passed": False, "value": 1, "min": 0, "max": 2}}}, "liquidity_adv_below_min", {}),
    ({LIQ: {"adv": {"passed": False, "value": 3, "min": 0, "max": 2}}}, "liquidity_adv_above_max", {}),
    ({CUSTOM: {"ic": {"passed": False, "max": -1}}}, "custom_stat_ic_above_max", {}),
    ({CUSTOM: {"ic": {"passed": False}}}, "custom_stat_ic_below_min", {}),
])
def test_metric_and_rule_tiers_in_order(attrs, reason, changed):
    assert judge(thresholds=dict(THRESHOLDS, **changed), **attrs) == reason


@pytest.mark.parametrize("missing, attrs", [
    ("sharpe_min", {"sharpe": "n/a"}), ("turnover_max", {"turnover": None}), ("delta_exposure_max", {}),
    ("max_weight_max", {}), ("correlation_max", {"correlation": 0.1}),
])
def test_a_missing_threshold_is_an_error_but_correlation_max_only_for_a_numeric_correlation(missing, attrs):
    thresholds = {k: v for k, v in THRESHOLDS.items() if k != missing}
    with pytest.raises(ValueError):
        judge(thresholds=thresholds, **attrs)
    if missing == "correlation_max":
        assert judge(thresholds=thresholds, correlation=None) is None


def test_an_incomparable_rule_value_raises_type_error():
    with pytest.raises(TypeError):
        judge(liquidity_metrics={"adv": {"passed": False, "value": "x", "min": 0}})


@pytest.mark.parametrize("era, attrs, reason", [
    # a failed verdict without an explanation is named by the first column rule
    (Era([{"column": "net", "stat": "fitness"}, {"column": "x"}]), {}, "net_fitness_below_min"),
    (Era([{}]), {}, "gross_returns_sharpe_below_min"),
    (Era([{"column": "net"}]), {}, "net_sharpe_below_min"),
    (Era([]), {}, "gross_returns_sharpe_below_min"),
    (None, {}, "gross_returns_sharpe_below_min"),
    # a custom failure and the correlation come before the column rules
    (Era([{"column": "net"}]), {CUSTOM: {"ic": {"passed": False, "value": 5, "max": 1}}}, "custom_stat_ic_above_max"),
    (Era([{"column": "net"}]), {"correlation": 0.9}, "correlation_exceeded"),
])
def test_a_failed_verdict(era, attrs, reason):
    assert judge(era=era, passed=False, **attrs) == reason


@pytest.mark.parametrize("attrs, reason", [
    ({"correlation": 0.9}, "correlation_exceeded"),
    ({"correlation": 0.7}, None),
    ({CUSTOM: {"ic": {"passed": False}}, "correlation": 0.9}, "custom_stat_ic_below_min"),
])
def test_a_passed_verdict_is_still_judged_on_custom_stats_and_correlation(attrs, reason):
    assert judge(era=Era([{"column": "net"}]), passed=True, **attrs) == reason

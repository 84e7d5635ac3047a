"""What a backtest must deliver: the required metrics, their fallbacks, finite numbers, MI scores."""
import math
from types import SimpleNamespace

import pytest

import quillmarsh.search_templates as st

GOOD = dict(sharpe=1.2, fitness=0.9, returns=0.1, drawdown=0.05, turnover=0.3, margin=0.001,
            long_count=100, short_count=90, delta_exposure=0.0, max_weight=0.02)


Stats = SimpleNamespace


class Counting(Stats):
    """Records every attribute read, to show which metrics were looked at."""

    def __getattribute__(self, name):
        if not name.startswith("__"):
            object.__getattribute__(self, "__dict__").setdefault("_reads", []).append(name)
        return object.__getattribute__(self, name)


class FloatSub(float):
    pass


def test_collected_stats_are_floats_with_weight_sum_and_an_empty_object_fails_on_sharpe_alone():
    stats, reason = st._collect_required_backtest_stats(Stats(**GOOD, abs_weight_sum_mean=float("nan")))
    assert reason is None and list(stats) == list(GOOD) + ["abs_weight_sum_mean"]
    assert all(type(v) is float for v in stats.values())
    assert stats["long_count"] == 100.0 and stats["abs_weight_sum_mean"] == 0.0
    empty = Counting()
    assert tuple(st._collect_required_backtest_stats(empty)) == (None, "invalid_backtest_metric_sharpe")
    assert not any(name in empty._reads for name in GOOD if name != "sharpe")


NET = {"evaluation_pnl_columns": ["net"]}
BAD_SHARPE, BAD_TURNOVER, BAD_MARGIN = ((None, "invalid_backtest_metric_" + m) for m in ("sharpe", "turnover", "margin"))


@pytest.mark.parametrize("stats, attr, era, expected", [
    (Stats(per_column_stats={"gross_returns_sharpe": 1.5}), "sharpe", None, (1.5, None)),
    (Stats(per_column_stats={"sharpe": 0.7}), "sharpe", None, (0.7, None)),
    (Stats(per_column_stats={"net_sharpe": 2.0, "sharpe": 1.0}), "sharpe", NET, (2.0, None)),
    (Stats(per_column_stats={"net_sharpe": None, "sharpe": 1.0}), "sharpe", NET, BAD_SHARPE),
    (Stats(sharpe=None, per_column_stats={"sharpe": 1.0}), "sharpe", None, BAD_SHARPE),
    (Stats(per_column_stats=[("sharpe", 1.0)]), "sharpe", None, BAD_SHARPE),
    (Stats(quality_score=0.4), "fitness", None, (0.4, None)),
    (Stats(per_column_stats={"gross_returns_quality_score": 0.3}), "fitness", None, (0.3, None)),
    (Stats(avg_turnover=0.2), "turnover", None, (0.2, None)),
    (Stats(per_column_stats={"turnover": 0.2}), "turnover", None, BAD_TURNOVER),
    (Stats(per_column_stats={"margin": 0.2}), "margin", None, BAD_MARGIN),
    (Stats(margin=True), "margin", None, BAD_MARGIN),
    (Stats(margin=float("nan")), "margin", None, BAD_MARGIN),
    (Stats(margin=3), "margin", None, (3.0, None)),
])
def test_metric_fallbacks_and_failures(stats, attr, era, expected):
    value, reason = st._required_backtest_metric_value(stats, attr, era)
    assert (value, reason) == expected
    assert value is None or type(value) is float


@pytest.mark.parametrize("value, finite", [
    (1, True), (2.5, True), (0, True), (True, False), (FloatSub(1.0), False), (float("nan"), False),
    (float("inf"), False), (10 ** 400, False), ("1", False), (None, False),
])
def test_finite_number_means_exact_int_or_float(value, finite):
    assert st._is_finite_number(value) is finite
    assert st._finite_optional_number(value) == (float(value) if finite else None)
    assert st._finite_number_or_default(value, 7) == (float(value) if finite else 7.0)


class ArrayLike:
    def __init__(self, result=None, fail=False):
        self.result, self.fail = result, fail

    def tolist(self):
        if self.fail:
            raise RuntimeError("no")
        return self.result


@pytest.mark.parametrize("value, expected", [
    (None, [0.0]), ((), [0.0]), ([1, 2], [1, 2]), ((1.5,), [1.5]), (True, [0.0]),
    (float("nan"), "nan"), (ArrayLike([3.0]), [3.0]), (ArrayLike(fail=True), [0.0]),
    ("abc", [0.0]), (4, 4.0),
])
def test_normalize_factor_pnl(value, expected):
    out = st._normalize_factor_pnl(value)
    if expected == "nan":
        assert len(out) == 1 and math.isnan(out[0])
    elif isinstance(expected, float):  # a lone number becomes a list of one plain float
        assert out == [expected] and type(out[0]) is float
    else:
        assert out == expected
    assert out is not value


class Backtester:
    def __init__(self, result=(0.8, 1)):
        self.calls, self.result = [], result

    def compute_mi_per_pool(self, *args):
        self.calls.append(args)
        return self.result


POOL_ERA = {"signal_pools": [{"signal_pool_id": "p1", "mi_pnl_column": "net", "found_signal_ids": None},
                             {"name": "p2", "found_signal_ids": ["a", "b"]}]}


@pytest.mark.parametrize("stats, pool, thresholds, expected, call", [
    (Stats(is_pnl_mi=0.5), "p1", {}, (0.5, True), None),          # its own score, no computation
    (Stats(is_pnl_mi=0.5), "p1", {"mi_threshold": 0.5}, (0.5, True), None),
    (Stats(is_pnl_mi=0.5), "p1", {"mi_threshold": 0.6}, (0.5, False), None),
    (Stats(is_pnl_mi=float("nan")), "p1", {"mi_threshold": 0.1}, (0.8, False), ("p1", "net", [], 0.1)),
    (Stats(), "p2", {}, (0.8, False), ("p2", "gross_returns", ["a", "b"], float("-inf"))),
])
def test_mi_score_is_own_or_computed_for_the_pool(stats, pool, thresholds, expected, call):
    bt = Backtester(result=[0.8, 0])  # a computed score comes with the backtester's own verdict
    assert tuple(st._submission_pnl_mi_from_backtest_or_compute(bt, stats, POOL_ERA, pool, thresholds)) == expected
    assert bt.calls == ([] if call is None else [call])
    if call is not None:
        assert bt.calls[0][2] is not POOL_ERA["signal_pools"][1]["found_signal_ids"]


@pytest.mark.parametrize("backtester, era", [
    (object(), POOL_ERA),                                 # nothing to compute with
    (Backtester(), {"signal_pools": []}),                 # no pool
    (Backtester(result=(float("inf"), True)), POOL_ERA),  # a score that is not finite
])
def test_mi_cannot_be_had(backtester, era):
    with pytest.raises(ValueError, match="^BacktestStats.is_pnl_mi must be a finite scalar number$"):
        st._submission_pnl_mi_from_backtest_or_compute(backtester, Stats(is_pnl_mi=None), era, "p1", {})


@pytest.mark.parametrize("stats, per_column, stats_dict, expected", [
    (Stats(quality_score=0.7), {"gross_returns_quality_score": 0.5}, {"fitness": 0.3}, 0.7),
    (Stats(quality_score=float("nan")), {"gross_returns_quality_score": 0.5}, {"fitness": 0.3}, 0.5),
    (Stats(), {"gross_returns_quality_score": True}, {"fitness": 0.3}, 0.3),
    (Stats(), None, None, 0.0),
])
def test_tracking_quality_score(stats, per_column, stats_dict, expected):
    assert st._tracking_quality_score(stats, stats_dict, per_column, None) == expected


def test_tracking_record_and_rejection_statistics(record_type):
    liquidity = {"adv": 1}
    bt = Stats(correlation=0.25, liquidity_metrics=liquidity, custom_stats=[1], passed=0,
               weight_quality_metrics={"w": 1})
    stats_dict = dict(GOOD, abs_weight_sum_mean=0.8, sharpe=float("nan"))
    record = st._tracking_stats_from_backtest(bt, stats_dict, {}, None)
    assert isinstance(record, record_type)
    assert record.kw == dict(sharpe=0.0, returns=0.1, turnover=0.3, drawdown=0.05, delta_exposure=0.0,
                             max_weight=0.02, quality_score=0.9, correlation=0.25, liquidity_metrics={"adv": 1},
                             custom_stats={})
    assert record.kw["liquidity_metrics"] is not liquidity
    judged = st._rejection_stats_from_backtest(bt, record, stats_dict)
    assert judged is record
    assert (record.passed, record.abs_weight_sum_mean, record.weight_quality_metrics) == (False, 0.8, {"w": 1})
    assert st._rejection_stats_from_backtest(bt, None, stats_dict) is bt


def test_tracking_metric_keywords():
    kw = st._tracking_metric_kwargs_from_backtest(
        Stats(is_correlation=0.1, is_pnl_mi=float("nan"), agent_is_pnl_mi=2, failure_reason="x", failure_detail=3))
    assert list(kw.items()) == [("is_correlation", 0.1), ("is_pnl_mi", None), ("agent_is_pnl_mi", 2.0),
                                ("is_weights_mi", None), ("failure_reason", "x"), ("failure_detail", None)]

import math
import sys
import types
from types import SimpleNamespace as NS

import pytest

import quillmarsh.search_templates as st


def test_an_explicit_map_is_copied_and_the_era_ignored():
    mine = {}
    got = st._resolve_search_thresholds(mine, {"thresholds": {"sharpe_min": 1.0}})
    assert got == {} and got is not mine
    with pytest.raises(ValueError, match="^SearchContext thresholds missing required threshold 'sharpe_min'$"):
        st._require_search_threshold(got, "sharpe_min")


@pytest.mark.parametrize(
    "era_config",
    [{"thresholds": {"sharpe_min": 1.5}}, NS(thresholds={"sharpe_min": 1.5}, _data={"thresholds": {}})],
)
def test_the_eras_map_is_copied_when_none_is_given(era_config):
    era_map = era_config["thresholds"] if isinstance(era_config, dict) else era_config.thresholds
    got = st._resolve_search_thresholds(None, era_config)
    assert got == {"sharpe_min": 1.5} and got is not era_map


@pytest.mark.parametrize(
    "thresholds, era_config, message",
    [
        ([], {"thresholds": {"a": 1}}, "SearchContext thresholds must be a dict"),
        (None, None, "SearchContext thresholds must be provided"),
        (None, {}, "SearchContext thresholds must be provided"),
        (None, {"thresholds": [1]}, "SearchContext thresholds must be provided"),
        (None, NS(_data={"thresholds": {"a": 1}}), "SearchContext thresholds must be provided"),
    ],
)
def test_threshold_resolution_errors(thresholds, era_config, message):
    with pytest.raises(ValueError, match=f"^{message}$"):
        st._resolve_search_thresholds(thresholds, era_config)


@pytest.mark.parametrize("value", [True, "1", None, [1]])
def test_required_threshold_must_be_numeric(value):
    with pytest.raises(ValueError, match="^SearchContext threshold 'turnover_max' must be numeric$"):
        st._require_search_threshold({"turnover_max": value}, "turnover_max")
    with pytest.raises(ValueError, match="must be numeric"):
        st._search_threshold_or_default({"turnover_max": value}, "turnover_max", 0.0)


@pytest.mark.parametrize("value", [1, 0.25, float("inf")])
def test_required_threshold_returns_the_value_unconverted(value):
    got = st._require_search_threshold({"x": value}, "x")
    assert got == value and type(got) is type(value)


def test_nan_passes_and_absent_optional_gives_the_default_unchecked():
    assert math.isnan(st._require_search_threshold({"x": float("nan")}, "x"))
    sentinel = object()
    assert st._search_threshold_or_default({}, "mi_threshold", sentinel) is sentinel
    assert st._search_threshold_or_default({"mi_threshold": 2}, "mi_threshold", sentinel) == 2


class Analytics:
    def __init__(self, tracker, pool_configs):
        self.tracker, self.pool_configs = tracker, pool_configs


@pytest.fixture
def analytics_module(monkeypatch):
    module = types.ModuleType("quillmarsh.search_analytics")
    module.calls = []

    def resolve(arg):
        module.calls.append(arg)
        return module.pool_configs

    module.pool_configs = [{"signal_pool_id": "p"}]
    module.SearchAnalytics = Analytics
    module._resolve_pool_configs = resolve
    monkeypatch.setitem(sys.modules, "quillmarsh.search_analytics", module)
    return module


def test_analytics_built_from_the_eras_pools(analytics_module):
    tracker, era = object(), {"era_id": 3}
    got = st._build_search_analytics_from_era_config(tracker, era)
    assert isinstance(got, Analytics) and got.tracker is tracker and got.pool_configs == [{"signal_pool_id": "p"}]
    assert analytics_module.calls == [{"era_config": era}] and analytics_module.calls[0]["era_config"] is era


def failing(*_args):
    raise RuntimeError("nope")


@pytest.mark.parametrize(
    "change",
    [
        lambda m: setattr(m, "pool_configs", []),
        lambda m: setattr(m, "_resolve_pool_configs", failing),
        lambda m: setattr(m, "SearchAnalytics", failing),
        lambda m: delattr(m, "SearchAnalytics"),
    ],
)
def test_analytics_failures_are_silent(analytics_module, change):
    change(analytics_module)
    assert st._build_search_analytics_from_era_config(object(), {"era_id": 1}) is None


def test_analytics_without_era_or_module(monkeypatch, analytics_module):
    assert st._build_search_analytics_from_era_config(object(), None) is None
    assert analytics_module.calls == []
    monkeypatch.setitem(sys.modules, "quillmarsh.search_analytics", None)
    assert st._build_search_analytics_from_era_config(object(), {"era_id": 1}) is None

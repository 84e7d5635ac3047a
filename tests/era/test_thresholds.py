import math
import sys
import types
from types import SimpleNamespace as NS

import pytest

import quillmarsh.search_templates as st


def test_an_explicit_map_is_copied_and_the_era_ignored():
    mine, era_map = {}, {"sharpe_min": 1.5}
    got = st._resolve_search_thresholds(mine, {"thresholds": era_map})
    assert got == {} and got is not mine
    with pytest.raises(ValueError, match="^SearchContext thresholds missing required threshold 'sharpe_min'$"):
        st._require_search_threshold(got, "sharpe_min")
    for era_config in ({"thresholds": era_map}, NS(thresholds=era_map, _data={"thresholds": {}})):
        got = st._resolve_search_thresholds(None, era_config)
        assert got == era_map and got is not era_map


@pytest.mark.parametrize("thresholds, era_config, message", [
    ([], {"thresholds": {"a": 1}}, "SearchContext thresholds must be a dict"),
    (None, {}, "SearchContext thresholds must be provided"),
    (None, NS(_data={"thresholds": {"a": 1}}), "SearchContext thresholds must be provided"),  # no raw-map read
    ({"t": True}, None, "SearchContext threshold 't' must be numeric"),  # a bool is no number
    ({"t": "x"}, None, "SearchContext threshold 't' must be numeric"),
])
def test_threshold_errors(thresholds, era_config, message):
    with pytest.raises(ValueError, match=f"^{message}$"):
        got = st._resolve_search_thresholds(thresholds, era_config)
        st._search_threshold_or_default(got, "t", 0.0)
    if isinstance(thresholds, dict):
        with pytest.raises(ValueError, match=f"^{message}$"):
            st._require_search_threshold(thresholds, "t")


def test_numeric_thresholds_come_back_unconverted_and_absent_ones_as_the_default():
    for value in (1, 0.25, float("inf")):
        got = st._require_search_threshold({"x": value}, "x")
        assert got == value and type(got) is type(value)
    assert math.isnan(st._require_search_threshold({"x": float("nan")}, "x"))
    sentinel = object()
    assert st._search_threshold_or_default({}, "mi_threshold", sentinel) is sentinel


class Analytics:
    def __init__(self, tracker, pool_configs):
        self.tracker, self.pool_configs = tracker, pool_configs


def failing(*_args):
    raise RuntimeError("nope")


@pytest.mark.parametrize(
    "change, built",
    [
        (None, True),
        (lambda m: setattr(m, "pool_configs", []), False),
        (lambda m: setattr(m, "SearchAnalytics", failing), False),
        (lambda m: delattr(m, "SearchAnalytics"), False),
        (lambda m: sys.modules.__setitem__("quillmarsh.search_analytics", None), False),
    ],
)
def test_analytics_from_the_eras_pools_or_silently_none(change, built, monkeypatch):
    module = types.ModuleType("quillmarsh.search_analytics")
    module.calls, module.pool_configs, module.SearchAnalytics = [], [{"signal_pool_id": "p"}], Analytics
    module._resolve_pool_configs = lambda arg: module.calls.append(arg) or module.pool_configs
    monkeypatch.setitem(sys.modules, "quillmarsh.search_analytics", module)
    if change:
        change(module)
    tracker, era = object(), {"era_id": 3}
    assert st._build_search_analytics_from_era_config(tracker, None) is None and module.calls == []
    got = st._build_search_analytics_from_era_config(tracker, era)
    if built:
        assert got.tracker is tracker and got.pool_configs == [{"signal_pool_id": "p"}]
        assert module.calls == [{"era_config": era}] and module.calls[0]["era_config"] is era
    else:
        assert got is None

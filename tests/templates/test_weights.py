"""From analytics rows to yield rates, and from yield rates to cumulative and normalized weights."""
import math

import pytest
from types import SimpleNamespace as NS

import quillmarsh.search_templates as st
from quillmarsh.search_analytics import AnalyticsRow, AnalyticsWindow, SearchStatsResult


def rows(*items):
    return SearchStatsResult(total_evaluations=0, rows=list(items))


def group(functions, features, rate, count=1, row_count=None):
    return AnalyticsRow((functions, features), [AnalyticsWindow("all", rate, count, 0)],
                        count if row_count is None else row_count)


def rates(analytics, functions=None, features=None):
    return st._random_weighted_yield_maps(analytics, functions, features)


@pytest.mark.parametrize("analytics", [None, NS(), NS(rows=[]), NS(rows=5), rows()])
def test_no_usable_analytics(analytics):
    assert st._random_weighted_analytics_stats(analytics) == (0, {}, {})
    assert st._random_weighted_cum_weights(["a", "b"], {}) == [1.0, 2.0]


def test_map_rows_feed_functions_or_features_with_a_count_weighted_mean():
    analytics = rows({"name": "f", "yield_rate": 0.5, "evaluation_count": 10},
                     {"name": "x", "yield_rate": 1.0, "type": "feature"},
                     {"name": "g", "yield_rate": "nan", "type": "other"}, {"name": "", "yield_rate": 3.0},
                     {"name": "h", "yield_rate": 1.0, "evaluation_count": 1},
                     {"name": "h", "yield_rate": 0.0, "evaluation_count": 3},
                     {"name": "z", "yield_rate": 1.0, "evaluation_count": 0})  # a zero count weighs one
    seen, functions, features = st._random_weighted_analytics_stats(analytics)
    assert seen == 6 and list(features) == ["x"]
    assert functions["f"] == {"yield_total": 5.0, "weight_total": 10.0, "evaluation_count": 10,
                              "yield_rate": 0.5, "failure_rate": 0.5}
    assert functions["g"]["yield_rate"] == 0.0 and functions["h"]["yield_rate"] == 0.25
    assert (functions["z"]["weight_total"], functions["z"]["evaluation_count"], functions["z"]["yield_rate"]) == (
        1.0, 0, 1.0)
    assert st._random_weighted_cum_weights(["a", "f", "b"], rates(analytics)[0]) == [1.0, 2.5, 3.5]


@pytest.mark.parametrize("rate, yield_rate, failure, weight", [(-5, -1.0, 1.0, 0.0), (5000, 1000.0, 0.0, 1001.0),
                                                               ("bad", 0.0, 1.0, 1.0)])
def test_rate_clamps(rate, yield_rate, failure, weight):
    _, stats, _ = st._random_weighted_analytics_stats(rows({"name": "f", "yield_rate": rate}))
    assert (stats["f"]["yield_rate"], stats["f"]["failure_rate"]) == (yield_rate, failure)
    assert st._random_weighted_cum_weights(["f", "g"], rates(rows({"name": "f", "yield_rate": rate}))[0]) == [
        weight, weight + 1.0]


def test_group_rows_credit_every_name_and_prefer_the_row_count():
    analytics = rows(group(["f", "g", 7], ["x"], 0.5, count=2, row_count=4),
                     AnalyticsRow((["f"], []), [AnalyticsWindow("all", -1.0, 4, 0)], 0),
                     AnalyticsRow((["f"], [], []), [AnalyticsWindow("all", 1.0, 1, 0)], 1),  # three parts
                     AnalyticsRow((["f"], []), [], 1),                                      # no window
                     AnalyticsRow(([], [""]), [AnalyticsWindow("all", 1.0, 1, 0)], 1),     # no names
                     AnalyticsRow((["f"], []), {"a": 1}, 1))                                # windows not indexable by 0
    seen, functions, features = st._random_weighted_analytics_stats(analytics)
    assert seen == 2
    assert functions["f"]["evaluation_count"] == 8 and functions["f"]["yield_rate"] == pytest.approx(-0.25)
    assert functions["g"]["evaluation_count"] == 4 and features["x"]["yield_rate"] == 0.5
    assert [e[0] for e in st._random_weighted_analytics_entries(analytics)] == [1, 1]


def test_entries_are_lazy_and_row_cap_counts_malformed_rows():
    class Rows:
        touched = 0

        def __iter__(self):
            for i in range(20000):
                Rows.touched += 1
                yield {"name": "f%d" % i} if i % 2 else "junk"
    entries = st._random_weighted_analytics_entries(NS(rows=Rows()))
    assert Rows.touched == 0
    assert sum(1 for _ in entries) == 5000 and Rows.touched == 10000


def test_name_caps():
    assert st._random_weighted_valid_names(["a", "", 3] + ["b"] * 70) == ["a"] + ["b"] * 61
    assert st._random_weighted_valid_names("abc") == []
    names = ["n%d" % i for i in range(4097)]
    analytics = rows(*({"name": n, "yield_rate": -1.0} for n in names + ["outside"]))
    yields = rates(analytics, names)[0]
    assert len(yields) == 4096 and "n4096" not in yields and "outside" not in yields
    # the 4097th name keeps weight 1.0 beside its zero-weight neighbours
    cum = st._random_weighted_cum_weights(names, yields)
    assert cum[-2] == 0.0 and cum[-1] == 1.0


def test_unlisted_names_do_not_use_the_quota():
    analytics = rows(*({"name": "x%d" % i} for i in range(5000)), {"name": "wanted", "yield_rate": 2.0})
    assert rates(analytics, ["wanted"])[0] == {"wanted": 2.0}


def test_normalized_weights_duplicates_and_the_fall_back_to_equal_weights():
    stats = {"f": {"yield_rate": 1.0}}
    weights = st._random_weighted_normalized_weights(["f", "g", "h"], stats)
    assert weights["f"]["warm_weight"] == 0.5 and weights["g"]["warm_delta"] == pytest.approx(0.25 - 1 / 3)
    assert math.fsum(w["warm_weight"] for w in weights.values()) == pytest.approx(1.0)
    duplicated = st._random_weighted_normalized_weights(["g", "g", "f"], stats)
    assert duplicated["g"]["warm_weight"] == 0.25 and duplicated["g"]["cold_weight"] == pytest.approx(1 / 3)
    assert st._random_weighted_normalized_weights([], stats) == {}
    # when every name only failed, all weigh the same
    analytics = rows({"name": "a", "yield_rate": -1.0}, {"name": "b", "yield_rate": -3.0})
    _, stats, _ = st._random_weighted_analytics_stats(analytics)
    assert st._random_weighted_cum_weights(["a", "b"], rates(analytics)[0]) == [1.0, 2.0]
    assert st._random_weighted_normalized_weights(["a", "b"], stats)["a"] == {
        "cold_weight": 0.5, "warm_weight": 0.5, "warm_delta": 0.0}


def test_feature_specs_skip_bad_entries(info_lines):
    specs = st._random_weighted_feature_specs([{"name": "a", "feature_family": "p"}, 3, {"name": None}])
    assert specs == [{"name": "a", "feature_family": "p", "feature_subfamily": ""}]
    assert st._random_weighted_feature_names(("a",)) == []
    assert info_lines() == ["random_weighted excluded feature entry: expected dict metadata",
                            "random_weighted excluded feature with missing name",
                            "random_weighted excluded feature vocabulary: features must be a list"]

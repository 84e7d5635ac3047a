"""analyze_random_weighted: the keys and defaults of the report, and what it shows of bad inputs."""
import json
import math

import pytest
from types import SimpleNamespace as NS

import quillmarsh.search_templates as st
from quillmarsh.search_analytics import SearchStatsResult

from templates.conftest import feat, make_ctx, rot

FUNCTIONS = [rot("a", function_family="ts", function_subfamily="mean"), rot("b", ["data", "data"]),
             {"name": "flt", "function_type": "filtration"}, rot("big", ["data"] * 5)]
FEATURES = [feat("x", feature_family="px"), feat("y"), 4]
WEIGHT_KEYS = ["yield_rate", "failure_rate", "evaluation_count", "cold_weight", "warm_weight", "warm_delta"]


def test_report_without_analytics(info_lines):
    ctx = make_ctx(FUNCTIONS, FEATURES, era=NS(max_node_count=5))
    del ctx.analytics
    report = st.analyze_random_weighted(ctx)
    assert list(report) == ["analytics_rows_seen", "function_weights", "feature_weights", "unsafe_functions"]
    assert report["analytics_rows_seen"] == 0
    assert report["function_weights"]["a"] == {
        "yield_rate": 0.0, "failure_rate": 1.0, "evaluation_count": 0, "cold_weight": 0.5, "warm_weight": 0.5,
        "warm_delta": 0.0, "function_family": "ts", "function_subfamily": "mean"}
    assert list(report["feature_weights"]["x"]) == WEIGHT_KEYS + ["feature_family", "feature_subfamily"]
    assert report["feature_weights"]["x"]["feature_family"] == "px"
    assert set(report["unsafe_functions"]) == {"flt", "big"}
    assert report["unsafe_functions"]["big"] == "param_schema size 5 exceeds node budget child limit 4"
    # exclusions are not logged by the report; the bad feature entry is
    assert info_lines() == ["random_weighted excluded feature entry: expected dict metadata"]
    json.dumps(report)


def test_report_with_analytics():
    analytics = SearchStatsResult(rows=[{"name": "a", "yield_rate": 1.0, "evaluation_count": 3},
                                        {"name": "y", "yield_rate": 5000, "type": "feature"},
                                        {"name": "zzz", "yield_rate": 1.0}])
    report = st.analyze_random_weighted(make_ctx(FUNCTIONS[:3], FEATURES, analytics=analytics))
    a, b = report["function_weights"]["a"], report["function_weights"]["b"]
    assert report["analytics_rows_seen"] == 3
    assert (a["yield_rate"], a["failure_rate"], a["evaluation_count"]) == (1.0, 0.0, 3)
    assert (a["warm_weight"], b["warm_weight"], b["warm_delta"]) == (pytest.approx(2 / 3), pytest.approx(1 / 3),
                                                                     pytest.approx(1 / 3 - 1 / 2))
    assert math.fsum(e["warm_weight"] for e in report["function_weights"].values()) == pytest.approx(1.0)
    assert report["feature_weights"]["y"]["yield_rate"] == 1000.0
    assert report["feature_weights"]["y"]["failure_rate"] == 0.0


@pytest.mark.parametrize("max_depth, era, big_reason", [
    ("abc", NS(buffer_duration_minutes=60), None),  # read as depth 2: window 30 admits the stateful default 20
    (6, NS(buffer_duration_minutes=60), "config param 'param_1' has no safe int default/range"),
])
def test_report_depth_sets_the_window(max_depth, era, big_reason):
    functions = [rot("w", ["data", {"type": "int", "min": 15}], stateful=True)]
    report = st.analyze_random_weighted(make_ctx(functions, FEATURES, max_depth=max_depth, era=era))
    assert report["unsafe_functions"].get("w") == big_reason


def test_disabled_vocabulary_still_reports():
    report = st.analyze_random_weighted(make_ctx(FUNCTIONS[2:3], [], max_depth=1))
    assert report["function_weights"] == {} and report["feature_weights"] == {}
    assert list(report["unsafe_functions"]) == ["flt"]


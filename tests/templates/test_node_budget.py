"""Tolerant number readers, the era's node and lookback budgets, and the depth the budget allows."""
import pytest
from types import SimpleNamespace as NS

import quillmarsh.search_templates as st


@pytest.mark.parametrize("value, expected", [
    ("nan", 0.0), ("inf", 0.0), (True, 1.0), ("2.5", 2.5), (object(), 0.0), (10 ** 400, 0.0)])
def test_float_reader(value, expected):
    assert st._random_weighted_float(value, 0.0) == expected


@pytest.mark.parametrize("raw, expected", [(0, 100), (-5, 100), ("x", 100), (None, 100), (5000, 1000),
                                           (2.9, 2), ("7", 7), (10 ** 30, 1000), ("1.5", 100), (float("inf"), 100)])
def test_node_limit_from_era(raw, expected):
    assert st._random_weighted_node_limit(NS(era_config=NS(max_node_count=raw))) == expected


def test_era_values_are_attributes_of_either_slot():
    assert st._random_weighted_node_limit(NS(era_config=None, _era_config=NS(max_node_count=9))) == 9
    # a map of settings is not read: the defaults apply
    assert st._random_weighted_node_limit(NS(era_config={"max_node_count": 9})) == 100
    assert st._random_weighted_era_value(NS(era_config=NS(x=None)), "x", 5) is None


@pytest.mark.parametrize("buffer, depth, expected", [
    (None, 6, 3360), (3, 6, 1), (20160, 0, 20160), (20160, "bad", 20160), (1000, "4", 250)])
def test_window_limit(buffer, depth, expected):
    era = NS() if buffer is None else NS(buffer_duration_minutes=buffer)
    assert st._random_weighted_window_limit(NS(era_config=era), depth) == expected


def rotation(data, config=0):
    return {"name": "r", "data_params": [{}] * data, "config_children": [{}] * config}


@pytest.mark.parametrize("rotations, counts, depth", [
    ([rotation(1), rotation(2)], {1: 1, 2: 3, 3: 7, 4: 15, 5: 31, 6: 63}, 6),
    ([rotation(3), rotation(1, 1)], {2: 5, 3: 17, 4: 53, 5: 101}, 4),  # maxima from different rotations
])
def test_worst_case_counts_and_the_deepest_depth_within_100_nodes(rotations, counts, depth):
    assert {d: st._random_weighted_worst_case_node_count(rotations, d, 100) for d in counts} == counts
    assert st._random_weighted_max_depth_within_node_budget(rotations, 6, 100) == depth


@pytest.mark.parametrize("rotations, requested, limit, expected", [
    ([], 6, 100, 1), ([rotation(1)], 1, 100, 1), ([rotation(1)], 6, 3, 3), ([rotation(1)], 500, 1000, 128),
    ([rotation(10 ** 6)], 6, 1000, 1)])
def test_depth_search_bounds(rotations, requested, limit, expected):
    assert st._random_weighted_max_depth_within_node_budget(rotations, requested, limit) == expected


def test_budget_filter_keeps_order_and_logs_exclusions(info_lines):
    big = {"name": "big", "data_params": [{}] * 3, "config_children": [{}]}
    kept = st._random_weighted_rotations_within_node_budget([rotation(1), big, {}], 4)
    assert kept == [rotation(1), {}]
    assert info_lines() == ["random_weighted excluded big from SIGNAL generation: minimum node count 5 exceeds node budget 4"]

import json
import os
import types

import pytest

from quillmarsh.obfuscation import ObfuscationManager, load_vocabulary
from quillmarsh.search_analytics import SearchAnalytics, SearchStatsResult, _resolve_pool_configs
from quillmarsh.simulate_primitives.metaparameters import (canonicalize, resolve_metaparameters,
                                                           resolve_metaparameters_per_pool)


def graph(function, *features):
    return {"type": "rotation", "node": function,
            "children": [{"type": "feature", "node": f} for f in features]}


class _OutcomesOnly:
    """A tracker that offers only the outcome list, not the per-name counts."""

    def __init__(self, tracker):
        self.signal_outcomes = tracker.signal_outcomes


@pytest.mark.parametrize("counted_by", ["store aggregates", "outcome list"])
def test_analytics_rows_speak_for_one_name_each(tracker, counted_by):
    outcomes = [("rank", ("close",), True), ("rank", ("close",), True), ("rank", ("close",), False),
                ("zscore", ("open", "close"), False), ("zscore", ("open", "close"), False),
                ("rank", ("close",), True)]
    for function, features, passed in outcomes:
        tracker.record_signal_evaluation(graph(function, *features), None, 1, passed, "u", {}, pool_id="p1")
    tracker.record_signal_evaluation(graph("other", "x"), None, 1, True, "u", {}, pool_id="elsewhere")
    source = tracker if counted_by == "store aggregates" else _OutcomesOnly(tracker)
    stats = SearchAnalytics(source, _resolve_pool_configs({"era_config": {"signal_pools": [{"name": "p1"}]}})
                            ).get_search_stats()
    assert isinstance(stats, SearchStatsResult) and stats.total_evaluations == 6
    by_key = {(tuple(r.group_key[0]), tuple(r.group_key[1])): r for r in stats.rows}
    assert set(by_key) == {(("rank",), ()), (("zscore",), ()), ((), ("close",)), ((), ("open",))}
    rank, close = by_key[(("rank",), ())], by_key[((), ("close",))]
    assert rank.windows[0].evaluation_count == 4 == rank.evaluation_count
    assert rank.windows[0].yield_rate == pytest.approx((3 / 4) / (3 / 6) - 1.0)
    assert close.evaluation_count == 6 and close.windows[0].yield_rate == pytest.approx(0.0)
    assert by_key[(("zscore",), ())].windows[0].yield_rate == -1.0
    assert stats.rows[0].evaluation_count == 6  # most evaluated first


def test_aggregates_follow_deletions_and_older_stores(tmp_path):
    from quillmarsh.search_tracking import SearchTracker

    def counts(t):
        return {(k, n): (e, p) for k, n, e, p, _, _ in t.signal_name_stats(["p1"])}

    t = SearchTracker(tmp_path)
    for passed in (True, False, False):
        t.record_signal_evaluation(graph("rank", "close"), None, 1, passed, "u", {}, pool_id="p1")
    assert counts(t)[("function", "rank")] == (3, 1)
    t.delete_failed_evaluations()
    assert counts(t)[("function", "rank")] == (1, 1) and counts(t)[("total", "")] == (1, 1)
    # A store written before the aggregates existed: they are counted when it is opened.
    t._conn.execute("DELETE FROM signal_name_stats")
    t.close()
    t = SearchTracker(tmp_path)
    assert counts(t) == {("total", ""): (1, 1), ("function", "rank"): (1, 1), ("feature", "close"): (1, 1)}
    t.close()


@pytest.mark.parametrize("era_config, expected", [
    (None, []),
    ({"signal_pools": [{"signal_pool_id": "a"}, {"name": "b"}, {"name": ""}, {"signal_pool_id": "a"}]}, ["a", "b"]),
    (types.SimpleNamespace(signal_pools=[], _data={"signal_pools": [{"name": "c"}]}), ["c"]),
    ({"signal_pools": "bad"}, []),
])
def test_pool_configs_come_from_the_era_and_analytics_needs_one(era_config, expected, tracker):
    assert [c["pool_id"] for c in _resolve_pool_configs({"era_config": era_config})] == expected
    if not expected:
        with pytest.raises(ValueError):
            SearchAnalytics(tracker, [])


def test_vocabulary_is_read_per_universe(data_dir):
    os.makedirs(os.path.join(data_dir, "universes", "u1"))
    with open(os.path.join(data_dir, "universes", "u1", "vocabulary.json"), "w") as fh:
        json.dump({"functions": [{"name": "rank"}], "features": []}, fh)
    vocab = load_vocabulary(data_dir, "u1")
    assert vocab["functions"] == [{"name": "rank"}]
    with pytest.raises(FileNotFoundError):
        load_vocabulary(data_dir, "u2")
    with pytest.raises(ValueError):
        load_vocabulary(data_dir, "../u1")
    manager = ObfuscationManager(json.dumps(vocab), 3, "u1")
    copy = manager.get_vocabulary()
    copy["functions"].clear()
    assert manager.get_vocabulary() == vocab
    for bad in (None, "[1]", "{"):
        with pytest.raises(ValueError):
            ObfuscationManager(bad, 3, "u1")


PIPELINE = [
    {"name": "normalization", "options": ["none", "rescale"], "default": "none"},
    types.SimpleNamespace(name="decay", options=[0, 5], default=5, per_pool_default=None),
    {"name": "neutralize", "options": None, "default": {"p1": "sector", "p2": "none"}, "per_pool_default": True},
]


def test_each_stage_resolves_to_its_default():
    assert resolve_metaparameters(None, PIPELINE[:2]) == {"normalization": "none", "decay": 5}
    assert resolve_metaparameters({"decay": 0}, PIPELINE[:2])["decay"] == 0
    with pytest.raises(ValueError, match="options"):
        resolve_metaparameters({"decay": 7}, PIPELINE[:2])
    with pytest.raises(ValueError, match="per pool"):
        resolve_metaparameters(None, PIPELINE)


def test_per_pool_defaults_name_a_value_per_pool():
    result = canonicalize(resolve_metaparameters_per_pool(None, PIPELINE, ["p2"]))
    assert result == {"p2": {"decay": 5, "neutralize": "none", "normalization": "none"}}
    mapped = [{"name": "n", "options": [], "default": "x", "per_pool_default": {"p1": "y"}}]
    assert resolve_metaparameters_per_pool(None, mapped, ["p1", "p9"]) == {"p1": {"n": "y"}, "p9": {"n": "x"}}
    with pytest.raises(ValueError, match="no default for pool"):
        resolve_metaparameters_per_pool(None, PIPELINE, ["p3"])
    with pytest.raises(ValueError):
        resolve_metaparameters_per_pool(None, PIPELINE, [None])
    assert canonicalize({1: {2: "a"}}) == {"1": {"2": "a"}}
    with pytest.raises(ValueError):
        canonicalize([("p", {})])

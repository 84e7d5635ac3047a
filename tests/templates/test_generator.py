"""The random_weighted generator: preparation and its log lines, graph shapes, weights and randomness."""
import collections
import random

import pytest
from types import SimpleNamespace as NS

import quillmarsh.search_templates as st
from quillmarsh.search_analytics import SearchStatsResult

from templates.conftest import feat, make_ctx, rot

MIXED = [rot("one", ["data"]), rot("two", ["data", "data"]),
         rot("cfg", {"x": "data", "n": {"type": "int", "min": 2, "max": 10}, "s": {"type": "string", "default": "v"}}),
         rot("mix", [{"type": "float", "default": 0.5}, "data", "data", {"type": "bool", "default": 1}]),
         {"name": "flt", "function_type": "filtration"}]
FEATURES = [feat("f%d" % i) for i in range(5)]


def take(gen, n):
    return [next(gen) for _ in range(n)]


def feature_depths(node, level):
    """(levels of feature leaves) of a rotation node at `level`, checking the rotation's own shape."""
    assert node["type"] == "rotation" and level >= 2 and list(node) == ["type", "node", "children"]
    data = [c for c in node["children"] if c["type"] in ("rotation", "feature")]
    config = node["children"][len(data):]
    assert all(c["type"] in ("int", "float", "bool", "string") and list(c) == ["type", "node"] for c in config)
    depths = []
    for child in data:
        if child["type"] == "feature":
            assert list(child) == ["type", "node"]
            depths.append(level - 1)
        else:
            depths += feature_depths(child, level - 1)
    return depths


def leaves(node):
    yield node
    for child in node.get("children", ()):
        yield from leaves(child)


def test_calling_runs_nothing_until_the_first_request(info_lines):
    reads = []

    class Ctx:
        max_depth = 4
        analytics = None

        @property
        def vocabulary(self):
            reads.append("vocabulary")
            return {"functions": MIXED, "features": FEATURES}
    gen = st.random_weighted(Ctx())
    assert reads == [] and info_lines() == []
    assert iter(gen) is gen
    next(gen)
    assert reads == ["vocabulary"] and len(info_lines()) == 1  # the filtration's exclusion


@pytest.mark.parametrize("functions, features, max_depth, era, lines", [
    (MIXED, FEATURES, "abc", None, ["random_weighted disabled: invalid max_depth 'abc'"]),
    (MIXED, FEATURES, None, None, ["random_weighted disabled: invalid max_depth None"]),
    (MIXED[:1], FEATURES, 1, None, ["random_weighted disabled: max_depth 1 cannot produce a rotation root"]),
    ([], [], 4, None, ["random_weighted disabled: no SIGNAL-safe rotation functions available",
                       "random_weighted disabled: no valid features available"]),
    (MIXED[:1], [3], 4, None, ["random_weighted excluded feature entry: expected dict metadata",
                               "random_weighted disabled: no valid features available"]),
    ([rot("a", ["data", {"type": "int", "default": 1}, {"type": "int", "default": 2}]),
      rot("b", ["data", "data", "data"])], FEATURES, 4, NS(max_node_count=4),
     ["random_weighted disabled: node budget 4 cannot produce a rotation root"]),
])
def test_disabled_generator_logs_and_yields_nothing(functions, features, max_depth, era, lines, info_lines):
    gen = st.random_weighted(make_ctx(functions, features, max_depth, era=era))
    assert list(gen) == []
    assert info_lines() == lines


def test_invalid_vocabulary_entry_ends_with_the_schema_error():
    ctx = make_ctx()
    ctx.vocabulary = {"rotations": [{"name": "r"}], "features": []}
    gen = st.random_weighted(ctx)
    with pytest.raises(st.VocabSchemaError):
        next(gen)
    with pytest.raises(StopIteration):
        next(gen)


def test_shape_invariants_over_many_draws(info_lines):
    random.seed(11)
    graphs = take(st.random_weighted(make_ctx(MIXED, FEATURES, max_depth=50, era=NS(max_node_count=1000))), 3000)
    assert "capped" not in " ".join(info_lines())  # 50 is silently 6, and 6 fits a budget of 1000
    seen_depths = collections.Counter()
    for graph in graphs:
        depths = set(feature_depths(graph, 10))
        assert len(depths) == 1  # a full tree: every feature leaf on one level
        seen_depths[10 - depths.pop() + 1] += 1
        assert graph["node"] in {"one", "two", "cfg", "mix"}
    assert sorted(seen_depths) == [2, 3, 4, 5, 6]
    all_dicts = [node for graph in graphs for node in leaves(graph)]
    assert len({id(node) for node in all_dicts}) == len(all_dicts)  # nothing shared, within or across graphs
    cfg = next(n for g in graphs for n in leaves(g) if n.get("node") == "cfg")
    assert [c["type"] for c in cfg["children"]][1:] == ["int", "string"] and cfg["children"][1]["node"] == 6
    mix = next(n for g in graphs for n in leaves(g) if n.get("node") == "mix")
    assert mix["children"][2:] == [{"type": "float", "node": 0.5}, {"type": "bool", "node": True}]


def test_node_budget_caps_the_depth(info_lines):
    gen = st.random_weighted(make_ctx([rot("two", ["data", "data"])], FEATURES, 6, era=NS(max_node_count=7)))
    sizes = {sum(1 for _ in leaves(g)) for g in take(gen, 500)}
    assert sizes == {3, 7}
    assert info_lines() == ["random_weighted capped max_depth from 6 to 3 to stay within node budget 7"]


def test_depth_two_is_one_rotation_over_features():
    for graph in take(st.random_weighted(make_ctx(MIXED[:2], FEATURES, max_depth="2")), 300):
        assert all(c["type"] == "feature" for c in graph["children"])
        assert len(graph["children"]) == {"one": 1, "two": 2}[graph["node"]]


def test_random_seed_makes_runs_repeatable():
    ctx = make_ctx(MIXED, FEATURES, max_depth=5)
    runs = []
    for seed in (3, 3, 4):
        random.seed(seed)
        runs.append(take(st.random_weighted(ctx), 50))
    assert runs[0] == runs[1] != runs[2]
    # the draws advance the shared random state
    random.seed(3)
    untouched = random.random()
    random.seed(3)
    take(st.random_weighted(ctx), 5)
    assert random.random() != untouched


@pytest.mark.parametrize("functions, analytics, low, high, a_arity", [
    (MIXED[:2], SearchStatsResult(rows=[{"name": "one", "yield_rate": 2.0}]), 0.70, 0.80, None),  # weights 3 : 1
    # a name listed twice has double weight and the later record
    ([rot("one", ["data"]), rot("b"), rot("one", ["data", "data"])], None, 0.62, 0.72, {2}),
])
def test_weights_bend_the_choice_of_the_root(functions, analytics, low, high, a_arity):
    random.seed(1)
    graphs = take(st.random_weighted(make_ctx(functions, FEATURES, max_depth=2, analytics=analytics)), 3000)
    assert low < sum(g["node"] == "one" for g in graphs) / 3000 < high
    if a_arity:
        assert {len(g["children"]) for g in graphs if g["node"] == "one"} == a_arity


def test_weights_follow_the_identity_of_the_analytics_object():
    never_one = SearchStatsResult(rows=[{"name": "one", "yield_rate": -1.0}])
    reads = []

    class Ctx:
        vocabulary = {"functions": MIXED[:2], "features": FEATURES}
        max_depth = 2
        current = never_one

        @property
        def analytics(self):
            reads.append(1)
            return self.current
    ctx = Ctx()
    gen = st.random_weighted(ctx)
    assert {g["node"] for g in take(gen, 300)} == {"two"}
    assert len(reads) == 300
    never_one.rows[0] = {"name": "two", "yield_rate": -1.0}  # changed in place: not noticed
    assert {g["node"] for g in take(gen, 300)} == {"two"}
    ctx.current = SearchStatsResult(rows=list(never_one.rows))  # replaced: picked up at the next draw
    assert {g["node"] for g in take(gen, 300)} == {"one"}


def test_failing_analytics_ends_the_generator_and_close_finishes_it():
    class Ctx:
        vocabulary = {"functions": MIXED[:1], "features": FEATURES}
        max_depth = 3

        @property
        def analytics(self):
            raise RuntimeError("analytics gone")
    gen = st.random_weighted(Ctx())
    with pytest.raises(RuntimeError, match="analytics gone"):
        next(gen)
    assert list(gen) == []
    gen = st.random_weighted(make_ctx(MIXED, FEATURES))
    next(gen)
    gen.close()
    assert list(gen) == []


def test_a_real_search_context_drives_the_generator():
    from engine.helpers import ERA, FakeBacktester, RecordingTracker
    vocab = {"functions": MIXED, "features": FEATURES}
    ctx = st.SearchContext(vocab, "U1", {}, 3, RecordingTracker(), None, FakeBacktester(), None, ERA)
    graphs = take(st.random_weighted(ctx), 100)
    assert all(len(set(feature_depths(g, 3))) == 1 for g in graphs)
    report = st.analyze_random_weighted(ctx)
    assert set(report["function_weights"]) == {"one", "two", "cfg", "mix"}


def test_a_context_that_keeps_its_generator_is_collected():
    import gc
    import weakref

    class Ctx:
        vocabulary = {"functions": MIXED[:1], "features": FEATURES}
        max_depth = 3
        analytics = None
    ctx = Ctx()
    ctx.gen = st.random_weighted(ctx)
    next(ctx.gen)
    ref = weakref.ref(ctx)
    del ctx
    gc.collect()
    assert ref() is None

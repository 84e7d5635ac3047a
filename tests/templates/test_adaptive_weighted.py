"""adaptive_weighted: learning from outcomes recorded during a run, never repeating a graph evaluated in the
era, surviving bad analytics, steering away from near-copies, and finding a planted edge on the local
platform."""
import itertools
import json
from types import SimpleNamespace

import pytest

import quillmarsh.search_templates as st
from quillmarsh.search_tracking import SearchTracker
from templates.conftest import feat, rot

POOL = "pool-a"
ERA = {"era_id": 3, "thresholds": {"sharpe_min": 1.0}, "signal_pools": [{"signal_pool_id": POOL}]}


def functions():
    return [rot("smooth", ["data"], function_subfamily="smoothing"),
            rot("flip", ["data"], function_subfamily="difference"),
            rot("mix", ["data", "data"], function_subfamily="binary")]


def make_ctx(tracker, funcs=None, features=("good", "n1", "n2", "n3"), depth=3):
    vocab = {"functions": funcs if funcs is not None else functions(), "features": [feat(f) for f in features]}
    return st.SearchContext(vocab, "U1", {}, depth, tracker, None, None, None, dict(ERA))


def leaves(graph):
    if graph["type"] == "feature":
        return [graph["node"]]
    return [name for child in graph.get("children", []) for name in leaves(child)]


def record(tracker, graph, passed):
    tracker.record_signal_evaluation(graph, None, ERA["era_id"], passed, "U1", {}, pool_id=POOL)


@pytest.fixture
def store(tmp_path):
    tracker = SearchTracker(tmp_path / "store")
    yield tracker
    tracker.close()


def test_outcomes_recorded_during_a_run_change_later_draws(store):
    features = ("good", "n1", "n2", "n3", "n4", "n5")
    gen = st.adaptive_weighted(make_ctx(store, features=features, depth=4), refresh_seconds=3600.0,
                               refresh_evaluations=60, explore_share=0.1, local_share=0.0)
    before = [next(gen) for _ in range(60)]
    share = lambda graphs: sum("good" in leaves(g) for g in graphs) / len(graphs)  # noqa: E731
    # The run's outcomes: whatever used "good" passed, everything else failed.
    for graph in before:
        record(store, graph, "good" in leaves(graph))
    after = [next(gen) for _ in range(400)]  # the first of these refreshes
    assert share(after) > share(before) + 0.15, (share(before), share(after))
    learnt = st.adaptive_weighted_learning()
    assert learnt["refreshes"] >= 1 and learnt["refresh_failures"] == 0
    weights = learnt["feature_weights"]
    # The other features pass too where they stand beside "good", so their weights rise less, not never.
    assert weights["good"] > max(weights[f] for f in features[1:])


def test_the_first_refresh_comes_early_whatever_cadence_was_asked_for(store):
    features = ("good", "n1", "n2", "n3", "n4", "n5")
    gen = st.adaptive_weighted(make_ctx(store, features=features, depth=4), refresh_seconds=3600.0,
                               refresh_evaluations=10**6)
    for _ in range(150):
        next(gen)
    assert st.adaptive_weighted_learning()["refreshes"] >= 1


def test_no_graph_already_in_the_store_is_drawn_again_and_workers_share_what_was_drawn(store):
    funcs = [rot("smooth", ["data"]), rot("mix", ["data", "data"])]
    feats = ("a", "b", "c")
    space = [{"type": "rotation", "node": "smooth", "children": [{"type": "feature", "node": x}]} for x in feats]
    space += [{"type": "rotation", "node": "mix", "children": [{"type": "feature", "node": x},
                                                               {"type": "feature", "node": y}]}
              for x, y in itertools.permutations(feats, 2)]  # mix(x, x) is x again: never drawn
    for graph in space[::2]:  # half of the depth-2 space was evaluated by an earlier run of the era
        record(store, graph, False)
    first = st.adaptive_weighted(make_ctx(store, funcs, feats, depth=2), explore_share=1.0, local_share=0.0)
    second = st.adaptive_weighted(make_ctx(store, funcs, feats, depth=2), explore_share=1.0, local_share=0.0)
    drawn, exhausted = [], set()
    for gen in itertools.islice(itertools.cycle((first, second)), 100):
        try:
            drawn.append(json.dumps(next(gen), sort_keys=True))
        except StopIteration:
            exhausted.add(id(gen))
            if len(exhausted) == 2:
                break
    expected = {json.dumps(g, sort_keys=True) for g in space[1::2]}
    assert sorted(drawn) == sorted(expected)  # each remaining graph once, across both workers
    with pytest.raises(StopIteration):
        next(first)


class Ctx:
    """A context whose analytics misbehave in the given way."""

    def __init__(self, analytics=None, refresh=None, analytics_error=None):
        self.vocabulary = {"functions": functions(), "features": [feat("a"), feat("b")]}
        self.max_depth = 3
        self._analytics, self._refresh, self._analytics_error = analytics, refresh, analytics_error
        self.refreshed = 0

    @property
    def analytics(self):
        if self._analytics_error:
            raise self._analytics_error
        return self._analytics

    def refresh_analytics(self):
        self.refreshed += 1
        if self._refresh:
            raise self._refresh
        return self._analytics


class Rows:
    def __iter__(self):
        raise RuntimeError("rows cannot be read")


class Row:
    group_key = (["smooth"], ["a"])

    @property
    def windows(self):
        raise RuntimeError("broken window")


@pytest.mark.parametrize("ctx", [
    Ctx(refresh=RuntimeError("store gone")),
    Ctx(analytics_error=ValueError("no analytics")),
    Ctx(analytics=type("S", (), {"rows": Rows(), "total_evaluations": "many"})()),
    Ctx(analytics=type("S", (), {"rows": [Row(), {"name": 5}, None, ("x",)], "total_evaluations": 1})()),
    Ctx(analytics=type("S", (), {"rows": [{"name": "smooth", "yield_rate": "nan", "evaluation_count": -3}]})()),
], ids=["refresh raises", "analytics raises", "rows raise", "foreign rows", "bad numbers"])
def test_failing_or_malformed_analytics_neither_raise_nor_stop_the_template(ctx):
    gen = st.adaptive_weighted(ctx, refresh_seconds=0.0, refresh_evaluations=1)
    graphs = [next(gen) for _ in range(30)]
    assert all(g["type"] == "rotation" for g in graphs)
    assert len({json.dumps(g, sort_keys=True) for g in graphs}) == 30
    assert ctx.refreshed >= 29


def depth_of(graph):
    return 1 + max((depth_of(c) for c in graph.get("children", []) if c["type"] in ("rotation", "feature")),
                   default=0)


def nodes_of(graph):
    return 1 + sum(nodes_of(c) for c in graph.get("children", []))


def test_near_copies_of_a_found_signal_are_never_drawn(store):
    flip_good = {"type": "rotation", "node": "flip", "children": [{"type": "feature", "node": "good"}]}
    record(store, flip_good, True)
    ctx = make_ctx(store, [rot("smooth", ["data"], function_subfamily="smoothing"),
                           rot("flip", ["data"], function_subfamily="difference")], ("good", "n1"), depth=3)
    gen = st.adaptive_weighted(ctx, explore_share=0.5, local_share=0.5)
    drawn = []
    with pytest.raises(StopIteration):
        while len(drawn) < 50:
            drawn.append(json.dumps(next(gen), sort_keys=True))
    # 12 full trees of depth 2 and 3: the found one and its two smoothed copies are left out, and nothing
    # is repeated.
    smooth = lambda g: {"type": "rotation", "node": "smooth", "children": [g]}  # noqa: E731
    copies = [json.dumps(g, sort_keys=True) for g in
              (smooth(flip_good), dict(flip_good, children=[smooth(flip_good["children"][0])]))]
    assert len(drawn) == len(set(drawn)) == 9 and not set(copies) & set(drawn)
    learnt = st.adaptive_weighted_learning()
    assert learnt["near_copies_skipped"] >= 1 and learnt["found"] == 1


def test_local_moves_stay_near_found_signals_and_within_the_budget(store):
    flip = lambda x: {"type": "rotation", "node": "flip", "children": [{"type": "feature", "node": x}]}  # noqa: E731
    found = {"type": "rotation", "node": "mix", "children": [flip("good"), flip("n1")]}
    record(store, found, True)
    era = SimpleNamespace(**ERA, max_node_count=9)
    features = [feat(f) for f in ("good", "n1", "n2", "n3", "n4", "n5")]
    ctx = st.SearchContext({"functions": functions(), "features": features}, "U1", {}, 4, store, None, None, None, era)
    gen = st.adaptive_weighted(ctx, explore_share=0.0, local_share=0.9)
    graphs = [next(gen) for _ in range(300)]
    # Two-input functions cap full trees at depth 3 under 9 nodes; moves that outgrow that are not drawn.
    assert all(depth_of(g) <= 3 and nodes_of(g) <= 9 for g in graphs)
    learnt = st.adaptive_weighted_learning()
    assert learnt["draws"]["local"] > 50 and learnt["found"] == 1
    # The found signal fills the depth: a combination takes a subtree of it under the new root.
    assert learnt["local_moves"]["combine"] > 0
    parts = [json.dumps(flip("good"), sort_keys=True), json.dumps(flip("n1"), sort_keys=True)]
    near = sum(any(p in json.dumps(g, sort_keys=True) for p in parts) for g in graphs)
    assert near > 0.3 * len(graphs), near


def node(name, *children):
    return {"type": "rotation", "node": name, "children": list(children)}


LEAF = {"type": "feature", "node": "n1"}


@pytest.mark.parametrize("evaluated, sharpe, mirror", [
    (node("flip", LEAF), -2.0, node("neg", node("flip", LEAF))),
    (node("neg", node("flip", LEAF)), -1.5, node("flip", LEAF)),
    # At full depth an order-keeping wrapper at the root gives way to the sign flip.
    (node("smooth", node("flip", LEAF)), -3.0, node("neg", node("flip", LEAF))),
    (node("flip", LEAF), -0.5, None),  # not beyond the era's floor of 1.0: nothing to mirror
])
def test_a_graph_with_a_strongly_negative_sharpe_is_mirrored_first(store, evaluated, sharpe, mirror):
    from quillmarsh.search_tracking import BacktestStats

    store.record_signal_evaluation(evaluated, BacktestStats(sharpe=sharpe), ERA["era_id"], False, "U1", {},
                                   pool_id=POOL)
    funcs = functions() + [rot("neg", ["data"], function_subfamily="unary")]
    gen = st.adaptive_weighted(make_ctx(store, funcs, depth=3))
    first = next(gen)
    if mirror is None:
        assert st.adaptive_weighted_learning()["draws"]["mirror"] == 0
    else:
        assert first == mirror and st.adaptive_weighted_learning()["draws"]["mirror"] == 1


@pytest.mark.parametrize("kwargs, error", [
    ({"refresh_seconds": -1.0}, ValueError),
    ({"refresh_seconds": "soon"}, ValueError),
    ({"refresh_evaluations": 0}, ValueError),
    ({"refresh_evaluations": 2.5}, ValueError),
    ({"explore_share": 1.5}, ValueError),
    ({"explore_share": 0.7, "local_share": 0.7}, ValueError),
    ({"wrapper_subfamilies": "smoothing"}, TypeError),
    ({"wrapper_subfamilies": [3]}, TypeError),
    ({"mirror_function": 7}, TypeError),
])
def test_bad_settings_are_refused_at_the_call(kwargs, error):
    with pytest.raises(error):
        st.adaptive_weighted(Ctx(), **kwargs)


def test_canonical_hash_ignores_key_order_and_tells_graphs_apart():
    a = {"type": "rotation", "node": "mix", "children": [{"type": "feature", "node": "x"},
                                                         {"type": "feature", "node": "y"}, {"type": "int", "node": 5}]}
    reordered = {"children": [{"node": "x", "type": "feature"}, {"node": "y", "type": "feature"},
                              {"node": 5, "type": "int"}], "node": "mix", "type": "rotation"}
    variants = [dict(a, children=list(reversed(a["children"][:2])) + a["children"][2:]),
                dict(a, children=a["children"][:2] + [{"type": "int", "node": 6}]),
                dict(a, children=a["children"][:2] + [{"type": "string", "node": "5"}]),
                dict(a, node="max2")]
    h = st._adaptive_weighted_graph_hash
    assert h(a) == h(reordered) == h(json.loads(json.dumps(a)))
    assert len({h(a), *map(h, variants)}) == 1 + len(variants)


@pytest.fixture
def restore_onboarding():
    from quillmarsh import agent_onboarding

    config = dict(agent_onboarding._config)
    yield
    agent_onboarding.logout()
    agent_onboarding._config.clear()
    agent_onboarding._config.update(config)
    agent_onboarding.set_evaluator_factory(None)


def test_a_short_search_on_the_local_platform_finds_a_planted_edge(tmp_path, restore_onboarding):
    import time

    from quillmarsh.local import platform
    from quillmarsh.local.vocabulary import PLANTED_FEATURES

    local = platform.setup(tmp_path / "platform", n_instruments=150, n_days=600, seed=11)
    planted = {local.evaluator.feature_name(name) for name in PLANTED_FEATURES}
    handle = st.search(st.adaptive_weighted, n_jobs=1)
    conn = st._library_runtime.search_tracker._conn
    deadline = time.monotonic() + 60.0
    try:
        while time.monotonic() < deadline:
            time.sleep(0.5)
            rows = conn.execute("SELECT graph_json FROM signal_evaluations WHERE passed = 1").fetchall()
            found = [json.loads(g) for (g,) in rows]
            if any(planted & set(leaves(g)) for g in found) and len(found) >= 3:
                break
    finally:
        handle.stop()
    with_edge = [g for g in found if planted & set(leaves(g))]
    assert with_edge, "no signal on a planted feature among %d found" % len(found)

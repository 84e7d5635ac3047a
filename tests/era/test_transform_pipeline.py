from types import SimpleNamespace as NS

import pytest

import quillmarsh.search_templates as st


def stage(name="s", **extra):
    return {"name": name, "options": ["a", "b"], "default": "a", **extra}


A, B, C = [stage("a")], [stage("b")], [stage("c")]


@pytest.mark.parametrize(
    "config, expected",
    [
        ({"transform_pipeline_config": [], "transform_pipeline": A}, []),
        ({"transform_pipeline_config": None, "transform_pipeline": A}, A),
        ({"transform_pipeline": tuple(A)}, []),
        # the raw map's transform_pipeline comes before the attribute of that name
        (NS(transform_pipeline=A, _data={"transform_pipeline": B}), B),
        (NS(transform_pipeline_config=None, _data={"transform_pipeline_config": C, "transform_pipeline": B}), C),
    ],
)
def test_pipeline_source_order(config, expected):
    got = st._era_transform_pipeline_config(config)
    assert got == expected and type(got) is list and got is not A


@pytest.mark.parametrize(
    "config, message",
    [
        ({"transform_pipeline_config": [], "transform_pipeline": A}, "search era config missing transform_pipeline"),
        ({"transform_pipeline": [stage(), {"name": "x", "default": 1}]}, "search era transform_pipeline must "
         "include name, options, and default for every stage"),
        ({"transform_pipeline": [stage(), {"name": None, "options": [], "default": 0}]}, "search era "
         "transform_pipeline must include name, options, and default for every stage"),
    ],
)
def test_pipeline_problems_are_not_ready_errors(config, message, resolvers, not_ready):
    with pytest.raises(not_ready, match=f"^{message}$"):
        st._resolve_search_metaparameters_from_era_config(config, "pool")
    assert resolvers.calls == []


def test_a_stage_whose_options_and_default_are_null_still_has_the_contract():
    assert st._stage_has_default_contract({"name": "n", "options": None, "default": None}) is True


def test_era_wide_resolution_passes_none_and_the_pipeline(resolvers):
    pipeline = [stage("winsor")]
    resolvers.resolved = {1: "x", "winsor": "a"}
    got = st._resolve_search_metaparameters_from_era_config({"transform_pipeline": pipeline}, None)
    assert got == {"1": "x", "winsor": "a"}
    assert resolvers.calls == [("resolve", None, pipeline)]
    assert resolvers.resolved == {1: "x", "winsor": "a"}  # the resolver's map is left alone


def test_per_pool_resolution_takes_this_pools_entry(resolvers):
    pipeline = [stage("winsor", per_pool_default=True)]
    resolvers.per_pool = {"p1": {"winsor": "b"}, "p2": {"winsor": "a"}}
    config = {"transform_pipeline": pipeline}
    assert st._resolve_search_metaparameters_from_era_config(config, "p1") == {"winsor": "b"}
    assert resolvers.calls[0] == ("per_pool", None, pipeline, ["p1"])
    assert st._resolve_search_metaparameters_from_era_config(config, "unknown") == {}


@pytest.mark.parametrize("pool_id, error", [(None, None), ("", None), ("p", RuntimeError("resolver down"))])
def test_resolution_failures_keep_their_cause(pool_id, error, resolvers, not_ready):
    resolvers.error = error
    with pytest.raises(not_ready, match="^failed to resolve search metaparameters from era config$") as info:
        st._resolve_search_metaparameters_from_era_config({"transform_pipeline": [stage(per_pool_default=1)]}, pool_id)
    cause = info.value.__cause__
    if error is None:
        assert type(cause) is ValueError and str(cause) == "per-pool transform defaults require a signal pool id"
    else:
        assert cause is error


@pytest.mark.parametrize(
    "options, resolved, expected",
    [
        (["none", "rescale"], {"normalization": "zscore"}, {"normalization": "rescale"}),
        ((1, "rescale"), {}, {"normalization": "rescale"}),
        (["none"], {"normalization": "zscore"}, {"normalization": "zscore"}),
        (None, {"normalization": "zscore"}, {"normalization": "zscore"}),
    ],
)
def test_normalization_offering_rescale_overrides_the_resolver(options, resolved, expected, resolvers):
    resolvers.resolved = resolved
    config = {"transform_pipeline": [stage("other", options=["rescale"]),
                                     {"name": "normalization", "options": options, "default": "none"}]}
    assert st._resolve_search_metaparameters_from_era_config(config, None) == expected


class Backtester:
    def __init__(self):
        self.calls = []

    def only_graph(self, expr_graph):
        self.calls.append(("only_graph", expr_graph))
        return "g"

    def universe_only(self, expr_graph, universe_id=None, other=None):
        self.calls.append(("universe_only", expr_graph, universe_id))
        return universe_id

    def lying(self, expr_graph, **kwargs):
        self.calls.append(("lying", sorted(kwargs)))
        if kwargs:
            raise TypeError("lying() got an unexpected keyword argument 'universe_id'")
        return "retried"

    def other_keyword(self, expr_graph, **kwargs):
        self.calls.append(("other_keyword", sorted(kwargs)))
        raise TypeError("run() got an unexpected keyword argument 'seed'")

    def plain_type_error(self, expr_graph, **kwargs):
        self.calls.append(("plain",))
        raise TypeError("universe_id must be a str")


CONTEXT = dict(metaparameters={"m": 1}, transform_pipeline=[stage()], universe_id="u")
ALL = ["metaparameters", "transform_pipeline", "universe_id"]


@pytest.mark.parametrize("method, result, calls", [
    ("only_graph", "g", [("only_graph", {"g": 1})]),
    ("universe_only", "u", [("universe_only", {"g": 1}, "u")]),
    # a rejected keyword of ours is retried once with the graph alone; other type errors reach the caller
    ("lying", "retried", [("lying", ALL), ("lying", [])]),
    ("other_keyword", TypeError, [("other_keyword", ALL)]),
    ("plain_type_error", TypeError, [("plain",)]),
])
def test_calls_pass_only_what_the_method_takes(method, result, calls):
    bt = Backtester()
    if result is TypeError:
        with pytest.raises(TypeError):
            st._call_backtester_with_transform_context(bt, method, {"g": 1}, **CONTEXT)
    else:
        assert st._call_backtester_with_transform_context(bt, method, {"g": 1}, **CONTEXT) == result
    assert bt.calls == calls


def test_builtin_without_signature_gets_every_keyword():
    graph = {"type": "feature"}
    assert st._call_backtester_with_transform_context(NS(run=dict), "run", graph, **CONTEXT) == {**graph, **CONTEXT}

"""Reading param_schema and synthesizing a safe fixed value for every configuration parameter."""
import pytest
from types import SimpleNamespace as NS

import quillmarsh.search_templates as st

from templates.conftest import rot


def schema_of(schema, window_limit=None, node_limit=None, **fields):
    return st._random_weighted_rotation_schema(rot("f", schema, **fields), window_limit, node_limit)


def config_nodes(result):
    assert result["safe"], result
    return [(leaf["type"], leaf["node"]) for leaf in result["config_children"]]


def test_data_inputs_take_default_names_and_map_keys():
    result = schema_of(["data", "data"])
    assert [p["name"] for p in result["data_params"]] == ["param_0", "param_1"]
    result = schema_of({"x": "data", "n": {"type": "int", "min": 2, "max": 10}})
    assert result["data_params"] == [{"type": "data", "name": "x"}]
    assert config_nodes(result) == [("int", 6)]


@pytest.mark.parametrize("param, fields, window, expected", [
    ({"type": "int", "min": 1, "max": 4}, {}, None, ("int", 2)),
    ({"type": "int", "min": 2, "max": 5}, {}, None, ("int", 4)),
    ({"type": "int"}, {"stateful": True}, 3360, ("int", 20)),
    ({"type": "int", "min": 30}, {"stateful": True}, 3360, ("int", 30)),
    ({"type": "int", "max": 5}, {"stateful": True}, 3360, ("int", 5)),
    ({"type": "int", "default": 1}, {}, None, ("int", 1)),
    ({"type": "int", "min": 2.5}, {}, None, ("int", 3)),
    ({"type": "float", "min": 2.5}, {}, None, ("float", 2.5)),
    ({"type": "float", "min": -4, "max": -2}, {}, None, ("float", -3.0)),
    ({"type": "string", "choices": [], "options": ["a"]}, {}, None, ("string", "a")),
    ({"type": "bool", "default": "no"}, {}, None, ("bool", True)),
    # a non-stateful function's integers ignore the lookback budget
    ({"type": "int", "default": 5000}, {}, 3360, ("int", 5000)),
])
def test_synthesized_values(param, fields, window, expected):
    (leaf,) = config_nodes(schema_of(["data", param], window, **fields))
    assert leaf == expected and type(leaf[1]) is type(expected[1])


@pytest.mark.parametrize("schema, fields, window, node_limit, reason", [
    (None, {}, None, None, "rotation metadata missing param_schema"),
    ([], {}, None, None, "rotation metadata param_schema is empty"),
    ("data", {}, None, None, "unsupported param_schema container str"),
    (["data", "data", "data", {"type": "int", "variadic": True}], {}, None, None,
     "unsupported param_schema entry at index 3"),
    ({"x": "data", "k": {"name": "k"}}, {}, None, None, "unsupported param_schema entry for 'k'"),
    (["data", "data", "float"], {}, None, 3, "param_schema size 3 exceeds node budget child limit 2"),
    (["data"], {}, None, 1, "param_schema minimum node count exceeds node budget 1"),
    (["data", "filtration"], {}, None, None, "rotation requires filtration input, which is not SIGNAL-safe"),
    (["data", "matrix"], {}, None, None, "unsupported param_schema type 'matrix'"),
    (["int"], {}, None, None, "config param 'param_0' has no safe int default/range"),
    ([{"type": "int", "default": 3}], {}, None, None, "rotation metadata declares no data input"),
    (["data"], {"arity": 2}, None, None, "arity metadata 2 does not match param_schema data inputs 1"),
    (["data"], {"arity": 0}, None, None, "invalid arity metadata 0"),
    (["data", {"type": "int", "min": 30, "max": 5}], {"stateful": True}, 3360, None,
     "config param 'param_1' has no safe int default/range"),
    (["data", {"name": "n", "type": "int", "default": 5000}], {"stateful": True}, 3360, None,
     "config param 'n' window 5000 exceeds per-node lookback budget 3360"),
    (["data", {"name": "n", "type": "int", "default": 50, "max": 10}], {}, None, None,
     "config param 'n' default 50 outside declared range [-inf, 10.0]"),
    (["data", {"type": "int", "default": True}], {}, None, None, "config param 'param_1' has no safe int default/range"),
    (["data", {"type": "int", "default": -1}], {}, None, None, "config param 'param_1' has no safe int default/range"),
    (["data", {"type": "float", "default": "0.5"}], {}, None, None,
     "config param 'param_1' has no safe float default/range"),
    (["data", {"type": "float", "default": 2e9}], {}, None, None,
     "config param 'param_1' emitted value 2000000000.0 exceeds hard config bound +/-1000000000.0"),
    (["data", {"type": "float", "default": 1.0, "min": "a"}], {}, None, None,
     "config param 'param_1' has invalid numeric range metadata"),
    (["data", "string"], {}, None, None, "config param 'param_1' has no safe string default/range"),
])
def test_refusals(schema, fields, window, node_limit, reason):
    assert schema_of(schema, window, node_limit, **fields) == {"safe": False, "reason": reason}


def test_config_children_follow_data_whatever_the_schema_order():
    result = schema_of([{"type": "float", "default": 1.5}, "data", {"type": "string", "default": "z"}, "data"])
    assert [p["name"] for p in result["data_params"]] == ["param_1", "param_3"]
    assert config_nodes(result) == [("float", 1.5), ("string", "z")]


def test_object_parameters_are_read_by_attribute():
    raw = NS(name="w", type="int", min=None, default=7)
    assert st._random_weighted_param_dict(raw, "param_0") == {"name": "w", "type": "int", "min": None, "default": 7}
    assert st._random_weighted_param_dict(NS(), "param_0") is None
    assert st._random_weighted_param_dict({"type": None, "name": ""}, "p") == {"type": None, "name": "p"}


def test_window_bound_narrows_declared_range():
    bounded = st._random_weighted_window_bounded_param({"type": "int", "max": "9000"}, 3360)
    assert (bounded["min"], bounded["max"]) == (1, 3360)
    assert st._random_weighted_window_bounded_param({"max": 40.7}, 3360)["max"] == 40
    assert st._random_weighted_numeric_bounds({"min": 1, "max": "x"}) == (True, 1.0, True, None, False)


def test_schema_refusal_leaves_the_vocabulary_unchanged():
    fn = rot("f", {"x": "data", "n": {"type": "int"}}, stateful=True)
    st._random_weighted_rotation_schema(fn, 3360, 100)
    assert fn["param_schema"]["n"] == {"type": "int"}

from types import SimpleNamespace as NS

import pytest

import quillmarsh.search_templates as st

MISSING = object()


@pytest.mark.parametrize(
    "config, expected",
    [
        (None, MISSING),
        ({"x": 1}, 1),
        ({"x": None}, None),
        ({}, MISSING),
        (NS(x=2), 2),
        (NS(x=None), None),
        (NS(), MISSING),
        (NS(_data={"x": 3}), MISSING),  # the lookup never reads _data
    ],
)
def test_lookup_reads_key_or_attribute_and_keeps_a_present_none(config, expected):
    assert st._era_config_lookup(config, "x", MISSING) is expected


def test_raw_dict_is_the_configurations_own_map():
    raw = {"a": 1}
    assert st._era_config_raw_dict(raw) is raw
    assert st._era_config_raw_dict(NS(_data=raw)) is raw
    for config in (None, NS(), NS(_data=[1, 2]), NS(_data=None)):
        assert st._era_config_raw_dict(config) == {}


@pytest.mark.parametrize(
    "config, expected",
    [
        (NS(x=None, _data={"x": 5}), 5),  # a None attribute falls through to the raw map
        (NS(x=4, _data={"x": 5}), 4),
        (NS(_data={}), "dflt"),
        (NS(_data="not a map"), "dflt"),
        ({"x": None}, None),  # a map is its own raw map: the present None stands
        (None, "dflt"),
    ],
)
def test_field_tries_attribute_then_raw_map_then_default(config, expected):
    assert st._era_config_field(config, "x", "dflt") == expected


def test_a_getter_that_fails_otherwise_than_missing_propagates():
    class Broken:
        @property
        def signal_pools(self):
            raise KeyError("boom")

    with pytest.raises(KeyError):
        st._signal_pools_from_era_config(Broken())


@pytest.mark.parametrize(
    "columns, expected",
    [
        (["net", "gross"], "net"),
        (("net",), "net"),
        (["", "net"], "gross_returns"),
        ([], "gross_returns"),
        ([7, "net"], "gross_returns"),
        ("net", "gross_returns"),
        (None, "gross_returns"),
    ],
)
def test_primary_pnl_column_is_only_ever_the_first(columns, expected):
    assert st._primary_evaluation_pnl_column({"evaluation_pnl_columns": columns}) == expected
    assert st._primary_evaluation_pnl_column(NS(evaluation_pnl_columns=columns)) == expected


def test_primary_pnl_column_ignores_raw_map_and_null_config():
    assert st._primary_evaluation_pnl_column(NS(_data={"evaluation_pnl_columns": ["net"]})) == "gross_returns"
    assert st._primary_evaluation_pnl_column(None) == "gross_returns"


@pytest.mark.parametrize(
    "pool, expected",
    [
        ({"signal_pool_id": "a", "name": "b"}, "a"),
        ({"signal_pool_id": "", "name": "p"}, "p"),
        ({"name": 7}, None),
        ({"signal_pool_id": 3}, None),
        (NS(signal_pool_id=None, name="q"), "q"),
        (NS(), None),
        ("a string", None),
    ],
)
def test_pool_id_from_entry(pool, expected):
    assert st._pool_id_from_config_entry(pool) == expected


def test_pool_field_reads_key_or_attribute():
    assert st._pool_field({"mi_pnl_column": "c"}, "mi_pnl_column") == "c"
    assert st._pool_field(NS(), "mi_pnl_column", "d") == "d"


def test_signal_pools_are_a_new_list():
    pools = [{"name": "a"}]
    got = st._signal_pools_from_era_config({"signal_pools": pools})
    assert got == pools and got is not pools
    assert st._signal_pools_from_era_config(NS(signal_pools=({"name": "a"},))) == [{"name": "a"}]
    assert st._signal_pools_from_era_config(NS(signal_pools=None, _data={"signal_pools": pools})) == pools
    assert st._signal_pools_from_era_config({"signal_pools": "p"}) == []
    assert st._signal_pools_from_era_config(None) == []


@pytest.mark.parametrize(
    "config, expected",
    [
        (None, None),
        ({"signal_pool_id": "direct", "signal_pools": [{"name": "x"}]}, "direct"),
        ({"signal_pool_id": "", "signal_pools": [{"name": 1}, {"name": "second"}]}, "second"),
        (NS(signal_pools=[], _data={"signal_pools": [{"name": "raw"}]}), "raw"),
        (NS(signal_pools=[{"name": "attr"}], _data={"signal_pools": [{"name": "raw"}]}), "attr"),
        (NS(signal_pools=[{"name": "kept"}], _data="not a map"), "kept"),
        (NS(signal_pools=[], _data="not a map"), None),
        ({"signal_pools": "nope"}, None),
        ({"signal_pools": [{"name": ""}]}, None),
    ],
)
def test_first_signal_pool_id(config, expected):
    assert st._first_signal_pool_id_from_era_config(config) == expected


def test_selected_pool_falls_back_to_the_first():
    pools = [{"name": "a"}, {"name": "b"}]
    config = {"signal_pools": pools}
    assert st._selected_signal_pool_from_era_config(config, "b") is pools[1]
    assert st._selected_signal_pool_from_era_config(config, "zzz") is pools[0]
    assert st._selected_signal_pool_from_era_config(config, None) is pools[0]
    assert st._selected_signal_pool_from_era_config({"signal_pools": []}, "a") is None


@pytest.mark.parametrize(
    "value, expected",
    [("5", 5), (-1, None), (0, 0), (True, 1), (2.9, 2), ("x", None), (None, None), (float("nan"), None), (-0.5, 0)],
)
def test_coerce_rule_id(value, expected):
    assert st._coerce_search_rule_id(value) == expected


def test_coerce_rule_id_lets_overflow_through():
    with pytest.raises(OverflowError):
        st._coerce_search_rule_id(float("inf"))


@pytest.mark.parametrize(
    "entry, expected",
    [
        ({"rule_id": 3, "universe_rule_id": 4}, 3),
        ({"rule_id": 0, "universe_rule_id": 4}, 4),
        ({"rule_id": 0}, None),  # 0 is falsy: the entry has no rule id
        (NS(universe_rule_id="2"), 2),
        ("junk", None),
    ],
)
def test_rule_id_from_universe_entry(entry, expected):
    assert st._search_rule_id_from_universe_entry(entry) == expected


def test_candidates_in_discovery_order_without_default_or_duplicates():
    config = NS(
        universes={"default": {"rule_id": 1}, "us": {"rule_id": 1}, 5: {"rule_id": 2}, "eu": {}},
        _data={"universe_rules": {"us": {"rule_id": 1}, "us_alt": {"rule_id": 9}, "default": {}, "us ": None}},
    )
    config.universe_rules = {"ignored": {"rule_id": 7}}  # the raw map is read first
    assert st._search_universe_candidates_from_era_config(config) == [
        ("us", 1), ("5", 2), ("eu", None), ("us_alt", 9), ("us ", None)
    ]


def test_candidates_from_universe_list_and_rules_fallback():
    config = NS(
        universes=[{"id": "a", "rule_id": 1}, {"id": "", "name": "b"}, "skip", {"id": 3}, {"name": "default"}],
        universe_rules={"c": NS(rule_id=2)},
        _data={},
    )
    assert st._search_universe_candidates_from_era_config(config) == [("a", 1), ("b", None), ("c", 2)]
    # the same name under another rule is a second candidate
    config = {"universes": {"a": {"rule_id": 1}}, "universe_rules": {"a": {"rule_id": 2}, "b": []}}
    assert st._search_universe_candidates_from_era_config(config) == [("a", 1), ("a", 2), ("b", None)]
    assert st._search_universe_candidates_from_era_config({"universe_rules": [{"rule_id": 1}]}) == []


TWO = {"universes": {"a": {"rule_id": 1}, "b": {"rule_id": 2}}}


@pytest.mark.parametrize(
    "config, configured, expected",
    [
        ({"valid_universe_id": "v", "universe_id": "u", **TWO, "allowed_universes": [1]}, "cfg", "v"),
        (NS(valid_universe_id="", universe_id=None, _data={"universe_id": "raw_u"}), "cfg", "raw_u"),
        ({"valid_universe_id": "", "universe_id": 5, **TWO, "allowed_universes": ["2", None, "x"]}, None, "b"),
        ({**TWO, "allowed_universes": [1, 1], "era_universes": [{"rule_id": 2}]}, None, "a"),
        ({**TWO, "allowed_universes": [7], "era_universes": [{"rule_id": 2}]}, None, "b"),
        ({**TWO, "allowed_universes": "1", "era_universes": [{"universe_rule_id": 1}, "x"]}, None, "a"),
        # ambiguity on rung 4 goes on; rung 5 decides
        ({"universes": {"a": {"rule_id": 1}}, "universe_rules": {"a": {"rule_id": 2}, "b": {"rule_id": 3}},
          "allowed_universes": [1, 2], "era_universes": [{"rule_id": 3}]}, None, "b"),
        ({"universes": {"only": {}}, "allowed_universes": [1], "era_universes": [{"rule_id": 2}]}, "cfg", "only"),
        ({**TWO, "allowed_universes": [9]}, "cfg", "cfg"),
        ({"universes": {"default": {"rule_id": 1}}, "allowed_universes": [1]}, "cfg", "cfg"),
        (None, "cfg", "cfg"),
    ],
)
def test_universe_ladder(config, configured, expected, not_ready):
    assert st._derive_search_universe_id(config, configured) == expected


@pytest.mark.parametrize("config, configured", [(None, None), (TWO, ""), ({"universe_id": 3}, 4)])
def test_universe_ladder_without_an_answer_raises(config, configured, not_ready):
    with pytest.raises(not_ready, match="^search era config does not define a universe id$"):
        st._derive_search_universe_id(config, configured)


def test_not_ready_error_is_read_live_or_imported_from_errors(monkeypatch):
    import sys
    import types

    monkeypatch.delattr(st, "SdkRuntimeNotReadyError", raising=False)
    errors = types.ModuleType("quillmarsh.errors")

    class Imported(Exception):
        pass

    errors.SdkRuntimeNotReadyError = Imported
    monkeypatch.setitem(sys.modules, "quillmarsh.errors", errors)
    with pytest.raises(Imported):
        st._derive_search_universe_id(None)

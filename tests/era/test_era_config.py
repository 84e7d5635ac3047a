from types import SimpleNamespace as NS

import pytest

import quillmarsh.search_templates as st

D = object()  # a default no configuration holds


@pytest.mark.parametrize(
    "config, lookup, field",
    [
        (None, D, D),
        ({"x": None}, None, None),  # a map is its own raw map: the present None stands
        (NS(x=2, _data={"x": 5}), 2, 2),
        (NS(x=None, _data={"x": 5}), None, 5),  # only the field falls through to the raw map
        (NS(_data={"x": 3}), D, 3),
        (NS(_data="not a map"), D, D),
    ],
)
def test_lookup_never_reads_data_field_does(config, lookup, field):
    assert st._era_config_lookup(config, "x", D) is lookup
    assert st._era_config_field(config, "x", D) is field


def test_raw_dict_is_the_configurations_own_map_and_getter_errors_propagate():
    raw = {"a": 1}
    assert st._era_config_raw_dict(raw) is raw and st._era_config_raw_dict(NS(_data=raw)) is raw
    assert st._era_config_raw_dict(None) == {} == st._era_config_raw_dict(NS(_data=[1]))

    class Broken:
        @property
        def signal_pools(self):
            raise KeyError("boom")

    with pytest.raises(KeyError):
        st._signal_pools_from_era_config(Broken())


POOLS = [{"name": "a"}, {"name": "b"}]


@pytest.mark.parametrize("read, config, expected", [
    (st._primary_evaluation_pnl_column, {"evaluation_pnl_columns": ["net", "gross"]}, "net"),
    (st._primary_evaluation_pnl_column, {"evaluation_pnl_columns": ["", "net"]}, "gross_returns"),  # only the first
    (st._primary_evaluation_pnl_column, {"evaluation_pnl_columns": "net"}, "gross_returns"),
    (st._first_signal_pool_id_from_era_config, None, None),
    (st._first_signal_pool_id_from_era_config, {"signal_pool_id": "direct", "signal_pools": [{"name": "x"}]},
     "direct"),
    (st._first_signal_pool_id_from_era_config, {"signal_pool_id": "", "signal_pools": [{"name": 1}, {"name": "2nd"}]},
     "2nd"),
    (st._first_signal_pool_id_from_era_config, NS(signal_pools=[], _data={"signal_pools": [{"name": "raw"}]}), "raw"),
    (st._first_signal_pool_id_from_era_config, {"signal_pools": "nope"}, None),
    (lambda c: st._selected_signal_pool_from_era_config(c, "b"), {"signal_pools": POOLS}, POOLS[1]),
    (lambda c: st._selected_signal_pool_from_era_config(c, "zzz"), {"signal_pools": POOLS}, POOLS[0]),
    (lambda c: st._selected_signal_pool_from_era_config(c, "a"), {"signal_pools": []}, None),
    (st._search_universe_candidates_from_era_config,
     NS(universes={"default": {"rule_id": 1}, "us": {"rule_id": 1}, 5: {"rule_id": 2}, "eu": {}},
        universe_rules={"ignored": {"rule_id": 7}},  # the raw map's universe_rules come first
        _data={"universe_rules": {"us": {"rule_id": 1}, "eu": {"rule_id": 9}, "default": {}}}),
     [("us", 1), ("5", 2), ("eu", None), ("eu", 9)]),
    (st._search_universe_candidates_from_era_config,
     NS(universes=[{"id": "a", "rule_id": 1}, {"id": "", "name": "b"}, "skip", {"id": 3}],
        universe_rules={"c": NS(rule_id=2)}), [("a", 1), ("b", None), ("c", 2)]),
])
def test_era_readers(read, config, expected):
    assert read(config) == expected


TWO = {"universes": {"a": {"rule_id": 1}, "b": {"rule_id": 2}}}


@pytest.mark.parametrize(
    "config, configured, expected",
    [
        ({"valid_universe_id": "v", "universe_id": "u", **TWO, "allowed_universes": [1]}, "cfg", "v"),
        (NS(valid_universe_id="", universe_id=None, _data={"universe_id": "raw_u"}), "cfg", "raw_u"),
        ({"universe_id": 5, **TWO, "allowed_universes": ["2", None, "x", -1, float("nan")]}, None, "b"),
        ({**TWO, "allowed_universes": [2.9]}, None, "b"),
        ({"universes": {"a": {"rule_id": 0, "universe_rule_id": 2}, "b": {"rule_id": 3}}, "allowed_universes": [2]},
         None, "a"),
        ({**TWO, "allowed_universes": [1, 1], "era_universes": [{"rule_id": 2}]}, None, "a"),
        ({**TWO, "allowed_universes": "1", "era_universes": [{"universe_rule_id": 1}]}, None, "a"),
        # the same name under two allowed rules is two names: rung 4 gives no answer, rung 5 does
        ({"universes": {"a": {"rule_id": 1}}, "universe_rules": {"a": {"rule_id": 2}, "b": {"rule_id": 3}},
          "allowed_universes": [1, 2], "era_universes": [{"rule_id": 3}]}, None, "b"),
        ({"universes": {"only": {}}, "allowed_universes": [1], "era_universes": [{"rule_id": 2}]}, "cfg", "only"),
        ({**TWO, "allowed_universes": [9]}, "cfg", "cfg"),
        ({"universes": {"default": {"rule_id": 1}}, "allowed_universes": [1]}, "cfg", "cfg"),
        (None, None, None), (TWO, "", None), ({"universe_id": 3}, 4, None),  # no answer at all
    ],
)
def test_universe_ladder(config, configured, expected, not_ready):
    if expected is None:
        with pytest.raises(not_ready, match="^search era config does not define a universe id$"):
            st._derive_search_universe_id(config, configured)
    else:
        assert st._derive_search_universe_id(config, configured) == expected

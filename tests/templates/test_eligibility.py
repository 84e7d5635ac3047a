"""Which vocabulary functions may stand in a SIGNAL expression, and why the others may not."""
import pytest
from types import SimpleNamespace as NS

import quillmarsh.search_templates as st

from templates.conftest import rot

NOT_ROTATION = (" is not a SIGNAL-safe rotation; random_weighted can only synthesize SIGNAL expression graphs "
                "from rotations")


class Registry:
    """A runtime registry knowing the given entries (name -> attributes)."""

    def __init__(self, entries, fail=False):
        self.entries, self.fail = entries, fail

    def has(self, name):
        if self.fail:
            raise RuntimeError("registry down")
        return name in self.entries

    def get_entry(self, name):
        return NS(**self.entries[name])


LOCAL = {"factory": object()}


def safety(functions, registry=None, log_reasons=True):
    return st._random_weighted_function_safety(functions, log_reasons, 3360, 100, registry)


@pytest.mark.parametrize("functions", [(rot("a"),), None, {"a": rot("a")}])
def test_functions_must_be_a_list(functions, info_lines):
    assert safety(functions) == ([], {})
    assert info_lines() == ["random_weighted excluded function vocabulary: functions must be a list"]


def test_entries_without_dict_or_name_leave_only_a_line(info_lines):
    assert safety([5, rot(""), rot(5)]) == ([], {})
    assert info_lines() == ["random_weighted excluded function entry: expected dict metadata"] + [
        "random_weighted excluded function with missing name from SIGNAL generation"] * 2


def test_safe_record_shape():
    fn = rot("m", {"x": "data", "n": {"type": "int", "default": 3}}, function_family="ts", stateful=1, extra=1)
    (record,), unsafe = safety([fn])
    assert unsafe == {}
    assert list(record) == ["name", "function_type", "function_family", "function_subfamily", "stateful",
                            "data_params", "config_children"]
    assert (record["function_family"], record["function_subfamily"], record["stateful"]) == ("ts", "", True)
    assert record["config_children"] == [{"type": "int", "node": 3}]


@pytest.mark.parametrize("fn, registry, reason", [
    ({"name": "flt", "function_type": "filtration"}, None, "function_type='filtration'" + NOT_ROTATION),
    (rot("r", engine_only=True), None, "engine_only runtime transform"),
    (rot("r"), Registry({"r": {"engine_only": True, **LOCAL}}), "engine_only runtime transform"),
    (rot("r"), Registry({}), "SDK runtime registry has no entry for function"),
    (rot("r"), Registry({"r": {}}, fail=True), "SDK runtime registry has no entry for function"),  # raising has()
    (rot("r"), Registry({"r": {"factory": None, "class_name": "C"}}), "no SDK-local factory metadata"),
    (rot("r", ["int"]), None, "config param 'param_0' has no safe int default/range"),
    # the registry's schema replaces the vocabulary's
    (rot("r"), Registry({"r": {"param_schema": ["filtration", "data"], **LOCAL}}),
     "rotation requires filtration input, which is not SIGNAL-safe"),
])
def test_exclusion_reasons(fn, registry, reason, info_lines):
    assert safety([fn], registry) == ([], {fn["name"]: reason})
    assert len(info_lines()) == 1 and info_lines()[0].startswith("random_weighted excluded %s from SIGNAL" % fn["name"])


def test_log_names_the_type_while_the_map_holds_the_sentence(info_lines):
    safety([{"name": "red", "function_type": "reduction"}])
    assert info_lines() == ["random_weighted excluded red from SIGNAL generation: function_type='reduction' is not rotation"]


def test_registry_can_make_a_function_a_rotation_and_module_path_suffices():
    registry = Registry({"r": {"function_type": "rotation", "family": "fam", "module_path": "m", "class_name": "C"}})
    (record,), unsafe = safety([{"name": "r", "function_type": "reduction", "param_schema": ["data"]}], registry)
    assert (record["name"], record["function_family"], unsafe) == ("r", "fam", {})


def test_later_entry_of_a_name_overwrites_its_reason():
    _, unsafe = safety([rot("r", engine_only=True), rot("r", None)])
    assert unsafe == {"r": "rotation metadata missing param_schema"}


def test_quiet_mode_logs_nothing_and_returns_the_same(info_lines):
    functions = [5, rot(""), rot("a"), rot("b", ["filtration"]), {"name": "c", "function_type": "reduction"}]
    quiet = safety(functions, log_reasons=False)
    assert info_lines() == []
    assert quiet == safety(functions) and len(info_lines()) == 4


def test_runtime_registry_reads_tolerate_everything():
    class Exploding:
        @property
        def registry(self):
            raise RuntimeError("boom")
    assert st._random_weighted_runtime_registry(NS()) is None
    assert st._random_weighted_runtime_registry(NS(_backtester=Exploding())) is None
    reg = object()
    assert st._random_weighted_runtime_registry(NS(_backtester=NS(registry=reg))) is reg

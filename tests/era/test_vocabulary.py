import pytest

import quillmarsh.search_templates as st

COMMON = {"name": "f", "function_family": "fam", "param_schema": {"window": {"type": "int"}}}


def rotation(**over):
    return {**COMMON, "function_type": "rotation", "function_subfamily": "sub", **over}


def filtration(**over):
    return {**COMMON, "function_type": "filtration", **over}


def reduction(**over):
    return {**COMMON, "function_type": "reduction", "function_subfamily": "sub", **over}


def feature(**over):
    entry = {
        "name": "x", "function_type": "feature", "feature_family": "ff", "feature_subfamily": "fs",
        "rotation_families": [], "feature_hash": "h",
        "stats": {"mean": 0, "std": 1, "pct_nan": 0, "min": -1, "max": 1},
    }
    entry.update(over)
    return entry


def without(entry, *keys):
    return {k: v for k, v in entry.items() if k not in keys}


@pytest.mark.parametrize("vocab", [None, [], "vocab"])
def test_non_map_vocabulary_is_empty(vocab):
    assert st._normalize_template_vocabulary(vocab) == {"functions": [], "features": []}


def test_flat_lists_are_trusted_and_other_keys_kept():
    vocab = {"functions": [1, 2], "features": [], "extra": {"k": 1}}
    got = st._normalize_template_vocabulary(vocab)
    assert got == vocab and got is not vocab and got["functions"] is vocab["functions"]
    assert st._normalize_template_vocabulary({"era": 3}) == {"era": 3, "functions": [], "features": []}


def test_nested_groups_are_flattened_in_kind_order_as_copies():
    r, f, d = rotation(name="r"), filtration(name="f"), reduction(name="d")
    vocab = {
        "reductions": [d],
        "filtrations": {"g": [f, "not an entry"]},
        "rotations": {"group": {"sub": [r]}, "lists_in_lists": [[rotation(name="hidden")]]},
        "functions": "replaced",
        "features": {"a": {"b": [feature()]}},
    }
    before = {k: v for k, v in vocab.items()}
    got = st._normalize_template_vocabulary(vocab)
    assert [e["name"] for e in got["functions"]] == ["r", "f", "d"]
    assert got["functions"][0] == r and got["functions"][0] is not r
    assert got["functions"][0]["param_schema"] is r["param_schema"]  # shallow copies
    assert got["features"] == [feature()]
    assert vocab == before and vocab["functions"] == "replaced"


@pytest.mark.parametrize(
    "node, names",
    [
        ([{"name": 1}, 2, [{"name": 3}], {"name": 4}], [1, 4]),
        ({"a": {"b": {"c": [{"name": 1}]}}, "d": [{"name": 2}], "e": 5}, [1, 2]),
        ({"name": "a map is never an entry"}, []),
        ((({"name": 1},),), []),
    ],
)
def test_flatten(node, names):
    assert [e["name"] for e in st._flatten_vocabulary_entries(node)] == names


def test_flatten_of_a_cycle_is_a_recursion_error():
    node = {}
    node["self"] = node
    with pytest.raises(RecursionError):
        st._flatten_vocabulary_entries(node)


PREFIX = "vocabulary {} entry violates canonical contract"
STATS = {"stats.max", "stats.mean", "stats.min", "stats.pct_nan", "stats.std"}


@pytest.mark.parametrize(
    "entry, kind, missing, unexpected, tail",
    [
        (without(rotation(function_type="reduction"), "param_schema"), "rotation", {"param_schema"},
         {"function_type"}, "; missing fields: param_schema; unexpected fields: function_type"),
        (filtration(function_subfamily="s"), "filtration", set(), {"function_subfamily"},
         "; unexpected fields: function_subfamily"),
        (without(rotation(), "function_subfamily", "function_type"), "rotation",
         {"function_subfamily", "function_type"}, set(), "; missing fields: function_subfamily, function_type"),
        (["not", "a", "map"], "reduction", set(st._REDUCTION_REQUIRED_FIELDS), set(), None),
        (feature(stats=5), "feature", STATS, set(), "; missing fields: " + ", ".join(sorted(STATS))),
        (feature(stats={"mean": 0, "std": 1, "min": 0}, function_type="rotation"), "feature",
         {"stats.max", "stats.pct_nan"}, {"function_type"}, None),
        ("x", "feature", set(st._FEATURE_REQUIRED_FIELDS), set(), None),
    ],
)
def test_entry_violations(entry, kind, missing, unexpected, tail):
    with pytest.raises(st.VocabSchemaError) as info:
        if kind == "feature":
            st._validate_feature_entry(entry)
        else:
            st._validate_function_entry(entry, kind)
    err = info.value
    assert (err.source_kind, err.missing, err.unexpected, err.entry) == (kind, missing, unexpected, entry)
    assert type(err.missing) is frozenset and type(err.unexpected) is frozenset
    if tail is not None:
        assert str(err) == PREFIX.format(kind) + tail


@pytest.mark.parametrize("kind", ["feature", "Rotation"])
def test_unknown_kind_is_a_plain_value_error(kind):
    with pytest.raises(ValueError) as info:
        st._validate_function_entry(rotation(), kind)
    assert type(info.value) is ValueError


def test_normalisation_stops_at_the_first_bad_entry():
    vocab = {"rotations": [rotation(), rotation(name="bad", function_type="feature")],
             "reductions": [without(reduction(), "name")]}
    with pytest.raises(st.VocabSchemaError) as info:
        st._normalize_template_vocabulary(vocab)
    assert info.value.entry["name"] == "bad"
    with pytest.raises(st.VocabSchemaError, match="feature"):
        st._normalize_template_vocabulary({"functions": [], "features": {"g": [feature(stats=None)]}})

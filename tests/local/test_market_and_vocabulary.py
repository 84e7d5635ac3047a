"""The synthetic market (determinism, missing data, cache, CSV) and the vocabulary built over it."""
import numpy as np
import pytest

from quillmarsh.local import market as mk
from quillmarsh.local.vocabulary import FUNCTIONS, build_vocabulary

ROTATION_REQUIRED = {"name", "function_type", "function_family", "function_subfamily", "param_schema"}
FEATURE_REQUIRED = {"name", "function_type", "feature_family", "feature_subfamily", "rotation_families",
                    "feature_hash", "stats"}


@pytest.fixture(scope="module")
def small():
    return mk.generate_market(n_instruments=30, n_days=80, seed=4)


def test_generation_is_deterministic_and_seeded(small):
    again = mk.generate_market(n_instruments=30, n_days=80, seed=4)
    other = mk.generate_market(n_instruments=30, n_days=80, seed=5)
    for name in mk.RAW_FIELDS:
        np.testing.assert_array_equal(small.fields[name], again.fields[name])
    assert not np.array_equal(small.fields["close"], other.fields["close"], equal_nan=True)


def test_missing_prices_stay_missing(small):
    close = small.fields["close"]
    assert np.isnan(close).any() and (close[~np.isnan(close)] > 0).all()
    fwd = small.fwd_returns
    gaps = np.isnan(close[:-1]) | np.isnan(close[1:])
    np.testing.assert_array_equal(np.isnan(fwd[:-1]), gaps)
    assert np.isnan(fwd[-1]).all()


def test_cache_round_trip(tmp_path):
    first = mk.load_market(tmp_path, n_instruments=12, n_days=40, seed=2)
    path = mk.cache_path(tmp_path, 12, 40, 2, 0.01)
    assert path.exists()
    second = mk.load_market(tmp_path, n_instruments=12, n_days=40, seed=2)
    for name in mk.RAW_FIELDS:
        np.testing.assert_array_equal(first.fields[name], second.fields[name])
    assert first.instruments == second.instruments and (first.dates == second.dates).all()


@pytest.mark.parametrize("kwargs", [{"n_instruments": 1}, {"n_days": 5}, {"edge": -1.0}])
def test_bad_market_sizes_are_refused(kwargs):
    with pytest.raises(ValueError):
        mk.generate_market(**{"n_instruments": 10, "n_days": 40, **kwargs})


def test_csv_loader(tmp_path):
    p = tmp_path / "panel.csv"
    p.write_text("date,instrument,close,volume\n2024-01-02,A,10,100\n2024-01-02,B,20,\n"
                 "2024-01-03,A,11,120\n2024-01-03,B,19,90\n")
    m = mk.load_csv_market(p)
    assert m.instruments == ["A", "B"] and m.shape == (2, 2)
    assert np.isnan(m.fields["volume"][0, 1])
    np.testing.assert_allclose(m.fwd_returns[0], [0.1, -0.05])
    bad = tmp_path / "bad.csv"
    bad.write_text("date,instrument,close\n2024-01-02,A,ten\n")
    with pytest.raises(ValueError, match="not a number"):
        mk.load_csv_market(bad)
    with pytest.raises(ValueError, match="close"):
        (tmp_path / "nc.csv").write_text("date,instrument,x\n2024-01-02,A,1\n")
        mk.load_csv_market(tmp_path / "nc.csv")


def test_vocabulary_canonical_shape(small):
    raw = build_vocabulary(small, 4).raw
    rotations = [e for group in raw["rotations"].values() for e in group]
    features = [e for group in raw["features"].values() for e in group]
    assert 40 <= len(rotations) <= 80 and 30 <= len(features) <= 60
    assert all(ROTATION_REQUIRED <= set(e) and e["function_type"] == "rotation" for e in rotations)
    assert sum(bool(e["engine_only"]) for e in rotations) == 1
    for e in (e for group in raw["filtrations"].values() for e in group):
        assert e["function_type"] == "filtration" and "function_subfamily" not in e
    for e in features:
        assert FEATURE_REQUIRED <= set(e) and e["function_type"] == "feature"
        assert {"mean", "std", "pct_nan", "min", "max"} <= set(e["stats"])
        assert e["name"].startswith("fx_")
    windowed = [e for e in rotations if e["stateful"]]
    for e in windowed:
        ints = [p for p in e["param_schema"].values() if p["type"] == "int"]
        assert len(ints) == 1 and ints[0]["min"] <= ints[0]["default"] <= ints[0]["max"]
    assert len({e["name"] for e in rotations}) == len(rotations)
    assert set(FUNCTIONS) >= {e["name"] for e in rotations}


def test_vocabulary_passes_the_components_validation(small):
    from quillmarsh import search_templates as st
    out = st._normalize_template_vocabulary(build_vocabulary(small, 4).raw)
    assert len(out["functions"]) == len(FUNCTIONS) and len(out["features"]) >= 30

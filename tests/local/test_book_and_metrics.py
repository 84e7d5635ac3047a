"""The book, its daily series and the metrics, on books small enough to work out by hand."""
import math
import statistics

import numpy as np
import pytest

from quillmarsh.local import _evaluator as ev
from quillmarsh.local.evaluator import column_metrics, pnl_information


def test_book_is_demeaned_and_scaled_to_unit_gross():
    w = ev.book_weights(np.array([[1.0, 2.0, 3.0, 4.0]]), "none", 0, 0.0)
    np.testing.assert_allclose(w[0], [-0.375, -0.125, 0.125, 0.375])


@pytest.mark.parametrize("row, cap, expected", [
    # The two outer names are pinned and the inner two share the remaining 0.4.
    ([1.0, 2.0, 3.0, 4.0], 0.3, [-0.3, -0.2, 0.2, 0.3]),
    # Pinning the outlier raises the others past the cap in turn, until four of five are pinned.
    ([10.0, -1.0, -2.0, -3.0, -4.0], 0.22, [0.22, -0.12, -0.22, -0.22, -0.22]),
    # Too few names to fill the book under the cap: every held name sits at it, the flat one holds nothing.
    ([1.0, 2.0, 3.0], 0.3, [-0.3, 0.0, 0.3]),
])
def test_truncation_pins_large_weights_and_refills_the_book(row, cap, expected):
    w = ev.book_weights(np.array([row]), "none", 0, cap)
    np.testing.assert_allclose(w[0], expected, atol=1e-15)


def test_missing_signal_holds_no_position_and_rank_normalises():
    w = ev.book_weights(np.array([[np.nan, 10.0, 20.0, 1000.0]]), "rank", 0, 0.0)
    # ranks 0, 0.5, 1 -> demeaned -0.5, 0, 0.5 -> gross 1
    np.testing.assert_allclose(w[0], [0.0, -0.5, 0.0, 0.5])


def test_empty_day_has_an_empty_book():
    w = ev.book_weights(np.array([[np.nan, np.nan], [1.0, 1.0]]), "zscore", 0, 0.05)
    np.testing.assert_array_equal(w, 0.0)


def test_decay_blends_the_previous_days_normalised_signal():
    s = np.array([[1.0, -1.0], [-1.0, 1.0]])
    w = ev.book_weights(s, "none", 2, 0.0)
    # day 1: (2 * [-1, 1] + 1 * [1, -1]) / 3 = [-1/3, 1/3] -> gross 1
    np.testing.assert_allclose(w[1], [-0.5, 0.5])


def test_daily_series_by_hand():
    w = np.array([[0.5, -0.5], [0.25, -0.75]])
    r = np.array([[0.02, np.nan], [0.01, -0.02]])
    flag = np.array([[False, True], [True, False]])
    pnl, traded, longs, shorts, net, gross, share, held, flagged = ev.book_daily(w, r, flag)
    np.testing.assert_allclose(pnl, [0.01, 0.0025 + 0.015])  # a missing return earns nothing
    np.testing.assert_allclose(traded, [1.0, 0.5])
    np.testing.assert_allclose(net, [0.0, -0.5])
    np.testing.assert_allclose(share, [0.5, 0.75])
    np.testing.assert_allclose(flagged, [0.5, 0.25])
    assert list(longs) == [1, 1] and list(shorts) == [1, 1] and list(held) == [2, 2]
    np.testing.assert_allclose(gross, [1.0, 1.0])


def test_column_metrics_follow_their_formulas():
    p = np.array([0.01, -0.02, 0.015, 0.005, -0.001])
    v = np.array([1.0, 0.2, 0.3, 0.1, 0.05])
    m = column_metrics(p, v)
    sharpe = statistics.mean(p) / statistics.stdev(p) * math.sqrt(252)
    returns = 252 * statistics.mean(p) / 0.5
    turnover = statistics.mean(v)
    assert m["sharpe"] == pytest.approx(sharpe)
    assert m["returns"] == pytest.approx(returns)
    assert m["turnover"] == pytest.approx(turnover)
    assert m["fitness"] == pytest.approx(sharpe * math.sqrt(abs(returns) / max(turnover, 0.125)))
    assert m["margin"] == pytest.approx(sum(p) / sum(v))
    # cumulative: 0.01, -0.01, 0.005, 0.01, 0.009 -> worst fall 0.02 from the peak 0.01
    assert m["drawdown"] == pytest.approx(0.02 / 0.5)


def test_turnover_floor_in_fitness():
    p = np.array([0.01, 0.0, 0.02])
    m = column_metrics(p, np.full(3, 0.01))
    assert m["fitness"] == pytest.approx(m["sharpe"] * math.sqrt(abs(m["returns"]) / 0.125))


def test_constant_pnl_has_zero_sharpe():
    assert column_metrics(np.zeros(10), np.zeros(10))["sharpe"] == 0.0


def test_pnl_information_drops_when_the_pool_explains_the_pnl():
    rng = np.random.default_rng(0)
    y = 0.001 + 0.01 * rng.standard_normal(500)
    alone = pnl_information(y, [])
    ir = y.mean() / y.std(ddof=1)
    assert alone == pytest.approx(252 * 0.5 * math.log1p(ir * ir))
    assert pnl_information(y, [y]) == 0.0
    assert pnl_information(-y, []) == 0.0
    unrelated = rng.standard_normal(500)
    assert pnl_information(y, [unrelated]) == pytest.approx(alone, rel=0.2)


def reference_book(signal, norm, truncation):
    out = np.zeros_like(signal)
    for t, row in enumerate(signal):
        ok = ~np.isnan(row)
        v = row[ok]
        if v.size == 0:
            continue
        if norm == "zscore":
            if v.size < 2 or v.std() == 0:
                continue
            v = (v - v.mean()) / v.std()
        elif norm == "rank":
            v = np.array([(np.sum(v < a) + 0.5 * (np.sum(v == a) - 1)) / max(v.size - 1, 1) for a in v])
        elif norm == "rescale":
            v = v / np.abs(v).max()
        v = v - v.mean()
        if np.abs(v).sum() == 0:
            continue
        v = v / np.abs(v).sum()
        pinned = np.zeros(v.size, bool)
        while truncation and np.abs(v).max() > truncation + 1e-15:
            pinned |= np.abs(v) > truncation
            v = np.where(pinned, np.sign(v) * truncation, v)
            free = ~pinned
            v[free] *= (1 - pinned.sum() * truncation) / np.abs(v[free]).sum()
        out[t, ok] = v
    return out


@pytest.mark.parametrize("norm", ["none", "zscore", "rescale", "rank"])
@pytest.mark.parametrize("truncation", [0.0, 0.12, 0.045])
def test_book_matches_a_direct_rendition(norm, truncation):
    rng = np.random.default_rng(3)
    s = rng.standard_normal((30, 40)) ** 3
    s[rng.random(s.shape) < 0.2] = np.nan
    s[4] = 7.0  # constant day: nothing to hold
    got = ev.book_weights(s, norm, 0, truncation)
    np.testing.assert_allclose(got, reference_book(s, norm, truncation), rtol=1e-9, atol=1e-12)


@pytest.mark.parametrize("norm, decay", [("zscore", 0), ("rank", 0), ("none", 3)])
def test_fused_series_equals_book_then_daily(norm, decay):
    rng = np.random.default_rng(8)
    s = rng.standard_normal((25, 30))
    s[rng.random(s.shape) < 0.1] = np.nan
    r = 0.01 * rng.standard_normal(s.shape)
    r[rng.random(s.shape) < 0.05] = np.nan
    flag = (rng.random(s.shape) < 0.3).astype(np.uint8)
    fused = ev.book_series(s, r, norm, decay, 0.08, flag)
    separate = ev.book_daily(ev.book_weights(s, norm, decay, 0.08), r, flag)
    for a, b in zip(fused, separate):
        np.testing.assert_array_equal(a, b)

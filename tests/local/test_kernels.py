"""Each panel kernel against a direct NumPy rendition of the same definition, NaN positions included."""
import math
import os
import subprocess
import sys

import numpy as np
import pytest
from numpy.lib.stride_tricks import sliding_window_view

from quillmarsh.local import _evaluator as ev

T, N = 40, 7


def panel(seed, nan_frac=0.1, level=0.0):
    rng = np.random.default_rng(seed)
    x = rng.standard_normal((T, N)) + level
    x[rng.random((T, N)) < nan_frac] = np.nan
    return x


def minp(w, two):
    m = max(1, (w + 1) // 2)
    return max(2, m) if two else m


def rolling_ref(x, w, fn, two=False):
    out = np.full_like(x, np.nan)
    for t in range(x.shape[0]):
        win = x[max(0, t - w + 1): t + 1]
        for n in range(x.shape[1]):
            col = win[:, n]
            vals = col[~np.isnan(col)]
            if np.isnan(x[t, n]) or vals.size < minp(w, two):
                continue
            out[t, n] = fn(vals, x[t, n], col)
    return out


def ts_rank_ref(vals, cur, col):
    if vals.size == 1:
        return 0.5
    less = np.sum(vals < cur)
    eq = np.sum(vals == cur)
    return (less + 0.5 * (eq - 1)) / (vals.size - 1)


def decay_ref(w):
    def fn(vals, cur, col):
        weights = np.arange(w - col.size + 1, w + 1, dtype=float)  # oldest first
        ok = ~np.isnan(col)
        return np.sum(weights[ok] * col[ok]) / np.sum(weights[ok])
    return fn


def zscore_ref(vals, cur, col):
    sd = vals.std(ddof=1)
    return np.nan if sd == 0 else (cur - vals.mean()) / sd


REFS = {
    "sum": (lambda v, c, col: v.sum(), False),
    "mean": (lambda v, c, col: v.mean(), False),
    "std": (lambda v, c, col: v.std(ddof=1), True),
    "zscore": (zscore_ref, True),
    "min": (lambda v, c, col: v.min(), False),
    "max": (lambda v, c, col: v.max(), False),
    "rank": (ts_rank_ref, False),
}


def assert_panel_equal(got, want):
    np.testing.assert_array_equal(np.isnan(got), np.isnan(want))
    np.testing.assert_allclose(got, want, rtol=1e-9, atol=1e-12)


@pytest.mark.parametrize("op", sorted(REFS))
@pytest.mark.parametrize("w", [1, 2, 5, 13])
@pytest.mark.parametrize("level", [0.0, 1e3])
def test_rolling_operators_match_numpy(op, w, level):
    x = panel(w * 31 + len(op), level=level)
    fn, two = REFS[op]
    assert_panel_equal(ev.ts(op, x, w), rolling_ref(x, w, fn, two))


def test_rolling_rank_counts_ties_as_half():
    x = np.array([[1.0], [1.0], [1.0], [2.0]])
    np.testing.assert_allclose(ev.ts("rank", x, 3)[:, 0], [np.nan, 0.5, 0.5, 1.0])


@pytest.mark.parametrize("w", [2, 6, 15])
def test_linear_decay_matches_numpy(w):
    x = panel(w)
    assert_panel_equal(ev.ts("decay_linear", x, w), rolling_ref(x, w, decay_ref(w)))


@pytest.mark.parametrize("d", [1, 3])
def test_delay_and_delta(d):
    x = panel(d + 100)
    lag = np.full_like(x, np.nan)
    lag[d:] = x[:-d]
    assert_panel_equal(ev.ts("delay", x, d), lag)
    assert_panel_equal(ev.ts("delta", x, d), x - lag)


def _direct_rolling(op, x, y, w):
    """op over every full window, computed directly, and the magnitude its error is measured against."""
    wx, wy = sliding_window_view(x, w, axis=0), sliding_window_view(y, w, axis=0)
    mx, my = wx.mean(-1), wy.mean(-1)
    sx, sy = wx.std(-1, ddof=1), wy.std(-1, ddof=1)
    cov = ((wx - mx[..., None]) * (wy - my[..., None])).sum(-1) / (w - 1)
    weights = np.arange(1, w + 1, dtype=float)
    return {
        "sum": (wx.sum(-1), np.abs(wx).sum(-1)),
        "mean": (mx, np.abs(wx).mean(-1)),
        "std": (sx, sx),
        "zscore": ((x[w - 1:] - mx) / sx, 1.0 + np.abs((x[w - 1:] - mx) / sx)),
        "decay_linear": ((wx * weights).sum(-1) / weights.sum(), (np.abs(wx) * weights).sum(-1) / weights.sum()),
        "corr": (cov / (sx * sy), 1.0),
        "cov": (cov, sx * sy),
    }[op]


@pytest.mark.parametrize("op", ["sum", "mean", "std", "zscore", "decay_linear", "corr", "cov"])
@pytest.mark.parametrize("w", [3, 20])
def test_rolling_values_keep_their_precision_through_outliers(op, w):
    # Fifth powers of normals (outliers of 1e3 among values near 0) and a level drifting far from where it
    # started: sums that only ever add the new value and subtract the old lose every digit of the small
    # windows after an outlier, and shifted squares swamp the spread of a drifting level.
    rng = np.random.default_rng(w)
    x = rng.standard_normal((600, 5)) ** 5
    x[:, 0] = 1e4 + 50.0 * np.arange(600) + rng.standard_normal(600)
    y = rng.standard_normal(x.shape) ** 5 + 0.5 * x
    got = ev.ts2(op, x, y, w) if op in ("corr", "cov") else ev.ts(op, x, w)
    want, scale = _direct_rolling(op, x, y, w)
    assert np.max(np.abs(got[w - 1:] - want) / scale) < 1e-9
    # Each instrument on its own gives the bits it gives beside the others, re-anchorings included.
    for n in range(x.shape[1]):
        a, b = np.ascontiguousarray(x[:, n:n + 1]), np.ascontiguousarray(y[:, n:n + 1])
        alone = ev.ts2(op, a, b, w) if op in ("corr", "cov") else ev.ts(op, a, w)
        assert alone.tobytes() == np.ascontiguousarray(got[:, n:n + 1]).tobytes()


@pytest.mark.parametrize("op", ["corr", "cov"])
@pytest.mark.parametrize("w", [3, 10])
def test_pair_operators_match_numpy(op, w):
    x, y = panel(w + 7), panel(w + 8, level=50.0)
    want = np.full_like(x, np.nan)
    for t in range(T):
        for n in range(N):
            a, b = x[max(0, t - w + 1): t + 1, n], y[max(0, t - w + 1): t + 1, n]
            ok = ~np.isnan(a) & ~np.isnan(b)
            if np.isnan(x[t, n]) or np.isnan(y[t, n]) or ok.sum() < minp(w, True):
                continue
            want[t, n] = np.corrcoef(a[ok], b[ok])[0, 1] if op == "corr" else np.cov(a[ok], b[ok])[0, 1]
    assert_panel_equal(ev.ts2(op, x, y, w), want)


def test_constant_window_has_no_zscore_or_correlation():
    x = np.ones((6, 2))
    assert np.isnan(ev.ts("zscore", x, 3)).all()
    assert np.isnan(ev.ts2("corr", x, np.ascontiguousarray(panel(1)[:6, :2]), 3)).all()
    np.testing.assert_array_equal(ev.ts("std", x, 3)[1:], 0.0)


def cs_ref(x, op):
    out = np.full_like(x, np.nan)
    for t, row in enumerate(x):
        ok = ~np.isnan(row)
        v = row[ok]
        if op == "rank":
            if v.size == 1:
                out[t, ok] = 0.5
            elif v.size:
                less = (v[:, None] > v[None, :]).sum(1)
                eq = (v[:, None] == v[None, :]).sum(1)
                out[t, ok] = (less + 0.5 * (eq - 1)) / (v.size - 1)
        elif op == "zscore" and v.size >= 2 and v.std() > 0:
            out[t, ok] = (v - v.mean()) / v.std()
        elif op == "demean" and v.size:
            out[t, ok] = v - v.mean()
        elif op == "scale" and np.abs(v).sum() > 0:
            out[t, ok] = v / np.abs(v).sum()
    return out


@pytest.mark.parametrize("op", ["rank", "zscore", "demean", "scale"])
def test_cross_sectional_operators_match_numpy(op):
    x = panel(5, nan_frac=0.3)
    x[3, :] = np.nan
    x[4, 1:] = np.nan
    x[6, :] = np.round(x[6, :])  # ties
    assert_panel_equal(ev.cs(op, x), cs_ref(x, op))


def cs_in_order(row, op):
    """demean, zscore or scale of one row with every sum added one value at a time in instrument order."""
    s = m = 0.0
    for v in row:
        if v == v:
            s += abs(v) if op == "scale" else v
            m += 1.0
    if op == "scale":
        return [v / s if s > 0.0 else math.nan for v in row]
    mean = s / m if m > 0.0 else (0.0 if op == "demean" else math.nan)
    if op == "demean":
        return [v - mean for v in row]
    ss = 0.0
    for v in row:
        if v == v:
            ss += (v - mean) * (v - mean)
    sd = math.sqrt(ss / m) if m > 0.0 else math.nan
    bad = m < 2.0 or not sd > 1e-12 * abs(mean) or sd == 0.0
    return [math.nan if bad or v != v else (v - mean) / sd for v in row]


@pytest.mark.parametrize("op", ["zscore", "demean", "scale"])
@pytest.mark.parametrize("shape", [(19, 13), (8, 4), (3, 1), (17, 501)])
def test_cross_sectional_sums_are_exact_in_instrument_order(op, shape):
    # Magnitudes that make every order of addition round differently, rows that are empty, hold one value
    # or are constant, and shapes that do not fill the groups of rows computed side by side.
    rng = np.random.default_rng(shape[1])
    x = rng.standard_normal(shape) * 10.0 ** rng.integers(-8, 9, shape)
    x[rng.random(shape) < 0.3] = np.nan
    x[0] = np.nan
    if shape[0] > 2:
        x[1, 1:] = np.nan
        x[2] = 7.25
    got = ev.cs(op, x)
    want = np.array([cs_in_order(row.tolist(), op) for row in x]).reshape(shape)
    assert got.tobytes() == want.tobytes()
    for t in range(0, shape[0], 5):  # a row alone gives the bits it gives beside the others
        assert ev.cs(op, np.ascontiguousarray(x[t:t + 1])).tobytes() == got[t:t + 1].tobytes()


UNARY = {
    "neg": np.negative, "abs": np.abs, "sign": np.sign, "square": np.square,
    "slog": lambda x: np.sign(x) * np.log1p(np.abs(x)),
    "ssqrt": lambda x: np.sign(x) * np.sqrt(np.abs(x)),
    "inverse": lambda x: np.where(x == 0, np.nan, 1.0 / np.where(x == 0, 1.0, x)),
}
BINARY = {
    "add": np.add, "sub": np.subtract, "mul": np.multiply, "min": np.minimum, "max": np.maximum,
    "div": lambda a, b: np.where(b == 0, np.nan, a / np.where(b == 0, 1.0, b)),
}


@pytest.mark.parametrize("op", sorted(UNARY))
def test_unary_matches_numpy(op):
    x = panel(9)
    x[0, 0] = 0.0
    x[0, 1], x[0, 2] = np.inf, -np.inf
    x[1, :] = [1e-300, -1e-18, 1e-8, 3e7, -1e200, 0.5, 2.0]
    with np.errstate(all="ignore"):
        want = UNARY[op](x)
    assert_panel_equal(ev.unary(op, x), want)


@pytest.mark.parametrize("op", sorted(BINARY))
def test_binary_matches_numpy(op):
    x, y = panel(10), panel(11)
    y[1, 1] = 0.0
    assert_panel_equal(ev.binary(op, x, y), BINARY[op](x, y))


@pytest.mark.parametrize("bad, err", [
    (np.zeros((4, 3), dtype=np.float32), TypeError),
    (np.zeros(12), ValueError),
    (np.zeros((3, 4)).T, ValueError),
])
def test_bad_arrays_are_refused(bad, err):
    with pytest.raises(err):
        ev.ts("mean", bad, 2)


@pytest.mark.parametrize("flag, err", [
    (np.ones((4, 3)), TypeError),  # the flags are one byte a cell
    (np.ones((4, 2), dtype=bool), ValueError),
])
def test_bad_flags_are_refused(flag, err):
    x = np.zeros((4, 3))
    with pytest.raises(err, match="flag"):
        ev.book_series(x, x, "none", 0, 0.0, flag)


@pytest.mark.parametrize("call", [
    lambda x: ev.ts("median", x, 3),
    lambda x: ev.ts("mean", x, 0),
    lambda x: ev.binary("add", x, x[:2]),
    lambda x: ev.book_weights(x, "softmax", 0, 0.1),
])
def test_bad_arguments_are_refused(call):
    with pytest.raises(ValueError):
        call(panel(0))


_BUILD_OUTPUTS = """
import sys
import numpy as np
from quillmarsh.local import _evaluator as ev
rng = np.random.default_rng(5)
x, y = rng.standard_normal((70, 37)) ** 3, rng.standard_normal((70, 37))
x[rng.random(x.shape) < 0.1] = np.nan
outs = [ev.ts(op, x, w) for op in ("sum", "mean", "std", "zscore", "min", "max", "rank", "decay_linear")
        for w in (1, 3, 8)]
outs += [ev.ts2(op, x, y, 6) for op in ("corr", "cov")] + [ev.cs(op, x) for op in ("rank", "zscore", "demean", "scale")]
outs += [ev.unary(op, x) for op in ("slog", "ssqrt", "sign", "inverse")] + [ev.binary("div", x, y)]
outs += [np.array(ev.book_series(x, 0.01 * y, norm, 2, 0.06, y > 1)) for norm in ("none", "rank")]
np.save(sys.argv[1], np.concatenate([o.ravel() for o in outs]))
print(ev.kernel_build)
"""


def test_baseline_build_agrees_with_the_machines(tmp_path):
    # Every kernel is compiled for the x86-64 baseline and for AVX2; both must give the same panels to the
    # last bit, so that a signal scores the same on every machine.
    runs = {}
    for label, extra in (("native", {}), ("baseline", {"QUILLMARSH_KERNELS": "baseline"})):
        env = {k: v for k, v in os.environ.items() if k != "QUILLMARSH_KERNELS"} | extra
        out = tmp_path / f"{label}.npy"
        done = subprocess.run([sys.executable, "-c", _BUILD_OUTPUTS, str(out)], env=env, capture_output=True,
                              text=True, timeout=120, check=True)
        runs[label] = (done.stdout.strip(), np.load(out))
    assert runs["baseline"][0] == "x86-64"
    if runs["native"][0] == "x86-64":
        pytest.skip("this machine runs the baseline build")
    np.testing.assert_array_equal(runs["native"][1], runs["baseline"][1])


def test_output_panels_never_share_memory_while_alive():
    # Output memory is recycled once Python lets a panel go; a live panel must keep its own.
    x = panel(2)
    first = [ev.unary("neg", x) for _ in range(3)]
    del first[1]
    later = [ev.unary("abs", x) for _ in range(3)]
    live = first + later
    assert not any(np.shares_memory(a, b) for i, a in enumerate(live) for b in live[i + 1:])
    for a in first:
        assert_panel_equal(a, -x)

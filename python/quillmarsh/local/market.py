"""The embedded market: a deterministic synthetic daily equity panel, its binary cache, and a CSV loader.

Returns follow a factor model: a market factor with GARCH(1,1) volatility, sector and style factors, and
idiosyncratic noise with its own volatility clustering, all with Student-t innovations (fat tails).
Two small edges are planted in the expected return of the next day:

* short-term reversal: ``-edge * zscore_cs(5-day return) * idio_vol``, so the 5-day return predicts the
  next day's return with a negative sign;
* slow drift: ``edge * d * idio_vol`` with ``d`` a persistent AR(1) trait per instrument, observed with
  noise as the raw field ``drift_obs``.

Everything else (the ``alt_*`` fields, volumes, ranges) carries no edge beyond what it borrows from
returns. Panels are (days, instruments) float64 arrays; NaN marks a day on which an instrument did not
trade (before its listing, after its delisting, and on rare missing days).
"""
from __future__ import annotations

import csv
import os
import tempfile
from dataclasses import dataclass, field
from pathlib import Path

import numpy as np

CACHE_VERSION = 1
N_SECTORS = 10
N_STYLES = 3
N_ALT_FIELDS = 15
RAW_FIELDS = ("close", "open", "high", "low", "vwap", "volume", "shares", "drift_obs") + tuple(
    f"alt_{i}" for i in range(N_ALT_FIELDS))


@dataclass
class Market:
    """A daily panel: raw fields by name, each (days, instruments) float64, plus dates and identifiers."""

    fields: dict
    dates: np.ndarray
    instruments: list
    sector: np.ndarray
    _fwd_returns: np.ndarray | None = field(default=None, repr=False)

    @property
    def shape(self):
        return self.fields["close"].shape

    @property
    def fwd_returns(self) -> np.ndarray:
        """Return from day t's close to day t+1's; NaN where either close is missing and on the last day."""
        if self._fwd_returns is None:
            close = self.fields["close"]
            fwd = np.full_like(close, np.nan)
            fwd[:-1] = close[1:] / close[:-1] - 1.0
            self._fwd_returns = fwd
        return self._fwd_returns

    def field(self, name: str) -> np.ndarray:
        try:
            return self.fields[name]
        except KeyError:
            raise KeyError(f"market has no field {name!r}; fields: {sorted(self.fields)}") from None


def _student_t(rng, df, size):
    """Student-t draws scaled to unit variance."""
    return rng.standard_t(df, size) / np.sqrt(df / (df - 2.0))


def generate_market(n_instruments: int = 500, n_days: int = 1260, seed: int = 7,
                    edge: float = 0.01) -> Market:
    """Generate the synthetic panel. Same arguments, same panel, on any machine."""
    if n_instruments < 2 or n_days < 30:
        raise ValueError(f"a market needs at least 2 instruments and 30 days, got {n_instruments}x{n_days}")
    if not np.isfinite(edge) or edge < 0:
        raise ValueError(f"edge must be a finite non-negative number, got {edge!r}")
    rng = np.random.default_rng(seed)
    T, N = n_days, n_instruments
    sector = rng.integers(0, N_SECTORS, N)
    beta = rng.normal(1.0, 0.3, N)
    style_exp = rng.standard_normal((N, N_STYLES))
    idio_level = 0.018 * np.exp(rng.normal(0.0, 0.3, N))

    # Market factor with GARCH(1,1) variance.
    mkt = np.empty(T)
    var = 0.01 ** 2
    for t in range(T):
        mkt[t] = np.sqrt(var) * _student_t(rng, 4.0, None)
        var = 0.01 ** 2 * 0.05 + 0.08 * mkt[t] ** 2 + 0.87 * var
    sector_ret = 0.007 * _student_t(rng, 5.0, (T, N_SECTORS))
    style_ret = 0.003 * rng.standard_normal((T, N_STYLES))
    common = beta * mkt[:, None] + sector_ret[:, sector] + style_ret @ style_exp.T

    # Persistent trait behind the slow drift, stationary standard deviation 1.
    phi = 0.995
    d = rng.standard_normal(N)
    drift_shocks = rng.standard_normal((T, N)) * np.sqrt(1 - phi ** 2)
    drift_obs = np.empty((T, N))

    ret = np.empty((T, N))
    idio_var = idio_level ** 2
    shocks = _student_t(rng, 5.0, (T, N))
    alpha = np.zeros(N)
    for t in range(T):
        idio_vol = np.sqrt(idio_var)
        e = idio_vol * shocks[t]
        ret[t] = common[t] + e + alpha
        idio_var = idio_level ** 2 * 0.06 + 0.08 * e ** 2 + 0.86 * idio_var
        d = phi * d + drift_shocks[t]
        drift_obs[t] = d + 0.5 * rng.standard_normal(N)
        past5 = ret[max(0, t - 4): t + 1].sum(axis=0)
        z5 = (past5 - past5.mean()) / (past5.std() + 1e-12)
        alpha = edge * idio_level * (d - z5)
    ret = np.clip(ret, -0.5, 1.0)

    close = 10.0 * np.exp(rng.normal(1.5, 0.8, N)) * np.exp(np.cumsum(np.log1p(ret), axis=0))
    prev = np.vstack([close[:1] / (1 + ret[:1]), close[:-1]])
    open_ = prev * np.exp(0.3 * ret + 0.002 * rng.standard_normal((T, N)))
    hi_noise = np.abs(rng.normal(0.0, 0.006, (T, N)))
    lo_noise = np.abs(rng.normal(0.0, 0.006, (T, N)))
    high = np.maximum(open_, close) * (1 + hi_noise)
    low = np.minimum(open_, close) * (1 - lo_noise)
    vwap = (high + low + 2 * close) / 4.0
    shares = np.exp(rng.normal(18.0, 1.0, N)) * np.ones((T, 1))
    base_volume = shares[0] * np.exp(rng.normal(-5.0, 0.5, N))
    vol_noise = np.empty((T, N))
    v = np.zeros(N)
    for t in range(T):
        v = 0.7 * v + 0.3 * rng.standard_normal(N)
        vol_noise[t] = v
    volume = base_volume * np.exp(vol_noise + 8.0 * np.abs(ret - common))

    # Noise fields: AR(1) processes of various persistence, unrelated to returns.
    alts = {}
    for i in range(N_ALT_FIELDS):
        rho = 0.5 + 0.49 * (i / max(1, N_ALT_FIELDS - 1))
        a = np.empty((T, N))
        cur = rng.standard_normal(N)
        noise = rng.standard_normal((T, N)) * np.sqrt(1 - rho ** 2)
        for t in range(T):
            cur = rho * cur + noise[t]
            a[t] = cur
        alts[f"alt_{i}"] = a * (1 + i) + (i % 3)

    fields = {"close": close, "open": open_, "high": high, "low": low, "vwap": vwap, "volume": volume,
              "shares": shares, "drift_obs": drift_obs, **alts}

    # Listings, delistings and missing days: the instrument did not trade, so every field is missing.
    missing = rng.random((T, N)) < 0.001
    late = rng.random(N) < 0.05
    missing[:, late] |= np.arange(T)[:, None] < rng.integers(1, T // 3, N)[late]
    early = rng.random(N) < 0.03
    missing[:, early] |= np.arange(T)[:, None] >= rng.integers(2 * T // 3, T, N)[early]
    for arr in fields.values():
        arr[missing] = np.nan

    dates = np.busday_offset(np.datetime64("2015-01-02", "D"), np.arange(T), roll="forward")
    instruments = [f"QM{i:04d}" for i in range(N)]
    return Market({k: np.ascontiguousarray(v, dtype=np.float64) for k, v in fields.items()},
                  dates, instruments, sector.astype(np.int64))


def cache_path(data_dir, n_instruments: int, n_days: int, seed: int, edge: float) -> Path:
    return Path(data_dir) / "local_market" / (
        f"market_v{CACHE_VERSION}_{n_instruments}x{n_days}_s{seed}_e{edge:g}.npz")


def save_market(market: Market, path) -> None:
    """Write the panel as an uncompressed .npz (fields as float32, close as float64), atomically."""
    path = Path(path)
    path.parent.mkdir(parents=True, exist_ok=True)
    arrays = {f"f_{k}": (v if k == "close" else v.astype(np.float32)) for k, v in market.fields.items()}
    arrays["dates"] = market.dates.astype("datetime64[D]").astype(np.int64)
    arrays["instruments"] = np.array(market.instruments)
    arrays["sector"] = market.sector
    fd, tmp = tempfile.mkstemp(dir=path.parent, suffix=".npz.tmp")
    os.close(fd)
    try:
        with open(tmp, "wb") as fh:
            np.savez(fh, **arrays)
        os.replace(tmp, path)
    finally:
        if os.path.exists(tmp):
            os.unlink(tmp)


def read_market(path) -> Market:
    with np.load(path, allow_pickle=False) as z:
        fields = {k[2:]: np.ascontiguousarray(z[k], dtype=np.float64) for k in z.files if k.startswith("f_")}
        return Market(fields, z["dates"].astype("datetime64[D]"), [str(s) for s in z["instruments"]],
                      z["sector"].astype(np.int64))


def load_market(data_dir=None, n_instruments: int = 500, n_days: int = 1260, seed: int = 7,
                edge: float = 0.01) -> Market:
    """The market of these arguments: read from the data directory's cache, or generated and cached there.

    Without a data directory the panel is generated and not stored.
    """
    if data_dir is None:
        return generate_market(n_instruments, n_days, seed, edge)
    path = cache_path(data_dir, n_instruments, n_days, seed, edge)
    if path.exists():
        return read_market(path)
    market = generate_market(n_instruments, n_days, seed, edge)
    save_market(market, path)
    return read_market(path)  # the same values that later loads will see


def load_csv_market(path, sector_field: str | None = None) -> Market:
    """A user's own panel from a CSV file with the columns ``date``, ``instrument`` and numeric fields.

    A ``close`` field is required (returns come from it). Empty cells are missing values. A
    ``sector_field``, if named, must be constant per instrument; it becomes the sector code.
    """
    with open(path, newline="") as fh:
        reader = csv.DictReader(fh)
        cols = reader.fieldnames or []
        for needed in ("date", "instrument", "close"):
            if needed not in cols:
                raise ValueError(f"{path}: CSV lacks the column {needed!r}; columns: {cols}")
        names = [c for c in cols if c not in ("date", "instrument")]
        rows = list(reader)
    if not rows:
        raise ValueError(f"{path}: CSV has no rows")
    dates = sorted({r["date"] for r in rows})
    instruments = sorted({r["instrument"] for r in rows})
    di = {d: i for i, d in enumerate(dates)}
    ii = {s: i for i, s in enumerate(instruments)}
    fields = {n: np.full((len(dates), len(instruments)), np.nan) for n in names}
    for lineno, r in enumerate(rows, start=2):
        t, n = di[r["date"]], ii[r["instrument"]]
        for name in names:
            cell = (r.get(name) or "").strip()
            if cell:
                try:
                    fields[name][t, n] = float(cell)
                except ValueError:
                    raise ValueError(f"{path}:{lineno}: field {name!r} is not a number: {cell!r}") from None
    sector = np.zeros(len(instruments), dtype=np.int64)
    if sector_field is not None:
        codes = fields.pop(sector_field)
        for n in range(len(instruments)):
            vals = np.unique(codes[:, n][~np.isnan(codes[:, n])])
            if vals.size > 1:
                raise ValueError(f"{path}: {sector_field!r} changes over time for {instruments[n]!r}")
            sector[n] = int(vals[0]) if vals.size else -1
    try:
        date_arr = np.array(dates, dtype="datetime64[D]")
    except ValueError:
        raise ValueError(f"{path}: dates must be ISO dates (YYYY-MM-DD)") from None
    return Market(fields, date_arr, instruments, sector)

"""Vocabulary of the local evaluator: its functions and the features derived from the market.

The vocabulary is emitted in the canonical nested shape: functions grouped by kind under ``rotations``,
``filtrations`` and ``reductions`` (each group a map of family to list of entries), features grouped by
family. Feature names are obfuscated per market seed; the evaluator maps them back.

Configuration values are fixed per function by the built-in template, so windows come as separate
functions (``ts_mean_5``, ``ts_mean_20``, ``ts_mean_60``), each declaring its window as an int parameter
whose default is the function's window.
"""
from __future__ import annotations

import hashlib
import json
from dataclasses import dataclass, field

import numpy as np

from .market import N_ALT_FIELDS, Market


@dataclass(frozen=True)
class FunctionInfo:
    """One function of the evaluator: its kind, family, data inputs and configuration parameters."""

    name: str
    kind: str              # "rotation", "filtration" or "reduction"
    family: str
    subfamily: str | None  # filtrations have none
    op: str                # what the evaluator computes
    data_inputs: tuple = ("x",)
    config: tuple = ()     # (name, type, default, min, max)
    stateful: bool = False
    engine_only: bool = False

    def param_schema(self) -> dict:
        schema = {name: {"name": name, "type": "data"} for name in self.data_inputs}
        for name, typ, default, lo, hi in self.config:
            schema[name] = {"name": name, "type": typ, "default": default, "min": lo, "max": hi}
        return schema

    def entry(self) -> dict:
        e = {"name": self.name, "function_type": self.kind, "function_family": self.family,
             "param_schema": self.param_schema(), "arity": len(self.data_inputs),
             "stateful": self.stateful, "engine_only": self.engine_only}
        if self.subfamily is not None:
            e["function_subfamily"] = self.subfamily
        return e


def _function_table() -> list:
    infos = []
    ts_groups = [("mean", "smoothing"), ("sum", "smoothing"), ("decay_linear", "smoothing"),
                 ("std", "dispersion"), ("zscore", "dispersion"), ("min", "extremes"),
                 ("max", "extremes"), ("rank", "order")]
    for op, sub in ts_groups:
        for w in (5, 20, 60):
            infos.append(FunctionInfo(f"ts_{op}_{w}", "rotation", "time_series", sub, f"ts:{op}",
                                      config=(("window", "int", w, 2, 252),), stateful=True))
    for op, lags in (("delta", (1, 5, 20)), ("delay", (1, 5))):
        for d in lags:
            infos.append(FunctionInfo(f"ts_{op}_{d}", "rotation", "time_series", "difference", f"ts:{op}",
                                      config=(("lag", "int", d, 1, 252),), stateful=True))
    for op, windows in (("corr", (10, 20, 60)), ("cov", (20, 60))):
        for w in windows:
            infos.append(FunctionInfo(f"ts_{op}_{w}", "rotation", "time_series", "dependence", f"ts2:{op}",
                                      data_inputs=("x", "y"), config=(("window", "int", w, 3, 252),),
                                      stateful=True))
    for op in ("rank", "zscore", "demean", "scale"):
        infos.append(FunctionInfo(f"cs_{op}", "rotation", "cross_sectional", "normalization", f"cs:{op}"))
    for op in ("neg", "abs", "sign", "slog", "ssqrt", "square", "inverse"):
        infos.append(FunctionInfo(op, "rotation", "arithmetic", "unary", f"unary:{op}"))
    for op in ("add", "sub", "mul", "div", "min", "max"):
        infos.append(FunctionInfo(f"{op}2" if op in ("min", "max") else op, "rotation", "arithmetic",
                                  "binary", f"binary:{op}", data_inputs=("x", "y")))
    infos.append(FunctionInfo("sector_neutralize", "rotation", "cross_sectional", "group",
                              "group:demean", engine_only=True))
    infos.append(FunctionInfo("keep_liquid", "filtration", "universe", None, "filter:liquid",
                              config=(("quantile", "float", 0.5, 0.0, 0.95),)))
    infos.append(FunctionInfo("keep_above_price", "filtration", "universe", None, "filter:price",
                              config=(("min_price", "float", 5.0, 0.0, 1000.0),)))
    infos.append(FunctionInfo("cs_mean", "reduction", "aggregate", "location", "reduce:mean"))
    infos.append(FunctionInfo("cs_median", "reduction", "aggregate", "location", "reduce:median"))
    infos.append(FunctionInfo("cs_std", "reduction", "aggregate", "dispersion", "reduce:std"))
    return infos


FUNCTIONS = {s.name: s for s in _function_table()}


def _ret(m: Market, k: int) -> np.ndarray:
    c = m.fields["close"]
    out = np.full_like(c, np.nan)
    out[k:] = c[k:] / c[:-k] - 1.0
    return out


def _lag(x: np.ndarray, k: int = 1) -> np.ndarray:
    out = np.full_like(x, np.nan)
    out[k:] = x[:-k]
    return out


def _mean20(x: np.ndarray) -> np.ndarray:
    from . import _evaluator
    return _evaluator.ts("mean", np.ascontiguousarray(x), 20)


# Canonical feature name -> (family, subfamily, recipe over the market).
FEATURE_RECIPES = {
    "close": ("price", "level", lambda m: m.fields["close"]),
    "open": ("price", "level", lambda m: m.fields["open"]),
    "high": ("price", "level", lambda m: m.fields["high"]),
    "low": ("price", "level", lambda m: m.fields["low"]),
    "vwap": ("price", "level", lambda m: m.fields["vwap"]),
    "log_close": ("price", "level", lambda m: np.log(m.fields["close"])),
    "ret_1": ("price", "return", lambda m: _ret(m, 1)),
    "ret_5": ("price", "return", lambda m: _ret(m, 5)),
    "ret_20": ("price", "return", lambda m: _ret(m, 20)),
    "ret_60": ("price", "return", lambda m: _ret(m, 60)),
    "gap": ("price", "return", lambda m: m.fields["open"] / _lag(m.fields["close"]) - 1.0),
    "intraday": ("price", "return", lambda m: m.fields["close"] / m.fields["open"] - 1.0),
    "range": ("price", "range", lambda m: (m.fields["high"] - m.fields["low"]) / m.fields["close"]),
    "close_to_vwap": ("price", "range", lambda m: m.fields["close"] / m.fields["vwap"] - 1.0),
    "volume": ("volume", "activity", lambda m: m.fields["volume"]),
    "log_volume": ("volume", "activity", lambda m: np.log(m.fields["volume"])),
    "dollar_volume": ("volume", "liquidity", lambda m: m.fields["volume"] * m.fields["vwap"]),
    "volume_ratio": ("volume", "activity", lambda m: m.fields["volume"] / _mean20(m.fields["volume"])),
    "share_turnover": ("volume", "liquidity", lambda m: m.fields["volume"] / m.fields["shares"]),
    "log_cap": ("fundamental", "size", lambda m: np.log(m.fields["close"] * m.fields["shares"])),
    "quality": ("fundamental", "quality", lambda m: m.fields["drift_obs"]),
    **{f"alt_{i}": ("alternative", f"source_{i % 4}", (lambda i: lambda m: m.fields[f"alt_{i}"])(i))
       for i in range(N_ALT_FIELDS)},
}
# Features with a planted edge (the rest carry none of their own).
PLANTED_FEATURES = ("ret_5", "quality")

ROTATION_FAMILIES = ["time_series", "cross_sectional", "arithmetic"]


def obfuscated_name(canonical: str, seed: int) -> str:
    return "fx_" + hashlib.blake2b(f"{seed}:{canonical}".encode(), digest_size=5).hexdigest()


def feature_array(market: Market, canonical: str) -> np.ndarray:
    try:
        _, _, recipe = FEATURE_RECIPES[canonical]
    except KeyError:
        raise KeyError(f"unknown feature {canonical!r}") from None
    with np.errstate(divide="ignore", invalid="ignore"):
        arr = np.ascontiguousarray(recipe(market), dtype=np.float64)
    arr[~np.isfinite(arr)] = np.nan
    return arr


def feature_stats(arr: np.ndarray) -> dict:
    ok = ~np.isnan(arr)
    if not ok.any():
        return {"mean": None, "std": None, "pct_nan": 100.0, "min": None, "max": None}
    v = arr[ok]
    return {"mean": float(v.mean()), "std": float(v.std()), "pct_nan": float(100.0 * (1 - ok.mean())),
            "min": float(v.min()), "max": float(v.max())}


@dataclass
class Vocabulary:
    """The vocabulary of one market: the canonical nested map and the name maps the evaluator needs."""

    raw: dict
    feature_to_canonical: dict = field(default_factory=dict)

    def to_json(self) -> str:
        return json.dumps(self.raw, sort_keys=True)


def build_vocabulary(market: Market, seed: int) -> Vocabulary:
    """The canonical nested vocabulary, with statistics and hashes computed from the market's data."""
    rotations, filtrations, reductions = {}, {}, {}
    groups = {"rotation": rotations, "filtration": filtrations, "reduction": reductions}
    for info in FUNCTIONS.values():
        groups[info.kind].setdefault(info.family, []).append(info.entry())
    features = {}
    mapping = {}
    for canonical, (family, subfamily, _) in FEATURE_RECIPES.items():
        arr = feature_array(market, canonical)
        name = obfuscated_name(canonical, seed)
        mapping[name] = canonical
        digest = hashlib.blake2b(arr.tobytes(), digest_size=8).hexdigest()
        features.setdefault(family, []).append({
            "name": name, "function_type": "feature", "feature_family": family,
            "feature_subfamily": subfamily, "rotation_families": list(ROTATION_FAMILIES),
            "feature_hash": digest, "stats": feature_stats(arr)})
    raw = {"rotations": rotations, "filtrations": filtrations, "reductions": reductions, "features": features}
    return Vocabulary(raw, mapping)

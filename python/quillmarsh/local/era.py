"""The era of the local market: its universe, signal pool, pnl columns, transform pipeline and thresholds.

`local_era_map` builds the plain map; `LocalEraConfig` wraps it as an object whose attributes are the
fields, with the map itself kept as ``_data`` (attributes and map share their values, so a signal added to
a pool's ``found_signal_ids`` is seen through both).
"""
from __future__ import annotations

import copy

UNIVERSE_ID = "QM500"
SIGNAL_POOL_ID = "local_pool"
PNL_COLUMNS = ("gross_returns", "net_returns")

TRANSFORM_PIPELINE = (
    {"name": "normalization", "options": ["zscore", "rank", "none"], "default": "zscore"},
    {"name": "decay", "options": [0, 3, 5], "default": 0},
    {"name": "truncation", "options": [0.05, 0.1, 0.0], "default": 0.05},
)

# Set so that the planted signals, expressed directly, pass and a random feature rarely does.
THRESHOLDS = {
    "sharpe_min": 1.25,
    "turnover_max": 0.9,
    "delta_exposure_max": 0.05,
    "max_weight_max": 0.1,
    "correlation_max": 0.7,
    "abs_weight_sum_mean_min": 0.5,
    "mi_threshold": 0.3,
}


def local_era_map(era_id: int = 1, universe_id: str = UNIVERSE_ID, thresholds: dict | None = None,
                  found_signal_ids=(), max_expression_generation_seconds: float = 5.0,
                  max_depth: int = 4, max_node_count: int = 40,
                  buffer_duration_minutes: int = 20160) -> dict:
    """The era configuration as a plain map."""
    if not isinstance(era_id, int) or isinstance(era_id, bool) or era_id < 0:
        raise ValueError(f"era_id must be a non-negative integer, got {era_id!r}")
    if not isinstance(universe_id, str) or not universe_id:
        raise ValueError(f"universe_id must be a non-empty string, got {universe_id!r}")
    for name, value in (("max_expression_generation_seconds", max_expression_generation_seconds),
                        ("max_depth", max_depth), ("max_node_count", max_node_count),
                        ("buffer_duration_minutes", buffer_duration_minutes)):
        if isinstance(value, bool) or not isinstance(value, (int, float)) or not value > 0:
            raise ValueError(f"{name} must be a positive number, got {value!r}")
    th = dict(THRESHOLDS if thresholds is None else thresholds)
    return {
        "era_id": era_id,
        "universe_id": universe_id,
        "valid_universe_id": universe_id,
        "signal_pool_id": SIGNAL_POOL_ID,
        "signal_pools": [{"signal_pool_id": SIGNAL_POOL_ID, "name": SIGNAL_POOL_ID,
                          "mi_pnl_column": PNL_COLUMNS[0], "found_signal_ids": list(found_signal_ids)}],
        "evaluation_pnl_columns": list(PNL_COLUMNS),
        "transform_pipeline": copy.deepcopy(list(TRANSFORM_PIPELINE)),
        "thresholds": th,
        "column_threshold_rules": [{"column": PNL_COLUMNS[0], "stat": "sharpe",
                                    "min": th.get("sharpe_min", 0.0)}],
        "max_expression_generation_seconds": float(max_expression_generation_seconds),
        "max_depth": int(max_depth),
        "max_node_count": int(max_node_count),
        "buffer_duration_minutes": int(buffer_duration_minutes),
    }


class LocalEraConfig:
    """An era configuration object: every field an attribute, the raw map as ``_data``."""

    def __init__(self, data: dict | None = None, **kwargs):
        if data is None:
            data = local_era_map(**kwargs)
        elif kwargs:
            raise TypeError("give either a map or keyword fields, not both")
        if not isinstance(data, dict):
            raise TypeError(f"era configuration must be a dict, got {type(data).__name__}")
        self._data = data
        for key, value in data.items():
            if not isinstance(key, str) or not key.isidentifier() or key.startswith("_"):
                raise ValueError(f"era field name {key!r} cannot be an attribute")
            setattr(self, key, value)

    def as_map(self) -> dict:
        return self._data

    def pool(self, pool_id: str | None = None) -> dict:
        pools = self._data.get("signal_pools") or []
        for p in pools:
            if pool_id is None or p.get("signal_pool_id") == pool_id or p.get("name") == pool_id:
                return p
        raise ValueError(f"era {self._data.get('era_id')!r} has no signal pool {pool_id!r}")

    def __repr__(self):
        return f"LocalEraConfig(era_id={self._data.get('era_id')!r}, universe_id={self._data.get('universe_id')!r})"

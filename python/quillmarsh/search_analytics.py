"""Analytics of earlier evaluations, grouped by the functions and features that an expression used.

A row's ``group_key`` is the pair (sorted function names, sorted feature names) of an expression; its
``windows`` are [all time, the last 24 hours]. A window's ``yield_rate`` is the group's pass rate relative
to the pass rate of all evaluations of the window, minus one: 0.0 is average, 1.0 twice as good, -1.0 never
passed. Where nothing in the window passed at all, every group has -1.0.
"""

from __future__ import annotations

import dataclasses
import time
from collections.abc import Mapping

__all__ = ["SearchStatsResult", "AnalyticsRow", "AnalyticsWindow", "SearchAnalytics", "_resolve_pool_configs"]

RECENT_WINDOW_SECONDS = 86400.0


@dataclasses.dataclass
class SearchStatsResult:
    total_evaluations: int = 0
    rows: list = dataclasses.field(default_factory=list)


@dataclasses.dataclass
class AnalyticsWindow:
    name: str
    yield_rate: float
    evaluation_count: int
    pass_count: int


@dataclasses.dataclass
class AnalyticsRow:
    group_key: tuple
    windows: list
    evaluation_count: int


def _field(entry, name):
    if isinstance(entry, Mapping):
        return entry.get(name)
    return getattr(entry, name, None)


def _resolve_pool_configs(options) -> list:
    """The signal pools of ``options["era_config"]`` as maps with ``pool_id`` and the raw ``entry``."""
    if not isinstance(options, Mapping):
        raise TypeError("pool config options must be a mapping with the key 'era_config'")
    era_config = options.get("era_config")
    pools = _field(era_config, "signal_pools") if era_config is not None else None
    if not pools and era_config is not None and not isinstance(era_config, Mapping):
        raw = getattr(era_config, "_data", None)
        pools = raw.get("signal_pools") if isinstance(raw, Mapping) else None
    if not isinstance(pools, (list, tuple)):
        return []
    configs, seen = [], set()
    for entry in pools:
        pool_id = _field(entry, "signal_pool_id") or _field(entry, "name")
        if isinstance(pool_id, str) and pool_id and pool_id not in seen:
            seen.add(pool_id)
            configs.append({"pool_id": pool_id, "entry": entry})
    return configs


class SearchAnalytics:
    """Group statistics of a tracker's signal evaluations in the given pools."""

    def __init__(self, tracker, pool_configs):
        if not callable(getattr(tracker, "signal_outcomes", None)):
            raise TypeError("SearchAnalytics needs a tracker with signal_outcomes()")
        pool_ids = []
        for config in pool_configs or ():
            pool_id = _field(config, "pool_id")
            if not isinstance(pool_id, str) or not pool_id:
                raise ValueError("pool configuration without a pool_id: %r" % (config,))
            pool_ids.append(pool_id)
        if not pool_ids:
            raise ValueError("SearchAnalytics needs at least one pool configuration")
        self._tracker = tracker
        self.pool_ids = tuple(pool_ids)

    def get_search_stats(self, now: float | None = None) -> SearchStatsResult:
        outcomes = self._tracker.signal_outcomes(self.pool_ids)
        recent_since = (time.time() if now is None else now) - RECENT_WINDOW_SECONDS
        groups: dict = {}
        totals = [[0, 0], [0, 0]]  # [evaluations, passes] for all time and recent
        for functions, features, passed, created_at in outcomes:
            key = (tuple(functions), tuple(features))
            counts = groups.setdefault(key, [[0, 0], [0, 0]])
            windows = (0, 1) if created_at >= recent_since else (0,)
            for w in windows:
                counts[w][0] += 1
                counts[w][1] += int(passed)
                totals[w][0] += 1
                totals[w][1] += int(passed)
        rows = []
        for (functions, features), counts in groups.items():
            windows = []
            for w, name in ((0, "all"), (1, "recent")):
                n, p = counts[w]
                overall = totals[w][1] / totals[w][0] if totals[w][0] else 0.0
                rate = (p / n) / overall - 1.0 if n and overall > 0.0 else (-1.0 if n else 0.0)
                windows.append(AnalyticsWindow(name, rate, n, p))
            rows.append(AnalyticsRow((list(functions), list(features)), windows, counts[0][0]))
        rows.sort(key=lambda row: (-row.evaluation_count, row.group_key))
        return SearchStatsResult(total_evaluations=len(outcomes), rows=rows)

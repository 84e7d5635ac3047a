"""Analytics of earlier evaluations, one row for each function and each feature that expressions used.

A row's ``group_key`` is the pair (function names, feature names) that it speaks for: one function and no
feature, or no function and one feature. Its ``windows`` are [all time, recent]; recent is the last 24
hours, counted in whole hours of the wall clock (so up to 25 hours). A window's ``yield_rate`` is the pass
rate of the expressions that used the name relative to the pass rate of all evaluations of the window,
minus one: 0.0 is average, 1.0 twice as good, -1.0 never passed. Where nothing in the window passed at all,
every name has -1.0. Rows come most evaluated first.

With a tracker that keeps outcome counts per name (``signal_name_stats``) the statistics are read from
those counts, whose size does not grow with the store; a tracker that offers only ``signal_outcomes`` is
counted outcome by outcome.
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
        recent_since = (time.time() if now is None else now) - RECENT_WINDOW_SECONDS
        name_stats = getattr(self._tracker, "signal_name_stats", None)
        if callable(name_stats):
            counted = name_stats(self.pool_ids, recent_since)
        else:
            counted = _count_outcomes(self._tracker.signal_outcomes(self.pool_ids), recent_since)
        totals = [(0, 0), (0, 0)]
        names = []
        for kind, name, n, p, recent_n, recent_p in counted:
            if kind == "total":
                totals = [(n, p), (recent_n, recent_p)]
            elif kind in ("function", "feature") and n:
                names.append((kind, name, ((n, p), (recent_n, recent_p))))
        overall = [p / n if n else 0.0 for n, p in totals]
        rows = []
        for kind, name, counts in names:
            windows = []
            for w, window_name in ((0, "all"), (1, "recent")):
                n, p = counts[w]
                rate = (p / n) / overall[w] - 1.0 if n and overall[w] > 0.0 else (-1.0 if n else 0.0)
                windows.append(AnalyticsWindow(window_name, rate, n, p))
            key = ([name], []) if kind == "function" else ([], [name])
            rows.append(AnalyticsRow(key, windows, counts[0][0]))
        rows.sort(key=lambda row: (-row.evaluation_count, row.group_key))
        return SearchStatsResult(total_evaluations=totals[0][0], rows=rows)


def _count_outcomes(outcomes, recent_since: float) -> list:
    """Per-name counts, in the shape of ``SearchTracker.signal_name_stats``, of (functions, features,
    passed, created_at) outcomes."""
    counts: dict = {}
    for functions, features, passed, created_at in outcomes:
        recent = created_at >= recent_since
        keys = [("total", "")] + [("function", f) for f in set(functions)] + [("feature", f) for f in set(features)]
        for key in keys:
            c = counts.setdefault(key, [0, 0, 0, 0])
            c[0] += 1
            c[1] += int(passed)
            if recent:
                c[2] += 1
                c[3] += int(passed)
    return [(kind, name, *c) for (kind, name), c in sorted(counts.items())]

"""The cost of the search statistics on a large store: `SearchAnalytics.get_search_stats` on a store of one
million signal evaluations, spread over 30 days, read from the per-name counts that the tracker keeps
current; the same statistics counted outcome by outcome, as a tracker without those counts is read; and
the cost of recording one evaluation with its counts.

Target: get_search_stats under 50 ms on one million evaluations.

    python benchmarks/bench_search_stats.py [--evaluations 1000000]
"""
from __future__ import annotations

import argparse
import json
import os
import random
import tempfile
import time

from quillmarsh.search_analytics import SearchAnalytics
from quillmarsh.search_tracking import SearchTracker

FUNCTIONS = ["f%02d" % i for i in range(46)]
FEATURES = ["x%02d" % i for i in range(36)]
DAYS = 30


class OutcomesOnly:
    def __init__(self, tracker):
        self.signal_outcomes = tracker.signal_outcomes


def fill(tracker: SearchTracker, n: int) -> None:
    """n evaluations in bulk, then the counts rebuilt from them as the tracker does for an older store."""
    rng = random.Random(1)
    now = time.time()
    conn = tracker._conn
    batch = []

    def flush():
        conn.execute("BEGIN IMMEDIATE")
        conn.executemany(
            "INSERT INTO signal_evaluations (eval_id, era_id, pool_id, graph_json, function_names, feature_names, "
            "passed, created_at) VALUES (?, 1, 'pool', '{}', ?, ?, ?, ?)", batch)
        conn.execute("COMMIT")
        batch.clear()

    for i in range(n):
        fns = sorted(rng.sample(FUNCTIONS, rng.randint(1, 4)))
        fes = sorted(rng.sample(FEATURES, rng.randint(1, 4)))
        batch.append(("e%d" % i, json.dumps(fns), json.dumps(fes), int(rng.random() < 0.02),
                      now - rng.random() * DAYS * 86400.0))
        if len(batch) == 50000:
            flush()
    if batch:
        flush()
    tracker._transaction(tracker._rebuild_name_stats)


def best_of(fn, repeat=5) -> float:
    best = float("inf")
    for _ in range(repeat):
        t0 = time.perf_counter()
        fn()
        best = min(best, time.perf_counter() - t0)
    return best


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--evaluations", type=int, default=1_000_000)
    args = parser.parse_args()
    print("load: %r" % (os.getloadavg(),))
    with tempfile.TemporaryDirectory() as data_dir:
        tracker = SearchTracker(data_dir)
        t0 = time.perf_counter()
        fill(tracker, args.evaluations)
        print("store of %d evaluations built in %.1f s (%d rows of per-name counts)" % (
            args.evaluations, time.perf_counter() - t0,
            tracker._conn.execute("SELECT COUNT(*) FROM signal_name_stats").fetchone()[0]))
        analytics = SearchAnalytics(tracker, [{"pool_id": "pool"}])
        stats = analytics.get_search_stats()
        print("get_search_stats, per-name counts:   %8.1f ms (%d rows, %d evaluations; target < 50 ms)" % (
            1000 * best_of(analytics.get_search_stats), len(stats.rows), stats.total_evaluations))
        scan = SearchAnalytics(OutcomesOnly(tracker), [{"pool_id": "pool"}])
        print("get_search_stats, outcome by outcome: %8.1f ms" % (1000 * best_of(scan.get_search_stats, 1)))
        graph = {"type": "rotation", "node": "f01", "children": [{"type": "feature", "node": "x01"}]}
        n = 2000
        t0 = time.perf_counter()
        for _ in range(n):
            tracker.record_signal_evaluation(graph, None, 1, False, "u", {}, pool_id="pool")
        print("record_signal_evaluation with counts: %7.1f us per evaluation" % (1e6 * (time.perf_counter() - t0) / n))
        tracker.close()


if __name__ == "__main__":
    main()

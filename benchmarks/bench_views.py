"""The views of a store: what one refresh of the live view and one `quillmarsh signals` cost on a large store.

A store of N evaluations (2% of them passing, a tenth of those answered by the service) is built through the
tracker, then a live view attaches as a running search's would, and the search adds evaluations between
refreshes. Printed: milliseconds per refresh of the counts (which read only the rows added since the search
began), per re-read of the best signals, and per listing of every signal. The live view refreshes its counts
every second and its best signals every few seconds, so a refresh should stay well under 100 ms.
"""
import json
import os
import random
import sqlite3
import sys
import tempfile
import time

from quillmarsh.live import StoreCounter
from quillmarsh.search_tracking import SearchTracker
from quillmarsh.signals import load_signals

SIZES = (100_000, 400_000)
NEW_PER_REFRESH = 100


def fill(tracker, n, rng):
    """n evaluations straight into the store's table, in the tracker's own column layout."""
    rows = []
    now = time.time() - 3600
    for i in range(n):
        passed = rng.random() < 0.02
        graph = json.dumps({"type": "rotation", "node": "cs_rank",
                            "children": [{"type": "feature", "node": f"f_{rng.randrange(5000)}"}]})
        rows.append((f"{i:032x}", 1, "U", "p", graph, 1 if passed else 0, None if passed else "sharpe_below_min",
                     rng.gauss(1.0, 1.0), rng.gauss(0.5, 0.5), now + i * 1e-3))
    tracker._conn.execute("BEGIN")
    tracker._conn.executemany(
        "INSERT INTO signal_evaluations (eval_id, era_id, universe_id, pool_id, graph_json, passed, "
        "rejection_reason, sharpe, quality_score, created_at) VALUES (?,?,?,?,?,?,?,?,?,?)", rows)
    answered = [r[0] for r in rows if r[5]][::10]
    tracker._conn.executemany(
        "INSERT INTO submission_status (eval_id, eval_type, era_id, submission_id, status, submitted_at, "
        "is_stats_json) VALUES (?, 'signal', 1, ?, 'found', ?, '{\"sharpe\": 1.0}')",
        [(e, f"s{e}", now) for e in answered])
    tracker._conn.executemany(
        "INSERT INTO submission_queue (eval_id, eval_type, payload_json, era_id, created_at) "
        "VALUES (?, 'signal', '{}', 1, ?)", [(r[0], now) for r in rows if r[5]][1::10])
    tracker._conn.execute("COMMIT")


def per_call_ms(fn, repeat):
    start = time.perf_counter()
    for _ in range(repeat):
        fn()
    return (time.perf_counter() - start) / repeat * 1e3


def main():
    rng = random.Random(7)
    print(f"{'evaluations':>12} {'counts ms':>10} {'best ms':>8} {'all signals ms':>15} {'signals':>8}")
    for n in SIZES:
        with tempfile.TemporaryDirectory() as d:
            tracker = SearchTracker(d)
            fill(tracker, n, rng)
            reader = sqlite3.connect(f"file:{os.path.join(d, 'search_tracking.db')}?mode=ro", uri=True)
            counter = StoreCounter(reader, since=time.time())
            extra, spent = [0], 0.0
            for _ in range(20):
                fill_new(tracker, extra, rng)  # the search goes on between refreshes
                start = time.perf_counter()
                counter.evaluations()
                counter.submissions()
                spent += time.perf_counter() - start
            counts = spent / 20 * 1e3
            best = per_call_ms(lambda: load_signals(reader, since=counter.since, limit=5,
                                                    after_rowid=counter.baseline_rowid), 20)
            everything = per_call_ms(lambda: load_signals(reader), 3)
            listed = len(load_signals(reader))
            print(f"{n:>12,} {counts:>10.2f} {best:>8.2f} {everything:>15.1f} {listed:>8,}")
            reader.close()
            tracker.close()
    return 0


def fill_new(tracker, extra, rng):
    """The search goes on between refreshes: a hundred new evaluations."""
    rows = []
    for _ in range(NEW_PER_REFRESH):
        extra[0] += 1
        rows.append((f"new{extra[0]:029x}", json.dumps({"type": "feature", "node": f"f_{extra[0]}"}),
                     1 if rng.random() < 0.02 else 0, rng.gauss(1.0, 1.0), time.time()))
    tracker._conn.execute("BEGIN")
    tracker._conn.executemany("INSERT INTO signal_evaluations (eval_id, era_id, graph_json, passed, sharpe, "
                              "created_at) VALUES (?, 1, ?, ?, ?, ?)", rows)
    tracker._conn.execute("COMMIT")


if __name__ == "__main__":
    sys.exit(main())

"""What a search finds in a fixed wall-clock budget on one thread: adaptive_weighted, random_weighted and
plain uniform random draws over the same functions and features, each on a fresh data directory of the
local platform (each in a process of its own, so that nothing carries over).

Per method: evaluations (and per second), the pass rate by minute of the run, exact repeats (evaluations
of a graph already evaluated in the run), found (what the search judged a pass), distinct found (found signals kept greedily in the order found while the
absolute correlation of their in-sample daily pnl with every signal already kept stays below 0.7), and
the median in-sample and held-out Sharpe of the distinct ones (held out: the market's last 20% of days,
which the search never sees).

Target, 3 minutes on one thread: adaptive_weighted finds at least 200 distinct signals with a held-out
Sharpe median of at least 1.8, with under 2% exact repeats.

    python benchmarks/bench_search_quality.py [--minutes 3] [--methods adaptive_weighted,random_weighted,uniform]
"""
from __future__ import annotations

import argparse
import json
import math
import os
import random
import statistics
import subprocess
import sys
import tempfile
import time

METHODS = ("adaptive_weighted", "random_weighted", "uniform")
DISTINCT_CORRELATION = 0.7


def uniform_template(ctx):
    """Uniform random draws over the safe rotations and features, depth uniform in [2, max depth]."""
    import quillmarsh.search_templates as st

    vocab = st._normalize_template_vocabulary(ctx.vocabulary)
    max_depth = min(int(ctx.max_depth), st._RANDOM_WEIGHTED_MAX_DEPTH)
    node_limit = st._random_weighted_node_limit(ctx)
    rotations = st._random_weighted_safe_rotations(
        vocab.get("functions", []), st._random_weighted_window_limit(ctx, max_depth), node_limit,
        st._random_weighted_runtime_registry(ctx))
    rotations = st._random_weighted_rotations_within_node_budget(rotations, node_limit)
    depth = st._random_weighted_max_depth_within_node_budget(rotations, max_depth, node_limit)
    names = [r["name"] for r in rotations]
    specs = {r["name"]: r for r in rotations}
    features = st._random_weighted_feature_names(vocab.get("features", []))
    flat_f = [float(i + 1) for i in range(len(names))]
    flat_fe = [float(i + 1) for i in range(len(features))]
    while True:
        yield st._build_random_signal_expression(names, specs, flat_f, features, flat_fe, random.randint(2, depth))


def run_method(method: str, seconds: float, data_dir: str) -> dict:
    """One search in this process; returns the measured counts."""
    import numpy as np

    from quillmarsh.local import platform
    import quillmarsh.search_templates as st

    local = platform.setup(data_dir)
    template = uniform_template if method == "uniform" else getattr(st, method)
    started = time.time()
    handle = st.search(template, n_jobs=1)
    try:
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline and handle.status().running:
            time.sleep(min(1.0, max(0.0, deadline - time.monotonic())))
    finally:
        handle.stop()
    tracker = st._library_runtime.search_tracker
    rows = tracker._conn.execute(
        "SELECT graph_json, passed, created_at FROM signal_evaluations WHERE created_at >= ? ORDER BY created_at",
        (started,)).fetchall()
    graphs = [json.loads(g) for g, _, _ in rows]
    # Pass rate by minute of the run: does the search learn while it runs, and how fast?
    by_minute = {m: [0, 0] for m in range(max(1, math.ceil(seconds / 60.0)))}
    for _, passed, created_at in rows:
        if created_at - started >= seconds:
            continue  # settled while the search stopped
        counts = by_minute[int((created_at - started) // 60.0)]
        counts[0] += 1
        counts[1] += int(bool(passed))
    hashes = [st._adaptive_weighted_graph_hash(g) for g in graphs]
    repeats = len(hashes) - len(set(hashes))
    found = [g for g, (_, passed, _) in zip(graphs, rows) if passed]

    evaluator = local.evaluator
    kept, kept_pnl, in_sample, held_out = [], [], [], []
    for graph in found:
        evaluator.evaluate_expression(graph)
        stats = evaluator.run_backtest(graph)
        pnl = np.asarray(stats.factor_pnl, dtype=float)
        if not np.isfinite(pnl).all() or pnl.std() == 0:
            continue
        if any(abs(float(np.corrcoef(pnl, other)[0, 1])) >= DISTINCT_CORRELATION for other in kept_pnl):
            continue
        kept.append(graph)
        kept_pnl.append(pnl)
        in_sample.append(float(stats.sharpe))
        held_out.append(float(stats.held_out_sharpe))
    result = {"method": method, "evaluations": len(rows), "evaluations_per_second": len(rows) / seconds,
              "pass_rate_by_minute": [round(p / max(1, n), 4) for n, p in (by_minute[m] for m in sorted(by_minute))],
              "repeats": repeats, "found": len(found),
              "distinct": len(kept),
              "in_sample_median": statistics.median(in_sample) if in_sample else None,
              "held_out_median": statistics.median(held_out) if held_out else None}
    if method == "adaptive_weighted":
        learning = st.adaptive_weighted_learning() or {}
        result["learning"] = {k: v for k, v in learning.items() if not k.endswith("_weights")}
    return result


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--minutes", type=float, default=3.0)
    parser.add_argument("--methods", default=",".join(METHODS))
    parser.add_argument("--one", help=argparse.SUPPRESS)       # internal: run one method in this process
    parser.add_argument("--data-dir", help=argparse.SUPPRESS)
    parser.add_argument("--keep", help="run one method in this data directory and keep it (for a closer look)")
    args = parser.parse_args()
    if args.one:
        print(json.dumps(run_method(args.one, args.minutes * 60.0, args.data_dir)))
        return
    if args.keep:
        print(json.dumps(run_method(args.methods.split(",")[0], args.minutes * 60.0, args.keep)))
        return
    print("load before: %s" % os.getloadavg().__repr__(), flush=True)
    results = []
    for method in args.methods.split(","):
        if method not in METHODS:
            raise SystemExit("unknown method %r; methods: %s" % (method, ", ".join(METHODS)))
        with tempfile.TemporaryDirectory(prefix="quality-%s-" % method) as data_dir:
            out = subprocess.run([sys.executable, __file__, "--one", method, "--minutes", str(args.minutes),
                                  "--data-dir", data_dir], capture_output=True, text=True, check=False)
        if out.returncode != 0:
            print("%s failed:\n%s" % (method, out.stderr[-3000:]), flush=True)
            continue
        result = json.loads(out.stdout.strip().splitlines()[-1])
        results.append(result)
        print(json.dumps(result), flush=True)
    print("load after: %s" % os.getloadavg().__repr__())
    print("\n%.1f minutes, one thread, fresh data directory each" % args.minutes)
    header = "%-18s %11s %7s %8s %6s %9s %10s %9s  %s" % (
        "method", "evaluations", "eval/s", "repeats", "found", "distinct", "IS sharpe", "HO sharpe",
        "pass rate by minute")
    print(header)
    print("-" * len(header))
    for r in results:
        fmt = lambda v: "-" if v is None else "%.2f" % v  # noqa: E731
        print("%-18s %11d %7.1f %7.1f%% %6d %9d %10s %9s  %s" % (
            r["method"], r["evaluations"], r["evaluations_per_second"],
            100.0 * r["repeats"] / max(1, r["evaluations"]), r["found"], r["distinct"],
            fmt(r["in_sample_median"]), fmt(r["held_out_median"]),
            " ".join("%.1f%%" % (100.0 * x) for x in r["pass_rate_by_minute"])))
    print("target for adaptive_weighted: distinct >= 200, held-out median >= 1.8, repeats < 2%")


if __name__ == "__main__":
    main()

"""Evaluations per second of the local evaluator on the default panel (500 instruments x 1,260 days).

Two modes, both run by default (``--fixed`` or ``--stream`` runs one):

Search stream. A real search on the local platform (``random_weighted`` through its search context, one
worker) is recorded for STREAM_GRAPHS graphs, in the order drawn, repeats included. The stream is then
evaluated (``evaluate_expression`` then ``run_backtest``) by today's path, operator by operator on whole
panels with the metrics in NumPy, and by whole-graph plans with the cache off and with the default cache,
each on one thread and on two taking graphs from one queue, each in a fresh process of its own so that
its peak memory is its own and each cache starts empty. The rates are medians of STREAM_RUNS runs, by the
wall clock and per CPU-second of the process (one thread: the figure the machine's other load moves least); the
bandwidth floor is the fixed set's reckoning (below) applied to the stream's graphs, and the cache's hit
rate is over the plans' lookups. ``--blocks`` then measures the stream at several block sizes.

Fixed set. A fixed, seeded set of 200 expressions of depth 2 to 4 is evaluated (``evaluate_expression`` followed by
``run_backtest``) on one thread and on two, and a subset of it through a NumPy rendition of the same
operators and metrics written here. The bytes that each evaluation must move (every operator reads its
inputs and writes its output once; the book, built day by day without being stored, reads the signal, the
returns and the one-byte liquidity flags) are set against the machine's measured memory bandwidth.
"""
from __future__ import annotations

import argparse
import json
import math
import os
import queue
import resource
import subprocess
import random
import statistics
import sys
import tempfile
import threading
import time
import warnings
from pathlib import Path

import numpy as np
from numpy.lib.stride_tricks import sliding_window_view

from quillmarsh.local.evaluator import LocalEvaluator, column_metrics
from quillmarsh.local.vocabulary import FUNCTIONS

STREAM_GRAPHS = 1500
STREAM_SECONDS = 120.0  # the recording stops here if the stream is not complete
STREAM_RUNS = 3
N_EXPRESSIONS = 200
N_REFERENCE = 12
RUNS = 3
SEED = 20240601


# ----- the expressions ------------------------------------------------------------------------------
def random_graph(rng: random.Random, rotations, features, depth):
    if depth <= 1:
        return {"type": "feature", "node": rng.choice(features)}
    info = rng.choice(rotations)
    children = [random_graph(rng, rotations, features, depth - 1) for _ in info.data_inputs]
    return {"type": "rotation", "node": info.name, "children": children}


def expressions(evaluator):
    rng = random.Random(SEED)
    rotations = [s for s in FUNCTIONS.values() if s.kind == "rotation" and not s.engine_only]
    features = sorted(evaluator.vocabulary.feature_to_canonical)
    return [random_graph(rng, rotations, features, rng.randint(2, 4)) for _ in range(N_EXPRESSIONS)]


def count_nodes(graph):
    if graph["type"] not in ("rotation", "filtration", "reduction"):  # features and configuration values
        return 0, 0
    info = FUNCTIONS[graph["node"]]
    ops, reads = 1, len(info.data_inputs) + 1
    for c in graph["children"]:
        o, r = count_nodes(c)
        ops, reads = ops + o, reads + r
    return ops, reads


def bytes_per_evaluation(graph, cells):
    _, panel_passes = count_nodes(graph)
    book = 8 + 8 + 1  # the book reads the signal and the returns, 8 bytes a cell, and the flags, 1 byte
    return (panel_passes * 8 + book) * cells


# ----- the NumPy rendition --------------------------------------------------------------------------
def _windows(x, w):
    pad = np.full((w - 1, x.shape[1]), np.nan)
    return sliding_window_view(np.vstack([pad, x]), w, axis=0)  # (T, N, w)


def _minp(w, two=False):
    m = max(1, (w + 1) // 2)
    return max(2, m) if two else m


def np_ts(op, x, w):
    if op in ("delay", "delta"):
        lag = np.full_like(x, np.nan)
        lag[w:] = x[:-w]
        return lag if op == "delay" else x - lag
    win = _windows(x, w)
    count = np.sum(~np.isnan(win), axis=2)
    with np.errstate(all="ignore"):
        if op == "sum":
            out = np.nansum(win, axis=2)
        elif op == "mean":
            out = np.nanmean(win, axis=2)
        elif op in ("std", "zscore"):
            sd = np.nanstd(win, axis=2, ddof=1)
            out = sd if op == "std" else (x - np.nanmean(win, axis=2)) / np.where(sd > 0, sd, np.nan)
        elif op == "min":
            out = np.nanmin(win, axis=2)
        elif op == "max":
            out = np.nanmax(win, axis=2)
        elif op == "rank":
            cur = x[:, :, None]
            less = np.sum(win < cur, axis=2)
            eq = np.sum(win == cur, axis=2)
            out = np.where(count > 1, (less + 0.5 * (eq - 1)) / np.maximum(count - 1, 1), 0.5)
        elif op == "decay_linear":
            wts = np.arange(1, w + 1, dtype=float)
            ok = ~np.isnan(win)
            out = np.nansum(win * wts, axis=2) / np.sum(ok * wts, axis=2)
    need = _minp(w, op in ("std", "zscore"))
    return np.where(np.isnan(x) | (count < need), np.nan, out)


def np_ts2(op, x, y, w):
    ok = ~(np.isnan(x) | np.isnan(y))
    a, b = np.where(ok, x, np.nan), np.where(ok, y, np.nan)
    wa, wb = _windows(a, w), _windows(b, w)
    with np.errstate(all="ignore"):
        c = np.sum(~np.isnan(wa), axis=2)
        ma, mb = np.nanmean(wa, axis=2), np.nanmean(wb, axis=2)
        cov = np.nansum((wa - ma[..., None]) * (wb - mb[..., None]), axis=2) / (c - 1)
        if op == "corr":
            cov = cov / (np.nanstd(wa, axis=2, ddof=1) * np.nanstd(wb, axis=2, ddof=1))
    return np.where(~ok | (c < _minp(w, True)), np.nan, cov)


def np_cs(op, x):
    with np.errstate(all="ignore"):
        if op == "rank":
            order = np.argsort(np.argsort(np.where(np.isnan(x), np.inf, x), axis=1), axis=1)
            n = np.sum(~np.isnan(x), axis=1, keepdims=True)
            return np.where(np.isnan(x), np.nan, order / np.maximum(n - 1, 1))
        mean = np.nanmean(x, axis=1, keepdims=True)
        if op == "demean":
            return x - mean
        if op == "zscore":
            sd = np.nanstd(x, axis=1, keepdims=True)
            return (x - mean) / np.where(sd > 0, sd, np.nan)
        s = np.nansum(np.abs(x), axis=1, keepdims=True)
        return x / np.where(s > 0, s, np.nan)


UNARY = {"neg": np.negative, "abs": np.abs, "sign": np.sign, "square": np.square,
         "slog": lambda x: np.sign(x) * np.log1p(np.abs(x)), "ssqrt": lambda x: np.sign(x) * np.sqrt(np.abs(x)),
         "inverse": lambda x: 1.0 / np.where(x == 0, np.nan, x)}
BINARY = {"add": np.add, "sub": np.subtract, "mul": np.multiply, "min": np.minimum, "max": np.maximum,
          "div": lambda a, b: a / np.where(b == 0, np.nan, b)}


def np_eval(evaluator, graph):
    if graph["type"] == "feature":
        return evaluator._feature(graph["node"])
    info = FUNCTIONS[graph["node"]]
    args = [np_eval(evaluator, c) for c in graph["children"]]
    kind, op = info.op.split(":")
    param = info.config[0][2] if info.config else None
    with np.errstate(all="ignore"):
        if kind == "ts":
            return np_ts(op, args[0], param)
        if kind == "ts2":
            return np_ts2(op, args[0], args[1], param)
        if kind == "cs":
            return np_cs(op, args[0])
        if kind == "unary":
            return UNARY[op](args[0])
        return BINARY[op](args[0], args[1])


def np_backtest(evaluator, signal, truncation=0.05, cost=5e-4):
    w = np_cs("zscore", signal)
    w = w - np.nanmean(w, axis=1, keepdims=True)
    w = np.nan_to_num(w)
    gross = np.abs(w).sum(axis=1, keepdims=True)
    w = np.divide(w, gross, out=np.zeros_like(w), where=gross > 0)
    for _ in range(10):
        w = np.clip(w, -truncation, truncation)
        g = np.abs(w).sum(axis=1, keepdims=True)
        w = np.divide(w, g, out=np.zeros_like(w), where=g > 0)
    fwd = np.nan_to_num(evaluator._fwd)
    pnl = (w * fwd).sum(axis=1)
    traded = np.abs(np.diff(w, axis=0, prepend=0.0)).sum(axis=1)
    n = evaluator.in_sample_days
    out = {c: column_metrics(p[:n], traded[:n]) for c, p in (("gross", pnl), ("net", pnl - cost * traded))}
    out["long_count"] = float((w[:n] > 0).sum(axis=1).mean())
    out["short_count"] = float((w[:n] < 0).sum(axis=1).mean())
    out["delta_exposure"] = float(np.abs(w[:n].sum(axis=1)).mean())
    out["max_weight"] = float((np.abs(w[:n]).max(axis=1) / np.maximum(np.abs(w[:n]).sum(axis=1), 1e-300)).max())
    return out


# ----- measurements ---------------------------------------------------------------------------------
def memory_bandwidth():
    src = np.ones(50_000_000 // 8 * 8)  # 400 MB
    dst = np.empty_like(src)
    best = math.inf
    for _ in range(3):
        t0 = time.perf_counter()
        np.copyto(dst, src)
        best = min(best, time.perf_counter() - t0)
    return 2 * src.nbytes / best  # read + write


def timed(fn, *args):
    t0 = time.perf_counter()
    fn(*args)
    return time.perf_counter() - t0


def fixed_main(data_dir):
    t0 = time.perf_counter()
    evaluator = LocalEvaluator(data_dir=data_dir)
    print(f"market + vocabulary ready in {time.perf_counter() - t0:.2f} s "
          f"(panel {evaluator.market.shape[0]} days x {evaluator.market.shape[1]} instruments)")
    graphs = expressions(evaluator)
    for name in evaluator.vocabulary.feature_to_canonical:  # features are built once, outside the timing
        evaluator._feature(name)
    evaluator._illiquid_flag()
    # Warm-up on one thread and on two: each thread's allocator arena fills once, outside the timing.
    run_graphs(evaluator, graphs[:5], 1)
    run_graphs(evaluator, graphs[:10], 2)

    # One thread and two threads alternately, RUNS times each; the median of each is reported, so that a
    # burst of load from another process on this shared machine moves neither figure much.
    ones, cpus, twos = [], [], []
    for _ in range(RUNS):
        cpu0 = time.thread_time()
        ones.append(timed(run_graphs, evaluator, graphs, 1))
        cpus.append(time.thread_time() - cpu0)
        twos.append(timed(run_graphs, evaluator, graphs, 2))
    rate1 = len(graphs) / statistics.median(ones)
    rate_cpu = len(graphs) / statistics.median(cpus)
    rate2 = len(graphs) / statistics.median(twos)

    ref = graphs[:N_REFERENCE]
    warnings.simplefilter("ignore", RuntimeWarning)  # the NumPy rendition's all-missing windows
    t0 = time.perf_counter()
    np_sharpes = [np_backtest(evaluator, np_eval(evaluator, g))["gross"]["sharpe"] for g in ref]
    rate_np = len(ref) / (time.perf_counter() - t0)
    fast_ref = len(ref) / timed(run_graphs, evaluator, ref, 1)
    fast_sharpes = []
    for g in ref:
        evaluator.evaluate_expression(g)
        fast_sharpes.append(evaluator.run_backtest(g).sharpe)
    gap = max(abs(a - b) for a, b in zip(np_sharpes, fast_sharpes))

    cells = evaluator.market.shape[0] * evaluator.market.shape[1]
    per_eval = np.mean([bytes_per_evaluation(g, cells) for g in graphs])
    bw = memory_bandwidth()
    floor = bw / per_eval
    print(f"expressions: {len(graphs)}, depth 2-4, mean {np.mean([count_nodes(g)[0] for g in graphs]):.1f} operators")
    print(f"one thread : {rate1:8.1f} evaluations/s wall; {rate_cpu:.1f} per CPU-second of the thread "
          f"(the machine is shared: load average {os.getloadavg()[0]:.2f} on {os.cpu_count()} cores)")
    print(f"two threads: {rate2:8.1f} evaluations/s  (x{rate2 / rate1:.2f}; medians of {RUNS} runs each)")
    print(f"NumPy rendition on the first {len(ref)}: {rate_np:.2f} evaluations/s; "
          f"kernels on the same: {fast_ref:.1f}/s (x{fast_ref / rate_np:.1f}); "
          f"largest Sharpe difference between the two: {gap:.2e}")
    print(f"bytes per evaluation: {per_eval / 1e6:.1f} MB; memory bandwidth (copy): {bw / 1e9:.1f} GB/s; "
          f"bandwidth floor: {floor:.0f} evaluations/s; one thread at {100 * rate1 / floor:.0f}% of it")
    targets = [("x10 NumPy", fast_ref / rate_np >= 10), ("100/s one core", max(rate1, rate_cpu) >= 100),
               ("x1.7 on two threads", rate2 / rate1 >= 1.7)]
    print("targets: " + ", ".join(f"{name}: {'met' if ok else 'NOT met'}" for name, ok in targets))
    return floor


# ----- the search stream ----------------------------------------------------------------------------
def record_stream(data_dir, count, seconds):
    """The first `count` graphs that random_weighted draws in a real search on the local platform."""
    import copy

    from quillmarsh.local import platform
    import quillmarsh.search_templates as st

    local = platform.setup(data_dir, cache_bytes=0)
    drawn, enough = [], threading.Event()

    def recording(ctx):
        for graph in st.random_weighted(ctx):
            if len(drawn) < count:
                drawn.append(copy.deepcopy(graph))
            else:
                enough.set()
            yield graph

    handle = st.search(recording, n_jobs=1)
    try:
        enough.wait(seconds)
    finally:
        handle.stop()
    return drawn, local.era, local.evaluator.market.shape[0] * local.evaluator.market.shape[1]


def stream_worker(path, mode, threads, block=None):
    """One measurement in this process: {"rates": [...], "maxrss_mib": ..., "cache": {...}}."""
    from quillmarsh.local.era import LocalEraConfig

    with open(path) as f:
        job = json.load(f)
    graphs, era = job["graphs"], job["era"]
    cache = 0 if mode in ("today", "nocache") else 512 << 20
    evaluator = LocalEvaluator(data_dir=job["data_dir"], era=LocalEraConfig(era), cache_bytes=cache)
    evaluator._per_node = mode == "today"
    if block is not None:
        evaluator._engine.block = block
    for name in evaluator.vocabulary.feature_to_canonical:
        evaluator._feature(name)
    evaluator._illiquid_flag()
    evaluator._liquidity_rank()
    warm = expressions(evaluator)[:10]
    run_graphs(evaluator, warm, 1)
    run_graphs(evaluator, warm, 2)
    rates, cpu_rates, infos = [], [], []
    for _ in range(job["runs"]):
        evaluator.cache_clear()
        before = evaluator.cache_info()
        cpu0 = time.process_time()
        t = timed(run_graphs, evaluator, graphs, threads)
        rates.append(len(graphs) / t)
        cpu_rates.append(len(graphs) / (time.process_time() - cpu0))
        after = evaluator.cache_info()
        hits, misses = after["hits"] - before["hits"], after["misses"] - before["misses"]
        infos.append({"hit_rate": hits / (hits + misses) if hits + misses else 0.0, "bytes": after["bytes"]})
    maxrss = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024
    print(json.dumps({"rates": rates, "cpu_rates": cpu_rates, "maxrss_mib": maxrss, "cache": infos[-1]}))


def run_graphs(evaluator, graphs, threads):
    """The graphs in order, on `threads` threads each taking the next from one queue as it finishes its
    last (as a search's workers do, so that none waits idle on a share that happened to be cheaper); a graph
    the evaluator refuses counts as evaluated, as it would in a search."""
    todo = queue.SimpleQueue()
    for g in graphs:
        todo.put(g)

    def work():
        while True:
            try:
                g = todo.get_nowait()
            except queue.Empty:
                return
            try:
                evaluator.evaluate_expression(g)
                evaluator.run_backtest(g)
            except ValueError:
                pass

    if threads == 1:
        work()
        return
    workers = [threading.Thread(target=work) for _ in range(threads)]
    for t in workers:
        t.start()
    for t in workers:
        t.join()


def stream_main(data_dir, reuse=False):
    t0 = time.perf_counter()
    job_path = data_dir / "stream.json"
    job = json.loads(job_path.read_text()) if reuse and job_path.exists() else {}
    if "cells" in job:
        # The stream a search draws changes from one recording to the next (its share of exact repeats
        # ranged from 3% to 34% on the machine this was tuned on), so comparisons of two builds reuse one.
        graphs, era, cells = job["graphs"], job["era"], job["cells"]
        how = f"reused from {job_path}"
    else:
        graphs, era, cells = record_stream(data_dir / "search", STREAM_GRAPHS, STREAM_SECONDS)
        job_path.write_text(json.dumps({"graphs": graphs, "era": era, "data_dir": str(data_dir),
                                         "runs": STREAM_RUNS, "cells": cells}))
        how = f"recorded in {time.perf_counter() - t0:.1f} s"
    keys = [json.dumps(g, sort_keys=True) for g in graphs]
    repeats = len(keys) - len(set(keys))
    print(f"search stream: {len(graphs)} graphs {how}, "
          f"{repeats} exact repeats ({100 * repeats / max(len(graphs), 1):.0f}%), "
          f"mean {np.mean([count_nodes(g)[0] for g in graphs]):.1f} operators")
    results = {}
    for mode in ("today", "nocache", "cache"):
        for threads in (1, 2):
            out = subprocess.run([sys.executable, __file__, "--worker", str(job_path), mode, str(threads)],
                                 capture_output=True, text=True, check=True)
            results[mode, threads] = json.loads(out.stdout.strip().splitlines()[-1])
    rate = {k: statistics.median(v["rates"]) for k, v in results.items()}
    cpu = {k: statistics.median(v["cpu_rates"]) for k, v in results.items()}
    names = {"today": "today (per operator)", "nocache": "plans, cache off", "cache": "plans, 512 MiB cache"}
    floor = memory_bandwidth() / np.mean([bytes_per_evaluation(g, cells) for g in graphs])
    # Wall-clock rates are what a search sees; on a shared machine they also carry the other tenants' load,
    # so the rate per CPU-second of the process (one thread) is printed beside them.
    print(f"{'':22} {'1 thread':>10} {'2 threads':>10} {'x2/x1':>6} {'vs today':>9} {'per CPU-s':>10} "
          f"{'vs today':>9} {'peak RSS':>9}")
    for mode in ("today", "nocache", "cache"):
        r1, r2, c1 = rate[mode, 1], rate[mode, 2], cpu[mode, 1]
        print(f"{names[mode]:22} {r1:10.1f} {r2:10.1f} {r2 / r1:6.2f} {r1 / rate['today', 1]:8.2f}x "
              f"{c1:10.1f} {c1 / cpu['today', 1]:8.2f}x {results[mode, 1]['maxrss_mib']:7.0f} MiB")
    cache = results["cache", 1]["cache"]
    print(f"cache: hit rate {100 * cache['hit_rate']:.0f}% of lookups, {cache['bytes'] / 2**20:.0f} MiB held at the "
          f"end; bandwidth floor of the stream: {floor:.0f} evaluations/s; load average {os.getloadavg()[0]:.2f}")
    extra = results["cache", 1]["maxrss_mib"] - results["today", 1]["maxrss_mib"]
    targets = [("x2.5 one thread", rate["cache", 1] / rate["today", 1] >= 2.5),
               ("x1.7 cache off", rate["nocache", 1] / rate["today", 1] >= 1.7),
               ("x1.8 two threads", rate["cache", 2] / rate["cache", 1] >= 1.8),
               ("peak memory +600 MiB", extra <= 600)]
    print("targets: " + ", ".join(f"{name}: {'met' if ok else 'NOT met'}" for name, ok in targets))


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--fixed", action="store_true", help="only the fixed set")
    parser.add_argument("--stream", action="store_true", help="only the search stream")
    parser.add_argument("--reuse", action="store_true",
                        help="measure the stream recorded by an earlier run instead of recording a new one")
    parser.add_argument("--blocks", action="store_true",
                        help="the recorded stream, cache off, one thread, at several block sizes")
    parser.add_argument("--worker", nargs="+", help=argparse.SUPPRESS)
    args = parser.parse_args(argv)
    if args.worker:
        block = int(args.worker[3]) if len(args.worker) > 3 else None
        stream_worker(args.worker[0], args.worker[1], int(args.worker[2]), block)
        return 0
    data_dir = Path(tempfile.gettempdir()) / "quillmarsh-bench"
    if args.blocks:
        job_path = data_dir / "stream.json"
        if not job_path.exists():
            sys.exit("record a stream first: bench_evaluator.py --stream")
        print("instruments per block (0: whole panels): evaluations/s, cache off, one thread, median of runs")
        for block in (0, 4, 8, 16, 24, 32, 64, 128):
            out = subprocess.run([sys.executable, __file__, "--worker", str(job_path), "nocache", "1", str(block)],
                                 capture_output=True, text=True, check=True)
            rates = json.loads(out.stdout.strip().splitlines()[-1])["rates"]
            print(f"  {block:4d}: {statistics.median(rates):8.1f}")
        return 0
    if not args.stream:
        fixed_main(data_dir)
    if not args.fixed:
        stream_main(data_dir, reuse=args.reuse)
    return 0


if __name__ == "__main__":
    sys.exit(main())

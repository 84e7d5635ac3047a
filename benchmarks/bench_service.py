"""The local signal service under load: new submissions per second and their latency with 1, 8 and 32
concurrent clients, then replays (repeats of stored keys) per second.

The service runs in its own process, as `quillmarsh serve` does, with every commit synced to disk. Clients
are threads of this process, each with its own `SignalServiceClient` (one connection per request, as the
search's submission loop makes them). The review delay is set past the end of the run, so the figures are
those of taking submissions in, not of judging them.

Each line also gives the server's own CPU time per request: the machine is shared, and when other work
takes the cores the rates fall while this figure stays near what the service costs.

Target on this machine: at least 500 new submissions per second, p99 under 50 ms, at 8 clients.
"""
from __future__ import annotations

import argparse
import os
import statistics
import tempfile
import threading
import time

import psutil

from quillmarsh.auth import AuthManager, load_private_key
from quillmarsh.local.service import ServiceConfig, running_service
from quillmarsh.submit import SignalServiceClient

TARGET_RATE = 500.0
TARGET_P99_MS = 50.0
FEATURES = ("ret_5", "quality", "gap", "intraday", "range") + tuple(f"alt_{i}" for i in range(15))


def body(i: int) -> dict:
    return {"graph": {"type": "rotation", "node": "cs_rank",
                      "children": [{"type": "feature", "node": FEATURES[i % len(FEATURES)]}]},
            "universe_id": "QM500", "signal_pool_id": "local_pool",
            "is_stats": {"sharpe": 1.0 + i * 1e-6, "fitness": 1.0, "turnover": 0.3}, "is_pnl_mi": 0.2,
            "expression_elapsed_seconds": 0.01, "idempotency_key": f"bench-{i}"}


def run(url, token, clients: int, bodies: list) -> tuple:
    """Send ``bodies`` from ``clients`` threads; returns (elapsed seconds, latencies in ms, failures)."""
    latencies, failures = [], []
    lock = threading.Lock()
    it = iter(bodies)
    start = threading.Barrier(clients + 1)

    def worker():
        client = SignalServiceClient(url, token, timeout=30.0)
        mine = []
        start.wait()
        while True:
            with lock:
                b = next(it, None)
            if b is None:
                break
            t0 = time.perf_counter()
            result = client.submit_signal(**b)
            mine.append((time.perf_counter() - t0) * 1000.0)
            if result.status_code != 202:
                failures.append(result.status_code)
        with lock:
            latencies.extend(mine)

    threads = [threading.Thread(target=worker) for _ in range(clients)]
    for t in threads:
        t.start()
    start.wait()
    t0 = time.perf_counter()
    for t in threads:
        t.join()
    return time.perf_counter() - t0, latencies, failures


def percentile(values, q):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(round(q / 100.0 * (len(ordered) - 1))))]


def measured(server: psutil.Process, label, url, token, clients, bodies):
    before = server.cpu_times()
    elapsed, latencies, failures = run(url, token, clients, bodies)
    after = server.cpu_times()
    cpu_ms = (after.user + after.system - before.user - before.system) * 1000.0 / max(1, len(latencies))
    rate = len(latencies) / elapsed
    p50, p99 = statistics.median(latencies), percentile(latencies, 99)
    print(f"{label:<34} {len(latencies):>6} in {elapsed:6.2f} s  {rate:8.1f}/s  p50 {p50:6.2f} ms  "
          f"p99 {p99:7.2f} ms  server cpu {cpu_ms:5.2f} ms/request  failures {len(failures)}", flush=True)
    return rate, p99


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--per-level", type=int, default=3000, help="new submissions sent at each level")
    parser.add_argument("--no-sync", action="store_true", help="run the service with --no-sync")
    args = parser.parse_args(argv)
    print(f"load average {os.getloadavg()[0]:.1f} on {os.cpu_count()} cores; commits "
          f"{'not synced' if args.no_sync else 'synced'} to disk", flush=True)
    with tempfile.TemporaryDirectory() as tmp:
        config = ServiceConfig(n_instruments=80, n_days=400, review_delay_seconds=86400.0, quota_per_hour=10**9,
                               durable_commits=not args.no_sync)
        with running_service(tmp, config=config) as svc:
            server = psutil.Process(svc.pid)
            token = AuthManager(load_private_key(f"{tmp}/private_key")).get_token()
            run(svc.url, token, 4, [body(-1 - i) for i in range(200)])  # warm-up
            sent, results = 0, {}
            for clients in (1, 8, 32):
                n = args.per_level if clients > 1 else args.per_level // 3
                bodies = [body(sent + i) for i in range(n)]
                sent += n
                results[clients] = measured(server, f"new submissions, {clients:>2} client(s)", svc.url, token,
                                            clients, bodies)
            replay = measured(server, "replays, 8 clients", svc.url, token, 8, [body(i) for i in range(args.per_level)])
    rate8, p99_8 = results[8]
    met = rate8 >= TARGET_RATE and p99_8 < TARGET_P99_MS
    print(f"target at 8 clients: >= {TARGET_RATE:.0f}/s and p99 < {TARGET_P99_MS:.0f} ms: "
          f"{'met' if met else 'NOT met'} ({rate8:.0f}/s, p99 {p99_8:.1f} ms); replays {replay[0]:.0f}/s")


if __name__ == "__main__":
    main()

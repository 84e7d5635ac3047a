"""Several search processes on one shared store: evaluations per second and receipts per second with 1, 2
and 4 processes on a PostgreSQL store, against 1 process on the SQLite store of its data directory.

Each process is a search with ``random_weighted`` and the local evaluator, in a data directory of its own
(as on a machine of its own) but with one account, sending to one local signal service on a loopback
port. The PostgreSQL server is started here, in a temporary directory, with fsync on and
``synchronous_commit=off`` (a crash of the server may lose the last commits, as SQLite's WAL at
``synchronous=NORMAL`` may on a crash of the machine; a crash of a search process loses nothing on either).

Evaluations per second: rows recorded in ``signal_evaluations`` during the run over its length. Receipts
per second: rows of ``submission_status`` (signals the service took in, recorded in the store) over the
same time. Each line also says whether every passed evaluation sits in exactly one place of the store and
whether any signal was sent twice (an idempotency key with more than one attempt); both must be 0.

A process on the server's store waits for a round trip on every statement where SQLite answers in-process,
so one process evaluates fewer expressions per second than on SQLite; more processes fill that waiting
time. The figures to watch: evaluations and receipts per second grow with the processes, and nothing is
misplaced or sent twice. There is no target.

    python benchmarks/bench_shared_store.py [--seconds 60] [--processes 1,2,4]
"""
from __future__ import annotations

import argparse
import collections
import json
import os
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests"))

from pg_server import PostgresServer, find_server_binaries  # noqa: E402
from shared_search import MARKET  # noqa: E402

SEARCH = os.path.join(HERE, "..", "tests", "shared_search.py")


def machine_dirs(root: str, base: str, n: int) -> list:
    """``n`` data directories that share the account of ``base``, as machines of one user would."""
    dirs = []
    for i in range(n):
        d = os.path.join(root, "machine-%d" % i)
        os.makedirs(d)
        shutil.copy2(os.path.join(base, "private_key"), os.path.join(d, "private_key"))
        dirs.append(d)
    return dirs


def run_searches(dirs, seconds, server_url, database_url):
    env = dict(os.environ)
    env.pop("QUILLMARSH_DATABASE_URL", None)
    if database_url:
        env["QUILLMARSH_DATABASE_URL"] = database_url
    procs = [subprocess.Popen([sys.executable, SEARCH, "--data-dir", d, "--seconds", str(seconds),
                               "--server-url", server_url], env=env, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True) for d in dirs]
    results = []
    for p in procs:
        out, err = p.communicate(timeout=seconds + 600)
        if p.returncode != 0:
            raise RuntimeError("a search process failed (%d):\n%s" % (p.returncode, err[-3000:]))
        results.append(json.loads(out.strip().splitlines()[-1]))
    return results


def store_counts(conn, started, stopped) -> dict:
    one = lambda sql, params=(): conn.execute(sql, params).fetchone()[0]  # noqa: E731
    places = collections.Counter()
    for table in ("submission_status", "submission_queue", "submission_retry"):
        for (eval_id,) in conn.execute("SELECT eval_id FROM %s" % table).fetchall():
            places[eval_id] += 1
    passed = [r[0] for r in conn.execute("SELECT eval_id FROM signal_evaluations WHERE passed = 1").fetchall()]
    return {
        "evaluations": one("SELECT COUNT(*) FROM signal_evaluations WHERE created_at >= ? AND created_at <= ?",
                           (started, stopped)),
        "receipts": one("SELECT COUNT(*) FROM submission_status WHERE submitted_at >= ? AND submitted_at <= ?",
                        (started, stopped)),
        "passed": len(passed),
        "misplaced": sum(1 for e in passed if places[e] != 1),
        "sent_twice": one("SELECT COUNT(*) FROM submission_attempts WHERE attempts > 1"),
    }


def main(argv=None) -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=float, default=60.0)
    parser.add_argument("--processes", default="1,2,4")
    args = parser.parse_args(argv)
    counts = [int(x) for x in args.processes.split(",")]
    bindir = find_server_binaries()
    if bindir is None:
        print("no PostgreSQL server binaries on this machine: nothing to measure")
        return 0

    from quillmarsh import agent_onboarding
    from quillmarsh.local import platform
    from quillmarsh.local.service import ServiceConfig, running_service
    from quillmarsh.pg_store import PostgresConnection

    root = tempfile.mkdtemp(prefix="bench-shared-store-")
    server = PostgresServer(bindir, settings={"fsync": "on", "full_page_writes": "on",
                                              "synchronous_commit": "off"}).start()
    try:
        base = os.path.join(root, "service")
        platform.setup(base, **MARKET)   # the account, and the market the service judges on
        agent_onboarding.logout()
        config = ServiceConfig(n_instruments=MARKET["n_instruments"], n_days=MARKET["n_days"], seed=MARKET["seed"],
                               review_delay_seconds=0.5, quota_per_hour=10 ** 7)
        print("%-10s %9s %14s %11s %7s %9s %10s" % ("store", "processes", "evaluations/s", "receipts/s", "passed",
                                                    "misplaced", "sent twice"))
        runs = [("sqlite", 1)] + [("postgres", n) for n in counts]
        with running_service(base, config=config) as service:
            for number, (dialect, n) in enumerate(runs):
                dirs = machine_dirs(os.path.join(root, "run-%d" % number), base, n)
                if dialect == "postgres":
                    _schema, url = server.new_schema()
                else:
                    url = None
                results = run_searches(dirs, args.seconds, service.url, url)
                started = max(r["started"] for r in results)
                stopped = min(r["stopped"] for r in results)
                if url:
                    conn = PostgresConnection(url)
                else:
                    conn = sqlite3.connect(os.path.join(dirs[0], "search_tracking.db"))
                try:
                    c = store_counts(conn, started, stopped)
                finally:
                    conn.close()
                window = max(stopped - started, 1e-9)
                print("%-10s %9d %14.1f %11.2f %7d %9d %10d" % (dialect, n, c["evaluations"] / window,
                                                                 c["receipts"] / window, c["passed"],
                                                                 c["misplaced"], c["sent_twice"]), flush=True)
    finally:
        server.stop()
        shutil.rmtree(root, ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())

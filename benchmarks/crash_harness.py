#!/usr/bin/env python3
"""Kill the search and the signal service at random moments, start them again, and count what was lost.

    python benchmarks/crash_harness.py --trials 50 [--seed S] [--database-url postgresql://...]

The harness starts the local signal service (with a small rate of injected 500 answers and dropped
connections) and, in a child process, a search with ``random_weighted`` on the local platform under an era
whose thresholds let signals pass often. Each trial sends SIGKILL to one of them, the child mostly, the
service sometimes, and starts it again on the same data directories. About half of the kills of the child
are aimed at the narrow windows of the road of a signal, seen from outside: while a receipt journal file
exists (the service has answered and the store has not yet committed) and while a retry row is claimed
(a retry being sent or moved). A kill counts as in-window when the journal file or the claimed retry row is
still there after the process has died.

At the end a last search drains everything, with the service's faults off, and the two stores alone are
checked:

    lost        passed evaluations that are neither at the service, nor queued, nor retrying, nor closed
                with a recorded reason
    duplicated  evaluations with more than one submission accepted by the service
    orphaned    status rows without an evaluation, service submissions that no evaluation explains,
                and journal files left behind

and both stores must pass ``PRAGMA integrity_check``. One summary line is printed, and the exit status is
1 when anything was lost, duplicated or orphaned (or a store is damaged).
"""
from __future__ import annotations

import argparse
import json
import os
import random
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import time
from pathlib import Path

JOURNAL_DIR = "submission_receipts_pending"
STORE_FILE = "search_tracking.db"
TERMINAL = ("found", "useful", "is_rejected", "not_useful", "os_failed", "useful_transition_failed")

# An era under which a good share of random expressions pass, so that every trial has signals on the road.
LOOSE_THRESHOLDS = {
    "sharpe_min": 0.3,
    "turnover_max": 2.0,
    "delta_exposure_max": 1.0,
    "max_weight_max": 1.0,
    "correlation_max": 0.995,
    "abs_weight_sum_mean_min": 0.0,
    "mi_threshold": -1.0,
}


# ----- the child: one search process --------------------------------------------------------------------

def _idle_template(ctx):
    """Finds nothing: a search that only sends, retries and polls. Every fifth of a second it yields a graph
    over a feature that does not exist, which is rejected at once and gives the worker its turn to see a
    stop (a template that never yields could never be stopped)."""
    import time as _time

    while True:
        _time.sleep(0.2)
        yield {"type": "feature", "node": "harness_idle_no_such_feature"}


def child_main(args) -> int:
    import quillmarsh.search_templates as st
    from quillmarsh import agent_onboarding
    from quillmarsh.local import platform
    from quillmarsh.sync import ERA_CONFIG_FILE_NAME

    local = platform.setup(args.data_dir, n_instruments=args.instruments, n_days=args.days, seed=args.market_seed)
    era = dict(local.era)
    era["thresholds"] = dict(LOOSE_THRESHOLDS)
    era["column_threshold_rules"] = [dict(rule, min=LOOSE_THRESHOLDS["sharpe_min"])
                                     for rule in era.get("column_threshold_rules") or []]
    era_path = Path(local.data_dir) / ERA_CONFIG_FILE_NAME
    tmp = era_path.with_name(era_path.name + ".harness.tmp")
    tmp.write_text(json.dumps(era, sort_keys=True, indent=1))
    os.replace(tmp, era_path)

    if args.child == "setup":
        return 0
    agent_onboarding._config["server_url"] = args.server_url
    # A dead owner's claims come back within seconds instead of five minutes.
    st.SUBMISSION_QUEUE_LEASE_SECONDS = args.lease
    template = st.random_weighted if args.child == "search" else _idle_template
    handle = st.search(template, n_jobs=1)

    stopping = []
    signal.signal(signal.SIGTERM, lambda *_: stopping.append(True))
    signal.signal(signal.SIGINT, lambda *_: stopping.append(True))
    print("child ready", flush=True)
    while not stopping:
        time.sleep(0.2)
    handle.stop(join_timeout=10.0)
    return 0


# ----- processes ----------------------------------------------------------------------------------------

def _free_port() -> int:
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def _wait_port(port: int, timeout: float) -> bool:
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.5):
                return True
        except OSError:
            time.sleep(0.05)
    return False


class Proc:
    def __init__(self, name: str, argv: list, log: Path, env=None):
        self.name, self.argv, self.log, self.env = name, argv, log, env
        self.proc = None
        self.starts = 0

    def start(self):
        self.starts += 1
        with open(self.log, "ab") as out:
            out.write(f"\n===== start {self.starts} at {time.time():.3f}\n".encode())
            out.flush()
            self.proc = subprocess.Popen(self.argv, stdout=out, stderr=subprocess.STDOUT, env=self.env,
                                         start_new_session=True)

    def alive(self) -> bool:
        return self.proc is not None and self.proc.poll() is None

    def kill(self):
        if self.alive():
            os.kill(self.proc.pid, signal.SIGKILL)
        if self.proc is not None:
            self.proc.wait()

    def terminate(self, timeout: float) -> int | None:
        if not self.alive():
            return None if self.proc is None else self.proc.returncode
        self.proc.send_signal(signal.SIGTERM)
        try:
            return self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            self.kill()
            return None


def service_argv(args, data_dir: Path, port: int, faults: bool) -> list:
    # The service shares the platform's data directory (its account, its market); it keeps its own store there.
    # --no-sync: accepted signals are not fed back into the era, so the era stays the harness's loose one.
    argv = [sys.executable, "-m", "quillmarsh.local.service", "--data-dir", str(data_dir), "--port", str(port),
            "--review-delay", "0.5", "--instruments", str(args.instruments), "--days", str(args.days),
            "--seed", str(args.market_seed), "--no-sync"]
    if faults:
        argv += ["--error-rate", str(args.fail_rate), "--drop-rate", str(args.drop_rate)]
    return argv


def child_argv(args, mode: str, server_url: str) -> list:
    return [sys.executable, os.path.abspath(__file__), "--child", mode, "--data-dir", str(args.search_dir),
            "--server-url", server_url, "--lease", str(args.lease), "--instruments", str(args.instruments),
            "--days", str(args.days), "--market-seed", str(args.market_seed)]


# ----- looking into the stores from outside -------------------------------------------------------------

class Store:
    """A read-only look at the search's store (SQLite file or Postgres URL)."""

    def __init__(self, data_dir: Path, database_url: str | None):
        self.data_dir, self.database_url = data_dir, database_url
        self._conn = None

    def _connect(self):
        if self._conn is None:
            if self.database_url:
                import psycopg

                self._conn = psycopg.connect(self.database_url, autocommit=True)
            else:
                path = self.data_dir / STORE_FILE
                if not path.exists():
                    return None
                self._conn = sqlite3.connect(f"file:{path}?mode=ro", uri=True, timeout=30.0)
        return self._conn

    def rows(self, sql: str, params=()) -> list:
        conn = self._connect()
        if conn is None:
            return []
        if self.database_url:
            sql = sql.replace("?", "%s")
        try:
            return list(conn.execute(sql, params).fetchall())
        except sqlite3.OperationalError as exc:
            if "no such table" in str(exc) or "locked" in str(exc):
                return []
            raise

    def claimed_retry(self) -> bool:
        try:
            return bool(self.rows("SELECT 1 FROM submission_retry WHERE in_flight_owner IS NOT NULL LIMIT 1"))
        except Exception:  # the claim columns appear with the first search
            return False

    def close(self):
        if self._conn is not None:
            self._conn.close()
            self._conn = None


def journal_files(data_dir: Path) -> list:
    try:
        return sorted(p.name for p in (data_dir / JOURNAL_DIR).iterdir() if p.name.endswith(".json"))
    except FileNotFoundError:
        return []


def drained(store: Store, data_dir: Path) -> tuple[bool, str]:
    queued = store.rows("SELECT COUNT(*) FROM submission_queue")[0][0]
    retrying = store.rows("SELECT COUNT(*) FROM submission_retry WHERE retry_count < 5")[0][0]
    placeholders = ", ".join("?" for _ in TERMINAL)
    pending = store.rows(f"SELECT COUNT(*) FROM submission_status WHERE status NOT IN ({placeholders})",
                         TERMINAL)[0][0]
    files = len(journal_files(data_dir))
    state = f"queued {queued} retrying {retrying} pending {pending} journal {files}"
    return (queued == 0 and retrying == 0 and pending == 0 and files == 0), state


def service_submissions(service_dir: Path) -> list:
    """(submission_id, idempotency_key) of every submission the service holds."""
    conn = sqlite3.connect(f"file:{service_dir / _service_db_name()}?mode=ro", uri=True, timeout=30.0)
    try:
        return conn.execute("SELECT submission_id, idempotency_key FROM submissions").fetchall()
    finally:
        conn.close()


def integrity(path: Path) -> str:
    conn = sqlite3.connect(f"file:{path}?mode=ro", uri=True, timeout=30.0)
    try:
        return conn.execute("PRAGMA integrity_check").fetchone()[0]
    finally:
        conn.close()


def account(store: Store, args) -> dict:
    """The final count, from the two stores alone."""
    passed = {str(r[0]) for r in store.rows("SELECT eval_id FROM signal_evaluations WHERE passed = 1")}
    evaluations = {str(r[0]) for r in store.rows("SELECT eval_id FROM signal_evaluations")}
    queued = {str(r[0]) for r in store.rows("SELECT eval_id FROM submission_queue")}
    retrying = {str(r[0]) for r in store.rows("SELECT eval_id FROM submission_retry WHERE retry_count < 5")}
    statuses = store.rows("SELECT eval_id, submission_id, status, rejection_reason FROM submission_status")
    key_to_eval = {k: str(e) for k, e in store.rows("SELECT idempotency_key, eval_id FROM submission_attempts")}
    closed = {str(e) for e, _sid, status, reason in statuses if status in TERMINAL and (reason or status in
                                                                                       ("found", "useful"))}

    at_service: dict[str, set] = {}
    unexplained = []
    status_by_sid = {str(sid): str(e) for e, sid, _s, _r in statuses}
    for sid, key in service_submissions(args.service_dir):
        eval_id = key_to_eval.get(key) or status_by_sid.get(str(sid))
        if eval_id is None:
            unexplained.append(sid)
            continue
        at_service.setdefault(eval_id, set()).add(str(sid))

    lost = sorted(passed - set(at_service) - queued - retrying - closed)
    duplicated = sorted(e for e, sids in at_service.items() if len(sids) > 1)
    orphan_status = sorted({str(e) for e, *_ in statuses} - evaluations)
    leftover = journal_files(args.search_dir)
    return {"signals": len(passed), "lost": lost, "duplicated": duplicated,
            "orphaned": {"status_rows": orphan_status, "service_submissions": unexplained,
                         "journal_files": leftover}}


# ----- the trials ---------------------------------------------------------------------------------------

def aim(store: Store, data_dir: Path, timeout: float) -> bool:
    """Waits for a narrow window (a journal file, a claimed retry row) and returns as soon as one is open;
    false when none opened within `timeout`."""
    deadline = time.monotonic() + timeout
    journal = data_dir / JOURNAL_DIR
    next_db_look = 0.0
    while time.monotonic() < deadline:
        try:
            with os.scandir(journal) as entries:
                if any(e.name.endswith(".json") for e in entries):
                    return True
        except FileNotFoundError:
            pass
        now = time.monotonic()
        if now >= next_db_look:
            if store.claimed_retry():
                return True
            next_db_look = now + 0.01
    return False


def in_window(store: Store, data_dir: Path) -> bool:
    return bool(journal_files(data_dir)) or store.claimed_retry()


def run(args) -> int:
    started = time.monotonic()
    rng = random.Random(args.seed)
    root = Path(args.workdir or tempfile.mkdtemp(prefix="qm-chaos-"))
    args.search_dir = args.service_dir = root / "platform"
    args.search_dir.mkdir(parents=True, exist_ok=True)
    port = _free_port()
    url = f"http://127.0.0.1:{port}"
    env = dict(os.environ)
    if args.database_url:
        env["QUILLMARSH_DATABASE_URL"] = args.database_url
    print(f"crash harness: work directory {root}; service {url}; lease shortened to {args.lease:g} s in the "
          f"search processes (SUBMISSION_QUEUE_LEASE_SECONDS); service faults: {args.fail_rate:.0%} answers 500, "
          f"{args.drop_rate:.0%} connections dropped", flush=True)

    service = Proc("service", service_argv(args, args.service_dir, port, faults=True), root / "service.log", env)
    child = Proc("search", child_argv(args, "search", url), root / "search.log", env)
    store = Store(args.search_dir, args.database_url)
    kills = {"search": 0, "service": 0, "window": 0}
    # The market, the era and the account exist before the service that judges on them starts.
    subprocess.run(child_argv(args, "setup", url), check=True, env=env, stdout=subprocess.DEVNULL)
    try:
        service.start()
        if not _wait_port(port, 60):
            raise SystemExit(f"the service did not start; see {root / 'service.log'}")
        child.start()
        time.sleep(args.warmup)
        for trial in range(args.trials):
            for proc in (service, child):
                if not proc.alive():
                    proc.start()
                    if proc is service:
                        _wait_port(port, 60)
            victim = service if rng.random() < args.service_share else child
            aimed = victim is child and rng.random() < args.aim_share
            if aimed:
                hit = aim(store, args.search_dir, args.aim_timeout)
            else:
                time.sleep(rng.uniform(0.2, args.max_gap))
                hit = False
            victim.kill()
            kills[victim.name] += 1
            if victim is child and (hit or aimed) and in_window(store, args.search_dir):
                kills["window"] += 1
            store.close()
            if args.verbose:
                print(f"trial {trial + 1}: killed {victim.name}{' in window' if hit else ''}", flush=True)
            time.sleep(rng.uniform(0.0, 0.3))
            victim.start()
            if victim is service:
                _wait_port(port, 60)
            time.sleep(rng.uniform(args.min_gap, args.max_gap))

        # The last search: no faults, no kills, nothing new evaluated; it sends, retries and polls until done.
        child.kill()
        service.kill()
        service = Proc("service", service_argv(args, args.service_dir, port, faults=False), root / "service.log", env)
        service.start()
        _wait_port(port, 60)
        drainer = Proc("search", child_argv(args, "drain", url), root / "search.log", env)
        drainer.start()
        deadline = time.monotonic() + args.drain_timeout
        ok, state = False, ""
        while time.monotonic() < deadline:
            time.sleep(0.5)
            ok, state = drained(store, args.search_dir)
            if ok:
                break
        code = drainer.terminate(30)
        if not ok:
            print(f"drain did not finish within {args.drain_timeout:g} s: {state}", flush=True)
        if code not in (0, None):
            print(f"the last search exited with status {code}; see {root / 'search.log'}", flush=True)
        service.terminate(30)
    finally:
        for proc in (child, service):
            proc.kill()

    result = account(store, args)
    store.close()
    damaged = []
    checks = [("service", args.service_dir / _service_db_name())]
    if not args.database_url:
        checks.append(("search", args.search_dir / STORE_FILE))
    for name, path in checks:
        verdict = integrity(path)
        if verdict != "ok":
            damaged.append(f"{name}: {verdict}")
    orphaned = sum(len(v) for v in result["orphaned"].values())
    lost, duplicated = len(result["lost"]), len(result["duplicated"])
    kills_total = kills["search"] + kills["service"]
    print(f"trials {args.trials}  kills {kills_total} (search {kills['search']}, service {kills['service']}, "
          f"in-window {kills['window']})  signals {result['signals']}  lost {lost}  duplicated {duplicated}  "
          f"orphaned {orphaned}", flush=True)
    print(f"took {time.monotonic() - started:.0f} s", flush=True)
    for name in ("lost", "duplicated"):
        if result[name]:
            print(f"{name}: {', '.join(result[name][:20])}")
    for name, items in result["orphaned"].items():
        if items:
            print(f"orphaned {name}: {', '.join(map(str, items[:20]))}")
    for line in damaged:
        print(f"integrity check failed: {line}")
    failed = lost or duplicated or orphaned or damaged or not ok
    if failed:
        print(f"work directory kept for inspection: {root}")
    return 1 if failed else 0


def _service_db_name() -> str:
    from quillmarsh.local.service.store import DB_FILE_NAME

    return DB_FILE_NAME


def main(argv=None) -> int:
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--trials", type=int, default=50)
    p.add_argument("--seed", type=int, default=None, help="seed of the kill schedule (default: random)")
    p.add_argument("--database-url", default=None, help="a postgresql:// URL: run the search on that store")
    p.add_argument("--workdir", default=None, help="where the two data directories go (default: a new temp dir)")
    p.add_argument("--lease", type=float, default=2.0, help="lease of a claim in the search processes, seconds")
    p.add_argument("--fail-rate", type=float, default=0.05, help="share of service answers that are 500s")
    p.add_argument("--drop-rate", type=float, default=0.03, help="share of service connections dropped")
    p.add_argument("--service-share", type=float, default=0.25, help="share of kills aimed at the service")
    p.add_argument("--aim-share", type=float, default=0.5, help="share of search kills aimed at a window")
    p.add_argument("--aim-timeout", type=float, default=8.0)
    p.add_argument("--warmup", type=float, default=4.0)
    p.add_argument("--min-gap", type=float, default=0.5)
    p.add_argument("--max-gap", type=float, default=3.0)
    p.add_argument("--drain-timeout", type=float, default=600.0,
                   help="seconds the last search may take to send and settle everything")
    p.add_argument("--instruments", type=int, default=120)
    p.add_argument("--days", type=int, default=400)
    p.add_argument("--market-seed", type=int, default=7)
    p.add_argument("--verbose", action="store_true")
    p.add_argument("--child", choices=("setup", "search", "drain"), help=argparse.SUPPRESS)
    p.add_argument("--data-dir", help=argparse.SUPPRESS)
    p.add_argument("--server-url", help=argparse.SUPPRESS)
    args = p.parse_args(argv)
    if args.child:
        return child_main(args)
    if args.seed is None:
        args.seed = random.randrange(1 << 30)
    print(f"seed {args.seed}", flush=True)
    return run(args)


if __name__ == "__main__":
    sys.exit(main())

"""Four search processes on one PostgreSQL store and one local signal service: every passed evaluation is
sent once, no signal goes out twice, and the counts of the processes and of the store add up."""
import collections
import json
import os
import shutil
import sqlite3
import subprocess
import sys

import pytest

from shared_search import MARKET

pytestmark = pytest.mark.slow

PROCESSES = 4
SECONDS = 8.0   # each search; some 100 signals go out in that time, 4 are enough to tell
SEARCH = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "shared_search.py")


@pytest.fixture
def signal_service(tmp_path, restore_onboarding):
    from quillmarsh.local import platform
    from quillmarsh.local.service import ServiceConfig, running_service

    base = tmp_path / "service"
    platform.setup(base, **MARKET)
    service_config = ServiceConfig(n_instruments=MARKET["n_instruments"], n_days=MARKET["n_days"],
                                   seed=MARKET["seed"], review_delay_seconds=0.2, quota_per_hour=10 ** 6)
    with running_service(base, config=service_config) as service:
        yield service


def test_four_searches_share_one_store_and_send_each_signal_once(tmp_path, postgres_url, signal_service):
    from quillmarsh.pg_store import PostgresConnection

    env = dict(os.environ, QUILLMARSH_DATABASE_URL=postgres_url)
    procs = []
    for i in range(PROCESSES):
        machine = tmp_path / ("machine-%d" % i)
        machine.mkdir()
        shutil.copy2(os.path.join(signal_service.data_dir, "private_key"), machine / "private_key")
        procs.append(subprocess.Popen([sys.executable, SEARCH, "--data-dir", str(machine), "--seconds", str(SECONDS),
                                       "--server-url", signal_service.url], env=env, stdout=subprocess.PIPE,
                                      stderr=subprocess.PIPE, text=True))
    results = []
    for p in procs:
        out, err = p.communicate(timeout=SECONDS + 300)
        assert p.returncode == 0, err[-3000:]
        results.append(json.loads(out.strip().splitlines()[-1]))
    assert all(r["error_code"] is None for r in results), results

    conn = PostgresConnection(postgres_url)
    try:
        fetch = lambda sql: conn.execute(sql).fetchall()  # noqa: E731
        passed = {e for (e,) in fetch("SELECT eval_id FROM signal_evaluations WHERE passed = 1")}
        submitted = {e for (e,) in fetch("SELECT eval_id FROM signal_evaluations WHERE submitted = 1")}
        places = collections.Counter()
        for table in ("submission_status", "submission_queue", "submission_retry"):
            places.update(e for (e,) in fetch("SELECT eval_id FROM %s" % table))
        receipts = fetch("SELECT eval_id, submission_id FROM submission_status")
        attempts = fetch("SELECT idempotency_key, attempts FROM submission_attempts")
        evaluated = fetch("SELECT COUNT(*) FROM signal_evaluations")[0][0]
    finally:
        conn.close()
    assert len(receipts) >= PROCESSES, "too few signals went out to tell anything"
    # each passed evaluation is in at most one place; a stop may leave one that a worker was recording unqueued
    assert set(places) <= passed and max(places.values()) == 1
    assert len(passed - set(places)) <= PROCESSES
    # every receipt is its own signal and its own submission at the service; none was sent twice
    assert len({e for e, _ in receipts}) == len({s for _, s in receipts}) == len(receipts)
    assert {e for e, _ in receipts} == submitted
    assert [key for key, n in attempts if n != 1] == []
    service_rows = sqlite3.connect(os.path.join(signal_service.data_dir, "signal_service.sqlite3")).execute(
        "SELECT submission_id FROM submissions").fetchall()
    assert {s for _, s in receipts} <= {s for (s,) in service_rows}
    assert len(service_rows) <= len(attempts)
    # the searches' own counts add up to the store's
    assert sum(r["total_found"] for r in results) == len(receipts)
    assert all(r["total_evaluated"] > 0 for r in results) and evaluated >= max(r["total_evaluated"] for r in results)

"""The signal service started for real on a free loopback port, over a small market in a temporary data
directory; its settings, and ways to talk to it."""
from __future__ import annotations

import json
import sqlite3
import time
import urllib.error
import urllib.request
from pathlib import Path

import pytest

from quillmarsh.auth import AuthManager, load_private_key
from quillmarsh.local.era import SIGNAL_POOL_ID, UNIVERSE_ID
from quillmarsh.local.service import ServiceConfig, start_service
from quillmarsh.local.service.store import DB_FILE_NAME
from quillmarsh.submit import SignalServiceClient

SMALL_MARKET = dict(n_instruments=80, n_days=400, seed=5)
TERMINAL = ("found", "useful", "is_rejected", "not_useful")


def config(**overrides) -> ServiceConfig:
    values = dict(SMALL_MARKET, review_delay_seconds=0.3, oos_sharpe_min=-100.0, oos_fitness_min=-100.0)
    values.update(overrides)
    return ServiceConfig(**values)


def auth_of(data_dir) -> AuthManager:
    return AuthManager(load_private_key(str(Path(data_dir) / "private_key")))


def client_of(svc, token=None) -> SignalServiceClient:
    return SignalServiceClient(svc.url, token or auth_of(svc.data_dir).get_token(), timeout=60.0)


def feature(name):
    return {"type": "feature", "node": name}


def rot(name, *children):
    return {"type": "rotation", "node": name, "children": list(children)}


def submission(graph=None, **overrides) -> dict:
    body = {"graph": graph or rot("cs_rank", feature("ret_5")), "universe_id": UNIVERSE_ID,
            "signal_pool_id": SIGNAL_POOL_ID, "is_stats": {"sharpe": 1.5, "fitness": 1.1, "turnover": 0.3},
            "is_pnl_mi": 0.4, "expression_elapsed_seconds": 0.02}
    body.update(overrides)
    return body


def raw_request(svc, data: bytes = None, headers=None, path="/v1/signals"):
    """(status, decoded body) of a request with an exact body (a POST) or none (a GET), beyond what the client
    would send."""
    all_headers = {"Authorization": "Bearer " + auth_of(svc.data_dir).get_token(), "Content-Type": "application/json"}
    all_headers.update(headers or {})
    request = urllib.request.Request(svc.url + path, data=data, headers=all_headers,
                                     method="GET" if data is None else "POST")
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    try:
        with opener.open(request, timeout=60) as response:
            return response.status, json.loads(response.read())
    except urllib.error.HTTPError as exc:
        return exc.code, json.loads(exc.read() or b"null")


def stored_rows(data_dir) -> int:
    conn = sqlite3.connect(f"file:{Path(data_dir) / DB_FILE_NAME}?mode=ro", uri=True, timeout=30)
    try:
        return conn.execute("SELECT COUNT(*) FROM submissions").fetchone()[0]
    finally:
        conn.close()


def wait_terminal(client, submission_id, timeout=60.0):
    """Poll until the status is terminal; returns the poll body."""
    deadline = time.monotonic() + timeout
    while True:
        result = client.get_signal_status(submission_id)
        assert result.status_code == 200, result
        if result.body["status"] in TERMINAL:
            return result.body
        assert time.monotonic() < deadline, f"{submission_id} still {result.body['status']} after {timeout} s"
        time.sleep(0.1)


@pytest.fixture(scope="module")
def start(tmp_path_factory):
    """``start(data_dir=None, **config)``: a service in a child process, stopped at the end of the module."""
    started = []

    def _start(data_dir=None, **overrides):
        svc = start_service(Path(data_dir) if data_dir else tmp_path_factory.mktemp("service"),
                            config=config(**overrides))
        started.append(svc)
        return svc

    yield _start
    for svc in started:
        svc.stop()


@pytest.fixture(scope="module")
def service(start):
    return start()

"""The service killed with SIGKILL in the middle of a stream of submissions loses none it has answered."""
from __future__ import annotations

import random
import threading

import pytest

from quillmarsh.local.service import start_service

from local.service.conftest import client_of, config, feature, rot, stored_rows, submission

FEATURES = ("ret_5", "quality", "gap", "intraday", "range") + tuple(f"alt_{i}" for i in range(15))
FUNCTIONS = ("cs_rank", "cs_zscore", "ts_mean_5", "ts_rank_20", "abs", "neg")


def _body(i: int) -> dict:
    graph = rot(FUNCTIONS[i % len(FUNCTIONS)], feature(FEATURES[(i // len(FUNCTIONS)) % len(FEATURES)]))
    return submission(graph, idempotency_key=f"crash-{i}", expression_elapsed_seconds=0.001 * (i + 1))


@pytest.mark.parametrize("kill_after", [0.2, 0.6])
def test_every_answered_submission_survives_kill_9(tmp_path, kill_after):
    cfg = config(review_delay_seconds=0.05)
    svc = start_service(tmp_path, config=cfg)
    answered: dict = {}
    errors: list = []
    lock = threading.Lock()
    counter = iter(range(10**6))
    stop = threading.Event()

    def sender():
        client = client_of(svc)
        while not stop.is_set():
            with lock:
                i = next(counter)
            try:  # a server killed inside its answer is "no answer" (status 0), never an exception
                result = client.submit_signal(**_body(i))
            except Exception as exc:
                errors.append(exc)
                return
            if result.status_code == 202:
                with lock:
                    answered[i] = result.submission_id

    threads = [threading.Thread(target=sender, daemon=True) for _ in range(4)]
    for t in threads:
        t.start()
    killer = threading.Timer(kill_after * random.uniform(0.8, 1.2), svc.kill)
    killer.start()
    killer.join(60)
    stop.set()
    for t in threads:
        t.join(60)
        assert not t.is_alive()

    assert not errors, errors
    restarted = start_service(tmp_path, config=cfg)
    try:
        assert answered, "the service answered nothing before the kill"
        assert stored_rows(tmp_path) >= len(answered)
        client = client_of(restarted)
        for i, submission_id in sorted(answered.items()):
            status = client.get_signal_status(submission_id)
            assert status.status_code == 200 and status.body["idempotency_key"] == f"crash-{i}"
            repeat = client.submit_signal(**_body(i))
            assert (repeat.status_code, repeat.submission_id) == (202, submission_id)
    finally:
        restarted.stop()

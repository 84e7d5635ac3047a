"""The service killed with SIGKILL in the middle of a stream of submissions loses none it has answered."""
from __future__ import annotations

import concurrent.futures
import itertools
import random
import threading
import time

import pytest

from quillmarsh.local.service import start_service

from local.service.conftest import client_of, config, feature, rot, stored_rows, submission

FEATURES = ("ret_5", "quality", "gap", "intraday", "range") + tuple(f"alt_{i}" for i in range(15))
FUNCTIONS = ("cs_rank", "cs_zscore", "ts_mean_5", "ts_rank_20", "abs", "neg")


def _body(i: int) -> dict:
    graph = rot(FUNCTIONS[i % len(FUNCTIONS)], feature(FEATURES[(i // len(FUNCTIONS)) % len(FEATURES)]))
    return submission(graph, idempotency_key=f"crash-{i}", expression_elapsed_seconds=0.001 * (i + 1))


@pytest.mark.parametrize("kill_after", [0.3, 0.6])
def test_every_answered_submission_survives_kill_9(tmp_path, kill_after):
    cfg = config(review_delay_seconds=0.05)
    svc = start_service(tmp_path, config=cfg)
    answered, counter, stop = {}, itertools.count(), threading.Event()

    def sender():
        client = client_of(svc)
        while not stop.is_set():
            i = next(counter)
            # a server killed inside its answer is "no answer" (status 0), never an exception
            result = client.submit_signal(**_body(i))
            if result.status_code == 202:
                answered[i] = result.submission_id

    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        senders = [pool.submit(sender) for _ in range(4)]
        time.sleep(kill_after * random.uniform(0.8, 1.2))
        svc.kill()
        stop.set()
        for f in senders:
            f.result(60)
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

"""Accepted signals reach the search's evaluator through the data directory's feed and era file."""
from __future__ import annotations

import json
import time

import pytest

from quillmarsh.local.era import LocalEraConfig, SIGNAL_POOL_ID, local_era_map
from quillmarsh.local.evaluator import LocalEvaluator
from quillmarsh.local.market import load_market
from quillmarsh.local.service.feed import FoundSignalFollower, publish_found_signals, read_found_signals
from quillmarsh.sync import ERA_CONFIG_FILE_NAME

from local.service.conftest import SMALL_MARKET, client_of, feature, rot, submission, wait_terminal


def _evaluator(data_dir):
    market = load_market(data_dir, SMALL_MARKET["n_instruments"], SMALL_MARKET["n_days"], SMALL_MARKET["seed"])
    return LocalEvaluator(market, seed=SMALL_MARKET["seed"], era=LocalEraConfig(local_era_map()))


def _correlation(evaluator, graph):
    evaluator.evaluate_expression(graph)
    return evaluator.run_backtest(graph).correlation


def test_a_signal_the_service_accepts_makes_its_near_copy_too_correlated_for_the_search(start, tmp_path):
    (tmp_path / ERA_CONFIG_FILE_NAME).write_text(json.dumps(local_era_map()))
    svc = start(tmp_path)
    evaluator = _evaluator(tmp_path)
    follower = FoundSignalFollower(evaluator, tmp_path, poll_interval=0.05).start()
    try:
        near_copy = rot("cs_zscore", feature("quality"))
        assert _correlation(evaluator, near_copy) == 0.0  # an empty pool
        client = client_of(svc)
        receipt = client.submit_signal(**submission(rot("cs_rank", feature("quality"))))
        assert wait_terminal(client, receipt.submission_id)["status"] == "found"
        # The verdict is recorded first and published just after it: the feed and the era file follow.
        def listed():
            era = json.loads((tmp_path / ERA_CONFIG_FILE_NAME).read_text())
            return era["signal_pools"][0]["found_signal_ids"] == [receipt.submission_id]
        deadline = time.monotonic() + 30
        while not listed() or _correlation(evaluator, near_copy) <= 0.7:
            assert time.monotonic() < deadline, "the era file or the evaluator never saw the found signal"
            time.sleep(0.05)
        assert _correlation(evaluator, rot("cs_rank", feature("alt_11"))) < 0.7
    finally:
        follower.stop()


def test_the_feed_is_rebuilt_from_the_store_when_it_is_lost(start, tmp_path):
    svc = start(tmp_path)
    client = client_of(svc)
    receipt = client.submit_signal(**submission(rot("cs_rank", feature("quality"))))
    wait_terminal(client, receipt.submission_id)
    svc.stop()
    (tmp_path / "found_signals.json").unlink()
    start(tmp_path)
    assert [e["signal_id"] for e in read_found_signals(tmp_path)] == [receipt.submission_id]


@pytest.mark.parametrize("content", [None, "not json", "[1, {\"no_id\": true}]"])
def test_a_missing_or_broken_feed_reads_as_empty_and_the_follower_carries_on(tmp_path, content):
    if content is not None:
        (tmp_path / "found_signals.json").write_text(content)
    assert read_found_signals(tmp_path) == []
    evaluator = _evaluator(tmp_path)
    follower = FoundSignalFollower(evaluator, tmp_path)
    assert follower.sync() == 0
    publish_found_signals(tmp_path, [{"signal_id": "s1", "signal_pool_id": SIGNAL_POOL_ID,
                                      "graph": rot("cs_rank", feature("quality"))},
                                     {"signal_id": "s2", "signal_pool_id": SIGNAL_POOL_ID,
                                      "graph": {"type": "feature", "node": "gone"}}])
    assert follower.sync() == 2  # the broken one is passed over with a warning, not retried forever
    assert follower.sync() == 0
    assert evaluator.era.pool(SIGNAL_POOL_ID)["found_signal_ids"] == ["s1"]

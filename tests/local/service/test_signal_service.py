"""The signal service through the real client: idempotency, accounts, quotas, bad bodies, the verdict."""
from __future__ import annotations

import concurrent.futures
import json
import secrets
import time
from unittest import mock

import pytest

from quillmarsh.auth import AuthManager
from quillmarsh.local.evaluator import LocalEvaluator
from quillmarsh.local.market import load_market
from quillmarsh.local.service import Faults
from quillmarsh.local.service.report import summary
from quillmarsh.submit import SignalServiceClient

from local.service.conftest import (SMALL_MARKET, auth_of, client_of, feature, raw_request, rot, stored_rows,
                                   submission, wait_terminal)


# ----- idempotency -----------------------------------------------------------------------------------------

def test_a_body_without_key_gets_the_key_the_client_derives(service):
    body = submission(rot("cs_rank", feature("alt_2")))
    status, raw_answer = raw_request(service, json.dumps(body).encode())  # no key anywhere
    assert status == 202
    assert raw_answer["idempotency_key"] == SignalServiceClient._idempotency_key_for_body(body)
    replay = client_of(service).submit_signal(**body)  # the client derives the same key
    assert (replay.status_code, replay.submission_id) == (202, raw_answer["submission_id"])


def test_a_key_reused_with_another_body_is_refused(service):
    client = client_of(service)
    first = client.submit_signal(**submission(rot("cs_rank", feature("alt_3")), idempotency_key="reuse-1"))
    before = stored_rows(service.data_dir)
    other = client.submit_signal(**submission(rot("cs_rank", feature("alt_4")), idempotency_key="reuse-1"))
    assert other.status_code == 422 and "different request body" in other.error
    assert stored_rows(service.data_dir) == before
    assert client.submit_signal(**submission(rot("cs_rank", feature("alt_3")),
                                             idempotency_key="reuse-1")).submission_id == first.submission_id


def test_a_repeat_while_the_first_is_in_progress_gets_409(start):
    slow = start(faults=Faults(latency_seconds=1.0))
    body = submission(rot("cs_rank", feature("alt_5")), idempotency_key="concurrent-1")
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        first = pool.submit(lambda: client_of(slow).submit_signal(**body))
        time.sleep(0.3)
        second = pool.submit(lambda: client_of(slow).submit_signal(**body))
        results = [first.result(60), second.result(60)]
    assert sorted(r.status_code for r in results) == [202, 409]
    winner = next(r for r in results if r.status_code == 202)
    later = client_of(slow).submit_signal(**body)
    assert (later.status_code, later.submission_id) == (202, winner.submission_id)
    assert stored_rows(slow.data_dir) == 1


# ----- accounts --------------------------------------------------------------------------------------------

def _stale_token(data_dir, age):
    auth = auth_of(data_dir)
    with mock.patch("quillmarsh.auth.time.time", return_value=time.time() - age):
        return auth.get_token()


def _tampered(token):
    return token[:-2] + ("11" if token.endswith("00") else "00")


@pytest.mark.parametrize("make_token, reason", [
    (lambda d: AuthManager(secrets.token_bytes(32)).get_token(), "invalid token"),
    (lambda d: _tampered(auth_of(d).get_token()), "invalid token"),
    (lambda d: _stale_token(d, 7200), "token has expired"),
])
def test_tokens_not_issued_by_the_account_or_expired_get_401(service, make_token, reason):
    client = client_of(service, make_token(service.data_dir))
    before = stored_rows(service.data_dir)
    result = client.submit_signal(**submission(rot("cs_rank", feature("alt_6"))))
    assert (result.status_code, result.error) == (401, reason)
    assert stored_rows(service.data_dir) == before
    assert client.get_signal_status("sig-anything").status_code == 401


def test_a_token_expires_after_the_configured_lifetime(start):
    svc = start(token_ttl_seconds=60.0)
    assert client_of(svc, _stale_token(svc.data_dir, 30)).submit_signal(**submission()).status_code == 202
    late = client_of(svc, _stale_token(svc.data_dir, 90)).submit_signal(**submission(rot("cs_rank", feature("gap"))))
    assert (late.status_code, late.error) == (401, "token has expired")


def test_missing_bearer_token_gets_401(service):
    status, body = raw_request(service, json.dumps(submission()).encode(), headers={"Authorization": "Basic eDp5"})
    assert status == 401 and body["error"] == "missing bearer token"


# ----- quotas ----------------------------------------------------------------------------------------------

def test_submissions_beyond_the_hourly_quota_get_403_until_the_window_ends_even_after_a_restart(start, tmp_path):
    svc = start(tmp_path, quota_per_hour=3)
    client = client_of(svc)
    answers = [client.submit_signal(**submission(rot("cs_rank", feature(f"alt_{i}")))) for i in range(3)]
    assert [a.status_code for a in answers] == [202, 202, 202]
    t0 = time.time()
    refused = client.submit_signal(**submission(rot("cs_rank", feature("alt_9"))))
    assert refused.status_code == 403 and refused.error
    assert t0 + 3590 < refused.body["ban_expiry"] <= t0 + 3600
    # A repeat is no new submission: it is answered as before, quota or not.
    again = client.submit_signal(**submission(rot("cs_rank", feature("alt_0"))))
    assert (again.status_code, again.submission_id) == (202, answers[0].submission_id)
    assert stored_rows(svc.data_dir) == 3
    svc.stop()
    later = client_of(start(tmp_path, quota_per_hour=3)).submit_signal(**submission(rot("cs_rank", feature("gap"))))
    assert later.status_code == 403 and later.body["ban_expiry"] > time.time() + 3500


# ----- bad bodies ------------------------------------------------------------------------------------------

def _without(name):
    body = submission()
    del body[name]
    return json.dumps(body).encode()


def _with(**changes):
    return json.dumps(submission(**changes)).encode()


BAD_BODIES = [
    (b"", 400, "empty"),
    (b"{not json", 400, "not valid JSON"),
    (b"[1, 2]", 400, "JSON object"),
    (b" " * (1 << 20) + b"{}", 400, "larger than"),
    (_with().replace(b'"sharpe": 1.5', b'"sharpe": NaN'), 400, "non-finite"),
    (_with().replace(b'"sharpe": 1.5', b'"sharpe": 1e999'), 422, "is_stats.sharpe is not a finite number"),
    (_without("graph"), 422, "graph is required"),
    (_without("signal_pool_id"), 422, "signal_pool_id is required"),
    (_with(is_stats=[1, 2]), 422, "is_stats must be a dict"),
    (_with(is_stats={"sharpe": "high"}), 422, "is_stats.sharpe must be a finite number"),
    (_with(is_stats={"is_mi": 1.0}), 422, "MI contract fields"),
    (_with(is_mi=0.3), 422, "is_mi is no longer supported"),
    (_with(colour="blue"), 422, "unknown field(s): colour"),
    (_with(expression_elapsed_seconds=0.0), 422, "expression_elapsed_seconds must be a positive float"),
    (_with(signal_pool_id="elsewhere"), 422, "unknown signal pool"),
    (_with(universe_id="XX"), 422, "unknown universe"),
    (_with(metaparameters={"decay": -1}), 422, "metaparameters.decay"),
    (_with(metaparameters={"truncation": "1.5"}), 422, "metaparameters.truncation"),
    (_with(metaparameters={"normalization": "magic"}), 422, "metaparameters.normalization"),
    (_with(graph=rot("cs_rank", feature("nope"))), 422, "graph.children[0]: unknown feature"),
    (_with(graph=rot("frobnicate", feature("ret_5"))), 422, "unknown function 'frobnicate'"),
    (_with(graph={"type": "filtration", "node": "cs_rank", "children": [feature("ret_5")]}), 422, "is a rotation"),
    (_with(graph={"type": "leaf", "node": "x"}), 422, "unknown node type"),
    (_with(graph=rot("ts_mean_5", feature("ret_5"), {"type": "int", "node": 999})), 422, "outside [2, 252]"),
    (_with(graph=rot("add", feature("ret_5"))), 422, "takes 2 data input(s)"),
    (_with(graph=rot("cs_rank", feature("ret_5")) | {"colour": 1}), 422, "unexpected key"),
    (_with(graph="cs_rank(ret_5)"), 422, "a node must be a map"),
    (_with(idempotency_key="body-key"), 400, "differ"),
    (_with(is_pnl_mi=10 ** 400), 422, "is_pnl_mi must be a finite scalar number"),
    (_with().replace(b'"search_state"', b"").replace(b"{", b'{"search_state": ' + b"[" * 50000 + b"]" * 50000 + b", ", 1),
     400, "nested too deeply"),
]


@pytest.mark.parametrize("data, status, text", BAD_BODIES, ids=[c[2] for c in BAD_BODIES])
def test_a_body_that_breaks_the_contract_is_refused_and_nothing_is_stored(service, data, status, text):
    before = stored_rows(service.data_dir)
    code, body = raw_request(service, data, headers={"Idempotency-Key": "header-key"})
    assert code == status, body
    assert text in body["error"]
    assert stored_rows(service.data_dir) == before


def test_an_unknown_submission_is_404(service):
    client = client_of(service)
    missing = client.get_signal_status("sig-does-not-exist")
    assert missing.status_code == 404 and "no submission" in missing.error


# ----- the verdict ------------------------------------------------------------------------------------------

def test_a_submission_is_validating_and_then_judged_on_the_held_out_days(service):
    client = client_of(service)
    graph = rot("neg", rot("cs_rank", feature("ret_5")))
    receipt = client.submit_signal(**submission(graph, idempotency_key="verdict-1"))
    early = client.get_signal_status(receipt.submission_id)
    assert early.body["status"] == "is_validating" and early.body["is_stats"] == {}
    final = wait_terminal(client, receipt.submission_id)
    assert final["status"] == "found" and final["rejection_reason"] is None
    assert final["payment"]["amount"] >= 0
    # The evaluator's own held-out Sharpe of the same graph is the service's out-of-sample Sharpe.
    market = load_market(service.data_dir, **{k: SMALL_MARKET[k] for k in ("n_instruments", "n_days", "seed")})
    evaluator = LocalEvaluator(market, seed=SMALL_MARKET["seed"])
    evaluator.evaluate_expression(graph)
    stats = evaluator.run_backtest(graph)
    assert final["is_stats"]["sharpe"] == pytest.approx(stats.held_out_sharpe, rel=1e-9, abs=1e-12)
    assert final["is_stats"]["days"] == market.shape[0] - 1 - evaluator.in_sample_days
    assert final["in_sample_sharpe"] == 1.5


def test_a_near_copy_of_a_found_signal_is_refused_as_too_correlated(start):
    svc = start()
    client = client_of(svc)
    original = client.submit_signal(**submission(rot("cs_rank", feature("quality"))))
    assert wait_terminal(client, original.submission_id)["status"] == "found"
    copy = client.submit_signal(**submission(rot("cs_zscore", feature("quality")),
                                          metaparameters={"decay": "0", "truncation": "0.1", "normalization": "rank"}))
    unrelated = client.submit_signal(**submission(rot("cs_rank", feature("alt_7"))))
    judged_copy = wait_terminal(client, copy.submission_id)
    assert (judged_copy["status"], judged_copy["rejection_reason"]) == ("not_useful", "correlation_exceeded")
    assert judged_copy["is_correlation"] > 0.7 and judged_copy["payment"] is None
    judged_other = wait_terminal(client, unrelated.submission_id)
    assert judged_other["status"] == "found" and judged_other["is_correlation"] < 0.7
    listing = raw_request(svc, path="/v1/signals?status=found")[1]
    assert {s["submission_id"] for s in listing["submissions"]} == {original.submission_id, unrelated.submission_id}


@pytest.mark.parametrize("overrides, reason", [
    (dict(oos_sharpe_min=50.0), "oos_sharpe_below_min"),
    (dict(oos_fitness_min=50.0), "oos_fitness_below_min"),
])
def test_a_signal_below_the_out_of_sample_thresholds_is_rejected(start, overrides, reason):
    svc = start(**overrides)
    client = client_of(svc)
    judged = wait_terminal(client, client.submit_signal(**submission()).submission_id)
    assert (judged["status"], judged["rejection_reason"]) == ("is_rejected", reason)
    assert judged["payment"] is None and judged["is_stats"]["sharpe"] < 50.0


def test_a_signal_that_never_forms_a_book_is_rejected(service):
    client = client_of(service)
    no_stock_that_dear = {"type": "filtration", "node": "keep_above_price",
                          "children": [feature("ret_5"), {"type": "float", "node": 1000.0}]}
    judged = wait_terminal(client, client.submit_signal(**submission(no_stock_that_dear)).submission_id)
    assert (judged["status"], judged["rejection_reason"]) == ("is_rejected", "empty_book")


def test_the_demo_summary_counts_what_came_since_its_start_and_ranks_by_out_of_sample_sharpe():
    def sub(received_at, status, sharpe, reason=None):
        return {"received_at": received_at, "status": status, "rejection_reason": reason,
                "is_stats": {"sharpe": sharpe}, "in_sample_sharpe": 9.0 - sharpe}
    listing = {"submissions": [sub(1, "found", 3.0), sub(5, "found", 1.0), sub(5, "useful", 2.0),
                               sub(5, "not_useful", 0.5, "correlation_exceeded"), sub(5, "is_rejected", 0.1),
                               sub(5, "is_validating", 0.0)]}
    s = summary(listing, best=2, since=2.0)
    assert (s["sent"], s["accepted"], s["waiting"]) == (5, 2, 1)
    assert s["refused"] == {"correlation_exceeded": 1, "is_rejected": 1}
    assert [b["is_stats"]["sharpe"] for b in s["best"]] == [2.0, 1.0]


# ----- faults ----------------------------------------------------------------------------------------------

def test_injected_server_errors_store_nothing(start):
    svc = start(faults=Faults(error_rate=1.0))
    result = client_of(svc).submit_signal(**submission())
    assert result.status_code == 500 and result.error == "injected server error"
    assert stored_rows(svc.data_dir) == 0


def test_a_dropped_answer_is_found_again_by_its_key(start):
    svc = start(faults=Faults(drop_rate=0.5, seed=3))
    client = client_of(svc)
    body = submission(idempotency_key="dropped-1")
    results = [client.submit_signal(**body) for _ in range(12)]
    lost = [r for r in results if r.status_code == 0]
    answered = [r for r in results if r.status_code == 202]
    assert lost and answered, [r.status_code for r in results]
    assert all(r.body == answered[0].body for r in answered)  # each repeat replays the first answer
    assert stored_rows(svc.data_dir) == 1

"""The direct interface to the signal service: the contract of a submission, what reaches the wire, and
how each answer becomes a receipt, a status or the exception class that carries the retry decision."""
import math

import pytest

import quillmarsh.search_templates as st
import quillmarsh.submit as submit
from quillmarsh.submit import SignalServiceResult, SubmissionReceipt, SubmissionRejectedError
from submission.scripted_service import DROP, refused_url

GRAPH = {"type": "rotation", "node": "cs_rank", "children": [{"type": "feature", "node": "f1"}]}
STATS = {"sharpe": 1.2, "turnover": 0.3}


def payload(**changes):
    p = dict(graph=GRAPH, universe_id="U1", signal_pool_id="pool-a", is_stats=dict(STATS), is_pnl_mi=0.4,
             expression_elapsed_seconds=0.25, metaparameters={"decay": 3}, search_state={})
    for key, value in changes.items():
        if value is KeyError:
            p.pop(key)
        else:
            p[key] = value
    return p


@pytest.mark.parametrize("changes, message", [
    (dict(is_pnl_mi_values=[0.1]), "is_pnl_mi_values is no longer supported; provide is_pnl_mi as a scalar"),
    (dict(is_mi=0.1, signal_pool_id=KeyError), "is_mi is no longer supported; provide is_pnl_mi as a scalar"),
    (dict(signal_pool_id=KeyError, is_stats=KeyError), "signal_pool_id is required"),
    (dict(signal_pool_id=""), "signal_pool_id must be a non-empty string"),
    (dict(is_stats=KeyError), "is_stats is required"),
    (dict(is_stats=[("sharpe", 1.0)]), "is_stats must be a dict"),
    (dict(is_stats={"sharpe": 1.0, "nested": {"is_mi": 0.2}}), "is_stats must not contain MI contract fields"),
    (dict(is_stats={"sharpe": math.nan}), "is_stats values must be finite numbers"),
    (dict(is_stats={"sharpe": math.nan}, is_pnl_mi=KeyError), "is_stats values must be finite numbers"),
    (dict(is_pnl_mi=KeyError), "is_pnl_mi is required"),
    (dict(is_pnl_mi=math.inf), "is_pnl_mi must be a finite scalar number"),
    (dict(is_pnl_mi="0.4"), "is_pnl_mi must be a finite scalar number"),
    (dict(expression_elapsed_seconds=KeyError), "expression_elapsed_seconds is required"),
    (dict(expression_elapsed_seconds=0.0), "expression_elapsed_seconds must be a positive float"),
    (dict(expression_elapsed_seconds=math.nan), "expression_elapsed_seconds must be a positive float"),
    (dict(expression_elapsed_seconds="1"), "expression_elapsed_seconds must be a positive float"),
    (dict(graph=KeyError), "graph is required"),
])
def test_a_payload_that_breaks_the_contract_is_refused_locally(changes, message):
    with pytest.raises(ValueError) as info:
        st._submit_kwargs_from_payload(payload(**changes), st._SIGNAL_SUBMIT_KWARGS)
    assert str(info.value) == message


def test_projection_keeps_exactly_the_client_keywords_and_fills_the_optional_ones():
    p = payload(metaparameters=KeyError, search_state=KeyError, _queue_id=4, eval_id="e1",
                _submission_owner="me", retry_count=2)
    kwargs = st._submit_kwargs_from_payload(p, st._SIGNAL_SUBMIT_KWARGS)
    assert list(kwargs) == list(st._SIGNAL_SUBMIT_KWARGS)
    assert kwargs["metaparameters"] is None and kwargs["idempotency_key"] is None
    assert kwargs["graph"] == GRAPH and "_queue_id" in p  # the payload itself is left alone
    strategy = st._submit_kwargs_from_payload(p, st._STRATEGY_SUBMIT_KWARGS)
    strategy["referenced_signal_ids"].append("s1")
    assert st._submit_kwargs_from_payload(p, st._STRATEGY_SUBMIT_KWARGS)["referenced_signal_ids"] == []


R = SignalServiceResult


@pytest.mark.parametrize("result, outcome", [
    (R(200, submission_id="s-1"), "s-1"),
    (R(299, submission_id="s-2"), "s-2"),
    (R(0, error=""), (SubmissionRejectedError, 0, "unknown")),
    (R(199, submission_id="s-3"), (SubmissionRejectedError, 199, "unknown")),
    (R(300, submission_id="s-3"), (SubmissionRejectedError, 300, "unknown")),
    (R(429, error="slow down", body={"error": "slow down", "until": 5}), (SubmissionRejectedError, 429, "slow down")),
])
def test_the_edges_of_success_and_of_a_rejection(result, outcome):
    # the loop's table sends each kind of answer over the wire; these are the edges it cannot script
    if isinstance(outcome, str):
        assert st._result_to_receipt(result, "signal", SubmissionReceipt, SubmissionRejectedError) == \
            SubmissionReceipt(outcome)
        return
    with pytest.raises(SubmissionRejectedError) as info:
        st._result_to_receipt(result, "signal", SubmissionReceipt, SubmissionRejectedError)
    assert (info.value.status_code, info.value.reason) == outcome[1:]
    assert info.value.details == result.body and info.value.body is result.body


@pytest.fixture
def counted_clients(monkeypatch):
    """Every client the component builds, with the number of times each was closed."""
    built = []

    class Counting(submit.SignalServiceClient):
        def __init__(self, *args, **kwargs):
            super().__init__(*args, **kwargs)
            self.closes = 0
            built.append(self)

        def close(self):
            self.closes += 1
            super().close()

    monkeypatch.setattr(submit, "SignalServiceClient", Counting)
    return built


def test_a_submission_reaches_the_service_as_the_body_of_the_contract(server_url, service, counted_clients):
    receipt = st.submit_signal(GRAPH, "U1", "pool-a", dict(STATS), 0.4, 0.25, metaparameters={"decay": 3})
    assert receipt == SubmissionReceipt("sub-1")
    (request,) = service.of("submit")
    assert request["path"] == "/v1/signals" and request["authorization"] == "Bearer token-1"
    body = request["body"]
    assert set(body) == set(st._SIGNAL_SUBMIT_KWARGS)
    assert body["graph"] == GRAPH and body["metaparameters"] == {"decay": 3} and body["search_state"] is None
    assert body["idempotency_key"] == request["idempotency_key"]
    assert [c.closes for c in counted_clients] == [1]


@pytest.mark.parametrize("answer, error, text", [
    ((403, {"error": "banned", "ban_expiry": 123.0}), SubmissionRejectedError, "banned"),
    (DROP, ConnectionError, "transport error during signal submission"),
])
def test_a_failed_submission_raises_its_kind_and_still_closes_the_client(server_url, service, counted_clients,
                                                                         answer, error, text):
    service.script("submit", answer)
    with pytest.raises(error) as info:
        st.submit_signal(GRAPH, "U1", "pool-a", dict(STATS), 0.4, 0.25)
    if error is SubmissionRejectedError:
        assert info.value.reason == text and info.value.details == answer[1]
    else:
        assert str(info.value) == text
    assert [c.closes for c in counted_clients] == [1]


def test_a_broken_contract_builds_and_closes_a_client_but_sends_nothing(server_url, service, counted_clients):
    with pytest.raises(ValueError, match="is_stats values must be finite numbers"):
        st.submit_signal(GRAPH, "U1", "pool-a", {"sharpe": math.nan}, 0.4, 0.25)
    assert [c.closes for c in counted_clients] == [1] and service.requests == []


def test_a_client_without_close_is_used_all_the_same(server_url, service, monkeypatch):
    class NoClose(submit.SignalServiceClient):
        close = None

    monkeypatch.setattr(submit, "SignalServiceClient", NoClose)
    assert st.poll_status("sub-1").status == "is_validating"


def test_without_a_server_nothing_is_sent(server_url):
    server_url("https://signals.example.invalid")
    with pytest.raises(ConnectionError):
        st.submit_signal(GRAPH, "U1", "pool-a", dict(STATS), 0.4, 0.25)


@pytest.mark.parametrize("answer, expected", [
    ((200, {"status": "found", "is_stats": {"sharpe": 1.0}, "payment": {"amount": 3}, "is_pnl_mi": 0.2,
            "failure_reason": None, "signal_pool_id": "pool-a"}),
     dict(status="found", is_stats={"sharpe": 1.0}, payment={"amount": 3}, is_pnl_mi=0.2, signal_pool_id="pool-a")),
    ((200, {"status": "is_rejected", "rejection_reason": "correlated", "is_correlation": 0.93}),
     dict(status="is_rejected", rejection_reason="correlated", is_correlation=0.93, is_stats={})),
    ((200, ["not", "a", "map"]), dict(status="is_validating", is_stats={}, payment=None, failure_detail=None)),
])
def test_a_poll_reads_the_answer_with_its_defaults(server_url, service, answer, expected):
    service.script("poll", answer)
    result = st.poll_status("sub/7")
    assert result.submission_id == "sub/7" and service.of("poll")[0]["path"] == "/v1/signals/sub%2F7"
    assert {k: getattr(result, k) for k in expected} == expected


@pytest.mark.parametrize("answer, error, check", [
    ((404, {"error": "unknown submission"}), SubmissionRejectedError,
     lambda e: (e.status_code, e.reason, e.details) == (404, "unknown submission", {"error": "unknown submission"})),
    ((409, "not json"), SubmissionRejectedError, lambda e: e.details is None and e.body == "not json"),
    ((503, {}), ConnectionError, lambda e: str(e) == "Server error 503 while polling sub-1"),
    (DROP, ConnectionError, lambda e: str(e) == "transport error while polling sub-1"),
    ("refused", ConnectionError, lambda e: str(e) == "transport error while polling sub-1"),
])
def test_a_poll_that_fails_raises_its_kind_and_closes_the_client(server_url, service, counted_clients, answer,
                                                                 error, check):
    if answer == "refused":
        server_url(refused_url())
    else:
        service.script("poll", answer)
    with pytest.raises(error) as info:
        st.poll_status("sub-1")
    assert check(info.value)
    assert [c.closes for c in counted_clients] == [1]

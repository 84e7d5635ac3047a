import json
import socket
import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

import pytest

from quillmarsh.submit import SignalServiceClient

SUBMISSION = dict(graph={"type": "rotation", "node": "rank", "children": []}, universe_id="u1",
                  signal_pool_id="p1", is_stats={"sharpe": 1.2}, is_pnl_mi=0.3, metaparameters=None,
                  expression_elapsed_seconds=0.5, search_state={})


class Service:
    """A tiny signal service: remembers requests, answers by idempotency key, scripted statuses."""

    def __init__(self):
        self.requests = []
        self.by_key = {}
        self.answer = None  # (status, body) forced for the next requests

    def handle(self, handler, method):
        length = int(handler.headers.get("Content-Length") or 0)
        body = json.loads(handler.rfile.read(length)) if length else None
        self.requests.append((method, handler.path, dict(handler.headers), body))
        if self.answer is not None:
            status, reply = self.answer
        elif method == "POST":
            key = body["idempotency_key"]
            self.by_key.setdefault(key, "sub-%d" % (len(self.by_key) + 1))
            status, reply = 201, {"submission_id": self.by_key[key]}
        else:
            status, reply = 200, {"status": "useful", "submission_id": handler.path.rsplit("/", 1)[1]}
        data = json.dumps(reply).encode()
        handler.send_response(status)
        handler.send_header("Content-Type", "application/json")
        handler.send_header("Content-Length", str(len(data)))
        handler.end_headers()
        handler.wfile.write(data)


@pytest.fixture
def service():
    svc = Service()

    class Handler(BaseHTTPRequestHandler):
        def do_POST(self):
            svc.handle(self, "POST")

        def do_GET(self):
            svc.handle(self, "GET")

        def log_message(self, *args):
            pass

    server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    thread = threading.Thread(target=server.serve_forever, kwargs={"poll_interval": 0.05}, daemon=True)
    thread.start()
    svc.url = "http://127.0.0.1:%d" % server.server_address[1]
    yield svc
    server.shutdown()
    server.server_close()
    thread.join(timeout=5)


def test_submit_sends_the_body_with_token_and_idempotency_key(service):
    client = SignalServiceClient(service.url, "tok", timeout=5)
    result = client.submit_signal(**SUBMISSION)
    assert (result.status_code, result.error, result.submission_id) == (201, None, "sub-1")
    method, path, headers, body = service.requests[0]
    assert (method, path, headers["Authorization"]) == ("POST", "/v1/signals", "Bearer tok")
    assert body["idempotency_key"] == headers["Idempotency-Key"]
    assert {k: body[k] for k in SUBMISSION} == SUBMISSION


def test_a_resend_of_the_same_body_is_the_same_submission(service):
    client = SignalServiceClient(service.url, "tok", timeout=5)
    first = client.submit_signal(**SUBMISSION)
    again = SignalServiceClient(service.url, "other-token", timeout=5).submit_signal(**SUBMISSION)
    different = client.submit_signal(**dict(SUBMISSION, is_pnl_mi=0.4))
    assert first.submission_id == again.submission_id != different.submission_id
    keyed = client.submit_signal(**dict(SUBMISSION, idempotency_key="mine"))
    assert service.requests[-1][3]["idempotency_key"] == "mine" and keyed.status_code == 201
    assert SignalServiceClient._idempotency_key_for_body(SUBMISSION) == service.requests[0][3]["idempotency_key"]


@pytest.mark.parametrize("status, body, error", [
    (403, {"error": "banned", "ban_expiry": 123.0}, "banned"),
    (401, {}, "Unauthorized"),
    (503, {"error": "maintenance"}, "maintenance"),
])
def test_refusals_carry_status_error_and_body(service, status, body, error):
    service.answer = (status, body)
    result = SignalServiceClient(service.url, "tok", timeout=5).submit_signal(**SUBMISSION)
    assert (result.status_code, result.error, result.body, result.submission_id) == (status, error, body, None)


def test_status_poll(service):
    result = SignalServiceClient(service.url, "tok", timeout=5).get_signal_status("sub/9")
    assert result.status_code == 200 and result.body["status"] == "useful"
    assert service.requests[0][:2] == ("GET", "/v1/signals/sub%2F9")


def test_no_answer_gives_status_zero_and_an_error():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        port = s.getsockname()[1]
    client = SignalServiceClient("http://127.0.0.1:%d" % port, "tok", timeout=5)
    for result in (client.submit_signal(**SUBMISSION), client.get_signal_status("sub-1")):
        assert result.status_code == 0 and "refused" in result.error.lower()


def test_an_answer_cut_short_gives_status_zero():
    """A server that dies inside its answer: the client reports no answer instead of raising."""
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen(4)

    def half_answers():
        for _ in range(2):
            conn, _addr = listener.accept()
            with conn:
                conn.recv(65536)
                conn.sendall(b"HTTP/1.1 202 Accepted\r\nContent-Type: application/json\r\n"
                             b"Content-Length: 200\r\n\r\n{\"submission_id\": ")

    thread = threading.Thread(target=half_answers, daemon=True)
    thread.start()
    client = SignalServiceClient("http://127.0.0.1:%d" % listener.getsockname()[1], "tok", timeout=5)
    try:
        for result in (client.submit_signal(**SUBMISSION), client.get_signal_status("sub-1")):
            # the cut may reach the client as a short read or as a reset, depending on timing
            assert result.status_code == 0 and ("IncompleteRead" in result.error or "Reset" in result.error)
    finally:
        thread.join(5)
        listener.close()


@pytest.mark.parametrize("url, token, timeout", [("ftp://x", "t", 1), ("http://", "t", 1), (None, "t", 1),
                                                 ("http://h", "", 1), ("http://h", "t", 0)])
def test_client_refuses_bad_settings(url, token, timeout):
    with pytest.raises(ValueError):
        SignalServiceClient(url, token, timeout=timeout)


def test_client_refuses_bad_calls(service):
    client = SignalServiceClient(service.url, "tok", timeout=5)
    with pytest.raises(TypeError, match="is_mi"):
        client.submit_signal(is_mi=1, **SUBMISSION)
    with pytest.raises(TypeError, match="universe_id"):
        client.submit_signal(**{k: v for k, v in SUBMISSION.items() if k != "universe_id"})
    with pytest.raises(ValueError):
        client.get_signal_status("")
    client.close()
    with pytest.raises(RuntimeError, match="closed"):
        client.get_signal_status("sub-1")
    assert service.requests == []


"""The signal service client on its own: what the component's submission tests do not reach through
`submit_signal` and `poll_status` (a derived key, an answer cut short, bad settings and calls)."""
import socket
import threading

import pytest

from quillmarsh.submit import SignalServiceClient

SUBMISSION = dict(graph={"type": "rotation", "node": "rank", "children": []}, universe_id="u1",
                  signal_pool_id="p1", is_stats={"sharpe": 1.2}, is_pnl_mi=0.3, metaparameters=None,
                  expression_elapsed_seconds=0.5, search_state={})


def test_the_derived_key_depends_on_the_body_alone():
    key = SignalServiceClient._idempotency_key_for_body
    assert key(SUBMISSION) == key(dict(reversed(list(SUBMISSION.items()))))
    assert key(SUBMISSION) != key(dict(SUBMISSION, is_pnl_mi=0.4))


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


def test_client_refuses_bad_calls_and_sends_nothing():
    client = SignalServiceClient("http://127.0.0.1:9", "tok", timeout=5)  # nothing listens: nothing may be sent
    with pytest.raises(TypeError, match="is_mi"):
        client.submit_signal(is_mi=1, **SUBMISSION)
    with pytest.raises(TypeError, match="universe_id"):
        client.submit_signal(**{k: v for k, v in SUBMISSION.items() if k != "universe_id"})
    with pytest.raises(ValueError):
        client.get_signal_status("")
    client.close()
    with pytest.raises(RuntimeError, match="closed"):
        client.get_signal_status("sub-1")

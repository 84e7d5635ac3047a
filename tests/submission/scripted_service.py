"""A signal service on a loopback port that answers each request as the test scripts it.

``ScriptedService.script("submit", (401, {"error": "token expired"}), ...)`` queues answers for the next
submissions; ``"poll"`` does the same for status polls. An answer is ``(status, body)``, ``DROP``, which closes the
connection without a word (a transport failure), or ``Slow(seconds, answer)``, given after a delay. When a script runs dry, a submission is
accepted with a new id and a poll gets ``poll_default`` ("is_validating" unless the test sets it). Every request is kept in ``requests``.
"""
from __future__ import annotations

import itertools
import json
import socket
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

DROP = object()


class Slow:
    def __init__(self, seconds, answer):
        self.seconds, self.answer = seconds, answer


def refused_url() -> str:
    """The URL of a loopback port where nothing listens."""
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        port = s.getsockname()[1]
    return "http://127.0.0.1:%d" % port


class ScriptedService:
    def __init__(self):
        self._lock = threading.Lock()
        self._scripts = {"submit": [], "poll": []}
        self._ids = itertools.count(1)
        self.requests = []
        self.poll_default = (200, {"status": "is_validating"})
        service = self

        class Handler(BaseHTTPRequestHandler):
            def log_message(self, *args):
                pass

            def do_POST(self):
                length = int(self.headers.get("Content-Length") or 0)
                body = json.loads(self.rfile.read(length) or b"null")
                service._answer(self, "submit", body)

            def do_GET(self):
                service._answer(self, "poll", None)

        self._server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self._server.daemon_threads = True
        self._thread = threading.Thread(target=self._server.serve_forever, name="scripted_service", daemon=True)
        self._thread.start()

    @property
    def url(self) -> str:
        return "http://127.0.0.1:%d" % self._server.server_address[1]

    def script(self, kind, *answers):
        with self._lock:
            self._scripts[kind].extend(answers)

    def of(self, kind):
        """The requests of one kind, in arrival order."""
        with self._lock:
            return [r for r in self.requests if r["kind"] == kind]

    def _answer(self, handler, kind, body):
        with self._lock:
            self.requests.append({"kind": kind, "path": handler.path, "body": body,
                                  "idempotency_key": handler.headers.get("Idempotency-Key"),
                                  "authorization": handler.headers.get("Authorization")})
            answer = self._scripts[kind].pop(0) if self._scripts[kind] else None
            if answer is None:
                answer = ((200, {"submission_id": "sub-%d" % next(self._ids)}) if kind == "submit"
                          else self.poll_default)
        if isinstance(answer, Slow):
            time.sleep(answer.seconds)
            answer = answer.answer
        if answer is DROP:
            handler.close_connection = True
            handler.connection.shutdown(socket.SHUT_RDWR)
            return
        status, reply = answer
        data = json.dumps(reply).encode("utf-8")
        handler.send_response(status)
        handler.send_header("Content-Type", "application/json")
        handler.send_header("Content-Length", str(len(data)))
        handler.end_headers()
        handler.wfile.write(data)

    def close(self):
        self._server.shutdown()
        self._server.server_close()
        self._thread.join(5.0)

"""HTTP client of the signal service, over ``urllib.request``.

Requests: ``POST {server_url}/v1/signals`` with the submission as a JSON body, and
``GET {server_url}/v1/signals/{submission_id}`` for its status, both with ``Authorization: Bearer <token>``.
A submission carries an ``idempotency_key``, in the body and in the ``Idempotency-Key`` header; when the
caller gives none it is computed from the body, so a re-send of the same body is the same submission.
Every call returns a ``SignalServiceResult``; ``status_code`` 0 with an ``error`` means no answer came.
"""

from __future__ import annotations

import dataclasses
import hashlib
import http.client
import json
import urllib.error
import urllib.parse
import urllib.request
from collections.abc import Mapping

__all__ = [
    "SIGNAL_SUBMIT_FIELDS",
    "SignalServiceResult",
    "SignalServiceClient",
    "SubmissionRejectedError",
    "SubmissionReceipt",
    "SubmissionStatus",
]

SIGNAL_SUBMIT_FIELDS = ("graph", "universe_id", "signal_pool_id", "is_stats", "is_pnl_mi", "metaparameters",
                        "expression_elapsed_seconds", "search_state", "idempotency_key",
                        "referenced_signal_ids")
_REQUIRED_SUBMIT_FIELDS = ("graph", "universe_id", "signal_pool_id", "is_stats", "is_pnl_mi",
                           "expression_elapsed_seconds")
_LOOPBACK_HOSTS = frozenset(("127.0.0.1", "localhost", "::1"))


class SubmissionRejectedError(Exception):
    """The service answered and said no."""

    def __init__(self, status_code, reason, details, body=None):
        super().__init__("signal service rejected the request (%s): %s" % (status_code, reason))
        self.status_code = status_code
        self.reason = reason
        self.details = details
        self.body = body


@dataclasses.dataclass(frozen=True)
class SubmissionReceipt:
    submission_id: str


@dataclasses.dataclass
class SubmissionStatus:
    submission_id: str
    status: str
    is_stats: dict
    payment: object
    rejection_reason: str | None
    signal_pool_id: str | None = None
    is_correlation: float | None = None
    is_pnl_mi: float | None = None
    agent_is_pnl_mi: float | None = None
    is_weights_mi: float | None = None
    failure_reason: str | None = None
    failure_detail: str | None = None


@dataclasses.dataclass
class SignalServiceResult:
    status_code: int
    error: str | None = None
    submission_id: str | None = None
    body: object = None


class SignalServiceClient:
    """One client per use: the caller passes a fresh token and closes the client afterwards."""

    def __init__(self, server_url, token, timeout=30.0):
        parsed = urllib.parse.urlsplit(server_url if isinstance(server_url, str) else "")
        if parsed.scheme not in ("http", "https") or not parsed.hostname:
            raise ValueError("server_url must be an http(s) URL, got %r" % (server_url,))
        if not isinstance(token, str) or not token:
            raise ValueError("token must be a non-empty string")
        if isinstance(timeout, bool) or not isinstance(timeout, (int, float)) or not timeout > 0:
            raise ValueError("timeout must be a positive number of seconds")
        self._base = server_url.rstrip("/")
        self._token = token
        self._timeout = float(timeout)
        handlers = [urllib.request.ProxyHandler({})] if parsed.hostname in _LOOPBACK_HOSTS else []
        self._opener = urllib.request.build_opener(*handlers)
        self._closed = False

    @staticmethod
    def _idempotency_key_for_body(body) -> str:
        """A key that depends on the body alone (its ``idempotency_key`` entry left out)."""
        if not isinstance(body, Mapping):
            raise TypeError("submission body must be a mapping")
        content = {k: v for k, v in body.items() if k != "idempotency_key"}
        text = json.dumps(content, sort_keys=True, separators=(",", ":"), default=str)
        return "qm-" + hashlib.sha256(text.encode("utf-8")).hexdigest()

    def submit_signal(self, **kwargs) -> SignalServiceResult:
        unknown = sorted(set(kwargs) - set(SIGNAL_SUBMIT_FIELDS))
        if unknown:
            raise TypeError("submit_signal() got unexpected fields: %s" % ", ".join(unknown))
        missing = [name for name in _REQUIRED_SUBMIT_FIELDS if name not in kwargs]
        if missing:
            raise TypeError("submit_signal() is missing required fields: %s" % ", ".join(missing))
        body = dict(kwargs)
        if not body.get("idempotency_key"):
            body["idempotency_key"] = self._idempotency_key_for_body(body)
        return self._request("POST", "/v1/signals", body, {"Idempotency-Key": body["idempotency_key"]})

    def get_signal_status(self, submission_id) -> SignalServiceResult:
        if not isinstance(submission_id, str) or not submission_id:
            raise ValueError("submission_id must be a non-empty string")
        return self._request("GET", "/v1/signals/" + urllib.parse.quote(submission_id, safe=""))

    def close(self) -> None:
        self._closed = True

    def _request(self, method, path, body=None, headers=None) -> SignalServiceResult:
        if self._closed:
            raise RuntimeError("SignalServiceClient is closed")
        data = None
        all_headers = {"Authorization": "Bearer " + self._token, "Accept": "application/json"}
        if body is not None:
            data = json.dumps(body, sort_keys=True, allow_nan=False).encode("utf-8")
            all_headers["Content-Type"] = "application/json"
        all_headers.update(headers or {})
        request = urllib.request.Request(self._base + path, data=data, headers=all_headers, method=method)
        try:
            with self._opener.open(request, timeout=self._timeout) as response:
                return self._result(response.status, response.read(), None)
        except urllib.error.HTTPError as exc:
            try:
                raw = exc.read()
            except OSError:
                raw = b""
            return self._result(exc.code, raw, str(exc.reason or "HTTP %s" % exc.code))
        except (urllib.error.URLError, OSError, ValueError, http.client.HTTPException) as exc:
            # HTTPException: the connection broke inside the answer (a server that died mid-reply).
            reason = getattr(exc, "reason", None) or exc
            return SignalServiceResult(status_code=0, error="%s: %s" % (type(exc).__name__, reason))

    @staticmethod
    def _result(status_code, raw: bytes, http_error) -> SignalServiceResult:
        try:
            body = json.loads(raw.decode("utf-8")) if raw else None
        except ValueError:
            body = raw.decode("utf-8", "replace")
        error = http_error
        submission_id = None
        if isinstance(body, Mapping):
            if isinstance(body.get("error"), str) and body["error"]:
                error = body["error"]
            if body.get("submission_id") is not None:
                submission_id = str(body["submission_id"])
        if 200 <= status_code <= 299:
            error = None
        return SignalServiceResult(status_code=int(status_code), error=error, submission_id=submission_id,
                                   body=body)

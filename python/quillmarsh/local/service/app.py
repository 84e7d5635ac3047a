"""The HTTP face of the service (FastAPI): submissions, their status, and faults served on purpose.

    POST /v1/signals                 submit a signal; 202 with its submission_id
    GET  /v1/signals/{submission_id} its status and, once judged, the out-of-sample verdict
    GET  /v1/signals?status=&limit=  the account's submissions, newest first
    GET  /v1/health                  liveness, no token needed

Every refusal is a JSON object with an ``error`` text. Requests carry ``Authorization: Bearer <token>``.
"""
from __future__ import annotations

import json
import logging
import random

from fastapi import FastAPI, Request
from fastapi.exceptions import RequestValidationError
from fastapi.responses import JSONResponse
from starlette.exceptions import HTTPException as StarletteHTTPException

from .contract import MAX_BODY_BYTES, ContractError

logger = logging.getLogger(__name__)

REPLAY_HEADER = "Idempotent-Replayed"


class ServiceError(Exception):
    """A refusal with its status code and body (``error`` plus any details such as ``ban_expiry``)."""

    def __init__(self, status_code: int, error: str, headers: dict | None = None, **details):
        super().__init__(error)
        self.status_code = status_code
        self.body = {"error": error, **details}
        self.headers = headers


def _json(status_code: int, body, headers=None) -> JSONResponse:
    return JSONResponse(body, status_code=status_code, headers=headers)


_NUMBER = {"type": "number"}
# The body is read and checked by the service itself (so that every refusal says what is wrong, in the
# same shape); this schema only documents it on the OpenAPI page.
_SUBMISSION_DOC = {
    "parameters": [{"name": "Idempotency-Key", "in": "header", "required": False, "schema": {"type": "string"}}],
    "requestBody": {"required": True, "content": {"application/json": {"schema": {
        "type": "object",
        "required": ["graph", "universe_id", "signal_pool_id", "is_stats", "is_pnl_mi", "expression_elapsed_seconds"],
        "properties": {
            "graph": {"type": "object", "description": "expression graph: type, node, children"},
            "universe_id": {"type": "string"}, "signal_pool_id": {"type": "string"},
            "is_stats": {"type": "object", "additionalProperties": _NUMBER},
            "is_pnl_mi": _NUMBER, "expression_elapsed_seconds": {"type": "number", "exclusiveMinimum": 0},
            "metaparameters": {"type": ["object", "null"]}, "search_state": {},
            "idempotency_key": {"type": ["string", "null"]},
            "referenced_signal_ids": {"type": "array", "items": {"type": "string"}}}}}}},
}


def create_app(service) -> FastAPI:
    """The application over a ``SignalService`` (store, accounts, contract, quotas, reviewer)."""
    app = FastAPI(title="quillmarsh local signal service", version="1",
                  description="Judges submitted signals out of sample on the local market.")

    @app.exception_handler(ServiceError)
    async def _service_error(_request, exc: ServiceError):
        return _json(exc.status_code, exc.body, exc.headers)

    @app.exception_handler(ContractError)
    async def _contract_error(_request, exc: ContractError):
        return _json(exc.status_code, {"error": str(exc)})

    @app.exception_handler(StarletteHTTPException)
    async def _http_error(_request, exc: StarletteHTTPException):
        return _json(exc.status_code, {"error": str(exc.detail)}, getattr(exc, "headers", None))

    @app.exception_handler(RequestValidationError)
    async def _validation_error(_request, exc: RequestValidationError):
        parts = ["%s: %s" % (".".join(str(x) for x in e.get("loc", ())), e.get("msg")) for e in exc.errors()]
        return _json(422, {"error": "; ".join(parts) or "invalid request"})

    @app.exception_handler(Exception)
    async def _unexpected(_request, exc: Exception):
        logger.exception("request failed")
        return _json(500, {"error": f"internal error: {type(exc).__name__}"})

    @app.get("/v1/health")
    async def health():
        return {"status": "ok", "submissions_waiting": service.waiting_count()}

    @app.post("/v1/signals", status_code=202, openapi_extra=_SUBMISSION_DOC,
              summary="Submit a signal; the first answer to an idempotency key is replayed for every repeat")
    async def submit(request: Request):
        account = service.authenticate(request.headers.get("authorization"))
        raw = await _read_body(request)
        status_code, body, replayed = await service.submit(account, raw, request.headers.get("idempotency-key"))
        return _json(status_code, body, {REPLAY_HEADER: "true"} if replayed else None)

    @app.get("/v1/signals/{submission_id}")
    async def signal_status(submission_id: str, request: Request):
        account = service.authenticate(request.headers.get("authorization"))
        await service.pause()
        return _json(200, service.status_body(account, submission_id))

    @app.get("/v1/signals")
    async def list_signals(request: Request, status: str | None = None, limit: int = 100):
        account = service.authenticate(request.headers.get("authorization"))
        if not 1 <= limit <= 10_000:
            raise ServiceError(422, "limit must lie between 1 and 10000")
        return _json(200, service.list_body(account, status, limit))

    return FaultInjector(app, service.config.faults)


async def _read_body(request: Request) -> bytes:
    """The body, read to its end so that the client always gets the answer; past the size limit the rest
    is read and dropped, and the request refused."""
    chunks, size = [], 0
    async for chunk in request.stream():
        size += len(chunk)
        if size <= MAX_BODY_BYTES:
            chunks.append(chunk)
    if size > MAX_BODY_BYTES:
        raise ServiceError(400, f"request body is larger than {MAX_BODY_BYTES} bytes")
    return b"".join(chunks)


class FaultInjector:
    """ASGI wrapper that serves the configured faults on the ``/v1/signals`` routes: a share of requests
    answered 500 without being handled, and a share handled in full whose answer is then lost with the
    connection (the client sees no answer, while the service has stored what it would have answered)."""

    def __init__(self, app, faults):
        self.app = app
        self.faults = faults
        self._rng = random.Random(faults.seed)

    def __getattr__(self, name):  # the FastAPI object's own attributes (openapi, routes, state, ...)
        return getattr(self.app, name)

    async def __call__(self, scope, receive, send):
        faults = self.faults
        if scope["type"] != "http" or not (faults.error_rate or faults.drop_rate) \
                or not scope.get("path", "").startswith("/v1/signals"):
            return await self.app(scope, receive, send)
        draw = self._rng.random()
        if draw < faults.error_rate:
            body = json.dumps({"error": "injected server error"}).encode()
            await send({"type": "http.response.start", "status": 500,
                        "headers": [(b"content-type", b"application/json"),
                                    (b"content-length", str(len(body)).encode())]})
            await send({"type": "http.response.body", "body": body})
            return
        if draw < faults.error_rate + faults.drop_rate:
            await self.app(scope, receive, _swallow)
            _drop_connection(send)
            return
        await self.app(scope, receive, send)


async def _swallow(_message) -> None:
    return None


def _drop_connection(send) -> None:
    """Cut the connection under the server's answer: uvicorn's send is bound to a cycle that knows its
    transport. Marking the cycle disconnected keeps the server from answering on a closed socket."""
    cycle = getattr(send, "__self__", None)
    transport = getattr(cycle, "transport", None)
    if transport is None:
        raise RuntimeError("this server does not let a connection be dropped")
    cycle.disconnected = True
    transport.abort()


__all__ = ["create_app", "FaultInjector", "ServiceError", "REPLAY_HEADER"]

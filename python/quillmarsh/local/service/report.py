"""What the service made of an account's submissions, for the end of a demo: sent, judged, accepted, and
the best accepted signals with their in-sample and out-of-sample Sharpe."""
from __future__ import annotations

import atexit
import json
import sqlite3
import time
import urllib.request

from quillmarsh.signals import format_expression, plain_table
from quillmarsh.submit import SIGNAL_SUBMIT_FIELDS, SignalServiceClient

from .judge import ACCEPTED_STATUSES

_TERMINAL = ACCEPTED_STATUSES + ("is_rejected", "not_useful", "os_failed", "useful_transition_failed")


def fetch_submissions(url: str, token: str, limit: int = 10_000) -> dict:
    """The service's list of the account's submissions (``submissions`` newest first, and ``counts``)."""
    request = urllib.request.Request(f"{url.rstrip('/')}/v1/signals?limit={int(limit)}",
                                     headers={"Authorization": "Bearer " + token, "Accept": "application/json"})
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    with opener.open(request, timeout=30.0) as response:
        return json.loads(response.read())


def send_queued(conn, url: str, token: str) -> tuple:
    """Send the signals still waiting in the ``submission_queue`` of a search's store (``conn``, a reader of
    it, closed here); returns how many the service took and the refusals, error text -> count.

    Each goes with the idempotency key the search's own pipeline would give it, so a later search that sends
    the same row is answered with the same submission."""
    try:
        rows = conn.execute("SELECT payload_json FROM submission_queue ORDER BY queue_id").fetchall()
    except sqlite3.Error:
        rows = []
    finally:
        conn.close()
    taken, refused = 0, {}
    client = SignalServiceClient(url, token)
    for (text,) in rows:
        try:
            payload = json.loads(text)
        except ValueError:
            continue
        body = {k: payload[k] for k in SIGNAL_SUBMIT_FIELDS if k in payload and k != "idempotency_key"}
        body["idempotency_key"] = payload.get("idempotency_key") or SignalServiceClient._idempotency_key_for_body(body)
        try:
            result = client.submit_signal(**body)
        except TypeError as exc:  # a row without the fields of a signal submission
            refused[str(exc)] = refused.get(str(exc), 0) + 1
            continue
        if 200 <= result.status_code <= 299:
            taken += 1
        else:
            reason = f"{result.status_code} {result.error}"
            refused[reason] = refused.get(reason, 0) + 1
    client.close()
    return taken, refused


def wait_for_verdicts(url: str, token: str, timeout: float) -> dict:
    """The listing once no submission is still being judged, or when ``timeout`` seconds have passed."""
    deadline = time.monotonic() + timeout
    while True:
        listing = fetch_submissions(url, token)
        waiting = sum(1 for s in listing["submissions"] if s["status"] not in _TERMINAL)
        if not waiting or time.monotonic() >= deadline:
            return listing
        time.sleep(0.25)


def summary(listing: dict, best: int = 5, since: float = 0.0) -> dict:
    """Counts of the submissions received since ``since`` and the best accepted, by out-of-sample Sharpe."""
    subs = [s for s in listing["submissions"] if (s.get("received_at") or 0.0) >= since]
    accepted = [s for s in subs if s["status"] in ACCEPTED_STATUSES]
    accepted.sort(key=lambda s: -(s["is_stats"].get("sharpe") or 0.0))
    reasons: dict = {}
    waiting = sum(1 for s in subs if s["status"] not in _TERMINAL)
    for s in subs:
        if s["status"] not in _TERMINAL:
            continue
        if s["status"] not in ACCEPTED_STATUSES:
            key = s["rejection_reason"] or s["status"]
            reasons[key] = reasons.get(key, 0) + 1
    return {"sent": len(subs), "accepted": len(accepted), "refused": reasons, "waiting": waiting,
            "best": accepted[:best]}


def render(s: dict) -> str:
    lines = [f"{s['sent']} signals sent to the signal service; {s['accepted']} accepted out of sample"]
    for reason, n in sorted((s.get("not_taken") or {}).items()):
        lines.append(f"not taken by the service ({n}): {reason}")
    if s.get("waiting"):
        lines.append(f"still being judged when the demo ended: {s['waiting']}")
    if s["refused"]:
        lines.append("refused: " + ", ".join(f"{k} {n}" for k, n in sorted(s["refused"].items(), key=lambda kv: -kv[1])))
    if s["best"]:
        rows = []
        for i, sub in enumerate(s["best"], 1):
            pay = sub.get("payment") or {}
            rows.append((str(i), _num(sub.get("in_sample_sharpe")), _num(sub["is_stats"].get("sharpe")),
                         _num(sub["is_stats"].get("fitness")), _num(sub.get("is_correlation")),
                         _num(pay.get("amount")), format_expression(sub.get("graph"))))
        lines.append(f"Best {len(s['best'])} accepted signals:")
        lines.append(plain_table(rows, ("#", "IS sharpe", "OOS sharpe", "OOS fitness", "correlation", "payment",
                                        "expression")))
    return "\n".join(lines)


def _num(value, digits=2) -> str:
    return "-" if value is None else f"{value:.{digits}f}"


def report_to(out, data_dir, url: str, since: float, review_timeout: float = 60.0) -> dict:
    """Send what the search left queued, wait for the verdicts, and print the summary of this run."""
    from pathlib import Path

    from quillmarsh.cli import _open_store

    from .service import account_auth

    token = account_auth(data_dir).get_token()
    # The search's own store: the PostgreSQL database of a demo run with one, else the data directory's file.
    _taken, refused = send_queued(_open_store(Path(data_dir)), url, token)
    s = summary(wait_for_verdicts(url, token, review_timeout), since=since)
    s["not_taken"] = refused
    print("\n" + render(s), file=out, flush=True)
    return s


class DemoService:
    """The service a demo searches against: started in a child process on a free loopback port, with the
    platform's ``server_url`` pointed at it. ``finish`` reports on the run and stops it; if the demo fails
    before that, it is stopped when the program exits."""

    def __init__(self, data_dir, config, out):
        from quillmarsh import agent_onboarding

        from .runner import start_service

        self.data_dir = data_dir
        self.process = start_service(data_dir, config=config)
        self._previous_url = agent_onboarding._config.get("server_url")
        agent_onboarding._config["server_url"] = self.process.url
        atexit.register(self.stop)
        print(f"Signal service listening on {self.process.url}", file=out, flush=True)

    def finish(self, out, since: float) -> dict:
        try:
            return report_to(out, self.data_dir, self.process.url, since)
        finally:
            self.stop()

    def stop(self) -> None:
        from quillmarsh import agent_onboarding

        atexit.unregister(self.stop)
        self.process.stop()
        if agent_onboarding._config.get("server_url") == self.process.url:
            agent_onboarding._config["server_url"] = self._previous_url


def start_demo_service(data_dir, n_instruments: int, n_days: int, seed: int, out) -> DemoService:
    """The demo's service over the market of these arguments, judging each signal a second after it comes."""
    from .config import ServiceConfig

    config = ServiceConfig(n_instruments=n_instruments, n_days=n_days, seed=seed, review_delay_seconds=1.0)
    return DemoService(data_dir, config, out)


__all__ = ["DemoService", "start_demo_service", "fetch_submissions", "render", "report_to", "send_queued", "summary", "wait_for_verdicts"]

"""Events for the user: one JSON line each in ``<data_dir>/events.jsonl``, and in-process listeners."""

from __future__ import annotations

import json
import logging
import os
import threading
import time
from collections.abc import Mapping

__all__ = ["EVENTS_FILE_NAME", "add_listener", "remove_listener", "emit_event"]

EVENTS_FILE_NAME = "events.jsonl"
logger = logging.getLogger(__name__)

_listeners: list = []
_lock = threading.Lock()


def add_listener(listener) -> None:
    """Call ``listener(event)`` for every event emitted in this process."""
    if not callable(listener):
        raise TypeError("event listener must be callable")
    with _lock:
        _listeners.append(listener)


def remove_listener(listener) -> bool:
    with _lock:
        try:
            _listeners.remove(listener)
        except ValueError:
            return False
    return True


def emit_event(*, data_dir, event_type: str, severity: str, payload=None) -> dict:
    """Append one event to the events file of ``data_dir`` (none if it is None), then tell the listeners.

    The line is written with a single ``os.write`` on a file opened for appending, so lines from several
    threads or processes never interleave. A listener that raises is logged and skipped.
    """
    if not isinstance(event_type, str) or not event_type:
        raise ValueError("event_type must be a non-empty string")
    if not isinstance(severity, str) or not severity:
        raise ValueError("severity must be a non-empty string")
    if payload is not None and not isinstance(payload, Mapping):
        raise TypeError("event payload must be a mapping or None")
    event = {"ts": time.time(), "event_type": event_type, "severity": severity,
             "payload": dict(payload or {})}
    if data_dir:
        line = (json.dumps(event, sort_keys=True, default=str) + "\n").encode("utf-8")
        directory = os.path.expanduser(os.fspath(data_dir))
        os.makedirs(directory, exist_ok=True)
        fd = os.open(os.path.join(directory, EVENTS_FILE_NAME),
                     os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o644)
        try:
            os.write(fd, line)
        finally:
            os.close(fd)
    with _lock:
        listeners = list(_listeners)
    for listener in listeners:
        try:
            listener(dict(event))
        except Exception as exc:  # a listener never breaks the emitter
            logger.warning("event listener failed: %s", exc)
    return event

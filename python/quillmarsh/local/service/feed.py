"""The found-signal feed of a data directory: how the search's evaluator learns what the service accepted.

The service keeps ``found_signals.json`` (each accepted signal's id, pool, graph and metaparameters) and
lists the ids in the era file's pool as ``found_signal_ids``. The search side re-reads the era file when it
changes; ``FoundSignalFollower`` then enters every new found signal in the evaluator's pool, so that a
near-copy of it is refused as too correlated instead of being found again.
"""
from __future__ import annotations

import json
import logging
import os
import threading
from pathlib import Path

from quillmarsh.sync import ERA_CONFIG_FILE_NAME

logger = logging.getLogger(__name__)

FOUND_SIGNALS_FILE_NAME = "found_signals.json"


def _write_atomically(path: Path, text: str) -> None:
    tmp = path.with_name(f"{path.name}.{os.getpid()}.{threading.get_ident()}.tmp")
    with open(tmp, "w", encoding="utf-8") as fh:
        fh.write(text)
        fh.flush()
        os.fsync(fh.fileno())
    os.replace(tmp, path)


def read_found_signals(data_dir) -> list:
    """The feed's entries, oldest first; an absent or unreadable file is an empty feed."""
    path = Path(data_dir) / FOUND_SIGNALS_FILE_NAME
    try:
        entries = json.loads(path.read_text(encoding="utf-8"))
    except FileNotFoundError:
        return []
    except (OSError, ValueError) as exc:
        logger.warning("found-signal feed %s is unreadable: %s", path, exc)
        return []
    return [e for e in entries if isinstance(e, dict) and isinstance(e.get("signal_id"), str)] \
        if isinstance(entries, list) else []


def publish_found_signals(data_dir, entries) -> None:
    """Write the feed, then list its ids in the era file's pools (an absent era file is left absent)."""
    data_dir = Path(data_dir)
    entries = [{"signal_id": e["signal_id"], "signal_pool_id": e["signal_pool_id"], "graph": e["graph"],
                "metaparameters": e.get("metaparameters")} for e in entries]
    _write_atomically(data_dir / FOUND_SIGNALS_FILE_NAME, json.dumps(entries, sort_keys=True, indent=1))
    era_path = data_dir / ERA_CONFIG_FILE_NAME
    try:
        era = json.loads(era_path.read_text(encoding="utf-8"))
    except FileNotFoundError:
        return
    changed = False
    for pool in era.get("signal_pools") or ():
        if not isinstance(pool, dict):
            continue
        pool_id = pool.get("signal_pool_id") or pool.get("name")
        ids = list(pool.get("found_signal_ids") or [])
        for e in entries:
            if e["signal_pool_id"] == pool_id and e["signal_id"] not in ids:
                ids.append(e["signal_id"])
                changed = True
        pool["found_signal_ids"] = ids
    if changed:
        _write_atomically(era_path, json.dumps(era, sort_keys=True, indent=1))


def found_signal_ids(data_dir, pool_id: str) -> list:
    return [e["signal_id"] for e in read_found_signals(data_dir) if e.get("signal_pool_id") == pool_id]


class FoundSignalFollower:
    """Keeps an evaluator's pools in step with the feed: at once, and after each change of the era file."""

    def __init__(self, evaluator, data_dir, poll_interval: float = 1.0):
        self.evaluator = evaluator
        self.data_dir = Path(data_dir)
        self.poll_interval = float(poll_interval)
        self._added: set = set()
        self._stamp = None
        self._stop = threading.Event()
        self._thread: threading.Thread | None = None
        self._lock = threading.Lock()

    def _era_stamp(self):
        try:
            st = os.stat(self.data_dir / ERA_CONFIG_FILE_NAME)
        except FileNotFoundError:
            return None
        return (st.st_mtime_ns, st.st_size, st.st_ino)

    def sync(self) -> int:
        """Enter the feed's signals that the evaluator has not seen; returns how many were entered."""
        with self._lock:
            self._stamp = self._era_stamp()
            added = 0
            for entry in read_found_signals(self.data_dir):
                sid = entry["signal_id"]
                if sid in self._added:
                    continue
                try:
                    self.evaluator.add_found_signal(sid, entry["graph"], entry.get("metaparameters"),
                                                    pool_id=entry.get("signal_pool_id"))
                except (ValueError, TypeError, KeyError) as exc:
                    logger.warning("found signal %s not entered in its pool: %s", sid, exc)
                self._added.add(sid)
                added += 1
            return added

    def start(self) -> "FoundSignalFollower":
        self.sync()
        self._thread = threading.Thread(target=self._run, name="found_signal_follower", daemon=True)
        self._thread.start()
        return self

    def stop(self, timeout: float = 2.0) -> None:
        self._stop.set()
        if self._thread is not None:
            self._thread.join(timeout)

    def _run(self) -> None:
        while not self._stop.wait(self.poll_interval):
            try:
                if self._era_stamp() != self._stamp:
                    self.sync()
            except Exception:  # the follower outlives a bad feed; the next change is read again
                logger.exception("found-signal follower failed")

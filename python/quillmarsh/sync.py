"""Data sync of the local platform: the era configuration and the era clock.

There is no remote to sync from. The era configuration is the JSON object in ``<data_dir>/era_config.json``
(absent file: no era configuration yet). The sync manager's own thread, "sync_manager", re-reads the file
when it changes; when the ``era_id`` changes, every registered era callback is called with ("kill", era_id)
and then ("restart", era_id).
"""

from __future__ import annotations

import json
import logging
import os
import threading
from collections.abc import Mapping

__all__ = ["ERA_CONFIG_FILE_NAME", "SyncError", "EraConfig", "SyncManager"]

ERA_CONFIG_FILE_NAME = "era_config.json"
logger = logging.getLogger(__name__)


class SyncError(Exception):
    """Data could not be brought up to date."""


class EraConfig:
    """An era configuration: every key of the raw map as an attribute, the map itself as ``_data``.

    The fields that the search reads directly always exist, with these defaults when the map lacks them:
    ``era_id`` 1, ``max_depth`` 6, and None for the others.
    """

    FIELDS = {
        "era_id": 1,
        "max_depth": 6,
        "max_node_count": None,
        "buffer_duration_minutes": None,
        "max_expression_generation_seconds": None,
        "thresholds": None,
        "signal_pool_id": None,
        "signal_pools": None,
        "evaluation_pnl_columns": None,
        "transform_pipeline": None,
        "transform_pipeline_config": None,
        "valid_universe_id": None,
        "universe_id": None,
        "column_threshold_rules": None,
    }

    def __init__(self, data: Mapping):
        if not isinstance(data, Mapping):
            raise TypeError("era configuration must be a JSON object, not %s" % type(data).__name__)
        self._data = dict(data)
        for name, default in self.FIELDS.items():
            setattr(self, name, self._data.get(name, default))
        for name, value in self._data.items():
            if isinstance(name, str) and name.isidentifier() and not name.startswith("_"):
                setattr(self, name, value)
        try:
            self.era_id = int(self.era_id)
        except (TypeError, ValueError):
            raise ValueError("era configuration has an invalid era_id: %r" % (self.era_id,)) from None

    def __repr__(self) -> str:
        return "EraConfig(era_id=%r)" % (self.era_id,)


class SyncManager:
    """Keeps the era configuration of a data directory current and tells searches about new eras.

    Searches hold it with ``acquire``/``release``; the runtime that built it owns its thread.
    """

    def __init__(self, data_dir, *, poll_interval: float = 1.0):
        if not data_dir:
            raise ValueError("SyncManager needs a data directory")
        if poll_interval <= 0:
            raise ValueError("poll_interval must be positive")
        self._data_dir = os.path.expanduser(os.fspath(data_dir))
        self._path = os.path.join(self._data_dir, ERA_CONFIG_FILE_NAME)
        self._poll_interval = float(poll_interval)
        self._lock = threading.RLock()
        self._ref_count = 0
        self._era_callbacks: list = []
        self._era_config: EraConfig | None = None
        self._loaded_stamp = None
        self._failed_stamp = None
        self._thread: threading.Thread | None = None
        self._stop_event = threading.Event()

    # -- era configuration -------------------------------------------------------------------------

    @property
    def era_config(self) -> EraConfig | None:
        with self._lock:
            return self._era_config

    def _file_stamp(self):
        try:
            st = os.stat(self._path)
        except FileNotFoundError:
            return None
        return (st.st_mtime_ns, st.st_size, st.st_ino)

    def needs_sync(self) -> bool:
        """True when the era file differs from what was loaded last."""
        with self._lock:
            return self._file_stamp() != self._loaded_stamp

    def request_for_sync(self) -> list:
        """The files that a sync would fetch now."""
        return [ERA_CONFIG_FILE_NAME] if self.needs_sync() else []

    def sync(self) -> EraConfig | None:
        """Load the era file; raises SyncError for a file that is not a valid era configuration."""
        with self._lock:
            stamp = self._file_stamp()
            if stamp is None:
                self._era_config, self._loaded_stamp = None, None
                return None
            try:
                with open(self._path, "r", encoding="utf-8") as fh:
                    config = EraConfig(json.load(fh))
            except (ValueError, TypeError) as exc:
                self._failed_stamp = stamp
                raise SyncError("%s is not a valid era configuration: %s" % (self._path, exc)) from exc
            except OSError as exc:
                self._failed_stamp = stamp
                raise SyncError("cannot read %s: %s" % (self._path, exc)) from exc
            previous = self._era_config
            self._era_config, self._loaded_stamp = config, stamp
        if previous is not None and previous.era_id != config.era_id:
            self._fire_era_change(config.era_id)
        return config

    # -- reference count ---------------------------------------------------------------------------

    def acquire(self) -> int:
        with self._lock:
            self._ref_count += 1
            return self._ref_count

    def release(self) -> int:
        with self._lock:
            if self._ref_count <= 0:
                raise RuntimeError("SyncManager.release() called more often than acquire()")
            self._ref_count -= 1
            return self._ref_count

    @property
    def ref_count(self) -> int:
        with self._lock:
            return self._ref_count

    # -- era callbacks -----------------------------------------------------------------------------

    def register_era_callback(self, callback) -> None:
        """``callback(event_type, era_id)`` is called with "kill" and then "restart" on a new era."""
        if not callable(callback):
            raise TypeError("era callback must be callable")
        with self._lock:
            self._era_callbacks.append(callback)

    def unregister_era_callback(self, callback) -> bool:
        with self._lock:
            try:
                self._era_callbacks.remove(callback)
            except ValueError:
                return False
        return True

    def _fire_era_change(self, era_id: int) -> None:
        with self._lock:
            callbacks = list(self._era_callbacks)
        for event_type in ("kill", "restart"):
            for callback in callbacks:
                try:
                    callback(event_type, era_id)
                except Exception as exc:
                    logger.warning("era callback failed on %s for era %s: %s", event_type, era_id, exc)

    def run_handle_era_transition(self, era_id, kill_callback, restart_callback) -> bool:
        """Move a search of era ``era_id`` to the current era, if that differs; True if it did."""
        current = self.era_config
        if current is None or current.era_id == int(era_id):
            return False
        kill_callback()
        restart_callback()
        return True

    # -- background thread -------------------------------------------------------------------------

    def is_alive(self) -> bool:
        thread = self._thread
        return thread is not None and thread.is_alive()

    def start(self) -> None:
        self._start_internal()

    def _start_internal(self) -> None:
        with self._lock:
            if self.is_alive():
                return
            self._stop_event = threading.Event()
            self._thread = threading.Thread(target=self._run, args=(self._stop_event,),
                                            name="sync_manager", daemon=True)
            self._thread.start()

    def stop(self, timeout: float = 2.0) -> None:
        with self._lock:
            thread, self._thread = self._thread, None
            self._stop_event.set()
        if thread is not None and thread is not threading.current_thread():
            thread.join(timeout)

    def _run(self, stop_event: threading.Event) -> None:
        while not stop_event.wait(self._poll_interval):
            try:
                if self.needs_sync() and self._file_stamp() != self._failed_stamp:
                    self.sync()
            except Exception as exc:  # the thread outlives a bad file; the next change is read again
                logger.warning("era configuration sync failed: %s", exc)

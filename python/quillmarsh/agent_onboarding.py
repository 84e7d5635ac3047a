"""Account, configuration and the runtime that a search runs on.

``_config`` holds "data_dir" (where everything is kept; ``register()``/``login()`` fill in
``~/.quillmarsh`` when it is unset) and "server_url" (the signal service). ``register()`` creates a local
account, ``login(private_key)`` logs in with an existing key; both then build the runtime and install it as
``quillmarsh.search_templates._library_runtime``.

The runtime's evaluator comes from ``set_evaluator_factory(factory)``: ``factory(data_dir, era_config)``
returns the backtester. Without a factory the runtime has no evaluator, and a search says so.
"""

from __future__ import annotations

import json
import logging
import os
import secrets
import threading
import time

from quillmarsh.auth import AuthManager, load_private_key, save_private_key
from quillmarsh.errors import SdkRuntimeNotReadyError

__all__ = ["register", "login", "logout", "ensure_runtime_bootstrapped", "update_nudge", "set_evaluator_factory",
           "LibraryRuntime", "DEFAULT_DATA_DIR", "PRIVATE_KEY_FILE_NAME"]

logger = logging.getLogger(__name__)

DEFAULT_DATA_DIR = "~/.quillmarsh"
PRIVATE_KEY_FILE_NAME = "private_key"

_config: dict = {"data_dir": None, "server_url": None}
_auth_manager: AuthManager | None = None
_runtime = None
_evaluator_factory = None
_lock = threading.RLock()


class LibraryRuntime:
    """What a search needs: store, sync manager, era configuration, vocabulary, evaluator and auth.

    ``search_era_config`` and ``valid_universe_id`` are read live from the sync manager, so a new era file
    is seen without a new login.
    """

    def __init__(self, data_dir, auth_proxy, sync_manager, search_tracker, evaluator=None,
                 vocabulary_raw=None):
        self.data_dir = data_dir
        self.auth_proxy = auth_proxy
        self.sync_manager = sync_manager
        self.search_tracker = search_tracker
        self.evaluator = evaluator
        self.vocabulary_raw = vocabulary_raw

    @property
    def search_era_config(self):
        return self.sync_manager.era_config

    @property
    def valid_universe_id(self):
        era = self.search_era_config
        raw = getattr(era, "_data", None) or {}
        for name in ("valid_universe_id", "universe_id"):
            value = getattr(era, name, None) or raw.get(name)
            if isinstance(value, str) and value:
                return value
        return None

    def close(self) -> None:
        """Stop the sync thread and close the store; only for a runtime that no search uses."""
        self.sync_manager.stop()
        self.search_tracker.close()


def _data_dir() -> str:
    configured = _config.get("data_dir") or DEFAULT_DATA_DIR
    if not isinstance(configured, (str, os.PathLike)):
        raise TypeError("_config['data_dir'] must be a path")
    path = os.path.abspath(os.path.expanduser(os.fspath(configured)))
    os.makedirs(path, exist_ok=True)
    _config["data_dir"] = path
    return path


def set_evaluator_factory(factory) -> None:
    """Install ``factory(data_dir, era_config)`` that builds the evaluator of each new runtime."""
    global _evaluator_factory
    if factory is not None and not callable(factory):
        raise TypeError("evaluator factory must be callable or None")
    _evaluator_factory = factory


def register() -> dict:
    """Create the local account of the data directory (or reuse the one there) and log in with it."""
    with _lock:
        data_dir = _data_dir()
        key_path = os.path.join(data_dir, PRIVATE_KEY_FILE_NAME)
        created = False
        if not os.path.exists(key_path):
            try:
                save_private_key(key_path, secrets.token_bytes(32))
                created = True
            except FileExistsError:  # another process registered at the same moment
                pass
        auth = _login_with(load_private_key(key_path))
        if created:
            with open(os.path.join(data_dir, "account.json"), "w", encoding="utf-8") as fh:
                json.dump({"account_id": auth.account_id, "created_at": time.time()}, fh)
        return {"account_id": auth.account_id, "data_dir": data_dir, "private_key_path": key_path,
                "created": created}


def login(private_key) -> dict:
    """Log in with ``private_key`` (hex text or bytes) and build the runtime."""
    with _lock:
        auth = _login_with(private_key)
        return {"account_id": auth.account_id, "data_dir": _config["data_dir"]}


def _login_with(private_key) -> AuthManager:
    global _auth_manager
    auth = AuthManager(private_key)
    _auth_manager = auth
    ensure_runtime_bootstrapped(strict=True)
    return auth


def ensure_runtime_bootstrapped(strict=True):
    """Build the runtime from the cached login and install it on ``quillmarsh.search_templates``.

    Returns the runtime. A failure raises when ``strict``; otherwise it is logged and None is returned.
    A runtime already built for the same login and data directory is reused.
    """
    global _runtime
    try:
        with _lock:
            auth = _auth_manager
            if auth is None:
                raise SdkRuntimeNotReadyError("not logged in: run register() or login(private_key) first")
            data_dir = _data_dir()
            runtime = _runtime
            if runtime is None or runtime.auth_proxy is not auth or runtime.data_dir != data_dir:
                runtime = _build_runtime(data_dir, auth)
                previous, _runtime = _runtime, runtime
                if previous is not None and previous.sync_manager.ref_count == 0:
                    previous.sync_manager.stop()
            import quillmarsh.search_templates as st
            st._library_runtime = runtime
            return runtime
    except Exception as exc:
        if strict:
            raise
        logger.warning("runtime bootstrap failed: %s", exc)
        return None


def _build_runtime(data_dir: str, auth: AuthManager) -> LibraryRuntime:
    from quillmarsh.search_tracking import SearchTracker
    from quillmarsh.sync import SyncManager

    sync_manager = SyncManager(data_dir)
    sync_manager.sync()
    tracker = SearchTracker(data_dir)
    runtime = LibraryRuntime(data_dir, auth, sync_manager, tracker)
    universe = runtime.valid_universe_id
    if universe:
        from quillmarsh.obfuscation import load_vocabulary
        try:
            runtime.vocabulary_raw = load_vocabulary(data_dir, universe)
        except (OSError, ValueError) as exc:
            logger.warning("vocabulary of universe %s not loaded: %s", universe, exc)
    if _evaluator_factory is not None:
        runtime.evaluator = _evaluator_factory(data_dir, runtime.search_era_config)
    sync_manager.start()
    return runtime


def update_nudge(trigger, **context) -> None:
    """Tell the user about a milestone of the search (an event "nudge" with the trigger and context)."""
    if not isinstance(trigger, str) or not trigger:
        raise ValueError("nudge trigger must be a non-empty string")
    from quillmarsh.callbacks import emit_event

    logger.info("nudge: %s", trigger)
    emit_event(data_dir=_config.get("data_dir"), event_type="nudge", severity="info",
               payload={"trigger": trigger, "context": context})


def logout() -> None:
    """Forget the login and close the runtime; stop any search first."""
    global _auth_manager, _runtime
    with _lock:
        runtime, _runtime, _auth_manager = _runtime, None, None
        if runtime is not None:
            runtime.close()
        try:
            import quillmarsh.search_templates as st
            if getattr(st, "_library_runtime", None) is runtime:
                st._library_runtime = None
        except ImportError:
            pass


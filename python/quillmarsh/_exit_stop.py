"""Searches that are still running when the interpreter exits are stopped, each as ``stop()`` would.

A search's threads are daemon threads that spend their time inside native code. Left running, they would
be torn down by the interpreter's finalisation in the middle of that code; stopped first, they flush what
they hold (pending finalisations, the tracker's flags, the sync manager's reference) and end in order.

The stop is registered with ``threading``'s own exit hooks, which run when the main thread has finished
and before anything else of the shutdown (``atexit`` callbacks, the joining of non-daemon threads, the
finalisation that ends daemon threads), so that a user's ``atexit`` callback already sees its searches
stopped and the store complete. Where that hook is missing, ``atexit`` stands in.
"""
from __future__ import annotations

import atexit
import logging
import sys
import threading

_logger = logging.getLogger("quillmarsh")
_registered = False
_register_lock = threading.Lock()


def stop_running_searches() -> None:
    """Stop every search of this process that is not stopped yet, the active one last."""
    st = sys.modules.get("quillmarsh.search_templates")
    if st is None:  # the extension was never loaded: no search ran
        return
    try:
        handles = list(st._active_handles)
        active = st._active_search_handle
    except Exception:  # noqa: BLE001 - a half torn-down module: nothing left to stop
        return
    handles.sort(key=lambda handle: handle is active)
    for handle in handles:
        try:
            if handle._stopped:
                continue
            handle.stop()
        except Exception:  # noqa: BLE001 - one search that fails to stop must not keep the others running
            _logger.warning("Failed to stop a running search at interpreter exit", exc_info=True)


def register() -> None:
    """Register the exit-time stop once per process."""
    global _registered
    with _register_lock:
        if _registered:
            return
        register_threading_exit = getattr(threading, "_register_atexit", None)
        try:
            if register_threading_exit is None:
                raise RuntimeError("threading offers no exit hook")
            register_threading_exit(stop_running_searches)
        except RuntimeError:
            atexit.register(stop_running_searches)
        _registered = True

"""quillmarsh: client library of a service that collects quantitative trading signals.

``register()`` and ``login(private_key)`` set up the account and runtime; the search API (``search``,
``status``, ``random_weighted``, ...) is that of ``quillmarsh.search_templates``, whose public names are
available here too. The extension is imported only when one of its names is used, so the package itself
imports even where the extension cannot be loaded. Searches still running when the interpreter exits are
stopped first, as ``stop()`` does (``quillmarsh._exit_stop``).
"""

from __future__ import annotations

import importlib

from quillmarsh import _exit_stop

__all__ = ["register", "login", "logout", "harden_template_sandbox"]

_exit_stop.register()


def register() -> dict:
    """Create (or reuse) the local account of the data directory and log in with it."""
    from quillmarsh.agent_onboarding import register as _register
    return _register()


def login(private_key) -> dict:
    """Log in with an existing private key (hex text or bytes)."""
    from quillmarsh.agent_onboarding import login as _login
    return _login(private_key)


def logout() -> None:
    """Forget the login and close the runtime."""
    from quillmarsh.agent_onboarding import logout as _logout
    _logout()


def harden_template_sandbox() -> None:
    """Close every door out of the process to template code, for the rest of the process's life.

    By default a template's worker thread is refused only ``open``, ``sqlite3.connect`` and
    ``urllib.request.urlopen``. After this call it is refused, through an audit hook, every other way of
    opening or changing files (``io.open``, ``os.open``, pathlib, ...), of connecting or binding sockets, of
    starting processes (``subprocess``, ``os.system``, ``os.exec*``, ``os.posix_spawn``, ``os.fork``), of
    loading native code and of opening SQLite, with the same ``TemplateSandboxViolation``; and threads a
    template starts are inside the sandbox as long as they run. Imports keep reading their module files.
    Threads outside the sandbox are not affected. It cannot be undone.
    """
    from quillmarsh import search_templates as _st
    _st._harden_template_sandbox()


def __getattr__(name: str):
    if name.startswith("_"):
        raise AttributeError("module 'quillmarsh' has no attribute %r" % name)
    st = importlib.import_module("quillmarsh.search_templates")
    if name == "search_templates":
        return st
    try:
        return getattr(st, name)
    except AttributeError:
        raise AttributeError("module 'quillmarsh' has no attribute %r" % name) from None


def __dir__():
    names = set(globals())
    try:
        st = importlib.import_module("quillmarsh.search_templates")
        names.update(n for n in dir(st) if not n.startswith("_"))
    except ImportError:
        pass
    return sorted(names)

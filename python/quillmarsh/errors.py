"""Errors shared by the package and its search component."""

from __future__ import annotations

__all__ = ["SdkRuntimeNotReadyError"]


class SdkRuntimeNotReadyError(RuntimeError):
    """The runtime that a search needs (login, era configuration, data) is not ready yet.

    Raised with or without a message: callers that only need the type raise it bare.
    """

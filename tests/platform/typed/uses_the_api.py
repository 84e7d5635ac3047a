"""A user's script, checked with mypy --strict against the stubs of the native module."""
from __future__ import annotations

from collections.abc import Iterator
from typing import Any

import quillmarsh.search_templates as st
from quillmarsh.search_templates import SearchContext, SearchError, SearchHandle, SearchStatus


def momentum(ctx: SearchContext) -> Iterator[dict[str, Any]]:
    features: list[dict[str, Any]] = ctx.vocabulary["features"]
    for feature in features:
        yield {"type": "rotation", "node": "cs_rank", "children": [{"type": "feature", "node": feature["name"]}]}


def run(n_jobs: int) -> tuple[int, float]:
    handle: SearchHandle = st.search(st.random_weighted, n_jobs=n_jobs)
    try:
        status: SearchStatus = handle.status()
        same: SearchStatus = st.status()
        evaluated: int = status.total_evaluated + same.submission_pending
        rate: float = status.signals_per_hour
        errors: list[str] = status.errors
        if status.error_code is not None and errors:
            print(status.recovery_advice)
    except SearchError as exc:
        code: str = exc.error_code
        print(code, exc.recovery_advice, exc.status.running)
        raise
    finally:
        handle.stop(join_timeout=1.0)
    return evaluated, rate


def custom(n_jobs: int) -> SearchHandle:
    return st.search(momentum, n_jobs)


def report(ctx: SearchContext) -> list[str]:
    diagnostics = st.analyze_random_weighted(ctx)
    weights: dict[str, dict[str, Any]] = diagnostics["function_weights"]
    first = next(iter(st.random_weighted(ctx)))
    result = ctx.evaluate(first)
    if result is not None and result.passed:
        print(result.mi_score)
    return sorted(weights)

"""Resolution of the metaparameters of an era's transform pipeline.

A stage (map or object) has ``name``, ``options``, ``default`` and optionally ``per_pool_default``. A stage
resolves to the override given for its name, else to its default. A per-pool stage takes its value per
signal pool: from ``per_pool_default`` when that is a map of pool id to value (falling back to
``default``), or from ``default`` when that is such a map.
"""

from __future__ import annotations

from collections.abc import Mapping

__all__ = ["resolve_metaparameters", "resolve_metaparameters_per_pool", "canonicalize"]

_MISSING = object()


def _stage_value(stage, name, default=None):
    if isinstance(stage, Mapping):
        return stage.get(name, default)
    return getattr(stage, name, default)


def _stages(pipeline) -> list:
    if not isinstance(pipeline, (list, tuple)):
        raise ValueError("transform pipeline must be a list of stages")
    for index, stage in enumerate(pipeline):
        name = _stage_value(stage, "name")
        if not isinstance(name, str):
            raise ValueError("transform stage %d has no name" % index)
    return list(pipeline)


def _checked(stage, value):
    options = _stage_value(stage, "options")
    if isinstance(options, (list, tuple)) and options and value not in options:
        raise ValueError("value %r is not among the options %r of stage %r"
                         % (value, list(options), _stage_value(stage, "name")))
    return value


def _overrides(overrides) -> Mapping:
    if overrides is None:
        return {}
    if not isinstance(overrides, Mapping):
        raise ValueError("metaparameter overrides must be a mapping")
    return overrides


def _resolve_stage(stage, overrides, pool_id):
    name = _stage_value(stage, "name")
    if name in overrides:
        return _checked(stage, overrides[name])
    default = _stage_value(stage, "default")
    per_pool = _stage_value(stage, "per_pool_default")
    if not per_pool:
        return _checked(stage, default)
    if pool_id is _MISSING:
        raise ValueError("stage %r has a per-pool default; resolve it per pool" % name)
    if isinstance(per_pool, Mapping):
        return _checked(stage, per_pool.get(pool_id, default))
    if isinstance(default, Mapping):
        if pool_id not in default:
            raise ValueError("stage %r has no default for pool %r" % (name, pool_id))
        return _checked(stage, default[pool_id])
    return _checked(stage, default)


def resolve_metaparameters(overrides, pipeline) -> dict:
    """The value of every stage, keyed by stage name."""
    overrides = _overrides(overrides)
    return {_stage_value(s, "name"): _resolve_stage(s, overrides, _MISSING) for s in _stages(pipeline)}


def resolve_metaparameters_per_pool(overrides, pipeline, pool_ids) -> dict:
    """``{pool_id: {stage name: value}}`` for each pool of ``pool_ids``."""
    overrides = _overrides(overrides)
    stages = _stages(pipeline)
    if not isinstance(pool_ids, (list, tuple)) or not pool_ids:
        raise ValueError("pool_ids must be a non-empty list")
    result = {}
    for pool_id in pool_ids:
        if not isinstance(pool_id, str) or not pool_id:
            raise ValueError("pool ids must be non-empty strings, got %r" % (pool_id,))
        result[pool_id] = {_stage_value(s, "name"): _resolve_stage(s, overrides, pool_id) for s in stages}
    return result


def canonicalize(per_pool) -> dict:
    """A per-pool result with text keys throughout, pools and stages in sorted order."""
    if not isinstance(per_pool, Mapping):
        raise ValueError("per-pool metaparameters must be a mapping")
    result = {}
    for pool_id in sorted(per_pool, key=str):
        metas = per_pool[pool_id]
        if not isinstance(metas, Mapping):
            raise ValueError("metaparameters of pool %r must be a mapping" % (pool_id,))
        result[str(pool_id)] = {str(k): metas[k] for k in sorted(metas, key=str)}
    return result

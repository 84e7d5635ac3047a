"""What a submission body must be, checked before anything is stored.

``parse_body`` turns the raw bytes into a map (400 for what is not a JSON object, non-finite numbers
included); ``check_submission`` checks the fields and the expression graph against the market's vocabulary
(422, with the path of the offending node). Both raise ``ContractError`` with a text that says what is
wrong; nothing is written before they have passed.
"""
from __future__ import annotations

import hashlib
import json
import math

from quillmarsh.local.vocabulary import FEATURE_RECIPES, FUNCTIONS
from quillmarsh.submit import SIGNAL_SUBMIT_FIELDS, SignalServiceClient

MAX_BODY_BYTES = 1 << 20
MAX_KEY_LENGTH = 255
_RETIRED_FIELDS = ("is_pnl_mi_values", "is_mi_values", "is_mi")
_REQUIRED = ("graph", "universe_id", "signal_pool_id", "is_stats", "is_pnl_mi", "expression_elapsed_seconds")
_FUNCTION_TYPES = ("rotation", "filtration", "reduction")
_LEAF_TYPES = {"int": int, "float": float, "bool": bool, "string": str}
_NORMALIZATIONS = ("zscore", "rank", "rescale", "none")
_MAX_DECAY = 252


class ContractError(ValueError):
    """A request that breaks the contract; ``status_code`` is 400 (unreadable) or 422 (wrong content)."""

    def __init__(self, message: str, status_code: int = 422):
        super().__init__(message)
        self.status_code = status_code


def _reject_constant(name):
    raise ContractError(f"request body holds the non-finite number {name}; numbers must be finite", 400)


def parse_body(raw: bytes) -> dict:
    if not raw:
        raise ContractError("request body is empty; a JSON object is required", 400)
    if len(raw) > MAX_BODY_BYTES:
        raise ContractError(f"request body is larger than {MAX_BODY_BYTES} bytes", 400)
    try:
        body = json.loads(raw.decode("utf-8"), parse_constant=_reject_constant)
    except UnicodeDecodeError:
        raise ContractError("request body is not UTF-8 text", 400) from None
    except ContractError:
        raise
    except RecursionError:
        raise ContractError("request body is nested too deeply", 400) from None
    except ValueError as exc:
        raise ContractError(f"request body is not valid JSON: {exc}", 400) from None
    if not isinstance(body, dict):
        raise ContractError(f"request body must be a JSON object, not {type(body).__name__}", 400)
    return body


def fingerprint(body: dict) -> str:
    """What a repeat of a key must match: the body less its ``idempotency_key``."""
    content = {k: v for k, v in body.items() if k != "idempotency_key"}
    text = json.dumps(content, sort_keys=True, separators=(",", ":"), default=str)
    return hashlib.sha256(text.encode("utf-8")).hexdigest()


def idempotency_key(body: dict, header_key: str | None) -> str:
    """The key of a request: the header's, the body's (they must agree), or one derived from the body the
    way the client derives it, so that a key-less re-send is the same submission."""
    body_key = body.get("idempotency_key")
    if body_key is not None and (not isinstance(body_key, str) or not body_key):
        raise ContractError("idempotency_key must be a non-empty string or null")
    if header_key is not None and not header_key.strip():
        raise ContractError("Idempotency-Key header must not be empty", 400)
    if header_key is not None and body_key is not None and header_key != body_key:
        raise ContractError("Idempotency-Key header and idempotency_key field differ", 400)
    key = header_key or body_key or SignalServiceClient._idempotency_key_for_body(body)
    if len(key) > MAX_KEY_LENGTH:
        raise ContractError(f"idempotency key is longer than {MAX_KEY_LENGTH} characters")
    return key


def _finite_number(value) -> bool:
    try:
        return type(value) in (int, float) and math.isfinite(float(value))
    except OverflowError:  # an integer beyond any float
        return False


def _non_finite_path(value, path: str):
    """The path of the first number that is not finite (``1e999`` reads as infinity), or None."""
    if type(value) is float:
        return None if math.isfinite(value) else path
    if isinstance(value, dict):
        for k, v in value.items():
            found = _non_finite_path(v, f"{path}.{k}")
            if found:
                return found
    elif isinstance(value, list):
        for i, v in enumerate(value):
            found = _non_finite_path(v, f"{path}[{i}]")
            if found:
                return found
    return None


def _has_retired_field(value) -> bool:
    if isinstance(value, dict):
        return any(k in _RETIRED_FIELDS or _has_retired_field(v) for k, v in value.items())
    if isinstance(value, list):
        return any(_has_retired_field(v) for v in value)
    return False


_BAD = object()


def _as_number(value, kind):
    """``value`` as an int or float (from a number or its text), None for None, ``_BAD`` otherwise."""
    if value is None:
        return None
    if isinstance(value, bool):
        return _BAD
    if kind is int and type(value) is float and value.is_integer():
        value = int(value)
    if isinstance(value, (int, float)) and (kind is float or type(value) is int):
        return value if math.isfinite(value) else _BAD
    if isinstance(value, str):
        try:
            number = kind(value.strip())
        except ValueError:
            return _BAD
        return number if math.isfinite(number) else _BAD
    return _BAD


class SubmissionContract:
    """The checks of a submission body for one market: its universe, pools, vocabulary and graph limits."""

    def __init__(self, universe_id: str, pool_ids, feature_names, max_depth: int | None = None,
                 max_node_count: int | None = None):
        self.universe_id = universe_id
        self.pool_ids = frozenset(pool_ids)
        self.features = frozenset(feature_names) | frozenset(FEATURE_RECIPES)
        self.max_depth = max_depth
        self.max_node_count = max_node_count

    def check(self, body: dict) -> None:
        try:
            self._check(body)
        except RecursionError:
            raise ContractError("request body is nested too deeply") from None

    def _check(self, body: dict) -> None:
        for name in _RETIRED_FIELDS:
            if name in body:
                raise ContractError(f"{name} is no longer supported; provide is_pnl_mi as a scalar")
        unknown = sorted(set(body) - set(SIGNAL_SUBMIT_FIELDS))
        if unknown:
            raise ContractError("unknown field(s): " + ", ".join(unknown))
        for name in _REQUIRED:
            if body.get(name) is None:
                raise ContractError(f"{name} is required")
        bad = _non_finite_path(body, "body")
        if bad:
            raise ContractError(f"{bad[5:]} is not a finite number")
        for name in ("universe_id", "signal_pool_id"):
            if not isinstance(body[name], str) or not body[name]:
                raise ContractError(f"{name} must be a non-empty string")
        if body["universe_id"] != self.universe_id:
            raise ContractError(f"unknown universe {body['universe_id']!r}; this service judges {self.universe_id!r}")
        if body["signal_pool_id"] not in self.pool_ids:
            raise ContractError(f"unknown signal pool {body['signal_pool_id']!r}; pools: {sorted(self.pool_ids)}")
        stats = body["is_stats"]
        if not isinstance(stats, dict):
            raise ContractError("is_stats must be a dict")
        if _has_retired_field(stats):
            raise ContractError("is_stats must not contain MI contract fields")
        for key, value in stats.items():
            if not _finite_number(value):
                raise ContractError(f"is_stats.{key} must be a finite number, got {value!r:.80}")
        if not _finite_number(body["is_pnl_mi"]):
            raise ContractError("is_pnl_mi must be a finite scalar number")
        elapsed = body["expression_elapsed_seconds"]
        if not _finite_number(elapsed) or not elapsed > 0:
            raise ContractError("expression_elapsed_seconds must be a positive float")
        self._check_metaparameters(body.get("metaparameters"))
        refs = body.get("referenced_signal_ids")
        if refs is not None and (not isinstance(refs, list) or not all(isinstance(r, str) and r for r in refs)):
            raise ContractError("referenced_signal_ids must be a list of signal ids")
        self.check_graph(body["graph"])

    @staticmethod
    def _check_metaparameters(meta) -> None:
        if meta is None:
            return
        if not isinstance(meta, dict):
            raise ContractError("metaparameters must be a map or null")
        norm = meta.get("normalization")
        if norm is not None and norm not in _NORMALIZATIONS:
            raise ContractError(f"metaparameters.normalization must be one of {list(_NORMALIZATIONS)}, got {norm!r:.80}")
        # Searches store metaparameters in canonical text form ("0", "0.05"); numbers are taken as well.
        decay = _as_number(meta.get("decay"), int)
        if decay is _BAD or (decay is not None and not 0 <= decay <= _MAX_DECAY):
            raise ContractError(f"metaparameters.decay must be an integer in [0, {_MAX_DECAY}], "
                                f"got {meta.get('decay')!r:.80}")
        trunc = _as_number(meta.get("truncation"), float)
        if trunc is _BAD or (trunc is not None and not 0.0 <= trunc <= 1.0):
            raise ContractError(f"metaparameters.truncation must be a number in [0, 1], "
                                f"got {meta.get('truncation')!r:.80}")

    def check_graph(self, graph) -> None:
        count = [0]
        self._check_node(graph, "graph", 1, count)
        if self.max_node_count is not None and count[0] > self.max_node_count:
            raise ContractError(f"graph has {count[0]} nodes, above the limit of {self.max_node_count}")

    def _check_node(self, node, path: str, depth: int, count: list) -> None:
        if not isinstance(node, dict) or not isinstance(node.get("type"), str):
            raise ContractError(f"{path}: a node must be a map with a string 'type'")
        extra = sorted(set(node) - {"type", "node", "children"})
        if extra:
            raise ContractError(f"{path}: unexpected key(s) {extra}")
        count[0] += 1
        if self.max_depth is not None and depth > self.max_depth:
            raise ContractError(f"{path}: the graph is deeper than the limit of {self.max_depth}")
        kind, name = node["type"], node.get("node")
        if kind == "feature":
            if node.get("children"):
                raise ContractError(f"{path}: a feature has no children")
            if not isinstance(name, str) or name not in self.features:
                raise ContractError(f"{path}: unknown feature {name!r:.80}")
            return
        if kind in _LEAF_TYPES:
            raise ContractError(f"{path}: a {kind} value can only configure a function")
        if kind not in _FUNCTION_TYPES:
            raise ContractError(f"{path}: unknown node type {kind!r:.80}")
        info = FUNCTIONS.get(name) if isinstance(name, str) else None
        if info is None:
            raise ContractError(f"{path}: unknown function {name!r:.80}")
        if info.kind != kind:
            raise ContractError(f"{path}: {name!r} is a {info.kind}, not a {kind}")
        children = node.get("children") or []
        if not isinstance(children, list):
            raise ContractError(f"{path}: children must be a list")
        n_data = len(info.data_inputs)
        data, configs = children[:n_data], children[n_data:]
        if len(data) < n_data or any(isinstance(c, dict) and c.get("type") in _LEAF_TYPES for c in data):
            raise ContractError(f"{path}: {name!r} takes {n_data} data input(s) before its configuration values")
        if len(configs) > len(info.config):
            raise ContractError(f"{path}: {name!r} takes at most {len(info.config)} configuration value(s), "
                                f"got {len(configs)}")
        for i, (leaf, (pname, ptype, _default, lo, hi)) in enumerate(zip(configs, info.config), start=n_data):
            leaf_path = f"{path}.children[{i}]"
            if not isinstance(leaf, dict) or leaf.get("type") != ptype or set(leaf) - {"type", "node"}:
                raise ContractError(f"{leaf_path}: {name!r} takes {pname} as a {ptype} value")
            value = leaf.get("node")
            ok = isinstance(value, _LEAF_TYPES[ptype]) and isinstance(value, bool) == (ptype == "bool")
            if ptype == "float" and type(value) is int:
                ok = True
            if not ok:
                raise ContractError(f"{leaf_path}: {pname} must be a {ptype}, got {value!r:.80}")
            if lo is not None and not lo <= value <= hi:
                raise ContractError(f"{leaf_path}: {pname}={value!r} outside [{lo}, {hi}]")
            count[0] += 1
        for i, child in enumerate(data):
            self._check_node(child, f"{path}.children[{i}]", depth + 1, count)

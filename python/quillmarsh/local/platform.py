"""The local platform: everything a search needs, on one machine, in one data directory.

``setup(data_dir)`` generates the market once (cached), writes the era configuration (``era_config.json``,
read by the sync manager), the per-universe ``vocabulary.json`` and a 60-byte ``shuffle_seed.enc``, creates
or reuses the local account (its private key kept with mode 0600), points ``agent_onboarding._config`` at
the directory and bootstraps the runtime with the local evaluator, so that
``quillmarsh.search(quillmarsh.random_weighted)`` runs exactly as it would against the service.
"""
from __future__ import annotations

import json
import os
from dataclasses import dataclass
from pathlib import Path

from quillmarsh import agent_onboarding, obfuscation
from quillmarsh.local.era import SIGNAL_POOL_ID, LocalEraConfig, local_era_map
from quillmarsh.local.evaluator import LocalEvaluator
from quillmarsh.local.market import load_market
from quillmarsh.sync import ERA_CONFIG_FILE_NAME

DEFAULT_DATA_DIR = "~/.quillmarsh/local"
SHUFFLE_SEED_FILE_NAME = "shuffle_seed.enc"
SHUFFLE_SEED_BYTES = 60
_follower = None  # the found-signal follower of the last platform set up in this process


class PlatformError(RuntimeError):
    """The local platform cannot be set up (an unusable data directory, a broken cache)."""


@dataclass
class LocalPlatform:
    data_dir: Path
    evaluator: LocalEvaluator
    era: dict
    universe_id: str
    account: dict
    follower: object = None


def resolve_data_dir(data_dir=None) -> Path:
    """The data directory, created if needed; PlatformError when it cannot be written."""
    path = Path(os.path.expanduser(os.fspath(data_dir if data_dir is not None else DEFAULT_DATA_DIR))).resolve()
    try:
        path.mkdir(parents=True, exist_ok=True)
        probe = path / ".write_probe"
        probe.write_bytes(b"")
        probe.unlink()
    except OSError as exc:
        raise PlatformError(f"data directory {path} is not writable: {exc.strerror or exc}") from None
    return path


def _write_atomically(path: Path, data: bytes, mode: int = 0o644) -> None:
    tmp = path.with_name(path.name + ".tmp")
    fd = os.open(tmp, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, mode)
    try:
        os.write(fd, data)
    finally:
        os.close(fd)
    os.replace(tmp, path)


def _ensure_shuffle_seed(data_dir: Path) -> None:
    path = data_dir / SHUFFLE_SEED_FILE_NAME
    if path.is_file() and path.stat().st_size == SHUFFLE_SEED_BYTES:
        return
    _write_atomically(path, os.urandom(SHUFFLE_SEED_BYTES), 0o600)


def _write_era(data_dir: Path, era: dict) -> None:
    """Write the era file only when its content changes, so a running sync manager sees no new era."""
    path = data_dir / ERA_CONFIG_FILE_NAME
    text = json.dumps(era, sort_keys=True, indent=1).encode()
    if path.is_file() and path.read_bytes() == text:
        return
    _write_atomically(path, text)


def setup(data_dir=None, *, n_instruments: int = 500, n_days: int = 1260, seed: int = 7,
          era_id: int = 1, max_depth: int = 4, max_node_count: int = 40) -> LocalPlatform:
    """Prepare the local platform in ``data_dir`` and log in; returns what was set up."""
    path = resolve_data_dir(data_dir)
    from quillmarsh.local.service.feed import FoundSignalFollower, found_signal_ids

    market = load_market(path, n_instruments, n_days, seed)
    # The signals that the signal service has accepted so far stay in the pool across runs.
    era = local_era_map(era_id=era_id, max_depth=max_depth, max_node_count=max_node_count,
                        found_signal_ids=found_signal_ids(path, SIGNAL_POOL_ID))
    evaluator = LocalEvaluator(market, seed=seed, era=LocalEraConfig(era))
    universe_id = era["valid_universe_id"]

    _write_era(path, era)
    vocab_path = Path(obfuscation.vocabulary_path(path, universe_id))
    vocab_path.parent.mkdir(parents=True, exist_ok=True)
    _write_atomically(vocab_path, evaluator.vocabulary.to_json().encode())
    _ensure_shuffle_seed(path)

    agent_onboarding._config["data_dir"] = str(path)
    agent_onboarding.set_evaluator_factory(lambda _data_dir, _era_config: evaluator)
    account = agent_onboarding.register()
    global _follower
    if _follower is not None:
        _follower.stop()
    _follower = FoundSignalFollower(evaluator, path).start()
    return LocalPlatform(path, evaluator, era, universe_id, account, _follower)

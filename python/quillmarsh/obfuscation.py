"""The vocabulary of a universe: ``<data_dir>/universes/<valid_universe_id>/vocabulary.json``."""

from __future__ import annotations

import copy
import json
import os

__all__ = ["vocabulary_path", "load_vocabulary", "ObfuscationManager"]


def _check_universe_id(valid_universe_id) -> str:
    if not isinstance(valid_universe_id, str) or not valid_universe_id:
        raise ValueError("valid_universe_id must be a non-empty string")
    if valid_universe_id in (".", "..") or any(sep in valid_universe_id for sep in ("/", "\\", "\x00")):
        raise ValueError("valid_universe_id %r cannot name a directory" % valid_universe_id)
    return valid_universe_id


def vocabulary_path(data_dir, valid_universe_id) -> str:
    if not data_dir:
        raise ValueError("a data directory is required to find a vocabulary")
    return os.path.join(os.path.expanduser(os.fspath(data_dir)), "universes",
                        _check_universe_id(valid_universe_id), "vocabulary.json")


def load_vocabulary(data_dir, valid_universe_id) -> dict:
    """The vocabulary map of one universe; a missing file raises FileNotFoundError."""
    path = vocabulary_path(data_dir, valid_universe_id)
    with open(path, "r", encoding="utf-8") as fh:
        try:
            vocabulary = json.load(fh)
        except ValueError as exc:
            raise ValueError("%s is not valid JSON: %s" % (path, exc)) from None
    if not isinstance(vocabulary, dict):
        raise ValueError("%s must hold a JSON object, not %s" % (path, type(vocabulary).__name__))
    return vocabulary


class ObfuscationManager:
    """The vocabulary of one era and universe, as handed to templates."""

    def __init__(self, vocabulary_json, era_id, valid_universe_id):
        if vocabulary_json is None:
            raise ValueError("no vocabulary available for universe %r" % (valid_universe_id,))
        try:
            vocabulary = json.loads(vocabulary_json)
        except (TypeError, ValueError) as exc:
            raise ValueError("vocabulary_json is not JSON text: %s" % exc) from None
        if not isinstance(vocabulary, dict):
            raise ValueError("vocabulary_json must hold a JSON object")
        self.era_id = era_id
        self.valid_universe_id = _check_universe_id(valid_universe_id)
        self._vocabulary = vocabulary

    def get_vocabulary(self) -> dict:
        return copy.deepcopy(self._vocabulary)

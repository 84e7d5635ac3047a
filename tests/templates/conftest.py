"""Builders for the template tests: vocabulary entries, a duck-typed context and the module's info lines."""
import logging
from types import SimpleNamespace

import pytest

import quillmarsh.search_templates as st


def rot(name, schema=("data",), **fields):
    """A flat-vocabulary rotation entry."""
    entry = {"name": name, "function_type": "rotation", "param_schema": list(schema) if isinstance(schema, tuple) else schema}
    entry.update(fields)
    return entry


def feat(name, **fields):
    return {"name": name, **fields}


def make_ctx(functions=(), features=(), max_depth=4, analytics=None, era=None, backtester=None):
    """What the template reads of a SearchContext, as plain attributes."""
    return SimpleNamespace(vocabulary={"functions": list(functions), "features": list(features)},
                           max_depth=max_depth, analytics=analytics, era_config=era, _era_config=None,
                           _backtester=backtester)


@pytest.fixture
def info_lines(caplog):
    """Returns a function giving the module's info-level messages logged so far."""
    caplog.set_level(logging.INFO, logger="quillmarsh.search_templates")

    def lines():
        return [r.getMessage() for r in caplog.records
                if r.name == "quillmarsh.search_templates" and r.levelno == logging.INFO]
    return lines

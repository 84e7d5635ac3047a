"""The signal service started for real on a free loopback port, over a small market in a temporary data
directory."""
from __future__ import annotations

from pathlib import Path

import pytest

from quillmarsh.local.service import start_service

from local.service.helpers import config


@pytest.fixture(scope="module")
def start(tmp_path_factory):
    """``start(data_dir=None, **config)``: a service in a child process, stopped at the end of the module."""
    started = []

    def _start(data_dir=None, **overrides):
        path = Path(data_dir) if data_dir else tmp_path_factory.mktemp("service")
        svc = start_service(path, config=config(**overrides))
        started.append(svc)
        return svc

    yield _start
    for svc in started:
        svc.stop()


@pytest.fixture(scope="module")
def service(start):
    return start()

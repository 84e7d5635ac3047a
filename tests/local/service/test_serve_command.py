"""`quillmarsh serve`: its flags, loopback by default, and a clean shutdown on SIGTERM and Ctrl-C."""
from __future__ import annotations

import argparse
import select
import signal
import subprocess
import sys

import pytest

from quillmarsh.local.service import Faults, ServiceConfig, ServiceProcess, add_serve_arguments, config_from_args
from quillmarsh.local.service.runner import args_from_config
from quillmarsh.local.service.store import DB_FILE_NAME

from local.service.conftest import SMALL_MARKET, client_of, submission


def _parse(argv):
    parser = argparse.ArgumentParser()
    add_serve_arguments(parser)
    return parser.parse_args(argv)


@pytest.mark.parametrize("cfg", [
    ServiceConfig(),
    ServiceConfig(token_ttl_seconds=1.5, quota_per_hour=7, review_delay_seconds=0.0, oos_sharpe_min=-2.5,
                  oos_fitness_min=0.25, correlation_max=0.55, n_instruments=40, n_days=200, seed=3,
                  durable_commits=False, faults=Faults(error_rate=0.1, drop_rate=0.2, latency_seconds=0.05, seed=9)),
])
def test_every_setting_travels_through_the_flags(cfg):
    assert config_from_args(_parse(["--data-dir", "d"] + args_from_config(cfg))) == cfg


@pytest.mark.parametrize("argv", [["--error-rate", "1.5"], ["--token-ttl", "0"], ["--quota-per-hour", "many"],
                                  ["--latency", "nan"]])
def test_bad_flags_are_refused(argv, capsys):
    with pytest.raises(SystemExit) as info:
        _parse(["--data-dir", "d"] + argv)
    assert info.value.code == 2


def test_faults_that_add_up_to_more_than_every_request_are_refused():
    with pytest.raises(ValueError, match="together"):
        Faults(error_rate=0.6, drop_rate=0.6)


@pytest.mark.parametrize("sig, code", [(signal.SIGTERM, 0), (signal.SIGINT, 130)])
def test_serve_listens_on_loopback_and_shuts_down_cleanly(tmp_path, sig, code):
    argv = [sys.executable, "-m", "quillmarsh.cli", "serve", "--data-dir", str(tmp_path), "--review-delay", "0.1",
            "--instruments", str(SMALL_MARKET["n_instruments"]), "--days", str(SMALL_MARKET["n_days"]),
            "--seed", str(SMALL_MARKET["seed"])]
    proc = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        ready, _, _ = select.select([proc.stdout], [], [], 180)
        assert ready, "serve printed nothing"
        line = proc.stdout.readline()
        assert line.startswith("listening on http://127.0.0.1:"), line + proc.stderr.read()
        served = ServiceProcess(line.split()[-1], proc, str(tmp_path))
        assert client_of(served).submit_signal(**submission()).status_code == 202
        proc.send_signal(sig)
        assert proc.wait(30) == code
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait(30)
    # The store was closed: its write-ahead log went back into the database and was removed.
    assert (tmp_path / DB_FILE_NAME).exists()
    assert not (tmp_path / (DB_FILE_NAME + "-wal")).exists()

"""Running the service: in the foreground (``quillmarsh serve``) or as a child process for a while.

``serve`` binds the socket itself, prints one line "listening on <url>" once everything durable is in
place, and shuts down cleanly on Ctrl-C or SIGTERM. ``running_service`` starts ``serve`` in a child process
on a free loopback port and yields a handle with its ``url``; leaving the block stops it.
"""
from __future__ import annotations

import argparse
import contextlib
import dataclasses
import math
import os
import select
import signal
import socket
import subprocess
import sys
import threading
import time

from .config import Faults, ServiceConfig

READY_PREFIX = "listening on "
LOOPBACK = "127.0.0.1"


# ----- arguments --------------------------------------------------------------------------------------------

def _number(minimum: float = 0.0, maximum: float = math.inf, strict: bool = False):
    def parse(text: str) -> float:
        try:
            value = float(text)
        except ValueError:
            raise argparse.ArgumentTypeError(f"expected a number, got {text!r}") from None
        if not math.isfinite(value) or value < minimum or value > maximum or (strict and value == minimum):
            raise argparse.ArgumentTypeError(f"out of range: {text!r}")
        return value
    return parse


def _count(text: str) -> int:
    try:
        value = int(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"expected a whole number, got {text!r}") from None
    if value < 0:
        raise argparse.ArgumentTypeError(f"must not be negative, got {value}")
    return value


def add_serve_arguments(parser: argparse.ArgumentParser) -> None:
    """The flags of ``quillmarsh serve``: where, and every setting of ``ServiceConfig``."""
    d = ServiceConfig()
    parser.add_argument("--data-dir", required=True, help="data directory of the local platform whose account and market the service uses")
    parser.add_argument("--host", default=LOOPBACK, help="address to bind (default: 127.0.0.1, loopback only)")
    parser.add_argument("--port", type=_count, default=0, help="port to bind (default: 0, a free port)")
    parser.add_argument("--token-ttl", type=_number(0.0, strict=True), default=d.token_ttl_seconds,
                        help=f"seconds a token stays valid (default: {d.token_ttl_seconds:g})")
    parser.add_argument("--quota-per-hour", type=_count, default=d.quota_per_hour,
                        help=f"submissions per account per hour (default: {d.quota_per_hour})")
    parser.add_argument("--review-delay", type=_number(), default=d.review_delay_seconds,
                        help=f"seconds a submission stays is_validating (default: {d.review_delay_seconds:g})")
    parser.add_argument("--oos-sharpe-min", type=_number(-math.inf), default=d.oos_sharpe_min,
                        help=f"least out-of-sample Sharpe accepted (default: {d.oos_sharpe_min:g})")
    parser.add_argument("--oos-fitness-min", type=_number(-math.inf), default=d.oos_fitness_min,
                        help=f"least out-of-sample fitness accepted (default: {d.oos_fitness_min:g})")
    parser.add_argument("--correlation-max", type=_number(0.0, 1.0), default=d.correlation_max,
                        help=f"greatest correlation with a found signal (default: {d.correlation_max:g})")
    parser.add_argument("--error-rate", type=_number(0.0, 1.0), default=0.0, help="share of requests answered 500")
    parser.add_argument("--drop-rate", type=_number(0.0, 1.0), default=0.0,
                        help="share of requests handled whose connection is then dropped without an answer")
    parser.add_argument("--latency", type=_number(0.0, 3600.0), default=0.0, help="seconds added to each request")
    parser.add_argument("--fault-seed", type=int, default=None, help="seed of the fault draws")
    parser.add_argument("--instruments", type=_count, default=d.n_instruments, help="instruments of the market")
    parser.add_argument("--days", type=_count, default=d.n_days, help="days of the market")
    parser.add_argument("--seed", type=int, default=d.seed, help="seed of the market")
    parser.add_argument("--no-sync", action="store_true",
                        help="commit without syncing the log each time (safe against a crash of the process, "
                             "not of the machine)")


def config_from_args(args) -> ServiceConfig:
    faults = Faults(error_rate=args.error_rate, drop_rate=args.drop_rate, latency_seconds=args.latency,
                    seed=args.fault_seed)
    return ServiceConfig(token_ttl_seconds=args.token_ttl, quota_per_hour=args.quota_per_hour,
                         review_delay_seconds=args.review_delay, oos_sharpe_min=args.oos_sharpe_min,
                         oos_fitness_min=args.oos_fitness_min, correlation_max=args.correlation_max, faults=faults,
                         n_instruments=args.instruments, n_days=args.days, seed=args.seed,
                         durable_commits=not args.no_sync)


def args_from_config(config: ServiceConfig) -> list:
    """The flags that give ``config`` back through ``config_from_args``."""
    c, f = config, config.faults
    out = ["--token-ttl", repr(float(c.token_ttl_seconds)), "--quota-per-hour", str(c.quota_per_hour),
           "--review-delay", repr(float(c.review_delay_seconds)), "--oos-sharpe-min", repr(float(c.oos_sharpe_min)),
           "--oos-fitness-min", repr(float(c.oos_fitness_min)), "--correlation-max", repr(float(c.correlation_max)),
           "--error-rate", repr(float(f.error_rate)), "--drop-rate", repr(float(f.drop_rate)),
           "--latency", repr(float(f.latency_seconds)), "--instruments", str(c.n_instruments),
           "--days", str(c.n_days), "--seed", str(c.seed)]
    if f.seed is not None:
        out += ["--fault-seed", str(f.seed)]
    if not c.durable_commits:
        out.append("--no-sync")
    return out


# ----- the foreground server --------------------------------------------------------------------------------

def bind_socket(host: str, port: int) -> socket.socket:
    family = socket.AF_INET6 if ":" in host else socket.AF_INET
    sock = socket.socket(family, socket.SOCK_STREAM)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    sock.bind((host, port))
    sock.listen(1024)
    sock.set_inheritable(True)
    return sock


def serve(data_dir, *, host: str = LOOPBACK, port: int = 0, config: ServiceConfig | None = None,
          out=None, log_level: str = "warning") -> None:
    """Run the service in the foreground until Ctrl-C or SIGTERM."""
    import uvicorn

    from .service import SignalService

    out = out or sys.stdout
    if threading.current_thread() is threading.main_thread():
        # uvicorn shuts down gracefully on SIGTERM and then raises it again: end with an exception rather
        # than the default handler, so that the reviewer is stopped and the store closed below.
        signal.signal(signal.SIGTERM, _terminate)
    # The event loop and the commit thread hand the interpreter back and forth for every batch; a short
    # switch interval keeps each hand-over from costing up to the default 5 ms.
    sys.setswitchinterval(0.0005)
    service = SignalService(data_dir, config)
    try:
        sock = bind_socket(host, port)
        bound_host, bound_port = sock.getsockname()[:2]
        url = f"http://{'[%s]' % bound_host if ':' in bound_host else bound_host}:{bound_port}"
        service.start()
        server = uvicorn.Server(uvicorn.Config(service.app, log_level=log_level, access_log=False,
                                               lifespan="off", timeout_graceful_shutdown=5))
        print(f"{READY_PREFIX}{url}", file=out, flush=True)
        server.run(sockets=[sock])
    finally:
        service.close()


def _terminate(signum, _frame):
    raise SystemExit(0)


def serve_from_args(args, out=None) -> None:
    serve(args.data_dir, host=args.host, port=args.port, config=config_from_args(args), out=out)


# ----- a child process ---------------------------------------------------------------------------------------

@dataclasses.dataclass
class ServiceProcess:
    url: str
    process: subprocess.Popen
    data_dir: str

    @property
    def pid(self) -> int:
        return self.process.pid

    def stop(self, timeout: float = 15.0) -> int:
        """SIGTERM and wait; SIGKILL if it does not end in time. Returns the exit code."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(timeout)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait(timeout)
        return self.process.returncode

    def kill(self) -> None:
        """SIGKILL, as a crash would."""
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait(30)


def start_service(data_dir, *, config: ServiceConfig | None = None, host: str = LOOPBACK, port: int = 0,
                  startup_timeout: float = 180.0, log_file=None) -> ServiceProcess:
    """Start ``serve`` in a child process and wait until it listens."""
    cmd = [sys.executable, "-m", "quillmarsh.local.service", "--data-dir", os.fspath(data_dir), "--host", host,
           "--port", str(port)] + args_from_config(config or ServiceConfig())
    stderr = log_file if log_file is not None else subprocess.DEVNULL
    proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=stderr, stdin=subprocess.DEVNULL, text=True)
    deadline = time.monotonic() + startup_timeout
    try:
        while True:
            remaining = deadline - time.monotonic()
            if remaining <= 0:
                raise TimeoutError(f"the signal service did not start within {startup_timeout:g} s")
            ready, _, _ = select.select([proc.stdout], [], [], min(remaining, 1.0))
            if not ready:
                if proc.poll() is not None:
                    raise RuntimeError(f"the signal service exited with code {proc.returncode} before listening")
                continue
            line = proc.stdout.readline()
            if not line:
                proc.wait(10)
                raise RuntimeError(f"the signal service exited with code {proc.returncode} before listening")
            if line.startswith(READY_PREFIX):
                return ServiceProcess(line[len(READY_PREFIX):].strip(), proc, os.fspath(data_dir))
    except BaseException:
        if proc.poll() is None:
            proc.kill()
            proc.wait(30)
        raise


@contextlib.contextmanager
def running_service(data_dir, *, config: ServiceConfig | None = None, host: str = LOOPBACK, port: int = 0,
                    startup_timeout: float = 180.0, log_file=None):
    """The service in a child process for the duration of the block; yields its ``ServiceProcess``."""
    service = start_service(data_dir, config=config, host=host, port=port, startup_timeout=startup_timeout,
                            log_file=log_file)
    try:
        yield service
    finally:
        service.stop()


def main(argv=None) -> int:
    parser = argparse.ArgumentParser(prog="python -m quillmarsh.local.service",
                                     description="The local signal service, in the foreground.")
    add_serve_arguments(parser)
    args = parser.parse_args(argv)
    try:
        serve_from_args(args)
    except KeyboardInterrupt:
        return 130
    return 0

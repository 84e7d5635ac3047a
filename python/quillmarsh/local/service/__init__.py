"""The local signal service: a FastAPI server on uvicorn that takes signals, judges them out of sample and
feeds the accepted ones back to the search.

``SignalService`` is the service itself, ``serve`` runs it in the foreground, ``running_service`` runs it in
a child process on a free loopback port for the length of a ``with`` block.
"""
from .config import Faults, ServiceConfig
from .runner import ServiceProcess, add_serve_arguments, config_from_args, running_service, serve, serve_from_args, start_service

__all__ = ["Faults", "ServiceConfig", "ServiceProcess", "SignalService", "add_serve_arguments", "config_from_args",
           "running_service", "serve", "serve_from_args", "start_demo_service", "start_service"]


def __getattr__(name):
    if name == "SignalService":
        from .service import SignalService
        return SignalService
    if name == "start_demo_service":
        from .report import start_demo_service
        return start_demo_service
    raise AttributeError(name)

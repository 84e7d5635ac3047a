"""The helpers every subsystem uses at the boundary: tolerant reads and logging."""
import functools
import logging
import sys

import pytest

import quillmarsh.search_templates as st

h = st._helpers


class WithProperty:
    plain = 1

    @property
    def missing(self):
        raise AttributeError("computed attribute is absent")

    @property
    def broken(self):
        raise KeyError("not an attribute problem")

    def method(self):
        return 2


def test_attribute_reads_fall_back_only_on_attribute_error():
    obj = WithProperty()
    assert (h.attr_or(obj, "plain"), h.attr_or(obj, "nope"), h.attr_or(obj, "missing", 7)) == (1, None, 7)
    with pytest.raises(KeyError):
        h.attr_or(obj, "broken")
    assert h.callable_attr(obj, "method")() == 2
    assert h.callable_attr(obj, "plain") is None and h.callable_attr(obj, "nope") is None


class GetDict(dict):
    def get(self, key, default=None):
        return ("sub", key, default)


@pytest.mark.parametrize("obj, key, expected", [
    ({"plain": 5}, "plain", 5),
    ({"plain": None}, "plain", None),                  # a present None is returned, not replaced
    (WithProperty(), "plain", 1),
    (GetDict(plain=3), "plain", ("sub", "plain", "dflt")),  # a dict subclass's own get() decides
    (None, "plain", "dflt"),
    ({}, "keys", "dflt"),                              # a map's own attributes are not read
])
def test_key_or_attr(obj, key, expected):
    assert h.key_or_attr(obj, key, "dflt") == expected


def test_log_goes_unformatted_through_the_current_module_logger(monkeypatch):
    seen = []

    class Recorder:
        def isEnabledFor(self, level):
            return level >= logging.INFO

        def log(self, level, msg, *args, **kwargs):
            seen.append((level, msg, args))

    monkeypatch.setattr(st, "logger", Recorder())
    h.log(logging.WARNING, "step %s failed: %r", "sync", "boom")
    h.log(logging.DEBUG, "hidden %s", "x")
    assert seen == [(logging.WARNING, "step %s failed: %r", ("sync", "boom"))]


def _raise_inner():
    raise ValueError("inner")


@pytest.mark.parametrize("fail, has_traceback", [
    (_raise_inner, True),
    # raised by native code straight back to native code: the error carries no traceback at all
    (functools.partial(int, "inner"), False),
])
def test_log_exception_logs_the_error_with_whatever_traceback_it_has(caplog, fail, has_traceback):
    h.log_exception("worker_loop_crashed", fail)
    (record,) = caplog.records
    assert (record.levelno, record.getMessage()) == (logging.ERROR, "worker_loop_crashed")
    assert record.exc_info[0] is ValueError and "inner" in str(record.exc_info[1])
    assert (record.exc_info[2] is not None) == has_traceback


def test_log_exception_survives_a_failing_logger(monkeypatch):
    class Broken:
        def isEnabledFor(self, level):
            return True

        def log(self, *args, **kwargs):
            raise OSError("disk full")
    monkeypatch.setattr(st, "logger", Broken())
    unraisable = []
    monkeypatch.setattr(sys, "unraisablehook", unraisable.append)
    h.log_exception("worker_loop_crashed", _raise_inner)  # returns: the failure is reported, not raised
    assert isinstance(unraisable[0].exc_value, OSError)


def test_module_attr_is_read_live(monkeypatch):
    assert h.module_attr_or_none("no_such_global") is None
    monkeypatch.setattr(st, "no_such_global", 42, raising=False)
    assert h.module_attr_or_none("no_such_global") == 42


def test_name_cache_tells_apart_names_passed_in_one_reused_buffer():
    names = ["alpha", "beta", "alpha", "gamma_long_name_beyond_sso", "beta", "", "alpha"]
    out = st._helpers.cached_names(names)
    assert out == names
    assert out[0] is out[2] is out[6] and out[1] is out[4]  # one str per distinct name

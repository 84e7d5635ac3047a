"""The template sandbox: three entry points refused to a marked thread, and only to it; once hardened,
every door out of the process refused to a marked thread and to the threads it starts, and only to them."""
import _thread
import builtins
import ctypes
import importlib
import io
import linecache
import os
import socket
import sqlite3
import sqlite3.dbapi2
import subprocess
import sys
import threading
import traceback
import urllib.request
import warnings
from pathlib import Path

import pytest

import quillmarsh.search_templates as st
from engine.helpers import graph, wait_until

FORBIDDEN = [
    ("filesystem", lambda: builtins.open()),
    ("sqlite", lambda: sqlite3.connect(object(), bogus=1)),
    ("network", lambda: urllib.request.urlopen()),
]


def allowed_calls(path):
    with open(path) as fh:
        fh.read()
    sqlite3.connect(":memory:").close()
    urllib.request.urlopen("file://" + path).close()


def test_inside_the_sandbox_each_entry_point_is_refused_before_its_arguments_are_read():
    error = KeyError("mine")
    with pytest.raises(KeyError) as info:
        with st._template_sandbox():
            assert st._template_sandbox_active()
            for word, call in FORBIDDEN:
                with pytest.raises(st.TemplateSandboxViolation,
                                   match=f"^forbidden {word} access from search template$"):
                    call()
            raise error
    assert info.value is error  # an error of the body arrives unchanged and unmarks the thread
    assert not st._template_sandbox_active() and threading.get_ident() not in st._template_sandbox_threads


def test_only_marked_threads_are_refused_and_leaving_unmarks_only_the_thread_that_left(tmp_path):
    path = tmp_path / "data.txt"
    path.write_text("x")
    inside, left, seen, errors = threading.Event(), threading.Event(), [], []

    def unmarked():  # started outside the sandbox
        try:
            assert inside.wait(5.0)
            allowed_calls(str(path))
        except BaseException as exc:  # noqa: BLE001 - reported to the test thread
            errors.append(exc)

    def marked():
        with st._template_sandbox():
            inside.set()
            left.wait(5.0)
            seen.append(st._template_sandbox_active())
    threads = [threading.Thread(target=f) for f in (unmarked, marked)]
    for t in threads:
        t.start()
    with st._template_sandbox():
        threads[0].join(5.0)  # the unmarked thread used the originals while two threads were inside
        with pytest.raises(st.TemplateSandboxViolation):
            open(str(path))
    left.set()  # this thread left first: the other one stays marked
    threads[1].join(5.0)
    assert errors == [] and seen == [True] and not any(t.is_alive() for t in threads)
    allowed_calls(str(path))


def test_a_replaced_urlopen_loses_to_the_hook_at_the_next_entry(monkeypatch, tmp_path):
    with st._template_sandbox():
        pass
    original = st._original_urllib_urlopen
    replacement_calls = []
    monkeypatch.setattr(urllib.request, "urlopen", lambda *a, **k: replacement_calls.append(a))
    with st._template_sandbox():
        assert urllib.request.urlopen is st._sandboxed_urllib_urlopen
    assert st._original_urllib_urlopen is original
    path = tmp_path / "page.txt"
    path.write_text("hello")
    with urllib.request.urlopen("file://" + str(path)) as response:
        assert response.read() == b"hello"
    assert replacement_calls == []


def test_by_default_only_the_three_entry_points_are_guarded(tmp_path):
    # A process of its own: hardening, once asked for, stays for the life of the process.
    script = f"""
import os, socket, threading
import quillmarsh.search_templates as st
assert not st._template_sandbox_hardened()
seen = []
with st._template_sandbox():
    os.close(os.open(os.devnull, os.O_RDONLY))
    with socket.socket() as sock:
        sock.bind(("127.0.0.1", 0))
    t = threading.Thread(target=lambda: seen.append(open({str(tmp_path / "f.txt")!r}, "w").close()))
    t.start(); t.join(10)
    try:
        open(os.devnull)
    except st.TemplateSandboxViolation:
        seen.append("refused")
print(seen)
"""
    result = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, timeout=60)
    assert result.returncode == 0, result.stderr
    assert result.stdout.strip() == "[None, 'refused']"


# ---- hardened: every door, for the template, for the threads it starts, and for everybody else ---------

@pytest.fixture
def hardened():
    import quillmarsh
    quillmarsh.harden_template_sandbox()
    assert st._template_sandbox_hardened()

def _spawn_true():
    pid = os.posix_spawn("/bin/true", ["true"], dict(os.environ))
    assert os.waitpid(pid, 0)[1] == 0


def _fork():
    pid = os.fork()
    if pid == 0:
        os._exit(0)
    assert os.waitpid(pid, 0)[1] == 0


def _bind():
    with socket.socket() as sock:
        sock.bind(("127.0.0.1", 0))


# (door, word of the refusal, call(directory, port)); the directory holds "existing.txt" and "doomed.txt".
DOORS = [
    ("builtins.open", "filesystem", lambda d, port: builtins.open(d / "a.txt", "w").close()),
    ("io.open", "filesystem", lambda d, port: io.open(d / "b.txt", "w").close()),
    ("os.open", "filesystem", lambda d, port: os.close(os.open(d / "existing.txt", os.O_RDONLY))),
    ("Path.write_text", "filesystem", lambda d, port: (d / "c.txt").write_text("x")),
    ("Path.read_text", "filesystem", lambda d, port: (d / "existing.txt").read_text()),
    ("os.remove", "filesystem", lambda d, port: os.remove(d / "doomed.txt")),
    ("sqlite3.connect", "sqlite", lambda d, port: sqlite3.connect(":memory:").close()),
    ("sqlite3.dbapi2.connect", "sqlite", lambda d, port: sqlite3.dbapi2.connect(str(d / "x.db")).close()),
    ("urlopen", "network", lambda d, port: urllib.request.urlopen((d / "existing.txt").as_uri()).close()),
    ("socket.create_connection", "network",
     lambda d, port: socket.create_connection(("127.0.0.1", port), timeout=5.0).close()),
    ("socket.bind", "network", lambda d, port: _bind()),
    ("os.system", "process", lambda d, port: os.system("true")),
    ("subprocess.run", "process", lambda d, port: subprocess.run(["true"], check=True)),
    ("os.posix_spawn", "process", lambda d, port: _spawn_true()),
    ("os.fork", "process", lambda d, port: _fork()),
    ("ctypes.CDLL", "native code", lambda d, port: ctypes.CDLL(st.__file__)),
]
# Refused inside; outside it would replace the test process.
INSIDE_ONLY_DOORS = [("os.execv", "process", lambda d, port: os.execv("/bin/true", ["true"]))]


def prepare(directory):
    directory.mkdir(parents=True)
    (directory / "existing.txt").write_text("x")
    (directory / "doomed.txt").write_text("x")
    return directory


def try_every_door(directory, port, doors):
    outcomes = {}
    for name, _word, call in doors:
        try:
            call(directory, port)
            outcomes[name] = "ok"
        except BaseException as exc:  # noqa: BLE001 - the outcome is what the test reads
            outcomes[name] = exc
    return outcomes


def on_a_started_thread(start, fn):
    """fn() on a thread started by `start`; its result or error, after the thread has finished."""
    box, done = [], threading.Event()

    def run():
        try:
            box.append(fn())
        except BaseException as exc:  # noqa: BLE001 - handed to the caller
            box.append(exc)
        finally:
            done.set()
    start(run)
    assert done.wait(10.0)
    return box[0]


STARTERS = {
    "threading.Thread": lambda fn: threading.Thread(target=fn).start(),
    "_thread.start_new_thread": lambda fn: _thread.start_new_thread(fn, ()),
}


@pytest.fixture
def listener():
    with socket.create_server(("127.0.0.1", 0)) as server:
        yield server.getsockname()[1]


def test_a_template_is_refused_every_door_while_other_threads_pass_at_the_same_moment(make_handle, tmp_path,
                                                                                      listener, hardened):
    for caller in ["generator", *STARTERS]:
        prepare(tmp_path / "inside" / caller)
    outcomes, inside, outside_done = {}, threading.Event(), threading.Event()

    def template(ctx):
        doors = DOORS + INSIDE_ONLY_DOORS
        outcomes["generator"] = try_every_door(tmp_path / "inside" / "generator", listener, doors)
        for starter_name, start in STARTERS.items():
            outcomes[starter_name] = on_a_started_thread(
                start, lambda: try_every_door(tmp_path / "inside" / starter_name, listener, doors))
        inside.set()
        outside_done.wait(10.0)  # the test thread tries every door while this thread is still marked
        while True:
            yield graph()

    h = make_handle(template)
    assert inside.wait(30.0)
    assert st._template_sandbox_threads  # the worker is inside right now
    outside = try_every_door(prepare(tmp_path / "outside"), listener, DOORS)
    outside_done.set()
    assert outside == {name: "ok" for name, _word, _call in DOORS}

    for caller in ["generator", *STARTERS]:
        refused = outcomes[caller]
        for name, word, _call in DOORS + INSIDE_ONLY_DOORS:
            assert isinstance(refused[name], st.TemplateSandboxViolation), (caller, name, refused[name])
            assert str(refused[name]) == f"forbidden {word} access from search template", (caller, name)
    left = sorted(p.name for p in (tmp_path / "inside").rglob("*") if p.is_file())
    assert left == sorted(["doomed.txt", "existing.txt"] * 3)  # nothing made, nothing removed
    # the search goes on: the same worker evaluates what the template yields
    assert wait_until(lambda: h._total_evaluated >= 3, timeout=10.0)
    assert h._crash_count == 0 and h._running
    h.stop()


@pytest.mark.parametrize("starter", STARTERS)
def test_a_thread_started_inside_stays_inside_until_it_ends(starter, hardened):
    parent_left, seen = threading.Event(), []

    def child():
        assert parent_left.wait(5.0)
        seen.append(st._template_sandbox_active())
        return threading.get_ident()
    box, done = [], threading.Event()

    def run():
        box.append(child())
        done.set()
    with st._template_sandbox():
        STARTERS[starter](run)
    parent_left.set()
    assert done.wait(5.0)
    assert seen == [True]
    assert wait_until(lambda: box[0] not in st._template_sandbox_threads)
    assert on_a_started_thread(STARTERS[starter], st._template_sandbox_active) is False


# ---- what the host itself needs inside the sandbox ---------------------------------------------

PACKAGE_BODIES = {
    # reads a file of its own package while it is imported
    "reads its data": ("import json, pathlib\n"
                       "VALUE = json.loads((pathlib.Path(__file__).parent / 'data.json').read_text())\n", 7),
    "writes a file": ("import os\nos.close(os.open(__file__ + '.out', os.O_WRONLY | os.O_CREAT))\n",
                      st.TemplateSandboxViolation),
}


@pytest.mark.parametrize("body", PACKAGE_BODIES)
def test_an_import_inside_reads_its_files_and_caches_bytecode_but_writes_nothing_else(tmp_path, monkeypatch,
                                                                                       body, hardened):
    source, expected = PACKAGE_BODIES[body]
    name = "sandbox_pkg_" + body.replace(" ", "_")
    package = tmp_path / name
    package.mkdir()
    (package / "__init__.py").write_text(source)
    (package / "data.json").write_text("7")
    monkeypatch.syspath_prepend(str(tmp_path))
    monkeypatch.setattr(sys, "dont_write_bytecode", False)
    importlib.invalidate_caches()
    try:
        with st._template_sandbox():
            if isinstance(expected, type):
                with pytest.raises(expected):
                    importlib.import_module(name)
            else:
                assert importlib.import_module(name).VALUE == expected
    finally:
        sys.modules.pop(name, None)
    if not isinstance(expected, type):
        assert list((package / "__pycache__").glob("__init__.*.pyc"))
    assert not list(package.glob("*.out"))


def test_tracebacks_and_warnings_show_source_lines_inside(hardened):
    linecache.clearcache()
    shown = []
    with st._template_sandbox(), warnings.catch_warnings():
        warnings.simplefilter("always")
        warnings.showwarning = lambda message, category, filename, lineno, file=None, line=None: shown.append(
            warnings.formatwarning(message, category, filename, lineno, line))
        warnings.warn("inside")  # this line is shown
        try:
            raise KeyError("x")  # this line too
        except KeyError:
            text = traceback.format_exc()
    assert "this line is shown" in shown[0]
    assert "this line too" in text

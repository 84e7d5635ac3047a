"""The template sandbox: three entry points refused to a marked thread, and only to it."""
import builtins
import os
import sqlite3
import threading
import urllib.request

import pytest

import quillmarsh.search_templates as st

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
    with st._template_sandbox():
        assert st._template_sandbox_active()
        for word, call in FORBIDDEN:
            with pytest.raises(st.TemplateSandboxViolation,
                               match=f"^forbidden {word} access from search template$"):
                call()
        os.close(os.open(os.devnull, os.O_RDONLY))  # other facilities are left alone
    assert not st._template_sandbox_active()


def test_another_thread_uses_the_originals_at_the_same_moment(tmp_path):
    path = tmp_path / "data.txt"
    path.write_text("x")
    errors = []

    def other():
        try:
            allowed_calls(str(path))
        except BaseException as exc:  # noqa: BLE001 - reported to the test thread
            errors.append(exc)
    with st._template_sandbox():
        t = threading.Thread(target=other)
        t.start()
        t.join(5.0)
        with pytest.raises(st.TemplateSandboxViolation):
            open(str(path))
    assert not t.is_alive() and errors == []
    allowed_calls(str(path))


def test_an_error_of_the_body_arrives_unchanged_and_unmarks_the_thread():
    error = KeyError("mine")
    with pytest.raises(KeyError) as info:
        with st._template_sandbox():
            raise error
    assert info.value is error
    assert threading.get_ident() not in st._template_sandbox_threads


def test_the_first_worker_to_leave_does_not_unmark_the_other():
    inside, left = threading.Event(), threading.Event()
    seen = []

    def other():
        with st._template_sandbox():
            inside.set()
            left.wait(5.0)
            seen.append(st._template_sandbox_active())
    t = threading.Thread(target=other)
    t.start()
    assert inside.wait(5.0)
    with st._template_sandbox():
        pass
    left.set()
    t.join(5.0)
    assert seen == [True]


def test_a_replaced_urlopen_loses_to_the_hook_at_the_next_entry(monkeypatch, tmp_path):
    with st._template_sandbox():
        pass
    original = st._original_urllib_urlopen
    assert urllib.request.urlopen is st._sandboxed_urllib_urlopen
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
    assert builtins.open is st._sandboxed_open and sqlite3.connect is st._sandboxed_sqlite_connect

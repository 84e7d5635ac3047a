"""Shared fixtures: a data directory, a real ``SearchTracker`` on it, and onboarding configured on it.

The store is SQLite in the data directory. A test module marked ``both_dialects`` runs each test that uses
``tracker``, ``database_url`` or ``dialect`` twice: on SQLite, and on an empty schema of a PostgreSQL server
that the suite starts once (``pg_server.py``). Prefer the real tracker wherever the store matters.
"""

from __future__ import annotations


import pytest

DIALECTS = ("sqlite", "postgres")


def pytest_generate_tests(metafunc):
    if "dialect" not in metafunc.fixturenames or not metafunc.definition.get_closest_marker("both_dialects"):
        return
    if any("dialect" in str(mark.args[0]) for mark in metafunc.definition.iter_markers("parametrize")):
        return  # the test chose its dialects itself
    metafunc.parametrize("dialect", DIALECTS, indirect=True)


@pytest.fixture(autouse=True)
def _no_ambient_database_url(monkeypatch):
    """A store URL in the developer's environment must not send the suite to that server."""
    monkeypatch.delenv("QUILLMARSH_DATABASE_URL", raising=False)


@pytest.fixture(scope="session")
def postgres_server():
    """A PostgreSQL server of the suite's own, on 127.0.0.1, for the whole session."""
    from pg_server import PostgresServer, find_server_binaries

    bindir = find_server_binaries()
    if bindir is None:
        pytest.skip("no PostgreSQL server binaries (initdb, pg_ctl, postgres) on PATH or under "
                    "/usr/lib/postgresql: the Postgres store cannot be tested here")
    server = PostgresServer(bindir).start()
    yield server
    server.stop()


@pytest.fixture
def postgres_url(postgres_server):
    """The URL of an empty schema on the suite's server, dropped after the test."""
    schema, url = postgres_server.new_schema()
    yield url
    postgres_server.drop_schema(schema)


@pytest.fixture
def dialect(request):
    return getattr(request, "param", "sqlite")


@pytest.fixture
def database_url(dialect, request):
    """None for SQLite in the data directory, else the URL of an empty PostgreSQL store."""
    return request.getfixturevalue("postgres_url") if dialect == "postgres" else None


@pytest.fixture
def data_dir(tmp_path):
    path = tmp_path / "data"
    path.mkdir()
    return str(path)


@pytest.fixture
def tracker(data_dir, database_url):
    from quillmarsh.search_tracking import SearchTracker

    t = SearchTracker(data_dir, database_url=database_url)
    yield t
    t.close()


@pytest.fixture
def onboarding(data_dir, database_url, monkeypatch):
    """``quillmarsh.agent_onboarding`` configured on ``data_dir`` (and the store's URL) with no login; logged
    out afterwards."""
    import quillmarsh.agent_onboarding as onboarding

    monkeypatch.setattr(onboarding, "_config", {"data_dir": data_dir, "server_url": None,
                                                "database_url": database_url})
    onboarding.logout()
    yield onboarding
    onboarding.logout()

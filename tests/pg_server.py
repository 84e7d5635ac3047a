"""A throw-away PostgreSQL server for the tests and benchmarks.

``PostgresServer.start()`` runs ``initdb`` into a fresh temporary directory and starts ``postgres`` there,
listening on 127.0.0.1 only (and on a unix socket inside that directory), with trust authentication for
one superuser. The server refuses to run as root: when this process is root, the directory is handed to an
unprivileged account (``QUILLMARSH_TEST_PG_USER``, else ``postgres``, else ``nobody``) and the server runs
as that account. ``stop()`` stops it and removes the directory. ``new_schema()`` hands out an empty schema
and a URL whose ``search_path`` points at it, so that each test gets a store of its own at little cost.
"""

from __future__ import annotations

import atexit
import glob
import os
import pwd
import shutil
import socket
import subprocess
import tempfile
import urllib.parse
import uuid

SUPERUSER = "quillmarsh"
DATABASE = "postgres"
BINARIES = ("initdb", "pg_ctl", "postgres")


def find_server_binaries():
    """The directory holding ``initdb``, ``pg_ctl`` and ``postgres``, or None: PATH first, then the
    newest ``/usr/lib/postgresql/<version>/bin``."""
    found = shutil.which("initdb")
    candidates = [os.path.dirname(os.path.realpath(found))] if found else []
    versions = glob.glob("/usr/lib/postgresql/*/bin")
    versions.sort(key=lambda p: [int(x) if x.isdigit() else 0 for x in p.split("/")[-2].split(".")], reverse=True)
    candidates.extend(versions)
    for directory in candidates:
        if all(os.access(os.path.join(directory, name), os.X_OK) for name in BINARIES):
            return directory
    return None


def _free_port() -> int:
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def _reachable_temp_dir(account) -> str | None:
    """A temporary directory whose every parent another account may pass through, for the server's files."""
    if account is None:
        return None
    for candidate in (tempfile.gettempdir(), "/tmp", "/var/tmp", "/dev/shm"):
        path, ok = os.path.abspath(candidate), os.path.isdir(candidate)
        while ok and path != "/":
            ok = bool(os.stat(path).st_mode & 0o001)
            path = os.path.dirname(path)
        if ok:
            return candidate
    raise RuntimeError("no temporary directory that the account %r can reach" % account[2])


def _server_account():
    """(uid, gid, name) to run the server as, or None to run it as this process."""
    if os.geteuid() != 0:
        return None
    names = [os.environ.get("QUILLMARSH_TEST_PG_USER"), "postgres", "nobody"]
    for name in names:
        if not name:
            continue
        try:
            entry = pwd.getpwnam(name)
        except KeyError:
            continue
        if entry.pw_uid != 0:
            return entry.pw_uid, entry.pw_gid, name
    raise RuntimeError("running as root and no unprivileged account to run the PostgreSQL server as "
                       "(set QUILLMARSH_TEST_PG_USER)")


class PostgresServer:
    def __init__(self, bindir: str, settings=None):
        self.bindir = bindir
        self.settings = {"fsync": "off", "full_page_writes": "off",
                         "max_connections": "100", "shared_buffers": "64MB"}
        self.settings.update(settings or {})
        self.root = None
        self.port = None
        self._account = None
        self._admin = None

    # -- life ----------------------------------------------------------------------------------------

    def _run(self, args, **kwargs):
        extra = {}
        if self._account is not None:
            uid, gid, _name = self._account
            extra = {"user": uid, "group": gid, "extra_groups": []}
        env = dict(os.environ, HOME=self.root, LC_ALL="C", LANG="C")
        return subprocess.run([os.path.join(self.bindir, args[0])] + list(args[1:]), cwd=self.root, env=env,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **extra, **kwargs)

    def start(self):
        self._account = _server_account()
        self.root = tempfile.mkdtemp(prefix="quillmarsh-pg-", dir=_reachable_temp_dir(self._account))
        if self._account is not None:
            os.chown(self.root, self._account[0], self._account[1])
        atexit.register(self.stop)
        data = os.path.join(self.root, "data")
        done = self._run(["initdb", "-D", data, "-U", SUPERUSER, "--auth=trust", "-E", "UTF8", "--locale=C",
                          "--no-sync"], timeout=180)
        if done.returncode != 0:
            raise RuntimeError("initdb failed:\n" + done.stdout)
        for attempt in range(3):
            self.port = _free_port()
            done = self._pg_ctl_start()
            if done.returncode == 0:
                break
        else:
            raise RuntimeError("the PostgreSQL server did not start:\n%s\n%s" % (done.stdout, self.log_tail()))
        return self

    def _pg_ctl_start(self):
        options = " ".join("-c %s=%s" % item for item in self.settings.items())
        return self._run(["pg_ctl", "-D", os.path.join(self.root, "data"), "-l", os.path.join(self.root, "server.log"),
                          "-w", "-t", "60", "-o", "-c listen_addresses=127.0.0.1 -p %d -c unix_socket_directories=%s %s"
                          % (self.port, self.root, options), "start"], timeout=90)

    def log_tail(self, lines: int = 30) -> str:
        try:
            with open(os.path.join(self.root, "server.log"), encoding="utf-8", errors="replace") as f:
                return "".join(f.readlines()[-lines:])
        except OSError:
            return ""

    def stop(self):
        if self.root is None:
            return
        if self._admin is not None:
            self._admin.close()
            self._admin = None
        data = os.path.join(self.root, "data")
        if os.path.exists(os.path.join(data, "postmaster.pid")):
            self._run(["pg_ctl", "-D", data, "-m", "fast", "-w", "-t", "60", "stop"], timeout=90)
        shutil.rmtree(self.root, ignore_errors=True)
        self.root = None

    def restart(self):
        """Stop the server at once (clients lose their connections) and start it again on the same port."""
        data = os.path.join(self.root, "data")
        self._run(["pg_ctl", "-D", data, "-m", "immediate", "-w", "-t", "60", "stop"], timeout=90)
        if self._admin is not None:
            self._admin.close()
            self._admin = None
        done = self._pg_ctl_start()
        if done.returncode != 0:
            raise RuntimeError("the PostgreSQL server did not restart:\n%s\n%s" % (done.stdout, self.log_tail()))

    # -- databases -----------------------------------------------------------------------------------

    def url(self, schema=None) -> str:
        url = "postgresql://%s@127.0.0.1:%d/%s" % (SUPERUSER, self.port, DATABASE)
        if schema:
            url += "?" + urllib.parse.urlencode({"options": "-csearch_path=%s" % schema})
        return url

    def admin(self):
        import psycopg

        if self._admin is None or self._admin.closed or self._admin.broken:
            self._admin = psycopg.connect(self.url(), autocommit=True)
        return self._admin

    def new_schema(self) -> tuple:
        """(schema name, URL of a store in it)."""
        name = "s_" + uuid.uuid4().hex[:16]
        self.admin().execute("CREATE SCHEMA %s" % name)
        return name, self.url(name)

    def drop_schema(self, name: str):
        """Drop a schema; one that a lingering connection still locks is left to go with the server."""
        admin = self.admin()
        try:
            admin.execute("SET lock_timeout = '2s'")
            admin.execute("DROP SCHEMA IF EXISTS %s CASCADE" % name)
        except Exception:
            pass

"""Small helpers for tests that look into a tracking store of either dialect."""

from __future__ import annotations


def table_columns(conn, table):
    """The column names of a store table, on either dialect."""
    if getattr(conn, "dialect", None) == "postgres":
        rows = conn.execute("SELECT column_name FROM information_schema.columns "
                            "WHERE table_schema = current_schema() AND table_name = ?", (table,)).fetchall()
        return {row[0] for row in rows}
    return {row[1] for row in conn.execute('PRAGMA table_info("%s")' % table.replace('"', '""')).fetchall()}

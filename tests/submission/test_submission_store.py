"""Submission payloads, their stored form and the queue tables' claim columns."""
import datetime
import json
import sqlite3
import threading

import pytest

import quillmarsh.search_templates as st

pytestmark = pytest.mark.both_dialects

TRANSIENT = ("_queue_id", "retry_id", "retry_count", "retry_after", "_journal_replay",
             "_source_created_at", "_source_payload_json")


def test_serialisation_sorts_keys_and_turns_odd_values_into_text():
    day = datetime.date(2026, 1, 2)
    text = st._serialize_submission_payload({"b": 1, "a": {"d": day, "c": [1.5, None]}})
    assert text == '{"a": {"c": [1.5, null], "d": "2026-01-02"}, "b": 1}'
    assert st._serialize_submission_payload({"x": 1, "y": 2}) == st._serialize_submission_payload({"y": 2, "x": 1})


def test_storage_form_drops_only_the_transient_keys():
    claimed = {k: 1 for k in TRANSIENT}
    claimed.update(eval_id="e1", _submission_owner="owner", idempotency_key="k", era_id=3)
    stored = st._submission_payload_for_storage(claimed)
    assert stored == {"eval_id": "e1", "_submission_owner": "owner", "idempotency_key": "k", "era_id": 3}
    assert stored is not claimed and "_queue_id" in claimed
    text = st._serialize_submission_payload(stored)
    assert not any(f'"{k}"' in text for k in TRANSIENT)


@pytest.mark.parametrize("value, error", [
    ("", "payload_json must not be empty"),
    ("[]", "payload_json must decode to an object"),
    ("{not json", json.JSONDecodeError),
    ('{"eval_id": 1}', {"eval_id": 1}),
])
def test_loading_a_stored_payload(value, error):
    if isinstance(error, dict):
        assert st._load_submission_payload(value) == error
        return
    with pytest.raises(ValueError) as info:
        st._load_submission_payload(value)
    assert str(info.value) == error if isinstance(error, str) else type(info.value) is error


@pytest.mark.parametrize("payload, missing", [
    ([1, 2], ("eval_id", "submission_type", "era_id")),
    ({"eval_id": 1, "era_id": None}, ("submission_type",)),
    ({"eval_id": 1, "submission_type": "signal", "era_id": 2}, None),
])
def test_required_keys_and_the_schema_error(payload, missing):
    if missing is None:
        st._require_payload_typed_keys(payload, "submission_queue", 9)
        return
    with pytest.raises(st.RowSchemaError) as info:
        st._require_payload_typed_keys(payload, "submission_queue", 9)
    assert isinstance(info.value, ValueError)
    assert (info.value.missing, info.value.row_id, info.value.source_kind) == (missing, 9, "submission_queue")
    assert str(info.value) == "submission_queue row 9 payload_json schema violation; missing keys: " + \
        ", ".join(sorted(missing))


@pytest.fixture
def conn(dialect, request):
    """A store with just the columns these tests need: SQLite in memory, or an empty PostgreSQL schema."""
    if dialect == "postgres":
        from quillmarsh.pg_store import PostgresConnection

        c = PostgresConnection(request.getfixturevalue("postgres_url"))
    else:
        c = sqlite3.connect(":memory:", check_same_thread=False, isolation_level=None)
    c.execute("CREATE TABLE signal_evaluations (eval_id TEXT, pool_id TEXT, submitted INTEGER DEFAULT 0)")
    c.execute("CREATE TABLE strategy_evaluations (eval_id TEXT, strategy_pool_id TEXT, signal_pool_id TEXT,"
              " submitted INTEGER DEFAULT 0)")
    c.execute("CREATE TABLE submission_queue (queue_id INTEGER PRIMARY KEY, eval_id TEXT, payload_json TEXT)")
    c.execute("CREATE TABLE submission_retry (retry_id INTEGER PRIMARY KEY, eval_id TEXT, payload_json TEXT)")
    c.execute("INSERT INTO signal_evaluations VALUES ('s1', 'pool-row', 0)")
    c.execute("INSERT INTO strategy_evaluations VALUES ('t1', 'strat-row', 'sig-row', 0)")
    yield c
    c.close()


@pytest.mark.parametrize("payload, expected", [
    ({"submission_type": "signal", "eval_id": "s1"}, ("pool-row", None)),
    ({"submission_type": "signal", "eval_id": "s1", "signal_pool_id": "sp"}, ("sp", None)),
    ({"submission_type": "signal", "eval_id": "s1", "pool_id": "p", "signal_pool_id": "sp"}, ("p", None)),
    ({"submission_type": "signal", "eval_id": "nope", "pool_id": ""}, (None, None)),
    ({"submission_type": "strategy", "eval_id": "t1"}, ("strat-row", "sig-row")),
    ({"submission_type": "strategy", "eval_id": "t1", "strategy_pool_id": "sp", "signal_pool_id": "g"},
     ("sp", "g")),
    ({"submission_type": "strategy", "eval_id": "none", "pool_id": "p", "signal_pool_id": "g"}, ("p", "g")),
    ({"submission_type": "strategy", "eval_id": "none"}, ValueError),
])
def test_pool_resolution(conn, payload, expected):
    if expected is ValueError:
        with pytest.raises(ValueError, match="^signal_pool_id must be a non-empty string$"):
            st._resolve_submission_pool_ids(conn, payload)
    else:
        assert tuple(st._resolve_submission_pool_ids(conn, payload)) == expected


class FakeHandle:
    def __init__(self, conn, persistent=True):
        self._tracker = type("Tracker", (), {"_conn": conn})()
        self._tracker_uses_persistent_store = persistent
        self._tracker_write_lock = threading.RLock()
        self._submission_claim_columns_ready = False
        self._retry_claim_columns_ready = False
        self.failures = []

    def _record_background_failure(self, component, operation, exc, backoff=True):
        self.failures.append((component, operation, type(exc), backoff))


@pytest.mark.parametrize("table, flag", [
    ("submission_queue", "_submission_claim_columns_ready"),
    ("submission_retry", "_retry_claim_columns_ready"),
])
def test_claim_columns_are_added_once_and_old_rows_read_unclaimed(conn, table, flag):
    conn.execute(f"INSERT INTO {table} (eval_id, payload_json) VALUES ('e', '{{}}')")
    handle = FakeHandle(conn)
    assert st._helpers.ensure_claim_columns(handle, table) is True
    assert getattr(handle, flag) is True
    assert conn.execute(f"SELECT in_flight_owner, in_flight_at FROM {table}").fetchall() == [(None, None)]
    handle2 = FakeHandle(conn)
    assert st._helpers.ensure_claim_columns(handle2, table) is True  # both present: no ALTER, no error
    assert handle.failures == handle2.failures == []


@pytest.mark.parametrize("dialect", ["sqlite"])
def test_claim_columns_failure_is_recorded_and_retried_later(conn):
    conn.execute("DROP TABLE submission_retry")
    conn.execute("CREATE VIEW submission_retry AS SELECT 1 AS retry_id")  # ALTER on a view fails
    handle = FakeHandle(conn)
    assert st._helpers.ensure_claim_columns(handle, "submission_retry") is False
    assert handle._retry_claim_columns_ready is False
    assert handle.failures == [("submission", "submission_retry_claim_schema", sqlite3.OperationalError, True)]
    assert handle._tracker_write_lock.acquire(blocking=False)  # the lock was released on failure


def test_claim_columns_need_a_persistent_store(conn):
    handle = FakeHandle(conn, persistent=False)
    assert st._helpers.ensure_claim_columns(handle, "submission_queue") is False
    assert handle.failures == []

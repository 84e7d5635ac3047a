"""The shared model of the search component: errors, status records, constants and module globals."""
import dataclasses
import logging
import threading
import weakref

import pytest

import quillmarsh.search_templates as st

SEARCH_STATUS_FIELDS = [
    ("running", False), ("n_jobs", 0), ("total_evaluated", 0), ("total_found", 0),
    ("signals_per_hour", 0.0), ("elapsed_seconds", 0.0), ("memory_usage_mb", 0.0), ("batch_tier", ""),
    ("t_batch", 0), ("era", ""), ("errors", []), ("crash_count", 0), ("sync_progress", None),
    ("error_code", None), ("recovery_advice", None), ("submission_queued", 0), ("submission_pending", 0),
    ("submission_accepted", 0), ("submission_rejected", 0), ("submission_retrying", 0),
    ("submission_discarded", 0), ("submission_backoff", False), ("last_poll_time", None),
]
BACKTEST_RESULT_FIELDS = [
    ("expression", {}), ("passed", False), ("stats", None), ("factor_pnl", None), ("per_column_stats", None),
    ("portfolio_returns", None), ("processed_weights", None), ("mi_score", None), ("mi_passed", None),
    ("submitted", False), ("structural_failed", False),
]


@pytest.mark.parametrize("record, expected", [
    (st.SearchStatus, SEARCH_STATUS_FIELDS), (st.BacktestResult, BACKTEST_RESULT_FIELDS),
])
def test_records_are_dataclasses_with_fields_in_order_and_defaults(record, expected):
    assert [f.name for f in dataclasses.fields(record)] == [name for name, _ in expected]
    instance = record()
    assert [(name, getattr(instance, name)) for name, _ in expected] == expected
    assert record.__module__ == "quillmarsh.search_templates"


def test_record_docstrings():
    assert st.SearchStatus.__doc__ == "Current search state snapshot (23 fields)."
    assert st.BacktestResult.__doc__ == "Result from expression evaluation."


@pytest.mark.parametrize("record, field", [(st.SearchStatus, "errors"), (st.BacktestResult, "expression")])
def test_mutable_defaults_are_not_shared(record, field):
    a, b = record(), record()
    assert getattr(a, field) is not getattr(b, field)
    if field == "errors":
        a.errors.append("x")
    else:
        a.expression["type"] = "x"
    assert not getattr(b, field)


def test_records_take_keywords_and_compare_by_value():
    a = st.SearchStatus(running=True, n_jobs=2, era="e1", errors=["boom"])
    assert a == st.SearchStatus(running=True, n_jobs=2, era="e1", errors=["boom"])
    assert a != st.SearchStatus()
    assert dataclasses.replace(a, n_jobs=3).n_jobs == 3
    with pytest.raises(TypeError):
        st.SearchStatus(no_such_field=1)


def test_search_error_text_is_message_and_fields_are_kept():
    status = st.SearchStatus()
    with pytest.raises(st.SearchError) as info:
        raise st.SearchError("AUTH_ERROR", "advice", "the message", status)
    err = info.value
    assert str(err) == "the message"
    assert err.args == ("the message",)
    assert (err.error_code, err.recovery_advice, err.message) == ("AUTH_ERROR", "advice", "the message")
    assert err.status is status
    assert isinstance(err, Exception) and not isinstance(err, RuntimeError)
    assert st.SearchError.__doc__ == "Raised when a fatal error occurs during search."


def test_search_error_takes_keywords_and_requires_all_four():
    err = st.SearchError(error_code="DISK_FULL", recovery_advice="a", message="m", status=None)
    assert (err.error_code, str(err)) == ("DISK_FULL", "m")
    with pytest.raises(TypeError):
        st.SearchError("DISK_FULL", "a", "m")


@pytest.mark.parametrize("cls, doc", [
    (st.TemplateSandboxViolation, "Raised when template code attempts forbidden direct system access."),
    (st.SubmissionProtocolError, "Raised when a successful submission response violates the client protocol."),
])
def test_runtime_error_subclasses(cls, doc):
    assert issubclass(cls, RuntimeError)
    assert cls.__doc__ == doc
    assert str(cls("x")) == "x"


def test_status_sets():
    assert st._SUBMISSION_ACCEPTED_STATUSES == {"found", "useful"}
    assert st._SUBMISSION_REJECTED_STATUSES == {
        "is_rejected", "not_useful", "os_failed", "useful_transition_failed"}
    assert st._SUBMISSION_TERMINAL_STATUSES == st._SUBMISSION_ACCEPTED_STATUSES | st._SUBMISSION_REJECTED_STATUSES
    for s in (st._SUBMISSION_ACCEPTED_STATUSES, st._SUBMISSION_REJECTED_STATUSES, st._SUBMISSION_TERMINAL_STATUSES):
        assert isinstance(s, frozenset)


@pytest.mark.parametrize("status, terminal", [
    ("found", True), ("is_rejected", True), ("useful_transition_failed", True),
    ("pending", False), ("in_progress", False), ("", False), ("FOUND", False),
])
def test_terminal_statuses_agree_between_module_and_native_code(status, terminal):
    assert (status in st._SUBMISSION_TERMINAL_STATUSES) is terminal
    assert st._helpers.is_terminal_submission_status(status) is terminal


def test_constants():
    timing = {
        "SUPERVISOR_HEALTH_CHECK_INTERVAL": 0.5, "SYNC_POLL_INTERVAL": 1.0, "ERA_POLL_INTERVAL": 1.0,
        "SUBMISSION_POLL_INTERVAL": 0.5, "POLLING_INTERVAL": 1.0, "SUBMISSION_QUEUE_LEASE_SECONDS": 300.0,
    }
    for name, value in timing.items():
        assert type(getattr(st, name)) is float and getattr(st, name) == value, name
    assert type(st._INFRASTRUCTURE_FAILURE_THRESHOLD) is int and st._INFRASTRUCTURE_FAILURE_THRESHOLD == 10
    assert st._NOT_AUTHENTICATED_MESSAGE == "Not authenticated. Run register() or login(private_key) first."
    assert st._MANAGEMENT_ACTIVE_ERROR == (
        "Cannot delete evaluations while a search is running. Call handle.stop() first.")


def test_module_globals_and_logger():
    assert st._search_active is False
    assert st._active_search_handle is None
    assert isinstance(st._active_handles, weakref.WeakSet)
    lock_type = type(threading.Lock())
    assert isinstance(st._search_active_lock, lock_type)
    assert isinstance(st._REPLACEMENT_ABORT_BOOTSTRAP_LOCK, lock_type)
    assert st._search_active_lock is not st._REPLACEMENT_ABORT_BOOTSTRAP_LOCK
    assert st.logger is logging.getLogger("quillmarsh.search_templates")


def test_active_handles_hold_weakly():
    class Handle:
        pass

    h = Handle()
    st._active_handles.add(h)
    assert h in st._active_handles
    del h
    import gc
    gc.collect()
    assert len(st._active_handles) == 0

"""The shared model of the search component: errors, status records, constants and module globals."""
import dataclasses
import gc

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


def test_search_error_takes_keywords_and_requires_all_four():
    err = st.SearchError(error_code="DISK_FULL", recovery_advice="a", message="m", status=None)
    assert (err.error_code, str(err)) == ("DISK_FULL", "m")
    with pytest.raises(TypeError):
        st.SearchError("DISK_FULL", "a", "m")


@pytest.mark.parametrize("cls", [st.TemplateSandboxViolation, st.SubmissionProtocolError])
def test_runtime_error_subclasses(cls):
    assert issubclass(cls, RuntimeError) and str(cls("x")) == "x"


@pytest.mark.parametrize("status, verdict", [
    ("found", "accepted"), ("useful", "accepted"), ("is_rejected", "rejected"), ("not_useful", "rejected"),
    ("os_failed", "rejected"), ("useful_transition_failed", "rejected"),
    ("pending", None), ("in_progress", None), ("", None), ("FOUND", None),
])
def test_terminal_statuses_agree_between_module_and_native_code(status, verdict):
    assert (status in st._SUBMISSION_ACCEPTED_STATUSES, status in st._SUBMISSION_REJECTED_STATUSES) == (
        verdict == "accepted", verdict == "rejected")
    assert (status in st._SUBMISSION_TERMINAL_STATUSES) is (verdict is not None)
    assert st._helpers.is_terminal_submission_status(status) is (verdict is not None)


def test_active_handles_hold_weakly():
    class Handle:
        pass

    h = Handle()
    st._active_handles.add(h)
    assert h in st._active_handles
    del h
    gc.collect()
    assert len(st._active_handles) == 0

"""The shared model of the search component: errors, status records and module globals."""
import dataclasses
import gc

import pytest

import quillmarsh.search_templates as st

@pytest.mark.parametrize("record, mutable", [(st.SearchStatus, "errors"), (st.BacktestResult, "expression")])
def test_records_are_dataclasses_whose_mutable_defaults_are_not_shared(record, mutable):
    assert dataclasses.is_dataclass(record)
    a, b = record(), record()
    assert getattr(a, mutable) == getattr(b, mutable) and getattr(a, mutable) is not getattr(b, mutable)


def test_search_error_text_is_message_and_fields_are_kept():
    status = st.SearchStatus()
    err = st.SearchError("AUTH_ERROR", "advice", "the message", status)
    assert (str(err), err.args) == ("the message", ("the message",))
    assert (err.error_code, err.recovery_advice, err.message, err.status) == ("AUTH_ERROR", "advice", "the message",
                                                                             status)
    assert not isinstance(err, RuntimeError)
    assert st.SearchError(error_code="DISK_FULL", recovery_advice="a", message="m", status=None).message == "m"
    with pytest.raises(TypeError):
        st.SearchError("DISK_FULL", "a", "m")


def test_terminal_statuses_agree_between_module_and_native_code():
    # which statuses accept and which reject is judged by the polling tests; here the two copies must agree
    terminal = st._SUBMISSION_TERMINAL_STATUSES
    assert terminal == st._SUBMISSION_ACCEPTED_STATUSES | st._SUBMISSION_REJECTED_STATUSES
    assert not st._SUBMISSION_ACCEPTED_STATUSES & st._SUBMISSION_REJECTED_STATUSES
    for status in set(terminal) | {"pending", "in_progress", "", "FOUND"}:
        assert st._helpers.is_terminal_submission_status(status) is (status in terminal)


def test_active_handles_hold_weakly():
    class Handle:
        pass

    h = Handle()
    st._active_handles.add(h)
    assert h in st._active_handles
    del h
    gc.collect()
    assert len(st._active_handles) == 0

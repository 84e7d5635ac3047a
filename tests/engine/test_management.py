"""Management of the tracking store: guarded deletions, database info, the heartbeat hook."""
import re

import pytest

import quillmarsh.agent_onboarding as onboarding
import quillmarsh.search_templates as st
from engine.helpers import idle_template

BLOCKED = "Cannot delete evaluations while a search is running. Call handle.stop() first."


class Tracker:
    instances = []

    def __init__(self, data_dir):
        self.data_dir, self.calls, self.closed = data_dir, [], False
        self.error = None
        Tracker.instances.append(self)

    def _call(self, name, **kwargs):
        self.calls.append((name, kwargs))
        if Tracker.error is not None:
            raise Tracker.error
        return {"called": name}

    def delete_evaluations(self, eval_type=None, keep_last=None):
        return self._call("delete_evaluations", eval_type=eval_type, keep_last=keep_last)

    def delete_failed_evaluations(self, eval_type=None):
        return self._call("delete_failed_evaluations", eval_type=eval_type)

    def get_db_info(self):
        return self._call("get_db_info")

    def close(self):
        self.closed = True


@pytest.fixture
def trackers(runtime, monkeypatch):
    Tracker.instances, Tracker.error = [], None
    monkeypatch.setattr(st, "SearchTracker", Tracker, raising=False)
    return Tracker.instances


@pytest.mark.parametrize("call, expected", [
    (lambda: st.delete_evaluations(), ("delete_evaluations", {"eval_type": None, "keep_last": 50000})),
    (lambda: st.delete_evaluations("signal", keep_last=7), ("delete_evaluations",
                                                            {"eval_type": "signal", "keep_last": 7})),
    (lambda: st.delete_failed_evaluations(eval_type="signal"), ("delete_failed_evaluations",
                                                                {"eval_type": "signal"})),
    (lambda: st.get_db_info(), ("get_db_info", {})),
])
def test_operations_forward_to_a_short_lived_tracker_that_is_closed(trackers, seed_dir, call, expected):
    assert call() == {"called": expected[0]}
    (t,) = trackers
    assert t.calls == [expected] and t.closed and t.data_dir == seed_dir


@pytest.mark.parametrize("fatal", [False, True])
def test_deletions_are_blocked_while_a_search_runs_even_a_fatal_one_and_allowed_after_stop(trackers, fatal):
    h = st.search(idle_template)
    if fatal:
        h._set_fatal_error("INFRASTRUCTURE_FAILURE", "register()", "Background infrastructure failed permanently")
    for delete in (st.delete_evaluations, st.delete_failed_evaluations):
        with pytest.raises(RuntimeError, match=re.escape(BLOCKED)):
            delete()
    assert st.get_db_info() == {"called": "get_db_info"}  # inspection needs no guard
    h.stop()
    assert st.delete_evaluations() == {"called": "delete_evaluations"}


def test_a_tracker_error_reaches_the_caller_after_close(trackers):
    Tracker.error = ValueError("bad eval_type")
    with pytest.raises(ValueError, match="bad eval_type"):
        st.delete_evaluations(eval_type="nonsense")
    assert trackers[0].closed


def test_without_a_data_dir_management_raises_an_io_error(trackers, monkeypatch):
    monkeypatch.setattr(onboarding, "_config", {})
    for call in (st.delete_evaluations, st.delete_failed_evaluations, st.get_db_info):
        with pytest.raises(OSError, match="^data_dir is required for search tracking database management.$"):
            call()
    assert trackers == []

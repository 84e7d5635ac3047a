"""The supervisor: replacements, the limits that turn fatal or degrade; the era thread and the era callback."""
import threading

import pytest

import quillmarsh.search_templates as st
from engine.helpers import FakeSyncManager, idle_template, wait_until

FATAL = "Background infrastructure failed permanently"


def dead_thread():
    t = threading.Thread(target=lambda: None)
    t.start()
    t.join(5.0)
    return t


def assert_fatal(h):
    assert wait_until(lambda: h._fatal_error is not None)
    with pytest.raises(st.SearchError) as info:
        h.status()
    assert (info.value.error_code, info.value.message) == ("INFRASTRUCTURE_FAILURE", FATAL)
    assert wait_until(lambda: not h._supervisor_thread.is_alive())


def test_a_worker_that_ends_is_replaced_as_worker_restart_0(make_handle):
    calls = []

    def template(ctx):
        calls.append(ctx)
        if len(calls) == 1:
            return None  # the first worker ends at once
        return idle_template(ctx)
    h = make_handle(template)
    assert wait_until(lambda: any(t.name == "worker_restart_0" and t.is_alive() for t in h._worker_threads))
    assert [t.name for t in h._worker_threads] == ["worker_0", "worker_restart_0"]
    assert h._worker_threads[1]._args == (1,)


def test_a_healthy_cycle_only_probes_and_extra_workers_start_nothing(make_handle, monkeypatch):
    spawned, restarted = [], []
    monkeypatch.setattr(st, "_spawn_worker", lambda handle, worker_id: spawned.append(worker_id))
    monkeypatch.setattr(st, "_restart_worker", lambda handle, count: restarted.append(count))
    h = make_handle(idle_template)
    extra = threading.Thread(target=h._stop_event.wait, daemon=True)
    extra.start()
    h._worker_threads.append(extra)
    assert wait_until(lambda: len(spawned) >= 3)
    assert set(spawned) == {-1} and restarted == []


@pytest.mark.parametrize("component", ["worker", "sync manager"])
def test_failed_restarts_turn_fatal_after_ten(make_handle, monkeypatch, component):
    attempts, sync = [], FakeSyncManager()

    def failing(*args):
        attempts.append(args)
        raise RuntimeError("no threads left")
    if component == "worker":
        monkeypatch.setattr(st, "_restart_worker", failing)
        h = make_handle(lambda ctx: None)
    else:
        h = make_handle(idle_template, sync_mgr=sync)
        sync.start, sync.alive = failing, False
    assert_fatal(h)
    assert len(attempts) == 10
    assert sync.ref_count == (1 if component == "sync manager" else 0)  # the fatal state releases nothing itself


def test_a_dead_sync_manager_is_restarted_through_start_internal_without_start(make_handle):
    class Internal(FakeSyncManager):
        start = None

        def _start_internal(self):
            self.alive = True
            self.internal = True
    sync = Internal()
    h = make_handle(idle_template, sync_mgr=sync)
    sync.alive = False
    assert wait_until(lambda: getattr(sync, "internal", False))
    assert h._sync_failures == 0 and h._running


def test_a_dead_era_thread_is_rebuilt_and_failed_rebuilds_turn_fatal(make_handle, monkeypatch):
    h = make_handle(idle_template)
    built = []

    def factory():
        built.append(1)
        if len(built) == 1:
            return threading.Thread(target=h._stop_event.wait, name="era_thread", daemon=True)
        raise RuntimeError("cannot build")
    monkeypatch.setattr(st, "_era_thread_factory", factory, raising=False)
    h._era_thread = dead_thread()
    assert wait_until(lambda: len(built) >= 1)
    h._era_thread = dead_thread()
    assert_fatal(h)
    assert len(built) == 11 and h._era_failures == 10


@pytest.mark.parametrize("component", ["submission", "polling"])
def test_a_background_thread_that_keeps_dying_degrades_and_the_search_goes_on(make_handle, component):
    h = make_handle(idle_template)
    setattr(h, f"_{component}_loop", lambda: None)  # every replacement dies at once
    setattr(h, f"_{component}_thread", dead_thread())
    assert wait_until(lambda: getattr(h, f"_{component}_degraded"))
    s = h.status()
    assert s.running is True and s.crash_count == 10
    assert s.errors.count(f"{component} thread restart failed (RuntimeError): {component}_thread exited") == 10
    assert any("capability degraded" in e for e in s.errors)


class TransitionSync(FakeSyncManager):
    """A sync manager that carries out the transition by calling kill, then restart; ``failures`` first."""

    def __init__(self, failures=0):
        super().__init__()
        self.failures = failures
        self.transitions = []

    def run_handle_era_transition(self, era_id, kill_callback, restart_callback):
        self.transitions.append(era_id)
        if self.failures:
            self.failures -= 1
            raise RuntimeError("era not ready")
        kill_callback()
        restart_callback()
        self.workers_after = [t.name for t in self.handle._worker_threads]


def test_a_failing_transition_is_retried_and_after_a_success_never_called_again(make_handle, caplog, monkeypatch):
    monkeypatch.setattr(st, "_restart_worker", lambda handle, count: None)
    sync = TransitionSync(failures=2)
    h = make_handle(lambda ctx: None, n_jobs=2, sync_mgr=sync)
    sync.handle = h
    assert wait_until(lambda: h._era_transition_triggered)
    count = len(sync.transitions)
    assert count == 3 and sync.transitions == [3, 3, 3]
    assert caplog.messages.count("Era transition failed: era not ready") == 2
    assert sync.workers_after == ["worker_0", "worker_1"]
    h._interruptible_wait(threading.Event(), 0.2)
    assert len(sync.transitions) == count


def test_kill_then_restart_leaves_exactly_n_jobs_workers_and_restart_after_stop_does_nothing(make_handle,
                                                                                         monkeypatch):
    monkeypatch.setattr(st, "_restart_worker", lambda handle, count: None)
    h = make_handle(lambda ctx: None, n_jobs=2)
    h._on_era_change("kill", 4)
    assert h._worker_threads == []
    h._on_era_change("restart", 4)
    assert [t.name for t in h._worker_threads] == ["worker_0", "worker_1"]
    h._on_era_change("something else", 4)
    assert len(h._worker_threads) == 2
    h.stop(join_timeout=2.0)
    h._on_era_change("abort", 4)
    assert all(not t.is_alive() for t in h._worker_threads) and len(h._worker_threads) == 2

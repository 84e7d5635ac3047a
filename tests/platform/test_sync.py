import json
import os
import threading

import pytest

from quillmarsh.sync import ERA_CONFIG_FILE_NAME, SyncError, SyncManager


def write_era(data_dir, **fields):
    path = os.path.join(data_dir, ERA_CONFIG_FILE_NAME)
    with open(path + ".tmp", "w") as fh:
        json.dump(fields, fh)
    os.replace(path + ".tmp", path)


def test_reference_count():
    mgr = SyncManager("/nonexistent")
    assert [mgr.acquire(), mgr.acquire(), mgr.release(), mgr.release()] == [1, 2, 1, 0]
    with pytest.raises(RuntimeError, match="more often"):
        mgr.release()
    assert mgr.ref_count == 0


def test_era_config_comes_from_the_data_directory(data_dir):
    mgr = SyncManager(data_dir)
    assert mgr.needs_sync() is False and mgr.sync() is None and mgr.era_config is None
    write_era(data_dir, era_id=4, max_node_count=50, thresholds={"sharpe_min": 1.0}, extra_field="x")
    assert mgr.needs_sync() and mgr.request_for_sync() == [ERA_CONFIG_FILE_NAME]
    cfg = mgr.sync()
    assert mgr.era_config is cfg and not mgr.needs_sync()
    assert (cfg.era_id, cfg.max_node_count, cfg.buffer_duration_minutes, cfg.max_depth) == (4, 50, None, 6)
    assert cfg.extra_field == "x" and cfg._data["thresholds"] == {"sharpe_min": 1.0}


@pytest.mark.parametrize("content", ["{not json", "[1, 2]", '{"era_id": "x"}'])
def test_a_bad_era_file_is_a_sync_error(data_dir, content):
    with open(os.path.join(data_dir, ERA_CONFIG_FILE_NAME), "w") as fh:
        fh.write(content)
    mgr = SyncManager(data_dir)
    with pytest.raises(SyncError, match="era_config.json"):
        mgr.sync()
    assert mgr.era_config is None


def test_a_new_era_calls_kill_then_restart(data_dir):
    write_era(data_dir, era_id=1)
    mgr = SyncManager(data_dir)
    mgr.sync()
    events, dropped = [], []
    mgr.register_era_callback(lambda kind, era: events.append((kind, era)))
    cb = lambda kind, era: dropped.append(kind)  # noqa: E731
    mgr.register_era_callback(cb)
    assert mgr.unregister_era_callback(cb) and not mgr.unregister_era_callback(cb)
    write_era(data_dir, era_id=1, note="same era")
    mgr.sync()
    assert events == []
    write_era(data_dir, era_id=2)
    mgr.sync()
    assert events == [("kill", 2), ("restart", 2)] and dropped == []
    with pytest.raises(TypeError):
        mgr.register_era_callback("not callable")
    # a handle's own transition runs only when its era is not the current one
    calls = []
    assert mgr.run_handle_era_transition(2, lambda: calls.append("kill"), lambda: calls.append("up")) is False
    assert mgr.run_handle_era_transition(1, lambda: calls.append("kill"), lambda: calls.append("up")) is True
    assert calls == ["kill", "up"]


def test_background_thread_picks_up_a_new_era(data_dir):
    write_era(data_dir, era_id=1)
    mgr = SyncManager(data_dir, poll_interval=0.02)
    mgr.sync()
    seen = threading.Event()
    mgr.register_era_callback(lambda kind, era: kind == "restart" and era == 2 and seen.set())
    mgr.start()
    mgr._start_internal()  # a second start is harmless
    write_era(data_dir, era_id=2)
    assert seen.wait(timeout=5)
    mgr.stop()
    assert not mgr.is_alive()


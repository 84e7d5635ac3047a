"""A whole search on the real sibling modules: store, sync manager, vocabulary file, obfuscation manager."""
import json
import os

import pytest

import quillmarsh.agent_onboarding as onboarding
import quillmarsh.search_templates as st
from quillmarsh.search_tracking import SearchTracker
from quillmarsh.sync import SyncManager
from engine.helpers import ERA, FakeAuth, FakeBacktester, finite_template, good_stats, join_all


class EveryThirdFails(FakeBacktester):
    def __init__(self):
        super().__init__()
        self.backtests = 0

    def run_backtest(self, expr_graph, **kwargs):
        self.backtests += 1
        return good_stats(sharpe=0.1) if self.backtests % 3 == 0 else good_stats()


@pytest.fixture
def platform(tmp_path, monkeypatch):
    data_dir = tmp_path / "platform"
    (data_dir / "universes" / "U1").mkdir(parents=True)
    era = dict(ERA, valid_universe_id="U1", max_depth=5,
               transform_pipeline=[{"name": "decay", "options": [0, 3], "default": 3}])
    (data_dir / "era_config.json").write_text(json.dumps(era))
    vocab = {"functions": [{"name": "cs_rank"}, {"name": "ts_mean_5"}], "features": [{"name": "f1"}]}
    (data_dir / "universes" / "U1" / "vocabulary.json").write_text(json.dumps(vocab))
    (data_dir / "shuffle_seed.enc").write_bytes(os.urandom(60))
    monkeypatch.setattr(onboarding, "_config", {"data_dir": str(data_dir), "server_url": None})
    runtime = onboarding.LibraryRuntime(str(data_dir), FakeAuth(), SyncManager(str(data_dir), poll_interval=0.05),
                                        SearchTracker(str(data_dir)), evaluator=EveryThirdFails())
    monkeypatch.setattr(st, "_library_runtime", runtime, raising=False)
    yield runtime
    runtime.close()


def test_a_finite_template_runs_to_exhaustion_into_the_store(platform, monkeypatch):
    monkeypatch.setattr(st, "_restart_worker", lambda handle, count: None)  # exhaustion is the end
    h = st.search(finite_template(3), n_jobs=1)
    assert h._era == "4" and h._search_universe_id == "U1" and h._sync_progress == 1.0
    assert h._tracker_uses_persistent_store
    join_all(h._worker_threads, timeout=30.0)
    status = st.status()
    assert status.total_evaluated == 60 and status.running is True
    h.stop()
    conn = platform.search_tracker._conn
    assert conn.execute("SELECT COUNT(*) FROM signal_evaluations").fetchone()[0] == 60
    assert conn.execute("SELECT COUNT(*) FROM signal_evaluations WHERE passed=1").fetchone()[0] == 40
    rows = conn.execute("SELECT eval_id, payload_json FROM submission_queue").fetchall()
    assert len(rows) == 40
    passed_ids = {r[0] for r in conn.execute("SELECT eval_id FROM signal_evaluations WHERE passed=1")}
    assert {r[0] for r in rows} == passed_ids
    assert all(json.loads(r[1])["_submission_owner"] == h._submission_owner for r in rows)
    assert platform.sync_manager.ref_count == 0 and not platform.search_tracker.is_search_active()
    # the persisted count is where the next search starts
    h2 = st.search(finite_template(0), n_jobs=1)
    assert h2._total_evaluated == 60
    h2.stop()

"""A whole search with the built-in template on the local platform, its signals sent to a signal service
on a loopback port: at least one reaches a terminal status, and every passed evaluation ends in exactly
one place."""
import collections
import time

import pytest

import quillmarsh.search_templates as st
from quillmarsh import agent_onboarding
from submission.loop_helpers import wait_until
from submission.service_fixtures import service  # noqa: F401  (fixture)

pytestmark = pytest.mark.slow


@pytest.fixture
def local_platform(tmp_path, monkeypatch):
    from quillmarsh.local import platform

    config = dict(agent_onboarding._config)
    monkeypatch.setattr(st, "POLLING_INTERVAL", 0.1)
    local = platform.setup(tmp_path / "platform", n_instruments=60, n_days=300)
    yield local
    agent_onboarding.logout()
    agent_onboarding._config.clear()
    agent_onboarding._config.update(config)
    agent_onboarding.set_evaluator_factory(None)


def test_a_search_sends_its_signals_and_follows_them_to_a_verdict(local_platform, service):
    agent_onboarding._config["server_url"] = service.url
    service.script("poll", (200, {"status": "is_validating"}))
    service.poll_default = (200, {"status": "found"})
    handle = st.search(st.random_weighted, n_jobs=1)
    try:
        assert wait_until(lambda: handle.status().submission_accepted >= 1, 120.0), handle.status()
    finally:
        handle.stop()
    status = handle.status()
    assert status.total_found >= 1 and status.running is False
    conn = handle._tracker._conn
    passed = {r[0] for r in conn.execute("SELECT eval_id FROM signal_evaluations WHERE passed=1")}
    submitted = {r[0] for r in conn.execute("SELECT eval_id FROM signal_evaluations WHERE submitted=1")}
    places = collections.Counter()
    for table in ("submission_status", "submission_queue", "submission_retry"):
        for (eval_id,) in conn.execute("SELECT eval_id FROM %s" % table):
            places[eval_id] += 1
    assert submitted <= passed
    assert all(places[e] == 1 for e in passed), {e: n for e, n in places.items() if n != 1}
    status_ids = {r[0] for r in conn.execute("SELECT eval_id FROM submission_status")}
    assert status_ids == submitted
    finals = conn.execute("SELECT COUNT(*) FROM submission_status WHERE status='found' AND finalized_at IS NOT NULL")
    assert finals.fetchone()[0] >= 1
    sent = [r["body"]["idempotency_key"] for r in service.of("submit")]
    assert len(sent) == len(set(sent))  # no payload went out twice

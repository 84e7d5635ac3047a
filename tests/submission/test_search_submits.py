"""A whole search with the built-in template on the local platform, its signals sent to the local signal
service on a loopback port: at least one reaches a terminal status, and every passed evaluation ends in
exactly one place."""
import collections

import pytest

import quillmarsh.search_templates as st
from quillmarsh import agent_onboarding
from submission.conftest import wait_until

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


@pytest.fixture
def signal_service(local_platform):
    from quillmarsh.local.service import ServiceConfig, running_service

    config = ServiceConfig(n_instruments=60, n_days=300, review_delay_seconds=0.2)
    with running_service(local_platform.data_dir, config=config) as service:
        agent_onboarding._config["server_url"] = service.url
        yield service


def test_a_search_sends_its_signals_and_follows_them_to_a_verdict(local_platform, signal_service):
    handle = st.search(st.random_weighted, n_jobs=1)
    try:
        judged = lambda: handle.status().submission_accepted + handle.status().submission_rejected  # noqa: E731
        assert wait_until(lambda: judged() >= 1, 150.0), handle.status()
    finally:
        handle.stop()
    for thread in (handle._submission_thread, handle._polling_thread):
        thread.join(30.0)  # a send or poll that outlived stop's join has ended before the store is read
        assert not thread.is_alive()
    status = handle.status()
    assert status.total_found >= 1 and status.running is False, status.errors
    conn = handle._tracker._conn
    passed = {r[0] for r in conn.execute("SELECT eval_id FROM signal_evaluations WHERE passed=1")}
    submitted = {r[0] for r in conn.execute("SELECT eval_id FROM signal_evaluations WHERE submitted=1")}
    places = collections.Counter()
    for table in ("submission_status", "submission_queue", "submission_retry"):
        for (eval_id,) in conn.execute("SELECT eval_id FROM %s" % table):
            places[eval_id] += 1
    assert submitted <= passed and set(places) <= passed
    assert all(places[e] == 1 for e in passed), (status.errors, {e: n for e, n in places.items() if n != 1})
    assert {r[0] for r in conn.execute("SELECT eval_id FROM submission_status")} == submitted
    (submission_id, verdict), = conn.execute(
        "SELECT submission_id, status FROM submission_status WHERE finalized_at IS NOT NULL LIMIT 1").fetchall()
    assert verdict in st._SUBMISSION_TERMINAL_STATUSES
    assert st.poll_status(submission_id).status == verdict  # the service says the same

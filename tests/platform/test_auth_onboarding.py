import json
import logging
import os
import stat

import pytest

from quillmarsh.auth import AuthError, AuthManager, derive_key, parse_private_key
from quillmarsh.errors import SdkRuntimeNotReadyError

KEY = "11" * 32


def test_wallet_secret_is_derived_from_the_key_and_never_shown():
    a, b = AuthManager(KEY), AuthManager(bytes.fromhex(KEY))
    assert len(a.wallet_secret) == 32 and a.wallet_secret == b.wallet_secret
    assert a.wallet_secret != AuthManager("22" * 32).wallet_secret
    assert a.wallet_secret == derive_key(bytes.fromhex(KEY), b"wallet_secret") != bytes.fromhex(KEY)
    assert KEY not in repr(a) and a.wallet_secret.hex() not in repr(a)
    # expanding to 64 bytes extends, not changes, the 32-byte output
    assert derive_key(bytes(range(32)), b"x", 64)[:32] == derive_key(bytes(range(32)), b"x", 32)


@pytest.mark.parametrize("bad", ["", "zz" * 32, "11" * 8, 12345, None])
def test_bad_private_keys_are_refused(bad):
    with pytest.raises(AuthError) as info:
        parse_private_key(bad)
    assert info.value.reason == "invalid_private_key"


def test_tokens_are_fresh_signed_and_end_at_logout():
    auth = AuthManager(KEY)
    token = auth.get_token()
    assert auth.verify_token(token) and not AuthManager("22" * 32).verify_token(token)
    assert not auth.verify_token(token[:-1] + ("0" if token[-1] != "0" else "1"))
    auth.logout()
    with pytest.raises(AuthError) as info:
        auth.get_token()
    assert info.value.reason == "not_authenticated"


def test_register_creates_a_private_key_only_its_owner_reads(onboarding, data_dir, caplog):
    import quillmarsh
    import quillmarsh.search_templates as st

    caplog.set_level(logging.DEBUG)
    first = quillmarsh.register()
    path = os.path.join(data_dir, "private_key")
    assert first["created"] and first["private_key_path"] == path
    assert stat.S_IMODE(os.stat(path).st_mode) == 0o600
    with open(path) as fh:
        key = fh.read().strip()
    assert key not in caplog.text
    with open(os.path.join(data_dir, "account.json")) as fh:
        assert key not in fh.read()
    second = quillmarsh.register()
    assert not second["created"] and second["account_id"] == first["account_id"]
    assert st._library_runtime is onboarding._runtime and st._library_runtime.auth_proxy is onboarding._auth_manager


def test_login_builds_and_installs_the_runtime(onboarding, data_dir):
    import quillmarsh
    import quillmarsh.search_templates as st

    with open(os.path.join(data_dir, "era_config.json"), "w") as fh:
        json.dump({"era_id": 5, "valid_universe_id": "u1"}, fh)
    os.makedirs(os.path.join(data_dir, "universes", "u1"))
    with open(os.path.join(data_dir, "universes", "u1", "vocabulary.json"), "w") as fh:
        json.dump({"functions": [], "features": [{"name": "close"}]}, fh)
    factory_calls = []
    onboarding.set_evaluator_factory(lambda d, era: factory_calls.append((d, era.era_id)) or "evaluator")
    try:
        quillmarsh.login(KEY)
    finally:
        onboarding.set_evaluator_factory(None)
    rt = st._library_runtime
    assert (rt.search_era_config.era_id, rt.valid_universe_id, rt.vocabulary_raw["features"]) == (5, "u1", [{"name": "close"}])
    assert rt.evaluator == "evaluator" and factory_calls == [(data_dir, 5)]
    assert rt.search_tracker._data_dir == data_dir and rt.sync_manager.is_alive() and rt.auth_proxy.get_token()
    assert onboarding.ensure_runtime_bootstrapped(strict=True) is rt


def test_bootstrap_without_login_and_the_update_nudge(onboarding, data_dir):
    with pytest.raises(SdkRuntimeNotReadyError, match="register"):
        onboarding.ensure_runtime_bootstrapped(strict=True)
    assert onboarding.ensure_runtime_bootstrapped(strict=False) is None
    onboarding.update_nudge("first_signal", total=1)
    with open(os.path.join(data_dir, "events.jsonl")) as fh:
        event = json.loads(fh.readline())
    assert event["event_type"] == "nudge" and event["payload"] == {"trigger": "first_signal",
                                                                    "context": {"total": 1}}
    with pytest.raises(ValueError):
        onboarding.update_nudge("")

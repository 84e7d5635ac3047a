"""Authentication: the account key, the wallet secret derived from it, and fresh service tokens.

The private key is the only secret kept on disk (``<data_dir>/private_key``, mode 0600). The 32-byte
``wallet_secret`` and the token key are derived from it in memory with HKDF-SHA256 (RFC 5869) and are
never written anywhere nor shown by ``repr``.
"""

from __future__ import annotations

import hashlib
import hmac
import os
import threading
import time

__all__ = [
    "AuthError",
    "AuthManager",
    "derive_key",
    "parse_private_key",
    "load_private_key",
    "save_private_key",
]

_HKDF_SALT = b"quillmarsh/account/v1"
_MIN_KEY_BYTES = 16


class AuthError(Exception):
    """Authentication failed or is missing. ``reason`` is a short machine-readable word, or None."""

    def __init__(self, message: str = "", reason: str | None = None):
        super().__init__(message)
        self.message = message
        self.reason = reason


def derive_key(private_key: bytes, info: bytes, length: int = 32) -> bytes:
    """HKDF-SHA256 of ``private_key`` for the purpose named by ``info``."""
    if length <= 0 or length > 255 * 32:
        raise ValueError("derived key length must be between 1 and 8160 bytes")
    prk = hmac.new(_HKDF_SALT, private_key, hashlib.sha256).digest()
    out, block, counter = b"", b"", 1
    while len(out) < length:
        block = hmac.new(prk, block + info + bytes([counter]), hashlib.sha256).digest()
        out += block
        counter += 1
    return out[:length]


def parse_private_key(private_key) -> bytes:
    """The key as bytes: raw bytes, or text holding the hex form that ``register()`` writes."""
    if isinstance(private_key, (bytes, bytearray)):
        raw = bytes(private_key)
    elif isinstance(private_key, str):
        text = private_key.strip()
        try:
            raw = bytes.fromhex(text)
        except ValueError:
            raise AuthError("private key must be the hex text written by register()",
                            reason="invalid_private_key") from None
    else:
        raise AuthError("private key must be bytes or hex text, not %s" % type(private_key).__name__,
                        reason="invalid_private_key")
    if len(raw) < _MIN_KEY_BYTES:
        raise AuthError("private key is too short: at least %d bytes are required" % _MIN_KEY_BYTES,
                        reason="invalid_private_key")
    return raw


def load_private_key(path: str) -> bytes:
    with open(path, "r", encoding="ascii") as fh:
        return parse_private_key(fh.read())


def save_private_key(path: str, private_key: bytes) -> None:
    """Write the key as hex to a new file readable by its owner only; an existing file is kept."""
    fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600)
    with os.fdopen(fd, "w", encoding="ascii") as fh:
        fh.write(private_key.hex() + "\n")


class AuthManager:
    """The logged-in account: ``get_token()`` for the service and ``wallet_secret`` for the evaluator."""

    def __init__(self, private_key):
        raw = parse_private_key(private_key)
        self._wallet_secret = derive_key(raw, b"wallet_secret")
        self._token_key = derive_key(raw, b"service_token")
        self.account_id = derive_key(raw, b"account_id", 16).hex()
        self._lock = threading.Lock()
        self._logged_out = False

    @property
    def wallet_secret(self) -> bytes:
        return self._wallet_secret

    def get_token(self) -> str:
        """A freshly signed token "qm1.<account>.<issued_at>.<mac>"; raises AuthError after logout()."""
        with self._lock:
            if self._logged_out:
                raise AuthError("not authenticated", reason="not_authenticated")
        issued_at = str(int(time.time()))
        message = ("%s.%s" % (self.account_id, issued_at)).encode("ascii")
        mac = hmac.new(self._token_key, message, hashlib.sha256).hexdigest()
        return "qm1.%s.%s.%s" % (self.account_id, issued_at, mac)

    def verify_token(self, token: str, max_age_seconds: float = 3600.0) -> bool:
        """True if ``token`` was issued by this account within ``max_age_seconds``."""
        parts = token.split(".") if isinstance(token, str) else []
        if len(parts) != 4 or parts[0] != "qm1" or parts[1] != self.account_id:
            return False
        try:
            age = time.time() - int(parts[2])
        except ValueError:
            return False
        message = ("%s.%s" % (parts[1], parts[2])).encode("ascii")
        expected = hmac.new(self._token_key, message, hashlib.sha256).hexdigest()
        return hmac.compare_digest(expected, parts[3]) and -60.0 <= age <= max_age_seconds

    def logout(self) -> None:
        with self._lock:
            self._logged_out = True

    def __repr__(self) -> str:
        return "AuthManager(account_id=%r)" % self.account_id

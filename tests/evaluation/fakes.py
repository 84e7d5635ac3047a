"""The fakes live in ``engine/helpers.py``; this name stays for the submission tests that import it."""
from engine.helpers import FakeBacktester, RecordingTracker  # noqa: F401

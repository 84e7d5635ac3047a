"""A SearchContext on the shared fakes, and a stand-in for the store's statistics record."""
import pytest

import quillmarsh.search_templates as st
from engine.helpers import ERA, VOCAB, FakeBacktester, RecordingTracker


class Record:
    """Stands in for the store's statistics record: its keywords become its attributes."""

    def __init__(self, **kw):
        self.__dict__.update(kw)
        self.kw = kw


@pytest.fixture
def record_type(monkeypatch):
    monkeypatch.setattr(st, "_BacktestStats", Record, raising=False)
    return Record


@pytest.fixture
def make_context():
    def make(bt=None, tracker=None, era=ERA, vocab=VOCAB, **kwargs):
        return st.SearchContext(vocab, "U1", {"decay": 3, "neutralize": None}, 4,
                                tracker if tracker is not None else RecordingTracker(),
                                kwargs.pop("sync_mgr", None), bt if bt is not None else FakeBacktester(),
                                kwargs.pop("thresholds", None), era, **kwargs)
    return make

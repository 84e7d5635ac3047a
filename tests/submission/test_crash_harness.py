"""A short run of the kill-injection harness: the search and the service die at random, nothing is lost."""
import re
import subprocess
import sys
from pathlib import Path

import pytest

HARNESS = Path(__file__).resolve().parents[2] / "benchmarks" / "crash_harness.py"


@pytest.mark.slow
def test_random_kills_lose_and_duplicate_nothing(tmp_path):
    result = subprocess.run(
        [sys.executable, str(HARNESS), "--trials", "5", "--seed", "11", "--workdir", str(tmp_path),
         "--warmup", "3", "--max-gap", "2", "--drain-timeout", "60"],
        capture_output=True, text=True, timeout=170)
    summary = re.search(r"^trials 5  kills (\d+) .*signals (\d+)  lost (\d+)  duplicated (\d+)  orphaned (\d+)$",
                        result.stdout, re.M)
    assert summary, result.stdout + result.stderr
    kills, signals, lost, duplicated, orphaned = map(int, summary.groups())
    assert kills == 5 and signals > 0
    assert (lost, duplicated, orphaned) == (0, 0, 0), result.stdout
    assert result.returncode == 0, result.stdout

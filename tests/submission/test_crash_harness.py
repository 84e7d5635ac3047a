"""A short run of the kill-injection harness: the search and the service die at random, nothing is lost."""
import re
import subprocess
import sys
from pathlib import Path

import pytest

HARNESS = Path(__file__).resolve().parents[2] / "benchmarks" / "crash_harness.py"


@pytest.mark.slow
def test_random_kills_lose_and_duplicate_nothing(tmp_path):
    # seed 7 kills the service once and aims two of its three search kills at a receipt's window
    result = subprocess.run(
        [sys.executable, str(HARNESS), "--trials", "4", "--seed", "7", "--workdir", str(tmp_path), "--warmup", "2",
         "--max-gap", "1.5", "--aim-timeout", "4", "--instruments", "60", "--days", "300", "--drain-timeout", "120"],
        capture_output=True, text=True, timeout=300)
    summary = re.search(r"^trials 4  kills (\d+) \(search \d+, service (\d+).*signals (\d+)  lost (\d+)  "
                        r"duplicated (\d+)  orphaned (\d+)$", result.stdout, re.M)
    assert summary, result.stdout + result.stderr
    kills, service_kills, signals, lost, duplicated, orphaned = map(int, summary.groups())
    assert kills == 4 and service_kills >= 1 and signals > 0
    assert (lost, duplicated, orphaned) == (0, 0, 0), result.stdout
    assert result.returncode == 0, result.stdout

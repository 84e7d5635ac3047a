"""One search process of a shared-store run: the local platform in its own data directory (as on a
machine of its own), the tracking store of ``QUILLMARSH_DATABASE_URL`` (or SQLite when that is unset),
and the signal service at ``--server-url``.

    python tests/shared_search.py --data-dir D --seconds S [--server-url URL] [--jobs N]

It searches with ``random_weighted`` for S seconds, stops the search, and prints one JSON line with what
its handle counted. The test and the benchmark of a shared store start several of these at once.
"""

from __future__ import annotations

import argparse
import json
import sys
import time

# a small market: the run measures the store and the pipeline, not the backtester
MARKET = dict(n_instruments=60, n_days=300, seed=7)


def run(data_dir, seconds, server_url=None, jobs=1):
    from quillmarsh import agent_onboarding
    from quillmarsh.local import platform

    platform.setup(data_dir, **MARKET)
    if server_url:
        agent_onboarding._config["server_url"] = server_url
    import quillmarsh.search_templates as st

    started = time.time()
    handle = st.search(st.random_weighted, n_jobs=jobs)
    try:
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            time.sleep(min(0.5, max(0.0, deadline - time.monotonic())))
            if not handle.status().running:
                break
    finally:
        handle.stop()
    status = handle.status()  # after the stop, which finishes what was in flight
    return {"started": started, "stopped": time.time(), "total_evaluated": status.total_evaluated,
            "total_found": status.total_found, "running": status.running, "error_code": status.error_code,
            "errors": [str(e) for e in status.errors][-5:]}


def main(argv=None) -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--data-dir", required=True)
    parser.add_argument("--seconds", type=float, required=True)
    parser.add_argument("--server-url")
    parser.add_argument("--jobs", type=int, default=1)
    args = parser.parse_args(argv)
    print(json.dumps(run(args.data_dir, args.seconds, args.server_url, args.jobs)), flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())

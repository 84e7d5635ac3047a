"""The `quillmarsh` command: run a search on the local platform, and look at what it found.

    quillmarsh demo [--minutes M] [--jobs N] [--data-dir D] [--database-url URL]
    quillmarsh status  [--data-dir D] [--database-url URL]
    quillmarsh db-info [--data-dir D] [--database-url URL]
    quillmarsh analyze [--data-dir D] [--database-url URL]
    quillmarsh serve --data-dir D [--host 127.0.0.1] [--port N] [...]

The tracking store is the SQLite file in the data directory, or the PostgreSQL database of
``--database-url`` (default: the environment's QUILLMARSH_DATABASE_URL).
"""
from __future__ import annotations

import argparse
import json
import math
import sys
import time
from pathlib import Path

PROGRESS_INTERVAL = 1.0        # seconds between refreshes of a live progress line
PLAIN_PROGRESS_INTERVAL = 5.0  # seconds between plain progress lines (no terminal)
BEST_SIGNALS = 5


class CliError(Exception):
    """A problem the user can fix; printed as one line."""


# ----- arguments ----------------------------------------------------------------------------------------

def _positive_float(text: str) -> float:
    try:
        value = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"expected a number, got {text!r}") from None
    if not math.isfinite(value) or value <= 0:
        raise argparse.ArgumentTypeError(f"must be a positive number, got {text!r}")
    return value


def _at_least(minimum: int):
    def parse(text: str) -> int:
        try:
            value = int(text)
        except ValueError:
            raise argparse.ArgumentTypeError(f"expected a whole number, got {text!r}") from None
        if value < minimum:
            raise argparse.ArgumentTypeError(f"must be at least {minimum}, got {value}")
        return value
    return parse


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="quillmarsh",
        description="Search for trading signals on the local platform and inspect what was found.")
    sub = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")
    data_dir_help = "data directory of the local platform (default: ~/.quillmarsh/local)"
    database_url_help = ("postgresql:// URL of a tracking store shared by several processes or machines "
                         "(default: $QUILLMARSH_DATABASE_URL, else SQLite in the data directory)")

    demo = sub.add_parser("demo", help="set up the local platform, search with random_weighted, summarise",
                          description="Set up the local platform (market, era, vocabulary, account), run a "
                                      "search with the built-in random_weighted template, show its progress, "
                                      "stop it and summarise what it found.")
    demo.add_argument("--minutes", type=_positive_float, default=1.0, help="how long to search (default: 1)")
    demo.add_argument("--jobs", type=_at_least(1), default=1, help="worker threads (default: 1)")
    demo.add_argument("--data-dir", help=data_dir_help)
    demo.add_argument("--database-url", help=database_url_help)
    demo.add_argument("--instruments", type=_at_least(10), default=500,
                      help="instruments of the generated market (default: 500)")
    demo.add_argument("--days", type=_at_least(100), default=1260, help="days of the generated market (default: 1260)")
    demo.add_argument("--seed", type=int, default=7, help="seed of the generated market (default: 7)")
    demo.add_argument("--plot", help="where to write the picture of the best signals (default: in the data directory)")

    from quillmarsh.local.service.runner import add_serve_arguments
    serve = sub.add_parser("serve", help="run the local signal service in the foreground",
                           description="Run the local signal service on the platform's account and market until "
                                       "Ctrl-C or SIGTERM; it prints the URL it listens on.")
    add_serve_arguments(serve)

    for name, text in (("status", "the platform's era, universe and store counts"),
                       ("db-info", "the tracking store's tables, sizes and counts"),
                       ("analyze", "random_weighted's view of the vocabulary and the weights it has learnt")):
        p = sub.add_parser(name, help=text, description=text[0].upper() + text[1:] + ".")
        p.add_argument("--data-dir", help=data_dir_help)
        p.add_argument("--database-url", help=database_url_help)
    return parser


# ----- formatting ---------------------------------------------------------------------------------------

def format_expression(graph) -> str:
    """An expression graph in functional form: cs_rank(ts_mean_20(f_3a9c))."""
    if not isinstance(graph, dict):
        return repr(graph)
    kind, node = graph.get("type"), graph.get("node")
    if kind == "feature":
        return str(node)
    if kind in ("int", "float", "bool", "string"):
        return repr(node)
    children = graph.get("children") or []
    return f"{node}({', '.join(format_expression(c) for c in children)})"


def _table(rows, headers) -> str:
    rows = [[str(c) for c in r] for r in rows]
    widths = [max([len(h)] + [len(r[i]) for r in rows]) for i, h in enumerate(headers)]
    line = lambda cells: "  ".join(c.ljust(w) for c, w in zip(cells, widths)).rstrip()  # noqa: E731
    return "\n".join([line(headers), line(["-" * w for w in widths])] + [line(r) for r in rows])


def _number(value, digits=3) -> str:
    return "-" if value is None else f"{value:.{digits}f}"


# ----- progress -----------------------------------------------------------------------------------------

def _progress_text(status, found: int, baseline: int = 0) -> str:
    """One progress line; `baseline` is the count of evaluations that the store held before this run."""
    evaluated = status.total_evaluated - baseline
    rate = evaluated / status.elapsed_seconds if status.elapsed_seconds > 0 else 0.0
    text = (f"evaluated {evaluated}  found {found}  {rate:.1f} eval/s  "
            f"elapsed {status.elapsed_seconds:.0f}s  memory {status.memory_usage_mb:.0f} MB  "
            f"errors {len(status.errors)}")
    return text


def submission_text(status) -> str:
    """What became of the signals sent to the signal service, from a search's status."""
    judged = status.submission_accepted + status.submission_rejected
    return (f"Signals sent to the service: {status.total_found}; pending {status.submission_pending}, "
            f"judged {judged} (accepted {status.submission_accepted}, rejected {status.submission_rejected}), "
            f"retrying {status.submission_retrying}")


def _watch(handle, seconds: float, found, out) -> object:
    """Follow the search for `seconds`, refreshing a live line on a terminal and printing plain lines
    otherwise; returns the last status. `found()` counts the signals that passed so far: the handle's own
    `total_found` counts only submissions the service has acknowledged."""
    deadline = time.monotonic() + seconds
    status = handle.status()
    baseline = status.total_evaluated  # a search counts what earlier runs stored, too
    if out.isatty():
        from rich.console import Console
        from rich.live import Live
        from rich.text import Text

        with Live(Text(_progress_text(status, found(), baseline)), console=Console(file=out), refresh_per_second=4) as live:
            while time.monotonic() < deadline and status.running:
                time.sleep(min(PROGRESS_INTERVAL, max(0.0, deadline - time.monotonic())))
                status = handle.status()
                live.update(Text(_progress_text(status, found(), baseline)))
        return status
    next_line = 0.0
    while time.monotonic() < deadline and status.running:
        if time.monotonic() >= next_line:
            print(_progress_text(status, found(), baseline), file=out, flush=True)
            next_line = time.monotonic() + PLAIN_PROGRESS_INTERVAL
        time.sleep(min(PROGRESS_INTERVAL, max(0.0, deadline - time.monotonic())))
        status = handle.status()
    print(_progress_text(status, found(), baseline), file=out, flush=True)
    return status


# ----- summary ------------------------------------------------------------------------------------------

def outcome_counts(conn, since: float) -> list:
    """(outcome, count) of the evaluations since `since`, most frequent first; a pass counts as 'passed'."""
    return conn.execute(
        "SELECT COALESCE(rejection_reason, CASE WHEN passed = 1 THEN 'passed' ELSE 'rejected' END), COUNT(*) "
        "FROM signal_evaluations WHERE created_at >= ? GROUP BY 1 ORDER BY 2 DESC, 1", (since,)).fetchall()


def best_signals(conn, since: float, limit: int = BEST_SIGNALS) -> list:
    """The distinct expressions that passed since `since`, highest Sharpe first: (graph, metrics)."""
    rows = conn.execute(
        "SELECT graph_json, sharpe, returns, turnover, quality_score, is_pnl_mi FROM signal_evaluations "
        "WHERE passed = 1 AND created_at >= ? ORDER BY sharpe IS NULL, sharpe DESC", (since,)).fetchall()
    best, seen = [], set()
    for g, s, r, t, q, mi in rows:  # the best evaluation of each distinct expression
        if g in seen:
            continue
        seen.add(g)
        best.append((json.loads(g), dict(sharpe=s, returns=r, turnover=t, fitness=q, is_pnl_mi=mi)))
        if len(best) >= limit:
            break
    return best


def plot_cumulative_pnl(evaluator, signals, path: Path) -> Path:
    """A PNG of the in-sample cumulative pnl of each signal, recomputed by the evaluator."""
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    import numpy as np

    fig, ax = plt.subplots(figsize=(10, 5.5))
    for rank, (graph, metrics) in enumerate(signals, 1):
        evaluator.evaluate_expression(graph)
        pnl = np.asarray(evaluator.run_backtest(graph).factor_pnl, dtype=float)
        label = f"#{rank} sharpe {_number(metrics['sharpe'], 2)}: {format_expression(graph)}"
        ax.plot(np.cumsum(np.nan_to_num(pnl)), label=label[:90])
    ax.set_title("Best signals found: cumulative in-sample pnl")
    ax.set_xlabel("trading day")
    ax.set_ylabel("cumulative pnl (book = 1)")
    ax.grid(alpha=0.3)
    if signals:
        ax.legend(fontsize=7, loc="upper left")
    fig.tight_layout()
    fig.savefig(path, dpi=110)
    plt.close(fig)
    return path


def summarise(conn, since: float, evaluator, plot_path: Path, out) -> dict:
    counts = outcome_counts(conn, since)
    total = sum(n for _, n in counts)
    print(f"\n{total} expressions evaluated", file=out)
    if counts:
        print(_table([(reason, n, f"{100.0 * n / total:.1f}%") for reason, n in counts],
                     ["outcome", "count", "share"]), file=out)
    signals = best_signals(conn, since)
    if signals:
        print(f"\nBest {len(signals)} signals found:", file=out)
        print(_table([(i, _number(m["sharpe"], 2), _number(m["fitness"], 2), _number(m["returns"]),
                       _number(m["turnover"]), _number(m["is_pnl_mi"]), format_expression(g))
                      for i, (g, m) in enumerate(signals, 1)],
                     ["#", "sharpe", "fitness", "returns", "turnover", "pnl MI", "expression"]), file=out)
    else:
        print("\nNo signal passed this time.", file=out)
    plot_cumulative_pnl(evaluator, signals, plot_path)
    print(f"\nPicture of the best signals: {plot_path}", file=out)
    return {"total": total, "counts": dict(counts), "signals": signals, "plot": plot_path}


# ----- commands -----------------------------------------------------------------------------------------

def _use_database_url(args) -> None:
    """Point the platform's configuration at ``--database-url`` when one is given."""
    url = getattr(args, "database_url", None)
    if url:
        from quillmarsh import agent_onboarding
        from quillmarsh.search_tracking import resolve_database_url

        agent_onboarding._config["database_url"] = resolve_database_url(url)


def _open_store(data_dir: Path):
    """A reader of the tracking store: the PostgreSQL database when one is configured, else the SQLite file."""
    from quillmarsh.search_tracking import DB_FILE_NAME, resolve_database_url

    url = resolve_database_url()
    if url is not None:
        from quillmarsh.pg_store import PostgresConnection

        return PostgresConnection(url, read_only=True, application_name="quillmarsh-cli")
    import sqlite3

    return sqlite3.connect(f"file:{data_dir / DB_FILE_NAME}?mode=ro", uri=True, timeout=10.0)


def run_demo(args, out=None) -> dict:
    out = out or sys.stdout
    _use_database_url(args)
    from quillmarsh.local import platform

    print("Setting up the local platform ...", file=out, flush=True)
    local = platform.setup(args.data_dir, n_instruments=args.instruments, n_days=args.days, seed=args.seed)
    import quillmarsh.search_templates as st

    print(f"Data directory {local.data_dir}; universe {local.universe_id}, era {local.era['era_id']}; "
          f"searching for {args.minutes:g} min with {args.jobs} job(s).", file=out, flush=True)
    started = time.time()
    # A reader of its own: the store's connection belongs to the search's threads.
    conn = _open_store(local.data_dir)
    found = lambda: conn.execute(  # noqa: E731
        "SELECT COUNT(*) FROM signal_evaluations WHERE passed = 1 AND created_at >= ?", (started,)).fetchone()[0]
    from quillmarsh import agent_onboarding
    from quillmarsh.local.service import ServiceConfig, report, running_service

    service_config = ServiceConfig(n_instruments=args.instruments, n_days=args.days, seed=args.seed,
                                   review_delay_seconds=1.0)
    with running_service(local.data_dir, config=service_config) as service:
        previous_url, agent_onboarding._config["server_url"] = agent_onboarding._config.get("server_url"), service.url
        print(f"Signal service listening on {service.url}", file=out, flush=True)
        try:
            handle = st.search(st.random_weighted, n_jobs=args.jobs)
            try:
                status = _watch(handle, args.minutes * 60.0, found, out)
            finally:
                handle.stop()
            if status.error_code:
                print(f"The search stopped: {status.error_code}: {status.recovery_advice}", file=out)
            else:
                print(submission_text(handle.status()), file=out)
            plot_path = Path(args.plot) if args.plot else local.data_dir / "best_signals.png"
            result = summarise(conn, started, local.evaluator, plot_path, out)
            result["service"] = report.report_to(out, local.data_dir, service.url, started)
        finally:
            agent_onboarding._config["server_url"] = previous_url
    return result


def _runtime(args):
    _use_database_url(args)
    from quillmarsh.local import platform

    local = platform.setup(args.data_dir)
    import quillmarsh.search_templates as st
    return local, st


def run_status(args, out=None) -> None:
    out = out or sys.stdout
    local, st = _runtime(args)
    conn = _open_store(local.data_dir)
    counts = dict(conn.execute("SELECT 'evaluated', COUNT(*) FROM signal_evaluations UNION ALL "
                               "SELECT 'passed', COUNT(*) FROM signal_evaluations WHERE passed = 1 UNION ALL "
                               "SELECT 'queued', COUNT(*) FROM submission_queue UNION ALL "
                               "SELECT 'retrying', COUNT(*) FROM submission_retry").fetchall())
    conn.close()
    tracker = st._library_runtime.search_tracker
    store = tracker._conn.url if getattr(tracker, "dialect", "sqlite") == "postgres" else tracker._db_path
    rows = [("data directory", local.data_dir), ("store", store), ("account", local.account.get("account_id", "-")),
            ("era", local.era["era_id"]), ("universe", local.universe_id)] + sorted(counts.items())
    print(_table(rows, ["", "value"]), file=out)


def run_db_info(args, out=None) -> None:
    out = out or sys.stdout
    _local, st = _runtime(args)
    info = st._library_runtime.search_tracker.get_db_info()
    print(json.dumps(info, indent=2, sort_keys=True, default=str), file=out)


def run_analyze(args, out=None) -> None:
    out = out or sys.stdout
    local, st = _runtime(args)
    runtime = st._library_runtime
    era = runtime.search_era_config
    vocab = st._normalize_template_vocabulary(runtime.vocabulary_raw)
    ctx = st.SearchContext(vocab, local.universe_id, {}, getattr(era, "max_depth", 4), runtime.search_tracker,
                           runtime.sync_manager, runtime.evaluator, None, era)
    report = st.analyze_random_weighted(ctx)
    print(render_report(report), file=out)


def _weight_rows(weights: dict, limit: int):
    ranked = sorted(weights.items(), key=lambda kv: -(kv[1].get("warm_weight") or 0.0))[:limit]
    return [(name, _number(w.get("warm_weight"), 4), _number(w.get("cold_weight"), 4), _number(w.get("yield_rate")),
             w.get("evaluation_count", 0), w.get("function_family") or w.get("feature_family") or "-")
            for name, w in ranked]


def render_report(report: dict, limit: int = 15) -> str:
    """random_weighted's report as tables: its scalars, the heaviest functions and features, the exclusions."""
    scalars = [(k, v) for k, v in report.items() if not isinstance(v, (dict, list))]
    parts = [_table(scalars, ["", "value"])] if scalars else []
    headers = ["name", "weight", "cold weight", "yield rate", "evaluations", "family"]
    for key, title in (("function_weights", "functions"), ("feature_weights", "features")):
        weights = report.get(key) or {}
        if weights:
            parts.append(f"{title} ({len(weights)}, heaviest {min(limit, len(weights))}):\n"
                         + _table(_weight_rows(weights, limit), headers))
    unsafe = report.get("unsafe_functions") or {}
    if unsafe:
        parts.append(f"functions random_weighted will not use ({len(unsafe)}):\n"
                     + _table(sorted(unsafe.items()), ["name", "reason"]))
    for key, value in report.items():
        if key not in ("function_weights", "feature_weights", "unsafe_functions") and isinstance(value, (dict, list)):
            parts.append(f"{key}: {json.dumps(value, default=str, sort_keys=True)}")
    return "\n\n".join(parts)


def run_serve(args, out=None) -> None:
    from quillmarsh.local.service import serve_from_args

    serve_from_args(args, out=out)


COMMANDS = {"demo": run_demo, "status": run_status, "db-info": run_db_info, "analyze": run_analyze,
            "serve": run_serve}


def main(argv=None) -> int:
    args = _parser().parse_args(argv)
    from quillmarsh.local.platform import PlatformError

    try:
        COMMANDS[args.command](args)
    except (CliError, PlatformError) as exc:
        print(f"quillmarsh {args.command}: {exc}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print(f"quillmarsh {args.command}: interrupted", file=sys.stderr)
        return 130
    except Exception as exc:  # one line for the user; the details belong to a debugging session
        print(f"quillmarsh {args.command}: {type(exc).__name__}: {exc}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())

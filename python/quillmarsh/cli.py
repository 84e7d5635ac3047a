"""The `quillmarsh` command: run a search on the local platform, and look at what it found.

    quillmarsh demo [--minutes M] [--jobs N] [--data-dir D] [--template adaptive_weighted|random_weighted]
                    [--database-url URL]
    quillmarsh watch   [--data-dir D] [--seconds S]
    quillmarsh signals [--data-dir D] [--status S] [--limit N] [--since T] [--format table|csv|json]
    quillmarsh report  [--data-dir D] [--output PATH.png|PATH.svg] [--top N] [--since T]
    quillmarsh status  [--data-dir D] [--database-url URL]
    quillmarsh db-info [--data-dir D] [--database-url URL]
    quillmarsh analyze [--data-dir D] [--database-url URL] [--format table|json]
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

from quillmarsh.signals import FORMATS, format_expression
from quillmarsh.signals import plain_table as _table

PROGRESS_INTERVAL = 1.0        # seconds between refreshes of a live progress line
PLAIN_PROGRESS_INTERVAL = 5.0  # seconds between plain progress lines (no terminal)
BEST_SIGNALS = 5
TEMPLATES = ("adaptive_weighted", "random_weighted")  # built-in templates; the first is the default


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

    demo = sub.add_parser("demo", help="set up the local platform, search with a built-in template, summarise",
                          description="Set up the local platform (market, era, vocabulary, account), run a "
                                      "search with a built-in template (adaptive_weighted unless --template "
                                      "says otherwise), show its progress, stop it and summarise what it found.")
    demo.add_argument("--minutes", type=_positive_float, default=1.0, help="how long to search (default: 1)")
    demo.add_argument("--jobs", type=_at_least(1), default=1, help="worker threads (default: 1)")
    demo.add_argument("--data-dir", help=data_dir_help)
    demo.add_argument("--database-url", help=database_url_help)
    demo.add_argument("--instruments", type=_at_least(10), default=500,
                      help="instruments of the generated market (default: 500)")
    demo.add_argument("--days", type=_at_least(100), default=1260, help="days of the generated market (default: 1260)")
    demo.add_argument("--seed", type=int, default=7, help="seed of the generated market (default: 7)")
    demo.add_argument("--template", choices=TEMPLATES, default=TEMPLATES[0],
                      help="built-in template to search with (default: %(default)s)")
    demo.add_argument("--plot", help="where to write the picture of the best signals (default: in the data directory)")

    from quillmarsh.local.service.runner import add_serve_arguments
    serve = sub.add_parser("serve", help="run the local signal service in the foreground",
                           description="Run the local signal service on the platform's account and market until "
                                       "Ctrl-C or SIGTERM; it prints the URL it listens on.")
    add_serve_arguments(serve)

    for name, text in (("status", "the platform's era, universe and store counts"),
                       ("db-info", "the tracking store's tables, sizes and counts"),
                       ("analyze", "the templates' view of the vocabulary and the weights they have learnt")):
        p = sub.add_parser(name, help=text, description=text[0].upper() + text[1:] + ".")
        p.add_argument("--data-dir", help=data_dir_help)
        p.add_argument("--database-url", help=database_url_help)
        if name == "analyze":
            p.add_argument("--format", choices=("table", "json"), default="table",
                           help="tables of the weights (default) or the report as JSON")
    _add_view_commands(sub, data_dir_help)
    return parser


# ----- formatting ---------------------------------------------------------------------------------------

def _number(value, digits=3) -> str:
    return "-" if value is None else f"{value:.{digits}f}"


def submission_text(status) -> str:
    """What became of the signals sent to the signal service, from a search's status."""
    judged = status.submission_accepted + status.submission_rejected
    return (f"Signals sent to the service: {status.total_found}; pending {status.submission_pending}, "
            f"judged {judged} (accepted {status.submission_accepted}, rejected {status.submission_rejected}), "
            f"retrying {status.submission_retrying}")


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
    from quillmarsh.local.service import start_demo_service

    service = start_demo_service(local.data_dir, args.instruments, args.days, args.seed, out)
    template = getattr(args, "template", TEMPLATES[0])
    handle = st.search(getattr(st, template), n_jobs=args.jobs)
    snap = _follow_search(handle, conn, local.data_dir, args.minutes * 60.0, out)
    if snap.error_code:
        print(f"The search stopped: {snap.error_code}: {snap.recovery_advice}", file=out)
    else:
        print(submission_text(handle.status()), file=out)
    plot_path = Path(args.plot) if args.plot else local.data_dir / "best_signals.png"
    result = summarise(conn, started, local.evaluator, plot_path, out)
    result["service"] = service.finish(out, started)
    learning = st.adaptive_weighted_learning() if template == "adaptive_weighted" else None
    if isinstance(learning, dict):
        print("\n" + render_learning(learning), file=out)
    result["learning"] = learning
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
    report = st.analyze_adaptive_weighted(ctx)
    if getattr(args, "format", "table") == "json":
        print(json.dumps(report, indent=1, sort_keys=True, default=str), file=out)
    else:
        print(render_report(report), file=out)


def _weight_rows(weights: dict, limit: int):
    ranked = sorted(weights.items(), key=lambda kv: (-(kv[1].get("warm_weight") or 0.0), kv[0]))[:limit]
    return [(name, _number(w.get("warm_weight"), 4), _number(w.get("cold_weight"), 4),
             _signed(w.get("warm_delta"), 4), _number(w.get("yield_rate")), w.get("evaluation_count", 0),
             w.get("function_family") or w.get("feature_family") or "-")
            for name, w in ranked]


def _signed(value, digits=3) -> str:
    return "-" if value is None else f"{value:+.{digits}f}"


def render_report(report: dict, limit: int = 15) -> str:
    """random_weighted's report as tables: its scalars, the heaviest functions and features, the exclusions."""
    scalars = [(k, v) for k, v in report.items() if not isinstance(v, (dict, list))]
    parts = [_table(scalars, ["", "value"])] if scalars else []
    headers = ["name", "weight", "cold weight", "learnt", "yield rate", "evaluations", "family"]
    for key, title in (("function_weights", "functions"), ("feature_weights", "features")):
        weights = report.get(key) or {}
        if weights:
            parts.append(f"{title} ({len(weights)}, heaviest {min(limit, len(weights))}):\n"
                         + _table(_weight_rows(weights, limit), headers))
    unsafe = report.get("unsafe_functions") or {}
    if unsafe:
        parts.append(f"functions random_weighted will not use ({len(unsafe)}):\n"
                     + _table(sorted(unsafe.items()), ["name", "reason"]))
    learning = report.get("learning", False)
    if isinstance(learning, dict):
        parts.append(render_learning(learning))
    elif learning is None:
        parts.append("adaptive_weighted has not run in this process: the weights above are what it starts "
                     "from; it refreshes them while it runs and draws about one graph in twenty with flat weights.")
    for key, value in report.items():
        if key not in ("function_weights", "feature_weights", "unsafe_functions", "learning") \
                and isinstance(value, (dict, list)):
            parts.append(f"{key}: {json.dumps(value, default=str, sort_keys=True)}")
    return "\n\n".join(parts)


def render_learning(learning: dict, limit: int = 8) -> str:
    """What adaptive_weighted learnt in a search: its draws by kind, what it skipped, its heaviest names."""
    draws = learning.get("draws") or {}
    moves = learning.get("local_moves") or {}
    rows = [("draws: explore / learned / local / mirror",
             " / ".join(str(draws.get(k, 0)) for k in ("explore", "learned", "local", "mirror"))),
            ("local moves: feature / sibling / subtree / combine",
             " / ".join(str(moves.get(k, 0)) for k in ("feature", "sibling", "subtree", "combine"))),
            ("exploration share", f"{100.0 * (learning.get('exploration_share') or 0.0):.1f}%")]
    rows += [(key.replace("_", " "), learning.get(key, 0)) for key in
             ("found", "evaluated_known", "repeats_skipped", "near_copies_skipped", "refreshes", "refresh_failures")]
    parts = ["adaptive_weighted in the last search:\n" + _table(rows, ["", "value"])]
    for key, title in (("feature_weights", "features"), ("function_weights", "functions")):
        weights = learning.get(key) or {}
        if weights:
            total = sum(weights.values()) or 1.0
            top = sorted(weights.items(), key=lambda kv: -kv[1])[:limit]
            parts.append(f"heaviest {title} now:\n" + _table([(n, f"{100.0 * w / total:.1f}%") for n, w in top],
                                                              ["name", "share"]))
    return "\n\n".join(parts)


def run_serve(args, out=None) -> None:
    from quillmarsh.local.service import serve_from_args

    serve_from_args(args, out=out)


COMMANDS = {"demo": run_demo, "status": run_status, "db-info": run_db_info, "analyze": run_analyze,
            "serve": run_serve}


# ----- the live view, the signals and the report --------------------------------------------------------

def _add_view_commands(sub, data_dir_help: str) -> None:
    watch = sub.add_parser("watch", help="a live view of the search that runs in a data directory",
                           description="Attach to the data directory of a running search and show its "
                                       "evaluations, rate, signals and threads until Ctrl-C (or --seconds). "
                                       "Without a terminal, prints one plain line every few seconds.")
    watch.add_argument("--data-dir", help=data_dir_help)
    watch.add_argument("--seconds", type=_positive_float, help="stop after this long (default: until Ctrl-C)")
    watch.add_argument("--interval", type=_positive_float, default=PROGRESS_INTERVAL,
                       help="seconds between refreshes (default: 1)")
    watch.add_argument("--plain-interval", type=_positive_float, default=PLAIN_PROGRESS_INTERVAL,
                       help="seconds between plain lines when stdout is not a terminal (default: 5)")

    signals = sub.add_parser("signals", help="the signals found, best first, with their verdicts",
                             description="The signals that passed in a data directory, best first: expression, "
                                         "in-sample metrics, submission status and out-of-sample statistics.")
    signals.add_argument("--data-dir", help=data_dir_help)
    signals.add_argument("--status", type=_statuses,
                         help="only these statuses, comma-separated: unsent, queued, retrying, pending, accepted, "
                              "rejected, or a service status such as found")
    signals.add_argument("--limit", type=_at_least(1), help="at most this many")
    signals.add_argument("--since", type=_since, help="evaluated since: 90m, 2h, 3d, an ISO date or time")
    signals.add_argument("--format", choices=FORMATS, default="table", help="table (default), csv or json")
    signals.add_argument("--all-evaluations", action="store_true",
                         help="every passing evaluation, also of an expression that passed before")

    report = sub.add_parser("report", help="a picture of the best signals in and out of sample",
                            description="Draw the cumulative pnl of the best signals in sample and out of sample "
                                        "side by side, and the distribution of rejection reasons, as PNG or SVG.")
    report.add_argument("--data-dir", help=data_dir_help)
    report.add_argument("--output", help="the picture, .png or .svg (default: report.png in the data directory)")
    report.add_argument("--top", type=_at_least(1), default=BEST_SIGNALS, help="how many signals (default: 5)")
    report.add_argument("--since", type=_since, help="evaluated since: 90m, 2h, 3d, an ISO date or time")


def _statuses(text: str):
    from quillmarsh.signals import parse_statuses
    try:
        return parse_statuses(text)
    except ValueError as exc:
        raise argparse.ArgumentTypeError(str(exc)) from None


def _since(text: str) -> float:
    from quillmarsh.signals import parse_since
    try:
        return parse_since(text)
    except ValueError as exc:
        raise argparse.ArgumentTypeError(str(exc)) from None


def _data_dir_of(args) -> Path:
    """The data directory named by the arguments, as it is: the viewing commands never create one."""
    import os
    from quillmarsh.local.platform import DEFAULT_DATA_DIR
    return Path(os.path.expanduser(args.data_dir or DEFAULT_DATA_DIR)).resolve()


def _read_store(data_dir: Path):
    from quillmarsh.signals import open_store
    try:
        return open_store(data_dir)
    except FileNotFoundError as exc:
        raise CliError(str(exc)) from None


def _follow_search(handle, conn, data_dir: Path, seconds: float, out):
    """The live view of a search of this process for `seconds`, then stop it; returns the last snapshot."""
    from quillmarsh.live import HandleSource, follow, plain_line

    source = HandleSource(handle, conn, publish_dir=data_dir)
    try:
        follow(source, out, seconds=seconds, interval=PROGRESS_INTERVAL, plain_interval=PLAIN_PROGRESS_INTERVAL)
    finally:
        handle.stop()
    snap = source.snapshot()  # published too: a watcher learns that the search has stopped
    if not out.isatty():
        print(plain_line(snap), file=out, flush=True)
    return snap


def run_watch(args, out=None) -> None:
    from quillmarsh.live import DirectorySource, follow

    out = out or sys.stdout
    data_dir = _data_dir_of(args)
    conn = _read_store(data_dir)
    try:
        follow(DirectorySource(data_dir, conn), out, seconds=args.seconds, interval=args.interval,
               plain_interval=args.plain_interval)
    except KeyboardInterrupt:  # the way to leave a watch
        pass
    finally:
        conn.close()


def run_signals(args, out=None) -> None:
    from quillmarsh.signals import load_signals, write_signals

    out = out or sys.stdout
    conn = _read_store(_data_dir_of(args))
    try:
        signals = load_signals(conn, statuses=args.status, limit=args.limit, since=args.since,
                               distinct=not args.all_evaluations)
    finally:
        conn.close()
    write_signals(signals, args.format, out)


def run_report(args, out=None) -> Path:
    from quillmarsh.report import PICTURE_SUFFIXES, best_distinct, draw_report, local_evaluator_for, pnl_curves
    from quillmarsh.report import rejection_counts

    out = out or sys.stdout
    data_dir = _data_dir_of(args)
    path = Path(args.output).expanduser() if args.output else data_dir / "report.png"
    if path.suffix.lower() not in PICTURE_SUFFIXES:
        raise CliError(f"--output must end in .png or .svg, got {path.name!r}")
    conn = _read_store(data_dir)
    try:
        signals = best_distinct(conn, args.top, args.since)
        rejections = rejection_counts(conn, args.since)
    finally:
        conn.close()
    curves = []
    if signals:
        try:
            evaluator = local_evaluator_for(data_dir)
        except FileNotFoundError as exc:
            raise CliError(str(exc)) from None
        curves = [pnl_curves(evaluator, s) for s in signals]
    draw_report(path, signals, curves, rejections, title=f"quillmarsh: best signals of {data_dir}")
    print(f"{len(signals)} signal(s), {sum(n for _, n in rejections)} rejections: {path}", file=out)
    return path


COMMANDS.update({"watch": run_watch, "signals": run_signals, "report": run_report})


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

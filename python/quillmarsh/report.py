"""One picture of what a search found: the cumulative pnl of the best signals in sample and out of sample,
side by side, and the distribution of the reasons the other expressions were rejected.

The pnl series are recomputed by the local evaluator over the market of the data directory: the in-sample
days are those the search was judged on, the held-out days those it never saw. The file type follows the
suffix of the path: .png or .svg.
"""
from __future__ import annotations

import json
import math
import re
import sqlite3
from collections.abc import Sequence
from pathlib import Path
from typing import Any

from quillmarsh.signals import Signal, load_signals

__all__ = ["PICTURE_SUFFIXES", "rejection_counts", "best_distinct", "local_evaluator_for", "pnl_curves",
           "draw_report"]

PICTURE_SUFFIXES = (".png", ".svg")
_MARKET_FILE = re.compile(r"^market_v\d+_(\d+)x(\d+)_s(-?\d+)_e([0-9.eE+-]+)\.npz$")


def rejection_counts(conn: sqlite3.Connection, since: float | None = None) -> list[tuple[str, int]]:
    """(reason, count) of the rejected evaluations, most frequent first."""
    sql = ("SELECT COALESCE(rejection_reason, failure_reason, 'unspecified'), COUNT(*) FROM signal_evaluations "
           "WHERE passed = 0")
    params: tuple = ()
    if since is not None:
        sql, params = sql + " AND created_at >= ?", (float(since),)
    return [(str(r), int(n)) for r, n in conn.execute(sql + " GROUP BY 1 ORDER BY 2 DESC, 1", params)]


def best_distinct(conn: sqlite3.Connection, limit: int, since: float | None = None) -> list[Signal]:
    """The best signals with one entry per expression."""
    return [s for s in load_signals(conn, since=since) if isinstance(s.graph, dict)][:limit]


def local_evaluator_for(data_dir: str | Path) -> Any:
    """The local evaluator over the market and era that a search in ``data_dir`` used.

    The market is the one cached in the data directory (the newest, if several are); the era is the
    directory's era configuration. FileNotFoundError when the directory holds no market.
    """
    from quillmarsh.local.era import LocalEraConfig
    from quillmarsh.local.evaluator import LocalEvaluator
    from quillmarsh.local.market import read_market
    from quillmarsh.sync import ERA_CONFIG_FILE_NAME

    data_dir = Path(data_dir)
    markets = sorted((p for p in (data_dir / "local_market").glob("market_*.npz") if _MARKET_FILE.match(p.name)),
                     key=lambda p: p.stat().st_mtime)
    if not markets:
        raise FileNotFoundError(f"no local market in {data_dir / 'local_market'}: run a search here first")
    match = _MARKET_FILE.match(markets[-1].name)
    assert match is not None
    era_path = data_dir / ERA_CONFIG_FILE_NAME
    era = LocalEraConfig(json.loads(era_path.read_text())) if era_path.is_file() else LocalEraConfig()
    return LocalEvaluator(read_market(markets[-1]), seed=int(match.group(3)), era=era)


def pnl_curves(evaluator: Any, signal: Signal) -> tuple[Any, Any]:
    """Daily pnl of ``signal`` in sample and held out, in the era's primary pnl column."""
    import numpy as np

    from quillmarsh.local.evaluator import _primary_column

    raw = evaluator.evaluate_expression(signal.graph)
    series = evaluator.pnl_series(raw, signal.metaparameters)
    pnl = np.nan_to_num(np.asarray(series[_primary_column(evaluator.era)], dtype=float))
    n = evaluator.in_sample_days
    return pnl[:n], pnl[n:]


def _fmt(value: float | None) -> str:
    return "-" if value is None or not math.isfinite(value) else f"{value:.2f}"


def _sharpe(pnl: Any) -> float:
    """Annualised Sharpe ratio of a daily pnl series, 0 for a flat one."""
    if len(pnl) < 2:
        return 0.0
    sd = float(pnl.std(ddof=1))
    return float(pnl.mean()) / sd * math.sqrt(252.0) if sd > 0 else 0.0


def _label(rank: int, s: Signal, limit: int = 70) -> str:
    expression = s.expression if len(s.expression) <= limit else s.expression[: limit - 1] + "…"
    return f"#{rank} {expression}"


def draw_report(path: str | Path, signals: Sequence[Signal], curves: Sequence[tuple[Any, Any]],
                rejections: Sequence[tuple[str, int]], title: str = "quillmarsh: best signals") -> Path:
    """Draw the picture to ``path`` (.png or .svg) and return the path."""
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    import numpy as np

    path = Path(path)
    if path.suffix.lower() not in PICTURE_SUFFIXES:
        raise ValueError(f"the picture must be .png or .svg, got {path.name!r}")
    fig = plt.figure(figsize=(13, 10))
    grid = fig.add_gridspec(3, 2, height_ratios=(3, 0.2 + 0.22 * max(1, len(signals)), 2))
    ax_in, ax_out = fig.add_subplot(grid[0, 0]), fig.add_subplot(grid[0, 1])
    ax_legend, ax_rej = fig.add_subplot(grid[1, :]), fig.add_subplot(grid[2, :])
    ax_out.sharey(ax_in)
    handles, labels = [], []
    for rank, (s, (pnl_in, pnl_out)) in enumerate(zip(signals, curves), 1):
        line, = ax_in.plot(np.cumsum(pnl_in), linewidth=1.2)
        start = len(pnl_in)
        ax_out.plot(np.arange(start, start + len(pnl_out)), np.cumsum(pnl_out), color=line.get_color(),
                    linewidth=1.2)
        service = "" if s.os_sharpe is None else f", service's sharpe {s.os_sharpe:.2f}"
        handles.append(line)
        labels.append(f"{_label(rank, s, 90)}   sharpe in sample {_fmt(s.sharpe)}, held out "
                      f"{_fmt(_sharpe(pnl_out))}; {s.submission_status or s.status}{service}")
    ax_in.set_title("in sample: cumulative pnl")
    ax_out.set_title("out of sample (days the search never saw): cumulative pnl")
    for ax in (ax_in, ax_out):
        ax.set_xlabel("trading day")
        ax.grid(alpha=0.3)
        if not signals:
            ax.text(0.5, 0.5, "no signal passed", ha="center", va="center", transform=ax.transAxes)
    ax_in.set_ylabel("cumulative pnl (book = 1)")
    ax_legend.axis("off")
    if signals:
        ax_legend.legend(handles, labels, loc="center", fontsize=8, frameon=False)
    if rejections:
        reasons = [r for r, _ in rejections][::-1]
        counts = [n for _, n in rejections][::-1]
        total = sum(counts)
        bars = ax_rej.barh(reasons, counts, color="#b55")
        for bar, n in zip(bars, counts):
            ax_rej.text(bar.get_width(), bar.get_y() + bar.get_height() / 2, f" {n} ({100.0 * n / total:.1f}%)",
                        va="center", fontsize=8)
        ax_rej.set_xlim(0, max(counts) * 1.18)
        ax_rej.set_xlabel("rejected evaluations")
        ax_rej.tick_params(axis="y", labelsize=8)
    else:
        ax_rej.text(0.5, 0.5, "no rejections", ha="center", va="center", transform=ax_rej.transAxes)
    ax_rej.set_title("why the other expressions were rejected")
    fig.suptitle(title)
    fig.tight_layout()
    path.parent.mkdir(parents=True, exist_ok=True)
    fig.savefig(path, dpi=110)
    plt.close(fig)
    return path

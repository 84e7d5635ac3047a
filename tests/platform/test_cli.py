"""The quillmarsh command: arguments, expression printing, the summary, and a short demo run."""
import json
import os
import sqlite3
import stat

import pytest

from quillmarsh import agent_onboarding, cli


@pytest.mark.parametrize("argv, fragment", [
    (["demo", "--jobs", "0"], "--jobs: must be at least 1"),
    (["demo", "--minutes", "-1"], "--minutes: must be a positive number"),
    (["demo", "--minutes", "soon"], "--minutes: expected a number"),
    (["bogus"], "invalid choice"),
    (["demo", "--template", "genetic"], "--template: invalid choice"),
    ([], "required"),
    (["signals", "--status", "acepted"], "unknown status acepted"),
    (["signals", "--since", "yesterday"], "expected a duration"),
    (["signals", "--limit", "0"], "must be at least 1"),
])
def test_bad_arguments_give_one_line_and_exit_non_zero(capsys, argv, fragment):
    with pytest.raises(SystemExit) as info:
        cli.main(argv)
    assert info.value.code == 2
    err = capsys.readouterr().err
    assert fragment in err and "Traceback" not in err


@pytest.mark.parametrize("kind", [
    pytest.param("unwritable", marks=pytest.mark.skipif(os.geteuid() == 0,
                                                        reason="root writes through directory permissions")),
    "a file",
])
def test_a_bad_data_dir_is_one_line(tmp_path, capsys, kind):
    target = tmp_path / "d"
    if kind == "a file":
        target.write_text("x")
    else:
        target.mkdir()
        target.chmod(stat.S_IRUSR | stat.S_IXUSR)
        target = target / "inner"
    assert cli.main(["status", "--data-dir", str(target)]) == 1
    err = capsys.readouterr().err.strip()
    assert err.startswith("quillmarsh status: data directory") and "\n" not in err


@pytest.mark.parametrize("graph, text", [
    ({"type": "rotation", "node": "cs_rank", "children": [
        {"type": "rotation", "node": "ts_mean_20", "children": [{"type": "feature", "node": "f_3a9c"}]}]},
     "cs_rank(ts_mean_20(f_3a9c))"),
    ({"type": "rotation", "node": "ts_corr", "children": [
        {"type": "feature", "node": "a"}, {"type": "feature", "node": "b"}, {"type": "int", "node": 20},
        {"type": "string", "node": "x"}]}, "ts_corr(a, b, 20, 'x')"),
    ({"type": "feature", "node": "f1"}, "f1"),
    ("odd", "'odd'"),
])
def test_expressions_print_in_functional_form(graph, text):
    assert cli.format_expression(graph) == text


@pytest.fixture
def store(tmp_path):
    conn = sqlite3.connect(tmp_path / "s.db")
    conn.execute("CREATE TABLE signal_evaluations (graph_json TEXT, passed INTEGER, rejection_reason TEXT, "
                 "sharpe REAL, returns REAL, turnover REAL, quality_score REAL, is_pnl_mi REAL, created_at REAL)")
    rows = [(None, 1, None, 2.0, 0.1, 0.2, 1.5, 0.4, 10.0), (None, 1, None, 3.0, 0.2, 0.3, 2.0, 0.5, 10.0),
            (None, 1, None, 2.5, 0.2, 0.3, 2.0, 0.5, 10.0),
            (None, 0, "turnover_exceeded", 0.5, 0, 0, 0, None, 10.0),
            (None, 0, "turnover_exceeded", 0.5, 0, 0, 0, None, 10.0),
            (None, 1, None, 9.0, 0, 0, 0, None, 1.0)]  # before the search began
    graphs = [json.dumps({"type": "rotation", "node": "cs_rank", "children": [{"type": "feature", "node": f}]})
              for f in ("a", "b", "b", "c", "c", "d")]
    conn.executemany("INSERT INTO signal_evaluations VALUES (?,?,?,?,?,?,?,?,?)",
                     [(g,) + r[1:] for g, r in zip(graphs, rows)])
    return conn


def test_outcomes_and_best_signals_come_from_this_run_only(store):
    assert cli.outcome_counts(store, 5.0) == [("passed", 3), ("turnover_exceeded", 2)]
    best = cli.best_signals(store, 5.0)
    assert [(g["children"][0]["node"], m["sharpe"]) for g, m in best] == [("b", 3.0), ("a", 2.0)]
    assert best[0][1]["fitness"] == 2.0


def test_demo_runs_a_short_search_on_a_small_market(tmp_path, capsys, restore_onboarding):
    data_dir = tmp_path / "platform"
    code = cli.main(["demo", "--minutes", "0.05", "--data-dir", str(data_dir), "--instruments", "60",
                     "--days", "300", "--jobs", "2"])
    out = capsys.readouterr().out
    assert code == 0, out
    assert "expressions evaluated" in out and "Picture of the best signals" in out
    assert "adaptive_weighted in the last search" in out and "exploration share" in out  # the default template
    # not a terminal: the live view is plain progress lines, and the last one says the search stopped
    progress = [line for line in out.splitlines() if " elapsed " in line and " eval/s " in line]
    assert progress and "\x1b" not in out and " stopped " in progress[-1]
    assert " explore " in progress[-1]  # the learning template's exploration share
    published = json.loads((data_dir / "live_status.json").read_text())
    assert published["running"] is False and published["evaluated"] > 0
    assert (data_dir / "shuffle_seed.enc").stat().st_size == 60
    assert stat.S_IMODE((data_dir / "private_key").stat().st_mode) == 0o600
    assert (data_dir / "best_signals.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
    # Every signal that passed went to the service, which the demo started and stopped, and was judged there.
    service = sqlite3.connect(data_dir / "signal_service.sqlite3")
    sent, accepted, waiting = service.execute(
        "SELECT COUNT(*), SUM(status IN ('found', 'useful')), SUM(status = 'is_validating') FROM submissions").fetchone()
    passed = sqlite3.connect(data_dir / "search_tracking.db").execute(
        "SELECT COUNT(*) FROM signal_evaluations WHERE passed = 1").fetchone()[0]
    assert sent <= passed and not waiting  # a body that passed twice is one submission
    assert f"{sent} signals sent to the signal service; {accepted or 0} accepted out of sample" in out


def test_the_report_renders_as_tables_heaviest_first():
    weights = {"a": {"warm_weight": 0.2, "cold_weight": 0.5, "yield_rate": 0.1, "evaluation_count": 4,
                     "function_family": "ts"},
               "b": {"warm_weight": 0.8, "cold_weight": 0.5, "yield_rate": 0.3, "evaluation_count": 9,
                     "function_family": "cs"}}
    text = cli.render_report({"analytics_rows_seen": 3, "function_weights": weights, "feature_weights": {},
                              "unsafe_functions": {"z": "engine_only runtime transform"}})
    rows = [line.split() for line in text.splitlines()]
    assert [r[0] for r in rows if r and r[0] in ("a", "b")] == ["b", "a"]
    assert ["b", "0.8000", "0.5000", "-", "0.300", "9", "cs"] in rows
    assert ["z", "engine_only", "runtime", "transform"] in rows and "features" not in text

"""`quillmarsh signals` on a store filled by a short search: each format, the filters, and bad arguments."""
import csv
import io
import json
import sqlite3

import pytest

from quillmarsh import cli, signals


def run(capsys, *argv):
    code = cli.main(["signals", *argv])
    captured = capsys.readouterr()
    assert code == 0, captured.err
    return captured.out


def passing_count(data_dir, distinct=True):
    what = "DISTINCT graph_json" if distinct else "*"
    with sqlite3.connect(data_dir / "search_tracking.db") as db:
        return db.execute(f"SELECT COUNT({what}) FROM signal_evaluations WHERE passed = 1").fetchone()[0]


def test_json_holds_every_signal_best_first_with_its_verdict(searched_dir, capsys):
    data_dir, ids = searched_dir
    records = json.loads(run(capsys, "--data-dir", str(data_dir), "--format", "json"))
    assert len(records) == passing_count(data_dir)
    sharpes = [r["sharpe"] for r in records]
    assert sharpes == sorted(sharpes, reverse=True)
    by_id = {r["eval_id"]: r for r in records}
    found, rejected = by_id[ids["found"]], by_id[ids["is_rejected"]]
    assert (found["status"], found["submission_status"], found["os_sharpe"], found["os_fitness"],
            found["os_correlation"]) == ("accepted", "found", 1.25, 0.8, 0.25)
    assert found["finalized_at"] is not None
    assert (rejected["status"], rejected["rejection_reason"], rejected["os_sharpe"]) == \
        ("rejected", "os_sharpe_below_threshold", -0.4)
    pending = by_id[ids["is_validating"]]
    assert (pending["status"], pending["finalized_at"], pending["os_sharpe"]) == ("pending", None, None)
    assert (by_id[ids["retrying"]]["status"], by_id[ids["retrying"]]["retry_count"]) == ("retrying", 2)
    # the rest wait in the queue; a pass recorded just as the search stopped is kept but never queued
    assert "queued" in {r["status"] for r in records} - {"accepted", "rejected", "pending", "retrying"} <= {
        "queued", "unsent"}
    # the expression is the graph in functional form
    assert all(r["expression"] == signals.format_expression(r["graph"]) for r in records)


def test_an_expression_that_passed_twice_is_listed_once_by_its_furthest_submission(searched_dir, capsys,
                                                                                   tmp_path):
    data_dir, ids = searched_dir
    copy = tmp_path / "copy"
    copy.mkdir()
    with sqlite3.connect(data_dir / "search_tracking.db") as src, \
            sqlite3.connect(copy / "search_tracking.db") as dst:
        src.backup(dst)
        # the accepted expression passes again and waits in the queue
        dst.execute("INSERT INTO signal_evaluations SELECT 'again', era_id, universe_id, pool_id, graph_json, "
                    "function_names, feature_names, metaparameters_json, passed, rejection_reason, sharpe, returns, "
                    "turnover, drawdown, delta_exposure, max_weight, quality_score, correlation, abs_weight_sum_mean, "
                    "stats_json, per_column_stats_json, expression_elapsed_seconds, is_correlation, is_pnl_mi, "
                    "agent_is_pnl_mi, is_weights_mi, failure_reason, failure_detail, submitted, created_at + 1 "
                    "FROM signal_evaluations WHERE eval_id = ?", (ids["found"],))
        dst.execute("INSERT INTO submission_queue (eval_id, eval_type, payload_json, era_id, created_at) "
                    "VALUES ('again', 'signal', '{}', 1, 0)")
    distinct = json.loads(run(capsys, "--data-dir", str(copy), "--format", "json"))
    every = json.loads(run(capsys, "--data-dir", str(copy), "--format", "json", "--all-evaluations"))
    assert len(every) == passing_count(copy, distinct=False) > len(distinct) == passing_count(copy)
    assert [r["status"] for r in distinct if r["eval_id"] in (ids["found"], "again")] == ["accepted"]
    assert {r["eval_id"]: r["status"] for r in every}["again"] == "queued"


def test_csv_and_table_show_what_json_holds(searched_dir, capsys):
    data_dir, ids = searched_dir
    records = json.loads(run(capsys, "--data-dir", str(data_dir), "--format", "json"))
    rows = list(csv.DictReader(io.StringIO(run(capsys, "--data-dir", str(data_dir), "--format", "csv"))))
    assert tuple(rows[0]) == signals.SIGNAL_FIELDS and [r["eval_id"] for r in rows] == [r["eval_id"] for r in records]
    for row, record in zip(rows, records):
        assert (float(row["os_sharpe"]) if row["os_sharpe"] else None) == record["os_sharpe"]
        assert float(row["sharpe"]) == record["sharpe"] and row["status"] == record["status"]
    lines = run(capsys, "--data-dir", str(data_dir), "--limit", "3").splitlines()
    assert lines[0].split()[:3] == ["#", "sharpe", "fitness"]
    for rank, (line, record) in enumerate(zip(lines[2:], records), 1):
        assert line.split()[0] == str(rank) and f"{record['sharpe']:.2f}" in line.split()
        assert line.endswith(record["expression"])
    assert len(lines[2:]) == 3


@pytest.mark.parametrize("argv, expected", [
    (["--status", "accepted"], {"found"}),
    (["--status", "rejected,pending"], {"is_rejected", "is_validating"}),
    (["--status", "found"], {"found"}),                          # a raw status of the service
    (["--status", "is_validating,retrying"], {"is_validating", "retrying"}),
    (["--status", "queued"], "queued"),
    (["--since", "2999-01-01"], set()),
    (["--since", "1d"], "all"),
    (["--limit", "2"], 2),
])
def test_filters(searched_dir, capsys, argv, expected):
    data_dir, ids = searched_dir
    records = json.loads(run(capsys, "--data-dir", str(data_dir), "--format", "json", *argv))
    found = {r["eval_id"] for r in records}
    if expected == "queued":
        assert found and not found & set(ids.values())
    elif expected == "all":
        assert len(records) == passing_count(data_dir)
    elif isinstance(expected, int):
        assert len(records) == expected
    else:
        assert found == {ids[name] for name in expected}


def test_a_directory_without_a_store_is_one_line_and_stays_empty(tmp_path, capsys):
    assert cli.main(["signals", "--data-dir", str(tmp_path / "none")]) == 1
    assert "no tracking store" in capsys.readouterr().err
    assert not (tmp_path / "none").exists()


@pytest.mark.parametrize("text, seconds_ago", [("90m", 5400.0), ("2h", 7200.0), ("1.5d", 129600.0), ("3w", 1814400.0)])
def test_durations_count_back_from_now(text, seconds_ago):
    assert signals.parse_since(text, now=10_000_000.0) == 10_000_000.0 - seconds_ago


def test_a_store_from_before_the_submission_tables_reads_as_unsent(tmp_path):
    conn = sqlite3.connect(tmp_path / "old.db")
    conn.execute("CREATE TABLE signal_evaluations (eval_id TEXT, graph_json TEXT, passed INTEGER, sharpe REAL, "
                 "created_at REAL)")
    conn.executemany("INSERT INTO signal_evaluations VALUES (?, ?, ?, ?, ?)", [
        ("a", json.dumps({"type": "feature", "node": "f1"}), 1, 1.0, 1.0),
        ("b", json.dumps({"type": "feature", "node": "f2"}), 1, 2.0, 2.0),
        ("c", "{}", 0, 3.0, 3.0)])
    found = signals.load_signals(conn)
    assert [(s.eval_id, s.status, s.fitness, s.os_sharpe) for s in found] == [("b", "unsent", None, None),
                                                                              ("a", "unsent", None, None)]


def test_json_stays_strict_with_a_non_finite_constant_in_a_graph(tmp_path):
    conn = sqlite3.connect(tmp_path / "s.db")
    conn.execute("CREATE TABLE signal_evaluations (eval_id TEXT, graph_json TEXT, passed INTEGER, sharpe REAL, "
                 "created_at REAL)")
    graph = '{"type": "rotation", "node": "add", "children": [{"type": "float", "node": NaN}]}'
    conn.execute("INSERT INTO signal_evaluations VALUES ('a', ?, 1, NULL, 1.0)", (graph,))
    out = io.StringIO()
    signals.write_signals(signals.load_signals(conn), "json", out)
    record, = json.loads(out.getvalue(), parse_constant=lambda c: pytest.fail(f"non-strict JSON: {c}"))
    assert record["graph"]["children"][0]["node"] == "nan" and record["sharpe"] is None

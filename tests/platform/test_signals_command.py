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
    assert {r["status"] for r in records} - {"accepted", "rejected", "pending", "retrying"} == {"queued"}
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


def test_csv_has_the_json_columns_and_values(searched_dir, capsys):
    data_dir, ids = searched_dir
    rows = list(csv.DictReader(io.StringIO(run(capsys, "--data-dir", str(data_dir), "--format", "csv"))))
    assert tuple(rows[0]) == signals.SIGNAL_FIELDS
    records = json.loads(run(capsys, "--data-dir", str(data_dir), "--format", "json"))
    assert [r["eval_id"] for r in rows] == [r["eval_id"] for r in records]
    for row, record in zip(rows, records):
        for field in ("sharpe", "os_sharpe", "turnover"):
            assert (float(row[field]) if row[field] else None) == record[field]
        assert row["status"] == record["status"] and row["expression"] == record["expression"]


def test_table_lists_rank_status_and_expression(searched_dir, capsys):
    data_dir, ids = searched_dir
    lines = run(capsys, "--data-dir", str(data_dir), "--limit", "3").splitlines()
    assert lines[0].split()[:3] == ["#", "sharpe", "fitness"]
    body = lines[2:]
    assert [line.split()[0] for line in body] == ["1", "2", "3"]
    records = json.loads(run(capsys, "--data-dir", str(data_dir), "--format", "json", "--limit", "3"))
    for line, record in zip(body, records):
        assert line.endswith(record["expression"])
        assert f"{record['sharpe']:.2f}" in line.split()


@pytest.mark.parametrize("status, expected", [
    ("accepted", {"found"}),
    ("rejected,pending", {"is_rejected", "is_validating"}),
    ("found", {"found"}),
    ("is_validating,retrying", {"is_validating", "retrying"}),
])
def test_status_filter_keeps_groups_and_raw_statuses(searched_dir, capsys, status, expected):
    data_dir, ids = searched_dir
    records = json.loads(run(capsys, "--data-dir", str(data_dir), "--format", "json", "--status", status))
    assert {r["eval_id"] for r in records} == {ids[name] for name in expected}


def test_queued_filter_and_limit(searched_dir, capsys):
    data_dir, ids = searched_dir
    queued = json.loads(run(capsys, "--data-dir", str(data_dir), "--format", "json", "--status", "queued"))
    assert queued and not {r["eval_id"] for r in queued} & set(ids.values())
    assert len(json.loads(run(capsys, "--data-dir", str(data_dir), "--format", "json", "--limit", "2"))) == 2


@pytest.mark.parametrize("since, everything", [("1d", True), ("2999-01-01", False), ("0", True)])
def test_since_filter(searched_dir, capsys, since, everything):
    data_dir, _ = searched_dir
    records = json.loads(run(capsys, "--data-dir", str(data_dir), "--format", "json", "--since", since))
    assert len(records) == (passing_count(data_dir) if everything else 0)


@pytest.mark.parametrize("argv, fragment", [
    (["--status", "acepted"], "unknown status acepted"),
    (["--since", "yesterday"], "expected a duration"),
    (["--limit", "0"], "must be at least 1"),
    (["--format", "xml"], "invalid choice"),
])
def test_bad_filters_are_one_line(capsys, argv, fragment):
    with pytest.raises(SystemExit) as info:
        cli.main(["signals", *argv])
    assert info.value.code == 2 and fragment in capsys.readouterr().err


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

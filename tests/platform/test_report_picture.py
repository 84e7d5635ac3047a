"""`quillmarsh report`: the picture of the best signals in and out of sample, and its pnl curves."""
import math

import numpy as np
import pytest

from quillmarsh import cli, report, signals


@pytest.mark.parametrize("name, magic", [("best.png", b"\x89PNG\r\n\x1a\n"), ("best.svg", b"<?xml")])
def test_report_draws_a_png_or_an_svg(searched_dir, tmp_path, capsys, name, magic):
    data_dir, _ = searched_dir
    path = tmp_path / name
    assert cli.main(["report", "--data-dir", str(data_dir), "--output", str(path), "--top", "3"]) == 0
    assert path.read_bytes()[: len(magic)] == magic
    assert capsys.readouterr().out.startswith("3 signal(s), ")


def test_pnl_curves_split_at_the_held_out_days_and_match_the_stored_sharpe(searched_dir):
    data_dir, _ = searched_dir
    evaluator = report.local_evaluator_for(data_dir)
    with signals.open_store(data_dir) as conn:
        best = report.best_distinct(conn, 3)
    assert len({s.expression for s in best}) == len(best) == 3
    days = evaluator.market.shape[0]
    for s in best:
        pnl_in, pnl_out = report.pnl_curves(evaluator, s)
        assert (len(pnl_in), len(pnl_in) + len(pnl_out)) == (evaluator.in_sample_days, days)
        mean, sd = pnl_in.mean(), pnl_in.std(ddof=1)
        assert mean / sd * math.sqrt(252) == pytest.approx(s.sharpe, rel=1e-6)
        assert np.isfinite(pnl_out).all()


def test_rejection_counts_add_up_to_the_failed_evaluations(searched_dir):
    data_dir, _ = searched_dir
    with signals.open_store(data_dir) as conn:
        counts = report.rejection_counts(conn)
        failed = conn.execute("SELECT COUNT(*) FROM signal_evaluations WHERE passed = 0").fetchone()[0]
    assert sum(n for _, n in counts) == failed and counts
    assert [n for _, n in counts] == sorted((n for _, n in counts), reverse=True)


def test_a_store_where_nothing_passed_still_gets_its_picture(tmp_path):
    path = report.draw_report(tmp_path / "empty.svg", [], [], [])
    assert path.read_bytes().startswith(b"<?xml") and b"no signal passed" in path.read_bytes()
    with pytest.raises(ValueError, match="must be .png or .svg"):
        report.draw_report(tmp_path / "empty.gif", [], [], [])


def test_report_refuses_another_picture_type(searched_dir, tmp_path, capsys):
    data_dir, _ = searched_dir
    assert cli.main(["report", "--data-dir", str(data_dir), "--output", str(tmp_path / "x.jpg")]) == 1
    assert "--output must end in .png or .svg" in capsys.readouterr().err and not (tmp_path / "x.jpg").exists()

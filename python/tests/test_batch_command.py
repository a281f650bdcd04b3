"""zor-batch: the pairs file as a user writes it, records that survive a kill, reruns
that skip what is done, reports, the summary and the exit status."""

import json
import os
import subprocess
import sys

import numpy as np
import pytest

import zor
from zor import batch_command
from conftest import turn


@pytest.fixture(scope="module")
def folder(tmp_path_factory):
    folder = tmp_path_factory.mktemp("scans")
    fixed = zor.sample_body(6000)
    fixed.save(folder / "fixed.ply")
    for i, angle in enumerate((25, 140)):
        fixed.transformed(turn(angle, (1, i, 2), (i, -2.0, 3.0))).save(folder / f"part{i}.stl")
    (folder / "pairs.csv").write_text(
        "moving,fixed,name\n# a comment, then a blank line\n\n"
        "part0.stl,fixed.ply\n"
        f"{folder / 'part1.stl'},fixed.ply,second\n"
        "missing.stl,fixed.ply,lost\n"
    )
    return folder


def run(folder, out, *extra):
    return batch_command.main([str(folder / "pairs.csv"), "--out", str(out), "--workers", "0", "--quiet", "--samples", "300", *extra])


def records(out):
    return [json.loads(line) for line in out.read_text().splitlines()]


def test_a_batch_writes_one_record_a_pair_and_fails_when_a_pair_fails(folder, tmp_path, capsys):
    out = tmp_path / "results.jsonl"
    assert run(folder, out, "--reports", str(tmp_path / "reports")) == 1
    got = records(out)
    assert [r["name"] for r in got] == ["part0-fixed", "second", "lost"]
    assert got[0]["moving"] == str(folder / "part0.stl") and got[0]["fixed"] == str(folder / "fixed.ply")
    assert [r["ok"] for r in got] == [True, True, False] and "missing.stl" in got[2]["failure"]
    single = zor.register(zor.load(folder / "part0.stl"), zor.load(folder / "fixed.ply"), samples=300)
    assert np.array_equal(np.array(got[0]["transform"]), single.transform)
    assert sorted(os.listdir(tmp_path / "reports")) == ["part0-fixed.html", "second.html"]
    assert got[1]["report"] == str(tmp_path / "reports" / "second.html")
    assert "3 pairs: 2 registered, 0 doubtful, 1 failed" in capsys.readouterr().out


def test_a_rerun_skips_what_is_done_and_redoes_a_line_cut_short(folder, tmp_path, capsys):
    out = tmp_path / "results.jsonl"
    run(folder, out)
    lines = out.read_text().splitlines(keepends=True)
    out.write_text(lines[0] + lines[1][: len(lines[1]) // 2])  # killed while writing the second
    capsys.readouterr()
    assert run(folder, out) == 1
    assert [r["name"] for r in records(out)] == ["part0-fixed", "second", "lost"]
    assert "(1 already in" in capsys.readouterr().out
    assert run(folder, out) == 1 and len(records(out)) == 3
    # Retried, a failure stays a failure, and its new record is the one that counts.
    assert run(folder, out, "--retry-failed") == 1
    assert [r["name"] for r in records(out)] == ["part0-fixed", "second", "lost", "lost"]
    assert "(2 already in" in capsys.readouterr().out


def test_faults_of_the_pairs_file_register_nothing(tmp_path, capsys):
    bad = {
        "columns": "a.stl\n",
        "empty path": "a.stl,,name\n",
        "same name": "a.stl,b.stl,x\nc.stl,d.stl,x\n",
        "same files": "a.stl,b.stl\na.stl,b.stl\n",
    }
    for kind, text in bad.items():
        pairs = tmp_path / f"{kind}.csv"
        pairs.write_text(text)
        out = tmp_path / f"{kind}.jsonl"
        assert batch_command.main([str(pairs), "--out", str(out), "--workers", "0"]) == 2, kind
        assert not out.exists(), kind
    assert "already that of line 1" in capsys.readouterr().err
    assert batch_command.main([str(tmp_path / "none.csv"), "--out", str(tmp_path / "o.jsonl")]) == 2
    with pytest.raises(SystemExit):
        batch_command.main([str(tmp_path / "x.csv"), "--out", "o.jsonl", "--polish", "maybe"])


def test_options_are_those_of_register_and_records_are_plain_json():
    options = batch_command._register_options()
    assert tuple(options) == zor.batch.REGISTER_PARAMETERS
    assert options["samples"] == ("int", "500") and options["polish"][0] == "bool"
    plain = batch_command._plain({"a": np.eye(2), "b": float("nan"), "c": [np.float64(1.5), float("inf")]})
    assert json.dumps(plain, allow_nan=False) == '{"a": [[1.0, 0.0], [0.0, 1.0]], "b": null, "c": [1.5, null]}'


def test_the_command_on_a_local_cluster(folder, tmp_path):
    pytest.importorskip("distributed")
    out = tmp_path / "results.jsonl"
    done = subprocess.run(
        [sys.executable, "-m", "zor.batch_command", str(folder / "pairs.csv"), "--out", str(out), "--workers", "2",
         "--threads", "1", "--samples", "300"],
        capture_output=True, text=True, timeout=300, env=dict(os.environ),
    )
    assert done.returncode == 1, done.stderr
    assert [r["ok"] for r in records(out)] == [True, True, False]
    here = tmp_path / "here.jsonl"
    run(folder, here)
    assert [r["transform"] for r in records(out)[:2]] == [r["transform"] for r in records(here)[:2]]

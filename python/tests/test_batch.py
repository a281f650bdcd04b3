"""Batches of file pairs: in process and on a local Dask cluster of two worker
processes, with the same transforms, the input order kept and failures as records, also
when a worker is killed in the middle of a batch."""

import os
import signal

import numpy as np
import pytest

import zor
from conftest import turn


@pytest.fixture(scope="module")
def pairs(tmp_path_factory):
    folder = tmp_path_factory.mktemp("pairs")
    fixed = zor.sample_body(8000)
    fixed.save(folder / "fixed.ply")
    out = []
    for i, angle in enumerate((20, 75, 130, 170)):
        path = folder / f"moving{i}.stl"
        fixed.transformed(turn(angle, (1, i, 2), (i, -2.0, 3.0))).save(path)
        out.append((path, folder / "fixed.ply"))
    (folder / "broken.stl").write_bytes(b"solid x\nfacet normal 0 0 1\nouter loop\nvertex 1 2\n")
    out.insert(2, (folder / "broken.stl", folder / "fixed.ply"))
    return out


def check_records(records, pairs):
    assert [(r["moving"], r["fixed"]) for r in records] == [(str(m), str(f)) for m, f in pairs]
    failed = [r for r in records if not r["ok"]]
    assert len(failed) == 1 and failed[0]["moving"].endswith("broken.stl")
    assert failed[0]["failure"].startswith("ValueError:") and "broken.stl" in failed[0]["failure"]
    for r in records:
        if r["ok"]:
            assert r["failure"] is None and r["transform"].shape == (4, 4) and not r["doubtful"]


def test_in_process_batch_keeps_order_and_gives_failures_as_records(pairs):
    records = zor.batch.register_pairs(pairs, samples=300, threads=1)
    check_records(records, pairs)
    single = zor.register(zor.load(pairs[0][0]), zor.load(pairs[0][1]), samples=300)
    assert np.array_equal(records[0]["transform"], single.transform)
    with pytest.raises(TypeError, match="unknown parameter"):
        zor.batch.register_pairs(pairs, sample=300)
    with pytest.raises(ValueError, match="each pair"):
        zor.batch.register_pairs(["a.stl"])
    bad = zor.batch.register_pairs(pairs[:1], strategy="sideways")
    assert not bad[0]["ok"] and "unknown strategy" in bad[0]["failure"]


def test_batch_parameters_are_those_of_register():
    signature = zor.register.__doc__.splitlines()[0]
    named = [part.split(":")[0].strip() for part in signature.split("*,")[1].split(",")]
    assert tuple(n for n in named if n and n != "progress") == zor.batch.REGISTER_PARAMETERS


def test_a_local_cluster_gives_the_transforms_of_the_process(pairs):
    distributed = pytest.importorskip("distributed")
    here = zor.batch.register_pairs(pairs, samples=300, threads=1)
    with distributed.LocalCluster(
        n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None
    ) as cluster, distributed.Client(cluster) as client:
        there = zor.batch.register_pairs(pairs, client, samples=300, threads=1, progress=True)
    check_records(there, pairs)
    for a, b in zip(here, there):
        assert a["ok"] == b["ok"]
        if a["ok"]:
            assert np.array_equal(a["transform"], b["transform"])


def test_a_batch_outlives_a_killed_worker_and_a_missing_file(pairs, tmp_path):
    distributed = pytest.importorskip("distributed")
    which = [0, 1, 0, None, 1, 0, 1]  # a good pair of the fixture, or the missing file
    batch = [pairs[k] if k is not None else (tmp_path / "missing.stl", pairs[0][1]) for k in which]
    here = zor.batch.register_pairs(pairs[:2], samples=300, threads=1)
    with distributed.LocalCluster(
        n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None
    ) as cluster, distributed.Client(cluster) as client:
        pids = client.run(os.getpid)
        records = []
        for record in zor.batch.iter_register_pairs(batch, client, samples=300, threads=1, window=3):
            if not records:
                # Both workers hold a pair now: one of them dies in the middle of it.
                os.kill(sorted(pids.values())[0], signal.SIGKILL)
            records.append(record)
    assert [(r["moving"], r["fixed"]) for r in records] == [(str(m), str(f)) for m, f in batch]
    assert not records[3]["ok"] and records[3]["failure"].startswith("FileNotFoundError:")
    assert "missing.stl" in records[3]["failure"]
    for k, r in zip(which, records):
        if k is not None:
            assert r["ok"], r["failure"]
            assert np.array_equal(r["transform"], here[k]["transform"])
    with pytest.raises(ValueError, match="window"):
        zor.batch.iter_register_pairs(batch, window=0)

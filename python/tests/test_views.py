"""zor.align_views: overlapping pieces of one body, each placed at random, come back to
the first piece's frame; a mesh of something else is reported unplaced."""

import numpy as np
import pytest

import zor
from conftest import rotation_error_deg, turn


def piece(body, low, high):
    """The triangles of body whose centroids lie between low and high along x (a
    share of the box)."""
    v, t = body.vertices, body.triangles
    x = v[t].mean(axis=1)[:, 0]
    lo, hi = v[:, 0].min(), v[:, 0].max()
    keep = t[(x >= lo + low * (hi - lo)) & (x <= lo + high * (hi - lo))]
    used, renumbered = np.unique(keep, return_inverse=True)
    return zor.Mesh(v[used], renumbered.reshape(-1, 3))


def lumpy(body):
    """The sample body with bumps off its axes, so that no half turn maps a piece onto
    itself."""
    v = body.vertices.copy()
    size = v.max(axis=0) - v.min(axis=0)
    for centre, height in (((0.2, 0.3), 6.0), ((0.7, 0.8), -4.0), ((0.6, 0.1), 5.0)):
        c = v.min(axis=0)[:2] + np.array(centre) * size[:2]
        v[:, 2] += height * np.exp(-np.sum((v[:, :2] - c) ** 2, axis=1) / (0.15 * size[0]) ** 2)
    return zor.Mesh(v, body.triangles)


def test_pieces_of_a_body_come_back_to_the_first_ones_frame(body):
    body = lumpy(body)
    poses = [turn(0, (0, 0, 1), (0, 0, 0)), turn(50, (1, 2, 0), (20, -5, 3)), turn(130, (0, 1, 1), (-9, 4, 30))]
    pieces = [piece(body, 0.0, 0.6), piece(body, 0.3, 0.9), piece(body, 0.5, 1.0)]
    views = [p.transformed(pose) for p, pose in zip(pieces, poses)]
    other = zor.Mesh(np.array([[0, 0, 0], [40, 0, 0], [0, 40, 0], [0, 0, 40.0]]), np.array([[0, 2, 1], [0, 1, 3], [0, 3, 2], [1, 2, 3]]))
    result = zor.align_views(views + [other])
    assert [v["placed"] for v in result["views"]] == [True, True, True, False]
    assert result["views"][3]["transform"] is None
    for k in (1, 2):
        # Into view 0's frame: view k's placement undone, then view 0's (the identity).
        assert rotation_error_deg(result["views"][k]["transform"], poses[k]) < 0.1
        shift = (result["views"][k]["transform"] @ poses[k])[:3, 3]
        assert np.linalg.norm(shift) < 0.1
    assert all(p["moving"] > p["fixed"] for p in result["pairs"])
    assert set(result["seconds"]) == {"ranking", "pairs", "graph", "total"}
    with pytest.raises(ValueError, match="strategy"):
        zor.align_views(views, strategy="sideways")
    with pytest.raises(ValueError, match="max_pairs"):
        zor.align_views(views, max_pairs=-1)


def test_batch_align_views_runs_the_pairs_as_tasks_and_places_as_align_views_does(body, tmp_path):
    body = lumpy(body)
    poses = [turn(0, (0, 0, 1), (0, 0, 0)), turn(50, (1, 2, 0), (20, -5, 3)), turn(130, (0, 1, 1), (-9, 4, 30))]
    pieces = [piece(body, 0.0, 0.6), piece(body, 0.3, 0.9), piece(body, 0.5, 1.0)]
    paths = []
    for k, (p, pose) in enumerate(zip(pieces, poses)):
        paths.append(tmp_path / f"view{k}.ply")
        p.transformed(pose).save(paths[-1])
    here = zor.batch.align_views(paths, samples=500)
    assert [v["placed"] for v in here["views"]] == [True, True, True]
    for k in (1, 2):
        assert rotation_error_deg(here["views"][k]["transform"], poses[k]) < 0.1
    assert all(p["ok"] for p in here["pairs"])
    with pytest.raises(TypeError, match="unknown parameter"):
        zor.batch.align_views(paths, sample=3)
    distributed = pytest.importorskip("distributed")
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, dashboard_address=None) as cluster:
        with distributed.Client(cluster) as client:
            there = zor.batch.align_views(paths, client, samples=500, threads=1)
    for a, b in zip(here["views"], there["views"]):
        assert np.array_equal(a["transform"], b["transform"])

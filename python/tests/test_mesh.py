"""Meshes between NumPy and the library: what goes in comes back, what cannot go in is
refused with a ValueError that says why."""

import pickle
import types
import warnings

import numpy as np
import pytest

import zor


def grid_cube_soup(n=6, seed=3):
    """A closed box of 12 n^2 triangles with vertices on the micrometre grid, shuffled so
    that nothing depends on a tidy order."""
    rng = np.random.default_rng(seed)
    t = np.linspace(0.0, 1.0, n + 1)
    u, v = np.meshgrid(t, t, indexing="ij")
    faces, verts, index = [], [], {}
    for axis in range(3):
        for side in (0.0, 1.0):
            pts = np.zeros((n + 1, n + 1, 3))
            pts[..., axis] = side
            pts[..., (axis + 1) % 3] = u
            pts[..., (axis + 2) % 3] = v
            ids = np.zeros((n + 1, n + 1), int)
            for i in range(n + 1):
                for j in range(n + 1):
                    key = tuple(np.round(pts[i, j] * 1000).astype(int))
                    if key not in index:
                        index[key] = len(verts)
                        verts.append(key)
                    ids[i, j] = index[key]
            for i in range(n):
                for j in range(n):
                    a, b, c, d = ids[i, j], ids[i + 1, j], ids[i + 1, j + 1], ids[i, j + 1]
                    tri = [(a, b, c), (a, c, d)] if side else [(a, c, b), (a, d, c)]
                    faces.extend(tri)
    # On the micrometre grid, off the origin.
    verts = np.round(np.array(verts, float) * 0.0375 + rng.integers(-5000, 5000, 3), 3)
    order = rng.permutation(len(verts))
    inverse = np.argsort(order)
    return verts[order], inverse[np.array(faces)]


def test_arrays_round_trip_exactly_in_every_accepted_dtype():
    v, t = grid_cube_soup()
    for vertices, triangles in [
        (v, t),
        (v.astype(np.float64, order="F"), t.astype(np.uint32)),
        (np.round(v * 1000).astype(np.int64) / 1000.0, t.astype(np.int32)),
        (v.tolist(), t.tolist()),
    ]:
        mesh = zor.Mesh(vertices, triangles)
        assert mesh.vertex_count == len(v) and mesh.triangle_count == len(t) == len(mesh)
        assert np.array_equal(mesh.vertices, v)
        assert np.array_equal(mesh.triangles, t)
        assert mesh.merged_vertices == 0 and mesh.dropped_triangles == 0
    again = pickle.loads(pickle.dumps(mesh))
    assert np.array_equal(again.vertices, v) and np.array_equal(again.triangles, t)
    assert np.array_equal(mesh.bounds, [v.min(axis=0), v.max(axis=0)])


def test_meshes_of_other_libraries_are_taken_by_their_arrays():
    v, t = grid_cube_soup(3)
    for other in (types.SimpleNamespace(vertices=v, faces=t), types.SimpleNamespace(vertices=v, triangles=t)):
        assert np.array_equal(zor.Mesh(other).triangles, t)
    with pytest.raises(TypeError, match="vertices and faces"):
        zor.Mesh(types.SimpleNamespace(points=v))


def test_files_round_trip_in_every_format(tmp_path):
    v, t = grid_cube_soup(4)
    mesh = zor.Mesh(v, t)
    for name in ("a.stl", "a.ply", "a.obj", "a.off"):
        for ascii_ in (False, True):
            mesh.save(tmp_path / name, ascii=ascii_)
            back = zor.load(tmp_path / name)
            assert back.triangle_count == len(t)
            # STL holds no shared vertices: the reader joins them again in its own order.
            assert np.array_equal(np.sort(back.vertices, axis=0), np.sort(v, axis=0))
            if not name.endswith(".stl"):
                assert np.array_equal(back.vertices, v) and np.array_equal(back.triangles, t)
    mesh.save(tmp_path / "m.ply", scale=1000.0)  # metres in the file
    assert np.allclose(zor.load(tmp_path / "m.ply", scale=1000.0).vertices, v)


@pytest.mark.parametrize(
    "vertices, triangles, message",
    [
        (np.zeros((3, 2)), [[0, 1, 2]], r"vertices must be an \(n, 3\) array; got shape \(3, 2\)"),
        (np.zeros(9), [[0, 1, 2]], r"got shape \(9,\)"),
        (np.zeros((3, 3), complex), [[0, 1, 2]], "real numbers; got dtype complex128"),
        (np.array([["a", "b", "c"]] * 3), [[0, 1, 2]], "real numbers; got dtype <U1"),
        ([[0, 0, 0], [1, 0], [0, 1, 0]], [[0, 1, 2]], "cannot be read as an array|shape"),
        ([[0, 0, 0], [1, 0, np.nan], [0, 1, 0]], [[0, 1, 2]], "row 1 holds nan, which is not finite"),
        ([[0, 0, 0], [1, 0, 0], [0, -np.inf, 0]], [[0, 1, 2]], "row 2 holds -inf"),
        ([[0, 0, 0], [3e6, 0, 0], [0, 1, 0]], [[0, 1, 2]], "3000000 mm, which leaves the 32-bit grid"),
        (np.eye(3), [[0, 1, 2.0]], "triangles must hold integers; got dtype float64"),
        (np.eye(3), [[0, 1]], r"triangles must be an \(n, 3\) array"),
        (np.eye(3), [[0, 1, 3]], "vertex number 3, but there are 3 vertices"),
        (np.eye(3), [[0, -1, 2]], "vertex number -1, which is negative"),
        (np.eye(3), np.array([[0, 1, 2**63]], np.uint64), "vertex number 9223372036854775808"),
    ],
)
def test_bad_arrays_are_refused_with_the_reason(vertices, triangles, message):
    with pytest.raises(ValueError, match=message):
        zor.Mesh(vertices, triangles)


def test_joined_vertices_and_dropped_triangles_are_counted_and_told():
    v = np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0], [1, 0, 0.0001], [0, 0, 1]])  # 3 rounds onto 1
    t = np.array([[0, 1, 2], [0, 3, 1], [0, 2, 4]])  # the second loses a corner
    with pytest.warns(UserWarning, match="1 triangle"):
        mesh = zor.Mesh(v, t)
    assert (mesh.merged_vertices, mesh.dropped_triangles, mesh.triangle_count) == (1, 1, 2)
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        with pytest.raises(UserWarning):
            zor.Mesh(v, t)


def test_empty_meshes_are_meshes_but_not_operands(body):
    empty = zor.Mesh(np.empty((0, 3)), np.empty((0, 3), int))
    assert empty.vertices.shape == (0, 3) and empty.triangles.shape == (0, 3)
    for call in (
        lambda: zor.register(empty, body),
        lambda: zor.icp(body, empty),
        lambda: zor.morph(empty, body),
        lambda: zor.closest_points(empty, [[0, 0, 0]]),
        lambda: zor.deviation(body, empty),
    ):
        with pytest.raises(ValueError, match="has no triangles"):
            call()


def test_bad_files_raise_and_name_the_file(tmp_path):
    with pytest.raises(FileNotFoundError):
        zor.load(tmp_path / "absent.stl")
    (tmp_path / "short.ply").write_text("ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nend_header\n1\n")
    with pytest.raises(ValueError, match="short.ply"):
        zor.load(tmp_path / "short.ply")
    (tmp_path / "a.dae").write_text("<COLLADA/>")
    with pytest.raises(ValueError):
        zor.load(tmp_path / "a.dae")
    with pytest.raises(ValueError):
        zor.sample_body(2000).save(tmp_path / "out.xyz")
    assert not (tmp_path / "out.xyz").exists()


def test_transformed_moves_a_copy(body, pose):
    moved = body.transformed(pose)
    expected = body.vertices @ pose[:3, :3].T + pose[:3, 3]
    assert np.abs(moved.vertices - expected).max() <= 0.0005 + 1e-9  # rounding to the grid
    assert np.array_equal(moved.triangles, body.triangles)
    far = np.eye(4)
    far[0, 3] = 2.2e6
    with pytest.raises(ValueError, match="off the 32-bit grid"):
        body.transformed(far)
    with pytest.raises(ValueError, match="affine"):
        body.transformed(np.ones((4, 4)))

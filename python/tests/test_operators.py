"""The operators from Python: known poses come back, parameters are checked, runs are
deterministic and let the interpreter go."""

import threading
import time
import types

import numpy as np
import pytest

import zor
from conftest import rotation_error_deg, turn


def test_register_recovers_a_pose_and_reports_it(body, moved, pose):
    result = zor.register(moved, body)
    assert rotation_error_deg(result.transform, pose) < 0.05
    back = moved.vertices @ result.transform[:3, :3].T + result.transform[:3, 3]
    assert np.abs(back - body.vertices).max() < 0.05
    assert result.strategy == "auto+features" and result.strategy_used in ("axes", "rod", "disc", "ball", "features")
    assert not result.doubtful and result.doubt == "" and result.overlap > 0.95 and result.polished
    assert result.fixed_overlap > 0.95
    assert result.seconds["total"] >= result.seconds["polish"] > 0 and result.iterations >= 1
    assert set(result.as_dict()) >= {"transform", "error", "overlap", "seconds"}
    # Anything with vertices and faces is a mesh.
    as_arrays = types.SimpleNamespace(vertices=moved.vertices, faces=moved.triangles)
    assert np.array_equal(zor.register(as_arrays, body).transform, result.transform)
    # The whole call and its verdicts are timed beside the stages.
    assert result.seconds["registration"] >= result.seconds["surfaces"] + result.seconds["verdicts"] > 0


def test_register_on_clustered_search_copies(body, moved, pose):
    # The body's 40k triangles count as large at this setting: searched on copies of
    # about 2000 triangles, finished on the full meshes.
    result = zor.register(moved, body, search_triangles=2000)
    assert rotation_error_deg(result.transform, pose) < 0.05 and not result.doubtful
    with pytest.raises(ValueError, match="search_triangles"):
        zor.register(moved, body, search_triangles=-1)


def test_icp_recovers_a_pose_from_its_search_and_from_a_start(body, moved, pose):
    near = turn(25.0, (0, 0, 1), (3.0, -2.0, 1.0))
    start = body.transformed(near)
    result = zor.icp(start, body, samples=2000)
    assert rotation_error_deg(result.transform, near) < 0.05  # finished on the full meshes
    assert result.starts == 360 and result.refined and result.rms_error < 0.5
    assert result.polished and not result.doubtful and result.overlap > 0.95
    assert result.seconds["total"] >= result.seconds["polish"] > 0
    searched = zor.icp(start, body, samples=2000, polish=False)
    assert not searched.polished and rotation_error_deg(searched.transform, near) < 0.5
    single = zor.icp(start, body, single=True, initial=np.linalg.inv(near), iterations=30)
    assert single.starts == 1 and rotation_error_deg(single.transform, near) < 0.5


def test_morph_lands_on_the_target_keeping_vertices_and_triangles(body):
    stretched = body.transformed(np.diag([1.04, 0.97, 1.0, 1.0]))
    target = stretched.transformed(turn(30.0, (1, 1, 0), (4.0, 0.0, -3.0)))
    before = body.vertices
    result = zor.morph(body, target, tolerance=0.02)
    assert result.registered and result.registration_succeeded
    assert result.vertices.shape == before.shape and np.array_equal(result.triangles, body.triangles)
    assert np.array_equal(body.vertices, before), "the moving mesh is left as it was"
    _, distances, _ = zor.closest_points(target, result.vertices)
    assert np.percentile(distances, 90) < 0.01 and result.fraction_within >= 0.99
    assert np.array_equal(result.mesh.vertices, result.vertices)
    assert result.method == "field" and result.stop == "converged" and result.folded == 0
    assert not result.local, "a stretch of the whole body is no local change"
    assert abs(result.max_distance - distances.max()) < 1e-6, "the reported distances are those of the result"
    for method in ("field", "base"):
        alone = zor.morph(body, body, register=False, method=method)
        assert not alone.registered and alone.registration is None
        assert alone.max_distance < 1e-9 and np.array_equal(alone.vertices, body.vertices)
    with pytest.raises(ValueError, match="method"):
        zor.morph(body, body, method="sliding")


def test_inspection_reports_show_the_numbers_of_their_result(body, moved, tmp_path):
    result = zor.register(moved, body)
    shown = zor.inspect(tmp_path / "register.html", moved, body, result)
    page = (tmp_path / "register.html").read_text()
    assert "zor.register" in page and "overlap" in page and "<link" not in page
    same = zor.deviation(moved, body, result.transform)
    assert shown.percentile95 == same.percentile95 and shown.within_share == same.within_share
    assert 'id="zor-largest" data-value="%.17g"' % same.largest in page
    morphed = zor.morph(body.transformed(np.diag([1.02, 0.99, 1.0, 1.0])), body, register=False)
    zor.inspect(tmp_path / "morph.html", None, body, morphed)
    assert "zor.morph" in (tmp_path / "morph.html").read_text()
    with pytest.raises(ValueError, match="HTML"):
        zor.report(tmp_path / "report.ply", moved, body)


def test_closest_points_on_a_known_square():
    square = zor.Mesh([[0, 0, 0], [10, 0, 0], [10, 10, 0], [0, 10, 0]], [[0, 1, 2], [0, 2, 3]])
    points, distances, triangles = zor.closest_points(square, [[8, 2, 5], [2, 8, -3], [15, 5, 0], [-3, -4, 0]])
    assert np.allclose(points, [[8, 2, 0], [2, 8, 0], [10, 5, 0], [0, 0, 0]])
    assert np.allclose(distances, [5, 3, 5, 5])
    assert list(triangles) == [0, 1, 0] or list(triangles[:3]) == [0, 1, 0]
    with pytest.raises(ValueError, match="not finite"):
        zor.closest_points(square, [[0, 0, np.nan]])
    empty = zor.closest_points(square, np.empty((0, 3)))
    assert empty[0].shape == (0, 3) and empty[1].shape == (0,)


def test_deviation_is_signed_outward_and_summarised(body):
    assert np.array_equal(zor.deviation(body, body).distances, np.zeros(body.vertex_count))
    centre = body.vertices.mean(axis=0)
    grow = np.eye(4)
    grow[:3, :3] *= 1.01
    grow[:3, 3] = centre - 1.01 * centre
    result = zor.deviation(body.transformed(grow), body, range=0.2)
    assert np.median(result.distances) > 0, "a grown copy lies outside"
    assert result.range == 0.2 and 0 < result.within_share <= 1
    assert result.largest >= result.percentile95 > 0
    assert result.colours.shape == (body.vertex_count, 3) and result.colours.dtype == np.uint8
    undone = zor.deviation(body.transformed(grow), body, transform=np.linalg.inv(grow))
    assert np.abs(undone.distances).max() < 0.01


@pytest.mark.parametrize(
    "call, message",
    [
        (lambda b: zor.register(b, b, samples=0), "samples must be in"),
        (lambda b: zor.register(b, b, overlap=1.5), "overlap must be in"),
        (lambda b: zor.register(b, b, reduce_tolerance=float("nan")), "reduce_tolerance"),
        (lambda b: zor.register(b, b, strategy="sideways"), "unknown strategy 'sideways'"),
        (lambda b: zor.icp(b, b, directions=0), "directions must be in"),
        (lambda b: zor.icp(b, b, single=True, initial=np.eye(3)), "4x4"),
        (lambda b: zor.morph(b, b, tolerance=0), "tolerance must be in"),
        (lambda b: zor.morph(b, b, progress=3), "progress must be None, True"),
        (lambda b: zor.threads(0), "n must be in"),
    ],
)
def test_bad_parameters_raise_value_error(body, call, message):
    with pytest.raises(ValueError, match=message):
        call(body)


def test_progress_reaches_a_callback_and_its_exception_comes_back(body, moved):
    heard = []
    zor.register(moved, body, progress=lambda label, done, total: heard.append((label, done, total)))
    assert heard and all(0 <= done <= total for _, done, total in heard)
    ends = [i for i, (label, done, total) in enumerate(heard) if done == total]
    assert ends, "each report ends with done == total"

    def fail(label, done, total):
        raise KeyError("stop here")

    with pytest.raises(KeyError, match="stop here"):
        zor.icp(moved, body, progress=fail)


def test_results_are_identical_at_any_thread_count(body, moved):
    first = zor.register(moved, body, strategy="features").transform
    with zor.threads(1) as cap:
        assert cap.n == 1 and zor.max_threads() == 1
        alone = zor.register(moved, body, strategy="features").transform
    assert zor.max_threads() >= 1
    assert np.array_equal(first, alone)


def test_runs_let_the_interpreter_go(body, moved):
    # A Python thread counts while the main thread registers: if the run held the
    # interpreter, the counter could not move until it ended.
    counted = []
    stop = threading.Event()

    def count():
        n = 0
        while not stop.is_set():
            n += 1
            if n % 1000 == 0:
                counted.append(time.perf_counter())

    counter = threading.Thread(target=count)
    counter.start()
    try:
        start = time.perf_counter()
        for _ in range(3):
            zor.register(moved, body)
        end = time.perf_counter()
    finally:
        stop.set()
        counter.join()
    during = [t for t in counted if start < t < end]
    assert len(during) > 10


def test_threads_sharing_meshes_get_the_results_of_one_thread(body, moved):
    # Runs on shared meshes (the search on the full meshes among them, which may place
    # them for its run) and readers of those meshes on other threads: every run gets
    # what a run alone gets, every reader the mesh as it was made.
    alone = zor.register(moved, body, reduce=False, polish=False).transform
    reference = body.vertices
    results, seen = [], []

    def run():
        results.append(zor.register(moved, body, reduce=False, polish=False).transform)

    def read():
        for _ in range(20):
            seen.append(np.array_equal(body.vertices, reference))

    workers = [threading.Thread(target=run) for _ in range(3)] + [threading.Thread(target=read) for _ in range(2)]
    for w in workers:
        w.start()
    for w in workers:
        w.join()
    assert all(seen) and len(seen) == 40
    assert all(np.array_equal(r, alone) for r in results) and len(results) == 3

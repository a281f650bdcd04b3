#!/usr/bin/python3
"""What the Python package costs and what a cluster gains.

    PYTHONPATH=build/release/python /usr/bin/python3 bench/python_bench.py [--triangles 100000]
        [--repeats 9] [--pairs 100] [--pair-triangles 20000] [--workers 2] [--open3d]

1. Overhead: one pair of --triangles triangles (the sample body and a turned copy) is
   registered --repeats times by the C++ call that zor.register makes (timed in C++)
   and by zor.register (timed in Python), alternately; the medians and the share the
   Python call adds are printed.
   With --open3d (needs Debian's python3-open3d) Open3D 0.16's registration of the same
   vertex arrays (its documented FPFH + RANSAC + point-to-plane ICP, as in
   bench/peers/open3d_scan_suite.py) runs beside zor.register: time and rotation error.
2. Batch throughput: --pairs pairs of --pair-triangles triangles run through
   zor.batch.register_pairs in one process, then on a LocalCluster of --workers worker
   processes (one thread each), files read where the task runs; pairs per second and
   whether the transforms agree.
"""

import argparse
import os
import pathlib
import statistics
import sys
import tempfile
import time

import numpy as np

import zor


def turn(angle_deg, axis, shift):
    axis = np.asarray(axis, float) / np.linalg.norm(axis)
    a = np.radians(angle_deg)
    k = np.array([[0, -axis[2], axis[1]], [axis[2], 0, -axis[0]], [-axis[1], axis[0], 0]])
    pose = np.eye(4)
    pose[:3, :3] = np.eye(3) + np.sin(a) * k + (1 - np.cos(a)) * k @ k
    pose[:3, 3] = shift
    return pose


POSE = turn(70.0, (1, 2, 0.5), (12.0, -7.0, 4.0))


def overhead(folder, args):
    fixed = zor.sample_body(args.triangles)
    moving = fixed.transformed(POSE)
    # Alternating rounds in one process on the same meshes, so that both calls meet the
    # same heap, caches and thread pool.
    zor.register(moving, fixed)
    cpp_times, python_times = [], []
    for _ in range(args.repeats):
        cpp_times.append(zor._zor._time_align_pair(moving, fixed))
        start = time.perf_counter()
        zor.register(moving, fixed)
        python_times.append(time.perf_counter() - start)
    cpp, python = statistics.median(cpp_times), statistics.median(python_times)
    print(f"pair of {fixed.triangle_count} triangles, median of {args.repeats}, {zor.max_threads()} threads")
    print(f"  C++ call            {cpp * 1000:9.1f} ms")
    print(f"  zor.register        {python * 1000:9.1f} ms")
    print(f"  Python adds         {100 * (python - cpp) / cpp:9.1f} %")
    # What the wrapper costs in itself shows on a pair so small that the run is short.
    small = zor.sample_body(12)
    small_moving = small.transformed(POSE)
    cpp_small, python_small = [], []
    for _ in range(200):
        cpp_small.append(zor._zor._time_align_pair(small_moving, small))
        start = time.perf_counter()
        zor.register(small_moving, small)
        python_small.append(time.perf_counter() - start)
    wrapper = statistics.median(python_small) - statistics.median(cpp_small)
    print(f"  the wrapper itself  {wrapper * 1e6:9.1f} us per call (pair of {small.triangle_count} triangles)")
    if args.open3d:
        peer(moving, fixed, args)


def rotation_error_deg(found, pose):
    r = (found @ pose)[:3, :3]
    return float(np.degrees(np.arccos(np.clip((np.trace(r) - 1) / 2, -1, 1))))


def peer(moving, fixed, args):
    sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "peers"))
    import open3d as o3d
    from open3d_scan_suite import diagonal, register as open3d_register

    o3d.utility.set_verbosity_level(o3d.utility.VerbosityLevel.Error)
    o3d.utility.random.seed(1)
    pose = POSE
    times, errors = [], []
    for _ in range(3):
        clouds = [o3d.geometry.PointCloud(o3d.utility.Vector3dVector(m.vertices)) for m in (moving, fixed)]
        voxel = min(diagonal(m.vertices) for m in (moving, fixed)) / 70.0
        start = time.perf_counter()
        found = np.asarray(open3d_register(clouds[0], clouds[1], voxel))
        times.append(time.perf_counter() - start)
        errors.append(rotation_error_deg(found, pose))
    ours = zor.register(moving, fixed)
    print(f"  Open3D {o3d.__version__} (FPFH, RANSAC, ICP) {statistics.median(times) * 1000:9.1f} ms, "
          f"rotation error {statistics.median(errors):.4f} deg")
    print(f"  zor.register rotation error {rotation_error_deg(ours.transform, pose):.4f} deg")


def batch(folder, args):
    fixed = zor.sample_body(args.pair_triangles)
    fixed.save(folder / "batch_fixed.ply")
    rng = np.random.default_rng(1)
    pairs = []
    for i in range(args.pairs):
        path = folder / f"batch_moving{i}.ply"
        fixed.transformed(turn(rng.uniform(0, 180), rng.normal(size=3), rng.uniform(-20, 20, 3))).save(path)
        pairs.append((path, folder / "batch_fixed.ply"))
    start = time.perf_counter()
    here = zor.batch.register_pairs(pairs)
    local = time.perf_counter() - start
    from distributed import Client, LocalCluster

    with LocalCluster(
        n_workers=args.workers, threads_per_worker=1, processes=True, dashboard_address=None
    ) as cluster, Client(cluster) as client:
        client.run(lambda: __import__("zor"))  # workers start warm
        start = time.perf_counter()
        there = zor.batch.register_pairs(pairs, client, threads=1)
        cluster_time = time.perf_counter() - start
        start = time.perf_counter()
        zor.batch.register_pairs(pairs, client)
        uncapped = time.perf_counter() - start
        # Peak resident memory of each worker process over the batches, in MB.
        peaks = client.run(lambda: __import__("resource").getrusage(__import__("resource").RUSAGE_SELF).ru_maxrss)
    same = all(np.array_equal(a["transform"], b["transform"]) for a, b in zip(here, there) if a["ok"])
    ok = sum(r["ok"] and not r["doubtful"] for r in there)
    print(f"batch of {args.pairs} pairs of {fixed.triangle_count} triangles")
    print(f"  one process ({zor.max_threads()} threads)   {local:7.2f} s  {args.pairs / local:6.1f} pairs/s")
    print(f"  LocalCluster {args.workers} workers x 1   {cluster_time:7.2f} s  {args.pairs / cluster_time:6.1f} pairs/s")
    print(f"  LocalCluster {args.workers} workers, uncapped {uncapped:5.2f} s  {args.pairs / uncapped:6.1f} pairs/s")
    print(f"  transforms identical: {same}; recovered without doubt: {ok}/{args.pairs}")
    print(f"  peak memory per worker: {', '.join(f'{v / 1024:.0f} MB' for v in sorted(peaks.values()))}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--triangles", type=int, default=100000)
    parser.add_argument("--repeats", type=int, default=9)
    parser.add_argument("--pairs", type=int, default=100)
    parser.add_argument("--pair-triangles", type=int, default=20000)
    parser.add_argument("--workers", type=int, default=2)
    parser.add_argument("--skip-batch", action="store_true")
    parser.add_argument("--open3d", action="store_true", help="also run Open3D's registration of the pair")
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        overhead(pathlib.Path(folder), args)
        if not args.skip_batch:
            batch(pathlib.Path(folder), args)


if __name__ == "__main__":
    sys.exit(main())

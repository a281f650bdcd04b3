#!/usr/bin/python3
"""What the Python package costs and what a cluster gains.

    PYTHONPATH=build/release/python /usr/bin/python3 bench/python_bench.py [--triangles 100000]
        [--repeats 9] [--pairs 100] [--pair-triangles 20000] [--workers 2]

1. Overhead: one pair of --triangles triangles (the sample body and a turned copy) is
   saved to binary PLY; bench_register_pair (C++, the same code the package calls) and
   zor.register each register it --repeats times in memory; the medians and the share
   the Python call adds are printed.
2. Batch throughput: --pairs pairs of --pair-triangles triangles run through
   zor.batch.register_pairs in one process, then on a LocalCluster of --workers worker
   processes (one thread each), files read where the task runs; pairs per second and
   whether the transforms agree.
"""

import argparse
import os
import pathlib
import statistics
import subprocess
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


def overhead(folder, args):
    fixed = zor.sample_body(args.triangles)
    moving = fixed.transformed(turn(70.0, (1, 2, 0.5), (12.0, -7.0, 4.0)))
    fixed.save(folder / "fixed.ply")
    moving.save(folder / "moving.ply")
    binary = pathlib.Path(args.build) / "bench" / "bench_register_pair"
    cpp = float(
        subprocess.run(
            [binary, folder / "moving.ply", folder / "fixed.ply", str(args.repeats)],
            check=True,
            capture_output=True,
            text=True,
        ).stdout
    )
    moving, fixed = zor.load(folder / "moving.ply"), zor.load(folder / "fixed.ply")
    zor.register(moving, fixed)  # warm, as the C++ side is
    times = []
    for _ in range(args.repeats):
        start = time.perf_counter()
        zor.register(moving, fixed)
        times.append(time.perf_counter() - start)
    python = statistics.median(times)
    print(f"pair of {fixed.triangle_count} triangles, median of {args.repeats}, {zor.max_threads()} threads")
    print(f"  C++ AlignPair       {cpp * 1000:9.1f} ms")
    print(f"  zor.register        {python * 1000:9.1f} ms")
    print(f"  Python adds         {100 * (python - cpp) / cpp:9.1f} %")


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
    same = all(np.array_equal(a["transform"], b["transform"]) for a, b in zip(here, there) if a["ok"])
    ok = sum(r["ok"] and not r["doubtful"] for r in there)
    print(f"batch of {args.pairs} pairs of {fixed.triangle_count} triangles")
    print(f"  one process ({zor.max_threads()} threads)   {local:7.2f} s  {args.pairs / local:6.1f} pairs/s")
    print(f"  LocalCluster {args.workers} workers x 1   {cluster_time:7.2f} s  {args.pairs / cluster_time:6.1f} pairs/s")
    print(f"  LocalCluster {args.workers} workers, uncapped {uncapped:5.2f} s  {args.pairs / uncapped:6.1f} pairs/s")
    print(f"  transforms identical: {same}; recovered without doubt: {ok}/{args.pairs}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--triangles", type=int, default=100000)
    parser.add_argument("--repeats", type=int, default=9)
    parser.add_argument("--pairs", type=int, default=100)
    parser.add_argument("--pair-triangles", type=int, default=20000)
    parser.add_argument("--workers", type=int, default=2)
    parser.add_argument("--build", default=os.path.join(os.path.dirname(__file__), "..", "build", "release"))
    parser.add_argument("--skip-batch", action="store_true")
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        overhead(pathlib.Path(folder), args)
        if not args.skip_batch:
            batch(pathlib.Path(folder), args)


if __name__ == "__main__":
    sys.exit(main())

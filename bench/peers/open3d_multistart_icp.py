#!/usr/bin/python3
"""The peer of bench_icp: the same multi-start search written with Open3D 0.16.

For each size that `bench_icp --save DIR` wrote, registers every moved copy back onto
the body: 500 vertices drawn from each mesh, the moving mesh's longest principal axis
aimed at 30 directions spread over the sphere and spun in 12 steps about it, centres
laid together, 10 iterations of Open3D's point-to-point ICP from each of the 360 starts,
the best by RMSE refined by 10 more on 5000 vertices. Prints the median time per case
and the rotation error against the true pose.

    /usr/bin/python3 bench/peers/open3d_multistart_icp.py DIR [--threads N]

Needs Debian's python3-open3d (not installed by scripts/setup: benchmarks of peers are
optional).
"""
import glob
import math
import os
import statistics
import sys
import time

import numpy as np
import open3d as o3d


def directions(count):
    """`count` unit vectors spread over the sphere (a Fibonacci lattice)."""
    i = np.arange(count) + 0.5
    z = 1.0 - 2.0 * i / count
    r = np.sqrt(1.0 - z * z)
    phi = math.pi * (1.0 + 5.0 ** 0.5) * i
    return np.stack([r * np.cos(phi), r * np.sin(phi), z], axis=1)


def rotation(axis, angle):
    axis = np.asarray(axis, dtype=float)
    n = np.linalg.norm(axis)
    if n == 0.0:
        return np.eye(3)
    return o3d.geometry.get_rotation_matrix_from_axis_angle(axis / n * angle)


def sample(points, count, rng):
    chosen = rng.choice(len(points), size=min(count, len(points)), replace=False)
    cloud = o3d.geometry.PointCloud()
    cloud.points = o3d.utility.Vector3dVector(points[np.sort(chosen)])
    return cloud


def register(moving_points, fixed_points, rng):
    moving, fixed = sample(moving_points, 500, rng), sample(fixed_points, 500, rng)
    centre_m, centre_f = moving_points.mean(axis=0), fixed_points.mean(axis=0)
    _, vectors = np.linalg.eigh(np.cov((moving_points - centre_m).T))
    axis = vectors[:, 2]  # the longest spread
    diagonal = np.linalg.norm(fixed_points.max(axis=0) - fixed_points.min(axis=0))
    p2p = o3d.pipelines.registration.TransformationEstimationPointToPoint()
    ten = o3d.pipelines.registration.ICPConvergenceCriteria(max_iteration=10)
    best = None
    for d in directions(30):
        tilt = rotation(np.cross(axis, d), math.acos(max(-1.0, min(1.0, float(axis @ d)))))
        for k in range(12):
            spin = rotation(axis, 2.0 * math.pi * k / 12)
            start = np.eye(4)
            start[:3, :3] = tilt @ spin
            start[:3, 3] = centre_f - start[:3, :3] @ centre_m
            run = o3d.pipelines.registration.registration_icp(moving, fixed, diagonal, start, p2p, ten)
            if best is None or run.inlier_rmse < best.inlier_rmse:
                best = run
    moving, fixed = sample(moving_points, 5000, rng), sample(fixed_points, 5000, rng)
    return o3d.pipelines.registration.registration_icp(moving, fixed, diagonal, best.transformation, p2p, ten)


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    folder = sys.argv[1]
    if "--threads" in sys.argv:
        o3d.utility.set_verbosity_level(o3d.utility.VerbosityLevel.Error)
        os.environ["OMP_NUM_THREADS"] = sys.argv[sys.argv.index("--threads") + 1]
    print("| triangles | case | seconds | rotation error deg | rmse mm |")
    print("|---|---|---|---|---|")
    for fixed_path in sorted(glob.glob(os.path.join(folder, "*_fixed.ply")), key=lambda p: int(os.path.basename(p).split("_")[0])):
        size = os.path.basename(fixed_path).split("_")[0]
        fixed = o3d.io.read_triangle_mesh(fixed_path)
        fixed_points = np.asarray(fixed.vertices)
        poses = np.loadtxt(os.path.join(folder, size + "_poses.txt")).reshape(-1, 4, 4)
        times = []
        for k, pose in enumerate(poses):
            moving_points = np.asarray(o3d.io.read_triangle_mesh(os.path.join(folder, f"{size}_moving_{k}.ply")).vertices)
            rng = np.random.default_rng(5489)
            start = time.perf_counter()
            result = register(moving_points, fixed_points, rng)
            times.append(time.perf_counter() - start)
            residue = result.transformation[:3, :3] @ pose[:3, :3]
            angle = math.degrees(math.acos(max(-1.0, min(1.0, (np.trace(residue) - 1.0) / 2.0))))
            print(f"| {len(fixed.triangles)} | {k} | {times[-1]:.3f} | {angle:.2f} | {result.inlier_rmse:.3f} |", flush=True)
        print(f"| {len(fixed.triangles)} | median | {statistics.median(times):.3f} | | |", flush=True)


if __name__ == "__main__":
    main()

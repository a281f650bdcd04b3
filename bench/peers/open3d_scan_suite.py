#!/usr/bin/python3
"""The peer of bench_scan_suite: the same bunny cases registered with Open3D 0.16.

Each view onto the zippered model and each view onto its neighbour on the turntable
ring, under seeded uniform random placements of the moving mesh (rotation uniform over
all rotations, shift up to 30% of the fixed diagonal along each axis). Open3D's global
registration as its documentation sets it up: voxel down-sampling (voxel 1/70 of the
smaller diagonal, the keypoint spacing of our feature strategy), normals over 2 voxels,
FPFH over 5 voxels, RANSAC on mutual feature matches (3 points, edge-length and
distance checkers, 100000 iterations, confidence 0.999), then point-to-plane ICP on the
full vertex sets within 1.5 voxels. Success as in bench_scan_suite: rotation error below
2 degrees and translation error at the moving mesh's centre below 1% of the fixed
diagonal. Prints the same table.

    /usr/bin/python3 bench/peers/open3d_scan_suite.py [--data DIR] [--placements 5] [--threads 2]

Needs Debian's python3-open3d (not installed by scripts/setup: benchmarks of peers are
optional).
"""
import argparse
import math
import os
import statistics
import time

import numpy as np
import open3d as o3d

RING = ["bun000", "bun045", "bun090", "bun180", "bun270", "bun315"]


def uniform_rotation(rng):
    q = rng.normal(size=4)
    q /= np.linalg.norm(q)
    w, x, y, z = q
    return np.array([
        [1 - 2 * (y * y + z * z), 2 * (x * y - z * w), 2 * (x * z + y * w)],
        [2 * (x * y + z * w), 1 - 2 * (x * x + z * z), 2 * (y * z - x * w)],
        [2 * (x * z - y * w), 2 * (y * z + x * w), 1 - 2 * (x * x + y * y)],
    ])


def diagonal(points):
    return float(np.linalg.norm(points.max(axis=0) - points.min(axis=0)))


def register(moving, fixed, voxel):
    reg = o3d.pipelines.registration

    def prepare(cloud):
        down = cloud.voxel_down_sample(voxel)
        down.estimate_normals(o3d.geometry.KDTreeSearchParamHybrid(radius=2 * voxel, max_nn=30))
        fpfh = reg.compute_fpfh_feature(down, o3d.geometry.KDTreeSearchParamHybrid(radius=5 * voxel, max_nn=100))
        return down, fpfh

    md, mf = prepare(moving)
    fd, ff = prepare(fixed)
    ransac = reg.registration_ransac_based_on_feature_matching(
        md, fd, mf, ff, True, 1.5 * voxel, reg.TransformationEstimationPointToPoint(False), 3,
        [reg.CorrespondenceCheckerBasedOnEdgeLength(0.9), reg.CorrespondenceCheckerBasedOnDistance(1.5 * voxel)],
        reg.RANSACConvergenceCriteria(100000, 0.999))
    if not fixed.has_normals():
        fixed.estimate_normals(o3d.geometry.KDTreeSearchParamHybrid(radius=2 * voxel, max_nn=30))
    icp = reg.registration_icp(moving, fixed, 1.5 * voxel, ransac.transformation,
                               reg.TransformationEstimationPointToPlane())
    return icp.transformation


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    parser = argparse.ArgumentParser()
    parser.add_argument("--data", default=os.path.join(here, "..", "..", "..", "shared", "data", "bunny"))
    parser.add_argument("--placements", type=int, default=5)
    parser.add_argument("--threads", type=int, default=2)
    args = parser.parse_args()
    if not os.path.exists(os.path.join(args.data, "bun_zipper.ply")):
        print(f"open3d_scan_suite: no bunny data in {args.data}; skipped")
        return
    os.environ.setdefault("OMP_NUM_THREADS", str(args.threads))
    o3d.utility.set_verbosity_level(o3d.utility.VerbosityLevel.Error)
    o3d.utility.random.seed(1)

    def load(name):
        mesh = o3d.io.read_triangle_mesh(os.path.join(args.data, name + ".ply"))
        return np.asarray(mesh.vertices).copy()

    suites = [("view onto model", [(v, "bun_zipper") for v in RING]),
              ("view onto view", [(RING[i], RING[(i + 1) % len(RING)]) for i in range(len(RING))])]
    print(f"Open3D {o3d.__version__}, bunny range scans, {args.placements} placements per pair, "
          f"OMP_NUM_THREADS={os.environ['OMP_NUM_THREADS']}\n")
    print("| mode | cases | recovered | median rot err deg | median s |")
    print("|---|---|---|---|---|")
    rng = np.random.default_rng(20261123)
    for title, cases in suites:
        ok, rotations, seconds = 0, [], []
        for moving_name, fixed_name in cases:
            fixed_points = load(fixed_name)
            original = load(moving_name)
            centre = 0.5 * (original.min(axis=0) + original.max(axis=0))
            diag = diagonal(fixed_points)
            voxel = min(diagonal(original), diag) / 70.0
            for _ in range(args.placements):
                rotation = uniform_rotation(rng)
                shift = rng.uniform(-0.3 * diag, 0.3 * diag, size=3)
                placement = np.eye(4)
                placement[:3, :3] = rotation
                placement[:3, 3] = shift
                moved = original @ rotation.T + shift
                moving = o3d.geometry.PointCloud(o3d.utility.Vector3dVector(moved))
                fixed = o3d.geometry.PointCloud(o3d.utility.Vector3dVector(fixed_points))
                start = time.perf_counter()
                found = register(moving, fixed, voxel)
                seconds.append(time.perf_counter() - start)
                residual = found @ placement
                angle = math.degrees(math.acos(max(-1.0, min(1.0, 0.5 * (np.trace(residual[:3, :3]) - 1.0)))))
                moved_centre = residual[:3, :3] @ centre + residual[:3, 3]
                rotations.append(angle)
                ok += angle < 2.0 and np.linalg.norm(moved_centre - centre) < 0.01 * diag
        total = len(rotations)
        print(f"| open3d | {title} | {ok}/{total} ({100.0 * ok / total:.0f}%) | "
              f"{statistics.median(rotations):.3f} | {statistics.median(seconds):.2f} |", flush=True)


if __name__ == "__main__":
    main()

#!/usr/bin/python3
"""The peer of bench_scan_scenes: the same saved cases registered with Open3D 0.16.

    build/release/bench/bench_scan_scenes --save DIR          # writes the cases
    /usr/bin/python3 bench/peers/open3d_scan_scenes.py DIR    # writes DIR/open3d.txt
    build/release/bench/bench_scan_scenes --peer DIR/open3d.txt   # judges both, same measures

Open3D's global registration as its documentation sets it up, on the meshes' vertices:
voxel down-sampling (voxel 1/70 of the smaller diagonal), normals over 2 voxels, FPFH
over 5 voxels, RANSAC on mutual feature matches (3 points, edge-length and distance
checkers, 100000 iterations, confidence 0.999), then point-to-plane ICP on the full
vertex sets within 1.5 voxels. Each line of the output: the case's number, the seconds
of the registration (reading excluded) and the 16 values of the transform that lays
the moving mesh on the fixed one (row-major, millimetres).

Needs Debian's python3-open3d (not installed by scripts/setup: benchmarks of peers are
optional).
"""
import os
import sys
import time

import numpy as np
import open3d as o3d


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
    if len(sys.argv) != 2:
        print(__doc__)
        sys.exit(2)
    folder = sys.argv[1]
    o3d.utility.set_verbosity_level(o3d.utility.VerbosityLevel.Error)
    o3d.utility.random.seed(1)
    lines = []
    with open(os.path.join(folder, "cases.txt")) as manifest:
        cases = [line.split() for line in manifest if line.strip()]
    for name, kind, body in cases:
        moving_points = np.asarray(o3d.io.read_triangle_mesh(os.path.join(folder, name + "_moving.ply")).vertices)
        fixed_points = np.asarray(o3d.io.read_triangle_mesh(os.path.join(folder, name + "_fixed.ply")).vertices)
        moving = o3d.geometry.PointCloud(o3d.utility.Vector3dVector(moving_points.copy()))
        fixed = o3d.geometry.PointCloud(o3d.utility.Vector3dVector(fixed_points.copy()))
        voxel = min(diagonal(moving_points), diagonal(fixed_points)) / 70.0
        start = time.perf_counter()
        found = register(moving, fixed, voxel)
        seconds = time.perf_counter() - start
        lines.append(name + " " + repr(seconds) + " " + " ".join(repr(float(v)) for v in np.asarray(found).ravel()))
        print(name, kind, body, "%.3f s" % seconds, flush=True)
    with open(os.path.join(folder, "open3d.txt"), "w") as out:
        out.write("\n".join(lines) + "\n")


if __name__ == "__main__":
    main()

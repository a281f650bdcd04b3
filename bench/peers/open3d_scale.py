#!/usr/bin/python3
"""The peer of bench_scale: one pair of mesh files registered with Open3D 0.16's recipe.

    /usr/bin/python3 bench/peers/open3d_scale.py MOVING FIXED OUT

The same global registration as bench/peers/open3d_scan_scenes.py (voxel down-sampling at
1/70 of the smaller diagonal, FPFH, RANSAC on feature matches, point-to-plane ICP on the
full vertex sets). Writes one line to OUT: the seconds of reading both files, the seconds
of the registration (reading excluded), and the 16 values of the transform that lays the
moving mesh on the fixed one (row-major, file units). bench_scale --peer runs it.
"""
import os
import sys
import time

import numpy as np
import open3d as o3d

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from open3d_scan_scenes import diagonal, register  # noqa: E402


def main():
    if len(sys.argv) != 4:
        print(__doc__)
        sys.exit(2)
    o3d.utility.set_verbosity_level(o3d.utility.VerbosityLevel.Error)
    o3d.utility.random.seed(1)
    start = time.perf_counter()
    moving_points = np.asarray(o3d.io.read_triangle_mesh(sys.argv[1]).vertices)
    fixed_points = np.asarray(o3d.io.read_triangle_mesh(sys.argv[2]).vertices)
    read = time.perf_counter() - start
    moving = o3d.geometry.PointCloud(o3d.utility.Vector3dVector(moving_points.copy()))
    fixed = o3d.geometry.PointCloud(o3d.utility.Vector3dVector(fixed_points.copy()))
    voxel = min(diagonal(moving_points), diagonal(fixed_points)) / 70.0
    start = time.perf_counter()
    found = register(moving, fixed, voxel)
    seconds = time.perf_counter() - start
    with open(sys.argv[3], "w") as out:
        out.write(" ".join(repr(v) for v in [read, seconds] + [float(x) for x in np.asarray(found).ravel()]) + "\n")


if __name__ == "__main__":
    main()

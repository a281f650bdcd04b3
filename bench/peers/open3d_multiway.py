#!/usr/bin/python3
"""The peer of bench_views: Open3D 0.16's multiway registration on the saved view sets.

Reads the sets that `bench_views --save DIR` wrote (DIR/SET_DRAW/NN.ply, millimetres,
each view placed at random, and truth.txt: each view's true transform into view 0's
frame, row-major, then the largest share of it another view holds) and registers each
set as Open3D's multiway-registration tutorial does, with a global start for every pair
since the views come with no poses: every pair of views by FPFH + RANSAC on voxel
down-sampled clouds (voxel 1/70 of the smaller diagonal, normals over 2 voxels, FPFH
over 5, 100000 iterations, confidence 0.999), then point-to-plane ICP within 1.5 voxels
(coarse) and 0.5 voxels (fine); a pose graph with an edge for every pair (odometry for
consecutive views, uncertain loop closures for the rest, each with its ICP information
matrix) optimised by Levenberg-Marquardt (correspondence distance 1.5 voxels, edge prune
threshold 0.25, reference node 0). A view counts as right within 0.1 degrees and 0.2 mm
of its truth at its centre, as in bench_views.

    /usr/bin/python3 bench/peers/open3d_multiway.py DIR [--threads 2]

Needs Debian's python3-open3d (not installed by scripts/setup).
"""
import argparse
import glob
import math
import os
import time

import numpy as np
import open3d as o3d


def diagonal(points):
    return float(np.linalg.norm(points.max(axis=0) - points.min(axis=0)))


def prepare(cloud, voxel):
    reg = o3d.pipelines.registration
    down = cloud.voxel_down_sample(voxel)
    down.estimate_normals(o3d.geometry.KDTreeSearchParamHybrid(radius=2 * voxel, max_nn=30))
    fpfh = reg.compute_fpfh_feature(down, o3d.geometry.KDTreeSearchParamHybrid(radius=5 * voxel, max_nn=100))
    return down, fpfh


def pair(source, target, prepared, voxel):
    reg = o3d.pipelines.registration
    (sd, sf), (td, tf) = prepared
    ransac = reg.registration_ransac_based_on_feature_matching(
        sd, td, sf, tf, True, 1.5 * voxel, reg.TransformationEstimationPointToPoint(False), 3,
        [reg.CorrespondenceCheckerBasedOnEdgeLength(0.9), reg.CorrespondenceCheckerBasedOnDistance(1.5 * voxel)],
        reg.RANSACConvergenceCriteria(100000, 0.999))
    coarse = reg.registration_icp(source, target, 1.5 * voxel, ransac.transformation,
                                  reg.TransformationEstimationPointToPlane())
    fine = reg.registration_icp(source, target, 0.5 * voxel, coarse.transformation,
                                reg.TransformationEstimationPointToPlane())
    information = reg.get_information_matrix_from_point_clouds(source, target, 0.5 * voxel, fine.transformation)
    return fine.transformation, information


def register_set(clouds, voxel):
    reg = o3d.pipelines.registration
    for c in clouds:
        c.estimate_normals(o3d.geometry.KDTreeSearchParamHybrid(radius=2 * voxel, max_nn=30))
    prepared = [prepare(c, voxel) for c in clouds]
    graph = reg.PoseGraph()
    odometry = np.identity(4)
    graph.nodes.append(reg.PoseGraphNode(odometry))
    n = len(clouds)
    for s in range(n):
        for t in range(s + 1, n):
            transform, information = pair(clouds[s], clouds[t], (prepared[s], prepared[t]), voxel)
            if t == s + 1:
                odometry = transform @ odometry
                graph.nodes.append(reg.PoseGraphNode(np.linalg.inv(odometry)))
                graph.edges.append(reg.PoseGraphEdge(s, t, transform, information, uncertain=False))
            else:
                graph.edges.append(reg.PoseGraphEdge(s, t, transform, information, uncertain=True))
    option = reg.GlobalOptimizationOption(max_correspondence_distance=1.5 * voxel, edge_prune_threshold=0.25,
                                          reference_node=0)
    reg.global_optimization(graph, reg.GlobalOptimizationLevenbergMarquardt(),
                            reg.GlobalOptimizationConvergenceCriteria(), option)
    return [np.asarray(node.pose) for node in graph.nodes]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("folder")
    parser.add_argument("--threads", type=int, default=2)
    args = parser.parse_args()
    os.environ.setdefault("OMP_NUM_THREADS", str(args.threads))
    o3d.utility.set_verbosity_level(o3d.utility.VerbosityLevel.Error)
    o3d.utility.random.seed(1)
    print(f"Open3D {o3d.__version__} multiway registration, OMP_NUM_THREADS={os.environ['OMP_NUM_THREADS']}\n")
    print("| set | views | placed | right | worst deg | worst mm | seconds |")
    print("|---|---|---|---|---|---|---|")
    for folder in sorted(glob.glob(os.path.join(args.folder, "*_*"))):
        files = sorted(glob.glob(os.path.join(folder, "[0-9][0-9].ply")))
        truth = np.loadtxt(os.path.join(folder, "truth.txt"))
        points = [np.asarray(o3d.io.read_triangle_mesh(f).vertices) for f in files]
        clouds = [o3d.geometry.PointCloud(o3d.utility.Vector3dVector(p)) for p in points]
        voxel = min(diagonal(p) for p in points) / 70.0
        start = time.perf_counter()
        poses = register_set(clouds, voxel)
        seconds = time.perf_counter() - start
        right, worst_deg, worst_mm = 0, 0.0, 0.0
        for v, pose in enumerate(poses):
            true = truth[v, :16].reshape(4, 4)
            error = np.linalg.inv(pose) @ true
            deg = math.degrees(math.acos(max(-1.0, min(1.0, 0.5 * (np.trace(error[:3, :3]) - 1.0)))))
            centre = points[v].mean(axis=0)
            mm = float(np.linalg.norm(error[:3, :3] @ centre + error[:3, 3] - centre))
            right += deg <= 0.1 and mm <= 0.2
            worst_deg, worst_mm = max(worst_deg, deg), max(worst_mm, mm)
        print(f"| {os.path.basename(folder)} | {len(poses)} | {len(poses)} | {right} | {worst_deg:.3f} | "
              f"{worst_mm:.3f} | {seconds:.2f} |", flush=True)


if __name__ == "__main__":
    main()

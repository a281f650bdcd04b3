#!/usr/bin/python3
"""The peer of bench_morph_changes: trimesh 5.0's optimal-step non-rigid ICP (nricp_amberg).

Reads the cases that `bench_morph_changes --save DIR` wrote (DIR/cases.txt, NNN_moving.ply,
NNN_target.ply, millimetres), morphs each moving mesh onto its target with nricp_amberg at
its own default steps, and writes DIR/NNN_peer.txt (the morphed vertices in the moving
mesh's order, millimetres) and DIR/peer.txt (case and seconds a line; a case the peer
fails on, e.g. with a singular system, is printed and left out). Then
`bench_morph_changes --peer DIR` judges them beside ours by the same measures.

The peer's weights are tuned for bodies of unit size: each case is divided by the moving
mesh's largest extent before the call and multiplied back after, and its match distance
threshold (0.1) is then a tenth of the body. Its stretch case gets no rigid registration
first (ours does): judge that row accordingly.

    OMP_NUM_THREADS=1 PYTHONPATH=../shared/peers/trimesh \\
        /usr/bin/python3 bench/peers/trimesh_morph_changes.py DIR [--only 0,3,7]

Needs Debian's python3-scipy and python3-rtree (not installed by scripts/setup: benchmarks
of peers are optional).
"""
import argparse
import os
import time

import numpy as np
import trimesh
from trimesh.registration import nricp_amberg


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("folder")
    parser.add_argument("--only", default="", help="comma-separated case numbers")
    args = parser.parse_args()

    cases = []
    with open(os.path.join(args.folder, "cases.txt"), encoding="utf-8") as manifest:
        for line in manifest:
            fields = line.split()
            if fields:
                cases.append((int(fields[0]), fields[1], fields[2]))
    only = {int(x) for x in args.only.split(",") if x}

    times = os.path.join(args.folder, "peer.txt")
    with open(times, "a", encoding="utf-8") as out:
        for number, body, name in cases:
            if only and number not in only:
                continue
            stem = os.path.join(args.folder, f"{number:03d}")
            moving = trimesh.load(stem + "_moving.ply", process=False)
            target = trimesh.load(stem + "_target.ply", process=False)
            size = float(np.max(moving.extents))
            centre = moving.bounds.mean(axis=0)
            moving.vertices = (moving.vertices - centre) / size
            target.vertices = (target.vertices - centre) / size
            started = time.perf_counter()
            try:
                morphed = nricp_amberg(moving, target)
            except Exception as e:  # noqa: BLE001 - a case the peer cannot solve is reported, not fatal
                print(f"{number:03d} {body} {name}: failed: {type(e).__name__}: {e}", flush=True)
                continue
            seconds = time.perf_counter() - started
            np.savetxt(stem + "_peer.txt", morphed * size + centre, fmt="%.6f")
            out.write(f"{number} {seconds:.3f}\n")
            out.flush()
            print(f"{number:03d} {body} {name}: {seconds:.2f} s", flush=True)


if __name__ == "__main__":
    main()

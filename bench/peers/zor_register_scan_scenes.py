#!/usr/bin/python3
"""An earlier build of ours beside bench_scan_scenes: the saved cases registered by a
given zor-register, through its JSON report, so that a change can be judged against the
build before it on the same cases by the same measures.

    build/release/bench/bench_scan_scenes --save DIR
    /usr/bin/python3 bench/peers/zor_register_scan_scenes.py DIR /path/to/zor-register OUT
    build/release/bench/bench_scan_scenes --peer OUT

Each line of OUT: the case's number, the seconds the tool reports for the registration
(reading excluded), the 16 values of the transform (row-major, millimetres), and 1 when
the tool called the result doubtful, else 0.
"""
import json
import subprocess
import sys


def main():
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    folder, tool, out = sys.argv[1:]
    with open(f"{folder}/cases.txt") as manifest, open(out, "w") as results:
        for line in manifest:
            case = line.split()[0]
            run = subprocess.run(
                [tool, "align", f"{folder}/{case}_moving.ply", f"{folder}/{case}_fixed.ply", "--json", "--quiet"],
                capture_output=True, text=True, check=True)
            report = json.loads(run.stdout)
            values = [v for row in report["transform"] for v in row]
            doubtful = 1 if report["doubtful"] else 0
            results.write(f"{case} {report['seconds']['total']} {' '.join(repr(v) for v in values)} {doubtful}\n")
            results.flush()


if __name__ == "__main__":
    main()

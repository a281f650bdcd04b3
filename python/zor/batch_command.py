"""zor-batch: registers the pairs of mesh files that a CSV file lists, on a Dask cluster.

    zor-batch PAIRS.csv --out results.jsonl [--scheduler ADDRESS | --workers N]
              [--reports DIR] [--threads T] [--scale S] [registration options]

PAIRS.csv has one pair a line: the moving file, the fixed file and, optionally, a name
(by default the two files' stems joined by a dash). Relative paths are relative to the
CSV file's folder. Blank lines and lines that start with # are skipped, and so is a first
line that reads "moving,fixed[,name]". Names must be unique: they key the results.

Each record goes to the JSON-lines output as soon as it and the records before it are in:
the name, the files, ok, failure (the reason, or null), the registration's fields
(transform as a 4x4 list, error, overlap, doubtful, ...) and the report's path. A rerun
with the same output skips the pairs already there, so a batch killed halfway resumes
(a line cut short by the kill is dropped and its pair redone; --retry-failed redoes the
failed pairs too). At the end it prints how many pairs were registered, doubtful and
failed, over every pair of the CSV file, and exits with 1 when any failed.

Without --scheduler it starts a local cluster of --workers processes (0: no cluster,
every pair in this process). Every worker must see the files (and the reports folder).
The registration options are those of zor.register (--strategy, --samples, ...).
"""

from __future__ import annotations

import argparse
import csv
import json
import math
import os
import re
import sys
from pathlib import Path
from typing import Any, Dict, List, Optional, Tuple

from . import _zor, batch

PairLine = Tuple[str, str, str]  # name, moving, fixed


class BatchError(Exception):
    """A fault of the command line or of the pairs file: nothing was registered."""


def read_pairs(path: str) -> List[PairLine]:
    folder = Path(path).resolve().parent
    pairs: List[PairLine] = []
    first_line: Dict[str, int] = {}
    with open(path, newline="", encoding="utf-8") as source:
        for number, row in enumerate(csv.reader(source), start=1):
            cells = [c.strip() for c in row]
            if not any(cells) or cells[0].startswith("#"):
                continue
            if not pairs and [c.lower() for c in cells[:2]] == ["moving", "fixed"]:
                continue
            if len(cells) not in (2, 3) or not cells[0] or not cells[1]:
                raise BatchError(f"{path}:{number}: expected moving,fixed[,name]; got {','.join(row)!r}")
            moving, fixed = (str(folder / c) if not os.path.isabs(c) else c for c in cells[:2])
            name = cells[2] if len(cells) == 3 and cells[2] else f"{Path(moving).stem}-{Path(fixed).stem}"
            if name in first_line:
                raise BatchError(f"{path}:{number}: the name {name!r} is already that of line {first_line[name]}")
            first_line[name] = number
            pairs.append((name, moving, fixed))
    return pairs


def read_done(out: str) -> Dict[str, Dict[str, Any]]:
    """The records already in the output, by name. A last line without its newline was
    cut short by a kill: it is removed, so that its pair is redone."""
    if not os.path.exists(out):
        return {}
    with open(out, "rb") as source:
        data = source.read()
    whole = data[: data.rfind(b"\n") + 1]
    if len(whole) != len(data):
        with open(out, "r+b") as target:
            target.truncate(len(whole))
    done: Dict[str, Dict[str, Any]] = {}
    for line in whole.decode("utf-8").splitlines():
        try:
            record = json.loads(line)
        except ValueError:
            continue
        if isinstance(record, dict) and "name" in record:
            done[record["name"]] = record
    return done


def _plain(value: Any) -> Any:
    """A record's value as JSON has it: arrays as lists, NaN and infinities as null."""
    if hasattr(value, "tolist"):
        value = value.tolist()
    if isinstance(value, dict):
        return {k: _plain(v) for k, v in value.items()}
    if isinstance(value, (list, tuple)):
        return [_plain(v) for v in value]
    if isinstance(value, float) and not math.isfinite(value):
        return None
    return value


def _register_options() -> Dict[str, Tuple[str, str]]:
    """zor.register's keyword options that a batch passes on: name -> (type, default),
    read from its signature so that the two cannot drift apart."""
    signature = _zor.register.__doc__.splitlines()[0]
    options = {}
    for name, kind, default in re.findall(r"(\w+): (\w+) = ([^,)]+)", signature):
        if name in batch.REGISTER_PARAMETERS:
            options[name] = (kind, default.strip("'"))
    return options


def _boolean(text: str) -> bool:
    lowered = text.lower()
    if lowered in ("1", "true", "yes", "on"):
        return True
    if lowered in ("0", "false", "no", "off"):
        return False
    raise argparse.ArgumentTypeError(f"expected true or false, got {text!r}")


def parse_arguments(argv: Optional[List[str]]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="zor-batch",
        description="Registers the pairs of mesh files a CSV file lists; one JSON record a pair.",
        epilog="Registration options are those of zor.register; see help(zor.register).",
    )
    parser.add_argument("pairs", help="CSV file: moving,fixed[,name] a line")
    parser.add_argument("--out", required=True, help="JSON-lines output; pairs already in it are skipped")
    where = parser.add_mutually_exclusive_group()
    where.add_argument("--scheduler", help="address of a running Dask scheduler")
    cores = os.cpu_count() or 1
    where.add_argument(
        "--workers",
        type=int,
        default=max(1, cores // 2),
        help="processes of the local cluster (default: half the cores; 0: none, all in this process)",
    )
    parser.add_argument("--threads", type=int, help="threads of each registration (default: cores / workers)")
    parser.add_argument("--reports", help="folder for each pair's inspection report (NAME.html)")
    parser.add_argument("--scale", type=float, default=1.0, help="file units times scale are millimetres")
    parser.add_argument("--retry-failed", action="store_true", help="redo the pairs whose record failed")
    parser.add_argument("--quiet", action="store_true", help="no progress bar")
    converters = {"int": int, "float": float, "bool": _boolean, "str": str}
    options = parser.add_argument_group("registration options")
    for name, (kind, default) in _register_options().items():
        options.add_argument(
            "--" + name.replace("_", "-"), dest=name, type=converters.get(kind, str), metavar=kind.upper(), help=f"default {default}"
        )
    arguments = parser.parse_args(argv)
    if arguments.workers is not None and arguments.workers < 0:
        parser.error("--workers must be 0 or more")
    if arguments.threads is not None and arguments.threads < 1:
        parser.error("--threads must be at least 1")
    return arguments


def _report_path(folder: Optional[str], name: str) -> Optional[str]:
    if folder is None:
        return None
    return os.path.join(folder, re.sub(r"[^\w.-]", "_", name) + ".html")


def _client(arguments: argparse.Namespace) -> Tuple[Any, Any, Optional[int]]:
    """The Dask client (or None: in this process), its local cluster to close, and the
    threads of each registration."""
    cores = os.cpu_count() or 1
    if arguments.scheduler:
        from dask.distributed import Client

        return Client(arguments.scheduler), None, arguments.threads
    if arguments.workers == 0:
        return None, None, arguments.threads
    from dask.distributed import Client, LocalCluster

    cluster = LocalCluster(
        n_workers=arguments.workers, threads_per_worker=1, processes=True, dashboard_address=None
    )
    threads = arguments.threads or max(1, cores // arguments.workers)
    return Client(cluster), cluster, threads


def run(arguments: argparse.Namespace) -> int:
    pairs = read_pairs(arguments.pairs)
    done = read_done(arguments.out)
    if arguments.retry_failed:
        done = {name: record for name, record in done.items() if record.get("ok")}
    todo = [p for p in pairs if p[0] not in done]
    if arguments.reports:
        os.makedirs(arguments.reports, exist_ok=True)
    params = {k: v for k, v in vars(arguments).items() if k in batch.REGISTER_PARAMETERS and v is not None}
    results = {name: done[name] for name, _, _ in pairs if name in done}

    client, cluster, threads = _client(arguments) if todo else (None, None, None)
    bar = None
    if todo and not arguments.quiet:
        from tqdm import tqdm

        bar = tqdm(total=len(todo), desc="Pairs", unit="pair", disable=None)
    try:
        work = [(moving, fixed, _report_path(arguments.reports, name)) for name, moving, fixed in todo]
        records = batch.iter_register_pairs(work, client, scale=arguments.scale, threads=threads, **params)
        with open(arguments.out, "a", encoding="utf-8") as out:
            for (name, _, _), record in zip(todo, records):
                record = {"name": name, **record}
                out.write(json.dumps(_plain(record)) + "\n")
                out.flush()
                results[name] = record
                if bar is not None:
                    bar.update(1)
    finally:
        if bar is not None:
            bar.close()
        if client is not None:
            client.close()
        if cluster is not None:
            cluster.close()

    ours = [results[name] for name, _, _ in pairs]
    failed = sum(1 for r in ours if not r.get("ok"))
    doubtful = sum(1 for r in ours if r.get("ok") and r.get("doubtful"))
    registered = len(ours) - failed - doubtful
    skipped = len(pairs) - len(todo)
    print(
        f"{len(pairs)} pairs: {registered} registered, {doubtful} doubtful, {failed} failed"
        + (f" ({skipped} already in {arguments.out})" if skipped else "")
    )
    for r in ours:
        if not r.get("ok"):
            print(f"  failed: {r['name']}: {r.get('failure')}", file=sys.stderr)
    return 1 if failed else 0


def main(argv: Optional[List[str]] = None) -> int:
    arguments = parse_arguments(argv)
    try:
        return run(arguments)
    except (BatchError, OSError) as e:
        print(f"zor-batch: {e}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        print("zor-batch: interrupted; a rerun with the same --out resumes", file=sys.stderr)
        return 130


if __name__ == "__main__":
    sys.exit(main())

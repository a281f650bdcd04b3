"""Registration of many pairs of mesh files, in this process or on a Dask cluster.

    >>> from dask.distributed import Client
    >>> client = Client("tcp://scheduler:8786")          # or Client(LocalCluster(...))
    >>> records = zor.batch.register_pairs(pairs, client, strategy="auto+features")

Each pair is one task; the files are read where the task runs, so every worker must see
the paths, and only paths and records travel. The records come back in the order of the
pairs, and a pair that fails (a missing or malformed file, a bad parameter) gives a record
with ``ok`` False and the reason in ``failure``, never a lost batch. A task the cluster
loses (its worker killed, the task cancelled) is submitted once more, and reported as a
failure if it is lost again.

``align_views`` brings many view files of one part into one frame as zor.align_views
does, with its pair registrations as tasks on the cluster.

``iter_register_pairs`` streams the records: it keeps only a window of tasks in flight
(twice the cluster's threads by default), so that neither the tasks nor the records held
on the client grow with the number of pairs.
"""

from __future__ import annotations

import os
from typing import Any, Dict, Iterable, Iterator, List, Optional, Sequence, Tuple, Union

from . import _zor

PathLike = Union[str, "os.PathLike[str]"]
Pair = Tuple[str, str, Optional[str]]  # moving, fixed, report (or None)

# The keyword parameters of zor.register that a batch passes on (progress aside: a
# batch shows its own).
REGISTER_PARAMETERS = (
    "strategy",
    "samples",
    "overlap",
    "error_tolerance",
    "iterations",
    "reduce",
    "reduce_tolerance",
    "slide_step",
    "normals",
    "flip_normals",
    "normal_radius",
    "max_normal_angle",
    "normal_weight",
    "sphere_rings",
    "sphere_spins",
    "axis_steps",
    "polish",
    "search_triangles",
)


def register_pair(
    moving: PathLike,
    fixed: PathLike,
    scale: float = 1.0,
    threads: Optional[int] = None,
    params: Optional[Dict[str, Any]] = None,
    report: Optional[PathLike] = None,
) -> Dict[str, Any]:
    """Reads and registers one pair, and writes its inspection report to `report` when
    given; a record as register_pairs gives it, never raises for the pair's own faults."""
    record: Dict[str, Any] = {"moving": os.fspath(moving), "fixed": os.fspath(fixed), "ok": False, "failure": None}
    try:
        if threads is not None:
            with _zor.threads(threads):
                result = _run(moving, fixed, scale, params or {}, report)
        else:
            result = _run(moving, fixed, scale, params or {}, report)
    except Exception as e:  # noqa: BLE001 - a pair's fault becomes its record
        record["failure"] = f"{type(e).__name__}: {e}"
        return record
    record.update(result.as_dict())
    record["ok"] = True
    if report is not None:
        record["report"] = os.fspath(report)
    return record


def _run(
    moving: PathLike, fixed: PathLike, scale: float, params: Dict[str, Any], report: Optional[PathLike]
) -> _zor.RegisterResult:
    moving_mesh, fixed_mesh = _zor.load(moving, scale), _zor.load(fixed, scale)
    result = _zor.register(moving_mesh, fixed_mesh, **params)
    if report is not None:
        from . import inspect  # the package's own, defined after this module is imported

        inspect(report, moving_mesh, fixed_mesh, result, title=os.path.basename(os.fspath(moving)))
    return result


def register_pairs(
    pairs: Iterable[Tuple[PathLike, PathLike]],
    client: Any = None,
    *,
    scale: float = 1.0,
    threads: Optional[int] = None,
    progress: bool = False,
    **params: Any,
) -> List[Dict[str, Any]]:
    """Registers each (moving path, fixed path) pair with zor.register. A pair may carry a
    third item, the path of its inspection report (see zor.inspect), written where the
    task runs.

    client: a dask.distributed Client; one task per pair is submitted to its cluster and
        the records gathered. None runs the pairs here, one after the other.
    scale: file units times scale are millimetres.
    threads: caps the worker threads of each registration (with several workers on one
        machine, its cores divided by the workers); None leaves them uncapped.
    progress: a tqdm bar over the pairs.
    params: keyword parameters of zor.register (strategy, samples, ...).

    Returns one dict per pair, in the order given: moving, fixed, ok, failure (the
    reason when ok is False, else None) and, when ok, the fields of RegisterResult
    (transform as a 4x4 array with its shift in millimetres, error, strategy_used,
    overlap, doubtful, seconds, ...). For batches too large to hold, iter_register_pairs
    gives the same records one at a time.
    """
    pairs = [_pair(p) for p in pairs]
    bar = _bar(len(pairs)) if progress else None
    records = []
    try:
        for record in iter_register_pairs(pairs, client, scale=scale, threads=threads, **params):
            records.append(record)
            if bar is not None:
                bar.update(1)
    finally:
        if bar is not None:
            bar.close()
    return records


def iter_register_pairs(
    pairs: Iterable[Tuple[PathLike, PathLike]],
    client: Any = None,
    *,
    scale: float = 1.0,
    threads: Optional[int] = None,
    window: Optional[int] = None,
    **params: Any,
) -> Iterator[Dict[str, Any]]:
    """The records of register_pairs, yielded in the order of the pairs as they arrive.

    pairs may be any iterable, read as the window moves (a generator over a listing of
    millions of files is fine). window: the most tasks submitted and records held at
    once; by default twice the threads of the cluster's workers, at least 2. A task lost
    by the cluster is submitted once more; lost again, its record says why.
    """
    # Checked here, not at the first record: the generators below start late.
    unknown = sorted(set(params) - set(REGISTER_PARAMETERS))
    if unknown:
        raise TypeError(f"register_pairs: unknown parameter(s) {', '.join(unknown)}")
    if window is not None and window < 1:
        raise ValueError(f"register_pairs: window must be at least 1; got {window!r}")
    if client is None:
        return _here(iter(pairs), scale, threads, params)
    return _on_cluster(iter(pairs), client, scale, threads, params, window)


def _here(
    pairs: Iterator[Any], scale: float, threads: Optional[int], params: Dict[str, Any]
) -> Iterator[Dict[str, Any]]:
    for pair in pairs:
        moving, fixed, report = _pair(pair)
        yield register_pair(moving, fixed, scale, threads, params, report)


def _on_cluster(
    pairs: Iterator[Any], client: Any, scale: float, threads: Optional[int], params: Dict[str, Any], window: Optional[int]
) -> Iterator[Dict[str, Any]]:
    from dask.distributed import as_completed

    if window is None:
        window = max(2, 2 * sum(client.nthreads().values()))
    flying: Dict[Any, Tuple[int, Pair, int]] = {}  # future: (index, pair, attempt)
    arrived: Dict[int, Dict[str, Any]] = {}  # records that wait for an earlier one
    queue = as_completed()
    head = 0  # the index of the next record to yield
    taken = 0  # pairs read from the iterable so far

    def submit(index: int, pair: Pair, attempt: int) -> None:
        future = client.submit(register_pair, pair[0], pair[1], scale, threads, params, pair[2], pure=False)
        flying[future] = (index, pair, attempt)
        queue.add(future)

    def fill() -> None:
        nonlocal taken
        while taken < head + window:
            try:
                pair = _pair(next(pairs))
            except StopIteration:
                return
            submit(taken, pair, 0)
            taken += 1

    fill()
    for future in queue:
        index, pair, attempt = flying.pop(future)
        try:
            record = future.result()
        except Exception as e:  # noqa: BLE001 - the cluster lost the task, not the pair's fault
            if attempt == 0:
                submit(index, pair, 1)
                future.release()
                continue
            record = {
                "moving": pair[0],
                "fixed": pair[1],
                "ok": False,
                "failure": f"{type(e).__name__}: {e} (lost twice by the cluster)",
            }
        future.release()
        arrived[index] = record
        while head in arrived:
            yield arrived.pop(head)
            head += 1
        fill()


def align_views(
    paths: Sequence[PathLike],
    client: Any = None,
    *,
    reference: Optional[PathLike] = None,
    scale: float = 1.0,
    threads: Optional[int] = None,
    max_pairs: int = 0,
    refine: bool = True,
    **params: Any,
) -> Dict[str, Any]:
    """zor.align_views on view files, the pair registrations on a Dask cluster.

    The views (and the reference) are read here for the ranking and the placement, and
    by the workers for each pair. The pairs go in waves: every pair that would join views
    not yet joined, best first, at once; again while views stay apart and the budget
    (max_pairs; 0: three for each view beyond the first) lasts; then the best of the rest,
    for loops, up to two a view. params: keyword parameters of zor.register. Returns the
    dict of zor.align_views, its pairs in the order registered, each with its files
    (moving_file, fixed_file), ok and failure: a pair whose task failed is there with ok
    False and takes no part.
    """
    unknown = sorted(set(params) - set(REGISTER_PARAMETERS))
    if unknown:
        raise TypeError(f"align_views: unknown parameter(s) {', '.join(unknown)}")
    files = [os.fspath(p) for p in paths] + ([os.fspath(reference)] if reference is not None else [])
    meshes = [_zor.load(p, scale) for p in files[: len(paths)]]
    model = _zor.load(files[-1], scale) if reference is not None else None
    candidates = _zor.rank_view_pairs(meshes, model)
    nodes = len(files)
    budget = max_pairs if max_pairs > 0 else 3 * max(0, nodes - 1)
    loop_budget = min(budget, 2 * max(0, nodes - 1))
    parent = list(range(nodes))

    def find(links: List[int], x: int) -> int:
        while links[x] != x:
            links[x] = links[links[x]]
            x = links[x]
        return x

    records: Dict[int, Dict[str, Any]] = {}
    order: List[int] = []

    def run(wave: List[int]) -> None:
        work = [(files[candidates[k][0]], files[candidates[k][1]]) for k in wave]
        for k, record in zip(wave, iter_register_pairs(work, client, scale=scale, threads=threads, **params)):
            records[k] = record
            order.append(k)
            if record["ok"] and _zor._sound_view_pair(record["doubtful"], record["overlap"], record["fixed_overlap"]):
                a, b = find(parent, candidates[k][0]), find(parent, candidates[k][1])
                parent[max(a, b)] = min(a, b)

    while len(records) < budget and len({find(parent, x) for x in range(nodes)}) > 1:
        tentative = parent[:]
        wave: List[int] = []
        for k, (moving, fixed, _) in enumerate(candidates):
            if len(records) + len(wave) >= budget:
                break
            a, b = find(tentative, moving), find(tentative, fixed)
            if k not in records and a != b:
                tentative[max(a, b)] = min(a, b)
                wave.append(k)
        if not wave:
            break
        run(wave)
    loops = [k for k in range(len(candidates)) if k not in records][: max(0, loop_budget - len(records))]
    if loops:
        run(loops)
    pairs = [
        {**records[k], "moving": candidates[k][0], "fixed": candidates[k][1], "score": candidates[k][2]} for k in order
    ]
    result = _zor.place_views(meshes, pairs, model, refine=refine)
    for pair, k in zip(result["pairs"], order):
        pair["ok"], pair["failure"] = records[k]["ok"], records[k]["failure"]
        pair["moving_file"], pair["fixed_file"] = records[k]["moving"], records[k]["fixed"]
    return result


def _pair(pair: Sequence[PathLike]) -> Pair:
    if isinstance(pair, (str, bytes)) or len(pair) not in (2, 3):
        raise ValueError(f"register_pairs: each pair must be (moving path, fixed path[, report path]); got {pair!r}")
    report = os.fspath(pair[2]) if len(pair) == 3 and pair[2] is not None else None
    return os.fspath(pair[0]), os.fspath(pair[1]), report


def _bar(total: int) -> Any:
    from tqdm import tqdm

    return tqdm(total=total, desc="Pairs", unit="pair")

"""Registration of many pairs of mesh files, in this process or on a Dask cluster.

    >>> from dask.distributed import Client
    >>> client = Client("tcp://scheduler:8786")          # or Client(LocalCluster(...))
    >>> records = zor.batch.register_pairs(pairs, client, strategy="auto+features")

Each pair is one task; the files are read where the task runs, so every worker must see
the paths. The records come back in the order of the pairs, and a pair that fails (a
missing or malformed file, a bad parameter) gives a record with ``ok`` False and the
reason in ``failure``, never a lost batch.
"""

from __future__ import annotations

import os
from typing import Any, Dict, Iterable, List, Optional, Sequence, Tuple, Union

from . import _zor

PathLike = Union[str, "os.PathLike[str]"]

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
)


def register_pair(
    moving: PathLike,
    fixed: PathLike,
    scale: float = 1.0,
    threads: Optional[int] = None,
    params: Optional[Dict[str, Any]] = None,
) -> Dict[str, Any]:
    """Reads and registers one pair; a record as register_pairs gives it, never raises
    for the pair's own faults."""
    record: Dict[str, Any] = {"moving": os.fspath(moving), "fixed": os.fspath(fixed), "ok": False, "failure": None}
    try:
        if threads is not None:
            with _zor.threads(threads):
                result = _run(moving, fixed, scale, params or {})
        else:
            result = _run(moving, fixed, scale, params or {})
    except Exception as e:  # noqa: BLE001 - a pair's fault becomes its record
        record["failure"] = f"{type(e).__name__}: {e}"
        return record
    record.update(result.as_dict())
    record["ok"] = True
    return record


def _run(moving: PathLike, fixed: PathLike, scale: float, params: Dict[str, Any]) -> _zor.RegisterResult:
    return _zor.register(_zor.load(moving, scale), _zor.load(fixed, scale), **params)


def register_pairs(
    pairs: Iterable[Tuple[PathLike, PathLike]],
    client: Any = None,
    *,
    scale: float = 1.0,
    threads: Optional[int] = None,
    progress: bool = False,
    **params: Any,
) -> List[Dict[str, Any]]:
    """Registers each (moving path, fixed path) pair with zor.register.

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
    overlap, doubtful, seconds, ...).
    """
    unknown = sorted(set(params) - set(REGISTER_PARAMETERS))
    if unknown:
        raise TypeError(f"register_pairs: unknown parameter(s) {', '.join(unknown)}")
    pairs = [_pair(p) for p in pairs]
    bar = _bar(len(pairs)) if progress else None
    try:
        if client is None:
            records = []
            for moving, fixed in pairs:
                records.append(register_pair(moving, fixed, scale, threads, params))
                if bar is not None:
                    bar.update(1)
            return records
        futures = [
            client.submit(register_pair, moving, fixed, scale, threads, params, pure=False) for moving, fixed in pairs
        ]
        if bar is not None:
            from dask.distributed import as_completed

            for _ in as_completed(futures):
                bar.update(1)
        return [_gathered(future, pair) for future, pair in zip(futures, pairs)]
    finally:
        if bar is not None:
            bar.close()


def _pair(pair: Sequence[PathLike]) -> Tuple[str, str]:
    if isinstance(pair, (str, bytes)) or len(pair) != 2:
        raise ValueError(f"register_pairs: each pair must be (moving path, fixed path); got {pair!r}")
    return os.fspath(pair[0]), os.fspath(pair[1])


def _gathered(future: Any, pair: Tuple[str, str]) -> Dict[str, Any]:
    # A task that failed outside the registration (a worker lost, a result that could not
    # travel) still gives its record.
    try:
        return future.result()
    except Exception as e:  # noqa: BLE001 - whatever the cluster raises becomes the record
        return {"moving": pair[0], "fixed": pair[1], "ok": False, "failure": f"{type(e).__name__}: {e}"}


def _bar(total: int) -> Any:
    from tqdm import tqdm

    return tqdm(total=total, desc="Pairs", unit="pair")

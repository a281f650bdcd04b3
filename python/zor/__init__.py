"""Rigid registration, multi-start ICP and morphing of triangle meshes.

Meshes come from NumPy arrays in millimetres (``zor.Mesh(vertices, triangles)``), from
anything with ``vertices`` and ``faces`` arrays (trimesh, Open3D), or from files
(``zor.load``). ``zor.register`` finds the rigid transform that lays one mesh on another
with no starting pose; ``zor.icp`` does the same by ICP started from many orientations;
``zor.morph`` deforms a mesh onto a nearby one keeping its triangles. Each run lets the
interpreter go, so other Python threads go on meanwhile; ``with zor.threads(n):`` caps
the worker threads. ``zor.batch.register_pairs`` registers many file pairs, on a Dask
cluster when given a client.

    >>> import numpy as np, zor
    >>> fixed = zor.sample_body(20000)
    >>> pose = np.eye(4); pose[:3, 3] = (5.0, -3.0, 2.0)
    >>> result = zor.register(fixed.transformed(pose), fixed)
    >>> bool(np.allclose(result.transform[:3, 3], -pose[:3, 3], atol=0.01))
    True
"""

from ._zor import (
    DeviationResult,
    IcpResult,
    Mesh,
    MorphResult,
    RegisterResult,
    __version__,
    closest_points,
    deviation,
    grid_steps_per_mm,
    icp,
    load,
    max_threads,
    morph,
    register,
    sample_body,
    threads,
)
from . import batch

__all__ = [
    "DeviationResult",
    "IcpResult",
    "Mesh",
    "MorphResult",
    "RegisterResult",
    "__version__",
    "batch",
    "closest_points",
    "deviation",
    "grid_steps_per_mm",
    "icp",
    "load",
    "max_threads",
    "morph",
    "register",
    "sample_body",
    "threads",
]

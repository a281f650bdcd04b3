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
    align_views,
    closest_points,
    deviation,
    grid_steps_per_mm,
    icp,
    load,
    max_threads,
    morph,
    register,
    report,
    sample_body,
    threads,
)
from . import batch


def _short(value):
    if isinstance(value, float):
        return "%.4g" % value
    if isinstance(value, dict):
        return "(" + ", ".join("%s %s" % (k, _short(v)) for k, v in value.items()) + ")"
    return str(value)


def inspect(path, moving, fixed, result=None, *, range=None, title=None):
    """Writes an inspection report (see ``report``) of a result of ``register``, ``icp``
    or ``morph``: a registration's moving mesh moved by its transform, or a morph's
    mesh, with the result's numbers as the summary. Returns the ``DeviationResult`` the
    page shows."""
    transform = None
    rows = []
    if result is not None:
        fields = result.as_dict()
        if isinstance(result, MorphResult):
            moving = result.mesh
            title = title or "zor.morph"
        else:
            transform = fields.get("transform")
            title = title or ("zor.icp" if isinstance(result, IcpResult) else "zor.register")
        for key, value in fields.items():
            if key in ("transform", "vertices", "triangles", "mesh", "registration", "icp"):
                continue
            if isinstance(value, dict):
                value = ", ".join("%s %s" % (k, _short(v)) for k, v in value.items())
            rows.append((key.replace("_", " "), value))
        if transform is not None:
            rows.insert(0, ("transform", "; ".join(" ".join("%.6f" % v for v in row) for row in transform[:3])))
    return report(path, moving, fixed, transform=transform, range=range, title=title or "zor report", rows=rows)

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
    "inspect",
    "load",
    "max_threads",
    "morph",
    "register",
    "report",
    "sample_body",
    "threads",
]

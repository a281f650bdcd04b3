# Types of the extension module; help() on each function shows its full description.
import os
from typing import Any, Callable, Dict, List, Optional, Sequence, Tuple, Union, overload

import numpy as np
import numpy.typing as npt

_Path = Union[str, "os.PathLike[str]"]
_MeshLike = Union["Mesh", Any]  # a Mesh, or anything with vertices and faces (or triangles) arrays
_Progress = Union[None, bool, Callable[[str, int, int], Any]]

__version__: str

class Mesh:
    """A triangle mesh on the library's integer grid (1000 steps per mm)."""

    @overload
    def __init__(self, vertices: npt.ArrayLike, triangles: npt.ArrayLike) -> None: ...
    @overload
    def __init__(self, mesh: Any) -> None: ...
    @property
    def vertices(self) -> npt.NDArray[np.float64]: ...
    @property
    def triangles(self) -> npt.NDArray[np.int64]: ...
    @property
    def faces(self) -> npt.NDArray[np.int64]: ...
    @property
    def vertex_count(self) -> int: ...
    @property
    def triangle_count(self) -> int: ...
    @property
    def merged_vertices(self) -> int: ...
    @property
    def dropped_triangles(self) -> int: ...
    @property
    def bounds(self) -> npt.NDArray[np.float64]: ...
    def transformed(self, matrix: npt.ArrayLike) -> "Mesh": ...
    def save(self, path: _Path, scale: float = 1.0, ascii: bool = False) -> None: ...
    def __len__(self) -> int: ...

class RegisterResult:
    transform: npt.NDArray[np.float64]
    error: float
    strategy: str
    strategy_used: str
    inliers: int
    iterations: int
    tried_features: bool
    polished: bool
    overlap: float
    fixed_overlap: float
    overlap_rms: float
    overlap_distance: float
    doubtful: bool
    doubt: str
    seconds: Dict[str, float]
    def as_dict(self) -> Dict[str, Any]: ...

class IcpResult:
    transform: npt.NDArray[np.float64]
    rms_error: float
    starts: int
    refined: bool
    polished: bool
    overlap: float
    fixed_overlap: float
    overlap_rms: float
    doubtful: bool
    doubt: str
    seconds: Dict[str, float]
    def as_dict(self) -> Dict[str, Any]: ...

class MorphResult:
    vertices: npt.NDArray[np.float64]
    triangles: npt.NDArray[np.int64]
    mesh: Mesh
    max_distance: float
    mean_distance: float
    fraction_within: float
    tolerance: float
    iterations: int
    method: str
    stop: str
    p95_distance: float
    unmatched: int
    folded: int
    local: bool
    registered: bool
    registration_succeeded: bool
    registration: Optional[npt.NDArray[np.float64]]
    scales: Optional[npt.NDArray[np.float64]]
    icp: Optional[npt.NDArray[np.float64]]
    seconds: Dict[str, Any]
    def as_dict(self) -> Dict[str, Any]: ...

class DeviationResult:
    distances: npt.NDArray[np.float64]
    colours: npt.NDArray[np.uint8]
    range: float
    within_share: float
    percentile95: float
    largest: float
    def as_dict(self) -> Dict[str, Any]: ...

class threads:
    n: int
    def __init__(self, n: int) -> None: ...
    def __enter__(self) -> "threads": ...
    def __exit__(self, *args: Any) -> None: ...

def load(path: _Path, scale: float = 1.0) -> Mesh: ...
def sample_body(triangles: int = 50000) -> Mesh: ...
def register(
    moving: _MeshLike,
    fixed: _MeshLike,
    *,
    strategy: str = "auto+features",
    samples: int = 500,
    overlap: float = 0.8,
    error_tolerance: float = 0.1,
    iterations: int = 100,
    reduce: bool = True,
    reduce_tolerance: float = 0.3,
    slide_step: float = 10.0,
    normals: bool = False,
    flip_normals: bool = False,
    normal_radius: float = 2.0,
    max_normal_angle: float = 25.0,
    normal_weight: float = 0.5,
    sphere_rings: int = 4,
    sphere_spins: int = 8,
    axis_steps: int = 16,
    polish: bool = True,
    search_triangles: int = 50000,
    progress: _Progress = None,
) -> RegisterResult: ...
def align_views(
    meshes: Sequence[_MeshLike],
    reference: Optional[_MeshLike] = None,
    *,
    strategy: str = "auto+features",
    max_pairs: int = 0,
    refine: bool = True,
    progress: _Progress = None,
) -> Dict[str, Any]: ...
def _sound_view_pair(doubtful: bool, overlap: float, fixed_overlap: float) -> bool: ...
def rank_view_pairs(
    meshes: Sequence[_MeshLike], reference: Optional[_MeshLike] = None
) -> List[Tuple[int, int, float]]: ...
def place_views(
    meshes: Sequence[_MeshLike],
    pairs: Sequence[Dict[str, Any]],
    reference: Optional[_MeshLike] = None,
    *,
    refine: bool = True,
) -> Dict[str, Any]: ...
def icp(
    moving: _MeshLike,
    fixed: _MeshLike,
    *,
    single: bool = False,
    directions: int = 30,
    rotations: int = 12,
    iterations: int = 10,
    samples: int = 500,
    allow_scale: bool = False,
    normals: bool = True,
    distance_factor: float = 2.0,
    max_distance: float = 0.0,
    initial: Optional[npt.ArrayLike] = None,
    refine: bool = True,
    refine_factor: int = 10,
    polish: bool = True,
    progress: _Progress = None,
) -> IcpResult: ...
def morph(
    moving: _MeshLike,
    target: _MeshLike,
    *,
    register: bool = True,
    method: str = "field",
    tolerance: float = 0.05,
    target_fraction: float = 0.99,
    normal_angle: float = 60.0,
    search_distance: float = 0.0,
    smoothing: float = 2.0,
    max_passes: int = 60,
    initial_step: float = 0.05,
    step_retention: float = 0.9,
    smoothing_passes: int = 5,
    progress: _Progress = None,
) -> MorphResult: ...
def closest_points(
    mesh: _MeshLike, points: npt.ArrayLike
) -> Tuple[npt.NDArray[np.float64], npt.NDArray[np.float64], npt.NDArray[np.int64]]: ...
def deviation(
    moving: _MeshLike,
    fixed: _MeshLike,
    transform: Optional[npt.ArrayLike] = None,
    range: Optional[float] = None,
) -> DeviationResult: ...
def report(
    path: Union[str, os.PathLike],
    moving: _MeshLike,
    fixed: _MeshLike,
    *,
    transform: Optional[npt.ArrayLike] = None,
    range: Optional[float] = None,
    title: str = "zor report",
    rows: Optional[Sequence[Tuple[str, Any]]] = None,
) -> DeviationResult: ...
def max_threads() -> int: ...
def grid_steps_per_mm() -> float: ...

import numpy as np
import pytest

import zor


def turn(angle_deg, axis, shift):
    """A 4x4 rigid pose: a turn about `axis` through the origin, then `shift` (mm)."""
    axis = np.asarray(axis, float) / np.linalg.norm(axis)
    a = np.radians(angle_deg)
    k = np.array([[0, -axis[2], axis[1]], [axis[2], 0, -axis[0]], [-axis[1], axis[0], 0]])
    pose = np.eye(4)
    pose[:3, :3] = np.eye(3) + np.sin(a) * k + (1 - np.cos(a)) * k @ k
    pose[:3, 3] = shift
    return pose


def rotation_error_deg(found, pose):
    """Angle of found @ pose (the identity when found undoes pose), in degrees."""
    r = (found @ pose)[:3, :3]
    return np.degrees(np.arccos(np.clip((np.trace(r) - 1) / 2, -1, 1)))


@pytest.fixture(scope="session")
def body():
    return zor.sample_body(20000)


@pytest.fixture(scope="session")
def pose():
    return turn(70.0, (1.0, 2.0, 0.5), (12.0, -7.0, 4.0))


@pytest.fixture(scope="session")
def moved(body, pose):
    return body.transformed(pose)

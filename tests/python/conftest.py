# The module and NumPy are imported here without any skip: a machine that lacks them fails the
# whole run loudly (scripts/setup installs them).
import os
import subprocess

import numpy as np
import pytest

import vorel  # noqa: F401  (built beside the C++ targets; ctest puts it on PYTHONPATH)


@pytest.fixture
def vorel_binary():
    path = os.environ.get("VOREL_BINARY", "")
    if not path or not os.access(path, os.X_OK):
        pytest.fail("VOREL_BINARY does not name the vorel program (run the tests through ctest)")
    return path


def scene(height=24, width=40, channels=4, seed=1):
    """A small lopsided scene: noise over a bright block near the top left, depth rising from the
    bottom row to the top with a near step, so a flipped or transposed render cannot pass."""
    rng = np.random.default_rng(seed)
    image = rng.random((height, width, channels), dtype=np.float32)
    image[2:7, 3:9, :] = 6.0
    rows = np.linspace(400.0, 40.0, height, dtype=np.float32)[:, None]
    depth = np.repeat(rows, width, axis=1)
    depth[:, width // 2:] -= 30.0
    return image, np.ascontiguousarray(depth)


def run(argv):
    return subprocess.run(argv, capture_output=True, text=True, stdin=subprocess.DEVNULL, timeout=120)

"""Where the programs are, and how long a test may wait. The environment overrides each value.

KEST_BUILD      build directory whose bin/ holds the programs `kest` and `veld` (default: build/ of the source tree)
KEST_VELD       the daemon, when it is not the one in there
KEST_PATIENCE   factor on every deadline; sanitizer builds are several times slower
"""

import os
import re
import time
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[3]
BUILD = Path(os.environ.get("KEST_BUILD", SOURCE / "build")).resolve()
KEST = BUILD / "bin" / "kest"
VELD = Path(os.environ.get("KEST_VELD", BUILD / "bin" / "veld")).resolve()
MODELS = SOURCE / "models"
VERSION = re.search(r"^project\(kest VERSION (\S+)", (SOURCE / "CMakeLists.txt").read_text(), re.M)[1]



def _built_with(option):
    """Whether the programs were built with this; what KEST_BUILD names may be without CMake's cache."""
    cache = BUILD / "CMakeCache.txt"
    return not cache.exists() or not re.search(rf"^{option}:BOOL=(OFF|0|NO|FALSE|N)$", cache.read_text(), re.M)


LUA = _built_with("KEST_LUA")
TLS = _built_with("KEST_TLS")

PATIENCE = float(os.environ.get("KEST_PATIENCE", "1"))
DEADLINE = 10.0 * PATIENCE  # seconds that one wait may take
TEST_DEADLINE = 60.0 * PATIENCE  # seconds that one test may take


def deadline(seconds=None):
    """The moment (monotonic clock) at which a wait of `seconds` gives up; None is the usual deadline."""
    return time.monotonic() + (DEADLINE if seconds is None else seconds * PATIENCE)


def remaining(moment):
    return max(0.0, moment - time.monotonic())

"""What only one test at a time may do, whichever worker runs it."""

import contextlib
import fcntl

from . import settings


@contextlib.contextmanager
def exclusive(what):
    """Waits until nobody else is within the same."""
    with open(settings.BUILD / f".{what}.lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        yield

"""What the programs under test inherit from whoever starts the tests."""

import os
import resource
import signal


def make_usual():
    """Makes usual what that one left ignored, blocked or limited (nohup, a shell's "&", ulimit)."""
    signal.pthread_sigmask(signal.SIG_SETMASK, ())
    signal.signal(signal.SIGINT, signal.default_int_handler)
    for number in (
        signal.SIGHUP, signal.SIGQUIT, signal.SIGTERM, signal.SIGCHLD, signal.SIGTSTP, signal.SIGTTIN, signal.SIGTTOU, signal.SIGUSR1,
        signal.SIGUSR2, signal.SIGALRM, signal.SIGCONT, signal.SIGWINCH,
    ):  # fmt: skip
        signal.signal(number, signal.SIG_DFL)
    os.umask(0o022)
    for limit, usual in (
        (resource.RLIMIT_STACK, 8 << 20),
        (resource.RLIMIT_NOFILE, 16384),
        (resource.RLIMIT_FSIZE, None),
        (resource.RLIMIT_CPU, None),
        (resource.RLIMIT_AS, None),
        (resource.RLIMIT_DATA, None),
        (resource.RLIMIT_CORE, 0),
    ):
        hard = resource.getrlimit(limit)[1]
        resource.setrlimit(limit, (hard if usual is None or hard != resource.RLIM_INFINITY and hard < usual else usual, hard))

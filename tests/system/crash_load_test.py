"""Crashes the directory again and again while satellites register, change and go: each crash leaves a dump that can be
read and one fatal line, what is on disk is whole, and what was answered is there after the restart.

KEL_CRASH_ROUNDS says how many times (10); KEL_KILL_SEED repeats the moments of a run that failed.
"""
import ctypes
import os
import pathlib
import re
import signal
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
import kill_test
from kel_daemon import program
from kel_dumps import FATAL, Dump, store_symbols

kill_test.ROUNDS = int(os.environ.get("KEL_CRASH_ROUNDS", "10"))
SYS_TGKILL = 234
_libc = ctypes.CDLL(None)


def threads_of(process):
    """The threads that can fault, the oldest first: a sanitizer's own ones block all signals."""
    threads = []
    for status in pathlib.Path("/proc", str(process), "task").glob("*/status"):
        try:
            blocked = int(re.search(r"SigBlk:\s*(\w+)", status.read_text())[1], 16)
        except OSError:  # it has ended
            continue
        if not blocked >> (signal.SIGSEGV - 1) & 1:
            threads.append(int(status.parent.name))
    return sorted(threads)


class CrashedAtAnyMoment(kill_test.KilledAtAnyMoment):
    expect_crash = True

    def setUp(self):
        super().setUp()
        self.symbols = tempfile.TemporaryDirectory(prefix="kel-symbols-")
        self.addCleanup(self.symbols.cleanup)
        store_symbols(self.symbols.name, program("KelDirectory"))
        self.lines = 0

    def end(self):
        """Has one of its threads fault, or asks for a crash."""
        process = self.directory.current.process.pid
        victim = None
        if self.lines % 3 == 2:
            self.directory.current.send_signal(signal.SIGUSR1)
        else:
            while True:  # a thread may end between the choice and the signal
                threads = threads_of(process)
                victim = threads[self.lines % len(threads)]  # the second is the one that writes the line for others
                if _libc.syscall(SYS_TGKILL, process, victim, signal.SIGSEGV) == 0:
                    break
        self.assertEqual(self.directory.current.wait(), 0)
        lines = [list(FATAL.finditer((self.directory.logs / name).read_text()))
                 for name in ("KelDirectory.log", "errors.log")]
        self.lines += 1
        self.assertEqual([len(found) for found in lines], [self.lines] * 2)
        path = pathlib.Path(lines[0][-1]["dump"])
        dump = Dump(path, self.symbols.name)
        path.unlink()
        self.assertEqual(dump.signal, "SIGSEGV")
        if victim:
            self.assertEqual(dump.thread_id, victim)
        else:
            self.assertTrue(dump.has("generateCrash"), dump.crashed)

    def kill_during_start(self):
        pass  # before it is set up there is nobody to handle a crash


if __name__ == "__main__":
    unittest.main()

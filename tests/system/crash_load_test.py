"""Crashes the directory again and again while satellites register, change and go: each crash leaves a dump that can be
read and one fatal line, what is on disk is whole, and what was answered is there after the restart.

KEL_CRASH_ROUNDS says how many times (10); KEL_KILL_SEED repeats the moments of a run that failed.
"""
import ctypes
import os
import pathlib
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
        if self.random.random() < 0.3:
            self.directory.current.send_signal(signal.SIGUSR1)
        else:
            while True:  # a thread may end between the choice and the signal
                victim = int(self.random.choice(os.listdir(f"/proc/{process}/task")))
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

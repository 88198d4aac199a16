"""Has the system's calls fail under a running directory, once and as long as a while lasts: it stays up, says it once,
and what could not be done is done when it can be.

A tracer (strace) stands in for a full disk, a broken one, and a system without descriptors or threads.
"""
import contextlib
import pathlib
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from kel_client import record, wait_until
from kel_daemon import SystemTest

SKIPPED = 77

# What fails, how, and what the log says of it where it can be written.
FAILURES = [
    ("openat", "EMFILE", "kept in memory only"),
    ("write", "ENOSPC", None),
    ("renameat", "EIO", "Could not write"),
    ("fdatasync,syncfs", "EIO", "Could not write"),
    ("fsync", "EIO", "Could not write"),
    ("unlinkat", "EROFS", "Could not delete"),
    ("accept,accept4", "EMFILE", "accepting connections"),
    ("clone,clone3", "EAGAIN", "Not all satellites could be checked"),
]


@contextlib.contextmanager
def failing(pid, calls, error, when):
    """The calls of the process fail from the `when`th on ("1+"), or that one alone ("1")."""
    with tempfile.NamedTemporaryFile(prefix="kel-strace-") as said:
        tracer = subprocess.Popen(["strace", "-f", "-o", "/dev/null", f"--inject={calls}:error={error}:when={when}",
                                   "-p", str(pid)], stderr=said)
        try:
            wait_until(lambda: b"attached" in pathlib.Path(said.name).read_bytes() or tracer.poll() is not None,
                       "the tracer")
            assert tracer.poll() is None, pathlib.Path(said.name).read_text()
            yield
        finally:
            tracer.terminate()
            tracer.wait()


class ADirectoryWhoseCallsFail(SystemTest):
    def setUp(self):
        self.directory = self.daemon(level=1)
        self.directory.start()
        self.endpoint = self.satellite()
        self.caller = self.client(self.directory, "Listener")

    def test_stays_up_says_it_once_and_catches_up(self):
        for number, (calls, error, line) in enumerate(FAILURES):
            for when in ("1", "1+"):
                with self.subTest(calls=calls, when=when):
                    self.fail_and_recover(f"{calls.partition(',')[0]}{len(when)}", calls, error, when, line)
        self.directory.restart()
        names = [f"{calls.partition(',')[0]}{count}-{part}" for calls, *_ in FAILURES for count in (1, 2)
                 for part in "ab"]
        self.assertEqual(self.directory.satellite_files(), sorted(names))
        caller = self.client(self.directory)
        self.assertEqual([name for name in names if caller.id_of(name) is None], [])
        self.assertIsNone(caller.id_of("renameat1-gone"))

    def fail_and_recover(self, name, calls, error, when, line):
        gone = self.caller.register(f"{name}-gone", self.endpoint.port)
        before = self.count(line)
        with failing(self.directory.current.process.pid, calls, error, when):
            for part in "ab":
                self.caller.register(f"{name}-{part}", self.endpoint.port)
                self.caller.call("AddServiceAvailabilityListener", [f"{name}-{part}"])
            leaving = record(f"{name}-gone", self.endpoint.port, sat_id=gone)
            self.assertEqual(self.caller.call("RemoveSatellite", leaving), (0, None))
            newcomer = self.client(self.directory)
            if when == "1":
                self.assertIsNotNone(newcomer.id_of("MainRegister"))
            elif line:
                wait_until(lambda: self.count(line) > before, repr(line))
                self.assertLessEqual(self.count(line) - before, 3)  # the counter, the satellites' files, the list
        self.assertIsNotNone(newcomer.id_of("MainRegister"))
        files = {f"{name}-a", f"{name}-b"}
        wait_until(lambda: files <= set(self.directory.satellite_files()), f"the files of {name}")
        wait_until(lambda: f"{name}-gone" not in self.directory.satellite_files(), f"{name}-gone to be deleted")
        wait_until(lambda: files <= {service for service, _ in self.directory.listeners()}, f"listeners of {name}")
        self.assertEqual(self.caller.id_of(f"{name}-gone"), None)

    def count(self, line):
        return self.directory.log().count(line) if line else 0


def require_tracer():
    """Ends the program where no process may be traced."""
    try:
        done = subprocess.run(["strace", "-o", "/dev/null", "true"], stderr=subprocess.PIPE, text=True)
        problem = done.stderr if done.returncode else None
    except OSError as missing:
        problem = missing
    if problem:
        print(f"Skipped: strace cannot be used: {problem}")
        sys.exit(SKIPPED)


if __name__ == "__main__":
    require_tracer()
    unittest.main()

"""Cuts the power at random moments while clients register, change, leave and subscribe: what was answered is there after
the machine is up again, no id is given twice, and no file is empty or in pieces.

The directory's files lie on a file system in a file of its own, once on ext4, on XFS and on btrfs. A cut stops the
directory and throws away what that file system has not written: it is shut down without its log, or, for btrfs, which
cannot do that, the file is put back as it was at that moment.

KEL_POWER_ROUNDS says how many times each (3); KEL_KILL_SEED repeats the moments of a run that failed.
"""
import ctypes
import fcntl
import os
import pathlib
import signal
import struct
import subprocess
import sys
import tempfile
import threading
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
import kill_test
from kel_client import wait_until

kill_test.ROUNDS = int(os.environ.get("KEL_POWER_ROUNDS", "3"))
SHUTDOWN, WITHOUT_LOG = 0x8004587D, 2  # FS_IOC_SHUTDOWN and FS_SHUTDOWN_FLAGS_NOLOGFLUSH
CLONE_NEWNS = 0x20000
SKIPPED = 77
_libc = ctypes.CDLL(None, use_errno=True)


def run(*command):
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)


def keep_mounts_to_this_process():
    if _libc.unshare(CLONE_NEWNS) != 0:
        raise OSError(ctypes.get_errno(), "unshare")
    run("mount", "--make-rprivate", "/")


class Disk:
    """A file system in a file, mounted at `at`."""

    def __init__(self, kind, size, image, at):
        self.kind, self.image, self.at = kind, image, at
        with open(image, "wb") as file:
            file.truncate(size)
        run(f"mkfs.{kind}", "-q", image)
        self.mount()

    def mount(self):
        run("mount", "-o", "loop", "-t", self.kind, self.image, self.at)

    def unmount(self):
        wait_until(lambda: subprocess.run(["umount", self.at], stderr=subprocess.DEVNULL).returncode == 0,
                   f"{self.at} to be free")

    def lose(self):
        """Throws away what has not been written, for good."""
        if self.kind == "btrfs":
            run("cp", "--sparse=always", self.image, self.image + ".cut")
            return
        folder = os.open(self.at, os.O_RDONLY)
        try:
            fcntl.ioctl(folder, SHUTDOWN, struct.pack("I", WITHOUT_LOG))
        finally:
            os.close(folder)

    def come_back(self):
        self.unmount()
        if self.kind == "btrfs":
            os.replace(self.image + ".cut", self.image)
        self.mount()


class Subscriber(threading.Thread):
    """Subscribes to ever new services, until the directory is gone. `heard` are those that it was answered for."""

    def __init__(self, test):
        super().__init__(daemon=True)
        self.test, self.heard = test, test.subscribed

    def run(self):
        try:
            with self.test.directory.client("Subscriber") as client:
                while True:
                    service = f"Service{len(self.heard)}-{len(self.test.directory.runs)}"
                    assert client.call("AddServiceAvailabilityListener", [service])[0] == 0
                    self.heard.append(service)
        except (OSError, EOFError):
            pass  # the cut


class PowerCut:
    kind, size = None, None

    def setUp(self):
        self.subscribed = []
        folder = self.enterContext(tempfile.TemporaryDirectory(prefix="kel-disk-"))
        self.disk = None
        self.addCleanup(lambda: self.disk and self.disk.unmount())
        super().setUp()
        self.disk = Disk(self.kind, self.size, f"{folder}/image", str(self.directory.root))

    def load_and_kill(self):
        subscriber = Subscriber(self)
        subscriber.start()
        touched = super().load_and_kill()
        subscriber.join()
        listed = {service for service, _ in self.directory.listeners()} if self.subscribed else set()
        self.assertEqual(set(self.subscribed) - listed, set())
        return touched

    def end(self):
        process = self.directory.current
        process.send_signal(signal.SIGSTOP)  # at any instruction
        wait_until(lambda: self.stands_still(process.process.pid), "the directory to stop")
        self.disk.lose()
        process.kill()
        self.disk.come_back()

    @staticmethod
    def stands_still(pid):
        """Whether no thread is inside the kernel any more, waiting for the disk."""
        states = []
        for status in pathlib.Path("/proc", str(pid), "task").glob("*/stat"):
            try:
                states.append(status.read_text().rpartition(")")[2].split()[0])
            except OSError:
                pass  # a thread that has ended
        return set(states) == {"T"}

    def check_files(self):
        super().check_files()
        empty = [path for path in self.directory.satellites.rglob("*.xml") if path.stat().st_size == 0]
        self.assertEqual(empty, [])


class OnExt4(PowerCut, kill_test.KilledAtAnyMoment):
    kind, size = "ext4", 64 << 20


class OnXfs(PowerCut, kill_test.KilledAtAnyMoment):
    kind, size = "xfs", 320 << 20


class OnBtrfs(PowerCut, kill_test.KilledAtAnyMoment):
    kind, size = "btrfs", 128 << 20


def require_disks():
    """Ends the program when no file system can be mounted from a file."""
    try:
        keep_mounts_to_this_process()
        with tempfile.TemporaryDirectory(prefix="kel-disk-") as folder:
            os.mkdir(folder + "/at")
            Disk("ext4", 8 << 20, folder + "/image", folder + "/at").unmount()
    except (OSError, subprocess.CalledProcessError) as problem:
        reason = getattr(problem, "stderr", None) or problem
        print(f"Skipped: no file system can be mounted from a file (root and loop devices are needed): {reason}")
        sys.exit(SKIPPED)


if __name__ == "__main__":
    require_disks()
    unittest.main()

#!/usr/bin/python3
"""What a flood of searches costs the directory's callers: calls a second before and after, and during it, the datagrams that left,
and the directory's memory. Takes root, and a build: KEL_BIN=build/release/bin bench/discovery_flood.py [RATE [SECONDS]]
"""
import pathlib
import shutil
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests/support"))
from kel_daemon import Daemon
from netns import Lab, require_namespaces

ADDRESSES = 1000
CALLERS = 4


def memory(directory):
    status = pathlib.Path(f"/proc/{directory.current.process.pid}/status").read_text().splitlines()
    return next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))


def calls(directory, seconds):
    """Calls a second of satellites beside the directory that call it again and again; enough of them to leave no
    processor idle, for waking one up takes longer than a call."""
    callers = [directory.companion("discovery_load", "calls", f"127.0.0.1:{directory.port}", seconds)
               for _ in range(CALLERS)]
    for caller in callers:
        assert caller.process.wait() == 0, caller.output()
    return sum(int(caller.output().split()[1]) for caller in callers) / seconds


def measure(lab, folder, rate, seconds):
    home, flooding = lab.host("home"), lab.host("flooding")
    lab.network("10.79.0", home, flooding)
    flooding.ip("route", "add", "local", "10.79.4.0/22", "dev", "lo")
    home.ip("route", "add", "10.79.4.0/22", "via", "10.79.0.2")
    directory = Daemon(folder, 1, home).start()
    before, quiet_before = memory(directory), calls(directory, 5)
    sent = home.udp_sent()
    flood = directory.companion("discovery_load", "flood", "10.79.0.1", rate, seconds, "10.79.4.0", ADDRESSES,
                                host=flooding)
    time.sleep(1)
    flooded = calls(directory, seconds - 3)
    flood.process.wait()
    searches = int(flood.output().split()[1])
    left, after = home.udp_sent() - sent, memory(directory)
    time.sleep(4)  # the last of what has arrived is answered
    quiet = (quiet_before + calls(directory, 5)) / 2
    directory.close()
    print(f"searches sent      {searches} in {seconds} s from {ADDRESSES} addresses ({searches / seconds:,.0f}/s)")
    print(f"calls without      {quiet:,.0f}/s")
    print(f"calls meanwhile    {flooded:,.0f}/s   ({flooded / quiet:.2f})")
    print(f"datagrams sent     {left} ({left / seconds:.0f}/s)")
    print(f"memory             {before} KiB before, {after} KiB after")


def main(rate=100_000, seconds=10):
    require_namespaces()
    lab, folder = Lab(), tempfile.mkdtemp(prefix="kel-bench-")
    try:
        measure(lab, folder, int(rate), int(seconds))
    finally:
        lab.close()
        shutil.rmtree(folder)


if __name__ == "__main__":
    main(*sys.argv[1:])

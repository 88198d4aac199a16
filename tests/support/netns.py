"""Hosts and networks for a test: network namespaces, joined by bridges in one more. They go when the test ends.

    lab = Lab()
    studio, kitchen = lab.host("studio"), lab.host("kitchen")
    lab.network("10.77.1", studio, kitchen)       # studio is 10.77.1.1 there, kitchen 10.77.1.2
    with studio:                                  # sockets made in here are the studio's
        sender = socket.socket(...)

Making them takes root. Without, a test program says so and ends with the status that ctest counts as skipped; where
KEL_REQUIRE_NAMESPACES is set it fails.
"""
import ctypes
import itertools
import json
import os
import subprocess
import sys
import threading

CLONE_NEWNET = 0x40000000
SKIPPED = 77

_libc = ctypes.CDLL(None, use_errno=True)
_numbers = itertools.count(1)


def ip(*words):
    done = subprocess.run(["ip", *map(str, words)], text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if done.returncode != 0:
        raise OSError(f"ip {' '.join(map(str, words))}: {done.stdout.strip()}")
    return done.stdout


def require_namespaces():
    """Ends the program when no namespaces can be made."""
    name = f"kelt-{os.getpid()}-try"
    try:
        ip("netns", "add", name)
        ip("netns", "delete", name)
    except OSError as problem:
        if os.environ.get("KEL_REQUIRE_NAMESPACES"):
            sys.exit(f"KEL_REQUIRE_NAMESPACES is set, but network namespaces cannot be made: {problem}")
        print(f"Skipped: network namespaces cannot be made (root and iproute2 are needed): {problem}")
        sys.exit(SKIPPED)


class Host:
    def __init__(self, name):
        self.name = name
        self.interfaces = 0
        ip("netns", "add", name)
        self.ip("link", "set", "lo", "up")

    def ip(self, *words):
        return ip("-n", self.name, *words)

    def command(self, arguments):
        """What runs the arguments on this host."""
        return ["ip", "netns", "exec", self.name, *arguments]

    def run(self, *arguments):
        return subprocess.run(self.command(arguments), check=True, text=True, stdout=subprocess.PIPE).stdout

    def kernels_choice(self, destination):
        """The source address that the kernel takes to the destination; None without a route."""
        try:
            return json.loads(self.ip("-j", "route", "get", destination))[0]["prefsrc"]
        except OSError:
            return None

    def udp_sent(self):
        """The datagrams that programs of this host have sent."""
        lines = [line.split() for line in self.run("cat", "/proc/net/snmp").splitlines() if line.startswith("Udp:")]
        return int(dict(zip(*lines))["OutDatagrams"])

    def _enter(self, path):
        with open(path) as namespace:
            if _libc.setns(namespace.fileno(), CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), f"cannot enter {path}")

    def __enter__(self):
        self._outside = os.open(f"/proc/self/task/{threading.get_native_id()}/ns/net", os.O_RDONLY)
        self._enter(f"/run/netns/{self.name}")
        return self

    def __exit__(self, *_):
        self._enter(f"/proc/self/fd/{self._outside}")
        os.close(self._outside)


class Lab:
    def __init__(self):
        self.base = f"kelt-{os.getpid()}-{next(_numbers)}"
        self._hosts = []
        self._switch = self.host("switch")
        self._networks = 0

    def host(self, name):
        host = Host(f"{self.base}-{name}")
        self._hosts.append(host)
        return host

    def network(self, prefix, *hosts, first=1):
        """One more network of 24 bits. The hosts get the addresses prefix.first and so on, on an interface each."""
        self._networks += 1
        bridge = f"br{self._networks}"
        self._switch.ip("link", "add", bridge, "type", "bridge", "mcast_snooping", 0)
        self._switch.ip("link", "set", bridge, "up")
        for number, host in enumerate(hosts, first):
            port, interface = f"p{self._networks}-{number}", f"eth{host.interfaces}"
            host.interfaces += 1
            self._switch.ip("link", "add", port, "type", "veth", "peer", "name", interface, "netns", host.name)
            self._switch.ip("link", "set", port, "master", bridge, "up")
            host.ip("link", "set", interface, "up")
            host.ip("address", "add", f"{prefix}.{number}/24", "dev", interface)

    def close(self):
        for host in self._hosts:
            ip("netns", "delete", host.name)

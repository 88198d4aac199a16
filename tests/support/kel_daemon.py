"""Runs KelDirectory (found in the folder KEL_BIN) for system tests: a root, settings and a port of its own each.

A test derives from SystemTest and asks self.daemon() for one. What it leaves running is stopped when the test ends,
which fails unless it exits with status 0; a failed test prints what its programs said.
"""
import contextlib
import ctypes
import os
import pathlib
import plistlib
import random
import re
import resource
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

from kel_client import DEADLINE, Client, Satellite, wait_until

_libc = ctypes.CDLL(None)
_reserved_ports = []

SATELLITE_FILE = re.compile(
    rb"<\?xml version='1\.0'\?>\n<satellite>\n\t<id>(?P<id>-?\d+)</id>\n\t<satName>(?P<name>.{1,1024})</satName>\n"
    rb"\t<ip>(?P<ip>[\d.]{7,15})</ip>\n\t<port>(?P<port>\d+)</port>\n\t<hostname>(?P<host>.{1,16})</hostname>\n"
    rb"\t<kelProtocolVersion>(?P<version>-?\d+)</kelProtocolVersion>\n"
    rb"(?P<services>(?:\t<service>\n\t\t<name>.{1,1024}</name>\n\t\t<description>.{0,4096}</description>\n"
    rb"\t</service>\n)*)</satellite>\n")
LISTENER_ENTRY = (r"\t<serviceListener>\n\t\t<service>(.+)</service>\n\t\t<satellite>(.+)</satellite>\n"
                  r"\t</serviceListener>\n")
LISTENER_FILE = re.compile(
    rf"<\?xml version='1\.0'\?>\n<serviceListeners>\n(?:{LISTENER_ENTRY})*</serviceListeners>\n")
REGISTRATION_FILE = re.compile(
    rb"<\?xml version='1\.0'\?>\n<registration>\n\t<serverId>(?P<server>[0-9A-Za-z]{16})</serverId>\n"
    rb"\t<lastSatId>(?P<last>\d+)</lastSatId>\n</registration>\n")


def satellite_text(name, sat_id, port, services=(), host="studio", version=2, ip="127.0.0.1"):
    """The text of a satellite's file."""
    head = (f"<?xml version='1.0'?>\n<satellite>\n\t<id>{sat_id}</id>\n\t<satName>{name}</satName>\n\t<ip>{ip}</ip>\n"
            f"\t<port>{port}</port>\n\t<hostname>{host}</hostname>\n"
            f"\t<kelProtocolVersion>{version}</kelProtocolVersion>\n")
    return head + "".join(f"\t<service>\n\t\t<name>{service}</name>\n\t\t<description>{description}</description>\n"
                          "\t</service>\n" for service, description in services) + "</satellite>\n"


def registration_text(last_id, server_id="0123456789abcdef"):
    return (f"<?xml version='1.0'?>\n<registration>\n\t<serverId>{server_id}</serverId>\n"
            f"\t<lastSatId>{last_id}</lastSatId>\n</registration>\n")


def free_port():
    """A port that nothing listens on, below the range that the system picks from, so that it is free again after a
    restart. An abstract socket of the port's name keeps other tests that run now off it."""
    while True:
        port = random.randrange(10000, 32000)
        reservation = socket.socket(socket.AF_UNIX)
        try:
            reservation.bind(f"\0kel-test-port-{port}")
            with socket.socket() as trial:  # without SO_REUSEADDR: not one that old connections still hold
                trial.bind(("0.0.0.0", port))
        except OSError:
            reservation.close()
            continue
        _reserved_ports.append(reservation)
        return port


def program(name):
    return os.path.join(os.environ["KEL_BIN"], name)


class Program:
    """A process whose output goes to a file; it dies with this one. Start it from the main thread."""

    def __init__(self, arguments, environment, output, limit_files=None, expect_crash=False, prepare=None,
                 stdin=subprocess.DEVNULL):
        def set_up():
            _libc.prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG
            if prepare:
                prepare()
            if limit_files:
                resource.setrlimit(resource.RLIMIT_NOFILE, (limit_files, limit_files))
        self.name = os.path.basename(arguments[0])
        self.expect_crash = expect_crash
        self.output_path = output
        with open(output, "wb") as sink:
            self.process = subprocess.Popen(arguments, env={**os.environ, **environment}, stdin=stdin,
                                            stdout=sink, stderr=subprocess.STDOUT, preexec_fn=set_up)

    def output(self):
        return self.output_path.read_text("utf-8", "replace")

    def running(self):
        return self.process.poll() is None

    def wait_for(self, text):
        """Waits until the program has printed `text`."""
        def printed():
            ended = not self.running()
            return text in self.output() or (ended and self._complain(f"ended without printing {text!r}"))
        wait_until(printed, repr(text))

    def send_signal(self, number):
        self.process.send_signal(number)

    def wait(self):
        """The exit status; negative when a signal ended it."""
        try:
            return self.process.wait(DEADLINE)
        except subprocess.TimeoutExpired:
            self._complain("does not end")

    def stop(self, number=None):
        """Sends the signal (default: SIGTERM) and returns the exit status."""
        self.send_signal(number or signal.SIGTERM)
        return self.wait()

    def kill(self):
        """Kills it; fails when it has ended before by itself."""
        self.process.kill()
        status = self.process.wait()
        if status != -signal.SIGKILL:
            self._complain(f"ended by itself with status {status}")

    def check_output(self):
        """Fails when a sanitizer has found something, or when it has crashed, which its exit status hides."""
        if not self.expect_crash and re.search(r"minidump generated as|abort\(\) was called", self.output()):
            self._complain("has crashed")
        if re.search(r"(Address|Leak|Thread|UndefinedBehavior)Sanitizer|runtime error:", self.output()):
            self._complain("has a sanitizer's finding")

    def _complain(self, what):
        raise AssertionError(f"{self.name} (process {self.process.pid}) {what}")


class SatelliteProcess(Program):
    """A satellite on libkel in a process of its own (tests/support/satellite.cc)."""

    def __init__(self, daemon, name, services, output, directory, host):
        arguments = [os.environ["KEL_TEST_SATELLITE"], directory or f"127.0.0.1:{daemon.port}", name, *services]
        arguments = host.command(arguments) if host else arguments
        super().__init__(arguments, daemon.environment, output, stdin=subprocess.PIPE)
        self.satellite = name
        self.commands = 0

    def wait_until_ready(self):
        self.wait_for("ready ")
        return self

    def tell(self, command, what):
        """Sends a command and returns its result."""
        self.process.stdin.write(f"{command} {what}\n".encode())
        self.process.stdin.flush()
        self.commands += 1
        return int(wait_until(lambda: self._lines("done")[self.commands - 1:], f"{command} {what}")[0])

    def _lines(self, kind):
        return [line[len(kind) + 1:] for line in self.output().splitlines(keepends=True)
                if line.startswith(kind + " ") and line.endswith("\n")]

    def events(self, service=None):
        """What it heard: (service, satellite, status)."""
        heard = [tuple(line.split()) for line in self._lines("event")]
        return [(what, who, int(status)) for what, who, status in heard if service in (None, what)]

    def standings(self):
        return [int(line.split()[1]) for line in self._lines("standing")]

    def stop(self, number=None):
        """Has it leave and end, or end by a signal; returns the exit status."""
        if number is not None:
            return super().stop(number)
        self.process.stdin.close()
        return self.wait()

    def kill(self):
        super().kill()
        self.process.stdin.close()


class Daemon:
    """A directory with its own root and port, to be started any number of times."""

    def __init__(self, folder, level=4, host=None):
        """`host` is where it runs, a netns.Host, and is open to the networks there; by default, this machine alone."""
        self.folder = pathlib.Path(folder)
        self.root = self.folder / "root"
        self.root.mkdir()
        self.port = free_port()
        self.host = host
        self.runs = []        # of the directory itself, the latest last
        self.companions = []  # programs that use it
        self._endpoint = None
        settings = self.folder / "config"
        settings.mkdir()
        (settings / "com.tessaly.yar.plist").write_bytes(plistlib.dumps({"LogLevel": level}))
        (settings / "com.tessaly.yar.config.plist").write_bytes(plistlib.dumps(self.settings))

    @property
    def settings(self):
        """The directory's settings; on this machine the group keeps its announcements here."""
        if self.host:
            return {"kel.directoryPort": self.port}
        return {"kel.directoryPort": self.port, "kel.bindAddress": "127.0.0.1", "kel.multicastGroup": "127.0.0.1"}

    @property
    def environment(self):
        return {"YAR_ROOT": str(self.root), "XDG_CONFIG_HOME": str(self.folder / "config")}

    @property
    def current(self):
        return self.runs[-1]

    def spawn(self, **more):
        """Starts it and does not wait."""
        output = self.folder / f"output-{len(self.runs)}.txt"
        self.runs.append(Program(self._command(self.host, "KelDirectory"), self.environment, output, **more))
        return self.current

    @staticmethod
    def _command(host, *arguments):
        command = [program(arguments[0]), *arguments[1:]]
        return host.command(command) if host else command

    def start(self, **more):
        """Starts it and returns when it has entered itself under its own name."""
        self.spawn(**more)
        wait_until(self._is_up, "the directory to answer")
        return self

    def companion(self, name, *arguments, host=None):
        """Starts an example program on this directory, or another with the arguments given."""
        output = self.folder / f"{name}-{len(self.companions)}.txt"
        words = map(str, arguments or [f"127.0.0.1:{self.port}"])
        command = self._command(host or self.host, name, *words)
        self.companions.append(Program(command, self.environment, output))
        return self.companions[-1]

    def start_satellites(self, *described, directory=None, host=None):
        """Starts a process for each (name, service...) and returns when all of them are registered, by default here."""
        started = []
        for name, *services in described:
            output = self.folder / f"{name}-{len(self.companions)}.txt"
            started.append(SatelliteProcess(self, name, services, output, directory, host))
            self.companions.append(started[-1])
        return [satellite.wait_until_ready() for satellite in started]

    def listeners(self):
        """What ServiceListeners.xml lists: (service, listening satellite)."""
        text = (self.registration.parent / "ServiceListeners.xml").read_text()
        assert LISTENER_FILE.fullmatch(text), text
        return re.findall(LISTENER_ENTRY, text)

    def log(self):
        return self.current.output()

    def keep_from_checks(self, name):
        """Returns when no check of the satellite runs or will: pings that come now have another reason, and nobody
        removes it when it stops answering."""
        with self.client(name) as client:
            client.call("SetBeRightBackTimer", 3600)
        self.current.wait_for(f"Satellite {name} is BRB, don't ping")

    def _is_up(self):
        if not self.current.running():
            raise AssertionError(f"the directory ended with status {self.current.wait()}")
        try:
            with self.client() as client:
                own = client.id_of("MainRegister")
                return own and client.call("kel.Ping", ["MainRegister", own]) == (0, 1)
        except (OSError, EOFError):
            return False

    def client(self, caller=""):
        with self.host or contextlib.nullcontext():
            return Client(self.port, caller)

    def client_at(self, address, caller=""):
        """A client on the host that the caller has entered."""
        return Client(self.port, caller, address)

    def stop(self, number=None):
        status = self.current.stop(number)
        assert status == 0, f"the directory ended with status {status}"

    def restart(self):
        self.stop()
        return self.start()

    def close(self):
        """Stops what runs, which must end with status 0."""
        for run in self.companions + self.runs:
            if run.running():
                run.send_signal(signal.SIGCONT)
                status = run.stop()
                assert status == 0, f"{run.name} ended with status {status}"
            run.check_output()
        if self._endpoint:
            self._endpoint.close()

    @property
    def satellites(self):
        return self.root / "Library/Tessaly/Satellites"

    @property
    def registration(self):
        return self.satellites / "Registration/Registration.xml"

    @property
    def logs(self):
        return self.root / "Library/Logs/Tessaly"

    def satellite_file(self, name):
        return (self.satellites / (name + ".xml")).read_text()

    def satellite_files(self):
        """Names of the satellites that have a file, the directory itself left out."""
        return sorted(path.stem for path in self.satellites.glob("*.xml") if path.stem != "MainRegister")

    def last_id(self):
        """The last id that the registration file names; fails unless that file is whole."""
        match = REGISTRATION_FILE.fullmatch(self.registration.read_bytes())
        assert match, self.registration.read_bytes()
        return int(match["last"])

    def tree(self):
        """Every file below the root with its contents, logs left out."""
        return {str(path.relative_to(self.root)): path.read_bytes() for path in self.root.rglob("*")
                if path.is_file() and self.logs not in path.parents}

    def fill(self, count, port=None, prefix="Filler"):
        """Writes the files of `count` satellites, with the ids 1 to `count`, for the next start. They live, unless
        their port is given."""
        if port is None:
            self._endpoint = self._endpoint or Satellite()
            port = self._endpoint.port
        self.registration.parent.mkdir(parents=True, exist_ok=True)
        self.registration.write_text(registration_text(count))
        for number in range(1, count + 1):
            (self.satellites / f"{prefix}{number}.xml").write_text(
                satellite_text(f"{prefix}{number}", number, port, [("Fill", "Takes room")]))


class SystemTest(unittest.TestCase):
    def run(self, result=None):
        self._daemons = []
        before = len(result.failures) + len(result.errors)
        super().run(result)
        for daemon in self._daemons:
            for run in daemon.runs + daemon.companions:
                if len(result.failures) + len(result.errors) > before:
                    tail = "".join(run.output().splitlines(keepends=True)[-60:])
                    print(f"--- {self.id()}: {run.output_path.name} of port {daemon.port} ends with\n{tail}",
                          file=sys.stderr)
                run.process.kill()
                run.process.wait()
            shutil.rmtree(daemon.folder)

    def daemon(self, level=4, host=None):
        daemon = Daemon(tempfile.mkdtemp(prefix="kel-test-"), level, host)
        self._daemons.append(daemon)
        self.addCleanup(daemon.close)
        return daemon

    def client(self, daemon, caller=""):
        client = daemon.client(caller)
        self.addCleanup(client.close)
        return client

    def satellite(self, *arguments):
        satellite = Satellite(*arguments)
        self.addCleanup(satellite.close)
        return satellite

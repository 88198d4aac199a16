"""A client and a tiny satellite that speak the wire protocol (docs/wire-protocol.md) through Debian's python3-msgpack.

They share no code with libkel: what they send and understand is what the document says. Values are Python's own where
the format has them (None, bool, int, float, str, bytes, list); any other variant is an msgpack.ExtType.
"""
import itertools
import socket
import struct
import threading
import time

import msgpack

DEADLINE = 60.0  # seconds; only something that hangs or is lost reaches it
ALREADY_REGISTERED = 0x40010
UNKNOWN_SATELLITE = 0x4000a


def wait_until(condition, what, deadline=DEADLINE):
    """Returns the first true value of condition(); fails when the deadline passes."""
    end = time.monotonic() + deadline
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"waited {deadline:.0f} s in vain for {what}")
        time.sleep(0.005)


def ui2(number):
    return msgpack.ExtType(18, struct.pack(">H", number))


def string_array(*texts):
    """VT_ARRAY|VT_BSTR."""
    return msgpack.ExtType(64 + 8, b"".join(map(msgpack.packb, texts)))


def record(name, port, services=(), sat_id=0, host="studio", version=2):
    """What Register, UnRegister and RemoveSatellite take; `services` holds (name, description) pairs."""
    return [name, host, ui2(port), version, sat_id, len(services), [list(service) for service in services]]


def pack(message):
    return msgpack.packb(message, unicode_errors="surrogateescape")


class KelError(Exception):
    """The error answer of a call whose method did not run, or threw."""

    def __init__(self, code, text):
        super().__init__(f"{code:#x}: {text}")
        self.code, self.text = code, text


class Client:
    """One connection. Calls may be outstanding together: send() each, then answer() each, in any order.

    Not for several threads at once. A connection that the peer ends raises EOFError or ConnectionError.
    """

    def __init__(self, port, caller="", host="127.0.0.1"):
        self.caller = caller
        self.socket = socket.create_connection((host, port), DEADLINE)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._unpacker = msgpack.Unpacker(unicode_errors="surrogateescape", max_buffer_size=1 << 28)
        self._ids = itertools.count(1)
        self._answers = {}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.socket.close()

    def send_raw(self, data):
        self.socket.sendall(data)

    def request(self, method, value=None):
        """The id and the bytes of a request, not sent yet."""
        number = next(self._ids)
        return number, pack([0, number, method, [self.caller, value]])

    def send(self, method, value=None):
        number, data = self.request(method, value)
        self.send_raw(data)
        return number

    def notify(self, method, value=None):
        self.send_raw(pack([2, method, [self.caller, value]]))

    def receive(self):
        """The next message, whatever it is."""
        while True:
            for message in self._unpacker:
                return message
            data = self.socket.recv(1 << 16)
            if not data:
                raise EOFError("the peer closed the connection")
            self._unpacker.feed(data)

    def answer(self, number):
        """(result, out) of the request `number`; raises KelError for an error answer."""
        while number not in self._answers:
            kind, answered, error, result = self.receive()
            assert kind == 1 and answered not in self._answers, (kind, answered, error, result)
            self._answers[answered] = error, result
        error, result = self._answers.pop(number)
        if error is not None:
            assert result is None, (error, result)
            raise KelError(*error)
        code, out = result
        return code, out

    def call(self, method, value=None):
        return self.answer(self.send(method, value))

    def register(self, name, port, services=(), sat_id=0, **more):
        """The id that the directory gave; fails when it refused."""
        code, out = self.call("Register", record(name, port, services, sat_id, **more))
        assert code == 0, f"Register of {name!r} was refused with {code:#x}"
        return out[1]

    def id_of(self, name):
        """The satellite's id, or None when the directory does not know it."""
        code, out = self.call("GetSatelliteId", name)
        assert code in (0, 0x40002), hex(code)
        return out if code == 0 else None

    def providers(self, service, destination="all"):
        """The names of the satellites that the directory names for `service`."""
        code, out = self.call("GetServiceReg", [destination, service])
        assert code == 0, hex(code)
        return [description[2] for description in out]

    def wait_for_the_end(self):
        """Returns when the peer has ended the connection; unread answers are thrown away."""
        try:
            while self.socket.recv(1 << 16):
                pass
        except ConnectionError:
            pass


class Satellite:
    """A listening endpoint that answers kel.Ping: 1 for its own name and id, by default for every name and id.

    `pings` counts the pings that arrived; `events` are the (service, satellite, status) that it was told of. While
    `hanging` is set it takes pings and does not answer; `unanswered` counts those. From hold() to release() it keeps its
    answers back. Once closed, connections to it are refused and those that were open have ended.
    """

    def __init__(self, name=None, sat_id=None, address="127.0.0.1"):
        self.name, self.sat_id = name, sat_id
        self.pings = 0
        self.events = []
        self.hanging = False
        self.unanswered = 0
        self._held = None
        self._connections = []
        self._lock = threading.Lock()
        self._listener = socket.create_server((address, 0), backlog=512)
        self.port = self._listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def hold(self):
        with self._lock:
            self._held = []

    def release(self):
        with self._lock:
            for connection, answer in self._held:
                connection.sendall(answer)
                self.unanswered -= 1
            self._held = None

    def close(self):
        with self._lock:
            for connection in [self._listener, *self._connections]:
                try:
                    connection.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass  # closed already
        self._listener.close()

    def _accept(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            with self._lock:
                self._connections.append(connection)
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        unpacker = msgpack.Unpacker()
        with connection:
            try:
                while data := connection.recv(1 << 16):
                    unpacker.feed(data)
                    for message in unpacker:
                        self._dispatch(connection, message)
            except OSError:
                pass  # the peer is gone; so is its question

    def _dispatch(self, connection, message):
        if message[0] == 2:
            _, method, (_, value) = message
            if method == "OnServiceAvailabilityChanged":
                self.events.append(tuple(value))
            return
        _, number, method, (_, value) = message
        if method != "kel.Ping":
            connection.sendall(pack([1, number, [0x20004, "unknown method " + method], None]))
            return
        alive = self.name is None or (value[0].lower() == self.name.lower() and value[1] == self.sat_id)
        answer = pack([1, number, None, [0, int(alive)]])
        with self._lock:
            self.pings += 1
            if self._held is not None:
                self._held.append((connection, answer))
            if self.hanging or self._held is not None:
                self.unanswered += 1
            else:
                connection.sendall(answer)

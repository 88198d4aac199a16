"""Attacks and honest work at the same time, round after round: honest callers get their answers, and after each round
the directory has as much memory and as many descriptors and threads as after the first.

KEL_SOAK_SECONDS says how long (15).
"""
import os
import pathlib
import random
import re
import sys
import threading
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from kel_client import DEADLINE, Client, KelError, pack, record, wait_until
from kel_daemon import SystemTest

SECONDS = float(os.environ.get("KEL_SOAK_SECONDS", "15"))
ROUNDS = max(3, int(SECONDS // 60))
EMPTY_TEXTS = b"\x94\x00\x01\xa1m\x92\xa0\x9f" + (b"\xdd\x00\x10\x00\x00" + b"\xa0" * (1 << 20)) * 15
HELD = [f"Held{number}" for number in range(40)]


class Soak(SystemTest):
    def setUp(self):
        self.directory = self.daemon(level=1).start(limit_files=1024)
        self.endpoint, self.hanging = self.satellite(), self.satellite()
        self.failures = []

    def client(self, caller=""):
        client = Client(self.directory.port, caller)
        client.socket.settimeout(DEADLINE)
        return client

    # Honest callers.

    def register_and_leave(self, number, end):
        with self.client(f"Honest{number}") as client:
            while time.monotonic() < end:
                sat_id = client.register(client.caller, self.endpoint.port, [(f"Service{number}", "x" * 100)])
                assert client.providers(f"Service{number}") == [client.caller]
                assert client.call("AddServiceAvailabilityListener", ["Service0", "Service1"]) == (0, None)
                code, _ = client.call("RemoveSatellite", record(client.caller, self.endpoint.port, sat_id=sat_id))
                assert code == 0 and client.id_of(client.caller) is None

    # Attackers. Each does its worst once, over clients that are closed afterwards; what it is refused or cut off from is
    # its own affair.

    def ask_for_names_whose_holder_hangs(self, clients):
        clients += [self.client() for _ in range(20)]
        for name in HELD * 4:
            random.choice(clients).send("Register", record(name, self.hanging.port))

    def send_what_grows_in_memory(self, clients):
        clients.append(self.client())
        clients[0].send_raw(EMPTY_TEXTS)

    def leave_messages_unfinished(self, clients):
        for _ in range(20):
            clients.append(self.client())
            clients[-1].send_raw(pack([0, 1, "GetSatelliteId", ["", "a" * (1 << 20)]])[:-1])

    def leave_answers_unread(self, clients):
        for _ in range(10):
            clients.append(self.client())
            clients[-1].send_raw(pack([0, 1, "kel.Describe", ["", None]]) * 2000)

    def sit_there(self, clients):
        for _ in range(300):
            clients.append(self.client())

    def call_badly(self, clients):
        clients.append(self.client("evil\n2026/01/01 00:00:00.000 [FATAL] - forged"))
        for number in range(5000):
            clients[0].notify("GetServiceReg", number)
        for number in range(100):
            clients[0].notify("AddKelUsers", [f"user{number}\r\nPort: 1"])

    ATTACKS = [ask_for_names_whose_holder_hangs, send_what_grows_in_memory, leave_messages_unfinished,
               leave_answers_unread, sit_there, call_badly]

    def attack(self, number, end):
        choice = random.Random(number)
        while time.monotonic() < end:
            clients = []
            try:
                choice.choice(self.ATTACKS)(self, clients)
                time.sleep(choice.random())
            except (OSError, EOFError):
                pass
            for client in clients:
                client.close()

    def guarded(self, work, number, end):
        try:
            work(number, end)
        except BaseException as failure:
            self.failures.append(f"{work.__name__} {number}: {failure!r}")

    def one_round(self, end):
        with self.client() as client:
            for name in HELD:
                try:
                    client.call("Register", record(name, self.hanging.port))
                except KelError:
                    pass
        self.hanging.hanging = True
        workers = [threading.Thread(target=self.guarded, args=(work, number, end), daemon=True)
                   for work, count in ((self.register_and_leave, 3), (self.attack, 4)) for number in range(count)]
        for worker in workers:
            worker.start()
        for worker in workers:
            worker.join()
        self.hanging.hanging = False

    def state(self):
        process = pathlib.Path(f"/proc/{self.directory.current.process.pid}")
        status = (process / "status").read_text()
        return {"memory": int(re.search(r"VmRSS:\s+(\d+) kB", status)[1]) >> 10,
                "peak": int(re.search(r"VmHWM:\s+(\d+) kB", status)[1]) >> 10,
                "descriptors": len(os.listdir(process / "fd")), "threads": len(os.listdir(process / "task"))}

    def is_flat(self, now, first):
        return (now["memory"] <= first["memory"] + 16 and now["descriptors"] <= first["descriptors"] + 8
                and now["threads"] <= first["threads"] + 8)

    def test_leaves_the_directory_as_it_was(self):
        first = None
        for number in range(ROUNDS):
            self.one_round(time.monotonic() + SECONDS / ROUNDS)
            self.assertEqual(self.failures, [])
            wait_until(lambda: self.state()["threads"] < 60 and self.state()["descriptors"] < 100, "the round to end")
            first = first or self.state()
            wait_until(lambda: self.is_flat(self.state(), first), f"as little as {first}, not {self.state()}")
            print(f"round {number + 1} of {ROUNDS}: {self.state()}", flush=True)
        if not os.environ.get("KEL_SANITIZERS"):
            self.assertLess(self.state()["peak"], 256)
        log = (self.directory.logs / "KelDirectory.log").read_text()
        self.assertNotIn("\n2026/01/01", log)
        self.assertFalse((self.directory.logs / "KelDirectory.log.back").exists() and SECONDS < 60, "the log rolled over")


if __name__ == "__main__":
    unittest.main()

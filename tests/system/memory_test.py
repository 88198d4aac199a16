"""What strangers can make the directory hold: its memory stays bounded and is given back, and others are served."""
import os
import pathlib
import re
import socket
import sys
import threading
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from kel_client import DEADLINE, pack, record, wait_until
from kel_daemon import SystemTest

BOUND = 256 << 20
KEPT = 32 << 20  # of what an attack took, at the most, once it is over


@unittest.skipIf(os.environ.get("KEL_SANITIZERS"), "sanitizers keep what is freed")
class Strangers(SystemTest):
    def setUp(self):
        self.directory = self.daemon(level=2).start()
        self.talker, self.hanging = self.satellite(), self.satellite()
        with self.directory.client() as c:
            for number in range(8):
                c.register(f"Held{number}", self.hanging.port)
            for number in range(100):
                c.register(f"Talker{number}", self.talker.port, [("Talk", "t" * 8000)])
        self.hanging.hanging = True
        self.before = self.memory("VmRSS")
        self.strangers = []

    def memory(self, what):
        status = pathlib.Path(f"/proc/{self.directory.current.process.pid}/status").read_text()
        return int(re.search(what + r":\s+(\d+) kB", status)[1]) << 10

    def stranger(self):
        self.strangers.append(self.client(self.directory))
        self.strangers[-1].socket.settimeout(DEADLINE)
        return self.strangers[-1]

    def send(self, client, data):
        try:
            client.send_raw(data)
        except ConnectionError:
            pass  # cut off

    def attack(self, messages, calls=()):
        """Sends each over a connection of its own, all at once, while a bystander asks. Checks the memory at its
        highest, that the calls are answered once nobody hangs any more, and that the memory is given back."""
        clients = [self.stranger() for _ in [*messages, *calls]]
        threads = [threading.Thread(target=self.send, args=pair) for pair in zip(clients, [*messages, *calls])]
        for thread in threads:
            thread.start()
        with self.directory.client() as bystander:
            while any(thread.is_alive() for thread in threads):
                self.assertIsNotNone(bystander.id_of("MainRegister"))
            for _ in range(1000):
                self.assertIsNotNone(bystander.id_of("MainRegister"))
        self.assertLess(self.memory("VmHWM"), BOUND)
        self.hanging.close()
        for client in clients[len(messages):]:
            self.assertEqual(client.receive()[:3], [1, 1, None])
        for client in clients:
            client.close()
        wait_until(lambda: self.memory("VmRSS") < self.before + KEPT, "the memory to be given back")

    def test_get_no_more_by_values_that_take_more_in_memory_than_in_their_message(self):
        texts = b"\x9f" + (b"\xdd\x00\x10\x00\x00" + b"\xa0" * (1 << 20)) * 15
        one_way = [["Register", ["", record("Held7", 9)]]] + [["x", ["", [[]] * 1000]]] * 14000
        records = [record(f"Held{number}", 9)[:6] + [[""] * 900000] for number in range(7)]
        self.attack([b"\x94\x00\x01\xa1m\x92\xa0" + texts, b"".join(pack([2, *call]) for call in one_way)],
                    calls=[pack([0, 1, "Register", ["", value]]) for value in records])

    def test_get_no_more_by_messages_that_do_not_end(self):
        slow, stalled = self.stranger(), self.stranger()
        data = slow.request("GetSatelliteId", "MainRegister")[1]
        stalled.send_raw(data[:-1])
        self.attack([pack([0, 1, "GetSatelliteId", ["", "a" * (15 << 20)]])[:-1]] * 40)
        for position in range(len(data)):  # a byte from time to time is enough; nothing more is not
            slow.send_raw(data[position:position + 1])
            time.sleep(1)
        self.assertEqual(slow.answer(1)[0], 0)
        stalled.wait_for_the_end()

    def test_get_no_more_by_answers_that_they_do_not_read(self):
        self.attack([pack([0, 1, "GetServiceReg", ["", ["all", "Talk"]]]) * 24] * 40)


if __name__ == "__main__":
    unittest.main()

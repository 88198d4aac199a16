"""What strangers do to hold the directory up, beside somebody who only wants an answer."""
import os
import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from kel_client import KelError, record, wait_until
from kel_daemon import SystemTest

LEAVING, NO_RESOURCES = 0x20001, 0x20009
WAITING_AT_MOST = 1024


class RegistrationsThatWaitForAHolderWhoNeverAnswers(SystemTest):
    def setUp(self):
        self.directory = self.daemon(level=2)
        self.holder = self.satellite()
        self.names = [f"Filler{number}" for number in range(1, WAITING_AT_MOST + 77)]
        self.directory.fill(len(self.names), self.holder.port)
        self.directory.start()
        with self.directory.client() as client:  # no check of them is under way any more, or will be
            for client.caller in self.names:
                self.assertEqual(client.call("SetBeRightBackTimer", 3600)[0], 0)
        wait_until(lambda: self.threads() < 50, "the checks to end")
        self.holder.hanging = True
        self.clients = [self.client(self.directory) for _ in range(20)]
        self.calls = [(self.clients[number % 20], self.clients[number % 20].send("Register", record(name, 9)))
                      for number, name in enumerate(self.names)]
        wait_until(lambda: self.holder.unanswered >= WAITING_AT_MOST, "all that may wait to wait")

    def threads(self):
        return len(os.listdir(f"/proc/{self.directory.current.process.pid}/task"))

    def results(self):
        def result(client, call):
            try:
                return client.answer(call)[0]
            except KelError as error:
                return error.code
        return [result(*call) for call in self.calls]

    def test_hold_no_thread_and_nobody_up(self):
        self.assertLess(self.threads(), 100)
        with self.directory.client() as bystander:
            for _ in range(200):
                self.assertIsNotNone(bystander.id_of("MainRegister"))
            bystander.register("Bystander", self.satellite().port)
        self.holder.close()
        results = self.results()
        self.assertEqual(set(results), {0, NO_RESOURCES})
        self.assertLessEqual(results.count(NO_RESOURCES), len(self.names) - WAITING_AT_MOST)

    def test_are_refused_when_the_directory_stops(self):
        self.directory.stop()
        results = self.results()
        self.assertIn(LEAVING, results)
        self.assertLessEqual(set(results), {0, LEAVING, NO_RESOURCES})


if __name__ == "__main__":
    unittest.main()

"""kill -9 at random moments while clients register, change and leave: what is on disk is whole, what was answered is
there after the restart, and no id is ever given twice.

KEL_KILL_ROUNDS says how many times (10); KEL_KILL_SEED repeats the moments of a run that failed.
"""
import os
import pathlib
import random
import sys
import threading
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from kel_client import record, wait_until
from kel_daemon import SATELLITE_FILE, SystemTest

ROUNDS = int(os.environ.get("KEL_KILL_ROUNDS", "10"))
SEED = int(os.environ.get("KEL_KILL_SEED", random.randrange(1 << 30)))
WORKERS = 6
GONE = None


class Worker(threading.Thread):
    """Registers ever new names, changes some and removes some, until the directory is killed.

    `known` maps each of its names to the (id, services) that it may have, GONE among them; more than one possibility
    means that the kill came before the answer. A possibility with the id None is one whose id was never heard.
    """

    def __init__(self, test, number, known, choice):
        super().__init__(daemon=True)
        self.test, self.number, self.known, self.choice = test, number, known, choice
        self.touched, self.heard, self.failure = [], [], None

    def run(self):
        try:
            with self.test.directory.client(f"Worker{self.number}") as client:
                while True:
                    self.step(client)
        except (OSError, EOFError):
            pass  # killed
        except BaseException as error:
            self.failure = error

    def step(self, client):
        what = self.choice.random()
        settled = [name for name in self.touched[-20:] if self.known[name] != [GONE]]
        if what < 0.6 or not settled:
            name = f"W{self.number}-{len(self.known)}"
            self.change(client, "Register", name, [GONE, (None, 1)], 0, 1)
            return
        name = self.choice.choice(settled)
        sat_id, count = self.known[name][0]
        if what < 0.85:
            after = self.choice.randrange(1, 6)
            self.change(client, "Register", name, [(sat_id, count), (sat_id, max(count, after))], sat_id, after)
        else:
            self.change(client, "RemoveSatellite", name, [(sat_id, count), GONE], sat_id, 0)

    def change(self, client, method, name, possible, sat_id, count):
        """One call that takes the name to the last of `possible`; until it is answered each of them may hold."""
        self.touched.append(name)
        self.known[name] = possible
        services = [(f"S{number}", "x" * 40 * number) for number in range(count)]
        code, out = client.call(method, record(name, self.test.endpoint.port, services, sat_id))
        assert code == 0, (method, name, hex(code))
        after = possible[-1]
        if method == "Register":
            after = (out[1], after[1])
            self.heard.append((name, out[1]))
        self.known[name] = [after]


class KilledAtAnyMoment(SystemTest):
    expect_crash = False

    def setUp(self):
        self.random = random.Random(SEED)
        self.directory = self.daemon(level=1)
        self.endpoint = self.satellite()
        self.known = [{} for _ in range(WORKERS)]
        self.owner = {}    # id -> the one name it was given to
        self.answered = 0
        self.seen_files = {}
        self.highest = 0

    def test_the_directory_loses_and_repeats_nothing(self):
        try:
            touched = set()
            for _ in range(ROUNDS):
                if self.random.random() < 0.2:
                    self.kill_during_start()
                self.directory.start(expect_crash=self.expect_crash)
                self.check_registry(touched)
                touched = self.load_and_kill()
                self.check_files()
            self.directory.start()
            self.check_registry({name for known in self.known for name in known})
            self.directory.stop()
            self.check_files()
        except BaseException:
            print(f"failed with KEL_KILL_SEED={SEED}", file=sys.stderr)
            raise
        names = sum(len(known) for known in self.known)
        print(f"{ROUNDS} rounds, {self.answered} answered registrations, {names} names, "
              f"{len(self.owner)} ids, {len(self.strays())} stray files", flush=True)

    def kill_during_start(self):
        self.directory.spawn()
        time.sleep(self.random.random() * 0.1)
        self.directory.current.kill()
        self.check_files()

    def end(self):
        self.directory.current.kill()

    def load_and_kill(self):
        """Returns the names that were touched before the kill."""
        workers = [Worker(self, number, self.known[number], random.Random(self.random.random()))
                   for number in range(WORKERS)]
        for worker in workers:
            worker.start()
        answers = self.random.randrange(150)
        wait_until(lambda: sum(len(worker.touched) for worker in workers) > answers
                   or not all(worker.is_alive() for worker in workers), "some load")
        time.sleep(self.random.random() * 0.005)  # any moment of a call
        self.end()
        for worker in workers:
            worker.join()
        for worker in workers:
            if worker.failure:
                raise worker.failure
            self.answered += len(worker.heard)
            for name, sat_id in worker.heard:
                self.own(sat_id, name)
        return {name for worker in workers for name in worker.touched}

    def own(self, sat_id, name):
        self.assertEqual(self.owner.setdefault(sat_id, name), name, f"id {sat_id} was given twice")
        self.highest = max(self.highest, sat_id)

    def strays(self):
        return [path for path in self.directory.satellites.rglob("*") if path.is_file() and path.suffix != ".xml"]

    def check_files(self):
        """Every file that ends in .xml is whole; those that did not change since the last look were."""
        if not self.directory.registration.exists():  # killed before the first start had written it
            self.assertEqual(self.highest, 0)
            return
        self.assertGreaterEqual(self.directory.last_id(), self.highest)
        for entry in os.scandir(self.directory.satellites):
            status = entry.stat()
            stamp = status.st_mtime_ns, status.st_ino, status.st_size
            if entry.name.endswith(".xml") and self.seen_files.get(entry.name) != stamp:
                text = pathlib.Path(entry.path).read_bytes()
                match = SATELLITE_FILE.fullmatch(text)
                self.assertTrue(match, f"{entry.name} is not whole: {text!r}")
                self.assertEqual(match["name"].decode() + ".xml", entry.name)
                self.assertLessEqual(int(match["id"]), self.directory.last_id())
                self.seen_files[entry.name] = stamp

    def check_registry(self, touched):
        """The names that were touched, and some others, are registered as was answered, or as was asked at last."""
        with self.directory.client() as client:
            everyone = [(known, name) for known in self.known for name in known]
            chosen = [pair for pair in everyone if pair[1] in touched]
            chosen += self.random.sample(everyone, min(200, len(everyone)))
            for start in range(0, len(chosen), 400):
                asked = [(known, name, client.send("GetSatelliteId", name))
                         for known, name in chosen[start:start + 400]]
                for known, name, number in asked:
                    code, sat_id = client.answer(number)
                    self.settle(known, name, sat_id if code == 0 else None)
            self.own(client.id_of("MainRegister"), f"the directory, run {len(self.directory.runs)}")

    def settle(self, known, name, sat_id):
        if sat_id is None:
            self.assertIn(GONE, known[name], f"{name} is lost")
            known[name] = [GONE]
            return
        possible = [state for state in known[name] if state is not GONE and state[0] in (None, sat_id)]
        self.assertTrue(possible, f"{name} has the id {sat_id} and should be {known[name]}")
        self.own(sat_id, name)
        services = self.directory.satellite_file(name).count("<service>")
        self.assertIn(services, [count for _, count in possible], name)
        known[name] = [(sat_id, services)]


if __name__ == "__main__":
    unittest.main()

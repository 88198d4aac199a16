"""Satellites die in numbers: after each round registry, folder and list of listeners agree with who is alive.

KEL_CHURN_ROUNDS (5) rounds of killing a third of KEL_CHURN_SATELLITES (300) processes.
"""
import os
import pathlib
import random
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from kel_client import wait_until
from kel_daemon import SystemTest


class ManySatellites(SystemTest):
    def test_that_are_killed_and_started_again_are_what_the_directory_says(self):
        rounds = int(os.environ.get("KEL_CHURN_ROUNDS", 5))
        count = int(os.environ.get("KEL_CHURN_SATELLITES", 300))
        directory = self.daemon(level=3).start()
        c = self.client(directory)
        names = [f"Sat{number}" for number in range(count)]
        alive = {}

        def start(started):
            for satellite in directory.start_satellites(*[(name, "Common", "Own" + name) for name in started]):
                alive[satellite.satellite] = satellite
            for name in started:
                alive[name].tell_and_go_on("listen", "OwnSat0")
                alive[name].tell_and_go_on("listen", "Own" + name)
            for name in started:  # a question that is on its way when its satellite is killed may be answered later
                wait_until(alive[name].has_answers, f"{name} to listen")

        def state():
            listed = directory.listeners()
            return (c.providers("Common"), [name for name in names if c.id_of(name)], directory.satellite_files(),
                    sorted(name for service, name in listed if service == "Own" + name),
                    sorted(name for service, name in listed if service == "OwnSat0" and name != "Sat0"))

        start(names)
        for _ in range(rounds):
            for name in random.sample(sorted(alive), count // 3):
                alive.pop(name).kill()
            left = sorted(alive)
            expected = (left, [name for name in names if name in alive], left, left,
                        [name for name in left if name != "Sat0"])
            wait_until(lambda: state() == expected, "everything to agree with who is alive")
            start([name for name in names if name not in alive])
        wait_until(lambda: c.providers("Common") == sorted(names), "all to be back")
        print(f"{rounds} rounds of killing {count // 3} of {count}")


if __name__ == "__main__":
    unittest.main()

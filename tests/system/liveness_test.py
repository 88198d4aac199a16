"""Who does not answer is removed, and nobody else: satellites that are killed, hang, are away, return; a directory that
stands still or is short of descriptors."""
import os
import pathlib
import signal
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from kel_client import record, wait_until
from kel_daemon import SystemTest


class WithADirectory(SystemTest):
    def setUp(self):
        self.directory = self.daemon().start()
        self.c = self.client(self.directory)

    def start(self, *described):
        return self.directory.start_satellites(*described)

    def wait_until_gone(self, name):
        wait_until(lambda: self.c.id_of(name) is None, f"{name} to be removed")

    def wait_for_passes(self, count):
        """Returns when `count` further passes have begun after this call."""
        watched, endpoint = f"Watched{time.monotonic_ns()}", self.satellite()
        self.c.register(watched, endpoint.port)
        self.client(self.directory, watched).call("SetBeRightBackTimer", 3600)
        line = f"Satellite {watched} is BRB, don't ping"
        wait_until(lambda: self.directory.log().count(line) >= count, f"{count} passes")
        self.c.call("RemoveSatellite", record(watched, 9, sat_id=self.c.id_of(watched)))


class ASatelliteThatIsKilled(WithADirectory):
    def test_is_gone_with_its_file_and_subscriptions_and_its_listeners_hear_it_once(self):
        names = [f"Sat{number}" for number in range(8)]
        satellites = self.start(*[(name, "Common", "Own" + name) for name in names], ("Listener",), ("OtherListener",))
        *published, listener, other = satellites
        for one in [listener, other, published[3]]:
            self.assertEqual(one.tell("listen", "Common"), 0)
        listener.tell("listen", "OwnSat3")
        ids = {name: self.c.id_of(name) for name in names}
        self.assertIn(("Common", "Sat3"), self.directory.listeners())

        published[3].kill()
        self.wait_until_gone("Sat3")
        self.assertFalse((self.directory.satellites / "Sat3.xml").exists())
        rest = [name for name in names if name != "Sat3"]
        self.assertEqual((self.c.providers("Common"), self.c.providers("OwnSat3")), (rest, []))
        self.assertIn("has died removing it: error 262167", self.directory.log())  # 0x40017
        self.assertRegex(self.directory.log(), rf"NOTE.*Satellite Sat3 \(satId {ids['Sat3']}\) at 127\.0\.0\.1:\d+ removed: "
                                               "the connection was refused")
        wait_until(lambda: "Sat3" not in {satellite for _, satellite in self.directory.listeners()}, "the list")
        wait_until(lambda: ("OwnSat3", "Sat3", 0) in listener.events(), "the listener to hear")
        self.wait_for_passes(2)
        for one in [listener, other]:
            self.assertEqual(one.events("Common").count(("Common", "Sat3", 0)), 1)
            self.assertEqual([event for event in one.events() if event[2] == 0 and event[1] != "Sat3"], [])
        self.assertEqual({name: self.c.id_of(name) for name in rest}, {name: ids[name] for name in rest})
        self.assertEqual(self.directory.satellite_files(), sorted([*rest, "Listener", "OtherListener"]))


class ASatelliteThatHangs(WithADirectory):
    def test_is_pinged_once_until_that_ping_has_ended_and_then_removed(self):
        hanging, living = self.satellite(), self.satellite()
        self.c.register("Hanging", hanging.port, [("Service", "")])
        self.c.register("Living", living.port, [("Service", "")])
        wait_until(lambda: hanging.pings and living.pings, "both to be pinged")
        hanging.hanging, before = True, living.pings
        self.wait_until_gone("Hanging")
        self.assertEqual(hanging.unanswered, 1)
        self.assertIn(f":{hanging.port} removed: no answer came in time", self.directory.log())
        self.assertGreaterEqual(living.pings - before, 2)
        self.assertEqual(self.c.providers("Service"), ["Living"])

    def test_registers_again_with_services_and_subscriptions_when_it_goes_on(self):
        satellite, provider = self.start(("Sleeper", "Dream"), ("Provider",))
        satellite.tell("listen", "Alarm")
        first = self.c.id_of("Sleeper")
        satellite.send_signal(signal.SIGSTOP)
        self.wait_until_gone("Sleeper")
        wait_until(lambda: not self.directory.listeners(), "its subscription to go")
        provider.tell("publish", "Alarm")
        satellite.send_signal(signal.SIGCONT)
        wait_until(lambda: self.c.id_of("Sleeper"), "the satellite to register again")
        wait_until(lambda: self.directory.listeners() == [("Alarm", "Sleeper")], "the subscription to be renewed")
        wait_until(lambda: ("Alarm", "Provider", 1) in satellite.events(), "the provider to be told")
        self.assertGreater(self.c.id_of("Sleeper"), first)
        self.assertEqual(self.c.providers("Dream"), ["Sleeper"])
        wait_until(lambda: satellite.standings() == [0, 1], "both changes to be reported")


class ASatelliteThatIsRightBack(WithADirectory):
    def test_keeps_its_place_while_it_restarts(self):
        recorder, player = self.start(("Recorder", "Schedule"), ("Player",))
        player.tell("listen", "Schedule")
        self.directory.keep_from_checks("Recorder")
        before = self.c.id_of("Recorder")
        recorder.kill()
        self.wait_for_passes(2)
        self.assertEqual((self.c.id_of("Recorder"), self.c.providers("Schedule")), (before, ["Recorder"]))
        self.start(("Recorder", "Schedule"))
        self.assertGreater(self.c.id_of("Recorder"), before)
        heard = [("Schedule", "Recorder", status) for status in [1, 0, 1]]
        wait_until(lambda: player.events() == heard, "the change of the record to be heard")
        self.assertNotIn("has died removing it", self.directory.log())


class TheDirectory(WithADirectory):
    def test_removes_nobody_for_what_it_missed_while_it_stood_still(self):
        slow, hanging = self.satellite(), self.satellite()
        self.start(("Real", "Service"))
        self.c.register("Slow", slow.port, [("Service", "")])
        self.c.register("Hanging", hanging.port)
        hanging.hanging = True
        slow.hold()
        wait_until(lambda: slow.unanswered and hanging.unanswered, "pings to be under way")
        self.directory.current.send_signal(signal.SIGSTOP)
        hanging.hanging = False
        slow.release()  # the answer comes while the directory cannot read it
        time.sleep(30)  # far more than the period and the limit of a ping
        self.directory.current.send_signal(signal.SIGCONT)
        self.wait_for_passes(3)
        self.assertEqual(self.c.providers("Service"), ["Real", "Slow"])
        self.assertIsNotNone(self.c.id_of("Hanging"))  # asked anew, it answers
        self.assertNotIn("has died removing it", self.directory.log())

    @unittest.skipIf("undefined" in os.environ.get("KEL_SANITIZERS", ""), "it needs a descriptor to look at an object")
    def test_removes_nobody_because_it_has_no_descriptor_left(self):
        self.directory.stop()
        self.directory.start(limit_files=48)
        self.c = self.client(self.directory)
        endpoints = [self.satellite() for _ in range(90)]
        for number, endpoint in enumerate(endpoints):
            self.c.register(f"Sat{number}", endpoint.port, [("Common", "")])
        wait_until(lambda: all(endpoint.pings >= 2 for endpoint in endpoints), "everyone to be pinged twice")
        self.assertEqual(len(self.c.providers("Common")), len(endpoints))
        self.assertEqual(self.directory.log().count("idle ones are closed"), 1)
        endpoints[45].close()
        self.wait_until_gone("Sat45")

    def test_waits_at_its_stop_for_the_pings_that_hang_and_for_nothing_else(self):
        endpoint, away = self.satellite(), self.satellite()
        for number in range(100):
            self.c.register(f"Sat{number}", endpoint.port, [("Common", "")])
        sat_id = self.c.register("Away", away.port)
        endpoint.hanging = away.hanging = True
        wait_until(lambda: endpoint.unanswered >= 100 and away.unanswered, "everyone to be pinged")
        self.c.call("RemoveSatellite", record("Away", away.port, sat_id=sat_id))  # its check runs on
        self.directory.current.send_signal(signal.SIGTERM)
        self.c.wait_for_the_end()
        self.assertLess(endpoint.unanswered, 200)  # no further round; few may be asked anew on a slow machine
        self.assertEqual(self.directory.current.wait(), 0)


if __name__ == "__main__":
    unittest.main()

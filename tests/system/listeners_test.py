"""Who listens for a service hears of every satellite that begins or ends to publish it, in order, whatever becomes of the
other listeners; and still does after a restart of the directory."""
import pathlib
import re
import signal
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from kel_client import record, wait_until
from kel_daemon import SystemTest


class AListener(SystemTest):
    def setUp(self):
        self.directory = self.daemon().start()
        self.c = self.client(self.directory)

    def hears(self, satellite, *events):
        wait_until(lambda: satellite.events() == list(events) or len(satellite.events()) > len(events),
                   f"{satellite.satellite} to hear {events}")
        self.assertEqual(satellite.events(), list(events))

    def test_hears_at_once_what_is_there_and_then_what_comes_and_goes(self):
        *_, listener = self.directory.start_satellites(("beta", "Play"), ("Alpha", "Play"), ("Listener",))
        self.assertEqual(listener.tell("listen", "Play"), 0)
        heard = [("Play", "Alpha", 1), ("Play", "beta", 1)]
        self.hears(listener, *heard)
        port = self.satellite().port
        sat_id = self.c.register("Gamma", port, [("Play", "")])
        self.c.register("Gamma", port, [("Play", "again"), ("play", "other letters: another service to listen for")],
                        sat_id)
        self.c.call("UnRegister", record("Gamma", port, [("Nothing", ""), ("Play", "")], sat_id))
        self.c.register("Gamma", port, [("Play", "")], sat_id)
        self.c.call("RemoveSatellite", record("Gamma", port, sat_id=sat_id))
        heard += [("Play", "Gamma", status) for status in [1, 1, 0, 1, 0]]
        self.hears(listener, *heard)
        listener.tell("ignore", "Play")
        listener.tell("listen", "Other")
        self.c.register("Gamma", port, [("Play", ""), ("Other", "")])
        self.hears(listener, *heard, ("Other", "Gamma", 1))

    def test_is_on_the_list_once_and_at_its_end_and_stays_over_a_restart(self):
        first, second, provider = self.directory.start_satellites(("First",), ("Second",), ("Provider",))
        for satellite, service in [(first, "Play"), (second, "Play"), (first, "<&>"), (first, "Play")]:
            self.assertEqual(satellite.tell("listen", service), 0)
        entries = [("Play", "Second"), ("<&>", "First"), ("Play", "First")]
        self.assertEqual(self.directory.listeners(), entries)
        self.c.call("RemoveServiceAvailabilityListener", ["Play"])  # of one who never listened
        self.directory.restart()
        self.assertEqual(sorted(self.directory.listeners()), sorted(entries))  # those who found it already come last
        wait_until(lambda: provider.tell("publish", "Play") == 0, "the provider to find the directory again")
        for satellite in [first, second]:
            wait_until(lambda: ("Play", "Provider", 1) in satellite.events(), "the news")
        self.assertEqual(first.stop(), 0)
        wait_until(lambda: self.directory.listeners() == [("Play", "Second")], "the list without who left")

    def test_is_not_held_up_by_others_that_hang_or_crash_or_are_nowhere(self):
        names = ["Quick", "Stopped", "Crashed", "Late"]
        quick, stopped, crashed, late = self.directory.start_satellites(*[(name,) for name in names])
        services = [f"Service{number}" for number in range(50)]
        silent = self.satellite()
        self.c.register("Silent", silent.port)
        for service in services:
            for name in [*names, "Silent", "Nowhere"]:
                with self.directory.client(name) as client:
                    client.call("AddServiceAvailabilityListener", [service])
        stopped.send_signal(signal.SIGSTOP)
        port, expected = self.satellite().port, []
        sat_id = self.c.register("Busy", port)
        for number, service in enumerate(services):
            self.c.register("Busy", port, [(service, "")], sat_id)
            self.c.call("UnRegister", record("Busy", port, [(service, "")], sat_id))
            expected += [(service, "Busy", 1), (service, "Busy", 0)]
            if number == 25:
                crashed.kill()
        for satellite in [quick, late]:
            self.hears(satellite, *expected)
        wait_until(lambda: silent.events == expected, "the client of another kind to hear all")
        wait_until(lambda: {name for _, name in self.directory.listeners()} == {"Quick", "Late", "Silent", "Nowhere"},
                   "the dead to be off the list")
        self.assertLessEqual(self.directory.log().count("one-way calls to Nowhere are dropped"), 1)

    def test_that_cannot_be_written_to_the_file_takes_no_other_from_it(self):
        port = self.satellite().port
        for name in ["Good", "Bad", "Last"]:
            self.c.register(name, port)
        entries = [("Bad", "</service>"), ("Good", "Play"), ("Bad", "<serviceListener>"), ("", "Play"), ("Last", "")]
        for name, service in [*entries, ("Last", "Play")]:
            with self.directory.client(name) as client:
                self.assertEqual(client.call("AddServiceAvailabilityListener", [service]), (0, None))
        for _ in range(2):
            self.assertEqual(self.directory.listeners(), [("Play", "Good"), ("Play", "Last")])
            self.directory.restart()


class ASatelliteOfLibkel(SystemTest):
    def test_tells_the_directory_what_it_missed_once_it_is_back(self):
        directory = self.daemon().start()
        recorder, = directory.start_satellites(("Recorder", "Old"))
        listed = directory.registration.parent / "ServiceListeners.xml"
        self.assertEqual(recorder.tell("listen", "Dropped"), 0)
        older = listed.read_text()
        self.assertEqual(recorder.tell("listen", "Kept"), 0)
        directory.stop()
        listed.write_text(older)
        for command, what in [("publish", "New"), ("withdraw", "Old"), ("ignore", "Dropped"), ("listen", "Failed")]:
            self.assertNotEqual(recorder.tell(command, what), 0, (command, what))
        directory.start()
        wait_until(lambda: re.findall("<name>(.*)</name>", directory.satellite_file("Recorder")) == ["New"]
                   and directory.listeners() == [("Kept", "Recorder")], "the directory to know")

    def test_publishes_all_its_services_with_a_new_one_when_its_record_is_gone(self):
        directory = self.daemon().start()
        recorder, = directory.start_satellites(("Recorder", "Early"))
        client = self.client(directory)
        client.call("RemoveSatellite", record("Recorder", 9, sat_id=client.id_of("Recorder")))
        self.assertEqual(recorder.tell("publish", "Late"), 0)
        self.assertEqual([client.providers(service) for service in ["Early", "Late"]], [["Recorder"]] * 2)

    def test_tells_its_services_again_to_a_directory_whose_file_has_lost_them(self):
        self.directory = self.daemon().start()
        self.directory.start_satellites(("Recorder", "Schedule", "Rewind"))
        self.directory.stop()
        path = self.directory.satellites / "Recorder.xml"
        whole = path.read_text()
        path.write_text(whole[:whole.index("\t<service>")] + "</satellite>\n")
        self.directory.start()
        wait_until(lambda: self.directory.satellite_file("Recorder") == whole, "Recorder's services to be back")
        self.assertEqual(self.client(self.directory).providers("Schedule"), ["Recorder"])


if __name__ == "__main__":
    unittest.main()

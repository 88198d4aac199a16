"""The wire protocol and the eleven methods of the directory, driven by a client that shares no code with libkel."""
import os
import pathlib
import resource
import select
import socket
import struct
import sys
import threading
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from kel_client import (DEADLINE, UNKNOWN_SATELLITE, KelError, msgpack, pack, record, string_array, ui2, wait_until)
from kel_daemon import SystemTest

METHODS = [
    ["Register", "Register Satellite services"],
    ["UnRegister", "UnRegister Satellite services"],
    ["GetServiceReg", "Get Service Registration"],
    ["GetSatelliteHost", "Retrieve the Satellite host"],
    ["GetSatelliteId", "Retrieve the Satellite Id"],
    ["RemoveSatellite", "Remove the satellite from the database"],
    ["AddServiceAvailabilityListener", "Add a service availability listener for a Satellite"],
    ["RemoveServiceAvailabilityListener", "Remove a service availability listener for a Satellite"],
    ["AddKelUsers", "Add users to the list of discoverable users in kel library"],
    ["RemoveKelUser", "Remove a User from the list of discoverable users in kel library"],
    ["SetBeRightBackTimer", "Sets a Be Right Back timer -- KelDirectory won't ping and unregister the satellite during "
                            "that time"],
]
INVALID_PARAMETER = 1


def nested(depth):
    value = None
    for _ in range(depth):
        value = [value]
    return value


def request_with(raw_value, method="GetSatelliteId"):
    """A request whose in-parameter is `raw_value` as it stands."""
    return b"\x94\x00\x01" + msgpack.packb(method) + b"\x92\xa0" + raw_value


class WithADirectory(SystemTest):
    def setUp(self):
        self.directory = self.daemon().start()
        self.endpoint = self.satellite()
        self.c = self.client(self.directory, "Recorder")

    def alive(self):
        """Another client is served."""
        with self.directory.client() as witness:
            return witness.id_of("MainRegister") is not None


class TheElevenMethods(WithADirectory):
    def test_describe_lists_the_methods_in_their_order(self):
        self.assertEqual(self.c.call("kel.Describe"), (0, METHODS))

    def test_ping_knows_the_directory_by_name_in_any_case_and_by_id(self):
        own = self.c.id_of("MainRegister")
        for name, sat_id, status in [("MainRegister", own, 1), ("mAINrEGISTER", own, 1), ("MainRegister", own + 1, 0),
                                     ("Recorder", own, 0), ("", 0, 0)]:
            self.assertEqual(self.c.call("kel.Ping", [name, sat_id]), (0, status), (name, sat_id))

    def test_a_method_that_is_not_published_is_an_error_that_names_it(self):
        for name in ["Nope", "register", "", "%s%n"]:
            with self.assertRaises(KelError) as caught:
                self.c.call(name, ["x"])
            self.assertEqual((caught.exception.code, caught.exception.text), (0x20004, "unknown method " + name))

    def test_a_satellite_registers_is_found_and_leaves(self):
        port = self.endpoint.port
        services = [("Schedule", "Recording schedule"), ("Tune", "")]
        code, (server, sat_id) = self.c.call("Register", record("Recorder", port, services, host="studio", version=7))
        self.assertEqual(code, 0)
        self.assertRegex(server, "^[0-9A-Za-z]{16}$")
        self.assertEqual(self.c.call("GetSatelliteId", "Recorder"), (0, sat_id))
        self.assertEqual(self.c.call("GetSatelliteHost", "recorder"), (0, ["127.0.0.1", port]))
        described = ["Schedule", "Recording schedule", "Recorder", "127.0.0.1", ui2(port), "studio", 7]
        for destination in ["any", "ANY", "All", "", "RECORDER"]:
            self.assertEqual(self.c.call("GetServiceReg", [destination, "schedule"]), (0, [described]))
        self.assertEqual(self.c.call("GetServiceReg", string_array("any", "Schedule")), (0, [described]))
        self.assertEqual(self.c.call("GetServiceReg", ["any", "Nothing"]), (0, []))
        self.assertEqual(self.c.call("GetServiceReg", ["Player", "Schedule"]), (0, []))

        self.assertEqual(self.c.call("SetBeRightBackTimer", 30), (0, 0))
        for method in ["AddServiceAvailabilityListener", "RemoveServiceAvailabilityListener"]:
            for watched in [["Schedule", "Tune"], string_array("Schedule"), []]:
                self.assertEqual(self.c.call(method, watched)[0], 0, (method, watched))
        self.assertEqual(self.c.call("AddKelUsers", ["anna", ["bert", "x", True]])[0], 0)
        self.assertEqual(self.c.call("RemoveKelUser", "anna")[0], 0)

        own = record("Recorder", port, [("Tune", ""), ("Absent", "")], sat_id)
        self.assertEqual(self.c.call("UnRegister", own), (0, 1))
        self.assertEqual(self.c.providers("Tune"), [])
        self.assertEqual(self.c.providers("Schedule"), ["Recorder"])
        self.assertEqual(self.c.call("RemoveSatellite", own)[0], 0)
        self.assertEqual(self.c.call("GetSatelliteId", "Recorder"), (0x40002, None))
        self.assertEqual(self.c.providers("Schedule"), [])

    def test_bad_parameters_get_their_codes_and_change_nothing(self):
        sat_id = self.c.register("Recorder", self.endpoint.port, [("Schedule", "Recording schedule")])
        good = record("Recorder", self.endpoint.port, [("Schedule", "")], sat_id)

        def changed(index, value, base=good):
            return base[:index] + [value] + base[index + 1:]

        stranger = record("Stranger", 9)
        wrong_records = [None, True, 5, "Recorder", b"Recorder", 2.5, [], good[:6], [None] * 7, ui2(7), [[[]]] * 7,
                         string_array(*"abcdefg"), *(changed(i, [], stranger) for i in range(6)),
                         *(changed(i, None, stranger) for i in range(2, 6)), changed(0, b"Recorder", stranger),
                         changed(2, 9, stranger), changed(4, 1 << 40, stranger), changed(4, "1", stranger)]
        cases = [(method, value, INVALID_PARAMETER) for value in wrong_records
                 for method in ["Register", "UnRegister", "RemoveSatellite"]]
        for services, count in [(None, 1), ("Schedule", 1), ([None], 1), ([["Schedule"]], 1), ([[1, "x"]], 1),
                                ([["Schedule", 5]], 1), ([], 1), ([["Other", ""]], 2 ** 31 - 1)]:
            cases.append(("UnRegister", changed(6, services, changed(5, count)), INVALID_PARAMETER))
        for method in ["UnRegister", "RemoveSatellite"]:
            cases += [(method, value, UNKNOWN_SATELLITE) for value in [
                changed(4, 0), changed(4, sat_id + 1), changed(0, "Stranger"), changed(0, None)]]
        cases += [("GetServiceReg", value, 0x40001)
                  for value in [None, 5, "any", [], ["any"], [1, "Schedule"], ["any", 1], string_array("any")]]
        cases += [("GetSatelliteHost", "Stranger", UNKNOWN_SATELLITE), ("GetSatelliteHost", "", UNKNOWN_SATELLITE),
                  ("GetSatelliteId", "Stranger", 0x40002), ("GetSatelliteId", "R" * 1000000, 0x40002),
                  ("SetBeRightBackTimer", "soon", 1), ("SetBeRightBackTimer", None, 1), ("SetBeRightBackTimer", [1], 1),
                  ("SetBeRightBackTimer", 1 << 40, 1), ("SetBeRightBackTimer", ui2(4), 1)]
        cases += [(method, value, 0x40001) for value in [None, 5, "Schedule", [5], ui2(1)]
                  for method in ["AddServiceAvailabilityListener", "RemoveServiceAvailabilityListener"]]

        def answer(method, value):
            try:
                code, out = self.c.call(method, value)
                self.assertTrue(code == 0 or out is None or out == [], (method, value, out))
                return code
            except KelError as error:
                self.assertNotEqual(error.text, "")
                return error.code

        before = self.directory.tree(), self.c.call("GetServiceReg", ["all", "Schedule"])
        for method, value, expected in cases:
            with self.subTest(method=method, value=str(value)[:100]):
                self.assertEqual(answer(method, value), expected)
                self.assertEqual(self.c.id_of("Stranger"), None)
        for value in [None, 5, [], ["Recorder"], ui2(3), b"", 2.5]:
            with self.subTest(method="names that are no text", value=value):
                self.assertIn(answer("GetSatelliteHost", value), [0x40001, UNKNOWN_SATELLITE])
                self.assertIn(answer("GetSatelliteId", value), [0x40002, UNKNOWN_SATELLITE])
                answer("kel.Ping", value)
                answer("AddKelUsers", value)
                answer("RemoveKelUser", value)
        self.assertEqual((self.directory.tree(), self.c.call("GetServiceReg", ["all", "Schedule"])), before)

        with self.client(self.directory, "Unregistered") as unknown:
            self.assertEqual(unknown.call("SetBeRightBackTimer", 5), (0x40002, None))
        with self.assertRaisesRegex(KelError, "Element is not an unsigned short"):
            self.c.call("Register", changed(2, 9, stranger))
        with self.assertRaisesRegex(KelError, "Not an array of variant or string"):
            self.c.call("Register", None)

    def test_a_bad_service_entry_fails_the_whole_registration_and_frees_the_name(self):
        for entries in [None, [], ["x"], [[5, ""]], [["x"]], [["One", ""], ["Two", 2]]]:
            for count in [max(1, len(entries or [])), 2 ** 31 - 1]:
                with self.assertRaises(KelError) as caught:
                    self.c.call("Register", record("Broken", 9)[:5] + [count, entries])
                self.assertEqual(caught.exception.code, INVALID_PARAMETER)
                self.assertIsNone(self.c.id_of("Broken"))
        self.assertEqual(self.directory.satellite_files(), [])
        self.c.register("Broken", self.endpoint.port, [("One", "")])
        self.assertEqual(self.c.providers("One"), ["Broken"])

    def test_only_as_many_services_are_taken_as_the_count_says(self):
        for name, count, expected in [("Few", 1, ["Few"]), ("None", 0, []), ("Negative", -5, [])]:
            entries = [["First" + name, ""], ["Second" + name, ""]]
            over_long = record(name, self.endpoint.port)[:5] + [count, entries, "one more", None]
            self.assertEqual(self.c.call("Register", over_long)[0], 0)
            self.assertEqual((self.c.providers("First" + name), self.c.providers("Second" + name)), (expected, []))


class TheWire(WithADirectory):
    def test_what_is_no_message_disconnects_its_sender_only(self):
        malformed = {
            "text": b"GET / HTTP/1.1\r\n\r\n",
            "a short request": pack([0, 1, "m"]),
            "a map inside": pack([0, 1, "m", ["", [[{}]]]]),
            "a NUL in a text": pack([0, 1, "m", ["", "Rec\0order"]]),
            "very deep nesting": b"\x91" * 1000000,
            "an array of 4 Gi": request_with(b"\xdd\xff\xff\xff\xff" + b"\xc0" * 100),
        }
        own = self.c.id_of("MainRegister")
        for what, data in malformed.items():
            with self.subTest(what), self.directory.client() as peer:
                try:
                    peer.send_raw(data)
                except ConnectionError:
                    pass  # refused before all of it was sent
                peer.wait_for_the_end()
                self.assertEqual(self.c.id_of("MainRegister"), own)

    def test_large_and_deep_values_within_the_limits_are_answered(self):
        everything = [None, True, -1, 1 << 40, -(1 << 63), (1 << 64) - 1, 2.5, "text", b"bytes", ui2(5), nested(25),
                      string_array("a", "b")] + [msgpack.ExtType(code, bytes(size)) for code, size in
                                                 [(1, 0), (2, 2), (7, 8), (16, 1), (17, 1), (19, 4), (20, 8), (21, 8),
                                                  (66, 6), (67, 8), (68, 8), (69, 16), (71, 8), (75, 4), (82, 0)]]
        for value in [b"\xff" * (15 << 20), "\u00e4" * (7 << 20), [None] * (1 << 20), everything, ""]:
            self.assertEqual(self.c.call("kel.Describe", value), (0, METHODS))

    def test_text_travels_as_the_bytes_it_is(self):
        for name in ["J\u00f6rg \U0001f3b5", b"\xff\xfe\x80".decode("utf-8", "surrogateescape"), "%s%n%d", "<&>\"'"]:
            sat_id = self.c.register(name, self.endpoint.port, [(name, name * 3)])
            self.assertEqual(self.c.id_of(name), sat_id)
            self.assertEqual(self.c.call("GetServiceReg", ["any", name])[1][0][:3], [name, name * 3, name])

    def test_several_calls_are_outstanding_on_one_connection(self):
        own = self.c.id_of("MainRegister")
        methods = [("GetSatelliteId", "MainRegister", (0, own)), ("GetSatelliteId", "Nobody", (0x40002, None)),
                   ("GetServiceReg", ["all", "Nothing"], (0, [])), ("kel.Describe", None, (0, METHODS))]
        sent = [(self.c.send(method, value), answer) for method, value, answer in methods * 100]
        for number, answer in reversed(sent):
            self.assertEqual(self.c.answer(number), answer)

    def test_a_notification_runs_and_is_not_answered(self):
        self.c.notify("Register", record("Quiet", self.endpoint.port))
        self.c.notify("NoSuchMethod", ["x"])
        self.c.notify("Register", None)
        self.assertEqual(self.c.call("kel.Describe"), (0, METHODS))
        wait_until(lambda: self.c.id_of("Quiet"), "the notified registration")

    def test_an_answer_that_nobody_waits_for_is_passed_over(self):
        self.c.send_raw(pack([1, 77, None, [0, None]]) + pack([1, 78, [5, "late"], None]))
        self.assertEqual(self.c.call("kel.Describe"), (0, METHODS))

    def test_a_flood_of_calls_is_answered_though_blocked_ones_are_among_them(self):
        hanging = self.satellite()
        for number in range(20):
            self.c.register(f"Held{number}", hanging.port)
        hanging.hanging = True
        blocked = [self.c.send("Register", record(f"Held{number}", self.endpoint.port)) for number in range(20)]
        wait_until(lambda: hanging.unanswered >= 20, "the previous holders to be asked")  # by the checks as well
        quick = [self.c.request("GetSatelliteId", "MainRegister") for _ in range(4000)]
        sender = threading.Thread(target=self.c.send_raw, args=(b"".join(data for _, data in quick),))
        sender.start()
        for number, _ in quick:
            self.assertEqual(self.c.answer(number)[0], 0)
        sender.join()
        hanging.close()
        for number in blocked:
            self.assertEqual(self.c.answer(number)[0], 0)

    def test_a_client_that_never_reads_is_cut_off_and_holds_up_nobody(self):
        for number in range(200):
            self.c.register(f"Talker{number}", self.endpoint.port, [("Talk", "t" * 4000)])
        deaf = self.client(self.directory)
        deaf.socket.settimeout(DEADLINE)
        asked = b"".join(deaf.request("GetServiceReg", ["all", "Talk"])[1] for _ in range(150))
        try:
            deaf.send_raw(asked)
        except ConnectionError:
            pass  # cut off already
        ended = select.poll()
        ended.register(deaf.socket, select.POLLRDHUP | select.POLLHUP | select.POLLERR)

        def served_until_cut_off():
            self.assertIsNotNone(self.c.id_of("MainRegister"))
            return ended.poll(0)
        wait_until(served_until_cut_off, "the deaf client to be cut off")

    def test_many_idle_and_half_finished_connections_hold_up_nobody(self):
        clients = [self.client(self.directory) for _ in range(300)]
        for number, client in enumerate(clients):
            client.send_raw(client.request("GetSatelliteId", "MainRegister")[1][:number % 12])
        self.assertTrue(self.alive())


class WithFewDescriptors(SystemTest):
    def setUp(self):
        self.directory = self.daemon().start(limit_files=128)
        self.first = self.client(self.directory)
        self.assertIsNotNone(self.first.id_of("MainRegister"))

    def crowd(self, data):
        """More connections than there are descriptors, from another address, each with `data` sent."""
        for _ in range(200):
            stranger = socket.create_connection(("127.0.0.1", self.directory.port), DEADLINE, ("127.0.0.9", 0))
            self.addCleanup(stranger.close)
            stranger.sendall(data)
            yield stranger

    def test_idle_strangers_give_way_to_who_comes_and_leave_files_their_descriptors(self):
        strangers = [*self.crowd(b""), *self.crowd(b"\x94")]
        with self.directory.client() as late:
            late.register("Recorder", self.satellite().port, [("Schedule", "")])
        self.assertEqual(self.first.providers("Schedule"), ["Recorder"])  # idle the longest, but not one of many
        self.assertIn("Schedule", self.directory.satellite_file("Recorder"))
        self.assertEqual(strangers[0].recv(1), b"")


@unittest.skipIf(os.environ.get("KEL_SANITIZERS"), "sanitizers reserve more addresses than a limit leaves")
class WithLittleMemory(WithADirectory):
    def process(self, what):
        return pathlib.Path(f"/proc/{self.directory.current.process.pid}", what)

    def sockets(self):
        def is_socket(descriptor):
            try:
                return os.readlink(descriptor).startswith("socket:")
            except FileNotFoundError:  # closed since it was listed
                return False
        return sum(map(is_socket, self.process("fd").iterdir()))

    def limit_memory(self, size):
        resource.prlimit(self.directory.current.process.pid, resource.RLIMIT_DATA, (size, resource.RLIM_INFINITY))

    def test_who_asked_when_it_ran_out_is_answered_or_disconnected_and_nothing_is_kept(self):
        self.assertIsNotNone(self.c.id_of("MainRegister"))
        before = self.sockets()  # that of this client among them
        crowd = [self.client(self.directory) for _ in range(3)]  # together below the directory's own bound
        for client in crowd:
            self.assertIsNotNone(client.id_of("MainRegister"))
        question = [client.request("GetSatelliteId", "a" * (15 << 20)) for client in crowd]
        self.limit_memory(1 << 20)  # far less than it has: not a page more, nor one that was set aside before

        def ask(client, data):
            try:
                client.send_raw(data)
            except ConnectionError:
                pass  # it hears of that again
        asking = [threading.Thread(target=ask, args=(client, data[:-1]))
                  for client, (_, data) in zip(crowd, question)]
        for thread in asking:
            thread.start()
        for thread in asking:
            thread.join()
        wait_until(lambda: "no memory" in self.directory.log(), "memory to run out")
        self.limit_memory(resource.RLIM_INFINITY)

        answered = 0
        for client, (number, data) in zip(crowd, question):
            ask(client, data[-1:])
            try:
                self.assertEqual(client.answer(number), (0x40002, None))
                answered += 1
            except (ConnectionError, EOFError):
                pass
            client.close()
        self.assertLess(answered, len(crowd))
        self.assertTrue(self.alive())
        wait_until(lambda: self.sockets() <= before, "the connections to be gone")


if __name__ == "__main__":
    unittest.main()

"""The wire protocol and the eleven methods of the directory, driven by a client that shares no code with libkel."""
import fcntl
import os
import pathlib
import re
import resource
import select
import socket
import struct
import sys
import threading
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from kel_client import (ALREADY_REGISTERED, DEADLINE, UNKNOWN_SATELLITE, KelError, msgpack, pack, record, string_array,
                        ui2, wait_until)
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
        value = b"\xc0"
        malformed = {
            "no MessagePack": b"\xc1",
            "a map": b"\x80",
            "text": b"GET / HTTP/1.1\r\n\r\n",
            "zeros": bytes(64),
            "an empty array": b"\x90",
            "an unknown kind": pack([3, 1, "m", ["", None]]),
            "a short request": pack([0, 1, "m"]),
            "a long request": pack([0, 1, "m", ["", None], 5]),
            "a long notification": pack([2, "m", ["", None], 5]),
            "a short response": pack([1, 1, None]),
            "a response with both": pack([1, 1, [1, "x"], [0, None]]),
            "an id below 0": pack([0, -1, "m", ["", None]]),
            "an id over 32 bits": pack([0, 1 << 32, "m", ["", None]]),
            "an id that is text": pack([0, "1", "m", ["", None]]),
            "a method that is a number": pack([0, 1, 5, ["", None]]),
            "a method that is nil": pack([0, 1, None, ["", None]]),
            "a caller that is nil": pack([0, 1, "m", [None, None]]),
            "no caller": pack([0, 1, "m", [None]]),
            "three parameters": pack([0, 1, "m", ["", None, None]]),
            "parameters that are none": pack([0, 1, "m", None]),
            "a map inside": pack([0, 1, "m", ["", [[{}]]]]),
            "an ext type not listed": pack([0, 1, "m", ["", msgpack.ExtType(99, b"1234")]]),
            "a negative ext type": request_with(b"\xd6\xff1234"),
            "an ext of a wrong size": pack([0, 1, "m", ["", msgpack.ExtType(18, b"123")]]),
            "an ext array of a wrong size": pack([0, 1, "m", ["", msgpack.ExtType(64 + 18, b"123")]]),
            "an ext array of broken texts": pack([0, 1, "m", ["", msgpack.ExtType(64 + 8, b"\xa5ab")]]),
            "a NUL in a text": pack([0, 1, "m", ["", "Rec\0order"]]),
            "a NUL in the method": pack([0, 1, "Reg\0ister", ["", None]]),
            "deep nesting": pack([0, 1, "m", ["", nested(100)]]),
            "very deep nesting": b"\x91" * 1000000,
            "an endless array": request_with(b"\xdd" + struct.pack(">I", (1 << 20) + 1)),
            "an array of 4 Gi": request_with(b"\xdd\xff\xff\xff\xff" + value * 100),
            "a text of 4 GiB": request_with(b"\xdb\xff\xff\xff\xff"),
            "a text over 16 MiB": request_with(b"\xdb" + struct.pack(">I", (16 << 20) + 1)),
            "bytes of 4 GiB": request_with(b"\xc6\xff\xff\xff\xff"),
            "an ext of 4 GiB": request_with(b"\xc9\xff\xff\xff\xff\x51"),
            "a method name of 4 GiB": b"\x94\x00\x01\xdb\xff\xff\xff\xff",
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

    def test_integers_are_read_in_any_width(self):
        self.c.register("Recorder", self.endpoint.port)
        for raw in [b"\x05"] + [code + bytes(size - 1) + b"\x05" for code, size in [
                (b"\xcc", 1), (b"\xcd", 2), (b"\xce", 4), (b"\xcf", 8), (b"\xd0", 1), (b"\xd1", 2), (b"\xd2", 4),
                (b"\xd3", 8)]]:
            self.c.send_raw(b"\x94\x00\xcd\x75\x30" + msgpack.packb("SetBeRightBackTimer") + b"\x92\xa8Recorder" + raw)
            self.assertEqual(self.c.answer(30000), (0, 0), raw)

    def test_a_message_may_come_byte_by_byte(self):
        number, data = self.c.request("Register", record("Slow", self.endpoint.port, [("Crawl", "Takes its time")]))
        for position in range(len(data)):
            self.c.send_raw(data[position:position + 1])
        self.assertEqual(self.c.answer(number)[0], 0)
        self.assertEqual(self.c.providers("Crawl"), ["Slow"])

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

    def test_more_blocked_calls_than_may_be_outstanding_are_answered_in_the_end(self):
        hanging = self.satellite()
        self.c.register("Held", hanging.port)
        self.directory.keep_from_checks("Held")
        hanging.hanging = True
        with self.directory.client() as first:
            held = first.send("Register", record("Held", self.endpoint.port))
            wait_until(lambda: hanging.unanswered, "the previous holder to be asked")
            refused = [self.c.send("Register", record("Held", self.endpoint.port)) for _ in range(1500)]
            for number in refused:
                self.assertEqual(self.c.answer(number), (ALREADY_REGISTERED, None))
            hanging.close()
            self.assertEqual(first.answer(held)[0], 0)

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


class WithNobodyAtItsOutput(SystemTest):
    def test_a_flood_of_bad_calls_holds_up_nobody_and_leaves_a_few_lines(self):
        unread, output = os.pipe()
        self.addCleanup(os.close, unread)
        os.write(output, b"x" * fcntl.fcntl(output, fcntl.F_GETPIPE_SZ))
        directory = self.daemon(level=1).start(prepare=lambda: os.dup2(output, 1))
        os.close(output)
        client = self.client(directory)
        log = directory.logs / "KelDirectory.log"
        calls = [client.request("GetServiceReg", 7) for _ in range(2000)]
        client.send_raw(b"".join(data for _, data in calls))
        for number, _ in calls:
            client.answer(number)

        def lines():
            return re.findall(r"SatGetService failed: .*?(?: \.\.\. and ([\d,]+) more in \d+ s)?\n", log.read_text())
        wait_until(lambda: sum(1 + int(more.replace(",", "") or 0) for more in lines()) == len(calls), "the count")
        self.assertLess(len(lines()), 50)
        directory.stop()


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
        resource.prlimit(self.directory.current.process.pid, resource.RLIMIT_AS, (size, resource.RLIM_INFINITY))

    def test_who_asked_when_it_ran_out_is_answered_or_disconnected_and_nothing_is_kept(self):
        self.assertIsNotNone(self.c.id_of("MainRegister"))
        before = self.sockets()  # that of this client among them
        crowd = [self.client(self.directory) for _ in range(8)]
        for client in crowd:
            self.assertIsNotNone(client.id_of("MainRegister"))
        question = [client.request("GetSatelliteId", "a" * (15 << 20)) for client in crowd]
        used = int(re.search(r"VmSize:\s+(\d+)", self.process("status").read_text())[1]) << 10
        self.limit_memory(used + (40 << 20))

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
        # What the allocator has reserved may be enough until the directory's own bound is reached.
        wait_until(lambda: re.search("no memory|those that hold the most are disconnected", self.directory.log()),
                   "memory to run out")
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

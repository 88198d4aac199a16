"""Satellites register, clash, leave and return; what the directory keeps of them on disk, and after a restart."""
import pathlib
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from kel_client import ALREADY_REGISTERED, Satellite, record, ui2, wait_until
from kel_daemon import REGISTRATION_FILE, SystemTest, registration_text, satellite_text


class WithADirectory(SystemTest):
    def setUp(self):
        self.directory = self.daemon().start()
        self.endpoint = self.satellite()
        self.c = self.client(self.directory)

    def restart(self):
        self.directory.restart()
        self.c = self.client(self.directory)


class ANameThatIsTaken(WithADirectory):
    def test_is_refused_while_its_holder_lives(self):
        holder = self.satellite()
        holder.sat_id = self.c.register("Recorder", holder.port, [("Schedule", "")])
        holder.name = "Recorder"
        files = self.directory.tree()
        for name, claimed in [("Recorder", 0), ("Recorder", holder.sat_id + 1), ("RECORDER", 0), ("recorder", -1)]:
            answer = self.c.call("Register", record(name, self.endpoint.port, [("Other", "")], claimed))
            self.assertEqual(answer, (ALREADY_REGISTERED, None))
        self.assertGreaterEqual(holder.pings, 4)
        self.assertEqual(self.c.call("GetSatelliteHost", "Recorder"), (0, ["127.0.0.1", holder.port]))
        self.assertEqual((self.c.providers("Schedule"), self.c.providers("Other")), (["Recorder"], []))
        self.assertEqual(self.directory.tree(), files)

    def test_is_given_away_under_a_new_id_when_its_holder_is_dead_or_another(self):
        last, old = 0, "Schedule"
        for number, die in enumerate([lambda holder: setattr(holder, "name", "Player"), Satellite.close, None]):
            holder = self.satellite()
            sat_id = self.c.register("Recorder", holder.port, [(f"Schedule{number}", "")])
            self.assertGreater(sat_id, last)
            self.assertEqual(self.c.call("GetSatelliteHost", "Recorder"), (0, ["127.0.0.1", holder.port]))
            self.assertEqual((self.c.id_of("Recorder"), self.c.providers(old)), (sat_id, []))
            last, old = sat_id, f"Schedule{number}"
            if die:
                die(holder)
        log = self.directory.log()
        for why in ["what answers there is not this satellite", "the connection was refused"]:
            self.assertRegex(log, rf"NOTE.*Satellite Recorder \(satId \d+\) at 127.* replaced by a new one at 127.*: {why}")

    def test_stays_with_the_same_id_and_record_without_a_ping_when_the_id_is_its_own(self):
        sat_id = self.c.register("Recorder", self.endpoint.port, [("Schedule", "old")], host="studio")
        self.directory.keep_from_checks("Recorder")
        self.endpoint.hanging = True  # whoever asks it takes it for dead
        again = self.c.register("RECORDER", 9, [("schedule", "new"), ("Tune", "")], sat_id, host="elsewhere", version=9)
        self.assertEqual(again, sat_id)
        self.assertEqual(self.c.call("GetServiceReg", ["any", "Schedule"])[1],
                         [["schedule", "new", "Recorder", "127.0.0.1", ui2(self.endpoint.port), "studio", 2]])
        self.assertEqual(self.directory.satellite_files(), ["Recorder"])

    def test_main_register_belongs_to_the_directory(self):
        own = self.c.id_of("MainRegister")
        self.assertEqual(self.c.call("Register", record("MainRegister", self.endpoint.port))[0], ALREADY_REGISTERED)
        self.assertEqual(self.c.id_of("MainRegister"), own)

    def test_is_pending_for_everyone_else_while_its_holder_hangs(self):
        self.c.register("Recorder", self.endpoint.port)
        self.directory.keep_from_checks("Recorder")
        self.endpoint.hanging, before = True, self.endpoint.pings
        with self.directory.client() as first, self.directory.client() as second:
            held = first.send("Register", record("Recorder", 9))
            wait_until(lambda: self.endpoint.pings > before, "the holder to be asked")
            for client in [first, second]:  # pings that hang never end here: these answers do not wait for them
                refused = client.send("Register", record("Recorder", 9))
                self.assertEqual(client.answer(refused), (ALREADY_REGISTERED, None))
            self.assertEqual(self.endpoint.pings, before + 1)
            second.register("Player", 9)  # other names go on
            self.endpoint.close()
            self.assertEqual(first.answer(held)[0], 0)
            self.assertEqual(second.call("Register", record("Recorder", 9))[0], 0)  # pending no more: port 9 is dead

    def test_goes_to_exactly_one_of_sixteen_who_ask_at_once(self):
        for name in ["Echo1", "Echo2", "Echo3"]:
            clients = [self.client(self.directory) for _ in range(16)]
            ports = [self.satellite().port for _ in clients]
            sent = [client.send("Register", record(name, port, [(name, "")])) for client, port in zip(clients, ports)]
            answers = [client.answer(number) for client, number in zip(clients, sent)]
            winners = [index for index, (code, _) in enumerate(answers) if code == 0]
            self.assertEqual(len(winners), 1, answers)
            self.assertEqual({code for code, _ in answers}, {0, ALREADY_REGISTERED})
            self.assertEqual(self.c.call("GetSatelliteHost", name), (0, ["127.0.0.1", ports[winners[0]]]))
            self.assertEqual(self.c.id_of(name), answers[winners[0]][1][1])
            self.assertEqual(self.c.providers(name), [name])


class WhatTheDirectoryKeeps(WithADirectory):
    def test_is_one_file_a_satellite_and_one_of_its_own_to_the_byte(self):
        port = self.endpoint.port
        code, (server, sat_id) = self.c.call("Register", record(
            "Recorder", port, [("tune", "<&>"), ("Schedule", "Recording schedule"), ("Zap", ""), ("a", "d" * 5000),
                               ("n" * 2000, "long name")], host="studio-with-a-long-name", version=-3))
        self.assertEqual(code, 0)
        services = [("a", "d" * 4096), ("n" * 1024, "long name"), ("Schedule", "Recording schedule"), ("tune", "<&>"),
                    ("Zap", "")]
        self.assertEqual(self.directory.satellite_file("Recorder"),
                         satellite_text("Recorder", sat_id, port, services, host="studio-with-a-lo", version=-3))
        self.assertEqual(self.directory.registration.read_text(), registration_text(sat_id, server))
        self.c.call("UnRegister", record("Recorder", port, [(name, "") for name in ["A", "TUNE", "n" * 2000]], sat_id))
        self.assertEqual(self.directory.satellite_file("Recorder"), satellite_text(
            "Recorder", sat_id, port, [services[2], services[4]], host="studio-with-a-lo", version=-3))
        for path in [self.directory.satellites, self.directory.registration.parent, self.directory.registration,
                     self.directory.satellites / "Recorder.xml"]:
            self.assertEqual(path.stat().st_mode & 0o7777, 0o775, path)

        self.c.call("RemoveSatellite", record("RECORDER", port, sat_id=sat_id + 1))
        self.assertEqual(self.directory.satellite_files(), ["Recorder"])
        self.assertEqual(self.c.call("RemoveSatellite", record("RECORDER", port, sat_id=sat_id))[0], 0)
        self.assertEqual(self.directory.satellite_files(), [])
        own = self.directory.satellite_file("MainRegister")
        self.assertIn("<service>\n\t\t<name>AddKelUsers</name>", own)
        self.assertEqual(own.count("<service>"), 11)
        self.assertIn(f"\t<port>{self.directory.port}</port>\n", own)

    def test_comes_back_after_a_restart_and_ids_go_on(self):
        ids = {}
        for number in range(50):
            services = [("Common", f"of {number}"), (f"Own{number}", "")] + [("Third", "")] * (number % 3 == 0)
            ids[f"Sat{number}"] = self.c.register(f"Sat{number}", self.endpoint.port, services, host=f"h{number}")
        self.client(self.directory, "Sat1").call("AddServiceAvailabilityListener", ["Third"])
        def look_ups():
            return [self.c.call("GetServiceReg", ["all", service]) for service in ["Common", "Own7", "Third"]]
        answers = look_ups()
        server = REGISTRATION_FILE.fullmatch(self.directory.registration.read_bytes())["server"].decode()
        for _ in range(2):
            files = self.directory.tree()
            self.restart()
            self.assertEqual({name: self.c.id_of(name) for name in ids}, ids)
            self.assertEqual(look_ups(), answers)
            changed = {path for path, text in self.directory.tree().items() if files.get(path) != text}
            self.assertEqual({path.rsplit("/")[-1] for path in changed}, {"MainRegister.xml", "Registration.xml"})
            for name in ["Sat3", "SAT4"]:
                self.assertEqual(self.c.register(name, self.endpoint.port, [("Common", "again")], ids[name.title()]),
                                 ids[name.title()])
            self.assertEqual(self.c.call("Register", record("Sat3", 9))[0], ALREADY_REGISTERED)  # its endpoint lives
            code, (same_server, fresh) = self.c.call("Register", record(f"New{len(ids)}", self.endpoint.port))
            self.assertEqual((code, same_server), (0, server))
            self.assertGreater(fresh, max(ids.values()))
            self.assertEqual(self.directory.last_id(), fresh)
            ids[f"New{len(ids)}"] = fresh
            answers = look_ups()


class ALookUp(WithADirectory):
    def setUp(self):
        super().setUp()
        self.ids = {name: self.c.register(name, self.endpoint.port, [("Play", "by " + name)])
                    for name in ["beta", "Alpha", "delta", "Charlie"]}

    def test_for_all_gives_every_provider_in_the_order_of_names_without_case(self):
        self.assertEqual(self.c.providers("PLAY", "aLL"), ["Alpha", "beta", "Charlie", "delta"])

    def test_for_any_or_no_destination_gives_the_last_provider(self):
        for destination in ["any", "ANY", "", None]:
            self.assertEqual(self.c.providers("Play", destination), ["delta"])
        self.c.call("RemoveSatellite", record("delta", 9, sat_id=self.ids["delta"]))
        self.assertEqual(self.c.providers("Play", "any"), ["Charlie"])
        self.c.call("UnRegister", record("Charlie", 9, [("play", "")], self.ids["Charlie"]))
        self.assertEqual(self.c.providers("Play", "any"), ["beta"])

    def test_for_a_name_gives_that_satellite_only(self):
        self.assertEqual(self.c.providers("Play", "ALPHA"), ["Alpha"])
        self.assertEqual(self.c.providers("Play", "Nobody"), [])
        self.assertEqual(self.c.providers("Register", "MainRegister"), ["MainRegister"])


class ManyClientsAtOnce(WithADirectory):
    def test_leave_the_highest_id_in_the_registration_file_whatever_their_order(self):
        clients = [self.client(self.directory) for _ in range(12)]
        for turn in range(40):
            sent = [(client, client.send("Register", record(f"R{index}-{turn}", self.endpoint.port)))
                    for index, client in enumerate(clients)]
            ids = [client.answer(number)[1][1] for client, number in sent]
            self.assertEqual(self.directory.last_id(), max(ids))


if __name__ == "__main__":
    unittest.main()

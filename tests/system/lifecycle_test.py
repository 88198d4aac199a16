"""The directory as a process: signals, second instances, ports and folders that are not there for it, its log."""
import os
import pathlib
import plistlib
import random
import re
import select
import signal
import socket
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from kel_client import record, wait_until
from kel_daemon import SystemTest, program, satellite_text

FIRST_LINE = "Initializing Kel Directory"
ALREADY = "Initialization of Kel failed because this satellite is already registered."
LINE = re.compile(r"\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3} \[(FATAL|ERROR|NOTE |WARN |INFO |DEBUG)\] - .*")


class AStopSignal(SystemTest):
    def test_during_start_is_kept_until_the_start_is_over(self):
        directory = self.daemon(level=3)
        directory.fill(1500)
        directory.spawn().wait_for("Initialization complete")
        directory.stop()
        whole = directory.current.output_path.stat().st_size
        for number in range(8):
            run = directory.spawn()
            run.wait_for(FIRST_LINE)
            moment = random.randrange(whole)
            wait_until(lambda: run.output_path.stat().st_size >= moment or not run.running(), "the random moment")
            directory.stop(random.choice([signal.SIGTERM, signal.SIGINT]))
            self.assertIn("Initialization complete", run.output())
        self.assertEqual(len(directory.satellite_files()), 1500)
        self.assertFalse((directory.satellites / "MainRegister.xml").exists())

    def test_is_obeyed_with_idle_and_half_finished_connections_open(self):
        directory = self.daemon().start()
        clients = [self.client(directory) for _ in range(40)]
        for client in clients[::2]:
            client.send_raw(client.request("GetSatelliteId", "MainRegister")[1][:9])
        directory.stop()
        for client in clients:
            client.wait_for_the_end()


class ASecondInstance(SystemTest):
    def test_says_that_the_directory_is_registered_already_and_leaves_the_first_alone(self):
        first = self.daemon().start()
        client = self.client(first)
        client.register("Recorder", self.satellite().port)
        elsewhere = self.daemon()
        elsewhere.folder.joinpath("config/com.tessaly.yar.config.plist").write_bytes(
            first.folder.joinpath("config/com.tessaly.yar.config.plist").read_bytes())
        files, own = first.tree(), client.id_of("MainRegister")
        running = first.current
        for daemon in [first, elsewhere]:
            second = daemon.spawn()
            self.assertEqual(second.wait(), 0)
            self.assertRegex(second.output(), r"\[INFO \] - " + re.escape(ALREADY))
            self.assertIn(f"[NOTE ] - A directory answers at port {first.port} of this machine", second.output())
            self.assertNotIn("Initialization complete", second.output())
        self.assertTrue(running.running())
        self.assertEqual((client.id_of("MainRegister"), first.tree()), (own, files))
        running.kill()
        first.start().current.wait_for(f"the last run (process {running.process.pid}, ")


class APortHeldByAnotherProgram(SystemTest):
    def test_is_a_fatal_line_and_status_0(self):
        holders = []
        for behaviour in ["not listening", "silent", "talks nonsense"]:
            directory = self.daemon()
            holder = socket.socket()
            self.addCleanup(holder.close)
            holder.bind(("127.0.0.1", directory.port))
            if behaviour != "not listening":
                holder.listen()
            directory.spawn()
            holders.append((behaviour, directory, holder))
        listener = holders[2][2]
        if select.select([listener], [], [], 30)[0]:
            connection, _ = listener.accept()
            connection.sendall(b"HTTP/1.1 400 Bad Request\r\n\r\n")
            connection.close()
        for behaviour, directory, _ in holders:
            with self.subTest(behaviour):
                self.assertEqual(directory.current.wait(), 0)
                fatal = "- KelDirectory - Initialization of Kel failed: 0x20002\n"
                for text in [directory.current.output(), (directory.logs / "KelDirectory.log").read_text(),
                             (directory.logs / "errors.log").read_text()]:
                    self.assertIn(fatal, text)
                    self.assertNotIn(ALREADY, text)
                self.assertEqual(directory.satellite_files(), [])


class WithoutRightsToItsFolders(SystemTest):
    def works_from_memory(self, directory):
        client, port = self.client(directory), self.satellite().port
        first = client.register("Recorder", port, [("Schedule", "")])
        self.assertGreater(client.register("Player", port, [("Play", "")]), first)
        self.assertEqual((client.id_of("recorder"), client.providers("Play")), (first, ["Player"]))
        self.assertEqual(client.call("UnRegister", record("Player", 9, [("Play", "")], first + 1)), (0, 0))
        self.assertEqual(client.call("RemoveSatellite", record("Recorder", 9, sat_id=first))[0], 0)
        self.assertIsNone(client.id_of("Recorder"))

    def test_the_directory_prints_what_it_could_not_open_then_its_lines_and_works_from_memory(self):
        directory = self.daemon()
        directory.root.rmdir()
        directory.root.write_text("a file where the root should be")
        directory.start()
        self.works_from_memory(directory)
        directory.current.wait_for("Error: could not open error log file")
        directory.stop()
        log = directory.root / "Library/Logs/Tessaly/KelDirectory.log"
        printed = f"Error: could not open log file '{log}': 20\nError: could not open error log file '{log}': 20\n"
        output = directory.current.output()
        self.assertTrue(output.startswith(printed), output)
        self.assertIn(f" [ERROR] - Log: {log} cannot be opened: Not a directory\n", output)
        self.assertIn(" - Kel Directory stopped in order", output)
        self.assertTrue(directory.root.is_file())

    def test_the_directory_logs_that_its_data_folder_is_missing_and_works_from_memory(self):
        directory = self.daemon()
        (directory.root / "Library").mkdir()
        (directory.root / "Library/Tessaly").symlink_to(directory.folder / "nowhere/at all")
        directory.start()
        self.works_from_memory(directory)
        directory.stop()
        for operation in ["CRegistration", "LoadAllSatFiles", "SerializeSatellite", "DeleteSatelliteFile"]:
            line = f"[ERROR] - CRegistration::{operation} data directory not found\n"
            self.assertIn(line, directory.current.output())


class TheLog(SystemTest):
    def log_at(self, level):
        directory = self.daemon(level)
        directory.fill(0)
        directory.start()
        client = self.client(directory)
        client.register("Recorder", self.satellite().port)
        client.call("SetBeRightBackTimer", "soon")
        client.call("GetServiceReg", None)
        directory.stop()
        text = directory.current.output()
        for line in text.splitlines():
            self.assertRegex(line, LINE)
        if text:  # the files are opened for the first line
            self.assertEqual((directory.logs / "KelDirectory.log").read_text(), text)
            self.assertEqual((directory.logs / "errors.log").read_text(), "")
        return text

    def test_holds_the_lines_up_to_its_level(self):
        text = self.log_at(4)
        for line in ["[INFO ] - Initializing Kel Directory", "[INFO ] - Connecting to 127.0.0.1",
                     "[DEBUG] - RegisterServices() Completed", "[INFO ] - Initialization complete",
                     "[DEBUG] - Register returned 0: ", "[INFO ] - SatSetBeRightBack from : Wrong inparams!",
                     "[ERROR] - SatGetService failed: "]:
            self.assertIn(line, text)
        self.assertEqual(set(LINE.match(line)[1] for line in self.log_at(3).splitlines()), {"INFO ", "ERROR", "NOTE "})
        self.assertEqual(set(LINE.match(line)[1] for line in self.log_at(1).splitlines()), {"ERROR", "NOTE "})
        self.assertEqual(self.log_at(0), "")

    def test_turns_over_at_512_kib(self):
        directory = self.daemon()
        directory.start()
        client = self.client(directory)
        for _ in range(60):
            client.call("GetServiceReg", ["x" * 20000, "y" * 1024])
        for _ in range(8000):
            client.send("GetSatelliteId", "Nobody")
        client.call("kel.Describe")
        directory.stop()
        old, new = (directory.logs / name for name in ["KelDirectory.log.back", "KelDirectory.log"])
        self.assertTrue(512 * 1024 <= old.stat().st_size < 512 * 1024 + 20480 * 2, old.stat().st_size)
        self.assertTrue(directory.current.output().endswith(old.read_text() + new.read_text()))


    def test_says_how_it_starts_how_the_last_run_ended_and_that_it_stops(self):
        directory = self.daemon(level=1)
        killed = directory.start().current
        killed.wait_for("no run before this one is known")
        killed.kill()
        directory.fill(2)
        directory.start()
        directory.current.wait_for("2 satellites loaded; the last run")
        for line in [rf"Kel Directory \d\S+ starts as process \d+ .* settings in {directory.folder}",
                     rf"Kel Directory serves at 127\.0\.0\.1:{directory.port}; .* the last run "
                     rf"\(process {killed.process.pid}, started \d.*\) did not end in order"]:
            self.assertRegex(directory.log(), r"\[NOTE \] - " + line)
        directory.stop()
        self.assertRegex(directory.log(), r"Kel Directory stopped in order; 2 satellites stay registered\n$")
        directory.start().current.wait_for("the last run ended in order")


class ABrokenSetting(SystemTest):
    def test_is_said_and_does_not_open_the_directory_to_the_network(self):
        directory = self.daemon(level=1)
        config = directory.folder / "config/com.tessaly.yar.config.plist"
        config.write_bytes(plistlib.dumps({**directory.settings, "kel.bindAddress": 127001, "kel.bindAdress": "::1"}))
        directory.start()
        for name in ["kel.bindAddress is an integer, where a string belongs; listening on 127.0.0.1 only",
                     "kel.bindAdress is no setting of this file; ignored"]:
            directory.current.wait_for(f"[ERROR] - Settings: {config}: {name}\n")
        directory.start_satellites(["Recorder", "Schedule"])
        port = re.search("<port>(.*)</port>", directory.satellite_file("Recorder"))[1]
        for listening in [directory.port, int(port)]:
            socket.create_connection(("127.0.0.1", listening)).close()
            with self.assertRaises(ConnectionRefusedError):
                socket.create_connection(("127.0.0.2", listening))


class TheCommandLine(SystemTest):
    def run_with(self, directory, argument):
        done = subprocess.run([program("KelDirectory"), "ignored", argument], env=directory.environment, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=300)
        return done.returncode, done.stdout

    def test_is_answered_without_a_start(self):
        directory = self.daemon()
        self.assertRegex(self.run_with(directory, "--version")[1], r"^KelDirectory \d+\.\d+\.\d+\n$")
        self.assertIn("kel.bindAddress, a string (0.0.0.0)\n", self.run_with(directory, "--help")[1])
        status, text = self.run_with(directory, "--check")
        self.assertEqual((status, list(directory.root.iterdir())), (0, []), text)

    def test_checks_a_directory_that_runs_and_changes_nothing(self):
        directory = self.daemon().start()
        self.client(directory).register("Recorder", self.satellite().port)
        files = directory.tree()
        status, text = self.run_with(directory, "--check")
        self.assertEqual((status, directory.tree()), (0, files), text)
        self.assertIn(f"a directory answers at 127.0.0.1:{directory.port} already\n", text)

    def test_finds_what_is_wrong(self):
        directory = self.daemon()
        directory.fill(2)
        directory.logs.mkdir(parents=True)
        (directory.logs / "errors.log").symlink_to("/dev/null")
        (directory.folder / "config/com.tessaly.yar.plist").write_text("<plist>")
        (directory.satellites / "Filler1.xml").write_text("")
        (directory.satellites / "A\nB.xml").symlink_to("Filler2.xml")
        (directory.satellites / "Filler3.xml").write_text(satellite_text("Filler3", 3, 1, [("", "has no name")]))
        (directory.registration.parent / "ServiceListeners.xml").write_text("<serviceListener>")
        directory.registration.write_text("<registration>")
        holder = socket.create_server(("127.0.0.1", directory.port))
        self.addCleanup(holder.close)
        files = directory.tree()
        status, text = self.run_with(directory, "--check")
        wrong = [line for line in text.splitlines() if line.startswith("wrong: ")]
        for expected in ["com.tessaly.yar.plist cannot be read: it does not end with", "A\\nB.xml: Too many levels",
                         "Filler1.xml: it is empty", "Filler3.xml: in a service <name> is empty",
                         "Registration.xml: it does not name the last id", "<serviceListener> is not closed",
                         "errors.log: it is a link", f"127.0.0.1:{directory.port}: another program holds the port"]:
            self.assertEqual(sum(expected in line for line in wrong), 1, expected + text)
        self.assertEqual((status, len(wrong), directory.tree()), (1, 8, files))

if __name__ == "__main__":
    unittest.main()

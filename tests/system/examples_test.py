"""The example satellites run for real: a recorder and a player with a directory between them."""
import pathlib
import signal
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from kel_daemon import SystemTest


class TheExamples(SystemTest):
    def setUp(self):
        self.directory = self.daemon().start()
        self.c = self.client(self.directory)

    def test_the_player_finds_the_recorder_and_calls_it_until_it_leaves(self):
        player = self.directory.companion("player")
        player.wait_for('nobody serves "Schedule"')
        recorder = self.directory.companion("recorder")
        player.wait_for('Recorder serves "Schedule": "Evening News" is its recording 1')
        player.wait_for("is its recording 2")
        self.assertIn('Player asks for "Evening News": recording 1', recorder.output())
        self.assertEqual(self.c.providers("Schedule", "any"), ["Recorder"])
        self.assertEqual(recorder.stop(), 0)
        self.assertEqual((self.c.id_of("Recorder"), self.c.providers("Schedule")), (None, []))
        self.assertEqual(self.directory.satellite_files(), [])
        self.assertEqual(player.stop(signal.SIGINT), 0)

    def test_a_host_that_is_none_ends_either_with_the_reason(self):
        for name in ["recorder", "player"]:
            program = self.directory.companion(name, "localhost:five")
            self.assertEqual(program.wait(), 1)
            self.assertIn(f'{name}: Connect: "localhost:five" is not a host', program.output())


if __name__ == "__main__":
    unittest.main()

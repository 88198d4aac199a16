"""Directories that announce themselves, and who finds them, on hosts and networks made for each test."""
import pathlib
import re
import resource
import select
import socket
import struct
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from kel_client import DEADLINE, KelError, ui2, wait_until
from kel_daemon import SystemTest, program
from netns import Lab, require_namespaces

GROUP, PORT = "239.255.255.251", 1901
SEARCH = b"SEARCH 1.0\r\nServer: Yar Kel Directory\r\n\r\n"
IP_PKTINFO = 8
SO_TIMESTAMPNS = 35


class Listener:
    """A plain UDP socket of `host` that has joined the group at its address `at`, and shares the port."""

    def __init__(self, host, at):
        with host:
            self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        for level, option in [(socket.SOL_SOCKET, socket.SO_REUSEADDR), (socket.SOL_SOCKET, socket.SO_REUSEPORT),
                              (socket.SOL_SOCKET, SO_TIMESTAMPNS), (socket.IPPROTO_IP, IP_PKTINFO)]:
            self.socket.setsockopt(level, option, 1)
        self.socket.bind(("", PORT))
        self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                               socket.inet_aton(GROUP) + socket.inet_aton(at))
        self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(at))
        self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 0)
        self.socket.settimeout(DEADLINE)
        self.widest_gap = 0

    def send(self, data, to=GROUP):
        self.socket.sendto(data, (to, PORT))

    def receive(self):
        """(text, sent to, sender, time in seconds)"""
        data, extras, _, sender = self.socket.recvmsg(65536, 256)
        extras = {(level, kind): value for level, kind, value in extras}
        _, _, to = struct.unpack("I4s4s", extras[socket.IPPROTO_IP, IP_PKTINFO])
        seconds, nanoseconds = struct.unpack("qq", extras[socket.SOL_SOCKET, SO_TIMESTAMPNS])
        return data.decode(), socket.inet_ntoa(to), sender, seconds + nanoseconds / 1e9

    def pair(self):
        """A datagram and its copy, as (text, sent to, address of the sender)."""
        text, to, sender, time = self.receive()
        copy, copy_to, copy_sender, copy_time = self.receive()
        assert (text, to, sender) == (copy, copy_to, copy_sender), (text, to, sender, copy, copy_to, copy_sender)
        self.widest_gap = max(self.widest_gap, copy_time - time)  # of one pair the first may have been held up
        assert sender[1] == PORT, sender
        return text, to, sender[0]

    def nothing_waits(self):
        return not select.select([self.socket], [], [], 0)[0]


class OnNetworks(SystemTest):
    def setUp(self):
        self.lab = Lab()
        self.addCleanup(self.lab.close)

    def listener(self, host, at):
        listener = Listener(host, at)
        self.addCleanup(listener.socket.close)
        return listener

    def server_id(self, directory):
        return re.search("<serverId>(.*)</serverId>", directory.registration.read_text())[1]

    def notify(self, directory, aliases, users=""):
        return (f"NOTIFY 1.0\r\nServer: Yar Kel Directory\r\nMax-Version: 2.1\r\nVersion: 2.1\r\n"
                f"ServerID: {self.server_id(directory)}\r\nAliases: {aliases}\r\nPort: {directory.port}\r\n"
                f"Users: {users}\r\n\r\n")


class ADirectoryBetweenTwoNetworks(OnNetworks):
    """The directory's host is 10.77.1.1 on one and 10.77.2.1 on the other; there is one more host on each."""

    def setUp(self):
        super().setUp()
        self.home, self.left, self.right = (self.lab.host(name) for name in ["home", "left", "right"])
        self.lab.network("10.77.1", self.home, self.left)
        self.lab.network("10.77.2", self.home, self.right)
        self.on_left = self.listener(self.left, "10.77.1.2")
        self.on_right = self.listener(self.right, "10.77.2.2")
        self.directory = self.daemon(host=self.home).start()
        # Only now it takes users: it answers calls a moment before it begins to announce itself.
        self.directory.current.wait_for("Initialization complete")

    def test_answers_a_searcher_at_once_and_its_second_search_by_telling_all(self):
        self.on_left.pair()
        self.on_right.pair()
        for foreign in [b"", SEARCH.replace(b"Yar", b"Yet"), b"\xff" * 60000]:
            self.on_left.send(foreign)
        with self.left:
            elsewhere = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)  # at a port of its own
        with elsewhere:
            for _ in range(5):
                elsewhere.sendto(SEARCH, ("10.77.1.1", PORT))
        aliases = "10.77.1.1, 10.77.2.1"
        self.assertEqual(self.on_left.pair(), (self.notify(self.directory, aliases), "10.77.1.2", "10.77.1.1"))
        self.assertEqual(self.on_left.pair(), (self.notify(self.directory, aliases), GROUP, "10.77.1.1"))
        self.assertEqual(self.on_right.pair()[1:], (GROUP, "10.77.2.1"))
        self.on_right.send(SEARCH)
        self.assertEqual(self.on_right.pair()[1:], ("10.77.2.2", "10.77.2.1"))
        self.assertTrue(self.on_left.nothing_waits())
        self.assertGreater(max(self.on_left.widest_gap, self.on_right.widest_gap), 0.009)

    def test_tells_of_each_other_directory_once(self):
        def notify(server_id):
            users = ", ".join(f"[user{number},x,0]" for number in range(300))
            return self.notify(self.directory, "10.77.1.2", users).replace(self.server_id(self.directory), server_id)
        for server_id in ["another", "another", self.server_id(self.directory), "one more", "another", "the last"]:
            self.on_left.send(notify(server_id).encode())
        port = self.directory.port
        self.directory.current.wait_for(f"another directory on the network, the last at 10.77.1.2 port {port}")
        self.assertEqual(self.directory.log().count("another directory on the network"), 3)

    def test_announces_the_users_that_satellites_hand_it(self):
        self.on_left.pair()
        with self.directory.client() as client:
            added = client.call("AddKelUsers", ["bob", ["a,b\\c", "x", True], ["al", "1,2", False, 7]])
            self.assertEqual(added, (0, None))
            users = "[a\\,b\\\\c,x,1], [al,1\\,2,0], [bob,,0]"
            self.assertEqual(self.on_left.pair()[0], self.notify(self.directory, "10.77.1.1, 10.77.2.1", users))
            for bad, problem in [(["never", 5, "late"], "AddKelUsers: invalid user: got 3"),
                                 ("bob", "AddKelUsers: invalid inParam"),
                                 ([["a", "b"]], "AddKelUsers: invalid user")]:
                with self.assertRaises(KelError) as refused:
                    client.call("AddKelUsers", bad)
                self.assertEqual(refused.exception.code, 1)
                self.assertTrue(refused.exception.text.startswith(problem), refused.exception.text)
            with self.assertRaises(KelError):
                client.call("RemoveKelUser", 5)
            for gone in ["bob", "a,b\\c", "nobody"]:
                self.assertEqual(client.call("RemoveKelUser", gone), (0, None))
        self.assertEqual(self.on_left.pair()[0],
                         self.notify(self.directory, "10.77.1.1, 10.77.2.1", "[al,1\\,2,0], [late,,0]"))

    def test_hands_each_asker_the_address_that_it_can_reach(self):
        with self.home:
            local = self.satellite()
        with self.directory.client() as client:
            client.register("Local", local.port, [("Schedule", "")])
        satellites = []
        for host, own, reached in [(self.left, "10.77.1.2", "10.77.1.1"), (self.right, "10.77.2.2", "10.77.2.1")]:
            with host, self.directory.client_at(reached) as client:
                there = self.satellite(None, None, own)
                client.register("At" + own, there.port, [("Schedule", "")])
                satellites.append(own)
                self.assertEqual(client.call("GetSatelliteHost", "Local"), (0, [reached, local.port]))
                self.assertEqual(client.call("GetSatelliteHost", "MainRegister"), (0, [reached, self.directory.port]))
                self.assertEqual(client.call("GetSatelliteHost", "At" + own), (0, [own, there.port]))
                found = client.call("GetServiceReg", ["all", "Schedule"])[1]
                self.assertEqual({entry[2]: entry[3] for entry in found},
                                 {"Local": reached, **{"At" + address: address for address in satellites}})
                self.assertEqual(client.call("GetServiceReg", ["Local", "Schedule"])[1][0][3:5],
                                 [reached, ui2(local.port)])
        for address in ["127.0.0.1", "10.77.1.1", "10.77.2.1"]:  # from the directory's own machine, by whatever way
            with self.home, self.directory.client_at(address) as client:
                expected = "127.0.0.1" if address == "127.0.0.1" else address
                self.assertEqual(client.call("GetSatelliteHost", "Local"), (0, [expected, local.port]))

    def test_heeds_a_change_of_its_networks_at_once_and_goes_by_the_last_it_knows_without_descriptors(self):
        with self.right:
            asking = self.directory.client_at("10.77.2.1")
        with self.home:
            beside, local = self.directory.client_at("10.77.1.1"), self.directory.client_at("127.0.0.1")

        def own_address():
            return asking.call("GetSatelliteHost", "MainRegister")[1][0]
        nearer = ["10.64.0.2/31", "dev", "eth0"]  # 10.77.0.2 has its one-bits; the kernel takes another way there
        with asking, beside, local:
            self.assertEqual(own_address(), "10.77.2.1")
            for _ in range(20):
                self.home.ip("route", "add", *nearer)
                self.assertEqual(own_address(), "10.77.1.1")
                self.home.ip("link", "set", "eth0", "down")  # takes the route away without saying so
                self.assertEqual(own_address(), "10.77.2.1")
                self.home.ip("link", "set", "eth0", "up")
            process = self.directory.current.process.pid
            _, most = resource.prlimit(process, resource.RLIMIT_NOFILE)
            resource.prlimit(process, resource.RLIMIT_NOFILE, (3, most))
            self.home.ip("route", "add", *nearer)
            self.assertEqual(own_address(), "10.77.2.1")
            beside.register("Local", 4711)
            self.assertEqual(local.call("GetSatelliteHost", "Local"), (0, ["127.0.0.1", 4711]))
            resource.prlimit(process, resource.RLIMIT_NOFILE, (most, most))
            self.assertEqual(own_address(), "10.77.1.1")

    def test_is_found_by_several_on_one_machine_also_beside_it_and_lost_when_it_leaves(self):
        with self.directory.client() as client:
            client.call("AddKelUsers", [["al", "x", True]])
        server = self.server_id(self.directory)
        watchers = {host: [self.directory.companion("network_probe", "find", host=host) for _ in range(2)]
                    for host in [self.home, self.left, self.right]}
        port = f"port {self.directory.port}"
        lines = {self.left: f"{server} at 10.77.1.1 10.77.2.1 {port} from 10.77.1.1 on 10.77.1.2 users al=x/1.",
                 self.right: f"{server} at 10.77.2.1 10.77.1.1 {port} from 10.77.2.1 on 10.77.2.2 users al=x/1.",
                 self.home: f"{port} from 10.77."}
        for host, programs in watchers.items():
            for program in programs:
                program.wait_for(lines[host])
        self.directory.stop()
        for program in sum(watchers.values(), []):
            program.wait_for("found 0\n")
            program.kill()


class AHostWithoutANetwork(OnNetworks):
    def test_runs_a_silent_directory_that_speaks_up_when_a_network_appears(self):
        home, other = self.lab.host("home"), self.lab.host("other")
        directory = self.daemon(host=home).start()
        directory.current.wait_for("Initialization complete")
        with home:
            asking = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        with asking:
            asking.sendto(SEARCH, ("127.0.0.1", PORT))
        # A change of users brings the next announcement forward, and with it the look for interfaces.
        with directory.client() as client:
            client.call("AddKelUsers", ["al"])
        watcher = directory.companion("network_probe", "find", host=other)
        watcher.wait_for("no network to search")
        player = directory.companion("player", "auto", host=other)
        self.assertEqual(player.wait(), 1)
        local = directory.companion("player", "auto")  # finds the one beside it all the same
        local.wait_for("nobody serves")
        self.assertEqual(home.udp_sent(), 1, "the search above is all that was sent")

        self.lab.network("10.77.3", home, other)
        watcher.wait_for(f"at 10.77.3.1 port {directory.port} from 10.77.3.1 on 10.77.3.2 users al=/0.")
        watcher.kill()
        directory.stop()


class AHostWhoseInterfacesComeAndGo(OnNetworks):
    def test_hears_searches_on_the_new_ones_when_the_system_allows_no_more_memberships(self):
        home, other = self.lab.host("home"), self.lab.host("other")
        home.run("sysctl", "-w", "net.ipv4.igmp_max_memberships=1")
        directory = self.daemon(host=home).start()
        directory.current.wait_for("Initialization complete")
        # The last two have the same address: an interface that comes back is another one.
        for prefix, interface in [("10.77.1", "eth0"), ("10.77.2", "eth1"), ("10.77.2", "eth2")]:
            self.lab.network(prefix, home, other)
            listener = self.listener(other, f"{prefix}.2")
            with directory.client() as client:  # brings the next announcement forward
                client.call("AddKelUsers", ["al"])
            self.assertEqual(listener.pair()[1], GROUP)
            listener.send(SEARCH)
            self.assertEqual(listener.pair()[1:], (f"{prefix}.2", f"{prefix}.1"), interface)
            listener.socket.close()
            if interface == "eth1":
                for host in [home, other]:
                    host.ip("link", "delete", interface)

    def test_hears_searches_once_the_program_that_has_the_port_gives_it_up(self):
        home, other = self.lab.host("home"), self.lab.host("other")
        self.lab.network("10.77.1", home, other)
        with home:
            holder = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        with holder:
            holder.bind(("", PORT))
            directory = self.daemon(level=1, host=home).start()
            directory.current.wait_for("cannot be searched for, on UDP port 1901: Address already in use")
        with directory.client() as client:  # brings the next announcement forward, and with it the next try
            client.call("AddKelUsers", ["al"])
        directory.current.wait_for("searches reach the directory from here on")
        listener = self.listener(other, "10.77.1.2")

        def is_answered():  # whoever has just heard an announcement is not
            listener.send(SEARCH)
            return select.select([listener.socket], [], [], 1)[0] and listener.receive()[1] == "10.77.1.2"
        wait_until(is_answered, "a search to be answered")


class ANetworkWithSeveralDirectories(OnNetworks):
    def test_has_all_of_them_found_also_two_on_one_host(self):
        hosts = [self.lab.host(f"h{number}") for number in range(3)]
        self.lab.network("10.77.4", *hosts)
        directories = [self.daemon(host=host).start() for host in [hosts[0], hosts[0], hosts[1]]]
        watcher = directories[0].companion("network_probe", "find", host=hosts[2])
        for directory in directories:
            watcher.wait_for(f"port {directory.port} from")
        watcher.wait_for("found 3\n")
        directories[2].stop()
        watcher.wait_for("found 2\n")
        watcher.kill()

    def test_has_a_satellite_pass_over_those_that_cannot_be_reached_or_only_claim_to_be_one(self):
        home, liar, asking = (self.lab.host(name) for name in ["home", "liar", "asking"])
        self.lab.network("10.77.5", home, liar, asking)
        lies = self.listener(liar, "10.77.5.2")
        with liar:
            silent = socket.create_server(("10.77.5.2", 7777))
        self.addCleanup(silent.close)
        silent.settimeout(0.1)
        directory = self.daemon(host=home)
        players = [directory.companion("player", "auto", host=asking)]

        def lie():
            for number, aliases, port in [(0, "10.77.5.99", 9), (1, "10.77.5.2", 7777), (2, "10.77.5.2", 9),
                                            (3, "127.0.0.1", 1)]:
                lies.send(f"NOTIFY 1.0\r\nServer: Yar Kel Directory\r\nServerID: lie{number}\r\nAliases: {aliases}\r\n"
                          f"Port: {port}\r\nUsers: \r\n\r\n".encode())

        def lie_was_tried():
            lie()
            try:
                silent.accept()[0].close()
                return True
            except TimeoutError:
                return False

        def found():
            lie()
            if not players[-1].running():  # a search lasts for some seconds only
                players.append(directory.companion("player", "auto", host=asking))
            return "nobody serves" in players[-1].output()
        wait_until(lie_was_tried, "the player to try one of them")
        directory.start()
        wait_until(found, "the player to connect to the directory that there is")


class ASatelliteThatWasToldNoAddress(OnNetworks):
    def test_moves_to_its_own_machines_directory_when_there_is_one_and_to_a_neighbours_when_that_has_ended(self):
        studio, desk = self.lab.host("studio"), self.lab.host("desk")
        self.lab.network("10.77.6", studio, desk)
        neighbours, own = self.daemon(host=studio).start(), self.daemon(host=desk)
        recorder, = own.start_satellites(("Recorder", "Tune"), directory="auto", host=desk)
        self.assertEqual(recorder.tell("listen", "News"), 0)
        player = own.companion("player", "auto", host=desk)

        def hears_at(directory, of):
            with directory.client() as client:  # nobody answers for it: it goes again, perhaps before anybody listens
                client.register(of, 4711, [("News", "")])
            return ("News", of, 1) in recorder.events("News")

        def is_only_at(directory, other=None):
            with directory.client() as client:
                if client.id_of("Recorder") is None or client.providers("Tune") != ["Recorder"]:
                    return False
            if other:
                with other.client() as client:
                    return client.id_of("Recorder") is None
            return True
        self.assertTrue(is_only_at(neighbours))
        wait_until(lambda: hears_at(neighbours, "NeighboursProvider"), "the satellite to hear of what it listens for")
        own.start()
        wait_until(lambda: is_only_at(own, neighbours), "the satellite to move to its own machine's directory", 180)
        wait_until(lambda: hears_at(own, "OwnProvider"), "the satellite to hear of it there as well")
        own.stop()
        wait_until(lambda: is_only_at(neighbours), "the satellite to move to the neighbour's", 180)
        wait_until(lambda: recorder.standings() == [0, 1, 0, 1], "the satellite to hear of both moves")
        heard = player.output().count("nobody serves")
        wait_until(lambda: player.output().count("nobody serves") > heard, "the player to ask there", 180)


class TheChoiceOfAnAddress(OnNetworks):
    def chosen(self, host, *destinations):
        """The local address that the directory would take to each destination."""
        lines = host.run(self.probe, "routes", *destinations).splitlines()
        return {words[0]: None if words[1] == "none" else words[1] for words in map(str.split, lines)}

    def setUp(self):
        super().setUp()
        self.probe = program("network_probe")

    def check_as_the_kernel(self, host, *destinations):
        self.assertEqual(self.chosen(host, *destinations),
                         {destination: host.kernels_choice(destination) for destination in destinations})

    def test_is_the_kernels_on_machines_with_one_and_two_networks(self):
        one, two, router = (self.lab.host(name) for name in ["one", "two", "router"])
        self.lab.network("10.78.1", router, two, one)
        self.lab.network("192.168.50", router, two, first=20)
        for host in [one, two]:
            self.check_as_the_kernel(host, "10.78.1.1", "127.0.0.1", "127.3.2.1", "8.8.8.8", "172.16.0.1")
        one.ip("route", "add", "default", "via", "10.78.1.1")
        two.ip("route", "add", "default", "via", "192.168.50.20")
        two.ip("route", "add", "172.16.0.0/12", "via", "10.78.1.1")
        for host in [one, two]:
            self.check_as_the_kernel(host, "10.78.1.1", "10.78.1.200", "127.0.0.1", "8.8.8.8", "172.16.0.1",
                                     "172.17.9.9", "192.168.50.77", "192.168.51.1", "1.1.1.1")
        two.ip("address", "delete", "10.78.1.2/24", "dev", "eth0")
        two.ip("address", "add", "10.78.1.7/24", "label", "eth0:vip", "dev", "eth0")  # its only address has a label
        self.check_as_the_kernel(two, "10.78.1.1", "8.8.8.8")
        self.assertEqual(two.run(self.probe, "routes", "10.78.1.1"), "10.78.1.1 10.78.1.7 255.255.255.0\n")

    def test_takes_the_lower_priority_of_two_default_routes_as_the_kernel_does(self):
        host, router = self.lab.host("host"), self.lab.host("router")
        self.lab.network("10.78.1", host, router)
        self.lab.network("10.78.2", host, router)
        for network, metric in [(1, 200), (2, 100)]:
            host.ip("route", "add", "default", "via", f"10.78.{network}.2", "metric", metric)
        self.assertEqual(self.chosen(host, "8.8.8.8"), {"8.8.8.8": "10.78.2.1"})
        self.check_as_the_kernel(host, "8.8.8.8", "10.78.1.9")
        host.ip("link", "set", "eth1", "down")
        self.assertEqual(self.chosen(host, "8.8.8.8"), {"8.8.8.8": "10.78.1.1"})

    def test_knows_every_route_to_a_network_and_the_hop_that_is_alive(self):
        host, router = self.lab.host("host"), self.lab.host("router")
        self.lab.network("10.78.1", host, router)
        self.lab.network("10.78.2", host, router)
        host.ip("route", "add", "192.0.2.0/24", "via", "10.78.1.2", "hoplimit", 64)
        host.ip("route", "append", "192.0.2.0/24", "via", "10.78.2.2")
        host.ip("route", "add", "198.51.100.0/24", "nexthop", "via", "10.78.1.2", "nexthop", "via", "10.78.2.2")
        host.ip("route", "add", "203.0.113.7/32", "via", "10.78.2.2")  # those to one host do not count
        host.ip("address", "add", "10.78.9.1/24", "dev", "eth1")  # the interface's first address stands for it
        self.assertEqual(self.chosen(host, "192.0.2.9", "198.51.100.5", "203.0.113.7", "10.78.9.5"),
                         {"192.0.2.9": "10.78.2.1", "198.51.100.5": "10.78.1.1", "203.0.113.7": None,
                          "10.78.9.5": "10.78.2.1"})
        host.ip("link", "set", "eth0", "down")
        self.assertEqual(self.chosen(host, "198.51.100.5"), {"198.51.100.5": "10.78.2.1"})


if __name__ == "__main__":
    require_namespaces()
    unittest.main()

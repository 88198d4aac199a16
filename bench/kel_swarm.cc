// kel_swarm: one process and one thread that stand for many satellites, each with a port of its own. It answers pings
// with bytes that it puts together itself, so that what it adds to a measurement is little and always the same.
#include "LoadClient.h"
#include "Requests.h"
#include "Support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace kel::bench;

constexpr const char* usage =
    "usage: kel_swarm FIRST COUNT\n"
    "\n"
    "Stands for COUNT satellites, numbered from FIRST on, that publish one service each, and prints their ports in "
    "one\n"
    "line. Then it obeys the lines of its standard input, each of which it answers with a line, and ends with them.\n"
    "\n"
    "  register PORT  registers them with the directory on PORT, whose last id must be above 65,535: all of its "
    "answers\n"
    "                 are to be as long\n"
    "  clear          begins counting pings anew\n"
    "  passes         for the first, second, ... ping that the satellites had: how many had it, when the first of "
    "them\n"
    "                 came and when the last of them was answered\n"
    "  notices COUNT  begins counting OnServiceAvailabilityChanged anew; with the COUNTth comes a further line, its "
    "time\n"
    "\n"
    "Times are nanoseconds of the monotonic clock.\n";

constexpr uint16_t firstPort = 10'000;
constexpr size_t maxPasses = 1'000;  // that are counted; more have no reader
constexpr unsigned registeringConnections = 8;
constexpr size_t registeringPortion = 200;  // between looks at who pings

int64_t Now() { return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count(); }

// --- MessagePack, as far as directories use it towards satellites --------------------------------------------------

// The length of the value at the front of `bytes`; 0 when its end is not there yet. What no directory sends counts as
// one value.
size_t LengthOfValue(std::string_view bytes) {
    size_t place = 0;
    for (size_t missing = 1; missing > 0; --missing) {
        const auto at = [&](size_t offset) {
            return place + offset < bytes.size() ? static_cast<unsigned char>(bytes[place + offset]) : size_t{0};
        };
        if (place >= bytes.size()) return 0;
        const size_t type = at(0);
        size_t length = 1;
        if (type >= 0x90 && type <= 0x9f) missing += type & 0x0f;
        else if (type >= 0xa0 && type <= 0xbf) length += type & 0x1f;
        else if (type == 0xd9) length += 1 + at(1);
        else if (type == 0xda) length += 2 + (at(1) << 8 | at(2));
        else if (type >= 0xcc && type <= 0xcf) length += size_t{1} << (type - 0xcc);
        else if (type >= 0xd0 && type <= 0xd3) length += size_t{1} << (type - 0xd0);
        else if (type > 0x7f && type < 0xe0 && type != 0xc0 && type != 0xc2 && type != 0xc3) return bytes.size();
        place += length;
    }
    return place <= bytes.size() ? place : 0;
}

constexpr std::string_view requestStart("\x94\x00", 2);
constexpr std::string_view pingName = "\xa8kel.Ping";
constexpr std::string_view noticeStart = "\x93\x02\xbcOnServiceAvailabilityChanged";
constexpr std::string_view responseStart = "\x94\x01";
constexpr std::string_view aliveEnd("\xc0\x92\x00\x01", 4);  // no error, result 0, alive

// The answer to a ping; empty when the message is something else.
std::string AnswerToPing(std::string_view message) {
    if (!message.starts_with(requestStart)) return {};
    message.remove_prefix(requestStart.size());
    const std::string_view id = message.substr(0, LengthOfValue(message));
    if (!message.substr(id.size()).starts_with(pingName)) return {};
    return std::string(responseStart).append(id).append(aliveEnd);
}

// --- The satellites ------------------------------------------------------------------------------------------------

// The first port that the system never gives to those who ask for any: what takes those below disturbs nobody.
uint16_t EndOfFixedPorts() {
    std::ifstream range("/proc/sys/net/ipv4/ip_local_port_range");
    unsigned first = 0;
    return static_cast<uint16_t>(range >> first ? first : 32'768);
}

class Ports {
public:
    // A listener on a port that was free, and that port.
    std::pair<int, uint16_t> Listen() {
        while (next_ < end_) {
            const uint16_t port = next_++;
            if (const int listener = TryToListen(port); listener >= 0) return {listener, port};
        }
        const int listener = TryToListen(0);
        sockaddr_in address{};
        socklen_t length = sizeof address;
        if (listener < 0 || ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            FailWithErrno("no port for a satellite");
        return {listener, ntohs(address.sin_port)};
    }

private:
    static int TryToListen(uint16_t port) {
        const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (listener < 0) FailWithErrno("socket");
        const int on = 1;
        ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            ::listen(listener, SOMAXCONN) == 0)
            return listener;
        if (errno != EADDRINUSE) FailWithErrno("a satellite's port");
        ::close(listener);
        return -1;
    }

    uint16_t next_ = firstPort;
    uint16_t end_ = EndOfFixedPorts();
};

class Swarm {
public:
    Swarm(unsigned first, unsigned count) : epoll_(::epoll_create1(EPOLL_CLOEXEC)), pings_(count) {
        Ports ports;
        for (unsigned i = 0; i < count; ++i) {
            const auto [listener, port] = ports.Listen();
            satellites_.push_back(SatelliteNumber(first + i, port));
            Watch(listener, {Socket::Kind::listener, i, {}});
        }
        Watch(STDIN_FILENO, {Socket::Kind::commands, 0, {}});
        for (const Satellite& satellite : satellites_) std::printf("%u ", satellite.port);
        Reply("");
    }

    // Until the commands end.
    void Run() {
        while (!done_) ServeReady(-1);
    }

private:
    struct Socket {
        enum class Kind { none, commands, listener, connection } kind = Kind::none;
        unsigned satellite = 0;
        std::string unread;  // the start of a message or line
    };
    struct Pass {
        unsigned pings = 0;
        int64_t first = 0;
        int64_t last = 0;
    };

    static void Reply(const std::string& line) {
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
    }

    void Watch(int descriptor, Socket socket) {
        if (sockets_.size() <= static_cast<size_t>(descriptor)) sockets_.resize(static_cast<size_t>(descriptor) + 1);
        sockets_[static_cast<size_t>(descriptor)] = std::move(socket);
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = descriptor;
        if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) FailWithErrno("epoll_ctl");
    }

    void Close(int descriptor) {
        ::close(descriptor);
        sockets_[static_cast<size_t>(descriptor)] = {};
    }

    // Serves those that have something to say, for the first of which it waits so many milliseconds; -1 is for ever.
    // False when there were none.
    bool ServeReady(int milliseconds) {
        std::array<epoll_event, 256> events;
        const int count = ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), milliseconds);
        if (count < 0 && errno != EINTR) FailWithErrno("epoll_wait");
        for (int i = 0; i < count; ++i) Serve(events[static_cast<size_t>(i)].data.fd);
        return count > 0;
    }

    void Serve(int descriptor) {
        switch (sockets_[static_cast<size_t>(descriptor)].kind) {
            case Socket::Kind::none:  // closed while its event waited
                return;
            case Socket::Kind::listener:
                return Accept(descriptor);
            case Socket::Kind::commands:
            case Socket::Kind::connection:
                return Read(descriptor);
        }
    }

    void Accept(int listener) {
        const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (connection < 0) {
            if (errno == EAGAIN || errno == ECONNABORTED) return;
            FailWithErrno("accept");
        }
        const int on = 1;
        ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        Watch(connection, {Socket::Kind::connection, sockets_[static_cast<size_t>(listener)].satellite, {}});
    }

    void Read(int descriptor) {
        const ssize_t size = ::read(descriptor, buffer_.data(), buffer_.size());
        Socket& socket = sockets_[static_cast<size_t>(descriptor)];
        const bool commands = socket.kind == Socket::Kind::commands;
        if (size < 0 && errno == EAGAIN) return;  // the event was that of a connection before, with the same descriptor
        if (size <= 0) {
            done_ = commands;
            return Close(descriptor);
        }
        socket.unread.append(buffer_.data(), static_cast<size_t>(size));
        const std::string unread = std::move(socket.unread);  // a command may close or move sockets
        const unsigned satellite = socket.satellite;
        std::string_view rest = unread;
        while (const size_t length = commands ? rest.find('\n') + 1 : LengthOfValue(rest)) {
            if (commands) Obey(std::string(rest.substr(0, length)));
            else Handle(descriptor, satellite, rest.substr(0, length));
            rest.remove_prefix(length);
            if (sockets_[static_cast<size_t>(descriptor)].kind == Socket::Kind::none) return;
        }
        sockets_[static_cast<size_t>(descriptor)].unread = rest;
    }

    void Handle(int descriptor, unsigned satellite, std::string_view message) {
        if (message.starts_with(noticeStart)) return CountNotice();
        const int64_t arrival = Now();
        const std::string answer = AnswerToPing(message);
        if (answer.empty()) return Close(descriptor);  // no directory: somebody who tries ports
        // A sender that has gone meanwhile is found out by the next read.
        if (::send(descriptor, answer.data(), answer.size(), MSG_NOSIGNAL) > 0) CountPing(satellite, arrival);
    }

    void CountPing(unsigned satellite, int64_t arrival) {
        const size_t number = pings_[satellite]++;
        if (number >= maxPasses) return;
        if (passes_.size() <= number) passes_.push_back({0, arrival, 0});
        ++passes_[number].pings;
        passes_[number].last = Now();
    }

    void CountNotice() {
        if (++notices_ == noticesExpected_) Reply(std::to_string(Now()));
    }

    void Obey(const std::string& line) {
        std::istringstream words(line);
        std::string command;
        unsigned number = 0;
        words >> command >> number;
        if (command == "register") return Register(static_cast<uint16_t>(number));
        if (command == "clear") {
            passes_.clear();
            std::fill(pings_.begin(), pings_.end(), 0);
            return Reply("cleared");
        }
        if (command == "passes") return ReplyPasses();
        if (command == "notices") {
            notices_ = 0;
            noticesExpected_ = number;
            return Reply("counting");
        }
        Reply("unknown command");
    }

    // A directory may begin to ping those that it knows already, and takes those for dead who do not answer in time.
    void Register(uint16_t port) {
        const Exchange example = LearnRegister(port, satellites_.front());
        LoadClient client(port, registeringConnections);
        const std::span all(satellites_);
        for (size_t first = 1; first < all.size(); first += registeringPortion) {
            const size_t count = std::min(registeringPortion, all.size() - first);
            client.RunOnce(Registrations(example, all.subspan(first, count)));
            while (ServeReady(0)) {
            }
        }
        Reply("registered");
    }

    void ReplyPasses() {
        std::ostringstream line;
        for (const Pass& pass : passes_) line << pass.pings << ' ' << pass.first << ' ' << pass.last << ' ';
        Reply(line.str());
    }

    Descriptor epoll_;
    std::vector<Satellite> satellites_;
    std::vector<Socket> sockets_;  // by descriptor
    std::array<char, 65536> buffer_;
    bool done_ = false;

    std::vector<unsigned> pings_;  // of each satellite, since the last clear
    std::vector<Pass> passes_;
    unsigned notices_ = 0;
    unsigned noticesExpected_ = 0;
};

}  // namespace

int main(int count, char** values) {
    if (count != 3) {
        const bool asked = count == 2 && std::string_view(values[1]) == "--help";
        std::fputs(usage, asked ? stdout : stderr);
        return asked ? 0 : 2;
    }
    try {
        RaiseDescriptorLimit();
        Swarm(static_cast<unsigned>(std::stoul(values[1])), static_cast<unsigned>(std::stoul(values[2]))).Run();
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kel_swarm: %s\n", failure.what());
        return 1;
    }
}

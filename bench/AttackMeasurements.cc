// What somebody who only wants an answer notices of those who want many, or who want that nobody gets one.
#include "Measurements.h"

#include "Requests.h"

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <exception>
#include <future>
#include <thread>

namespace kel::bench {
namespace {

constexpr unsigned heldNames = 600;
constexpr auto betweenCalls = std::chrono::milliseconds(1);
constexpr double slowdownGoal = 3;
constexpr unsigned greedyCalls = 1'024;  // in flight on one connection
constexpr unsigned modestConnections = 16;
constexpr auto headStart = std::chrono::milliseconds(100);
constexpr double attackDeadline = 60;

// A port of the loopback interface at which connections are taken and nothing is ever answered.
class SilentPort {
public:
    SilentPort() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        const auto raw = reinterpret_cast<sockaddr*>(&address);
        if (::bind(socket_.get(), raw, length) != 0 || ::listen(socket_.get(), 128) != 0) FailWithErrno("listen");
        ::getsockname(socket_.get(), raw, &length);
        number_ = ntohs(address.sin_port);
    }

    uint16_t number() const { return number_; }

private:
    Descriptor socket_;
    uint16_t number_;
};

// Registers names that lead to a silent port, each on a connection of its own and again as soon as it is answered.
class HeldNames {
public:
    HeldNames(uint16_t directory, unsigned count) : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
        for (unsigned i = 0; i < count; ++i) {
            connections_.push_back(ConnectToLoopback(directory));
            requests_.push_back(RegisterRequest(SatelliteNumber(i, port_.number())));
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.u32 = i;
            if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, connections_.back().get(), &event) != 0)
                FailWithErrno("epoll_ctl");
        }
        thread_ = std::thread([this] { Run(); });
    }
    ~HeldNames() {
        stopping_ = true;
        thread_.join();
    }
    HeldNames(const HeldNames&) = delete;
    HeldNames& operator=(const HeldNames&) = delete;

    // Returns when every name is there and registered once more.
    void AwaitAll() const {
        const auto start = Clock::now();
        while (answers_ < connections_.size()) {
            ThrowIfInterrupted();
            if (SecondsSince(start) > attackDeadline) throw std::runtime_error("the names cannot be registered");
            std::this_thread::sleep_for(betweenCalls);
        }
    }

private:
    void Send(unsigned number) const {
        ::send(connections_[number].get(), requests_[number].data(), requests_[number].size(), MSG_NOSIGNAL);
    }

    void Run() {
        for (unsigned i = 0; i < connections_.size(); ++i) Send(i);
        std::array<epoll_event, 64> events{};
        std::array<char, 4096> answer{};
        while (!stopping_) {
            const int count = ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), 50);
            for (int i = 0; i < count; ++i) {
                const unsigned number = events[static_cast<size_t>(i)].data.u32;
                if (::recv(connections_[number].get(), answer.data(), answer.size(), 0) <= 0) return;
                ++answers_;
                Send(number);
            }
        }
    }

    SilentPort port_;
    Descriptor epoll_;
    std::vector<Descriptor> connections_;
    std::vector<std::string> requests_;
    std::atomic<uint64_t> answers_{0};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

// One call a millisecond. Of the times until their answers, the one that only a hundredth exceeds; a call that was due
// while another one was not answered has waited since then.
double SlowestButOnePercent(uint16_t port, double seconds) {
    const Descriptor connection = ConnectToLoopback(port);
    const std::string request = SatelliteIdRequest("MainRegister");
    std::vector<double> times;
    const auto start = Clock::now();
    for (auto due = start; SecondsSince(start) < seconds; due += betweenCalls) {
        ThrowIfInterrupted();
        std::this_thread::sleep_until(due);
        const auto sent = Clock::now();
        if (AskOn(connection, request).result != 0) throw std::runtime_error("GetSatelliteId fails");
        times.push_back(SecondsSince(sent - due > betweenCalls ? due : sent));
    }
    const auto place = times.begin() + static_cast<std::ptrdiff_t>(times.size() * 99 / 100);
    std::nth_element(times.begin(), place, times.end());
    return *place;
}

// The same while another client makes all the calls that it can.
double SlowestBeside(LoadClient& client, uint16_t port, double seconds) {
    const Exchange exchange = Learn(port, SatelliteIdRequest("MainRegister"));
    const double longer = seconds + 2 * std::chrono::duration<double>(headStart).count();
    auto load = std::async(std::launch::async, [&] { return client.RunFor({&exchange, 1}, longer); });
    std::this_thread::sleep_for(headStart);
    const double slowest = SlowestButOnePercent(port, seconds);
    load.get();
    return slowest;
}

}  // namespace

std::vector<Row> Measurements::Fairness() {
    Announce("GetSatelliteId while others call as much as they can");
    DirectoryProcess directory(program_, Folder("fair"));
    directory.Start();
    LoadClient greedy(directory.port(), 1, greedyCalls), modest(directory.port(), modestConnections);
    const double seconds = effort_.fairSeconds;
    const auto times =
        InTurn(effort_.fileRounds, {[&](unsigned) { return SlowestBeside(greedy, directory.port(), seconds); },
                                    [&](unsigned) { return SlowestBeside(modest, directory.port(), seconds); }});
    return {RowOfTimes("99 of 100 GetSatelliteId, beside 1 x 1024", {times[0], times[1]}, slowdownGoal)};
}

std::vector<Row> Measurements::Attack() {
    Announce("GetSatelliteId while others register names that lead nowhere");
    DirectoryProcess directory(program_, Folder("attack"));
    directory.Start();
    const double seconds = effort_.attackSeconds;
    const double quiet = SlowestButOnePercent(directory.port(), seconds);
    const HeldNames names(directory.port(), heldNames);
    names.AwaitAll();
    const double attacked = SlowestButOnePercent(directory.port(), seconds);
    return {RowOfTimes("99 of 100 GetSatelliteId, 600 names held", {{attacked}, {quiet}}, slowdownGoal)};
}

}  // namespace kel::bench

#include "SwarmProcess.h"

#include "LoadClient.h"
#include "Requests.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <sstream>

namespace kel::bench {
namespace {

constexpr unsigned descriptorsForSatellite = 3;  // its port, the directory's connection, the baseline's for a moment
constexpr unsigned descriptorsToSpare = 100;

std::vector<std::string> SwarmCommand(unsigned first, unsigned count) {
    const auto program = std::filesystem::read_symlink("/proc/self/exe").replace_filename("kel_swarm");
    return {program.string(), std::to_string(first), std::to_string(count)};
}

unsigned LargestSwarm() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) FailWithErrno("getrlimit");
    const rlim_t descriptors = std::min<rlim_t>(limit.rlim_max, 1'000'000);
    return static_cast<unsigned>((std::max<rlim_t>(descriptors, 1'000) - descriptorsToSpare) / descriptorsForSatellite);
}

double CpuSeconds() {
    timespec used{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

struct Target {
    uint16_t port;
    std::string request;
    std::string answer;
};

std::vector<Target> ReadTargets() {
    std::string line;
    std::getline(std::cin, line);
    std::istringstream words(line);
    std::vector<Target> targets;
    unsigned port = 0;
    for (int number = 0; words >> port; ++number) {
        const int id = firstId + number;
        const std::string name = SatelliteNumber(static_cast<unsigned>(number), 0).name;
        targets.push_back({static_cast<uint16_t>(port), PingRequest(name, id), AliveAnswer()});
    }
    return targets;
}

void AskTarget(Target& target) {
    const Descriptor connection = ConnectToLoopback(target.port);
    const int socket = connection.get();
    if (socket < 0) throw std::runtime_error("a satellite's port is closed");
    const std::string& request = target.request;
    if (::send(socket, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()))
        FailWithErrno("send");
    char answer[64];
    const ssize_t size = ::recv(socket, answer, sizeof answer, 0);
    if (size < 0 || std::string_view(answer, static_cast<size_t>(size)) != target.answer)
        throw std::runtime_error("a satellite gave another answer than that it is alive");
}

}  // namespace

Clock::time_point TimeOf(int64_t nanoseconds) { return Clock::time_point(std::chrono::nanoseconds(nanoseconds)); }

Swarm::Swarm(unsigned first, unsigned count) : process_(SwarmCommand(first, count), ChildProcess::Output::toReadLine) {
    std::istringstream ports(process_.ReadLine());
    for (unsigned port = 0; ports >> port;) {
        satellites_.push_back(
            SatelliteNumber(first + static_cast<unsigned>(satellites_.size()), static_cast<unsigned short>(port)));
    }
}

std::string Swarm::Obey(const std::string& command) {
    process_.WriteLine(command);
    return process_.ReadLine();
}

void Swarm::Register(uint16_t port) { Obey("register " + std::to_string(port)); }

std::vector<Swarm::Pass> Swarm::Passes() {
    std::istringstream words(Obey("passes"));
    std::vector<Pass> passes;
    int64_t first = 0, last = 0;
    for (unsigned pings = 0; words >> pings >> first >> last;) passes.push_back({pings, TimeOf(first), TimeOf(last)});
    return passes;
}

void Swarm::ForgetPings() { Obey("clear"); }

void Swarm::ExpectNotices(unsigned count) { Obey("notices " + std::to_string(count)); }

Clock::time_point Swarm::AwaitNotices() { return TimeOf(std::stoll(process_.ReadLine())); }

Crowd::Crowd(unsigned ofFirst, unsigned ofAll) : size_(ofAll) {
    swarms_.emplace_back(0u, ofFirst);
    const unsigned others = (ofAll - ofFirst + LargestSwarm() - 1) / LargestSwarm();
    unsigned first = ofFirst;
    for (unsigned left = others; left > 0; --left) {
        const unsigned count = (ofAll - first) / left;
        swarms_.emplace_back(first, count);
        first += count;
    }
}

std::vector<Satellite> Crowd::Satellites() const {
    std::vector<Satellite> all;
    for (const Swarm& swarm : swarms_) all.insert(all.end(), swarm.satellites().begin(), swarm.satellites().end());
    return all;
}

void Crowd::Register(uint16_t port) {
    for (Swarm& swarm : swarms_) swarm.Register(port);
}

void Crowd::ForgetPings() {
    for (Swarm& swarm : Living()) swarm.ForgetPings();
}

void Crowd::KillFirst() {
    swarms_.front().Kill();
    size_ -= static_cast<unsigned>(swarms_.front().satellites().size());
    firstDied_ = true;
}

Clock::time_point Crowd::LastPing() {
    Clock::time_point last;
    for (Swarm& swarm : Living()) {
        for (const Swarm::Pass& pass : swarm.Passes()) last = std::max(last, pass.last);
    }
    return last;
}

Swarm::Pass Crowd::PassOfNumber(size_t number) {
    Swarm::Pass all{0, Clock::time_point::max(), Clock::time_point::min()};
    for (Swarm& swarm : Living()) {
        const std::vector<Swarm::Pass> passes = swarm.Passes();
        if (passes.size() <= number) continue;
        all.pings += passes[number].pings;
        all.first = std::min(all.first, passes[number].first);
        all.last = std::max(all.last, passes[number].last);
    }
    return all;
}

PingLoop::PingLoop(const std::vector<Satellite>& satellites) : process_(StartSelf({"--as-ping-loop"})) {
    std::string ports;
    for (const Satellite& satellite : satellites) ports += std::to_string(satellite.port) + ' ';
    process_.WriteLine(ports);
}

PingLoop::Cost PingLoop::Round() {
    process_.WriteLine("round");
    std::istringstream words(process_.ReadLine());
    Cost cost{};
    words >> cost.seconds >> cost.cpuSeconds;
    return cost;
}

void RunPingLoop() {
    std::vector<Target> targets = ReadTargets();
    for (std::string line; std::getline(std::cin, line);) {
        const auto start = Clock::now();
        const double cpuBefore = CpuSeconds();
        for (Target& target : targets) AskTarget(target);
        std::printf("%f %f\n", SecondsSince(start), CpuSeconds() - cpuBefore);
        std::fflush(stdout);
    }
}

}  // namespace kel::bench

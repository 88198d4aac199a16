// What the directory does about satellites by itself: asking them whether they are alive, telling listeners, removing
// the dead. The satellites are processes of kel_swarm, which sees when each ping and each notification comes.
#include "Measurements.h"

#include "Requests.h"
#include "rpc/values/VUtil.h"

#include <sys/socket.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

namespace kel::bench {
namespace {

namespace fs = std::filesystem;

constexpr unsigned manyAlive = 10'000;
constexpr unsigned fewAlive = 1'000;
constexpr unsigned listeners = 1'000;
constexpr unsigned dying = 1'000;
constexpr double passDeadline = 60;
constexpr double passGoal = 5;
constexpr double cpuGoal = 3;
constexpr double fanOutGoal = 3;

constexpr auto glance = std::chrono::milliseconds(5);
constexpr auto betweenLooksAtPings = std::chrono::milliseconds(50);
constexpr auto afterPass = std::chrono::milliseconds(200);  // until the last threads of a pass have ended

double Between(Clock::time_point start, Clock::time_point end) {
    return std::chrono::duration<double>(end - start).count();
}

// --- Passes --------------------------------------------------------------------------------------------------------

// Waits until the crowd's pass of that number is complete, and meanwhile looks how many threads the directory has.
Swarm::Pass AwaitPass(Crowd& crowd, size_t number, const DirectoryProcess& directory, unsigned& mostThreads) {
    const auto start = Clock::now();
    auto nextLook = start;
    for (;; std::this_thread::sleep_for(glance)) {
        ThrowIfInterrupted();
        mostThreads = std::max(mostThreads, directory.Threads());
        if (Clock::now() < nextLook) continue;
        const Swarm::Pass pass = crowd.PassOfNumber(number);
        if (pass.pings == crowd.size()) return pass;
        if (SecondsSince(start) > passDeadline) throw std::runtime_error("the directory does not ping all satellites");
        nextLook = Clock::now() + betweenLooksAtPings;
    }
}

struct Passes {
    Comparison seconds;
    Comparison cpuSeconds;

    void Add(double itsSeconds, double itsCpuSeconds, const PingLoop::Cost& baseline) {
        seconds.measured.push_back(itsSeconds);
        seconds.baseline.push_back(baseline.seconds);
        cpuSeconds.measured.push_back(itsCpuSeconds);
        cpuSeconds.baseline.push_back(baseline.cpuSeconds);
    }
};

// The directory's first pass, which connects, and the later ones. Each is followed by a round of the loop, in the time
// that the directory leaves between two passes. What the directory does in that time counts as well.
struct PassesOfBothKinds {
    Passes first;
    Passes later;
    unsigned mostThreads = 0;
};

PassesOfBothKinds MeasurePasses(DirectoryProcess& directory, Crowd& crowd, unsigned laterPasses) {
    PassesOfBothKinds passes;
    PingLoop loop(crowd.Satellites());
    double cpuBefore = directory.CpuSeconds();
    for (unsigned number = 0; number <= laterPasses; ++number) {
        const Swarm::Pass pass = AwaitPass(crowd, 0, directory, passes.mostThreads);
        std::this_thread::sleep_for(afterPass);
        const double cpu = directory.CpuSeconds();
        (number == 0 ? passes.first : passes.later).Add(Between(pass.first, pass.last), cpu - cpuBefore, loop.Round());
        cpuBefore = cpu;
        crowd.ForgetPings();  // the loop's
    }
    return passes;
}

// --- The dead ------------------------------------------------------------------------------------------------------

// Waits for the time between two passes.
void AwaitQuiet(Crowd& crowd) {
    for (;; std::this_thread::sleep_for(betweenLooksAtPings)) {
        ThrowIfInterrupted();
        const double quiet = SecondsSince(crowd.LastPing());
        if (quiet > 0.5 && quiet < 2) return;
    }
}

size_t ListenerEntries(const std::string& root, const std::vector<Satellite>& satellites) {
    std::ifstream file(SatelliteFolder(root) + "/Registration/ServiceListeners.xml");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    return static_cast<size_t>(std::count_if(satellites.begin(), satellites.end(), [&](const Satellite& satellite) {
        return text.find(">" + satellite.name + "<") != std::string::npos;
    }));
}

size_t Files(const std::string& root, const std::vector<Satellite>& satellites) {
    return static_cast<size_t>(std::count_if(satellites.begin(), satellites.end(), [&](const Satellite& satellite) {
        return fs::exists(SatelliteFile(root, satellite));
    }));
}

// In how many answers they are, of all that could name one of them.
size_t Answers(uint16_t port, const std::vector<Satellite>& satellites) {
    const Descriptor connection = ConnectToLoopback(port);
    size_t count = 0;
    for (const Satellite& satellite : satellites) {
        if (AskOn(connection, SatelliteIdRequest(satellite.name)).result == 0) ++count;
        const Answer publishers = AskOn(connection, ServiceRequest("all", satellite.service));
        if (publishers.result != 0) throw std::runtime_error("GetServiceReg fails");
        count += static_cast<size_t>(VUtil::GetArrayLength(publishers.value));
    }
    return count;
}

struct Left {
    size_t files, entries, answers;
    size_t sum() const { return files + entries + answers; }
};

Left CountLeft(const DirectoryProcess& directory, const std::vector<Satellite>& dead) {
    return {Files(directory.root(), dead), ListenerEntries(directory.root(), dead), Answers(directory.port(), dead)};
}

// Files first, as they are looked at without troubling the directory.
bool IsNothingLeft(const DirectoryProcess& directory, const std::vector<Satellite>& dead) {
    return Files(directory.root(), dead) == 0 && CountLeft(directory, dead).sum() == 0;
}

// One satellite wants to hear of all that will die, and each of these listens for that one's service.
void Subscribe(uint16_t port, Swarm& swarmOfWitness, const std::vector<Satellite>& dead) {
    const Satellite& witness = swarmOfWitness.satellites().front();
    const Descriptor connection = ConnectToLoopback(port);
    std::vector<std::string> services;
    for (const Satellite& satellite : dead) services.push_back(satellite.service);
    swarmOfWitness.ExpectNotices(static_cast<unsigned>(dead.size()));
    AskOn(connection, ListenRequest(witness.name, services));
    swarmOfWitness.AwaitNotices();
    for (const Satellite& satellite : dead) AskOn(connection, ListenRequest(satellite.name, {witness.service}));
}

}  // namespace

std::vector<Row> Measurements::Liveness() {
    std::vector<Row> rows;
    for (const unsigned count : {fewAlive, manyAlive}) {
        for (Row& row : LivenessOf(count)) rows.push_back(std::move(row));
    }
    return rows;
}

std::vector<Row> Measurements::LivenessOf(unsigned count) {
    const std::string what = Grouped(count) + " alive: ";
    Announce("liveness checks of " + Grouped(count) + " satellites");
    Crowd crowd(std::min(count, fewAlive), count);
    DirectoryProcess directory(program_, Folder("alive" + std::to_string(count)));
    directory.Start();
    crowd.Register(directory.port());
    directory.Stop();  // once more from the files, so that the first pass comes upon all of them at once
    crowd.ForgetPings();
    directory.Start();
    const PassesOfBothKinds passes = MeasurePasses(directory, crowd, effort_.passes);

    const bool hasGoals = count == manyAlive;
    Row later = RowOfTimes(what + "a pass", passes.later.seconds, 0);
    if (hasGoals) {
        const auto& seconds = passes.later.seconds.measured;
        later.goal = "<= " + Text(passGoal, 0) + " s";
        later.reached = *std::max_element(seconds.begin(), seconds.end()) <= passGoal;
    }
    return {RowOfTimes(what + "the first pass (connects)", passes.first.seconds, 0),
            RowOfTimes(what + "processor time of that", passes.first.cpuSeconds, 0),
            later,
            RowOfTimes(what + "processor time of that", passes.later.cpuSeconds, hasGoals ? cpuGoal : 0),
            {what + "most threads seen", std::to_string(passes.mostThreads), "", "", "", false},
            {what + "most resident memory", Mebibytes(static_cast<double>(directory.PeakResidentBytes())), "", "", "",
             false}};
}

std::vector<Row> Measurements::FanOut() {
    Announce("a service that comes, and 1,000 listeners");
    Swarm swarm(0, listeners);
    DirectoryProcess directory(program_, Folder("fanout"));
    directory.Start();
    swarm.Register(directory.port());
    const Descriptor connection = ConnectToLoopback(directory.port());
    Satellite provider = SatelliteNumber(listeners, swarm.satellites().front().port);
    AskOn(connection, RegisterRequest(provider));
    const int id = AskOn(connection, SatelliteIdRequest(provider.name)).value.lVal;
    provider.service = SatelliteNumber(listeners + 1, 0).service;  // the one that comes and goes
    for (const Satellite& listener : swarm.satellites()) {
        AskOn(connection, ListenRequest(listener.name, {provider.service}));
    }
    const std::string come = RegisterRequest(provider, id);
    const std::string go = UnregisterRequest(provider, id);
    const auto tell = [&](const std::string& request) {
        swarm.ExpectNotices(listeners);
        const auto start = Clock::now();
        if (AskOn(connection, request).result != 0) throw std::runtime_error("the service cannot come or go");
        return Between(start, swarm.AwaitNotices());
    };
    tell(come);  // connects
    tell(go);

    std::vector<Descriptor> sockets;
    for (const Satellite& listener : swarm.satellites()) sockets.push_back(ConnectToLoopback(listener.port));
    const std::string notification = ServiceCameNotification(provider.service, provider.name);
    const auto write = [&] {
        swarm.ExpectNotices(listeners);
        const auto start = Clock::now();
        for (const Descriptor& socket : sockets) {
            if (::send(socket.get(), notification.data(), notification.size(), MSG_NOSIGNAL) < 0) FailWithErrno("send");
        }
        return Between(start, swarm.AwaitNotices());
    };
    const auto seconds = InTurn(effort_.callRounds, {[&](unsigned) {
                                                         const double untilLast = tell(come);
                                                         tell(go);
                                                         return untilLast;
                                                     },
                                                     [&](unsigned) { return write(); }});
    return {RowOfTimes("AddService until the last of 1,000 listeners", {seconds[0], seconds[1]}, fanOutGoal)};
}

std::vector<Row> Measurements::Deaths() {
    Announce("the death of 1,000 of 10,000 satellites");
    Crowd crowd(dying, manyAlive);
    DirectoryProcess directory(program_, Folder("deaths"));
    directory.Start();
    crowd.Register(directory.port());
    const std::vector<Satellite> all = crowd.Satellites();
    const std::vector<Satellite> dead(all.begin(), all.begin() + dying), living(all.begin() + dying, all.end());
    Subscribe(directory.port(), crowd.swarms().at(1), dead);
    if (const Left there = CountLeft(directory, dead); there.files != dying || there.entries != dying)
        throw std::runtime_error("the satellites that are to die are not all there");

    AwaitQuiet(crowd);
    crowd.ForgetPings();
    const auto start = Clock::now();
    crowd.KillFirst();
    double secondsUntilGone = 0;
    unsigned ignored = 0;
    for (size_t pass = 0; pass < 2; ++pass) {
        AwaitPass(crowd, pass, directory, ignored);
        while (pass == 0 && secondsUntilGone == 0 && crowd.PassOfNumber(1).pings == 0) {
            if (IsNothingLeft(directory, dead)) secondsUntilGone = SecondsSince(start);
            std::this_thread::sleep_for(betweenLooksAtPings);
        }
    }
    const Left left = CountLeft(directory, dead);
    if (Files(directory.root(), living) != living.size()) throw std::runtime_error("living satellites were removed");
    const std::string time = secondsUntilGone > 0 ? "after " + Text(secondsUntilGone, 1) + " s" : "later";
    return {{"1,000 of 10,000 killed: left after two passes", std::to_string(left.sum()), "", "gone " + time, "0",
             left.sum() == 0}};
}

}  // namespace kel::bench

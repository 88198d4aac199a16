// Satellites that answer, as measurements use them: processes of kel_swarm (which see).
#pragma once

#include "DirectoryProcess.h"
#include "FileLoop.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kel::bench {

// A time of Clock as kel_swarm prints it.
Clock::time_point TimeOf(int64_t nanoseconds);

// One process of kel_swarm. Not thread-safe.
class Swarm {
public:
    Swarm(unsigned first, unsigned count);

    const std::vector<Satellite>& satellites() const { return satellites_; }

    // Registers all of them with the directory on that port.
    void Register(uint16_t port);

    // The first, second, ... ping that each of them had since the last call of ForgetPings.
    struct Pass {
        unsigned pings;           // that were answered
        Clock::time_point first;  // of them came
        Clock::time_point last;   // of them was answered
    };
    std::vector<Pass> Passes();
    void ForgetPings();

    // Begins counting notifications, and then waits for the `count`th and returns when it came; at most 60 seconds.
    void ExpectNotices(unsigned count);
    Clock::time_point AwaitNotices();

    // By SIGKILL; nothing but satellites() may be asked afterwards.
    void Kill() { process_.Kill(); }

private:
    std::string Obey(const std::string& command);

    ChildProcess process_;
    std::vector<Satellite> satellites_;
};

// Swarms whose satellites are numbered from 0 on: a first one of its own, and as many others as the descriptors that a
// process may have make necessary.
class Crowd {
public:
    Crowd(unsigned ofFirst, unsigned ofAll);

    std::vector<Swarm>& swarms() { return swarms_; }
    unsigned size() const { return size_; }  // of the living
    std::vector<Satellite> Satellites() const;

    void Register(uint16_t port);
    void ForgetPings();

    // By SIGKILL: the first swarm, which must then not be used any more.
    void KillFirst();

    // When the latest ping was answered.
    Clock::time_point LastPing();

    // The pass of that number, counted from 0, over all of them; its pings are fewer than there are satellites as long
    // as it is under way.
    Swarm::Pass PassOfNumber(size_t number);

private:
    std::span<Swarm> Living() { return std::span(swarms_).subspan(firstDied_ ? 1 : 0); }

    std::vector<Swarm> swarms_;
    unsigned size_;
    bool firstDied_ = false;
};

// What a directory's liveness check is held against: asks each of the satellites whether it is alive, one after the
// other, connecting for it.
class PingLoop {
public:
    explicit PingLoop(const std::vector<Satellite>& satellites);

    struct Cost {
        double seconds;
        double cpuSeconds;
    };
    Cost Round();

private:
    ChildProcess process_;
};

// The program of the loop's process: reads the ports in one line and then makes a round for each further line.
void RunPingLoop();

}  // namespace kel::bench

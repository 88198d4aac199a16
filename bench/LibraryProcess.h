// Two satellites of libkel in processes of their own: one that is called, and one that calls it.
#pragma once

#include "DirectoryProcess.h"

#include <cstdint>
#include <string>

namespace kel::bench {

constexpr const char* calleeName = "Callee";
constexpr const char* callerName = "Caller";
constexpr const char* nextMethod = "Next";    // of the callee: the number after the one that it is given
constexpr int firstNumber = 1'000'000;        // that it is given; all of them take as many bytes
constexpr const char* countMethod = "Count";  // one-way, with the numbers 0, 1, 2 ...

// The one that is called, registered with the directory. Not thread-safe.
class LibraryCallee {
public:
    explicit LibraryCallee(const DirectoryProcess& directory);

    uint16_t port() const { return port_; }
    double CpuSeconds() const { return process_.CpuSeconds(); }

    // How often a thread of it has waited and gone on since it was started.
    uint64_t WakeUps() const;

    // Sets out to wait for so many further one-way calls, and then waits for them and returns when the last one ran.
    // Throws when no more come for ten seconds, and when one came out of order.
    void ExpectCounts(unsigned count);
    Clock::time_point AwaitCounts();

private:
    ChildProcess process_;
    uint16_t port_;
};

// The one that calls, attached to the directory as a caller only. Not thread-safe.
class LibraryCaller {
public:
    explicit LibraryCaller(const DirectoryProcess& directory);

    // Calls nextMethod from so many threads, each of which waits for its answer; the calls answered a second.
    double Request(unsigned threads, double seconds);

    // Makes so many one-way calls of countMethod; when it began.
    Clock::time_point SendCounts(unsigned count);

private:
    ChildProcess process_;
};

// The programs of these processes: they obey the lines of their standard input until it ends.
void RunCallee();
void RunCaller();

}  // namespace kel::bench

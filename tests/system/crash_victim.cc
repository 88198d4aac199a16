// A module that crashes as it is told, for crash_test.py.
//
//     crash_victim HOW [ARGUMENT...]
#include "crash/MiniDumper.h"
#include "foundation/Log.h"
#include "foundation/Thread.h"
#include "host/YarModuleBase.h"
#include "host/commonMain.h"
#include "platform/ProcessPaths.h"

#include <sys/syscall.h>
#include <unistd.h>
#include <boost/make_shared.hpp>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

int* volatile nowhere = nullptr;
std::atomic<bool> armed{false};

[[gnu::noinline]] void FaultOfVictim() { *nowhere = 1; }

[[gnu::noinline]] void ThrowOfVictim() { throw std::runtime_error("boom"); }

[[gnu::noinline]] void AbortOfVictim() { std::abort(); }

[[gnu::noinline]] int OverflowOfVictim(int depth) {
    volatile char frame[512];
    frame[0] = static_cast<char>(depth);
    if (depth < 0) return 0;
    return OverflowOfVictim(depth + 1) + frame[0];
}

// Writes over what the allocator keeps behind a block; it finds out inside malloc, with its lock held.
[[gnu::noinline]] void CorruptHeapOfVictim() {
    std::vector<void*> blocks;
    blocks.reserve(20'000);
    for (int i = 0; i < 10'000; ++i) blocks.push_back(std::malloc(24));  // beyond what is free between others
    std::memset(static_cast<char*>(blocks.back()), 0x7e, 64);
    for (size_t size = 0x1000; size < 0x20000; size += 0x1000) blocks.push_back(std::malloc(size));
}

class FailureOfVictim : public std::exception {
public:
    const char* what() const noexcept override { return "of its own"; }
};

using Work = std::function<void()>;

unsigned int RunWork(void* work) {
    (*static_cast<Work*>(work))();
    return 0;
}

void OnThread(Work work) {
    PThread thread(new PThreadDelegateFunction(&RunWork), &work);
    thread.Start();
    thread.Join();
}

// What is written to standard output, by the log and inside its lock, does this once it is armed.
Work onOutput;

// A log whose own thread faults when it writes.
class FaultyLog : public CBBLog {
public:
    FaultyLog() : CBBLog("crash_victim.log", false, 524288) {}

protected:
    void logLineToFile(const CStdStr& line) override {
        if (armed) FaultOfVictim();
        CBBLog::logLineToFile(line);
    }
};

[[noreturn]] void StayForEver() {
    while (true) pause();
}

void WaitInManyThreads() {
    std::vector<std::thread> threads(24);
    for (std::thread& thread : threads) thread = std::thread(&StayForEver);
    CBBLog::error("waiting");
    StayForEver();
}

void FaultInLogLock() {
    onOutput = &FaultOfVictim;
    armed = true;
    CBBLog::error("the last line");
}

void HangInLogLock() {
    onOutput = [] {
        armed = false;
        const ssize_t written = write(STDERR_FILENO, "hanging\n", 8);
        static_cast<void>(written);
        StayForEver();
    };
    armed = true;
    CBBLog::error("the last line");
}

void FaultInLogThread() {
    const auto log = boost::make_shared<FaultyLog>();
    CBBLog::setLogger(log);
    CBBLog::error("still written");
    CBBLog::flushAll(30000);
    armed = true;
    CBBLog::error("the last line");
    StayForEver();
}

const std::map<std::string, Work> ways = {
    {"fault", &FaultOfVictim},
    {"fault-in-log-lock", &FaultInLogLock},
    {"fault-in-log-thread", &FaultInLogThread},
    {"hang-in-log-lock", &HangInLogLock},
    {"many-threads", &WaitInManyThreads},
    {"divide",
     [] {
         static volatile int zero = 0;
         zero = 7 / zero;
     }},
    {"exception", &ThrowOfVictim},
    {"exception-in-thread", [] { OnThread(&ThrowOfVictim); }},
    {"exception-of-its-own", [] { throw FailureOfVictim(); }},
    {"exception-unknown", [] { throw 42; }},
    {"terminate", [] { std::terminate(); }},
    {"abort", &AbortOfVictim},
    {"overflow", [] { OverflowOfVictim(0); }},
    {"overflow-in-thread", [] { OnThread([] { OverflowOfVictim(0); }); }},
    {"heap", [] { OnThread(&CorruptHeapOfVictim); }},
};

class Victim : public YarModuleBase {
public:
    Victim() : YarModuleBase("crash_victim") {}

    bool init(const std::vector<CStdStr>& args) override {
        CBBLog::error("ready");
        if (args.at(1) == "two-modules") {
            try {
                Victim second;
            } catch (const std::logic_error& error) {
                CBBLog::error("%s", error.what());
            }
            FaultOfVictim();
        }
        const auto way = ways.find(args.at(1));
        if (way == ways.end()) return args.at(1) == "run";
        way->second();
        return true;
    }
    void close() override {}
};

// MiniDumpers without a module: HOW NAME REPORTER ARGUMENT...
int CrashWithArguments(const std::vector<std::string>& words) {
    const auto log = boost::make_shared<CBBLog>("Other.log", false, 524288);
    CBBLog::setLogger(log);
    if (words[1] == "two-arguments") {
        const MiniDumper dumper(words[2].c_str(), words[4].c_str(), words[5].c_str(), words[3].c_str());
        FaultOfVictim();
    } else if (words[1] == "app-data") {
        MiniDumper dumper(words[2].c_str());
        dumper.SetCrashReporterPath(words[3]);
        dumper.setAppData(words[4]);
        FaultOfVictim();
    } else if (words[1] == "unlogged" || words[1] == "unreported") {
        MiniDumper dumper(words[2].c_str(), words[1] != "unlogged", words[1] != "unreported", true, true, true);
        dumper.SetCrashReporterPath(words[3]);
        FaultOfVictim();
    } else if (words[1] == "destroyed") {
        { const MiniDumper dumper(words[2].c_str()); }
        FaultOfVictim();
    }
    return 3;
}

}  // namespace

// The C library's, which every write of this program goes through.
extern "C" ssize_t write(int fd, const void* data, size_t size) {
    if (fd == STDOUT_FILENO && armed && onOutput) onOutput();
    return syscall(SYS_write, fd, data, size);
}

YarModuleBase* createYarModuleInstance() { return new Victim; }

int main(int argc, char** argv) {
    kel::platform::EnsureSystemFolders();
    if (argc > 3) return CrashWithArguments(std::vector<std::string>(argv, argv + argc));
    return commonMain(std::vector<CStdStr>(argv, argv + argc));
}

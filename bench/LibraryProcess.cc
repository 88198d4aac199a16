#include "LibraryProcess.h"

#include "SwarmProcess.h"
#include "rpc/satellite/KelSatellite.h"

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

namespace kel::bench {
namespace {

namespace fs = std::filesystem;

constexpr const char* thisMachine = "127.0.0.1";
constexpr unsigned betweenWaits = 512;  // half of the one-way calls that may wait
constexpr int roomMilliseconds = 10'000;
constexpr auto countPatience = std::chrono::seconds(10);

int64_t NanosecondsOf(Clock::time_point time) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
}

void Reply(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

tagVARIANT NumberVariant(int number) {
    tagVARIANT variant{};
    variant.vt = VT_I4;
    variant.lVal = number;
    return variant;
}

void RequireSuccess(int code, const char* what) {
    if (code != KEL_OK) throw std::runtime_error(std::string(what) + ": " + KelResultText(code).c_str());
}

// --- The callee ------------------------------------------------------------------------------------------------------

class CalledSatellite : public KelSatellite {
public:
    ~CalledSatellite() override { Disconnect(); }

    void CreateServices() override {
        AddService(nextMethod, "the next number",
                   new KelSatelliteDelegateMemberEx<CalledSatellite>(this, &CalledSatellite::Next));
        AddService(countMethod, "counts calls",
                   new KelSatelliteDelegateMemberEx<CalledSatellite>(this, &CalledSatellite::Count));
    }

    void Expect(unsigned further) { awaited_ = counted_ + further; }

    Clock::time_point Await() {
        std::unique_lock lock(lock_);
        unsigned before = counted_;
        while (!reached_.wait_for(lock, countPatience, [this] { return counted_ == awaited_; })) {
            const unsigned now = counted_;
            if (now == before)
                throw std::runtime_error(std::to_string(awaited_ - now) + " one-way calls of " +
                                         std::to_string(awaited_) + " were lost");
            before = now;
        }
        if (disorder_ > 0) throw std::runtime_error(std::to_string(disorder_) + " one-way calls came out of order");
        return reachedAt_;
    }

private:
    int Next(int, const char*, const tagVARIANT& in, tagVARIANT* out) {
        *out = NumberVariant(in.lVal + 1);
        return KEL_OK;
    }

    int Count(int, const char*, const tagVARIANT& in, tagVARIANT*) {
        if (latest_.exchange(in.lVal) != in.lVal - 1) ++disorder_;
        if (counted_ + 1 == awaited_) {
            const std::lock_guard lock(lock_);
            reachedAt_ = Clock::now();
            ++counted_;
            reached_.notify_all();
        } else {
            ++counted_;
        }
        return KEL_OK;
    }

    std::atomic<int> latest_{-1};
    std::atomic<unsigned> disorder_{0};
    std::atomic<unsigned> counted_{0};
    std::atomic<unsigned> awaited_{0};

    std::mutex lock_;
    std::condition_variable reached_;
    Clock::time_point reachedAt_;
};

// --- The caller ------------------------------------------------------------------------------------------------------

// Of one thread; returns how many calls were answered until `end`.
uint64_t RequestUntil(KelSatellite& satellite, Clock::time_point end) {
    uint64_t calls = 0;
    for (int number = firstNumber; Clock::now() < end; ++number, ++calls) {
        tagVARIANT out{};
        RequireSuccess(satellite.Request(calleeName, nextMethod, NumberVariant(number), &out, KELFLAG_WAIT, nullptr),
                       "Request");
        if (out.vt != VT_I4 || out.lVal != number + 1) throw std::runtime_error("Request gave another call's answer");
    }
    return calls;
}

double RequestFrom(KelSatellite& satellite, unsigned threads, double seconds) {
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    std::atomic<uint64_t> calls{0};
    std::vector<std::exception_ptr> failures(threads);
    std::vector<std::thread> callers;
    for (unsigned i = 0; i < threads; ++i) {
        callers.emplace_back([&, i] {
            try {
                calls += RequestUntil(satellite, end);
            } catch (...) {
                failures[i] = std::current_exception();
            }
        });
    }
    for (std::thread& caller : callers) caller.join();
    for (const std::exception_ptr& failure : failures) {
        if (failure) std::rethrow_exception(failure);
    }
    return static_cast<double>(calls) / SecondsSince(start);
}

// As whoever may lose none has to: having waited for room, there is room for half of what may wait.
void CountFrom(KelSatellite& satellite, int first, unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
        if (i % betweenWaits == 0 && !satellite.WaitForOneWayRoom(calleeName, roomMilliseconds))
            throw std::runtime_error("no room for one-way calls");
        const tagVARIANT number = NumberVariant(first + static_cast<int>(i));
        RequireSuccess(satellite.Request(calleeName, countMethod, number, nullptr, KELFLAG_ONE_WAY, nullptr),
                       "a one-way call");
    }
}

}  // namespace

LibraryCallee::LibraryCallee(const DirectoryProcess& directory)
    : process_(StartSelf({"--as-callee"}, directory.environment())),
      port_(static_cast<uint16_t>(std::stoul(process_.ReadLine()))) {}

uint64_t LibraryCallee::WakeUps() const {
    const std::string field = "voluntary_ctxt_switches:";
    uint64_t sum = 0;
    for (const auto& thread : fs::directory_iterator("/proc/" + std::to_string(process_.pid()) + "/task")) {
        std::ifstream status(thread.path() / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with(field)) sum += std::stoull(line.substr(field.size()));
        }
    }
    return sum;
}

void LibraryCallee::ExpectCounts(unsigned count) {
    process_.WriteLine(std::to_string(count));
    process_.ReadLine();
}

Clock::time_point LibraryCallee::AwaitCounts() { return TimeOf(std::stoll(process_.ReadLine())); }

LibraryCaller::LibraryCaller(const DirectoryProcess& directory)
    : process_(StartSelf({"--as-caller"}, directory.environment())) {}

double LibraryCaller::Request(unsigned threads, double seconds) {
    process_.WriteLine("request " + std::to_string(threads) + ' ' + std::to_string(seconds));
    return std::stod(process_.ReadLine());
}

Clock::time_point LibraryCaller::SendCounts(unsigned count) {
    process_.WriteLine("count " + std::to_string(count));
    return TimeOf(std::stoll(process_.ReadLine()));
}

void RunCallee() {
    CalledSatellite satellite;
    RequireSuccess(satellite.Connect(thisMachine, calleeName), "Connect");
    Reply(std::to_string(satellite.getSatellitePort()));
    for (std::string line; std::getline(std::cin, line);) {
        satellite.Expect(static_cast<unsigned>(std::stoul(line)));
        Reply("counting");
        Reply(std::to_string(NanosecondsOf(satellite.Await())));
    }
}

void RunCaller() {
    KelSatellite satellite;
    RequireSuccess(satellite.ConnectUser(thisMachine, callerName), "ConnectUser");
    int nextCount = 0;
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string command;
        unsigned number = 0;
        double seconds = 0;
        words >> command >> number >> seconds;
        if (command == "request") {
            Reply(std::to_string(RequestFrom(satellite, number, seconds)));
        } else {
            const auto start = Clock::now();
            CountFrom(satellite, nextCount, number);
            nextCount += static_cast<int>(number);
            Reply(std::to_string(NanosecondsOf(start)));
        }
    }
}

}  // namespace kel::bench

#include "registry/Registration.h"
#include "registry/ServiceAvailability.h"

#include "support/TempRoot.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

std::atomic<bool> threadsFail{false};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool threadsCanFail = false;
#else
constexpr bool threadsCanFail = true;

}  // namespace

// In the place of the system's, which has no limit that a test could reach for itself alone.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                              void* argument) noexcept {
    static const auto create = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    return threadsFail ? EAGAIN : create(thread, attributes, function, argument);
}

namespace {
#endif

// Stands in for the network: who answers what, and who was asked or told.
class FakeChannel : public SatelliteChannel {
public:
    int PingSat(const CStdStr& name, const CStdStr&, unsigned short, int, int* status) override {
        std::unique_lock<std::mutex> hold(lock_);
        ++pings_[name];
        changed_.notify_all();
        changed_.wait(hold, [&] { return hanging_.empty() || name != hanging_; });
        if (throws_ == name) throw std::runtime_error("out of order");
        const auto result = results_.find(name);
        if (result == results_.end()) {
            *status = 1;
            return 0;
        }
        *status = 0;
        return result->second;
    }
    void OnServiceAvailabilityChanged(const CStdStr& service, const CStdStr& satellite, const CStdStr& listener,
                                      int status) override {
        const std::lock_guard<std::mutex> hold(lock_);
        told_.push_back(listener + ": " + service + " at " + satellite + " " + std::to_string(status));
    }

    bool AwaitListener(const CStdStr&) override { return true; }

    void Kill(const CStdStr& name, int result) { results_[name] = result; }
    void ThrowFor(const CStdStr& name) { throws_ = name; }
    // Nobody any more for an empty name.
    void Hang(const CStdStr& name) {
        const std::lock_guard<std::mutex> hold(lock_);
        hanging_ = name;
        changed_.notify_all();
    }
    void AwaitPing(const CStdStr& name) {
        std::unique_lock<std::mutex> hold(lock_);
        changed_.wait(hold, [&] { return pings_[name] > 0; });
    }
    int pings(const CStdStr& name) {
        const std::lock_guard<std::mutex> hold(lock_);
        return pings_[name];
    }
    std::vector<std::string> told() {
        const std::lock_guard<std::mutex> hold(lock_);
        return told_;
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    std::map<std::string, int> pings_;
    std::map<std::string, int> results_;
    std::string hanging_;
    std::string throws_;
    std::vector<std::string> told_;
};

class Liveness : public testing::Test, public ServiceProviders {
protected:
    Liveness() { registry_.SetServiceAvailability(availability_); }

    int GetServices(const CStdStr& service, std::list<CStdStr>& satellites) override {
        return registry_.GetProviders(service, satellites);
    }
    int Add(const CStdStr& name, const CStdStr& service = CStdStr()) {
        int satId = 0;
        registry_.AddSatellite(name, "10.0.0.7", 50123, "studio", 2, &satId);
        if (!service.empty()) registry_.AddService(name, service, "");
        registry_.SerializeSatellite(name);
        return satId;
    }
    void Pass() {
        registry_.CheckSatellites(&channel_);
        registry_.WaitCheckSatellites();
    }
    bool Has(const CStdStr& name) { return registry_.GetSatelliteStruct(name) != nullptr; }

    static inline std::atomic<uint32_t> now_ = 0;

    TempRoot root_;
    FakeChannel channel_;
    CRegistration registry_{[] { return now_.load(); }};
    boost::shared_ptr<ServiceAvailability> availability_{new ServiceAvailability(&channel_, this)};
};

TEST_F(Liveness, RemovesWhoIsDeadOrUnreachableAndTellsListenersFirst) {
    for (const char* name : {"Alive", "Dead", "Unreachable", "Listener"}) Add(name, "Play");
    availability_->Add("Play", "Listener");
    availability_->Add("Play", "Dead");
    channel_.Kill("Dead", 0);
    channel_.Kill("Unreachable", KEL_SATELLITE_SILENT);
    Pass();
    EXPECT_TRUE(Has("Alive") && Has("Listener"));
    EXPECT_FALSE(Has("Dead") || Has("Unreachable"));
    int heard = 0;
    for (const std::string& line : channel_.told()) {
        heard += line == "Listener: Play at Dead 0" || line == "Listener: Play at Unreachable 0";
    }
    EXPECT_EQ(heard, 2);
    availability_->Notify("Play", "Alive", 0);
    EXPECT_EQ(channel_.told().back(), "Listener: Play at Alive 0");  // "Dead" listens no more
}

TEST_F(Liveness, PassesOverASatelliteWhoseCheckRunsAndWaitsForItAlsoAfterItsRemoval) {
    const int satId = Add("Slow");
    Add("Quick");
    channel_.Hang("Slow");
    registry_.CheckSatellites(&channel_);
    channel_.AwaitPing("Slow");
    for (int i = 0; i < 3; ++i) {
        while (channel_.pings("Quick") == i) std::this_thread::yield();
        registry_.GetSatelliteStruct("Quick")->checkDone.waitSignalled();
        registry_.CheckSatellites(&channel_);
    }
    EXPECT_EQ(channel_.pings("Slow"), 1);
    registry_.RemoveSatellite("Slow", satId);
    Add("Slow");
    channel_.Kill("Slow", 0);
    std::atomic<bool> waited{false};
    std::thread waiter([&] {
        registry_.WaitCheckSatellites();
        waited = true;
    });
    EXPECT_FALSE(waited);
    channel_.Hang("");
    waiter.join();
    EXPECT_TRUE(Has("Slow")) << "the check was of the one before";
}

TEST_F(Liveness, GoesOnAfterAPingThatThrows) {
    Add("Odd");
    channel_.ThrowFor("Odd");
    Pass();
    Pass();
    EXPECT_EQ(channel_.pings("Odd"), 2);
    EXPECT_TRUE(Has("Odd"));
}

TEST_F(Liveness, DoesNotPingBeforeTheTimeOfASatelliteThatIsRightBack) {
    struct Case {
        uint32_t start;
        int seconds;
        uint32_t later;
        bool isPinged;
        bool isKept;  // the timer, for the next pass
    };
    const uint32_t nearWrap = 0xffffffffu - 4999;
    for (const Case& c : {
             Case{1000, 30, 0, false, true}, Case{1000, 30, 30000, false, true}, Case{1000, 30, 30001, true, false},
             Case{1000, 0, 0, false, true}, Case{1000, 0, 1, true, false},
             Case{nearWrap, 30, 0, true, false},         // the deadline lies behind the wrap, the present before it
             Case{nearWrap, 30, 5000, false, true},      // both behind it
             Case{nearWrap, 30, 30001, true, false},     //
             Case{0x7fffff00u, 30, 0, true, true},       // a deadline that is negative as a signed number is none
             Case{0x80000000u, 3600, 1000, true, true},  //
             Case{1000, -1, 0, true, false},             // in the past
             Case{0, 4294968, 100, false, true},         // seconds that wrap: 704 ms
         }) {
        SCOPED_TRACE(std::to_string(c.start) + " + " + std::to_string(c.seconds) + " s, " + std::to_string(c.later));
        Add("Away");
        const int before = channel_.pings("Away");
        now_ = c.start;
        EXPECT_EQ(registry_.SetBeRightBackTimer("away", c.seconds), 0);
        now_ += c.later;
        Pass();
        EXPECT_EQ(channel_.pings("Away") > before, c.isPinged);
        EXPECT_EQ(registry_.GetSatelliteStruct("Away")->beRightBackDeadline != 0, c.isKept);
    }
}

TEST(RecentlyRemovedNames, AreOftenRemovedAtTheThirdTimeWithinAMinute) {
    RecentRemovals removals;
    const uint32_t start = 0u - 50'000;  // the clock wraps
    EXPECT_FALSE(removals.IsOften("Recorder", start) || removals.IsOften("Player", start));
    EXPECT_FALSE(removals.IsOften("Recorder", start + 50'000));
    EXPECT_FALSE(removals.IsOften("Recorder", start + 60'001));
    EXPECT_TRUE(removals.IsOften("RECORDER", start + 110'000));
    EXPECT_FALSE(removals.IsOften("Recorder", start + 110'001));  // anew
    for (int name = 0; name < 5000; ++name) removals.IsOften("Stranger" + std::to_string(name), start + 110'002);
    for (int time = 0; time < 4; ++time) EXPECT_FALSE(removals.IsOften("Late", start + 110'003));
    for (const bool isOften : {false, false, true}) EXPECT_EQ(removals.IsOften("Late", start + 200'000), isOften);
}

TEST_F(Liveness, LeavesANewerSatelliteOfTheNameAlone) {
    const int old = Add("Recorder", "Schedule");
    const int fresh = Add("Recorder", "Schedule");
    availability_->Add("Schedule", "Recorder");
    registry_.forceNotifyServicesUnregistered("Recorder", old);
    registry_.RemoveSatellite("Recorder", old);
    EXPECT_EQ(registry_.GetSatelliteStruct("Recorder")->satId, fresh);
    EXPECT_TRUE(channel_.told().empty());
    registry_.AddService("Recorder", "Schedule", "");
    EXPECT_EQ(channel_.told().size(), 1u);  // it listens on
}

TEST_F(Liveness, TellsOfADeathOnceWhenTwoFindItAndNewListenersDoNotHearOfTheDead) {
    const int satId = Add("Recorder", "Schedule");
    availability_->Add("Schedule", "Player");
    registry_.forceNotifyServicesUnregistered("Recorder", satId);
    registry_.forceNotifyServicesUnregistered("recorder", satId);
    EXPECT_EQ(channel_.told(), std::vector<std::string>{"Player: Schedule at Recorder 0"});
    availability_->Add("Schedule", "Late");
    availability_->Notify("Schedule", "Late");
    EXPECT_EQ(channel_.told().size(), 1u);
    // Somebody who still finds the record announces the service once more, and then it goes all the same.
    registry_.AddService("RECORDER", "Schedule", "");
    registry_.RemoveAndTell("recorder", satId);
    EXPECT_EQ(channel_.told().size(), 5u);
    EXPECT_EQ(channel_.told()[3], "Player: Schedule at Recorder 0");
}

TEST_F(Liveness, KnowsASatelliteAndItsServicesInOtherLettersByThoseThatWereTold) {
    const int satId = Add("Recorder", "Schedule");
    Add("Player", "Play");
    availability_->Add("Schedule", "Listener");
    for (const char* listener : {"Recorder", "RECORDER"}) availability_->Add("Play", listener);
    int remaining = 0;
    registry_.RemoveService("recorder", "schedule", &remaining);
    registry_.RemoveAndTell("RECORDER", satId);
    registry_.AddService("Player", "Play", "");  // nobody listens any more
    EXPECT_EQ(channel_.told(), std::vector<std::string>{"Listener: Schedule at Recorder 0"});
}

TEST_F(Liveness, ChecksASatelliteAgainWhoseThreadCouldNotBeCreated) {
    if (!threadsCanFail) GTEST_SKIP() << "the sanitizer has taken the place of the function that creates threads";
    Add("First");
    Add("Second");
    threadsFail = true;
    EXPECT_ANY_THROW(registry_.CheckSatellites(&channel_));
    threadsFail = false;
    registry_.WaitCheckSatellites();
    EXPECT_EQ(channel_.pings("First"), 0);
    Pass();
    EXPECT_EQ(channel_.pings("First"), 1);
    EXPECT_EQ(channel_.pings("Second"), 1);
}

TEST_F(Liveness, KeepsListAndRegistryRightWithEightWritersAndARunningPass) {
    constexpr int writers = 8;
    constexpr int rounds = 60;
    std::atomic<bool> stop{false};
    channel_.Kill("Doomed", 0);
    std::thread checker([&] {
        while (!stop) Pass();
    });
    std::vector<std::thread> threads;
    for (int writer = 0; writer < writers; ++writer) {
        threads.emplace_back([&, writer] {
            const CStdStr name("Sat" + std::to_string(writer));
            for (int round = 0; round < rounds; ++round) {
                const int satId = Add(name, "Common");
                availability_->Add("Common", name);
                availability_->Notify("Common", name);
                Add("Doomed", "Common");
                int remaining = 0;
                if (round % 3 == 0) registry_.RemoveService(name, "Common", &remaining);
                if (round == rounds - 1) break;
                registry_.forceNotifyServicesUnregistered(name, satId);
                registry_.RemoveSatellite(name, satId);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    stop = true;
    checker.join();
    Pass();
    EXPECT_FALSE(Has("Doomed"));
    std::list<CStdStr> providers;
    registry_.GetProviders("Common", providers);
    EXPECT_EQ(providers.size(), static_cast<size_t>(writers));
    // What a listener heard last of each satellite is what is true.
    std::map<std::string, std::string> last;
    for (const std::string& line : channel_.told()) {
        if (line.rfind("Sat0: ", 0) == 0) last[line.substr(0, line.size() - 2)] = line.substr(line.size() - 1);
    }
    EXPECT_EQ(last["Sat0: Common at Sat1"], "1");
    EXPECT_EQ(last["Sat0: Common at Doomed"], "0");
}

}  // namespace

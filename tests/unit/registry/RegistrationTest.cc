#include "registry/Registration.h"

#include "foundation/NetworkUtils.h"
#include "support/TempRoot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

namespace {

class ARegistry : public testing::Test {
protected:
    int Add(const CStdStr& name, int satId = 0) {
        EXPECT_EQ(registry_.AddSatellite(name, "192.168.1.20", 50123, "studio", 2, &satId), 0);
        return satId;
    }

    std::vector<CStdStr> Providers(const CStdStr& service, const CStdStr& satName = CStdStr()) {
        std::vector<KelServiceInfo> found;
        EXPECT_EQ(registry_.GetServiceInfo(service, satName, found, nullptr), 0);
        std::vector<CStdStr> names;
        for (const KelServiceInfo& info : found) names.push_back(info.satName);
        return names;
    }

    int IdOf(const CStdStr& name) {
        CStdStr ip;
        int satId = 0;
        unsigned short port = 0;
        return registry_.FindSatellite(name, ip, &satId, &port, nullptr) == 0 ? satId : -1;
    }

    static inline uint32_t now_ = 0;

    TempRoot root_;
    CRegistration registry_{[] { return now_; }};
};

using Names = std::vector<CStdStr>;

TEST_F(ARegistry, CountsIdsUpAlsoWhenANameReturnsInAnotherCase) {
    EXPECT_EQ(Add("Foo"), 1);
    EXPECT_EQ(Add("Bar"), 2);
    EXPECT_EQ(Add("foo"), 3);
    EXPECT_EQ(IdOf("FOO"), 3);
    EXPECT_EQ(registry_.GetSatelliteStruct("Foo")->satName, "foo");
}

TEST_F(ARegistry, KeepsAnIdThatIsGivenAndDoesNotCountOnFromIt) {
    EXPECT_EQ(Add("Foo", 40), 40);
    EXPECT_EQ(Add("Bar"), 1);
}

TEST_F(ARegistry, LeavesTheOutputsAloneForAnUnknownName) {
    CStdStr ip("untouched");
    int satId = 7;
    unsigned short port = 8;
    EXPECT_EQ(registry_.FindSatellite("Foo", ip, &satId, &port, "10.0.0.1"), 8);
    EXPECT_EQ(ip, "untouched");
    EXPECT_EQ(satId, 7);
    EXPECT_EQ(port, 8);
    int remaining = 9;
    EXPECT_EQ(registry_.AddService("Foo", "Schedule", ""), 30);
    EXPECT_EQ(registry_.RemoveService("Foo", "Schedule", &remaining), 30);
    EXPECT_EQ(remaining, 9);
    EXPECT_EQ(registry_.SetBeRightBackTimer("Foo", 1), 30);
    EXPECT_EQ(registry_.DeleteSatelliteFile("Foo", 1), 30);
}

TEST_F(ARegistry, GivesTheWholeDescriptionOfAService) {
    const int satId = Add("Recorder");
    registry_.AddService("recorder", "Schedule", "before");
    registry_.AddService("Recorder", "schedule", "Recording schedule");
    std::vector<KelServiceInfo> found;
    registry_.GetLastServiceInfo("SCHEDULE", found, "10.0.0.1");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].name, "schedule");
    EXPECT_EQ(found[0].description, "Recording schedule");
    EXPECT_EQ(found[0].satName, "Recorder");
    EXPECT_EQ(found[0].ip, "192.168.1.20");
    EXPECT_EQ(found[0].port, 50123);
    EXPECT_EQ(found[0].hostname, "studio");
    EXPECT_EQ(found[0].satId, satId);
    EXPECT_EQ(found[0].kelProtocolVersion, 2);
}

TEST_F(ARegistry, FindsProvidersInTheOrderOfTheirNamesWithoutRegardToCase) {
    for (const char* name : {"beta", "Alpha", "Gamma"}) {
        Add(name);
        registry_.AddService(name, "Schedule", "");
    }
    Add("Zulu");
    EXPECT_EQ(Providers("sChedule"), (Names{"Alpha", "beta", "Gamma"}));
    EXPECT_EQ(Providers("Schedule", "BETA"), (Names{"beta"}));
    EXPECT_EQ(Providers("Schedule", "Zulu"), Names{});
    EXPECT_EQ(Providers("Other"), Names{});
    std::vector<KelServiceInfo> last;
    registry_.GetLastServiceInfo("Schedule", last, nullptr);
    registry_.GetLastServiceInfo("Other", last, nullptr);
    ASSERT_EQ(last.size(), 1u);
    EXPECT_EQ(last[0].satName, "Gamma");
}

TEST_F(ARegistry, ForgetsTheServicesOfWhatIsReplacedRemovedOrWithdrawn) {
    for (const char* name : {"A", "B", "C"}) {
        Add(name);
        registry_.AddService(name, "Schedule", "");
        registry_.AddService(name, "Tuner", "");
    }
    Add("a");
    registry_.RemoveSatellite("B", 2);
    int remaining = -1;
    registry_.RemoveService("c", "schedule", &remaining);
    EXPECT_EQ(remaining, 1);
    registry_.RemoveService("c", "schedule", &remaining);
    EXPECT_EQ(remaining, 1);
    EXPECT_EQ(Providers("Schedule"), Names{});
    EXPECT_EQ(Providers("Tuner"), (Names{"C"}));
    registry_.AddService("A", "Schedule", "");
    EXPECT_EQ(Providers("Schedule"), (Names{"a"}));
}

TEST_F(ARegistry, GivesAnAskerElsewhereAnAddressOfThisMachineForASatelliteOnIt) {
    int satId = 0;
    registry_.AddSatellite("Local", "127.0.0.1", 50123, "studio", 2, &satId);
    registry_.AddService("Local", "Schedule", "");
    Add("Remote");
    registry_.AddService("Remote", "Schedule", "");
    const CStdStr best = yar::networkutils::GetIPForDestination("127.9.9.9").first;
    ASSERT_EQ(best, "127.0.0.1");
    const CStdStr elsewhere = yar::networkutils::GetIPForDestination("198.51.100.7").first;
    const std::vector<std::pair<const char*, CStdStr>> expected = {
        {nullptr, "127.0.0.1"}, {"127.0.0.1", "127.0.0.1"}, {"127.9.9.9", best}, {"198.51.100.7", elsewhere}};
    for (const auto& [destination, address] : expected) {
        CStdStr ip;
        unsigned short port = 0;
        EXPECT_EQ(registry_.FindSatellite("Local", ip, &satId, &port, destination), 0);
        EXPECT_EQ(ip, address);
        EXPECT_EQ(registry_.FindSatellite("Remote", ip, &satId, &port, destination), 0);
        EXPECT_EQ(ip, "192.168.1.20");
        std::vector<KelServiceInfo> found(1);
        found.front().ip = "127.0.0.1";
        EXPECT_EQ(registry_.GetServiceInfo("Schedule", "", found, destination), 0);
        ASSERT_EQ(found.size(), 3U);
        EXPECT_EQ(found[0].ip, "127.0.0.1") << "not an entry of this answer";
        EXPECT_EQ(found[1].ip, address);
        EXPECT_EQ(found[2].ip, "192.168.1.20");
    }
}

TEST_F(ARegistry, DoesNotRemoveANewerSatelliteOfTheName) {
    const int satId = Add("Foo");
    EXPECT_EQ(registry_.RemoveSatellite("foo", satId + 1), 0);
    EXPECT_EQ(IdOf("Foo"), satId);
    EXPECT_EQ(registry_.RemoveSatellite("foo", satId), 0);
    EXPECT_EQ(IdOf("Foo"), -1);
    EXPECT_EQ(registry_.RemoveSatellite("foo", satId), 0);
}

TEST_F(ARegistry, SetsTheDeadlineInMillisecondsFromNow) {
    Add("Foo");
    for (const uint32_t now : {1000u, 0xffffffffu - 10000u}) {
        now_ = now;
        EXPECT_EQ(registry_.SetBeRightBackTimer("foo", 30), 0);
        EXPECT_EQ(registry_.GetSatelliteStruct("Foo")->beRightBackDeadline, now + 30000u);
    }
}

// Mostly for the thread sanitizer: every operation at once, on names that collide.
TEST_F(ARegistry, SurvivesEveryOperationAtOnce) {
    const auto work = [&](int seed) {
        for (int i = 0; i < 60; ++i) {
            const CStdStr name = std::string(1, static_cast<char>((seed % 2 ? 'A' : 'a') + i % 3));
            int satId = 0;
            registry_.AddSatellite(name, "127.0.0.1", 1, "here", 1, &satId);
            registry_.AddService(name, "Schedule", "text");
            registry_.SerializeSatellite(name);
            Providers("Schedule");
            std::vector<KelServiceInfo> last;
            registry_.GetLastServiceInfo("Schedule", last, nullptr);
            registry_.SetBeRightBackTimer(name, 1);
            int remaining = 0;
            if (i % 2) registry_.RemoveService(name, "Schedule", &remaining);
            registry_.RemoveSatellite(name, satId);
            registry_.GetServerId();
        }
    };
    std::vector<std::thread> threads;
    for (int seed = 0; seed < 8; ++seed) threads.emplace_back(work, seed);
    for (std::thread& thread : threads) thread.join();
    for (const CStdStr& name : Providers("Schedule")) registry_.RemoveSatellite(name, IdOf(name));
    EXPECT_EQ(Providers("Schedule"), Names{});
}

}  // namespace

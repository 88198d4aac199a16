#include "registry/Registration.h"

#include "foundation/NetworkUtils.h"
#include "support/TempRoot.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class ARegistry : public testing::Test {
protected:
    int Add(const CStdStr& name, const CStdStr& ip, int satId = 0) {
        EXPECT_EQ(registry_.AddSatellite(name, ip, 50123, "studio", 2, &satId), 0);
        registry_.AddService(name, "Schedule", "");
        return satId;
    }

    static inline uint32_t now_ = 0;

    TempRoot root_;
    CRegistration registry_{[] { return now_; }};
};

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

TEST_F(ARegistry, GivesAnAskerElsewhereAnAddressOfThisMachineForASatelliteOnIt) {
    int satId = 0;
    Add("Local", "127.0.0.1");
    Add("Remote", "192.168.1.20");
    const CStdStr elsewhere = yar::networkutils::GetIPForDestination("198.51.100.7").first;
    const std::vector<std::pair<const char*, CStdStr>> expected = {
        {nullptr, "127.0.0.1"}, {"127.0.0.1", "127.0.0.1"}, {"127.9.9.9", "127.0.0.1"}, {"198.51.100.7", elsewhere}};
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

TEST_F(ARegistry, KeepsAnIdThatIsGivenAndCountsADeadlineInMilliseconds) {
    EXPECT_EQ(Add("Bar", "127.0.0.1", 40), 40) << "an id that is given";
    EXPECT_EQ(Add("Foo", "127.0.0.1"), 1) << "and not counted on from";
    for (const uint32_t now : {1000u, 0xffffffffu - 10000u}) {
        now_ = now;
        EXPECT_EQ(registry_.SetBeRightBackTimer("foo", 30), 0);
        EXPECT_EQ(registry_.GetSatelliteStruct("Foo")->beRightBackDeadline, now + 30000u);
    }
}

TEST_F(ARegistry, HasRoomUntilItsRecordsTakeTooMuchAndAgainWhenTheyHaveGone) {
    const auto described = [](const char* name, size_t size) {
        KelService service;
        service.name = name;
        service.description = CStdStr(std::string(size, 'x'));
        return std::vector<KelService>{service};
    };
    constexpr size_t most = CRegistration::maxBytes - 10'000;
    EXPECT_FALSE(registry_.HasRoomFor("Foo", described("S", CRegistration::maxBytes)));
    ASSERT_TRUE(registry_.HasRoomFor("Foo", described("S", most)));
    const int satId = Add("Foo", "127.0.0.1");
    for (int i = 0; i < 2; ++i) registry_.AddService("Foo", "S", described("S", most).front().description);
    EXPECT_TRUE(registry_.HasRoomFor("foo", described("s", most))) << "it is there";
    EXPECT_FALSE(registry_.HasRoomFor("Foo", described("T", 10'000)));
    EXPECT_FALSE(registry_.HasRoomFor("Bar", described("T", 10'000)));
    int remaining = 0;
    registry_.RemoveService("Foo", "S", &remaining);
    EXPECT_TRUE(registry_.HasRoomFor("Bar", described("T", most)));
    registry_.AddService("Foo", "S", described("S", most).front().description);
    registry_.RemoveSatellite("Foo", satId);
    EXPECT_TRUE(registry_.HasRoomFor("Bar", described("T", most)));
}

}  // namespace

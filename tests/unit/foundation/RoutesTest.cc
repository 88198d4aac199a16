#include "foundation/Routes.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <string>

using namespace yar::networkutils;
using kel::platform::RouteEntry;

namespace {

in_addr Address(const char* text) { return in_addr{inet_addr(text)}; }

// A routing table as a test writes it down. Interface 1 is 10.0.0.1, interface 2 is 10.0.0.2 and so on.
class ARoutingTable : public testing::Test {
protected:
    void Add(const char* destination, unsigned interface, uint32_t hopcount = 0, bool hasNetmask = true) {
        RouteEntry entry;
        entry.isUp = true;
        entry.hasNetmask = hasNetmask;
        entry.destination = Address(destination);
        entry.hopcount = hopcount;
        entry.interface = interface;
        table_.push_back(entry);
    }

    std::vector<Route> Routes() const {
        std::unordered_map<unsigned, InterfaceNet> nets;
        for (unsigned index = 1; index < 10; ++index) {
            nets[index] = {in_addr{htonl(0x0a000000 + index)}, Address("255.255.255.0")};
        }
        return UsableRoutes(table_, nets);
    }

    // The interface that is chosen; 0 for none.
    int Interface(const char* destination) const {
        const RouteChoice choice(Routes());
        const RouteChoice::Interface* const interface = choice.To(Address(destination));
        EXPECT_EQ(choice.To(Address(destination)), interface) << "what it remembers is another";
        if (!interface) return 0;
        EXPECT_EQ(interface->mask, "255.255.255.0");
        return std::stoi(interface->ip.substr(interface->ip.rfind('.') + 1));
    }

    std::vector<RouteEntry> table_;
};

TEST_F(ARoutingTable, TakesTheLowestHopCountHoweverGreatTheNetmask) {
    Add("192.168.1.0", 2, 64);
    Add("0.0.0.0", 1, 3);
    EXPECT_EQ(Interface("192.168.1.77"), 1);
    Add("192.168.0.0", 3, 2);
    EXPECT_EQ(Interface("192.168.1.77"), 3);
    EXPECT_EQ(Interface("192.167.1.77"), 1);
    Add("0.0.0.0", 4, 0xffffffff);  // never below the best so far
    EXPECT_EQ(Interface("8.8.8.8"), 1);
}

TEST_F(ARoutingTable, TakesOfSeveralMatchesTheGreatestNetmaskReadFromItsLastOctet) {
    Add("10.0.0.0", 1);
    Add("10.1.0.0", 2);
    Add("10.1.1.0", 3);
    Add("9.0.0.0", 4);
    Add("0.0.0.0", 5);
    EXPECT_EQ(Interface("10.1.1.9"), 3);
    EXPECT_EQ(Interface("10.1.0.9"), 2);
    EXPECT_EQ(Interface("10.0.0.9"), 1);
    EXPECT_EQ(Interface("9.0.0.9"), 4);
    EXPECT_EQ(Interface("192.168.1.77"), 5) << "the default route has the least netmask, and matches everything";
    EXPECT_EQ(Interface("11.9.8.9"), 2) << "11.9 has all one-bits of 10.1";
    EXPECT_EQ(Interface("11.8.8.8"), 1) << "11 has all one-bits of 10, which is a greater netmask than 9";
}

TEST_F(ARoutingTable, MatchesByTheOneBitsOfTheDestinationWhereverTheyAre) {
    Add("5.0.2.128", 1);
    EXPECT_EQ(Interface("5.0.2.128"), 1);
    EXPECT_EQ(Interface("7.255.3.129"), 1);
    EXPECT_EQ(Interface("4.0.2.128"), 0);
    EXPECT_EQ(Interface("5.0.2.1"), 0);
    EXPECT_EQ(Interface("5.0.1.128"), 0);
    EXPECT_EQ(Interface("not an address"), 1) << "255.255.255.255 has every one-bit";
}

TEST_F(ARoutingTable, LeavesOutWhatIsDownLeadsToOneHostOrHasNoAddress) {
    for (const unsigned interface : {2U, 3U, 0U}) Add("192.168.1.0", interface);
    table_[0].isUp = false;
    table_[1].isHost = true;
    Add("0.0.0.0", 1);
    EXPECT_EQ(Routes().size(), 1U);
    EXPECT_EQ(Interface("192.168.1.1"), 1);
}

TEST_F(ARoutingTable, TakesARouteWithoutANetmaskForOneOf24Bits) {
    Add("10.0.1.0", 1, 0, false);
    EXPECT_EQ(Interface("10.0.1.255"), 1);
    EXPECT_EQ(Interface("10.0.3.1"), 0) << "has the one-bits, and is another network of 24 bits";
    Add("10.0.1.0", 2);
    EXPECT_EQ(Interface("10.0.1.255"), 1) << "255.255.255.0 is greater than 10.0.1.0";
}

TEST_F(ARoutingTable, KeepsTheSystemsOrderAmongEquals) {
    for (const unsigned interface : {7U, 8U, 9U}) Add("0.0.0.0", interface);
    for (const unsigned interface : {5U, 4U}) Add("192.168.1.0", interface);
    EXPECT_EQ(Interface("8.8.8.8"), 7);
    EXPECT_EQ(Interface("192.168.1.1"), 5);
}

TEST_F(ARoutingTable, IsSortedByHopCountNetmaskAndDestination) {
    Add("0.0.0.0", 1);
    Add("200.0.0.0", 2);
    Add("0.0.0.1", 3);
    Add("10.0.1.0", 4, 0, false);
    Add("10.0.2.0", 5, 0, false);
    Add("1.0.0.0", 6, 9);
    std::string order;
    for (const Route& route : Routes()) order += route.ip.back();
    EXPECT_EQ(order, "635421") << "0.0.0.1 sorts above 200.0.0.0, for its last octet counts most";
}

TEST(TheRoutesOfThisMachine, IncludeTheLoopbackNetwork) {
    std::vector<Route> routes(3);
    ASSERT_EQ(getRoutes(routes), 0);
    CStdStr ip, mask;
    GetIPForDestination("127.0.0.1", ip, mask);
    EXPECT_EQ(ip, "127.0.0.1");
    EXPECT_EQ(mask, "255.0.0.0");
    EXPECT_EQ(GetIPForDestination("127.0.0.1"), std::make_pair(ip, mask));
}

}  // namespace

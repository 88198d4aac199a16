#include "foundation/NetworkUtils.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <algorithm>

using namespace yar::networkutils;

TEST(AnAddress, IsWrittenAsTheSystemWritesIt) {
    for (const char* text : {"0.0.0.0", "127.0.0.1", "255.255.255.255", "10.20.30.40", "1.99.109.200"}) {
        in_addr address{};
        ASSERT_EQ(1, inet_pton(AF_INET, text, &address));
        EXPECT_EQ(text, inet_ntos(address));
    }
}

TEST(TheLocalAddresses, ReplaceWhatWasInTheListAndIncludeLoopback) {
    std::vector<in_addr> addresses(3, in_addr{INADDR_BROADCAST});
    GetLocalIPAddressList(addresses);
    const auto count = [&](in_addr_t wanted) {
        return std::count_if(addresses.begin(), addresses.end(), [&](in_addr a) { return a.s_addr == wanted; });
    };
    EXPECT_EQ(0, count(INADDR_BROADCAST));
    EXPECT_EQ(1, count(htonl(INADDR_LOOPBACK)));
}

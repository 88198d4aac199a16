#include "discovery/DiscoveryMessage.h"

#include "discovery/ReplyLimits.h"
#include "rpc/finder/Announcement.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <string>

using namespace kel::discovery;
using kel::wire::Announcement;
using kel::wire::ReadAnnouncement;

namespace {

in_addr Address(const char* text) { return in_addr{inet_addr(text)}; }

TEST(ASearch, IsAnyDatagramWithItsTwoLines) {
    EXPECT_TRUE(IsSearch(kel::wire::BuildSearch()));
    EXPECT_LE(kel::wire::BuildSearch().size(), searchBytes);
    EXPECT_TRUE(IsSearch("Server: \t Yar Kel Directory  \r\nfooSEARCH 1.0\r\n"));
    EXPECT_TRUE(IsSearch("SEARCH 1.0\r\nX-Server:Yar Kel Directory\r\n"));
    for (const char* other :
         {"", "SEARCH 1.0\r\n", "SEARCH 1.0\r\nServer: Yar Kel Directory",
          "SEARCH 1.0\r\nServer:", "SEARCH 1.0\r\nserver: Yar Kel Directory\r\n",
          "SEARCH 1.0\nServer: Yar Kel Directory\r\n", "SEARCH 1.0\r\nServer: Yar Kel directory\r\n",
          "SEARCH 1.1\r\nServer: Yar Kel Directory\r\n", "SEARCH 1.0\r\nServer: Other\r\nServer: Yar Kel Directory\r\n",
          "NOTIFY 1.0\r\nServer: Yar Kel Directory\r\n"}) {
        EXPECT_FALSE(IsSearch(other)) << other;
    }
    EXPECT_FALSE(IsSearch(std::string_view("SEARCH 1.0\r\n\0Server: Yar Kel Directory\r\n", 41)));
}

TEST(AnAnnouncement, IsReadBackAsItWasBuilt) {
    const std::map<CStdStr, UserDetails> users = {
        {"alice", {"x", true}}, {"b,o\\b", {"]y,[", false}}, {"", {"", false}}};
    const CStdStr aliases = BuildAliases({Address("10.0.0.5"), Address("192.168.1.20")}, Address("192.168.1.20"));
    EXPECT_EQ(aliases, "192.168.1.20, 10.0.0.5");
    EXPECT_EQ(BuildAliases({Address("10.0.0.5"), Address("10.0.0.6")}, Address("10.9.9.9")), "10.0.0.5, 10.0.0.6");
    EXPECT_EQ(BuildAliases({}, Address("10.9.9.9")), "");

    Announcement heard;
    ASSERT_TRUE(ReadAnnouncement(BuildNotify("7f3a", aliases, 5001, BuildUserList(users)), heard));
    EXPECT_FALSE(heard.isFarewell);
    EXPECT_EQ(heard.directory.serverId, "7f3a");
    EXPECT_EQ(heard.directory.addresses, (std::vector<CStdStr>{"192.168.1.20", "10.0.0.5"}));
    EXPECT_EQ(heard.directory.port, 5001);
    ASSERT_EQ(heard.directory.users.size(), users.size());
    size_t i = 0;
    for (const auto& [name, details] : users) {
        EXPECT_EQ(heard.directory.users[i].name, name);
        EXPECT_EQ(heard.directory.users[i].value, details.value);
        EXPECT_EQ(heard.directory.users[i++].flag, details.flag);
    }
    ASSERT_TRUE(ReadAnnouncement(BuildByeBye("7f3a"), heard));
    EXPECT_TRUE(heard.isFarewell);
    EXPECT_EQ(heard.directory.serverId, "7f3a");
}

std::string Notify(const std::string& aliases, const std::string& port, const std::string& users = "") {
    return "NOTIFY 1.0\r\nServer: Yar Kel Directory\r\nServerID: a\r\nAliases: " + aliases + "\r\nPort: " + port +
           "\r\nUsers: " + users + "\r\n\r\n";
}

TEST(AnAnnouncement, ThatIsCutForeignOrWithoutAnAddressIsNone) {
    Announcement heard;
    const std::string whole = Notify("10.0.0.1", "5001", "[a,b,1]");
    ASSERT_TRUE(ReadAnnouncement(whole, heard));
    for (size_t length = 0; length < whole.size(); ++length) {
        EXPECT_FALSE(ReadAnnouncement(std::string_view(whole).substr(0, length), heard)) << length;
    }
    EXPECT_FALSE(ReadAnnouncement(Notify(std::string("10.0.0.1\0", 9), "5001"), heard));
    for (const char* port : {"0", "65536", "-1", "5001x", "", "99999999999999999999"}) {
        EXPECT_FALSE(ReadAnnouncement(Notify("10.0.0.1", port), heard)) << port;
    }
    for (const char* aliases :
         {"", ",", "127.0.0.1", "0.0.0.0", "239.1.2.3, 255.255.255.255", "10.0.0", "host", "::1"}) {
        EXPECT_FALSE(ReadAnnouncement(Notify(aliases, "5001"), heard)) << aliases;
    }
    EXPECT_FALSE(
        ReadAnnouncement("NOTIFY 1.0\r\nServer: Other\r\nServerID: a\r\nAliases: 10.0.0.1\r\nPort: 1\r\n\r\n", heard));
    EXPECT_FALSE(ReadAnnouncement("BYEBYE 1.0\r\nServer: Yar Kel Directory\r\nServerID: \r\n\r\n", heard));
    EXPECT_FALSE(ReadAnnouncement(
        "BYEBYE 1.0\r\nServer: Yar Kel Directory\r\nServerID: " + std::string(300, 'x') + "\r\n\r\n", heard));
}

TEST(AnAnnouncement, IsBelievedWithinLimits) {
    Announcement heard;
    std::string aliases = "10.0.0.1, 10.0.0.1, nonsense, 127.0.0.1";
    for (int i = 0; i < 100; ++i) aliases += ", 10.0.1." + std::to_string(i);
    ASSERT_TRUE(ReadAnnouncement(Notify(aliases, "5001"), heard));
    EXPECT_EQ(heard.directory.addresses.size(), kel::wire::announcedAddresses);
    EXPECT_EQ(heard.directory.addresses[1], "10.0.1.0");

    const auto countUsers = [&](const std::string& users) {
        EXPECT_TRUE(ReadAnnouncement(Notify("10.0.0.1", "5001", users), heard));
        return heard.directory.users.size();
    };
    EXPECT_EQ(countUsers("[a,b,1], [c,d,2], [e,f,1]"), 1U);
    for (const char* broken :
         {"[", "[a", "[a,", "[a,b", "[a,b,", "[a,b,1", "[a\\,b,1]", "[a,b\\", "a,b,1]", "[a,b,10]"}) {
        EXPECT_EQ(countUsers(broken), 0U) << broken;
    }
    std::string many;
    for (int i = 0; i < 5000; ++i) many += "[a,b,1], ";
    EXPECT_EQ(countUsers(many), kel::wire::announcedUsers);
}

TEST(TheLimits, RememberABoundedNumberOfSearchers) {
    ReplyLimits limits;
    uint32_t now = 0xfffffff0;  // wraps around meanwhile
    uint32_t toAllAt = 0;
    size_t answered = 0;
    for (unsigned i = 0; i < 200000; ++i) {
        if (i % 50 == 0) ++now;
        CStdStr searcher;
        searcher.Format("%u", i);
        answered += limits.MayAnswer(searcher, now, &toAllAt);
    }
    EXPECT_LE(answered, ReplyLimits::answersAtOnce + 4000 / ReplyLimits::answerCostMs);
    EXPECT_GE(answered, 400U) << "an answer becomes free every 10 ms";
    EXPECT_EQ(limits.size(), answered);
    limits.Forget(now + ReplyLimits::periodMs);
    EXPECT_EQ(limits.size(), 0U);
}

TEST(TheLimits, KeepAnnouncementsToAllTwoSecondsApartHoweverManyWait) {
    ReplyLimits limits;
    uint32_t at = 0;
    EXPECT_TRUE(limits.MayAnswer("a", 1000, &at));
    EXPECT_TRUE(limits.MayAnswer("b", 2500, &at));
    EXPECT_FALSE(limits.MayAnswer("a", 2600, &at));
    EXPECT_EQ(at, 3000U);
    limits.AnsweredAll(3000);
    EXPECT_FALSE(limits.MayAnswer("b", 3100, &at));
    EXPECT_EQ(at, 5000U);
    limits.AnsweredAll(5000);
    limits.AnsweredAll(5100);  // nobody waited for that one
    EXPECT_TRUE(limits.MayAnswer("a", 6000, &at));
    EXPECT_FALSE(limits.MayAnswer("a", 6001, &at));
    EXPECT_EQ(at, 8000U);
    EXPECT_TRUE(limits.MayAnswer("a", 8000, &at));
}

}  // namespace

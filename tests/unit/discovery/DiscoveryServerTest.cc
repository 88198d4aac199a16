#include "discovery/DiscoveryServer.h"

#include "FakeNetwork.h"
#include "rpc/satellite/KelSatellite.h"

#include <gtest/gtest.h>

#include <map>

namespace {

constexpr const char* search = "SEARCH 1.0\r\nServer: Yar Kel Directory\r\n\r\n";
constexpr const char* group = "239.255.255.251";

class AnAnnouncer : public testing::Test {
protected:
    using Interfaces = std::vector<std::string>;

    // Starts it and has it say its first words.
    void Start(Interfaces interfaces = {"10.0.0.1"}) {
        auto network = std::make_unique<FakeNetwork>();
        network_ = network.get();
        network_->SetInterfaces(std::move(interfaces));
        network_->SetRoute("10.0.0.1");
        network_->SetNow(startMs_);
        server_ = std::make_unique<DiscoveryServer>(&satellite_, "7f3a", std::move(network));
        network_->Settle();
        first_ = network_->TakeSent();
    }

    // Whom it sent to since the last look, each pair of copies once.
    std::vector<std::string> SentTo() {
        std::vector<std::string> to;
        network_->Advance(11);  // an answer's second copy is due then
        const std::vector<FakeNetwork::Sent> sent = network_->TakeSent();
        EXPECT_EQ(sent.size() % 2, 0U);
        for (size_t i = 0; i + 1 < sent.size(); i += 2) {
            EXPECT_EQ(sent[i].text, sent[i + 1].text);
            EXPECT_EQ(sent[i].to, sent[i + 1].to);
            EXPECT_GE(sent[i + 1].at - sent[i].at, 10U);
            EXPECT_LE(sent[i + 1].at - sent[i].at, 11U);
            to.push_back(sent[i].to);
        }
        return to;
    }

    // Lets the time pass in steps of 100 ms and counts what is sent to all.
    int AnnouncementsWithin(uint32_t milliseconds) {
        const uint32_t end = network_->now() + milliseconds;
        int count = 0;
        while (static_cast<int32_t>(network_->now() - end) < 0) {
            network_->Advance(100);
            for (const std::string& to : SentTo()) count += to == group;
        }
        return count;
    }

    std::string Users() {
        network_->TakeSent();
        network_->Advance(2000);
        const std::vector<FakeNetwork::Sent> sent = network_->TakeSent();
        if (sent.empty()) return "nothing was sent";
        const size_t start = sent.front().text.find("Users: ");
        return sent.front().text.substr(start, sent.front().text.find("\r\n", start) - start);
    }

    uint32_t startMs_ = 5000;
    KelSatellite satellite_;
    FakeNetwork* network_ = nullptr;  // the server's
    std::unique_ptr<DiscoveryServer> server_;
    std::vector<FakeNetwork::Sent> first_;
};

using Names = std::vector<std::string>;

TEST_F(AnAnnouncer, SendsItsNotifyTwiceOnEachNetworkWithTheAddressThereInFront) {
    Start({"192.168.1.20", "10.0.0.5"});
    ASSERT_EQ(first_.size(), 4U);
    EXPECT_EQ(first_[0].text,
              "NOTIFY 1.0\r\nServer: Yar Kel Directory\r\nMax-Version: 2.1\r\nVersion: 2.1\r\nServerID: 7f3a\r\n"
              "Aliases: 192.168.1.20, 10.0.0.5\r\nPort: 0\r\nUsers: \r\n\r\n");
    EXPECT_NE(first_[2].text.find("Aliases: 10.0.0.5, 192.168.1.20\r\n"), std::string::npos);
    for (size_t i = 0; i < 4; i += 2) {
        EXPECT_EQ(first_[i].text, first_[i + 1].text);
        EXPECT_EQ(first_[i].by, i == 0 ? "192.168.1.20" : "10.0.0.5");
        EXPECT_EQ(first_[i + 1].by, first_[i].by);
        EXPECT_EQ(first_[i].to, group);
        EXPECT_EQ(first_[i + 1].at - first_[i].at, 10U);
    }
    EXPECT_TRUE(network_->IsJoined("192.168.1.20") && network_->IsJoined("10.0.0.5"));
}

TEST_F(AnAnnouncer, AnnouncesEvery20SecondsAlsoWhenTheClockWrapsAround) {
    startMs_ = 0u - 30000;
    Start();
    EXPECT_EQ(first_.size(), 2U);
    EXPECT_EQ(AnnouncementsWithin(19800), 0);
    EXPECT_EQ(AnnouncementsWithin(1400), 1);
    EXPECT_EQ(AnnouncementsWithin(18500), 0);
    EXPECT_EQ(AnnouncementsWithin(100000), 5);
}

TEST_F(AnAnnouncer, AnnouncesAnAddressThatComesOrGoesWithinTwoSecondsAndNotMoreOftenThanOnceASecond) {
    Start({});
    EXPECT_TRUE(first_.empty());
    network_->Receive("10.0.0.9", search);
    EXPECT_EQ(SentTo(), Names{});
    network_->SetInterfaces({"10.0.0.1"});
    EXPECT_EQ(AnnouncementsWithin(2000), 1);
    EXPECT_TRUE(network_->IsJoined("10.0.0.1"));
    network_->Receive("10.0.0.9", search);
    EXPECT_EQ(SentTo(), Names{"10.0.0.9"});
    EXPECT_EQ(AnnouncementsWithin(17000), 0);
    EXPECT_EQ(AnnouncementsWithin(3000), 1);
    const uint32_t start = network_->now();
    unsigned count = 0;
    for (unsigned i = 0; i < 100; ++i) {
        network_->SetInterfaces({i % 2 ? "10.0.0.1" : "10.0.0.2"});
        network_->Receive("10.0.0.9", "");  // has the thread look
        count += static_cast<unsigned>(AnnouncementsWithin(100));
    }
    EXPECT_GE(count, 3U);
    EXPECT_LE(count, (network_->now() - start) / 1000 + 1);
}

TEST(OtherDirectories, AreNewsOnceAnHourAndNotInAnyNumber) {
    kel::discovery::OtherDirectories others;
    const uint32_t start = 0u - 1000;
    EXPECT_TRUE(others.IsNews("a", start));
    EXPECT_FALSE(others.IsNews("a", start + 5000));
    for (int i = 0; i < 100; ++i) others.IsNews("b" + std::to_string(i), start + 6000);
    EXPECT_TRUE(others.IsFull());
    EXPECT_FALSE(others.IsNews("c", start + 6000));
    others.Forget(start + 3600 * 1000 - 1);
    EXPECT_FALSE(others.IsNews("a", start + 3600 * 1000 - 1));
    others.Forget(start + 3600 * 1000);
    EXPECT_TRUE(others.IsNews("a", start + 3600 * 1000));
}

TEST_F(AnAnnouncer, SaysFarewellOnEachNetworkAndNothingAfterIt) {
    // The network goes with the server, and hands over what it was told when it does.
    struct Record : FakeNetwork {
        explicit Record(std::vector<Sent>& all) : all_(all) {}
        ~Record() override { all_ = TakeSent(); }
        std::vector<Sent>& all_;
    };
    std::vector<FakeNetwork::Sent> all;
    auto network = std::make_unique<Record>(all);
    FakeNetwork& told = *network;
    told.SetInterfaces({"10.0.0.1", "10.1.0.1"});
    server_ = std::make_unique<DiscoveryServer>(&satellite_, "7f3a", std::move(network));
    told.Settle();
    server_.reset();
    ASSERT_EQ(all.size(), 8U);
    for (size_t i = 4; i < 8; ++i) {
        EXPECT_EQ(
            all[i].text,
            "BYEBYE 1.0\r\nServer: Yar Kel Directory\r\nMax-Version: 2.1\r\nVersion: 2.1\r\nServerID: 7f3a\r\n\r\n");
        EXPECT_EQ(all[i].by, i < 6 ? "10.0.0.1" : "10.1.0.1");
        EXPECT_EQ(all[i].to, group);
    }
}

TEST_F(AnAnnouncer, AnnouncesItsUsersASecondAfterTheyChanged) {
    Start();
    server_->AddUser("bob", "y", false);
    server_->AddUser("alice", "x", true);
    EXPECT_EQ(Users(), "Users: [alice,x,1], [bob,y,0]");
    server_->AddUser("a,b\\c", "1\\,2", false);
    server_->RemoveUser("bob");
    EXPECT_EQ(Users(), "Users: [a\\,b\\\\c,1\\\\\\,2,0], [alice,x,1]");
    server_->RemoveUser("alice");
    server_->RemoveUser("a,b\\c");
    server_->RemoveUser("nobody");
    EXPECT_EQ(Users(), "Users: ");
    EXPECT_EQ(AnnouncementsWithin(15000), 0);
    server_->TriggerNotify(network_->now() + 60000);  // does not put off what is due earlier
    EXPECT_EQ(AnnouncementsWithin(7000), 1);
}

TEST_F(AnAnnouncer, TakesNoUsersThatWouldEndItsLinesOrFillItsDatagrams) {
    Start();
    server_->AddUser("bob", "y", false);
    for (const char* forged : {"al\r\nPort: 1", "al\n", "\x1b[2J", "\x7f"}) {
        EXPECT_THROW(server_->AddUser(forged, "y", false), KelInvalidParameterException);
        EXPECT_THROW(server_->AddUser("al", forged, false), KelInvalidParameterException);
    }
    const std::string large(32768 - std::string("[bob,y,0], [b,,0], ").size(), 'x');
    EXPECT_THROW(server_->AddUser("b", large + "y", false), KelInvalidParameterException);
    server_->AddUser("b", large, false);
    server_->AddUser("b", "z", false);
    for (int i = 0; i < 510; ++i) server_->AddUser(std::to_string(i), "", false);
    server_->AddUser("bob", "changed", false);
    EXPECT_THROW(server_->AddUser("one more", "", false), KelInvalidParameterException);
    for (int i = 0; i < 510; ++i) server_->RemoveUser(std::to_string(i));
    EXPECT_EQ(Users(), "Users: [b,z,0], [bob,changed,0]");
    EXPECT_THROW(server_->AddUser("c", large, false), KelInvalidParameterException);
}

TEST_F(AnAnnouncer, AnswersASearcherOnceInTwoSecondsAndThenAll) {
    Start();
    network_->Receive("10.0.0.9", search);
    EXPECT_EQ(SentTo(), Names{"10.0.0.9"});
    network_->Receive("10.0.0.8", search);
    EXPECT_EQ(SentTo(), Names{"10.0.0.8"});
    network_->Receive("10.0.0.9", search);
    network_->Receive("10.0.0.9", search);
    EXPECT_EQ(SentTo(), Names{});
    EXPECT_EQ(AnnouncementsWithin(1900), 0);
    EXPECT_EQ(AnnouncementsWithin(1200), 1);
    network_->Receive("10.0.0.9", search);
    EXPECT_EQ(SentTo(), Names{"10.0.0.9"});
    EXPECT_EQ(AnnouncementsWithin(16000), 0);
}

TEST_F(AnAnnouncer, DoesNotAnswerWhomNoRouteLeadsTo) {
    Start();
    network_->SetRoute("");
    network_->Receive("172.16.0.9", search);
    EXPECT_EQ(SentTo(), Names{});
    network_->SetRoute("10.0.0.77");  // an address that is gone by now
    network_->Receive("172.16.0.8", search);
    EXPECT_EQ(SentTo(), Names{});
}

TEST_F(AnAnnouncer, SurvivesANetworkThatTakesNothing) {
    Start();
    for (const int error : {ENETUNREACH, EMSGSIZE, EPERM}) {
        network_->SetSendError(error);
        network_->Receive("10.0.0.9", search);
        EXPECT_EQ(AnnouncementsWithin(25000), 0);
    }
    network_->SetSendError(0);
    EXPECT_GE(AnnouncementsWithin(25000), 1);
}

TEST_F(AnAnnouncer, SendsNoMoreThanTheRuleAllowsWhateverTheFlood) {
    Start();
    std::map<std::string, uint32_t> lastTo;
    std::map<std::string, size_t> countTo;
    const uint32_t start = network_->now();
    for (unsigned i = 0; network_->now() - start < 20000; ++i) {
        const unsigned host = i % 3 == 0 ? i / 3 % 1000 : i % 7;  // some ask again and again
        network_->Receive("10.0." + std::to_string(1 + host / 250) + "." + std::to_string(host % 250), search);
        if (i % 10 == 0) network_->Advance(1);
        const std::vector<FakeNetwork::Sent> sent = network_->TakeSent();
        for (const FakeNetwork::Sent& one : sent) {
            const bool isFirst = countTo[one.to] == 0;
            const uint32_t since = one.at - lastTo[one.to];
            if (!isFirst && since >= 10 && since <= 22) continue;  // the second copy, when all were told in between
            if (!isFirst) {
                EXPECT_GE(since, 2000U) << one.to;
            }
            lastTo[one.to] = one.at;
            ++countTo[one.to];
        }
    }
    EXPECT_GE(countTo[group], 7U) << "those whose turn does not come hear what all hear";
    EXPECT_GT(countTo.size(), 100U);
}

TEST_F(AnAnnouncer, TakesInAFloodOfSearchersThatDoNotRepeatAndTellsAllInTheirPlace) {
    Start();
    const uint32_t start = network_->now();
    for (unsigned i = 0; i < 5000; ++i) {
        network_->Receive("10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250), search);
        if (i % 5 == 4) network_->Advance(1);
    }
    EXPECT_EQ(network_->now() - start, 1000U) << "it waited while searches came";
    network_->Advance(11);
    size_t answers = network_->TakeSent().size();
    EXPECT_GE(answers, 200U);
    EXPECT_LE(answers, 310U) << "two copies of 50 at once and 100 a second";
    EXPECT_EQ(AnnouncementsWithin(2000), 1);
    network_->Receive("10.0.0.9", search);
    EXPECT_EQ(SentTo(), Names{"10.0.0.9"});
}

}  // namespace

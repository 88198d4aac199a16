#include "directory/DirectorySink.h"

#include "DirectoryFixture.h"

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

namespace {

class ASink : public DirectoryFixture {
protected:
    ASink() : sink_(directory_.get()) {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        getsockname(listening_.socket(), reinterpret_cast<sockaddr*>(&address), &length);
        connected_ = ::socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(connect(connected_, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair_.data()), 0);
    }
    ~ASink() override {
        for (const int socket : {connected_, pair_[0], pair_[1]}) close(socket);
    }

    CDirectorySink sink_;
    ListeningPort listening_;
    int connected_;
    std::array<int, 2> pair_{};
};

TEST_F(ASink, TellsAnIPv4PeerFromEveryOther) {
    EXPECT_EQ(CDirectorySink::getIPFromSocket(connected_), "127.0.0.1");
    EXPECT_EQ(CDirectorySink::getIPFromSocket(pair_[0]), "");
    EXPECT_EQ(CDirectorySink::getIPFromSocket(listening_.socket()), "");
    EXPECT_EQ(CDirectorySink::getIPFromSocket(-1), "");
}

TEST_F(ASink, NeedsTheCallersAddressForAllButListenersAndUsers) {
    const ScopedVariant name = MakeString("Foo");
    const ScopedVariant services = Texts({"Schedule"});
    ScopedVariant out;
    const int noPeer = pair_[0];
    EXPECT_EQ(sink_.SatRegister(noPeer, "Foo", name, &out), -1);
    EXPECT_EQ(sink_.SatUnregister(noPeer, "Foo", name, &out), -1);
    EXPECT_EQ(sink_.GetServiceReg(noPeer, "Foo", name, &out), -1);
    EXPECT_EQ(sink_.GetSatelliteHost(noPeer, "Foo", name, &out), -1);
    EXPECT_EQ(sink_.GetSatelliteId(noPeer, "Foo", name, &out), -1);
    EXPECT_EQ(sink_.RemoveSatellite(noPeer, "Foo", name, &out), -1);
    EXPECT_EQ(sink_.SetBeRightBackTimer(noPeer, "Foo", name, &out), -1);
    EXPECT_EQ(sink_.AddServiceAvailabilityListener(noPeer, nullptr, services, &out), 0);
    EXPECT_EQ(sink_.RemoveServiceAvailabilityListener(noPeer, nullptr, services, &out), 0);
    EXPECT_EQ(sink_.AddKelUsers(noPeer, nullptr, name, &out), 0);
    EXPECT_EQ(sink_.RemoveKelUser(noPeer, nullptr, services, &out), 0);
}

TEST_F(ASink, HasNoIdAndNoPartnerBeforeItIsConnected) {
    EXPECT_EQ(sink_.GetSatelliteId(), 0);
    int status = 0;
    EXPECT_EQ(sink_.PingSat("Foo", "127.0.0.1", port_, 1, &status), KEL_SATELLITE_SILENT);
}

TEST_F(ASink, LetsOnlySoManyThreadsWaitForListenersThatDoNotListen) {
    Init();
    ASSERT_EQ(sink_.KelSatellite::Connect("127.0.0.1", "Teller"), 0);
    auto deaf = std::make_unique<ListeningPort>();  // takes what the system takes for it
    ASSERT_EQ(Register(RecordOf("Deaf", 0, deaf->port())), 0);
    for (int i = 0; i < 20; ++i)
        sink_.OnServiceAvailabilityChanged(CStdStr(std::string(1 << 20, 'x').c_str()), "Teller", "Deaf", 1);
    for (int i = 0; i < 800; ++i) sink_.OnServiceAvailabilityChanged("Small", "Teller", "Deaf", 1);
    constexpr int tellers = 64;
    std::atomic<int> goOn{0};
    std::atomic<int> ended{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < tellers; ++i) {
        threads.emplace_back([&] {
            goOn += sink_.AwaitListener("Deaf");
            ++ended;
        });
    }
    while (goOn < tellers / 2 && ended < tellers) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(goOn, tellers / 2);
    deaf.reset();
    for (std::thread& thread : threads) thread.join();
}

}  // namespace

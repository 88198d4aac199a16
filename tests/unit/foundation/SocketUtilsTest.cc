#include "foundation/NetworkUtils.h"
#include "support/ReservedPort.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>

using namespace yar::networkutils;

namespace {

class Socket {
public:
    explicit Socket(int descriptor) : descriptor_(descriptor) {}
    ~Socket() {
        if (descriptor_ >= 0) close(descriptor_);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    operator int() const { return descriptor_; }

private:
    const int descriptor_;
};

sockaddr_in At(const char* address, unsigned short port) {
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = inet_addr(address);
    at.sin_port = htons(port);
    return at;
}

bool Bind(int socket, const sockaddr_in& at) {
    return bind(socket, reinterpret_cast<const sockaddr*>(&at), sizeof at) == 0;
}

TEST(ATcpSocket, ConnectsAndKnowsItsEnds) {
    const Socket listener(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_TRUE(Bind(listener, At("127.0.0.1", 0)));
    ASSERT_EQ(listen(listener, 1), 0);
    const unsigned short port = GetSocketPort(listener);
    ASSERT_NE(port, 0);

    const Socket client(ConnectTimeout("localhost", port, 2500));
    ASSERT_GE(client, 0);
    EXPECT_EQ(GetPeerName(client), "127.0.0.1");
    EXPECT_EQ(GetPeerNamePort(client), "127.0.0.1:" + std::to_string(port));
    EXPECT_EQ(GetRecvTimeoutMs(client), 0);
    EXPECT_EQ(GetSendTimeoutMs(client), 0);
    const Socket accepted(accept(listener, nullptr, nullptr));
    EXPECT_EQ(GetPeerNamePort(accepted), "127.0.0.1:" + std::to_string(GetSocketPort(client)));

    EXPECT_EQ(SetRecvTimeoutMs(client, 1500), 0);
    EXPECT_EQ(SetSendTimeout(client, 3), 0);
    EXPECT_EQ(GetRecvTimeoutMs(client), 1500);
    EXPECT_EQ(GetSendTimeoutMs(client), 3000);
    EXPECT_EQ(SetKeepAlive(client), 0);
}

TEST(ATcpSocket, ThatIsNoneOrNotConnectedGivesFailures) {
    const Socket idle(socket(AF_INET, SOCK_STREAM, 0));
    for (const int none : {-1, static_cast<int>(idle)}) {
        EXPECT_EQ(GetPeerName(none), "");
        EXPECT_EQ(GetPeerNamePort(none), "");
        EXPECT_EQ(GetSocketPort(none), 0);
    }
    EXPECT_EQ(SetKeepAlive(-1), -1);
    EXPECT_EQ(SetRecvTimeoutMs(-1, 1), -1);
    EXPECT_EQ(GetSendTimeoutMs(-1), -1);
}

TEST(AConnectionAttempt, EndsWithoutASocketOrWithOneWhoseFirstUseFails) {
    EXPECT_EQ(ConnectTimeout("no such name", 1, 100), -1);
    EXPECT_EQ(ConnectTimeout("255.255.255.255", 1, 100), -1);
    const ReservedPort refusing;
    const Socket refused(ConnectTimeout("127.0.0.1", refusing.number(), 100));
    char byte = 0;
    EXPECT_TRUE(refused < 0 || recv(refused, &byte, 1, 0) < 0);
}

TEST(AName, IsResolvedToItsAddress) {
    EXPECT_EQ(inet_ntos(GetIP("localhost")), "127.0.0.1");
    EXPECT_EQ(inet_ntos(GetIP("192.0.2.7")), "192.0.2.7");
    EXPECT_EQ(GetIP("no such name").s_addr, INADDR_NONE);
}

TEST(TheNeighbourTable, DoesNotHaveWhatIsNoNeighbour) {
    EXPECT_EQ(isIpForMacAddress("198.51.100.1", "01:23:45:67:89:ab"), 0);
    EXPECT_EQ(isIpForMacAddress("", ""), 0);
    const CStdStr mac = getMacAddress();
    EXPECT_TRUE(mac.empty() || mac.size() == strlen("01:23:45:67:89:ab")) << mac;
}

TEST(AWakeUp, SendsThePacketSixTimesToAPort) {
    // An address of the loopback network that this process has for itself.
    CStdStr address;
    address.Format("127.%d.%d.9", 1 + getpid() % 250, 1 + getpid() / 250 % 250);
    const Socket receiver(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0));
    ASSERT_TRUE(Bind(receiver, At(address.c_str(), 65535)));
    EXPECT_TRUE(SendWakeUp("0a:1B:2c:3d:4e:fF", address));
    EXPECT_FALSE(SendWakeUp("0a:1B:2c:3d:4e", address));
    EXPECT_FALSE(SendWakeUp("0a1b2c3d4eff", "no such name"));
    std::string expected(6, '\xff');
    for (int i = 0; i < 16; ++i) expected += "\x0a\x1b\x2c\x3d\x4e\xff";
    char packet[200];
    for (int i = 0; i < 6; ++i) {
        ASSERT_EQ(recv(receiver, packet, sizeof packet, 0), 102);
        EXPECT_EQ(std::string(packet, 102), expected);
    }
    EXPECT_LT(recv(receiver, packet, sizeof packet, 0), 0);
}

}  // namespace

#include "discovery/DiscoveryNetwork.h"
#include "foundation/NetworkUtils.h"
#include "foundation/UpTime.h"
#include "rpc/finder/DiscoverySocket.h"

#include <unistd.h>

namespace kel::discovery {
namespace {

class UdpNetwork : public DiscoveryNetwork {
public:
    int Open() override { return socket_.Open(); }
    in_addr Group() const override { return group_; }

    std::vector<in_addr> LocalAddresses() override { return NetworkAddresses(); }
    CStdStr AddressTowards(const CStdStr& destination) override {
        return yar::networkutils::GetIPForDestination(destination).first;
    }

    bool Join(const std::vector<in_addr>& interfaces) override { return socket_.Join(group_, interfaces); }
    bool SelectInterface(in_addr address) override { return socket_.SelectInterface(address); }
    int Send(const CStdStr& text, in_addr to) override { return socket_.Send(text, to); }
    int WaitReadable(int milliseconds) override { return socket_.WaitReadable(milliseconds); }
    ssize_t Receive(char* buffer, size_t size, in_addr* sender) override {
        in_addr at{};
        return socket_.Receive(buffer, size, sender, &at);
    }
    void EndWaiting() override { socket_.Interrupt(); }

    uint32_t UpTimeMs() override { return yar::UpTimeMs(); }
    void Pause(unsigned milliseconds) override { usleep(milliseconds * 1000); }

private:
    const in_addr group_ = DiscoveryGroup();
    DiscoverySocket socket_;
};

}  // namespace

std::unique_ptr<DiscoveryNetwork> MakeUdpNetwork() { return std::make_unique<UdpNetwork>(); }

}  // namespace kel::discovery

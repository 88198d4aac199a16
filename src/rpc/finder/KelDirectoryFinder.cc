#include "rpc/finder/KelDirectoryFinder.h"

#include "foundation/NetworkUtils.h"
#include "foundation/UpTime.h"
#include "rpc/finder/Announcement.h"
#include "rpc/finder/DiscoverySocket.h"
#include "rpc/finder/FoundDirectories.h"

#include <algorithm>
#include <cstring>

using kel::wire::Announcement;
using yar::networkutils::inet_ntos;

namespace {

constexpr size_t maxDatagram = 65536;

}  // namespace

class KEL_HIDDEN KelDirectoryFinder::Impl {
public:
    Impl() : group_(kel::DiscoveryGroup()) {
        socket_.Open();
        JoinAll();
    }

    bool Search();
    bool Wait(int milliseconds);
    std::vector<KelFoundDirectory> directories() const { return directories_.All(); }
    const CStdStr& problem() const { return problem_; }

private:
    std::vector<in_addr> JoinAll();
    bool ReceiveAll();

    const in_addr group_;
    kel::DiscoverySocket socket_;
    std::vector<char> buffer_ = std::vector<char>(maxDatagram);
    kel::FoundDirectories directories_;
    CStdStr problem_;
};

std::vector<in_addr> KelDirectoryFinder::Impl::JoinAll() {
    std::vector<in_addr> networks = kel::NetworkAddresses();
    socket_.Join(group_, networks);
    return networks;
}

bool KelDirectoryFinder::Impl::Search() {
    problem_.clear();
    if (const int error = socket_.Open()) {
        problem_.Format("answers cannot be heard on port %d: %s", kel::wire::discoveryPort, std::strerror(error));
        return false;
    }
    const CStdStr text = kel::wire::BuildSearch();
    int error = 0;
    bool wasSent = false;
    for (const in_addr network : JoinAll()) {
        if (!socket_.SelectInterface(network)) continue;
        error = socket_.Send(text, group_);
        wasSent = wasSent || error == 0;
    }
    if (!wasSent) problem_.Format("no network to search: %s", error ? std::strerror(error) : "there is only loopback");
    return wasSent;
}

bool KelDirectoryFinder::Impl::Wait(int milliseconds) {
    const uint32_t end = yar::UpTimeMs() + static_cast<uint32_t>(std::max(milliseconds, 0));
    for (;;) {
        const int left = std::max(static_cast<int32_t>(end - yar::UpTimeMs()), 0);
        const bool isNews = socket_.WaitReadable(left) > 0 && ReceiveAll();
        if (directories_.Forget(yar::UpTimeMs()) || isNews) return true;
        if (left == 0) return false;
    }
}

// Takes in what has arrived, but not for ever: the next call goes on.
bool KelDirectoryFinder::Impl::ReceiveAll() {
    bool isNew = false;
    for (int i = 0; i < 1000; ++i) {
        in_addr from{};
        in_addr on{};
        const ssize_t length = socket_.Receive(buffer_.data(), buffer_.size(), &from, &on);
        if (length < 0) break;
        Announcement heard;
        if (!kel::wire::ReadAnnouncement({buffer_.data(), static_cast<size_t>(length)}, heard)) continue;
        heard.directory.heardFrom = inet_ntos(from);
        if (on.s_addr != INADDR_ANY) heard.directory.heardOn = inet_ntos(on);
        const uint32_t now = yar::UpTimeMs();
        isNew = (heard.isFarewell ? directories_.TakeFarewell(heard.directory, now)
                                  : directories_.Take(heard.directory, now)) ||
                isNew;
    }
    return isNew;
}

KelDirectoryFinder::KelDirectoryFinder() : impl_(std::make_unique<Impl>()) {}

KelDirectoryFinder::~KelDirectoryFinder() = default;

bool KelDirectoryFinder::Search() { return impl_->Search(); }

bool KelDirectoryFinder::Wait(int milliseconds) { return impl_->Wait(milliseconds); }

std::vector<KelFoundDirectory> KelDirectoryFinder::GetDirectories() const { return impl_->directories(); }

CStdStr KelDirectoryFinder::GetProblem() const { return impl_->problem(); }

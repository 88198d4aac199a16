#include "rpc/KelDirectoryFinder.h"

#include "foundation/NetworkUtils.h"
#include "foundation/UpTime.h"
#include "rpc/transport/DiscoverySocket.h"
#include "rpc/wire/Announcement.h"

#include <algorithm>
#include <cstring>

using kel::wire::Announcement;
using yar::networkutils::inet_ntos;

namespace {

constexpr size_t maxDirectories = 64;
constexpr size_t maxDatagram = 65536;

bool HasAddress(const KelFoundDirectory& directory, const CStdStr& address) {
    return std::find(directory.addresses.begin(), directory.addresses.end(), address) != directory.addresses.end();
}

// Whether the two are announcements of one directory. The id is not enough: directories that were first started in the
// same second have drawn the same one.
bool AreOfOne(const KelFoundDirectory& a, const KelFoundDirectory& b) {
    return a.serverId == b.serverId && a.port == b.port &&
           std::any_of(a.addresses.begin(), a.addresses.end(),
                       [&](const CStdStr& address) { return HasAddress(b, address); });
}

bool IsSame(const KelDirectoryUser& a, const KelDirectoryUser& b) {
    return a.name == b.name && a.value == b.value && a.flag == b.flag;
}

// Whether `a` says what `b` says; in which order its addresses stand depends on the network that they are sent to.
bool IsSame(const KelFoundDirectory& a, const KelFoundDirectory& b) {
    return a.port == b.port && a.addresses.size() == b.addresses.size() &&
           std::is_permutation(a.addresses.begin(), a.addresses.end(), b.addresses.begin()) &&
           a.users.size() == b.users.size() &&
           std::equal(a.users.begin(), a.users.end(), b.users.begin(),
                      [](const KelDirectoryUser& x, const KelDirectoryUser& y) { return IsSame(x, y); });
}

}  // namespace

class KEL_HIDDEN KelDirectoryFinder::Impl {
public:
    Impl() : group_(kel::transport::DiscoveryGroup()), openError_(socket_.Open()) { JoinAll(); }

    bool Search();
    bool Wait(int milliseconds);
    const std::vector<KelFoundDirectory>& directories() const { return directories_; }
    const CStdStr& problem() const { return problem_; }

private:
    std::vector<in_addr> JoinAll();
    bool ReceiveAll();
    bool Take(KelFoundDirectory& heard);
    bool TakeFarewell(const KelFoundDirectory& heard);

    const in_addr group_;
    kel::transport::DiscoverySocket socket_;
    const int openError_;
    std::vector<char> buffer_ = std::vector<char>(maxDatagram);
    std::vector<KelFoundDirectory> directories_;
    CStdStr problem_;
};

std::vector<in_addr> KelDirectoryFinder::Impl::JoinAll() {
    std::vector<in_addr> networks = kel::transport::NetworkAddresses();
    socket_.Join(group_, networks);
    return networks;
}

bool KelDirectoryFinder::Impl::Search() {
    problem_.clear();
    if (openError_ != 0) {
        problem_.Format("answers cannot be heard on port %d: %s", kel::wire::discoveryPort, std::strerror(openError_));
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
        if (socket_.WaitReadable(left) > 0 && ReceiveAll()) return true;
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
        isNew = (heard.isFarewell ? TakeFarewell(heard.directory) : Take(heard.directory)) || isNew;
    }
    return isNew;
}

bool KelDirectoryFinder::Impl::Take(KelFoundDirectory& heard) {
    const auto known = std::find_if(directories_.begin(), directories_.end(),
                                    [&](const KelFoundDirectory& candidate) { return AreOfOne(candidate, heard); });
    if (known == directories_.end()) {
        if (directories_.size() >= maxDirectories) return false;
        directories_.push_back(std::move(heard));
        return true;
    }
    const bool isNew = !IsSame(*known, heard);
    *known = std::move(heard);
    return isNew;
}

// Only who speaks from a directory's own address can say farewell for it.
bool KelDirectoryFinder::Impl::TakeFarewell(const KelFoundDirectory& heard) {
    const auto leaving = std::remove_if(directories_.begin(), directories_.end(), [&](const KelFoundDirectory& one) {
        return one.serverId == heard.serverId && HasAddress(one, heard.heardFrom);
    });
    const bool isNew = leaving != directories_.end();
    directories_.erase(leaving, directories_.end());
    return isNew;
}

KelDirectoryFinder::KelDirectoryFinder() : impl_(std::make_unique<Impl>()) {}

KelDirectoryFinder::~KelDirectoryFinder() = default;

bool KelDirectoryFinder::Search() { return impl_->Search(); }

bool KelDirectoryFinder::Wait(int milliseconds) { return impl_->Wait(milliseconds); }

std::vector<KelFoundDirectory> KelDirectoryFinder::GetDirectories() const { return impl_->directories(); }

CStdStr KelDirectoryFinder::GetProblem() const { return impl_->problem(); }

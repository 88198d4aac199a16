#include "discovery/DiscoveryServer.h"

#include "foundation/Log.h"
#include "foundation/LogText.h"
#include "foundation/NetworkUtils.h"
#include "rpc/finder/Announcement.h"
#include "rpc/satellite/KelSatellite.h"
#include "rpc/values/KelException.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

using kel::discovery::UserBytes;
using yar::networkutils::inet_ntos;

namespace {

// Taken in before the thread looks again at what is due.
constexpr int searchesPerPass = 100;

KelInvalidParameterException NoRoomForUser(size_t there) {
    CStdStr problem;
    problem.Format("AddKelUsers: no room for another user: there are %zu, and at most %zu with %zu bytes in all", there,
                   DiscoveryServer::mostUsers, DiscoveryServer::mostUserBytes);
    return KelInvalidParameterException(problem.c_str());
}

}  // namespace

DiscoveryServer::DiscoveryServer(KelSatellite* satellite, const CStdStr& serverId)
    : DiscoveryServer(satellite, serverId, kel::discovery::MakeUdpNetwork()) {}

DiscoveryServer::DiscoveryServer(KelSatellite* satellite, const CStdStr& serverId, Network network)
    : satellite_(satellite),
      serverId_(serverId),
      network_(std::move(network)),
      group_(network_->Group()),
      nextNotifyMs_(network_->UpTimeMs()) {
    CBBLog::debug("DiscoveryServer");
    initSocket();
    refreshAddressList();
    LaunchSelectLoop();
}

DiscoveryServer::~DiscoveryServer() {
    CBBLog::debug("~DiscoveryServer");
    stopping_ = true;
    network_->EndWaiting();
    selectThread_->Join();
    try {
        SendByeBye();
    } catch (const std::exception& failure) {  // no memory: the directory closes without its farewell
        CBBLog::error("Discovery: %s", failure.what());
    }
}

void DiscoveryServer::initSocket() {
    const int error = network_->Open();
    if (error == openError_) return;
    openError_ = error;
    isOpenedAnew_ = error == 0;
    if (error != 0) {
        CBBLog::error("Discovery: the directory cannot be searched for, on UDP port %d: %s%s; trying every 20 seconds",
                      kel::wire::discoveryPort, std::strerror(error),
                      error == EADDRINUSE ? ", by a program that does not share it (ss -ulpn says which)" : "");
    }
}

void DiscoveryServer::LaunchSelectLoop() {
    selectThread_ =
        std::make_unique<PThread>(new PThreadDelegateMember<DiscoveryServer>(this, &DiscoveryServer::SelectLoop));
    selectThread_->Start();
}

// Interfaces come and go, so the list is made anew each time. To join once more where the group was joined is harmless.
void DiscoveryServer::refreshAddressList() {
    PMutexHold hold(addresses_);
    addresses_.value() = network_->LocalAddresses();
    const bool isJoined = network_->Join(addresses_.value());
    if (noRoom_.Changes(!isJoined) && !isJoined) {
        CBBLog::error("Discovery: on some of the %zu networks searches to the group cannot be heard; %s",
                      addresses_.value().size(), "raise the sysctl net.ipv4.igmp_max_memberships");
    }
    if (!std::exchange(isOpenedAnew_, false)) return;
    CBBLog::note("Discovery: searches reach the directory from here on, on UDP port %d", kel::wire::discoveryPort);
}

// What comes and goes again and again is not told more often than the thread looks at anything else.
void DiscoveryServer::NoticeAddresses() {
    const auto isSame = [](in_addr a, in_addr b) { return a.s_addr == b.s_addr; };
    const std::vector<in_addr> now = network_->LocalAddresses();
    const std::vector<in_addr> told = Addresses();
    if (!std::equal(now.begin(), now.end(), told.begin(), told.end(), isSame)) TriggerNotify(lastNotifyMs_ + waitMs);
}

// --- The thread ----------------------------------------------------------------------------------------------------

unsigned int DiscoveryServer::SelectLoop(void* /*argument*/) {
    SaidOnce fails;
    while (!stopping_) {
        try {
            if (!Pass()) break;
        } catch (const std::exception& failure) {  // memory runs out, and comes back
            if (fails.Begins()) CBBLog::error("Discovery: %s", failure.what());
            network_->Pause(waitMs);
        }
    }
    return 0;
}

// One round; false when there is no point in another.
bool DiscoveryServer::Pass() {
    SendSecondCopies();
    NoticeAddresses();
    NotifyAllIfDue();
    const int ready = network_->WaitReadable(WaitMs());
    if (ready > 0) {
        for (int i = 0; i < searchesPerPass && !stopping_ && ProcessMSEARCH(); ++i) {
        }
    }
    return ready >= 0;
}

// What an answer owes is sent here, for to wait for it would leave the searches that arrive meanwhile to be lost. How
// many there can be is bounded by the answers that ReplyLimits allows at once.
void DiscoveryServer::SendSecondCopies() {
    while (!stopping_ && !secondCopies_.empty()) {
        const SecondCopy& next = secondCopies_.front();
        if (static_cast<int32_t>(network_->UpTimeMs() - next.dueMs) < 0) break;
        network_->Send(next.text, next.to);
        secondCopies_.pop_front();
    }
}

int DiscoveryServer::WaitMs() {
    if (secondCopies_.empty()) return waitMs;
    const auto left = static_cast<int32_t>(secondCopies_.front().dueMs - network_->UpTimeMs());
    return std::clamp(left, 0, waitMs);
}

void DiscoveryServer::NotifyAllIfDue() {
    const uint32_t now = network_->UpTimeMs();
    if (static_cast<int32_t>(now - nextNotifyMs_) < 0) return;
    lastNotifyMs_ = now;
    nextNotifyMs_ = now + notifyPeriodMs;
    initSocket();
    refreshAddressList();
    limits_.AnsweredAll(now);
    limits_.Forget(now);
    others_.Forget(now);
    SendNotify(CStdStr());
}

// False when nothing was there to be received.
bool DiscoveryServer::ProcessMSEARCH() {
    char buffer[kel::discovery::notifyBytes];
    in_addr sender{};
    const ssize_t length = network_->Receive(buffer, sizeof buffer, &sender);
    if (length < 0) return false;
    const std::string_view datagram(buffer, static_cast<size_t>(length));
    if (kel::discovery::IsSearch(datagram.substr(0, kel::discovery::searchBytes))) SendNotify(inet_ntos(sender));
    else HeedNotify(datagram, sender);
    return true;
}

// Two directories on a network are more often an accident than not: satellites that search register at either.
void DiscoveryServer::HeedNotify(std::string_view datagram, in_addr sender) {
    kel::wire::Announcement heard;
    if (others_.IsFull() || !kel::discovery::ReadNotifyHead(datagram, heard)) return;
    const CStdStr& id = heard.directory.serverId;
    if (id == serverId_ || !others_.IsNews(id, network_->UpTimeMs())) return;
    CBBLog::note("Discovery: there is another directory on the network, %.64s at %s port %d; %s", id.c_str(),
                 inet_ntos(sender).c_str(), heard.directory.port, "satellites that search may register there");
}

// To all, or, when the two-second rule allows it, to `target` alone.
void DiscoveryServer::SendNotify(const CStdStr& target) {
    if (stopping_) return;
    if (target.empty()) {
        const CStdStr userList = UserList();
        for (const in_addr interface : Addresses()) SendNotifyFrom(interface, group_, userList);
        return;
    }
    uint32_t toAllAt = 0;
    if (!limits_.MayAnswer(target, network_->UpTimeMs(), &toAllAt)) {
        TriggerNotify(toAllAt);
        return;
    }
    const in_addr own{inet_addr(network_->AddressTowards(target).c_str())};
    SendNotifyFrom(own, in_addr{inet_addr(target.c_str())}, UserList());
}

void DiscoveryServer::SendNotifyFrom(in_addr interface, in_addr to, const CStdStr& userList) {
    const std::vector<in_addr> addresses = Addresses();
    if (stopping_ || addresses.empty()) return;
    const CStdStr aliases = kel::discovery::BuildAliases(addresses, interface);
    if (!network_->SelectInterface(interface)) return;
    CStdStr text = kel::discovery::BuildNotify(serverId_, aliases, satellite_->getSatellitePort(), userList);
    if (to.s_addr == group_.s_addr) {
        SendTwice(text, to);
        return;
    }
    SendFirstCopy(text, to);
    // One more, for the clock cuts off what is less than a millisecond.
    secondCopies_.push_back({std::move(text), to, network_->UpTimeMs() + betweenCopiesMs + 1});
}

void DiscoveryServer::SendByeBye() {
    const CStdStr text = kel::discovery::BuildByeBye(serverId_);
    for (const in_addr interface : Addresses()) {
        if (network_->SelectInterface(interface)) SendTwice(text, group_);
    }
}

// Datagrams get lost, so each is sent twice.
void DiscoveryServer::SendTwice(const CStdStr& text, in_addr to) {
    SendFirstCopy(text, to);
    network_->Pause(betweenCopiesMs);
    network_->Send(text, to);
}

void DiscoveryServer::SendFirstCopy(const CStdStr& text, in_addr to) {
    const bool isTooLong = network_->Send(text, to) == EMSGSIZE;
    if (tooLong_.Changes(isTooLong) && isTooLong) {
        CBBLog::warn(
            "Discovery: with its users the announcement has %zu bytes, more than fit a datagram: nobody hears it",
            text.size());
    }
}

std::vector<in_addr> DiscoveryServer::Addresses() {
    PMutexHold hold(addresses_);
    return addresses_.value();
}

// --- Any thread ----------------------------------------------------------------------------------------------------

// When a round of the thread's comes between, its announcement carries what this one was to tell.
void DiscoveryServer::TriggerNotify(unsigned int atMs) {
    uint32_t next = nextNotifyMs_;
    while (static_cast<int32_t>(atMs - next) < 0 && !nextNotifyMs_.compare_exchange_weak(next, atMs)) {
    }
}

void DiscoveryServer::AddUser(const CStdStr& name, const CStdStr& value, bool flag) {
    if (kel::HasControls(name) || kel::HasControls(value))
        throw KelInvalidParameterException("AddKelUsers: invalid user: a control character in its name or value");
    const UserDetails details{value, flag};
    PMutexHold hold(users_);
    std::map<CStdStr, UserDetails>& users = users_.value();
    const auto known = users.find(name);
    const size_t replaced = known == users.end() ? 0 : UserBytes(name, known->second);
    const size_t bytes = userBytes_ - replaced + UserBytes(name, details);
    if (bytes > mostUserBytes || (known == users.end() && users.size() == mostUsers)) throw NoRoomForUser(users.size());
    users[name] = details;
    userBytes_ = bytes;
    userListIsOld_ = true;
    TriggerNotify(network_->UpTimeMs() + userChangeDelayMs);
}

void DiscoveryServer::RemoveUser(const CStdStr& name) {
    PMutexHold hold(users_);
    const auto known = users_.value().find(name);
    if (known != users_.value().end()) {
        userBytes_ -= UserBytes(name, known->second);
        users_.value().erase(known);
    }
    userListIsOld_ = true;
    TriggerNotify(network_->UpTimeMs() + userChangeDelayMs);
}

// Built once for any number of changes: a call may add many users, and the list grows with them.
CStdStr DiscoveryServer::UserList() {
    PMutexHold hold(users_);
    if (userListIsOld_) BuildUserListString();
    userListIsOld_ = false;
    return userListString_;
}

void DiscoveryServer::BuildUserListString() { userListString_ = kel::discovery::BuildUserList(users_.value()); }

// DiscoveryServer: makes the directory findable on the local networks. It tells everyone of the directory with a NOTIFY
// to a multicast group, every 20 seconds and a second after its users changed, answers searches, and says BYEBYE at the
// end. docs/discovery.md has the datagrams.
//
// The directory's CDirectorySink makes it once it is connected and destroys it when the directory closes.
//
// Threads: one of its own sends everything but the BYEBYE, and alone sends and receives while it runs. AddUser,
// RemoveUser and TriggerNotify may be called from any thread. Locks are held for moments, one at a time.
//
// What goes wrong on the network is ordinary, and left to the next announcement: a machine without a network stays
// quiet, and a port that another program holds is tried again. Addresses that come or go bring that announcement
// forward. ReplyLimits bounds what anybody can make it send. Searches are taken in as fast as they come: nothing that a
// search causes is waited for. Of other directories that announce themselves a line in the log tells.
#pragma once

#include "discovery/DiscoveryMessage.h"
#include "discovery/DiscoveryNetwork.h"
#include "discovery/OtherDirectories.h"
#include "discovery/ReplyLimits.h"
#include "foundation/Locks.h"
#include "foundation/SaidOnce.h"
#include "foundation/StdString.h"
#include "foundation/Thread.h"

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string_view>
#include <vector>

class KelSatellite;

class DiscoveryServer {
public:
    using UserDetails = kel::discovery::UserDetails;
    using Network = std::unique_ptr<kel::discovery::DiscoveryNetwork>;

    static constexpr uint32_t notifyPeriodMs = 20000;
    static constexpr uint32_t userChangeDelayMs = 1000;
    static constexpr int waitMs = 1000;
    static constexpr unsigned betweenCopiesMs = 10;

    // Starts to announce `serverId` and the port that `satellite`, which outlives this object, has at the time. Throws
    // std::runtime_error when there is no thread to be had.
    DiscoveryServer(KelSatellite* satellite, const CStdStr& serverId);
    DiscoveryServer(KelSatellite* satellite, const CStdStr& serverId, Network network);

    // Ends the thread, then says BYEBYE on every network: nothing of this directory follows it.
    virtual ~DiscoveryServer();
    DiscoveryServer(const DiscoveryServer&) = delete;
    DiscoveryServer& operator=(const DiscoveryServer&) = delete;

    // Who is announced has to fit a datagram, with room to spare.
    static constexpr size_t mostUsers = 512;
    static constexpr size_t mostUserBytes = 32768;  // of the list of them all

    // Announces a user, or what changed of the one that has the name. Throws KelInvalidParameterException, and changes
    // nothing, when there is no room for it or a control character in it.
    void AddUser(const CStdStr& name, const CStdStr& value, bool flag) KEL_EXCLUDES(users_);
    // Announces it no more.
    void RemoveUser(const CStdStr& name) KEL_EXCLUDES(users_);

    // Has the next NOTIFY to all leave at `atMs` of up-time, give or take a second, if it would leave later.
    void TriggerNotify(unsigned int atMs);

private:
    struct SecondCopy {
        CStdStr text;
        in_addr to;
        uint32_t dueMs;
    };

    void initSocket();
    void refreshAddressList() KEL_EXCLUDES(addresses_);
    void NoticeAddresses() KEL_EXCLUDES(addresses_);
    void LaunchSelectLoop();
    unsigned int SelectLoop(void*);
    bool Pass();
    void NotifyAllIfDue();
    void SendSecondCopies();
    int WaitMs();
    bool ProcessMSEARCH();
    void HeedNotify(std::string_view datagram, in_addr sender);
    void SendNotify(const CStdStr& target);
    void SendNotifyFrom(in_addr interface, in_addr to, const CStdStr& userList) KEL_EXCLUDES(addresses_);
    void SendByeBye() KEL_EXCLUDES(addresses_);
    void SendTwice(const CStdStr& text, in_addr to);
    void SendFirstCopy(const CStdStr& text, in_addr to);
    void BuildUserListString() KEL_REQUIRES(users_);
    std::vector<in_addr> Addresses() KEL_EXCLUDES(addresses_);
    CStdStr UserList() KEL_EXCLUDES(users_);

    KelSatellite* const satellite_;
    const CStdStr serverId_;
    const Network network_;
    const in_addr group_;
    PLocker<std::vector<in_addr>> addresses_;
    std::atomic<bool> stopping_{false};
    std::atomic<uint32_t> nextNotifyMs_;  // when the next NOTIFY to all is due

    // The thread's.
    uint32_t lastNotifyMs_ = 0;
    int openError_ = 0;          // why searches cannot be heard, as it was said last
    bool isOpenedAnew_ = false;  // and has not joined the group yet
    SaidOnce noRoom_;
    SaidOnce tooLong_;
    kel::discovery::ReplyLimits limits_;
    kel::discovery::OtherDirectories others_;
    std::deque<SecondCopy> secondCopies_;  // in the order in which they are due

    PLocker<std::map<CStdStr, UserDetails>> users_;
    CStdStr userListString_ KEL_GUARDED_BY(users_);
    size_t userBytes_ KEL_GUARDED_BY(users_) = 0;        // of the list that is built next
    bool userListIsOld_ KEL_GUARDED_BY(users_) = false;  // users have changed since it was built
    std::unique_ptr<PThread> selectThread_;
};

// A satellite's standing at its directory: what the directory knows of it, and what it still has to be told.
#pragma once

#include "foundation/Locks.h"
#include "foundation/SaidOnce.h"
#include "rpc/satellite/KelSatellite.h"
#include "rpc/satellite/LastProblem.h"
#include "rpc/satellite/Link.h"
#include "rpc/satellite/MethodTable.h"

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <vector>

namespace kel {

// The services that a satellite listens for, which it keeps when it leaves its directory.
using Subscriptions = PLocker<std::vector<CStdStr>>;
// Whether it is not among them yet.
bool Subscribe(Subscriptions& subscriptions, const CStdStr& service);
void Unsubscribe(Subscriptions& subscriptions, const CStdStr& service);

// Over one link. Results are those of KelSatellite's members. Any thread; Standing.cc opens with how it works.
class Standing {
public:
    using StatusHandler = std::function<void(int satId, KELSTATUS status)>;

    // `changed` is called, on a worker thread, when the directory has lost the satellite or has it again. `problem`
    // is told why the directory refused what it was told. All of these outlive the object.
    Standing(Link& link, const MethodTable& methods, Subscriptions& subscriptions, LastProblem& problem,
             StatusHandler changed);

    int Register();
    int Unregister(bool leave);
    // Ends it on this side, when what is being told has been told; nothing begins one any more. Returns whether there
    // was one.
    bool End();
    // Ends it, and tells a directory that knew this satellite.
    void Leave();

    // A service came or went.
    int TellOfService(const CStdStr& name);
    // Whether the directory has yet to hear of that.
    bool IsDue(const CStdStr& service);
    int Listen(const CStdStr& service);
    int StopListening(const CStdStr& service);

    // The regular question whether the directory still knows this satellite.
    void Check();

    int GetSatelliteId(int* id);
    bool IsOwnId(int satId);
    bool IsRegistered();
    bool IsEnding();
    bool IsDirectoryMissing() const { return directoryMissing_.isSo(); }

    // Moves to `directory`, under a new id, and leaves the one before. Returns 0, or why the other does not take it,
    // and then nothing has changed; nothing when there is no standing to move.
    std::optional<int> MoveTo(const transport::Address& directory);
    // The directory answers at another address: that is all that changes.
    void FollowTo(const transport::Address& directory);

private:
    using Names = std::set<CStdStr>;
    struct Due {
        Names services;
        Names subscriptions;
    };
    class Taken;
    class Turn;
    using Elsewhere = std::optional<transport::Address>;  // a directory to move to

    transport::Outcome Tell(const char* method, const tagVARIANT& in);
    ScopedVariant Record(const Services& services);
    ScopedVariant RecordWithId(const Services& services, int satId);
    int RegisterThese(const Services& services, bool& isNew, const Elsewhere& elsewhere = {});
    int RegisterAll(const Elsewhere& elsewhere = {});
    void Begin(int satId, const CStdStr& serverId, const Services& told, const transport::Outcome& outcome);
    int Settle(Names Due::*what, const CStdStr* only = nullptr);
    int TellServices(const Names& names);
    int TellSubscriptions(const Names& names);
    void SettleAll();
    void Heed(int satId, const transport::Outcome& answer);
    bool IsAnswered(const transport::Outcome& answer);
    bool ReportGone(const Elsewhere& elsewhere = {});
    void Report(int satId, KELSTATUS status);
    void AllIsDue() KEL_REQUIRES(lock_);
    void SubscriptionsAreDue() KEL_REQUIRES(lock_);

    Link& link_;
    const MethodTable& methods_;
    Subscriptions& subscriptions_;
    LastProblem& problem_;
    const StatusHandler changed_;

    SaidOnce directoryMissing_;  // when it was asked last
    SaidOnce settlingFails_;     // when the directory was told last

    PCondMutex lock_;  // broadcast when the turn is free again and when `satId_` changes
    bool turnTaken_ KEL_GUARDED_BY(lock_) = false;
    bool registered_ KEL_GUARDED_BY(lock_) = false;  // changed only by who has the turn, like the two after it
    int satId_ KEL_GUARDED_BY(lock_) = 0;
    CStdStr serverId_ KEL_GUARDED_BY(lock_);
    bool ending_ KEL_GUARDED_BY(lock_) = false;  // nothing registers it any more
    bool reportedGone_ KEL_GUARDED_BY(lock_) = false;
    Due due_ KEL_GUARDED_BY(lock_);
    // Where the directory said last that it knows this satellite.
    std::weak_ptr<transport::Connection> knownOver_ KEL_GUARDED_BY(lock_);
};

}  // namespace kel

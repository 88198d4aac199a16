// What is behind a KelSatellite: its standing at the directory, its methods, and the endpoint while it is connected.
#pragma once

#include "rpc/EventQueue.h"
#include "rpc/KelSatellite.h"
#include "rpc/MethodTable.h"
#include "rpc/transport/AddressBook.h"
#include "rpc/transport/Endpoint.h"
#include "rpc/transport/OneWayQueues.h"

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

class KEL_HIDDEN KelSatellite::Impl : private kel::transport::CallReceiver {
public:
    explicit Impl(KelSatellite& satellite);
    ~Impl() override;

    int Connect(const char* host, const char* name);
    int ConnectUser(const char* host, const char* user);
    void Disconnect();

    int Request(const char* satellite, const char* method, const tagVARIANT& in, tagVARIANT* out, KELFLAGS flags,
                tagVARIANT* extra, std::chrono::milliseconds timeout);
    bool WaitForOneWayRoom(const char* satellite, int milliseconds);
    void ForgetAddress(const char* satellite);
    int Ping(const char* name, const char* host, unsigned short port, int satId, KELSTATUS* status,
             std::chrono::milliseconds timeout);
    void PingLater(const char* name, const char* host, unsigned short port, int satId, PingHandler heard);

    CStdStr LastProblem();

    int GetSatelliteId(int* id);
    const char* name() const { return name_.c_str(); }
    unsigned short port();

    int Register();
    int Unregister(bool leave);
    int AddService(const char* name, const char* description, KelSatelliteDelegateGeneric* delegate);
    int RemoveService(const char* name);
    int Listen(const char* service);
    int StopListening(const char* service);
    kel::MethodPtr FindMethod(const char* name) const { return methods_.Find(name); }

private:
    // What exists while connected. Calls under way in other threads share it, so that Disconnect does not pull it from
    // under them.
    struct Link {
        Link(Impl& impl, const kel::transport::Address& directory, const CStdStr& name)
            : self(name),
              endpoint(impl),
              addresses(endpoint.outbound(), directory, self),
              oneWay(endpoint.outbound(), addresses),
              news(endpoint, "OnServiceAvailabilityChanged of " + name),
              standings(endpoint, "OnStatusChange of " + name) {}

        const CStdStr self;    // the caller's name that others see
        bool listens = false;  // has a port and may be registered; set before the link is shared
        kel::transport::Endpoint endpoint;
        kel::transport::AddressBook addresses;
        kel::transport::OneWayQueues oneWay;
        kel::EventQueue news;  // of services, over whichever connection it comes
        kel::EventQueue standings;

        // Of LookAround, which runs again when it has ended.
        std::chrono::steady_clock::time_point nextLookForOwn{};
        std::optional<std::chrono::steady_clock::time_point> missingSince;
        bool searchedInVain = false;
        bool saidRefusal = false;
    };
    using LinkPtr = std::shared_ptr<Link>;

    void OnCall(const kel::transport::ConnectionPtr& connection, kel::wire::Message& call) override;
    int RunMethod(const kel::transport::ConnectionPtr& connection, const kel::wire::Message& call, ScopedVariant& out);
    int TellAvailability(const tagVARIANT& in);
    ScopedVariant AnswerPing(const tagVARIANT& in);
    bool IsOwnId(int satId);
    ScopedVariant AnswerDescribe() const;

    LinkPtr link();
    int ConnectAs(const kel::transport::Address& directory);
    int Open(Link& link, bool isDirectory);
    std::optional<kel::transport::Address> DirectoryOn(const char* host, const CStdStr& name);
    bool IsDirectoryAt(Link& link, const kel::transport::Address& address, std::chrono::milliseconds timeout,
                       std::string* problem = nullptr);
    void KeepProblem(const std::string& problem);
    void Drop(const LinkPtr& link);

    // SatelliteStanding.cc opens with how the directory is told.
    using Names = std::set<CStdStr>;
    struct Due {
        Names services;
        Names subscriptions;
    };
    class Taken;
    class Turn {
    public:
        explicit Turn(Impl& impl) : impl_(impl) {
            PMutexHold hold(impl_.standing_);
            while (impl_.turnTaken_) impl_.standing_.wait();
            impl_.turnTaken_ = true;
        }
        ~Turn() {
            PMutexHold hold(impl_.standing_);
            impl_.turnTaken_ = false;
            impl_.standing_.broadcast();
        }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

    private:
        Impl& impl_;
    };

    using Elsewhere = std::optional<kel::transport::Address>;  // a directory to move to
    kel::transport::Outcome CallAt(Link& link, const kel::transport::Address& directory, const char* method,
                                   const tagVARIANT& in, std::chrono::milliseconds timeout);
    kel::transport::Outcome CallDirectory(Link& link, const char* method, const tagVARIANT& in,
                                          std::chrono::milliseconds timeout);
    ScopedVariant Record(Link& link, const kel::Services& services);
    ScopedVariant RecordWithId(Link& link, const kel::Services& services, int satId);
    int RegisterThese(Link& link, const kel::Services& services, bool& isNew, const Elsewhere& elsewhere = {});
    int RegisterAll(Link& link, const Elsewhere& elsewhere = {});
    void BeginStanding(Link& link, int satId, const CStdStr& serverId, const kel::Services& told,
                       const kel::transport::Outcome& outcome);
    bool EndStanding();
    int TellOfService(Link& link, const CStdStr& name);
    int Settle(Link& link, Names Due::*what, const CStdStr* only = nullptr);
    int TellServices(Link& link, const Names& names);
    int TellSubscriptions(Link& link, const Names& names);
    void SettleAll(Link& link);
    void CheckStanding();
    void Heed(Link& link, int satId, const kel::transport::Outcome& answer);
    bool IsAnswered(Link& link, const kel::transport::Outcome& answer);
    bool ReportGone(Link& link, const Elsewhere& elsewhere = {});
    void Report(Link& link, int satId, KELSTATUS status);
    bool IsRegistered();
    void AllIsDue() KEL_REQUIRES(standing_);
    void SubscriptionsAreDue() KEL_REQUIRES(standing_);

    // SatelliteMoving.cc opens with when it moves.
    void LookAround();
    bool IsAnsweredFor(Link& link);
    void Search(Link& link);
    void MoveTo(Link& link, const kel::transport::Address& directory);
    bool IsKnownAt(Link& link, const kel::transport::Address& directory);
    bool MoveRecord(Link& link, const kel::transport::Address& directory);

    int CallSatellite(Link& link, const std::string& satellite, const char* method, const tagVARIANT& in,
                      kel::transport::Deadline deadline, ScopedVariant& value, std::string& problem);
    int PostOneWay(Link& link, const std::string& satellite, const char* method, const tagVARIANT& in,
                   std::string& problem);
    kel::transport::Outcome AskWhoItIs(Link& link, const kel::transport::Address& address, const tagVARIANT& in,
                                       std::chrono::milliseconds timeout);
    struct LatePing;
    void AskLater(Link& link, const std::shared_ptr<LatePing>& ping);
    bool AskAgain(Link& link, const std::shared_ptr<LatePing>& ping, const kel::transport::Outcome& outcome);

    KelSatellite& satellite_;
    kel::MethodTable methods_;
    // The owner's thread's and, while an endpoint exists and they cannot change, its workers'.
    CStdStr name_;
    std::optional<kel::transport::Address> own_;  // where this machine's directory listens, if it was to be found

    PMutex lock_;
    LinkPtr link_ KEL_GUARDED_BY(lock_);

    PLocker<CStdStr> problem_;  // of the author's call that failed last

    PCondMutex standing_;  // broadcast when the turn is free again and when `satId_` changes
    bool turnTaken_ KEL_GUARDED_BY(standing_) = false;
    bool registered_ KEL_GUARDED_BY(standing_) = false;  // changed only by who has the turn, like the two after it
    int satId_ KEL_GUARDED_BY(standing_) = 0;
    CStdStr serverId_ KEL_GUARDED_BY(standing_);
    bool leaving_ KEL_GUARDED_BY(standing_) = false;  // nothing registers it any more
    bool reportedGone_ KEL_GUARDED_BY(standing_) = false;
    bool directoryMissing_ KEL_GUARDED_BY(standing_) = false;
    std::vector<CStdStr> subscriptions_ KEL_GUARDED_BY(standing_);  // kept over Disconnect, as the methods are
    Due due_ KEL_GUARDED_BY(standing_);
    bool settlingFailed_ KEL_GUARDED_BY(standing_) = false;  // when the directory was told last
    // Where the directory said last that it knows this satellite.
    std::weak_ptr<kel::transport::Connection> knownOver_ KEL_GUARDED_BY(standing_);
};

namespace kel {

// Whether `name`, in any case, is the directory's own.
bool IsDirectoryName(const CStdStr& name);

constexpr std::chrono::seconds shortTimeout{5};  // of what must not hold anybody up for long
constexpr const char* noDirectory = " answers, but is no directory";
constexpr std::chrono::seconds foundTimeout{2};  // of an address that may be out of reach, while others wait

// The result that a caller gets for the way in which a call ended.
int CodeOf(const transport::Outcome& outcome);

}  // namespace kel

// KelDirectory: the module of the program KelDirectory. It owns the registry of satellites, the list of those who
// listen for services and the endpoint ("MainRegister") at which other satellites call it; it does what the published
// methods ask, and has every satellite checked every five seconds.
//
// Threads: init and close belong to the main thread, the rounds of checks to a thread of their own. The requests run on
// libkel's threads, several at a time. The locks here guard the list of registrations in progress and the wish to stop
// and are never held across anything else; the registry and the list have locks of their own.
#pragma once

#include "directory/LastRun.h"
#include "foundation/Locks.h"
#include "foundation/SaidOnce.h"
#include "foundation/StdString.h"
#include "foundation/Strand.h"
#include "foundation/Thread.h"
#include "host/YarModuleBase.h"
#include "registry/Registration.h"
#include "registry/ServiceAvailability.h"
#include "rpc/values/Variant.h"

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <vector>

class CDirectorySink;

class KelDirectory : public YarModuleBase, private ServiceProviders {
public:
    KelDirectory();
    ~KelDirectory() override;

    // Loads the registry and connects. False, with the reason in the log, when the directory cannot serve.
    bool init(const std::vector<CStdStr>& args) override;
    // Waits for the checks under way, ends the endpoint and takes it out of the registry. Does nothing the second time.
    void close() override;

    // The rounds of checks, until close. Returns 0.
    unsigned int CheckSatellitesThreadProc(void*);

    // The address under which a satellite that calls from `callerIp` is recorded: "127.0.0.1" for one on this machine,
    // by whichever interface it came, else `callerIp` itself.
    CStdStr getIPToUse(const char* callerIp) const;
    // Ends what keeps others from registering `name`; nothing when it is not being registered.
    void RemoveFromPending(const CStdStr& name) KEL_EXCLUDES(pendingLock_);

    // The requests. `callerIp` is the dotted address that a request came from, `caller` the name of the calling
    // satellite. The result travels to the caller with `out`: 0, a code of KelResult.h, or what the registry says. A
    // record that cannot be read throws KelInvalidParameterException and changes nothing.
    static constexpr int answeredLater = -2;  // of SatRegister: not sent, the answer comes when the holder was asked

    // Registers the satellite that the record describes. `out` becomes [server id, satId]. A living holder of the name
    // with another id keeps it (KEL_NAME_TAKEN); a dead one is replaced. While a holder is asked, the call of the
    // thread that runs this waits in a place of its own (answeredLater), or is refused with KEL_NO_RESOURCES when too
    // many do; a thread that runs no call waits itself.
    int SatRegister(const tagVARIANT* in, tagVARIANT* out, const char* callerIp, const CStdStr& caller)
        KEL_EXCLUDES(pendingLock_);
    // Withdraws the services that the record lists. `out` becomes the number of services left after the
    // last of them; 0 when it lists none.
    int SatUnRegister(const tagVARIANT* in, tagVARIANT* out, const char* callerIp, const CStdStr& caller);
    // Removes the satellite that the record names by name and id.
    int SatRemove(const tagVARIANT* in, const char* callerIp, const CStdStr& caller);
    // [destination, service name]: who provides the service, as an array of service descriptions. The destination is a
    // satellite's name, "all" for all providers, or "any" (or empty) for one, the last in the order of names.
    int SatGetService(const tagVARIANT* in, tagVARIANT* out, const char* callerIp, const CStdStr& caller);
    // A satellite's name: `out` becomes [address, port].
    int SatGetHostName(const tagVARIANT& in, tagVARIANT* out, const char* callerIp);
    // A satellite's name: `out` becomes its id.
    int SatGetId(const tagVARIANT* in, tagVARIANT* out, const char* callerIp, const CStdStr& caller);
    // A number of seconds during which the caller is not to be pinged.
    int SatSetBeRightBack(const tagVARIANT* in, tagVARIANT* out, const char* callerIp, const CStdStr& caller);
    // The names of services that the caller wants to hear about, or no more.
    int AddServiceListener(const tagVARIANT* in, tagVARIANT* out, const CStdStr& caller);
    int RemoveServiceListener(const tagVARIANT* in, tagVARIANT* out, const CStdStr& caller);

    // Appends the names of the satellites that publish the service, in the order of names. Returns 0.
    int GetServices(const CStdStr& serviceName, std::list<CStdStr>& satellites) override;

private:
    struct Record;
    struct Registering;
    class PendingName;
    class WaitingPlace;

    bool HasOtherHolder(Registering& registering) const;
    int AskHolder(Registering& registering, tagVARIANT* out);
    int AskHolderLater(std::unique_ptr<Registering> registering);
    void GoOn(std::function<void()> rest);
    int HearOfHolder(const Registering& registering, int rc, int status, tagVARIANT* out);
    int Admit(const Registering& registering, tagVARIANT* out);
    bool AddToPending(const CStdStr& name) KEL_EXCLUDES(pendingLock_);

    bool IsSomebodyElse(const CStdStr& name, const CStdStr& ip, const char* callerIp, const CStdStr& caller) const;

    static void SayWhatItWorksWith();
    void SayThatItServes(bool hasRegistry, size_t loaded);
    void StartChecks();
    bool StopsWithin(long milliseconds) KEL_EXCLUDES(stopSignal_);

    CRegistration registration_;

    // Owned, and not by a smart pointer: requests look at it until its destructor has waited for the last of them.
    CDirectorySink* sink_ = nullptr;
    boost::shared_ptr<ServiceAvailability> serviceAvailability_;

    PMutex pendingLock_;
    std::vector<CStdStr> pendingRegistrations_ KEL_GUARDED_BY(pendingLock_);

    // Registrations that wait for a holder to answer, and what of them is in memory meanwhile.
    std::atomic<size_t> waitingRegistrations_{0};
    std::atomic<size_t> waitingBytes_{0};
    static constexpr int maxGoingOn =
        8;  // of those whose holder was asked, at a time: enough to share a round of syncing
    Strand<std::function<void()>> goOn_{SIZE_MAX, maxGoingOn};

    LastRun lastRun_;
    bool serves_ = false;  // since the last init; the main thread's

    std::unique_ptr<PThread> checkThread_;
    SaidOnce checksFail_;  // the latest round
    PCondMutex stopSignal_;
    bool stopping_ KEL_GUARDED_BY(stopSignal_) = false;
};

// Reads a registration record: [satellite name, host name, port (VT_UI2), protocol version, satId, number of services,
// service entries]. `services` must hold no value; the caller clears it. Returns 0; throws
// KelInvalidParameterException.
int GetRegistration(const tagVARIANT& in, CStdStr& name, CStdStr& host, unsigned short* port, int* protocolVersion,
                    int* satId, int* serviceCount, tagVARIANT* services);

// Reads entry `i` of the service entries: [service name, description]. Returns 0; throws KelInvalidParameterException.
int GetService(tagVARIANT* services, int i, CStdStr& name, CStdStr& description);

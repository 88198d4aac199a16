// KelSatellite: one endpoint of the remote-call library. Derive from it, publish methods in CreateServices, Connect to
// a directory, and call other satellites by name with Request.
//
//     class Recorder : public KelSatellite {
//     public:
//         ~Recorder() override { Disconnect(); }   // before the members that methods use are gone
//     protected:
//         void CreateServices() override {
//             AddService("Schedule", "Recording schedule", new KelSatelliteDelegateMemberEx<Recorder>(this,
//             &Recorder::Schedule));
//         }
//     private:
//         int Schedule(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out);
//     };
//
//     Recorder recorder;
//     if (int code = recorder.Connect("127.0.0.1", "Recorder")) std::puts(KelResultText(code));
//
// Threads: every member may be called from any thread, from inside a published method too; Connect, ConnectUser and
// Disconnect belong to the thread that owns the object. Published methods and the On... members run on the library's
// threads, several at once. A method may block: the library starts a further thread when all of its threads are busy
// (up to 512).
//
// While connected, the satellite asks the directory every 10 seconds whether it is still known there, and registers
// again, with its services and subscriptions, when it is not. What the directory could not be told of services and
// subscriptions, since it was away for instance, it is told then.
#pragma once

#include "foundation/Export.h"
#include "foundation/StdString.h"
#include "rpc/satellite/KelDelegate.h"
#include "rpc/values/KelException.h"
#include "rpc/values/KelResult.h"
#include "rpc/values/Variant.h"

#include <boost/shared_ptr.hpp>

#include <functional>
#include <memory>

class CBBLog;

// How Request treats the call.
using KELFLAGS = int;
constexpr KELFLAGS KELFLAG_WAIT = 0;     // wait for the answer, for at most 30 seconds
constexpr KELFLAGS KELFLAG_ONE_WAY = 1;  // queue the call and go on: never answered, in order for each satellite

// What is known of a satellite.
using KELSTATUS = int;
constexpr KELSTATUS KELSTATUS_GONE = 0;
constexpr KELSTATUS KELSTATUS_ALIVE = 1;

// Null pointers throw KelInvalidParameterException where no other meaning of theirs is given.
class KEL_API KelSatellite {
public:
    KelSatellite();

    // Leaves the directory, stops accepting calls, lets running methods finish, then closes. After it returns no
    // published method runs. A derived class whose methods use its own members calls Disconnect in its destructor.
    virtual ~KelSatellite();

    // Opens the listening port (the directory port for "MainRegister", a free one for every other name), has
    // CreateServices publish the methods and registers at the directory on `host`, a name or an IPv4 address with an
    // optional ":port" (default: the setting "kel.directoryPort", else 5001). The host "auto" is the directory of this
    // machine if one answers, else the first that KelDirectoryFinder finds and that answers, which takes seconds: at
    // most 6 when none is heard, 25 when those that are heard do not answer. It goes on looking afterwards: when its
    // own machine has a directory later, or when the one found has not answered for 30 seconds, it moves, and
    // OnStatusChange reports the old id gone and the new one alive. Returns 0; KEL_ALREADY_REGISTERED when a living
    // satellite holds the name or a living directory the directory port; KEL_UNREACHABLE when no directory answers;
    // KEL_PORT_IN_USE; any other answer of the directory as it is. After a failure the object may try again. Throws
    // KelInvalidParameterException when `host` has something else than a port behind its colon, or for a null or empty
    // name; std::runtime_error when the system has no thread to give; what CreateServices throws.
    virtual int Connect(const char* host, const char* name);

    // Attaches to the directory on `host`, which may be "auto", as a caller only: no listening port, no registration;
    // `user` is the caller's name that methods see. Returns 0 or KEL_UNREACHABLE, and throws as Connect does, but takes
    // any name.
    virtual int ConnectUser(const char* host, const char* user);

    // Why that failed of the calls below and above that failed last, with the address that was tried, a sentence for
    // people: "studio:5001 cannot be reached: Connection refused" when nobody listens there. Others say that there is
    // no route, that the name is not known, that there was no connection or no answer in time, that the connection was
    // closed, or that what answers is no directory or no satellite. Empty when none has failed since the latest Connect
    // or ConnectUser began. Where several threads call, it is of whichever call failed last, as when the library
    // registers again by itself; `extra` of Request is of that call alone.
    CStdStr LastProblem() const;

    // Leaves the directory and closes the endpoint, as the destructor does. Connect may follow. Not to be called from
    // inside a published method.
    virtual void Disconnect();

    // Calls `method` of `satellite` with `in`. With KELFLAG_WAIT the method's result is returned and `out`, when not
    // null, receives its out-parameter; blocks for at most 30 seconds. With KELFLAG_ONE_WAY the call is queued and the
    // result is 0: calls reach each satellite in order, and of more than 1,024 that wait for one satellite the oldest
    // are dropped with a warning in the log. `extra`, when not null, receives a text that says what went wrong, as
    // LastProblem gives it, or becomes empty. `in` may be the same variant as one of the two. Returns KEL_UNREACHABLE,
    // also from a satellite that is leaving, KEL_NO_ANSWER, KEL_NOT_CONNECTED, KEL_TOO_LARGE or KEL_UNKNOWN_SATELLITE.
    // Throws KelException when the method threw or is not published.
    virtual int Request(const char* satellite, const char* method, const tagVARIANT& in, tagVARIANT* out,
                        KELFLAGS flags, tagVARIANT* extra);
    // The same, but blocks for at most so many milliseconds, connecting and asking the directory included.
    int Request(const char* satellite, const char* method, const tagVARIANT& in, tagVARIANT* out, KELFLAGS flags,
                tagVARIANT* extra, int milliseconds);

    // Waits until at least half of the 1,024 places for one-way calls to `satellite` are free, for whoever has more of
    // them than that; false when that takes longer than so many milliseconds.
    bool WaitForOneWayRoom(const char* satellite, int milliseconds);

    // The next call to `satellite` asks the directory where it is, whatever is remembered.
    void ForgetAddress(const char* satellite);

    // Asks the endpoint at host:port whether it is the satellite `name` with the id `satId`. Connecting and answering
    // may take 10 seconds together, not counting time during which this process stood still. Negative when no answer
    // came: one of KEL_PING_..., as is `status` then; otherwise 0, and `status` is KELSTATUS_ALIVE when name and id are
    // that endpoint's own, else KELSTATUS_GONE. KEL_NO_RESOURCES, and KELSTATUS_ALIVE for want of proof, when this
    // process could not ask. This satellite need not be connected; then threads of its own are started and ended for
    // the question (std::runtime_error when the system has none to give).
    virtual int DirectoryPingSatellite(const char* name, const char* host, unsigned short port, int satId,
                                       KELSTATUS* status);
    // The same within so many milliseconds.
    int DirectoryPingSatellite(const char* name, const char* host, unsigned short port, int satId, KELSTATUS* status,
                               int milliseconds);

    // Asks the same and returns at once; `heard` is called later, once and as a published method is. When this
    // satellite disconnects before that, or is not connected, `heard` is destroyed instead.
    using PingHandler = std::function<void(int result, KELSTATUS status)>;
    void PingLater(const char* name, const char* host, unsigned short port, int satId, PingHandler heard);

    // Stores the id that the directory gave this satellite. Returns 0, or KEL_NOT_CONNECTED and leaves `id` untouched.
    virtual int GetSatelliteId(int* id);

    // Subscribes this satellite to `service` (exact, case-sensitive): OnServiceAvailabilityChanged is called for each
    // satellite that publishes it already, and whenever one begins or ends to. It holds until it is taken back, over a
    // restart of the directory and, with the library's doing, when this satellite has to register again; calls for what
    // is there already then come once more. Takes a satellite that registers: with ConnectUser nothing is ever heard.
    // May be called before Connect, in CreateServices for instance: the directory hears of it with the registration.
    // Returns 0; KEL_NOT_CONNECTED after ConnectUser; else why the directory could not be told, and then nothing has
    // changed. KelInvalidParameterException without a name.
    virtual int AddServiceAvailabilityListener(const char* service);
    // Ends that; calls under way may still come. Returns 0, also when there was no subscription, or why the directory
    // could not be told: it will be, and until then calls may come. May be called again to try at once.
    virtual int RemoveServiceAvailabilityListener(const char* service);

    // Called by Connect, once the port is open and before any call is accepted: publish the methods here.
    virtual void CreateServices();

    // Registers this satellite with all of its services at the directory, again where it is known already. Returns 0,
    // KEL_NOT_CONNECTED, also while Disconnect is leaving, the directory's answer, KEL_NAME_TAKEN for instance, or why
    // it could not be told.
    virtual int RegisterServices();

    // Withdraws all services from the directory; with `leave` true the satellite itself as well, which then
    // stays away until RegisterServices. The methods stay callable for those who know the address.
    virtual int UnregisterServices(bool leave);

    // Publishes `delegate` under `name` (exact, case-sensitive); a method of that name is replaced. While connected the
    // directory is told at once. Returns 0, the directory's answer, or why it could not be told: the method can be
    // called all the same, and the directory will be told. The library owns the delegate, whatever the result.
    // KelInvalidParameterException for an empty name or a null delegate.
    virtual int AddService(const char* name, const char* description, KelSatelliteDelegateGeneric* delegate);
    virtual int AddService(const char* name, const char* description,
                           int (*function)(const char*, const tagVARIANT&, tagVARIANT*));

    // Withdraws a method; calls of it that run already finish. Returns 0, KEL_UNKNOWN_METHOD, the directory's answer,
    // or why it could not be told: the method is withdrawn, and the directory will be told. May be called again to try
    // at once.
    virtual int RemoveService(const char* name);

    // The dispatch of one incoming call; override it to watch or filter. Runs the published method `method`, stores the
    // method's result in `result` and returns 0; returns KEL_UNKNOWN_METHOD when there is none. Exceptions pass
    // through.
    virtual int OnServiceRequested(int socket, const char* caller, const char* method, tagVARIANT in, tagVARIANT* out,
                                   int* result);

    // A service that this satellite listens for became available (status 1) or unavailable (0) at `satellite`. One call
    // at a time, in the order of the events; it may block, and then those that follow wait.
    virtual void OnServiceAvailabilityChanged(const char* service, const char* satellite, int status);

    // This satellite's standing at the directory changed after it was registered: KELSTATUS_GONE when the directory no
    // longer knows `satId`, KELSTATUS_ALIVE when it was registered again, as `satId`, by whichever call. Calls come in
    // turn, one at a time.
    virtual void OnStatusChange(int satId, KELSTATUS status);

    // The name given to Connect, or empty. The pointer is valid until the next Connect.
    const char* getSatelliteName() const;
    // The port this endpoint listens on, in host order; 0 when it does not.
    unsigned short getSatellitePort() const;

    // The log that the library writes its lines to, for all satellites of the process; they go nowhere without one. The
    // library does not keep it alive: without its owner the lines stop.
    static void setLogger(const boost::shared_ptr<CBBLog>& logger);

    KelSatellite(const KelSatellite&) = delete;
    KelSatellite& operator=(const KelSatellite&) = delete;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

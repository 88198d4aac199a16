// CDirectorySink: the directory's own endpoint. It publishes the directory's methods, finds out where a call comes from
// and hands it to the KelDirectory that owns it. It is also the way to satellites: it pings them and tells listeners.
// KelDirectory makes it, connects it as "MainRegister" and deletes it.
//
// Threads: the published methods run on libkel's threads, several at once. The destructor waits until none runs.
#pragma once

#include "foundation/Locks.h"
#include "registry/SatelliteChannel.h"
#include "rpc/satellite/KelSatellite.h"

#include <atomic>
#include <memory>

class DiscoveryServer;
class KelDirectory;

class CDirectorySink : public KelSatellite, public SatelliteChannel {
public:
    // `directory` outlives the sink.
    explicit CDirectorySink(KelDirectory* directory);
    ~CDirectorySink() override;

    using KelSatellite::Connect;
    // Connects, then announces the directory on the network under `discoveryId`; null counts as empty. The result is
    // that of connecting. Throws std::runtime_error when there is no thread for the announcer.
    virtual int Connect(const char* host, const char* name, const char* discoveryId) KEL_EXCLUDES(discoveryLock_);

    // Ends the announcements, with a farewell. Leaves the endpoint up: calls are answered until the sink is deleted.
    void Disconnect() override KEL_EXCLUDES(discoveryLock_);

    // Publishes the methods below.
    void CreateServices() override;

    using KelSatellite::GetSatelliteId;
    // The endpoint's id; 0 when it has none.
    int GetSatelliteId();

    // Asks host:port whether it is that satellite; `status` becomes KELSTATUS_ALIVE if so, or if it could not be asked
    // for want of descriptors or memory here. Blocks for 10 seconds at the most. Returns 0, or KEL_SATELLITE_SILENT and
    // leaves `status` to the library, which says why.
    int PingSat(const CStdStr& name, const CStdStr& host, unsigned short port, int satId, int* status) override;
    // The same without waiting: `heard` gets result and status later, on one of the library's threads. It is destroyed
    // uncalled when the endpoint ends before that.
    void PingSatLater(const CStdStr& name, const CStdStr& host, unsigned short port, int satId, PingHandler heard);

    using KelSatellite::OnServiceAvailabilityChanged;
    // Calls the listener's method of that name, one way. What goes wrong is logged.
    void OnServiceAvailabilityChanged(const CStdStr& service, const CStdStr& satellite, const CStdStr& listener,
                                      int status) override;
    bool AwaitListener(const CStdStr& listener) override;

    // The dotted address at the other end of a connection; empty, with the reason in errno, when it is not IPv4.
    static CStdStr getIPFromSocket(int socket);

    // The published methods. All that need the caller's address return -1 without it; else the result is that of the
    // request in KelDirectory.
    int SatRegister(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out);
    // Logs the result of a Register call, whose answer may come after its method has returned.
    static void LogRegistered(int rc);
    int SatUnregister(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out);
    int GetServiceReg(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out);
    int GetSatelliteHost(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out);
    int GetSatelliteId(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out);
    int RemoveSatellite(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out);
    int SetBeRightBackTimer(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out);

    using KelSatellite::AddServiceAvailabilityListener;
    int AddServiceAvailabilityListener(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out);
    using KelSatellite::RemoveServiceAvailabilityListener;
    int RemoveServiceAvailabilityListener(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out);

    // The users that are announced with the directory; both succeed and change nothing while it is not announced.
    // AddKelUsers takes an array whose elements are names or arrays of name, value and flag, and adds the last first; a
    // bad element throws, and those behind it have been added by then. RemoveKelUser takes a name.
    int AddKelUsers(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out) KEL_EXCLUDES(discoveryLock_);
    int RemoveKelUser(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out)
        KEL_EXCLUDES(discoveryLock_);

private:
    using Method = int (CDirectorySink::*)(int, const char*, const tagVARIANT&, tagVARIANT*);
    void Publish(const char* name, const char* description, Method method);

    bool IsAnnounced() KEL_EXCLUDES(discoveryLock_);
    void AnnounceUser(const tagVARIANT& user) KEL_EXCLUDES(discoveryLock_);

    KelDirectory* const directory_;

    std::atomic<int> listenersAwaited_{0};

    PMutex discoveryLock_;  // a user may come while the directory closes
    std::unique_ptr<DiscoveryServer> discovery_ KEL_GUARDED_BY(discoveryLock_);
};

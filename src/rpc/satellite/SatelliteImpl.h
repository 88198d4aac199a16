// What is behind a KelSatellite: its methods and subscriptions, and its session while it is connected.
#pragma once

#include "rpc/satellite/Answers.h"
#include "rpc/satellite/KelSatellite.h"
#include "rpc/satellite/LastProblem.h"
#include "rpc/satellite/MethodTable.h"
#include "rpc/satellite/Session.h"

#include <chrono>
#include <optional>
#include <string>

// Its life: connecting and leaving. What is asked of it meanwhile goes to the part of the session that does it.
class KEL_HIDDEN KelSatellite::Impl {
public:
    explicit Impl(KelSatellite& satellite);
    ~Impl();

    int Connect(const char* host, const char* name);
    int ConnectUser(const char* host, const char* user);
    void Disconnect();

    int Register();
    int Unregister(bool leave);
    int GetSatelliteId(int* id);
    int AddService(const char* name, const char* description, KelSatelliteDelegateGeneric* delegate);
    int RemoveService(const char* name);
    int Listen(const char* service);
    int StopListening(const char* service);
    kel::MethodPtr FindMethod(const char* name) const { return methods_.Find(name); }
    const char* name() const { return name_.c_str(); }
    unsigned short port();
    CStdStr LastProblem() { return problem_.Get(); }

    int Request(const char* satellite, const char* method, const tagVARIANT& in, tagVARIANT* out, KELFLAGS flags,
                tagVARIANT* extra, std::chrono::milliseconds timeout);
    bool WaitForOneWayRoom(const char* satellite, int milliseconds);
    void ForgetAddress(const char* satellite);
    int Ping(const char* name, const char* host, unsigned short port, int satId, KELSTATUS* status,
             std::chrono::milliseconds timeout);
    void PingLater(const char* name, const char* host, unsigned short port, int satId, PingHandler heard);

private:
    std::optional<kel::transport::Address> DirectoryOn(const char* host, const CStdStr& name);
    kel::transport::Endpoint::Receiver Receiver();
    kel::SessionPtr MakeSession(const kel::transport::Address& directory, kel::Link::Role role);
    int ConnectAs(const kel::transport::Address& directory);
    int Open(kel::Link& link, bool isDirectory);
    void Drop(kel::Session& session);

    KelSatellite& satellite_;
    kel::MethodTable methods_;
    kel::Subscriptions subscriptions_;  // kept over Disconnect, as the methods are
    kel::LastProblem problem_;

    // The owner's thread's and, while an endpoint exists and they cannot change, its workers'.
    CStdStr name_;
    std::optional<kel::transport::Address> own_;  // where this machine's directory listens, if it was to be found

    kel::CurrentSession current_;
    kel::Answers answers_;
};

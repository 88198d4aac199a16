#include "directory/DirectorySink.h"

#include "directory/KelDirectory.h"
#include "discovery/DiscoveryServer.h"
#include "foundation/Log.h"
#include "foundation/NetworkUtils.h"
#include "rpc/satellite/RunningCall.h"
#include "rpc/values/VUtil.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

namespace {

constexpr int listenerPatienceMs = 20000;  // longer than a listener lives that does not answer
constexpr int maxListenersAwaited = 32;    // each by a thread

// Logs that a call's address is unknown and returns the method's result for that.
int NoAddress(const char* method) {
    const int reason = errno;
    if (CBBLog::isDebugEnabled()) {
        CBBLog::debug("%s: failed to get connection remote IP: %d (0x%x)", method, reason,
                      static_cast<unsigned>(reason));
    }
    return -1;
}

void LogResult(const char* method, int rc) {
    if (CBBLog::isDebugEnabled()) CBBLog::debug("%s returned %d: ", method, rc);
}

int Result(const char* method, int rc) {
    if (rc != 0) LogResult(method, rc);
    return rc;
}

int ResultOfPing(int result) { return result < 0 ? KEL_SATELLITE_SILENT : 0; }

}  // namespace

CDirectorySink::CDirectorySink(KelDirectory* directory) : directory_(directory) {}

CDirectorySink::~CDirectorySink() {
    CDirectorySink::Disconnect();
    KelSatellite::Disconnect();
}

int CDirectorySink::Connect(const char* host, const char* name, const char* discoveryId) {
    if (const int rc = KelSatellite::Connect(host, name)) return rc;
    const CStdStr id(discoveryId);
    CBBLog::info("Enabling discovery id %s", id.c_str());
    auto discovery = std::make_unique<DiscoveryServer>(this, id);
    PMutexHold hold(discoveryLock_);
    discovery_ = std::move(discovery);
    return KEL_OK;
}

void CDirectorySink::Disconnect() {
    std::unique_ptr<DiscoveryServer> ending;  // says its farewell with the lock released
    PMutexHold hold(discoveryLock_);
    ending = std::move(discovery_);
}

void CDirectorySink::Publish(const char* name, const char* description, Method method) {
    AddService(name, description, new KelSatelliteDelegateMemberEx<CDirectorySink>(this, method));
}

void CDirectorySink::CreateServices() {
    Publish("Register", "Register Satellite services", &CDirectorySink::SatRegister);
    Publish("UnRegister", "UnRegister Satellite services", &CDirectorySink::SatUnregister);
    Publish("GetServiceReg", "Get Service Registration", &CDirectorySink::GetServiceReg);
    Publish("GetSatelliteHost", "Retrieve the Satellite host", &CDirectorySink::GetSatelliteHost);
    Publish("GetSatelliteId", "Retrieve the Satellite Id", &CDirectorySink::GetSatelliteId);
    Publish("RemoveSatellite", "Remove the satellite from the database", &CDirectorySink::RemoveSatellite);
    Publish("AddServiceAvailabilityListener", "Add a service availability listener for a Satellite",
            &CDirectorySink::AddServiceAvailabilityListener);
    Publish("RemoveServiceAvailabilityListener", "Remove a service availability listener for a Satellite",
            &CDirectorySink::RemoveServiceAvailabilityListener);
    Publish("AddKelUsers", "Add users to the list of discoverable users in kel library", &CDirectorySink::AddKelUsers);
    Publish("RemoveKelUser", "Remove a User from the list of discoverable users in kel library",
            &CDirectorySink::RemoveKelUser);
    Publish("SetBeRightBackTimer",
            "Sets a Be Right Back timer -- KelDirectory won't ping and unregister the satellite during that time",
            &CDirectorySink::SetBeRightBackTimer);
}

int CDirectorySink::GetSatelliteId() {
    int satId = 0;
    KelSatellite::GetSatelliteId(&satId);
    return satId;
}

int CDirectorySink::PingSat(const CStdStr& name, const CStdStr& host, unsigned short port, int satId, int* status) {
    return ResultOfPing(DirectoryPingSatellite(name.c_str(), host.c_str(), port, satId, status));
}

void CDirectorySink::PingSatLater(const CStdStr& name, const CStdStr& host, unsigned short port, int satId,
                                  PingHandler heard) {
    PingLater(name.c_str(), host.c_str(), port, satId,
              [heard = std::move(heard)](int result, KELSTATUS status) { heard(ResultOfPing(result), status); });
}

void CDirectorySink::OnServiceAvailabilityChanged(const CStdStr& service, const CStdStr& satellite,
                                                  const CStdStr& listener, int status) {
    try {
        const ScopedVariant in = VUtil::MakeList(service, satellite, status);
        ScopedVariant out;
        ScopedVariant extra;
        Request(listener.c_str(), "OnServiceAvailabilityChanged", in, &out, KELFLAG_ONE_WAY, &extra);
    } catch (const KelException& failure) {
        CBBLog::error("OnServiceAvailabilityChanged failed: %s", failure.GetMessage());
    } catch (const std::exception& failure) {
        CBBLog::error("OnServiceAvailabilityChanged failed: %s", failure.what());
    }
}

// Beyond so many, nobody waits: of more events than there is room for, a listener may miss the oldest then.
bool CDirectorySink::AwaitListener(const CStdStr& listener) {
    if (WaitForOneWayRoom(listener.c_str(), 0)) return true;
    struct Waiting {
        explicit Waiting(std::atomic<int>& counted) : count(counted), isOneTooMany(++count > maxListenersAwaited) {}
        ~Waiting() { --count; }
        std::atomic<int>& count;
        const bool isOneTooMany;
    } const waiting(listenersAwaited_);
    return waiting.isOneTooMany || WaitForOneWayRoom(listener.c_str(), listenerPatienceMs);
}

CStdStr CDirectorySink::getIPFromSocket(int socket) {
    if (const std::string* known = kel::RunningCall::PeerOn(socket)) return *known;
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    if (getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return CStdStr();
    if (peer.sin_family != AF_INET) {
        errno = EAFNOSUPPORT;
        return CStdStr();
    }
    return yar::networkutils::inet_ntos(peer.sin_addr);
}

void CDirectorySink::LogRegistered(int rc) { LogResult("Register", rc); }

int CDirectorySink::SatRegister(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out) {
    const CStdStr ip = getIPFromSocket(socket);
    if (ip.empty()) return NoAddress("SatRegister");
    const int rc = directory_->SatRegister(&in, out, ip.c_str(), caller);
    if (rc != KelDirectory::answeredLater) LogRegistered(rc);
    return rc;
}

int CDirectorySink::SatUnregister(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out) {
    const CStdStr ip = getIPFromSocket(socket);
    if (ip.empty()) return NoAddress("SatUnregister");
    return Result("Unregister", directory_->SatUnRegister(&in, out, ip.c_str(), caller));
}

int CDirectorySink::GetServiceReg(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out) {
    const CStdStr ip = getIPFromSocket(socket);
    if (ip.empty()) return NoAddress("GetServiceReg");
    return Result("GetServiceReg", directory_->SatGetService(&in, out, ip.c_str(), caller));
}

int CDirectorySink::GetSatelliteHost(int socket, const char* /*caller*/, const tagVARIANT& in, tagVARIANT* out) {
    const CStdStr ip = getIPFromSocket(socket);
    if (ip.empty()) return NoAddress("GetSatelliteHost");
    return Result("GetSatelliteHost", directory_->SatGetHostName(in, out, ip.c_str()));
}

int CDirectorySink::GetSatelliteId(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out) {
    const CStdStr ip = getIPFromSocket(socket);
    if (ip.empty()) return NoAddress("GetSatelliteId");
    return Result("GetSatelliteId", directory_->SatGetId(&in, out, ip.c_str(), caller));
}

int CDirectorySink::RemoveSatellite(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* /*out*/) {
    const CStdStr ip = getIPFromSocket(socket);
    if (ip.empty()) return NoAddress("RemoveSatellite");
    return Result("RemoveSatellite", directory_->SatRemove(&in, ip.c_str(), caller));
}

int CDirectorySink::SetBeRightBackTimer(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out) {
    const CStdStr ip = getIPFromSocket(socket);
    if (ip.empty()) return NoAddress("SetBeRightBackTimer");
    return Result("SetBeRightBackTimer", directory_->SatSetBeRightBack(&in, out, ip.c_str(), caller));
}

int CDirectorySink::AddServiceAvailabilityListener(int /*socket*/, const char* caller, const tagVARIANT& in,
                                                   tagVARIANT* out) {
    return Result("AddServiceAvailabilityListener", directory_->AddServiceListener(&in, out, caller));
}

int CDirectorySink::RemoveServiceAvailabilityListener(int /*socket*/, const char* caller, const tagVARIANT& in,
                                                      tagVARIANT* out) {
    return Result("RemoveServiceAvailabilityListener", directory_->RemoveServiceListener(&in, out, caller));
}

int CDirectorySink::AddKelUsers(int /*socket*/, const char* /*caller*/, const tagVARIANT& in, tagVARIANT* /*out*/) {
    if (!IsAnnounced()) return 0;
    VUtil::CheckArrayType(in, VT_VARIANT, 0, true, "AddKelUsers: invalid inParam");
    for (int i = VUtil::GetArrayLength(in) - 1; i >= 0; --i) {
        ScopedVariant user;
        VUtil::GetElement(in, i, user);
        AnnounceUser(user);
    }
    return 0;
}

// A name, or an array of name, value and flag.
void CDirectorySink::AnnounceUser(const tagVARIANT& user) {
    CStdStr name;
    CStdStr value;
    bool flag = false;
    if (user.vt == VT_BSTR) {
        name = user.bstrVal;
    } else if (user.vt == (VT_ARRAY | VT_VARIANT)) {
        VUtil::CheckArrayType(user, VT_VARIANT, 3, true, "AddKelUsers: invalid user");
        name = VUtil::GetStringElement(user, 0);
        value = VUtil::GetStringElement(user, 1);
        flag = VUtil::GetBoolElement(user, 2);
    } else {
        CStdStr problem;
        problem.Format("AddKelUsers: invalid user: got %d", user.vt);
        throw KelInvalidParameterException(problem.c_str());
    }
    CBBLog::info("Adding User: %s to the Discovery List", name.c_str());
    PMutexHold hold(discoveryLock_);
    if (discovery_) discovery_->AddUser(name, value, flag);
}

int CDirectorySink::RemoveKelUser(int /*socket*/, const char* /*caller*/, const tagVARIANT& in, tagVARIANT* /*out*/) {
    if (!IsAnnounced()) return 0;
    VUtil::CheckType(in, VT_BSTR, "RemoveKelUser");
    PMutexHold hold(discoveryLock_);
    if (discovery_) discovery_->RemoveUser(in.bstrVal);
    return 0;
}

bool CDirectorySink::IsAnnounced() {
    PMutexHold hold(discoveryLock_);
    return discovery_ != nullptr;
}

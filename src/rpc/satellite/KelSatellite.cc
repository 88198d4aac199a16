#include "rpc/satellite/KelSatellite.h"

#include "rpc/satellite/SatelliteImpl.h"
#include "rpc/transport/LibraryLog.h"

#include <chrono>
#include <utility>

namespace {

constexpr int pingTimeoutMs = 10000;

void Need(const void* pointer, const char* message) {
    if (!pointer) throw KelInvalidParameterException(message);
}

std::chrono::milliseconds Timeout(int milliseconds) {
    if (milliseconds <= 0) throw KelInvalidParameterException("a time-out takes at least a millisecond");
    return std::chrono::milliseconds(milliseconds);
}

}  // namespace

void KelSatellite::setLogger(const boost::shared_ptr<CBBLog>& logger) { SetLibraryLogger(logger); }

KelSatellite::KelSatellite() : impl_(std::make_unique<Impl>(*this)) {}

KelSatellite::~KelSatellite() { impl_->Disconnect(); }

int KelSatellite::Connect(const char* host, const char* name) { return impl_->Connect(host, name); }

int KelSatellite::ConnectUser(const char* host, const char* user) { return impl_->ConnectUser(host, user); }

void KelSatellite::Disconnect() { impl_->Disconnect(); }

CStdStr KelSatellite::LastProblem() const { return impl_->LastProblem(); }

int KelSatellite::Request(const char* satellite, const char* method, const tagVARIANT& in, tagVARIANT* out,
                          KELFLAGS flags, tagVARIANT* extra) {
    return impl_->Request(satellite, method, in, out, flags, extra, kel::callTimeout);
}

int KelSatellite::Request(const char* satellite, const char* method, const tagVARIANT& in, tagVARIANT* out,
                          KELFLAGS flags, tagVARIANT* extra, int milliseconds) {
    return impl_->Request(satellite, method, in, out, flags, extra, Timeout(milliseconds));
}

bool KelSatellite::WaitForOneWayRoom(const char* satellite, int milliseconds) {
    Need(satellite, "WaitForOneWayRoom: which satellite?");
    return impl_->WaitForOneWayRoom(satellite, milliseconds);
}

void KelSatellite::ForgetAddress(const char* satellite) {
    Need(satellite, "ForgetAddress: which satellite?");
    impl_->ForgetAddress(satellite);
}

int KelSatellite::DirectoryPingSatellite(const char* name, const char* host, unsigned short port, int satId,
                                         KELSTATUS* status) {
    return DirectoryPingSatellite(name, host, port, satId, status, pingTimeoutMs);
}

int KelSatellite::DirectoryPingSatellite(const char* name, const char* host, unsigned short port, int satId,
                                         KELSTATUS* status, int milliseconds) {
    Need(name && host ? status : nullptr,
         "DirectoryPingSatellite: a name, a host and a place for the status are needed");
    return impl_->Ping(name, host, port, satId, status, Timeout(milliseconds));
}

void KelSatellite::PingLater(const char* name, const char* host, unsigned short port, int satId, PingHandler heard) {
    Need(name && heard ? host : nullptr, "PingLater: a name, a host and a handler are needed");
    impl_->PingLater(name, host, port, satId, std::move(heard));
}

int KelSatellite::GetSatelliteId(int* id) {
    Need(id, "GetSatelliteId: a place for the id is needed");
    return impl_->GetSatelliteId(id);
}

int KelSatellite::AddServiceAvailabilityListener(const char* service) { return impl_->Listen(service); }

int KelSatellite::RemoveServiceAvailabilityListener(const char* service) { return impl_->StopListening(service); }

void KelSatellite::CreateServices() {}

int KelSatellite::RegisterServices() { return impl_->Register(); }

int KelSatellite::UnregisterServices(bool leave) { return impl_->Unregister(leave); }

int KelSatellite::AddService(const char* name, const char* description, KelSatelliteDelegateGeneric* delegate) {
    return impl_->AddService(name, description, delegate);
}

int KelSatellite::AddService(const char* name, const char* description,
                             int (*function)(const char*, const tagVARIANT&, tagVARIANT*)) {
    return AddService(name, description, function ? new KelSatelliteDelegateFunction(function) : nullptr);
}

int KelSatellite::RemoveService(const char* name) { return impl_->RemoveService(name); }

int KelSatellite::OnServiceRequested(int socket, const char* caller, const char* method, tagVARIANT in, tagVARIANT* out,
                                     int* result) {
    Need(method && result ? out : nullptr, "OnServiceRequested: a method and places for its results are needed");
    const kel::MethodPtr published = impl_->FindMethod(method);
    if (!published) return KEL_UNKNOWN_METHOD;
    *result = published->Invoke(socket, caller, in, out);
    return KEL_OK;
}

void KelSatellite::OnServiceAvailabilityChanged(const char*, const char*, int) {}

void KelSatellite::OnStatusChange(int, KELSTATUS) {}

const char* KelSatellite::getSatelliteName() const { return impl_->name(); }

unsigned short KelSatellite::getSatellitePort() const { return impl_->port(); }

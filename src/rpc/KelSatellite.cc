#include "rpc/KelSatellite.h"

#include "rpc/LibraryLog.h"
#include "rpc/SatelliteImpl.h"

#include <boost/weak_ptr.hpp>

#include <utility>

namespace {

struct LoggerSlot {
    PMutex lock;
    boost::weak_ptr<CBBLog> logger GUARDED_BY(lock);
};

// Never destroyed: threads of satellites that live to the end of the process may still log.
LoggerSlot& TheLogger() {
    static LoggerSlot* const slot = new LoggerSlot;
    return *slot;
}

}  // namespace

boost::shared_ptr<CBBLog> LibraryLogger() {
    LoggerSlot& slot = TheLogger();
    PMutexHold hold(slot.lock);
    return slot.logger.lock();
}

void KelSatellite::setLogger(const boost::shared_ptr<CBBLog>& logger) {
    LoggerSlot& slot = TheLogger();
    PMutexHold hold(slot.lock);
    slot.logger = logger;
}

CStdStr KelResultText(int code) {
    switch (code) {
        case KEL_OK:
            return "success";
        case KEL_PING_SILENT:
            return "no answer came in time";
        case KEL_PING_REFUSED:
            return "the connection was refused";
        case KEL_PING_NO_WAY:
            return "the address cannot be reached from here";
        case KEL_PING_HUNG_UP:
            return "the connection was closed instead of an answer";
        case KEL_UNREACHABLE:
            return "the directory or the satellite cannot be reached";
        case KEL_PORT_IN_USE:
            return "the listening port cannot be opened";
        case KEL_ALREADY_REGISTERED:
            return "a living satellite of this name is already registered";
        case KEL_UNKNOWN_METHOD:
            return "the satellite does not publish this method";
        case KEL_METHOD_FAILED:
            return "the method ended with an exception";
        case KEL_NO_ANSWER:
            return "no answer came in time";
        case KEL_NOT_CONNECTED:
            return "not connected to a directory";
        case KEL_TOO_LARGE:
            return "the parameters are too large or of a type that cannot travel";
        case KEL_NO_RESOURCES:
            return "there is no descriptor, memory or place for this now";
        case KEL_LIMIT_REACHED:
            return "the directory keeps no more of that kind for one satellite";
        case 0x40001:
            return "the directory cannot read the parameters";
        case 0x40002:
            return "the directory knows no satellite of this name";
        case 0x4000a:
            return "the directory knows no satellite of this name and id";
        case 0x40010:
            return "a living satellite of this name is already registered, or registers right now";
        case 0x40017:
            return "the satellite does not answer";
        default:
            break;
    }
    CStdStr text;
    text.Format("result 0x%x", static_cast<unsigned>(code));
    return text;
}

KelSatellite::KelSatellite() : impl_(std::make_unique<Impl>(*this)) {}

KelSatellite::~KelSatellite() { impl_->Disconnect(); }

int KelSatellite::Connect(const char* host, const char* name) { return impl_->Connect(host, name); }

int KelSatellite::ConnectUser(const char* host, const char* user) { return impl_->ConnectUser(host, user); }

void KelSatellite::Disconnect() { impl_->Disconnect(); }

int KelSatellite::Request(const char* satellite, const char* method, const tagVARIANT& in, tagVARIANT* out,
                          KELFLAGS flags, tagVARIANT* extra) {
    return impl_->Request(satellite, method, in, out, flags, extra);
}

bool KelSatellite::WaitForOneWayRoom(const char* satellite, int milliseconds) {
    return impl_->WaitForOneWayRoom(satellite, milliseconds);
}

void KelSatellite::ForgetAddress(const char* satellite) { impl_->ForgetAddress(satellite); }

int KelSatellite::DirectoryPingSatellite(const char* name, const char* host, unsigned short port, int satId,
                                         KELSTATUS* status) {
    return impl_->Ping(name, host, port, satId, status);
}

void KelSatellite::PingLater(const char* name, const char* host, unsigned short port, int satId, PingHandler heard) {
    impl_->PingLater(name, host, port, satId, std::move(heard));
}

int KelSatellite::GetSatelliteId(int* id) { return impl_->GetSatelliteId(id); }

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
    const kel::MethodPtr published = impl_->FindMethod(method);
    if (!published) return KEL_UNKNOWN_METHOD;
    *result = published->Invoke(socket, caller, in, out);
    return KEL_OK;
}

void KelSatellite::OnServiceAvailabilityChanged(const char*, const char*, int) {}

void KelSatellite::OnStatusChange(int, KELSTATUS) {}

const char* KelSatellite::getSatelliteName() const { return impl_->name(); }

unsigned short KelSatellite::getSatellitePort() const { return impl_->port(); }

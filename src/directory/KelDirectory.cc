#include "directory/KelDirectory.h"

#include "directory/DirectorySink.h"
#include "foundation/Log.h"
#include "foundation/NetworkUtils.h"
#include "host/commonMain.h"

#include <algorithm>
#include <new>

namespace {

constexpr char loopback[] = "127.0.0.1";
constexpr char directoryName[] = "MainRegister";

}  // namespace

KelDirectory::KelDirectory() : YarModuleBase("KelDirectory") {}

KelDirectory::~KelDirectory() { KelDirectory::close(); }

bool KelDirectory::init(const std::vector<CStdStr>& /*args*/) {
    CBBLog::info("Initializing Kel Directory");
    if (registration_.LoadAllSatFiles() != 0) CBBLog::warn("Failed to load satellites");

    sink_ = new (std::nothrow) CDirectorySink(this);
    if (!sink_) {
        CBBLog::fatal("Could not allocate a DirectorySink");
        return false;
    }

    CBBLog::info("Connecting to %s", loopback);
    const int rc = sink_->Connect(loopback, directoryName);
    if (rc == KEL_ALREADY_REGISTERED) {
        CBBLog::info("Initialization of Kel failed because this satellite is already registered.");
        return false;
    }
    if (rc != 0) {
        CBBLog::fatal("Initialization of Kel failed: 0x%x", static_cast<unsigned>(rc));
        return false;
    }
    CBBLog::debug("RegisterServices() Completed");
    CBBLog::info("Initialization complete");
    return true;
}

void KelDirectory::close() {
    if (!sink_) return;
    const CStdStr name = sink_->getSatelliteName();
    const int satId = sink_->GetSatelliteId();
    sink_->Disconnect();
    delete sink_;
    sink_ = nullptr;
    registration_.RemoveSatellite(name, satId);
}

CStdStr KelDirectory::getIPToUse(const char* callerIp) const {
    const CStdStr address(callerIp);
    if (address.empty() || address == loopback) return address;
    std::vector<in_addr> own;
    yar::networkutils::GetLocalIPAddressList(own);
    const bool isOwn = std::any_of(
        own.begin(), own.end(), [&](in_addr candidate) { return yar::networkutils::inet_ntos(candidate) == address; });
    return isOwn ? CStdStr(loopback) : address;
}

bool KelDirectory::AddToPending(const CStdStr& name) {
    PMutexHold hold(pendingLock_);
    const auto end = pendingRegistrations_.end();
    if (std::find(pendingRegistrations_.begin(), end, name) != end) return false;
    pendingRegistrations_.push_back(name);
    return true;
}

void KelDirectory::RemoveFromPending(const CStdStr& name) {
    PMutexHold hold(pendingLock_);
    const auto entry = std::find(pendingRegistrations_.begin(), pendingRegistrations_.end(), name);
    if (entry != pendingRegistrations_.end()) pendingRegistrations_.erase(entry);
}

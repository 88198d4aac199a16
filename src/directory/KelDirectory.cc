#include "directory/KelDirectory.h"

#include "directory/DirectorySink.h"
#include "foundation/CheckedSettings.h"
#include "foundation/FileTools.h"
#include "foundation/Log.h"
#include "foundation/NetworkUtils.h"
#include "host/commonMain.h"
#include "platform/ProcessPaths.h"
#include "registry/FilesCheck.h"

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

namespace {

constexpr char loopback[] = "127.0.0.1";
constexpr char directoryName[] = "MainRegister";
constexpr long checkPeriodMs = 5000;

}  // namespace

KelDirectory::KelDirectory() : YarModuleBase("KelDirectory") {}

KelDirectory::~KelDirectory() { KelDirectory::close(); }

bool KelDirectory::init(const std::vector<CStdStr>& /*args*/) {
    CBBLog::info("Initializing Kel Directory");
    SayWhatItWorksWith();
    {
        PMutexHold hold(stopSignal_);
        stopping_ = false;
    }
    registration_.AllowChecks(true);
    const bool hasRegistry = registration_.LoadAllSatFiles() == 0;
    if (!hasRegistry) CBBLog::warn("Failed to load satellites");
    const size_t loaded = registration_.Count() - (registration_.GetSatelliteStruct(directoryName) ? 1 : 0);

    sink_ = new (std::nothrow) CDirectorySink(this);
    if (!sink_) {
        CBBLog::fatal("Could not allocate a DirectorySink");
        return false;
    }

    serviceAvailability_.reset(new (std::nothrow) ServiceAvailability(sink_, this));
    if (!serviceAvailability_) {
        CBBLog::fatal("Could not allocate a ServiceAvailability");
        return false;
    }
    registration_.SetServiceAvailability(serviceAvailability_);
    if (serviceAvailability_->LoadList() != 0) CBBLog::warn("ServiceListeners.xml is damaged; what follows is dropped");

    CBBLog::info("Connecting to %s", loopback);
    const int rc = sink_->Connect(loopback, directoryName, registration_.GetServerId().c_str());
    if (rc == KEL_ALREADY_REGISTERED) {
        CBBLog::info("Initialization of Kel failed because this satellite is already registered.");
        CBBLog::note("A directory answers at port %u of this machine already; this one ends and leaves it alone",
                     unsigned{kel::settings::DirectoryPort()});
        return false;
    }
    if (rc != 0) {
        CBBLog::fatal("Initialization of Kel failed: 0x%x", static_cast<unsigned>(rc));
        return false;
    }
    SayThatItServes(hasRegistry, loaded);
    CBBLog::debug("RegisterServices() Completed");
    CBBLog::info("Initialization complete");

    using Rounds = PThreadDelegateMember<KelDirectory>;
    checkThread_ = std::make_unique<PThread>(new Rounds(this, &KelDirectory::CheckSatellitesThreadProc));
    checkThread_->Start();
    return true;
}

void KelDirectory::SayWhatItWorksWith() {
    CBBLog::note(
        "Kel Directory %s starts as process %d of user %u; data in %s/Library/Tessaly, logs in %s, settings in %s",
        KEL_VERSION, static_cast<int>(getpid()), static_cast<unsigned>(geteuid()), kel::platform::RootPrefix().c_str(),
        CFileTools::GetLogsDirectory().c_str(), kel::settings::Files().c_str());
    CStdStr fault = kel::platform::EnsureSystemFolders();
    if (fault.empty()) fault = kel::registry::LogFault(CFileTools::GetLogsDirectory());
    if (!fault.empty()) {
        CBBLog::error("Not everything can be stored: %s; mend that, or set YAR_ROOT to a folder of the own user",
                      fault.c_str());
    }
    for (const kel::settings::Finding& finding : kel::settings::Check()) {
        CBBLog::error("Settings: %s", finding.Text().c_str());
    }
}

// From here on there is an end of this run to tell of.
void KelDirectory::SayThatItServes(bool hasRegistry, size_t loaded) {
    serves_ = true;
    const CStdStr lastEnd = lastRun_.Begin(hasRegistry);
    CBBLog::note("Kel Directory serves at %s:%u; server id %s, %zu satellites loaded; %s",
                 kel::settings::BindAddress().c_str(), unsigned{kel::settings::DirectoryPort()},
                 registration_.GetServerId().c_str(), loaded, lastEnd.c_str());
}

unsigned int KelDirectory::CheckSatellitesThreadProc(void* /*nothing*/) {
    do StartChecks();
    while (!StopsWithin(checkPeriodMs));
    registration_.WaitCheckSatellites();
    return 0;
}

void KelDirectory::StartChecks() {
    try {
        registration_.SaveIfFailed();
        serviceAvailability_->SaveIfFailed();
        registration_.CheckSatellites(sink_);
        if (checksFail_.Ends()) CBBLog::warn("All satellites are checked again");
    } catch (const std::exception& failure) {
        if (checksFail_.Begins()) {
            CBBLog::error("Not all satellites could be checked: %s; trying again every 5 seconds", failure.what());
        }
    }
}

// Waits; true at once when the directory is to stop.
bool KelDirectory::StopsWithin(long milliseconds) {
    const timespec deadline = DeadlineIn(milliseconds);
    PMutexHold hold(stopSignal_);
    while (!stopping_) {
        if (!stopSignal_.waitUntil(deadline)) return stopping_;
    }
    return true;
}

void KelDirectory::close() {
    {
        PMutexHold hold(stopSignal_);
        stopping_ = true;
        stopSignal_.broadcast();
    }
    registration_.AllowChecks(false);
    if (checkThread_) checkThread_->Join();
    checkThread_.reset();
    if (!sink_) return;
    const CStdStr name = sink_->getSatelliteName();
    const int satId = sink_->GetSatelliteId();
    sink_->Disconnect();
    delete sink_;
    sink_ = nullptr;
    registration_.RemoveSatellite(name, satId);
    if (!std::exchange(serves_, false)) return;
    lastRun_.End();
    CBBLog::note("Kel Directory stopped in order; %zu satellites stay registered", registration_.Count());
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

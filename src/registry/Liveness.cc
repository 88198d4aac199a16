// Who is alive. A pass starts one thread for each satellite, which asks it once and removes it when it does not answer:
// so a satellite that hangs holds up nobody's check but its own, and while that is under way it is passed over.
#include "registry/Registration.h"

#include "foundation/Log.h"
#include "foundation/Thread.h"
#include "registry/ServiceAvailability.h"

#include <chrono>
#include <exception>
#include <memory>
#include <thread>
#include <utility>

namespace {

constexpr int alive = 1;
constexpr size_t stackSize = 256 * 1024;  // enough for a ping and a removal, and thousands may hang at a time

// The first pass after a start finds a connection to none of the satellites: with many of them it takes its time.
constexpr size_t manySatellites = 500;
constexpr size_t portions = 100;
constexpr std::chrono::milliseconds betweenPortions{50};

}  // namespace

struct CRegistration::CheckSatelliteData {
    CheckSatelliteData(const SatellitePtr& checked, SatelliteChannel* through,
                       const boost::shared_ptr<RunningChecks>& checks)
        : satellite(checked), sink(through), running(checks) {
        running->Begin();
    }
    ~CheckSatelliteData() { running->End(); }
    CheckSatelliteData(const CheckSatelliteData&) = delete;
    CheckSatelliteData& operator=(const CheckSatelliteData&) = delete;

    const SatellitePtr satellite;
    SatelliteChannel* const sink;
    const boost::shared_ptr<RunningChecks> running;
};

void CRegistration::CheckSatellites(SatelliteChannel* sink) {
    ReleaseUnstarted();
    std::vector<SatellitePtr> satellites;
    {
        PReadHold hold(lock_);
        satellites.reserve(satellites_.size());
        for (const auto& [name, satellite] : satellites_) satellites.push_back(satellite);
    }
    const bool takesItsTime = !std::exchange(hasChecked_, true) && satellites.size() > manySatellites;
    const size_t portion = takesItsTime ? satellites.size() / portions : satellites.size();
    size_t left = portion;
    for (const SatellitePtr& satellite : satellites) {
        if (left-- == 0) {
            std::this_thread::sleep_for(betweenPortions);
            left = portion - 1;
        }
        if (!mayBeginChecks_) return;
        if (!satellite->checkDone.testAndReset()) continue;
        if (IsRightBack(*satellite)) {  // there is nothing to do that a thread would be needed for
            satellite->checkDone.set();
            continue;
        }
        StartCheck(satellite, sink);
    }
}

void CRegistration::StartCheck(const SatellitePtr& satellite, SatelliteChannel* sink) {
    try {
        auto data = std::make_unique<CheckSatelliteData>(satellite, sink, runningChecks_);
        PThread thread(new PThreadDelegateMember<CRegistration>(this, &CRegistration::CheckSatellite), data.get());
        thread.SetStackSize(stackSize);
        thread.Start();
        static_cast<void>(data.release());  // the thread's
    } catch (...) {
        PMutexHold hold(unstartedLock_);
        unstarted_ = satellite;
        throw;
    }
}

// A satellite whose thread could not be created is checked again from the next pass on.
void CRegistration::ReleaseUnstarted() {
    PMutexHold hold(unstartedLock_);
    if (const SatellitePtr satellite = std::exchange(unstarted_, nullptr)) satellite->checkDone.set();
}

unsigned int CRegistration::CheckSatellite(void* data) {
    const std::unique_ptr<CheckSatelliteData> check(static_cast<CheckSatelliteData*>(data));
    const KelSatelliteInfo& satellite = *check->satellite;
    struct Done {
        PManualEvent& event;
        ~Done() { event.set(); }
    } const done{check->satellite->checkDone};
    try {
        if (!EndRightBack(*check->satellite) || Answers(satellite, *check->sink)) return 0;
        RemoveAndTell(satellite.satName, satellite.satId);
    } catch (const std::exception& failure) {
        CBBLog::error("Satellite %s could not be checked: %s", satellite.satName.c_str(), failure.what());
    }
    return 0;
}

// Whether the satellite asked not to be pinged now.
bool CRegistration::IsRightBack(const KelSatelliteInfo& satellite) const {
    const uint32_t deadline = satellite.beRightBackDeadline;
    if (static_cast<int32_t>(deadline) <= 0 || upTime_() > deadline) return false;
    if (CBBLog::isDebugEnabled()) CBBLog::debug("Satellite %s is BRB, don't ping", satellite.satName.c_str());
    return true;
}

// Ends a timer that has run out; false when one is running.
bool CRegistration::EndRightBack(KelSatelliteInfo& satellite) const {
    uint32_t deadline = satellite.beRightBackDeadline;
    if (IsRightBack(satellite)) return false;
    if (static_cast<int32_t>(deadline) <= 0) return true;
    CBBLog::info("Satellite %s beRightBackTimeout expired", satellite.satName.c_str());
    satellite.beRightBackDeadline.compare_exchange_strong(deadline, 0);  // unless a new one was set just now
    return true;
}

bool CRegistration::Answers(const KelSatelliteInfo& satellite, SatelliteChannel& sink) {
    int status = 0;
    const int result = sink.PingSat(satellite.satName, satellite.ip, satellite.port, satellite.satId, &status);
    if (result == 0 && status == alive) return true;
    CBBLog::info(result != 0 ? "Satellite %s %s:%d SatId %d has died removing it: error %d"
                             : "Satellite %s %s:%d SatId %d has died removing it: dead %d",
                 satellite.satName.c_str(), satellite.ip.c_str(), satellite.port, satellite.satId,
                 result != 0 ? result : status);
    LogRemoval(satellite, WhyNotAlive(result, status));
    return false;
}

void CRegistration::LogRemoval(const KelSatelliteInfo& satellite, const CStdStr& why) {
    const char* const name = satellite.satName.c_str();
    const char* const host = satellite.ip.c_str();
    CBBLog::note("Satellite %.256s (satId %d) at %s:%d removed: %s", name, satellite.satId, host, satellite.port,
                 why.c_str());
    if (!removals_.IsOften(satellite.satName, upTime_())) return;
    CBBLog::note(
        "Satellite %.256s was removed %d times within a minute: it reaches the directory, but from here the "
        "directory does not reach it at %s:%d (%s); see to the firewall there, to the address it listens on "
        "(kel.bindAddress) and to address translation between the two, or why it ends again and again",
        name, RecentRemovals::often, host, satellite.port, why.c_str());
}

void CRegistration::WaitCheckSatellites() {
    ReleaseUnstarted();
    runningChecks_->Wait();
}

int CRegistration::RemoveAndTell(const CStdStr& name, int satId) {
    const SatellitePtr gone = GetSatelliteStruct(name);
    forceNotifyServicesUnregistered(name, satId);
    const int rc = RemoveSatellite(name, satId);
    if (!availability_ || !gone || gone->satId != satId) return rc;
    // A registration that still found the record may have announced services in it after they were told to be gone.
    for (const CStdStr& service : ServicesOf(*gone)) {
        const NameTurns::Hold turn(availability_->turns(), service);
        if (!Publishes(name, service) && MarkAsGone(*gone, service)) {
            availability_->Notify(service, gone->satName, 0);
        }
    }
    return rc;
}

int CRegistration::forceNotifyServicesUnregistered(const CStdStr& name, int satId) {
    if (!availability_) return 0;
    const SatellitePtr satellite = GetSatelliteStruct(name);
    if (!satellite) {
        if (CBBLog::isDebugEnabled()) CBBLog::debug("Force unregistering %s: satellite not found", name.c_str());
        return 0;
    }
    if (satellite->satId != satId) {
        if (CBBLog::isDebugEnabled()) {
            CBBLog::debug("Force unregistering %s: satId mismatch %d/%d", name.c_str(), satId, satellite->satId);
        }
        return 0;
    }
    for (const CStdStr& service : ServicesOf(*satellite)) {
        const NameTurns::Hold turn(availability_->turns(), service);
        if (MarkAsGone(*satellite, service)) availability_->Notify(service, satellite->satName, 0);
    }
    return 0;
}

std::vector<CStdStr> CRegistration::ServicesOf(const KelSatelliteInfo& satellite) {
    std::vector<CStdStr> services;
    PReadHold hold(satellite.lock);
    for (const auto& [key, service] : satellite.services) services.push_back(service.name);
    return services;
}

// True for the first who says so of a published service: listeners hear it once, also when a check and a new
// registration find the satellite dead at the same time, and both have it told before they go on.
bool CRegistration::MarkAsGone(KelSatelliteInfo& satellite, const CStdStr& service) {
    PWriteHold hold(satellite.lock);
    const auto published = satellite.services.find(service);
    return published != satellite.services.end() && !std::exchange(published->second.isToldGone, true);
}

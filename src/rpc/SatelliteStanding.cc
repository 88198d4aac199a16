// A satellite's standing at its directory: registering, being known there, leaving, and the services it listens for.
#include "rpc/SatelliteImpl.h"

#include "rpc/LibraryLog.h"
#include "rpc/VUtil.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

using namespace kel::transport;
using kel::CodeOf;
using kel::MethodPtr;
using kel::shortTimeout;

namespace {

constexpr int kelProtocolVersion = 1;
constexpr int satelliteIsUnknown = 0x40002;  // the directory's answer to "GetSatelliteId"

constexpr const char* listenMethod = "AddServiceAvailabilityListener";
constexpr const char* stopListeningMethod = "RemoveServiceAvailabilityListener";

std::string HostName() {
    char name[256] = "";
    if (gethostname(name, sizeof name - 1) != 0) return "";
    return name;
}

ScopedVariant ArrayOf(const std::vector<CStdStr>& texts) {
    ScopedVariant array;
    VUtil::CreateArray(array, VT_VARIANT, texts.size());
    for (size_t i = 0; i < texts.size(); ++i) VUtil::PutElement(array, static_cast<int>(i), texts[i]);
    return array;
}

}  // namespace

int KelSatellite::Impl::GetSatelliteId(int* id) {
    PMutexHold hold(standing_);
    if (!registered_) return KEL_NOT_CONNECTED;
    *id = satId_;
    return KEL_OK;
}

Outcome KelSatellite::Impl::CallDirectory(Link& link, const char* method, const tagVARIANT& in,
                                          std::chrono::milliseconds timeout) {
    return link.endpoint.outbound().Call(link.addresses.directory(), method, link.self, in,
                                         std::chrono::steady_clock::now() + timeout);
}

// The record of seven that "Register", "UnRegister" and "RemoveSatellite" take.
ScopedVariant KelSatellite::Impl::Record(Link& link, const std::vector<MethodPtr>& services) {
    const int count = static_cast<int>(services.size());
    ScopedVariant list;
    VUtil::CreateArray(list, VT_VARIANT, services.size());
    for (int i = 0; i < count; ++i) {
        ScopedVariant entry;
        VUtil::CreateArray(entry, VT_VARIANT, 2);
        VUtil::PutElement(entry, 0, services[i]->name);
        VUtil::PutElement(entry, 1, services[i]->description);
        VUtil::PutElement(list, i, static_cast<const tagVARIANT&>(entry));
    }
    int satId;
    {
        PMutexHold hold(standing_);
        satId = satId_;
    }
    ScopedVariant record;
    VUtil::CreateArray(record, VT_VARIANT, 7);
    VUtil::PutElement(record, 0, link.self);
    VUtil::PutElement(record, 1, HostName().c_str());
    VUtil::PutElement(record, 2, static_cast<unsigned short>(link.endpoint.port()));
    VUtil::PutElement(record, 3, kelProtocolVersion);
    VUtil::PutElement(record, 4, satId);
    VUtil::PutElement(record, 5, count);
    VUtil::PutElement(record, 6, static_cast<const tagVARIANT&>(list));
    return record;
}

// One registration at a time: the directory refuses the second of two at once. With a new record, in which it has only
// the services given here and listens for nothing, it subscribes again and sets `isNewRecord`.
int KelSatellite::Impl::RegisterServices(Link& link, const std::vector<MethodPtr>& services, bool* isNewRecord) {
    {
        PMutexHold hold(standing_);
        while (registering_) standing_.wait();
        registering_ = true;
    }
    int code = KEL_UNREACHABLE;
    int satId = 0;
    CStdStr serverId;
    try {
        const Outcome outcome = CallDirectory(link, "Register", Record(link, services), callTimeout);
        code = CodeOf(outcome);
        if (outcome.end == Outcome::End::failed) {
            CBBLog::error(LibraryLogger(), "libkel: the directory cannot register %s: %s", link.self.c_str(),
                          outcome.problem.c_str());
        } else if (code == KEL_OK) {
            serverId = VUtil::GetStringElement(outcome.message.value, 0);
            satId = VUtil::GetIntElement(outcome.message.value, 1);
        }
    } catch (const KelException& error) {
        code = KEL_UNREACHABLE;  // what answers there is no directory
        CBBLog::error(LibraryLogger(), "libkel: %s was not registered: %s", link.self.c_str(), error.GetMessage());
    }
    bool isNew = false;
    {
        PMutexHold hold(standing_);
        registering_ = false;
        if (code == KEL_OK) {
            isNew = !registered_ || satId != satId_ || serverId != serverId_;
            satId_ = satId;
            serverId_ = serverId;
            registered_ = true;
        }
        standing_.broadcast();
    }
    if (isNewRecord) *isNewRecord = isNew;
    if (isNew) SubscriptionsAreDue();
    if (code == KEL_OK) RenewSubscriptions(link);
    return code;
}

int KelSatellite::Impl::Register() {
    const LinkPtr current = link();
    return current ? RegisterServices(*current, methods_.All()) : KEL_NOT_CONNECTED;
}

int KelSatellite::Impl::Unregister(bool leave) {
    const LinkPtr current = link();
    if (!current) return KEL_NOT_CONNECTED;
    const int code = CodeOf(CallDirectory(*current, "UnRegister", Record(*current, methods_.All()), callTimeout));
    if (!leave || code != KEL_OK) return code;
    {
        PMutexHold hold(standing_);
        registered_ = false;
    }
    return CodeOf(CallDirectory(*current, "RemoveSatellite", Record(*current, {}), callTimeout));
}

// The regular question whether the directory still knows this satellite. Not while Disconnect leaves it.
void KelSatellite::Impl::CheckStanding() {
    const LinkPtr current = link();
    {
        PMutexHold hold(standing_);
        if (!current || leaving_ || !registered_) return;
        checking_ = true;
    }
    try {
        CheckStandingAt(*current);
    } catch (const std::exception& error) {
        CBBLog::error(LibraryLogger(), "libkel: %s could not check its standing: %s", name_.c_str(), error.what());
    }
    PMutexHold hold(standing_);
    checking_ = false;
    standing_.broadcast();
}

void KelSatellite::Impl::CheckStandingAt(Link& link) {
    int satId = 0;
    bool report;
    {
        PMutexHold hold(standing_);
        satId = satId_;
    }
    if (AskWhetherKnown(link, satId)) return RenewSubscriptions(link);
    SubscriptionsAreDue();
    {
        PMutexHold hold(standing_);
        report = !std::exchange(reportedGone_, true);
    }
    if (report) {
        CBBLog::warn(LibraryLogger(), "libkel: the directory no longer knows %s (satId %d); registering again",
                     name_.c_str(), satId);
        Report(satId, KELSTATUS_GONE);
    }
    const int code = RegisterServices(link, methods_.All());
    if (code != KEL_OK) {
        if (report) {
            CBBLog::warn(LibraryLogger(), "libkel: %s is not registered: %s; trying on", name_.c_str(),
                         KelResultText(code).c_str());
        }
        return;
    }
    {
        PMutexHold hold(standing_);
        satId = satId_;
        reportedGone_ = false;
    }
    CBBLog::info(LibraryLogger(), "libkel: %s is registered again (satId %d)", name_.c_str(), satId);
    Report(satId, KELSTATUS_ALIVE);
}

// Tells the satellite's author, whose code may throw what it likes.
void KelSatellite::Impl::Report(int satId, KELSTATUS status) {
    try {
        satellite_.OnStatusChange(satId, status);
    } catch (const KelException& error) {
        CBBLog::error(LibraryLogger(), "libkel: OnStatusChange of %s failed: %s", name_.c_str(), error.GetMessage());
    } catch (const std::exception& error) {
        CBBLog::error(LibraryLogger(), "libkel: OnStatusChange of %s failed: %s", name_.c_str(), error.what());
    } catch (...) {
        CBBLog::error(LibraryLogger(), "libkel: OnStatusChange of %s failed", name_.c_str());
    }
}

// False only when the directory answers that it does not know this satellite under `satId`.
bool KelSatellite::Impl::AskWhetherKnown(Link& link, int satId) {
    const Outcome outcome = CallDirectory(link, "GetSatelliteId", MakeString(name_.c_str()), shortTimeout);
    const bool answered = outcome.end == Outcome::End::answered;
    bool changed;
    {
        PMutexHold hold(standing_);
        changed = directoryMissing_ == answered;
        directoryMissing_ = !answered;
    }
    if (changed && answered) {
        CBBLog::warn(LibraryLogger(), "libkel: the directory at %s answers again",
                     link.addresses.directory().text().c_str());
    } else if (changed) {
        CBBLog::warn(LibraryLogger(), "libkel: the directory does not answer %s: %s", name_.c_str(),
                     outcome.problem.c_str());
    }
    if (!answered) return true;
    // It may be another run of the directory, whose list of listeners is as old as its file.
    if (!outcome.reused) SubscriptionsAreDue();
    if (outcome.message.code == satelliteIsUnknown) return false;
    return outcome.message.code != KEL_OK || outcome.message.value.vt != VT_I4 || outcome.message.value.lVal == satId;
}

// --- Listening -----------------------------------------------------------------------------------------------------

int KelSatellite::Impl::Listen(const char* service) {
    if (!service || !*service) throw KelInvalidParameterException("AddServiceAvailabilityListener: which service?");
    const LinkPtr current = link();
    if (current && !current->listens) return KEL_NOT_CONNECTED;  // attached as a caller only
    const bool isNew = Remember(service);
    int satId;
    if (!current || GetSatelliteId(&satId) != KEL_OK) return KEL_OK;  // the directory hears of it after registering
    const int code = CodeOf(CallDirectory(*current, listenMethod, ArrayOf({service}), callTimeout));
    if (code != KEL_OK && isNew) Forget(service);
    return code;
}

int KelSatellite::Impl::StopListening(const char* service) {
    if (!service || !Forget(service)) return KEL_OK;
    const LinkPtr current = link();
    int satId;
    if (!current || GetSatelliteId(&satId) != KEL_OK) return KEL_OK;
    return CodeOf(CallDirectory(*current, stopListeningMethod, ArrayOf({service}), callTimeout));
}

bool KelSatellite::Impl::Remember(const CStdStr& service) {
    PMutexHold hold(listening_);
    if (std::find(subscriptions_.begin(), subscriptions_.end(), service) != subscriptions_.end()) return false;
    subscriptions_.push_back(service);
    return true;
}

bool KelSatellite::Impl::Forget(const CStdStr& service) {
    PMutexHold hold(listening_);
    const auto known = std::find(subscriptions_.begin(), subscriptions_.end(), service);
    if (known == subscriptions_.end()) return false;
    subscriptions_.erase(known);
    return true;
}

void KelSatellite::Impl::SubscriptionsAreDue() {
    PMutexHold hold(listening_);
    subscriptionsDue_ = true;
}

// Tells the directory of all subscriptions if it does not have them. What fails is tried again with the next regular
// question.
void KelSatellite::Impl::RenewSubscriptions(Link& link) {
    std::vector<CStdStr> services;
    bool isFirst;
    {
        PMutexHold hold(listening_);
        if (!std::exchange(subscriptionsDue_, false) || subscriptions_.empty()) return;
        services = subscriptions_;
        isFirst = !subscriptionsFailed_;
    }
    const Outcome outcome = CallDirectory(link, listenMethod, ArrayOf(services), shortTimeout);
    const int code = CodeOf(outcome);
    if (code != KEL_OK && isFirst) {
        CBBLog::warn(LibraryLogger(), "libkel: %s could not tell the directory what it listens for: 0x%x %s; trying on",
                     link.self.c_str(), static_cast<unsigned>(code), outcome.problem.c_str());
    }
    PMutexHold hold(listening_);
    subscriptionsFailed_ = code != KEL_OK;
    if (subscriptionsFailed_) subscriptionsDue_ = true;
}

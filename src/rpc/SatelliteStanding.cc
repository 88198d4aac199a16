// A satellite's standing at its directory: registering, being known there, leaving, and the services it listens for.
//
// What the directory has to be told is kept as names (Due): of services that came or went, of services to listen for or
// not any more. Which of the two it is, is looked up when it is told. A name is due from the change until the directory
// has heard: whoever made the change tells it at once, and what fails is told again by the next one and with the
// regular question whether the directory still knows this satellite. With a new record there everything is due.
//
// Telling takes turns (Turn), so that what the directory hears last is how things stand. A turn is held across calls of
// the directory, which answers them without waiting for this satellite, but never while the author's code runs.
#include "rpc/SatelliteImpl.h"

#include "rpc/LibraryLog.h"
#include "rpc/VUtil.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

using namespace kel::transport;
using kel::CodeOf;
using kel::shortTimeout;

namespace wire = kel::wire;

namespace {

constexpr int kelProtocolVersion = 1;

constexpr const char* listenMethod = "AddServiceAvailabilityListener";
constexpr const char* stopListeningMethod = "RemoveServiceAvailabilityListener";

std::string HostName() {
    char name[256] = "";
    if (gethostname(name, sizeof name - 1) != 0) return "";
    return name;
}

// Of a call that did not end well.
std::string WhyRefused(const Outcome& outcome, const Address& directory) {
    const int code = outcome.message.code;
    if (outcome.end == Outcome::End::failed) {
        if (code == KEL_UNKNOWN_METHOD) return directory.text() + kel::noDirectory;
        return "the directory at " + directory.text() + " failed: " + outcome.problem;
    }
    if (outcome.end != Outcome::End::answered) return outcome.problem;
    return "the directory at " + directory.text() + " says: " + KelResultText(code);
}

bool IsSame(const std::weak_ptr<Connection>& one, const std::weak_ptr<Connection>& other) {
    return !one.owner_before(other) && !other.owner_before(one);
}

}  // namespace

// Names taken off what is due, before it is looked up how things stand: a change after that is due again. Those that
// are still here at the end are due as before.
class KelSatellite::Impl::Taken {
public:
    // All of them without `only`.
    Taken(Impl& impl, Names Due::*what, const CStdStr* only = nullptr) : impl_(impl), what_(what) {
        PMutexHold hold(impl_.standing_);
        Names& due = impl_.due_.*what_;
        if (!only) {
            names.swap(due);
        } else if (auto node = due.extract(*only)) {
            names.insert(std::move(node));
        }
    }
    ~Taken() {
        PMutexHold hold(impl_.standing_);
        (impl_.due_.*what_).merge(names);
    }
    Taken(const Taken&) = delete;
    Taken& operator=(const Taken&) = delete;

    Names names;

private:
    Impl& impl_;
    Names Due::*const what_;
};

int KelSatellite::Impl::GetSatelliteId(int* id) {
    PMutexHold hold(standing_);
    if (!registered_) return KEL_NOT_CONNECTED;
    *id = satId_;
    return KEL_OK;
}

bool KelSatellite::Impl::IsRegistered() {
    PMutexHold hold(standing_);
    return registered_;
}

Outcome KelSatellite::Impl::CallAt(Link& link, const Address& directory, const char* method, const tagVARIANT& in,
                                   std::chrono::milliseconds timeout) {
    return link.endpoint.outbound().Call(directory, method, link.self, in, std::chrono::steady_clock::now() + timeout);
}

Outcome KelSatellite::Impl::CallDirectory(Link& link, const char* method, const tagVARIANT& in,
                                          std::chrono::milliseconds timeout) {
    const Address directory = link.addresses.directory();
    Outcome outcome = CallAt(link, directory, method, in, timeout);
    if (CodeOf(outcome) != KEL_OK) KeepProblem(WhyRefused(outcome, directory));
    return outcome;
}

ScopedVariant KelSatellite::Impl::Record(Link& link, const kel::Services& services) {
    int satId;
    {
        PMutexHold hold(standing_);
        satId = satId_;
    }
    return RecordWithId(link, services, satId);
}

// The record of seven that "Register", "UnRegister" and "RemoveSatellite" take.
ScopedVariant KelSatellite::Impl::RecordWithId(Link& link, const kel::Services& services, int satId) {
    ScopedVariant list = VUtil::MakeListOf(
        services, [](const kel::Service& service) { return VUtil::MakeList(service.name, service.description); });
    const unsigned short port = link.endpoint.port();
    const int count = static_cast<int>(services.size());
    return VUtil::MakeList(link.self, HostName(), port, kelProtocolVersion, satId, count, std::move(list));
}

// --- Registering and leaving -----------------------------------------------------------------------------------------

// In a turn. `isNew` says whether the record at the directory is: then it has the services given here and nothing else.
// What registers `elsewhere` has moved there; if that fails, nothing has changed.
int KelSatellite::Impl::RegisterThese(Link& link, const kel::Services& services, bool& isNew,
                                      const Elsewhere& elsewhere) {
    isNew = false;
    const Outcome outcome = elsewhere
                                ? CallAt(link, *elsewhere, "Register", RecordWithId(link, services, 0), callTimeout)
                                : CallDirectory(link, "Register", Record(link, services), callTimeout);
    const int code = CodeOf(outcome);
    if (outcome.end == Outcome::End::failed) {
        CBBLog::error(LibraryLogger(), "libkel: the directory cannot register %s: %s", link.self.c_str(),
                      outcome.problem.c_str());
    }
    if (code != KEL_OK) return code;
    int satId = 0;
    CStdStr serverId;
    try {
        serverId = VUtil::GetStringElement(outcome.message.value, 0);
        satId = VUtil::GetIntElement(outcome.message.value, 1);
    } catch (const KelException& error) {  // what answers there is no directory
        CBBLog::error(LibraryLogger(), "libkel: %s was not registered: %s", link.self.c_str(), error.GetMessage());
        KeepProblem((elsewhere ? *elsewhere : link.addresses.directory()).text() + kel::noDirectory);
        return KEL_UNREACHABLE;
    }
    {
        PMutexHold hold(standing_);
        isNew = elsewhere || !registered_ || reportedGone_ || satId != satId_ || serverId != serverId_;
    }
    if (elsewhere) {
        ReportGone(link, elsewhere);
        link.addresses.MoveTo(*elsewhere);
    }
    if (isNew) BeginStanding(link, satId, serverId, services, outcome);
    return KEL_OK;
}

// A record at the directory begins, in which it has the services `told`.
void KelSatellite::Impl::BeginStanding(Link& link, int satId, const CStdStr& serverId, const kel::Services& told,
                                       const Outcome& outcome) {
    const bool again = IsRegistered();
    if (again) ReportGone(link);
    Names missing;
    for (const kel::Service& service : methods_.All()) missing.insert(service.name);
    for (const kel::Service& service : told) missing.erase(service.name);
    {
        PMutexHold hold(standing_);
        registered_ = true;
        satId_ = satId;
        serverId_ = serverId;
        reportedGone_ = false;
        knownOver_ = outcome.over;
        due_.services.merge(missing);
        SubscriptionsAreDue();
        standing_.broadcast();
    }
    if (!again) return;
    CBBLog::info(LibraryLogger(), "libkel: %s is registered again (satId %d)", link.self.c_str(), satId);
    Report(link, satId, KELSTATUS_ALIVE);
}

// Ends it on this side, when what is being told has been told; nothing begins one any more. Returns whether there was
// one.
bool KelSatellite::Impl::EndStanding() {
    {
        PMutexHold hold(standing_);
        leaving_ = true;
    }
    const Turn turn(*this);
    PMutexHold hold(standing_);
    return std::exchange(registered_, false);
}

// In a turn.
int KelSatellite::Impl::RegisterAll(Link& link, const Elsewhere& elsewhere) {
    {
        Taken taken(*this, &Due::services);
        const kel::Services services = methods_.All();
        bool isNew;
        const int code = RegisterThese(link, services, isNew, elsewhere);
        if (code != KEL_OK) return code;
        for (const kel::Service& service : services) taken.names.erase(service.name);
        if (isNew) taken.names.clear();  // what went is not in it
    }
    SettleAll(link);
    return KEL_OK;
}

int KelSatellite::Impl::Register() {
    const LinkPtr current = link();
    if (!current) return KEL_NOT_CONNECTED;
    const Turn turn(*this);
    {
        PMutexHold hold(standing_);
        if (leaving_) return KEL_NOT_CONNECTED;
    }
    return RegisterAll(*current);
}

int KelSatellite::Impl::Unregister(bool leave) {
    const LinkPtr current = link();
    if (!current) return KEL_NOT_CONNECTED;
    const Turn turn(*this);
    {
        Taken taken(*this, &Due::services);
        kel::Services services = methods_.All();
        for (const CStdStr& name : taken.names) services.push_back({name, ""});
        const int code = CodeOf(CallDirectory(*current, "UnRegister", Record(*current, services), callTimeout));
        if (code != KEL_OK) return code;
        taken.names.clear();
    }
    if (!leave) return KEL_OK;
    {
        PMutexHold hold(standing_);
        registered_ = reportedGone_ = false;
    }
    return CodeOf(CallDirectory(*current, "RemoveSatellite", Record(*current, {}), callTimeout));
}

// --- Telling what is due ---------------------------------------------------------------------------------------------

// A service came or went.
int KelSatellite::Impl::TellOfService(Link& link, const CStdStr& name) {
    {
        PMutexHold hold(standing_);
        due_.services.insert(name);
    }
    const Turn turn(*this);
    if (!IsRegistered()) {  // the registration tells of all
        Taken(*this, &Due::services, &name).names.clear();
        return KEL_OK;
    }
    const int code = Settle(link, &Due::services, &name);
    if (code == KEL_OK) SettleAll(link);
    return code;
}

// In a turn: tells the directory of what is due, or of `only` if that is. What can never be told does not stay due.
int KelSatellite::Impl::Settle(Link& link, Names Due::*what, const CStdStr* only) {
    Taken taken(*this, what, only);
    if (taken.names.empty()) return KEL_OK;
    const int code = what == &Due::services ? TellServices(link, taken.names) : TellSubscriptions(link, taken.names);
    if (code == KEL_OK || code == KEL_TOO_LARGE || code == KEL_LIMIT_REACHED) taken.names.clear();
    return code;
}

// What went first: the directory takes names in other letters for the same service.
int KelSatellite::Impl::TellServices(Link& link, const Names& names) {
    kel::Services published;
    Names gone = names;
    for (const kel::Service& service : methods_.All()) {
        if (gone.erase(service.name) > 0) published.push_back(service);
    }
    kel::Services withdrawn;
    for (const CStdStr& name : gone) withdrawn.push_back({name, ""});
    if (!withdrawn.empty()) {
        const int code = CodeOf(CallDirectory(link, "UnRegister", Record(link, withdrawn), callTimeout));
        if (code != KEL_OK) return code;
    }
    bool isNew;
    return published.empty() ? KEL_OK : RegisterThese(link, published, isNew);
}

int KelSatellite::Impl::TellSubscriptions(Link& link, const Names& names) {
    std::vector<CStdStr> wanted;
    Names unwanted = names;
    {
        PMutexHold hold(standing_);
        for (const CStdStr& service : subscriptions_) {
            if (unwanted.erase(service) > 0) wanted.push_back(service);
        }
    }
    if (!unwanted.empty()) {
        const int code = CodeOf(CallDirectory(link, stopListeningMethod, VUtil::MakeListOf(unwanted), callTimeout));
        if (code != KEL_OK) return code;
    }
    return wanted.empty() ? KEL_OK : CodeOf(CallDirectory(link, listenMethod, VUtil::MakeListOf(wanted), callTimeout));
}

// In a turn.
void KelSatellite::Impl::SettleAll(Link& link) {
    int code = Settle(link, &Due::services);
    if (code == KEL_OK) code = Settle(link, &Due::subscriptions);
    bool failedBefore;
    {
        PMutexHold hold(standing_);
        failedBefore = std::exchange(settlingFailed_, code != KEL_OK);
    }
    if (code == KEL_OK || failedBefore) return;
    CBBLog::warn(LibraryLogger(), "libkel: %s could not tell the directory what it publishes and listens for: %s; %s",
                 link.self.c_str(), KelResultText(code).c_str(), "trying on");
}

void KelSatellite::Impl::AllIsDue() {
    for (const kel::Service& service : methods_.All()) due_.services.insert(service.name);
    SubscriptionsAreDue();
}

void KelSatellite::Impl::SubscriptionsAreDue() {
    due_.subscriptions.insert(subscriptions_.begin(), subscriptions_.end());
}

// --- Being known -----------------------------------------------------------------------------------------------------

// The regular question whether the directory still knows this satellite.
void KelSatellite::Impl::CheckStanding() {
    const LinkPtr current = link();
    int satId;
    if (!current || GetSatelliteId(&satId) != KEL_OK) return;
    try {
        const Address directory = current->addresses.directory();
        const Outcome answer = CallAt(*current, directory, "GetSatelliteId", MakeString(name_.c_str()), shortTimeout);
        if (IsAnswered(*current, answer)) Heed(*current, satId, answer);
    } catch (const std::exception& error) {
        CBBLog::error(LibraryLogger(), "libkel: %s could not check its standing: %s", name_.c_str(), error.what());
    }
}

bool KelSatellite::Impl::IsAnswered(Link& link, const Outcome& answer) {
    const bool answered = answer.end == Outcome::End::answered;
    {
        PMutexHold hold(standing_);
        if (std::exchange(directoryMissing_, !answered) == !answered) return answered;
    }
    if (answered) {
        CBBLog::warn(LibraryLogger(), "libkel: the directory at %s answers again",
                     link.addresses.directory().text().c_str());
    } else {
        CBBLog::warn(LibraryLogger(), "libkel: the directory does not answer %s: %s", name_.c_str(),
                     answer.problem.c_str());
    }
    return answered;
}

// The directory has said which id this satellite has, which took itself for `satId` when it asked.
void KelSatellite::Impl::Heed(Link& link, int satId, const Outcome& answer) {
    const wire::Message& said = answer.message;
    bool known = said.code != KEL_UNKNOWN_NAME;
    if (said.code == KEL_OK && said.value.vt == VT_I4) known = said.value.lVal == satId;
    const Turn turn(*this);
    {
        PMutexHold hold(standing_);
        if (!registered_ || leaving_ || satId != satId_) return;  // it has left or registered anew meanwhile
        // Over another connection it may be another run of the directory, which knows what its files say, and they may
        // be old or have been damaged.
        if (known && !IsSame(knownOver_, answer.over)) AllIsDue();
        if (known) knownOver_ = answer.over;
        known = known && !reportedGone_;
    }
    if (known) return SettleAll(link);
    const bool isNews = ReportGone(link);
    const int code = RegisterAll(link);
    if (code != KEL_OK && isNews) {
        CBBLog::warn(LibraryLogger(), "libkel: %s is not registered: %s; trying on", name_.c_str(),
                     KelResultText(code).c_str());
    }
}

// Once for each loss; returns whether it was this time.
bool KelSatellite::Impl::ReportGone(Link& link, const Elsewhere& elsewhere) {
    int satId;
    {
        PMutexHold hold(standing_);
        if (std::exchange(reportedGone_, true)) return false;
        satId = satId_;
    }
    if (elsewhere) {
        CBBLog::warn(LibraryLogger(), "libkel: %s (satId %d) moves from the directory at %s to the one at %s",
                     link.self.c_str(), satId, link.addresses.directory().text().c_str(), elsewhere->text().c_str());
    } else {
        CBBLog::warn(LibraryLogger(), "libkel: the directory no longer knows %s (satId %d); registering again",
                     link.self.c_str(), satId);
    }
    Report(link, satId, KELSTATUS_GONE);
    return true;
}

void KelSatellite::Impl::Report(Link& link, int satId, KELSTATUS status) {
    link.standings.Append([this, satId, status] { satellite_.OnStatusChange(satId, status); });
}

// --- Listening -------------------------------------------------------------------------------------------------------

int KelSatellite::Impl::Listen(const char* service) {
    if (!service || !*service) throw KelInvalidParameterException("AddServiceAvailabilityListener: which service?");
    const LinkPtr current = link();
    if (current && !current->listens) return KEL_NOT_CONNECTED;  // attached as a caller only
    const Turn turn(*this);
    bool isNew;
    {
        PMutexHold hold(standing_);
        isNew = std::find(subscriptions_.begin(), subscriptions_.end(), service) == subscriptions_.end();
        if (isNew) subscriptions_.emplace_back(service);
        if (!current || !registered_) return KEL_OK;  // the directory hears of it after registering
        due_.subscriptions.insert(service);
    }
    const CStdStr name = service;
    const int code = Settle(*current, &Due::subscriptions, &name);
    if (code == KEL_OK || !isNew) return code;
    PMutexHold hold(standing_);
    subscriptions_.erase(std::find(subscriptions_.begin(), subscriptions_.end(), name));
    return code;
}

int KelSatellite::Impl::StopListening(const char* service) {
    if (!service) return KEL_OK;
    const CStdStr name = service;
    const LinkPtr current = link();
    const Turn turn(*this);
    {
        PMutexHold hold(standing_);
        subscriptions_.erase(std::remove(subscriptions_.begin(), subscriptions_.end(), name), subscriptions_.end());
        if (!current || !registered_) return KEL_OK;
        due_.subscriptions.insert(name);
    }
    return Settle(*current, &Due::subscriptions, &name);
}

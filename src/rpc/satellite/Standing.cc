// A satellite's standing at its directory: registering, being known there, leaving, and the services it listens for.
//
// What the directory has to be told is kept as names (Due): of services that came or went, of services to listen for or
// not any more. Which of the two it is, is looked up when it is told. A name is due from the change until the directory
// has heard: whoever made the change tells it at once, and what fails is told again by the next one and with the
// regular question whether the directory still knows this satellite. With a new record there everything is due.
//
// Telling takes turns (Turn), so that what the directory hears last is how things stand. A turn is held across calls of
// the directory, which answers them without waiting for this satellite, but never while the author's code runs.
#include "rpc/satellite/Standing.h"

#include "rpc/transport/LibraryLog.h"
#include "rpc/values/KelException.h"
#include "rpc/values/KelResult.h"
#include "rpc/values/VUtil.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

namespace kel {

using namespace transport;

namespace {

constexpr int kelProtocolVersion = 1;
constexpr std::chrono::seconds registrationGrace{2};

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
        if (code == KEL_UNKNOWN_METHOD) return directory.text() + noDirectory;
        return "the directory at " + directory.text() + " failed: " + outcome.problem;
    }
    if (outcome.end != Outcome::End::answered) return outcome.problem;
    return "the directory at " + directory.text() + " says: " + KelResultText(code);
}

bool IsSame(const std::weak_ptr<Connection>& one, const std::weak_ptr<Connection>& other) {
    return !one.owner_before(other) && !other.owner_before(one);
}

}  // namespace

bool Subscribe(Subscriptions& subscriptions, const CStdStr& service) {
    PMutexHold hold(subscriptions);
    std::vector<CStdStr>& all = subscriptions.value();
    const bool isNew = std::find(all.begin(), all.end(), service) == all.end();
    if (isNew) all.push_back(service);
    return isNew;
}

void Unsubscribe(Subscriptions& subscriptions, const CStdStr& service) {
    PMutexHold hold(subscriptions);
    std::erase(subscriptions.value(), service);
}

// Has the turn to tell the directory something, for the length of a block. There is one, IsOwnId waits for its end as
// well as for a change, and leaving must not take memory: hence no NameTurns.
class Standing::Turn {
public:
    explicit Turn(Standing& standing) : standing_(standing) {
        PMutexHold hold(standing_.lock_);
        while (standing_.turnTaken_) standing_.lock_.wait();
        standing_.turnTaken_ = true;
    }
    ~Turn() {
        PMutexHold hold(standing_.lock_);
        standing_.turnTaken_ = false;
        standing_.lock_.broadcast();
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

private:
    Standing& standing_;
};

// What is being told. The names are taken off what is due first, and how things stand is looked up then: so a change
// that comes in between makes its name due again, and is not lost. Names that are left here at the end were not told,
// and go back to what is due.
class Standing::Taken {
public:
    // All of them without `only`.
    Taken(Standing& standing, Names Due::*what, const CStdStr* only = nullptr) : standing_(standing), what_(what) {
        PMutexHold hold(standing_.lock_);
        Names& due = standing_.due_.*what_;
        if (!only) {
            names.swap(due);
        } else if (auto node = due.extract(*only)) {
            names.insert(std::move(node));
        }
    }
    ~Taken() {
        PMutexHold hold(standing_.lock_);
        (standing_.due_.*what_).merge(names);
    }
    Taken(const Taken&) = delete;
    Taken& operator=(const Taken&) = delete;

    Names names;

private:
    Standing& standing_;
    Names Due::*const what_;
};

Standing::Standing(Link& link, const MethodTable& methods, Subscriptions& subscriptions, LastProblem& problem,
                   StatusHandler changed)
    : link_(link), methods_(methods), subscriptions_(subscriptions), problem_(problem), changed_(std::move(changed)) {}

// Of a call that the author waits for.
Outcome Standing::Tell(const char* method, const tagVARIANT& in) {
    const Address directory = link_.addresses.directory();
    Outcome outcome = link_.CallAt(directory, method, in, callTimeout);
    if (CodeOf(outcome) != KEL_OK) problem_.Keep(WhyRefused(outcome, directory));
    return outcome;
}

int Standing::GetSatelliteId(int* id) {
    PMutexHold hold(lock_);
    if (!registered_) return KEL_NOT_CONNECTED;
    *id = satId_;
    return KEL_OK;
}

bool Standing::IsRegistered() {
    PMutexHold hold(lock_);
    return registered_;
}

bool Standing::IsEnding() {
    PMutexHold hold(lock_);
    return ending_;
}

bool Standing::IsDue(const CStdStr& service) {
    PMutexHold hold(lock_);
    return due_.services.count(service) != 0;
}

// The directory may ask for the id that it has just given before its answer with the id has been read here, so while it
// is being told something the question waits a little. The directory's own registration is not waited for: it asks
// itself from inside it whether the record that an earlier run left behind is alive.
bool Standing::IsOwnId(int satId) {
    const auto deadline = std::chrono::steady_clock::now() + registrationGrace;
    PMutexHold hold(lock_);
    while (turnTaken_ && satId != satId_ && !IsDirectoryName(link_.self) && lock_.waitUntil(deadline)) {
    }
    return satId == satId_;
}

ScopedVariant Standing::Record(const Services& services) {
    int satId;
    {
        PMutexHold hold(lock_);
        satId = satId_;
    }
    return RecordWithId(services, satId);
}

// The record of seven that "Register", "UnRegister" and "RemoveSatellite" take.
ScopedVariant Standing::RecordWithId(const Services& services, int satId) {
    ScopedVariant list = VUtil::MakeListOf(
        services, [](const Service& service) { return VUtil::MakeList(service.name, service.description); });
    const unsigned short port = link_.endpoint.port();
    const int count = static_cast<int>(services.size());
    return VUtil::MakeList(link_.self, HostName(), port, kelProtocolVersion, satId, count, std::move(list));
}

// --- Registering and leaving -----------------------------------------------------------------------------------------

// In a turn. `isNew` says whether the record at the directory is: then it has the services given here and nothing else.
// What registers `elsewhere` has moved there; if that fails, nothing has changed.
int Standing::RegisterThese(const Services& services, bool& isNew, const Elsewhere& elsewhere) {
    isNew = false;
    const Outcome outcome = elsewhere ? link_.CallAt(*elsewhere, "Register", RecordWithId(services, 0), callTimeout)
                                      : Tell("Register", Record(services));
    const int code = CodeOf(outcome);
    if (outcome.end == Outcome::End::failed) {
        CBBLog::error(LibraryLogger(), "libkel: the directory cannot register %s: %s", link_.self.c_str(),
                      outcome.problem.c_str());
    }
    if (code != KEL_OK) return code;
    int satId = 0;
    CStdStr serverId;
    try {
        serverId = VUtil::GetStringElement(outcome.message.value, 0);
        satId = VUtil::GetIntElement(outcome.message.value, 1);
    } catch (const KelException& error) {  // what answers there is no directory
        CBBLog::error(LibraryLogger(), "libkel: %s was not registered: %s", link_.self.c_str(), error.GetMessage());
        problem_.Keep((elsewhere ? *elsewhere : link_.addresses.directory()).text() + noDirectory);
        return KEL_UNREACHABLE;
    }
    {
        PMutexHold hold(lock_);
        isNew = elsewhere || !registered_ || reportedGone_ || satId != satId_ || serverId != serverId_;
    }
    if (elsewhere) {
        ReportGone(elsewhere);
        link_.addresses.MoveTo(*elsewhere);
    }
    if (isNew) Begin(satId, serverId, services, outcome);
    return KEL_OK;
}

// A record at the directory begins, in which it has the services `told`.
void Standing::Begin(int satId, const CStdStr& serverId, const Services& told, const Outcome& outcome) {
    const bool again = IsRegistered();
    if (again) ReportGone();
    Names missing;
    for (const Service& service : methods_.All()) missing.insert(service.name);
    for (const Service& service : told) missing.erase(service.name);
    {
        PMutexHold hold(lock_);
        registered_ = true;
        satId_ = satId;
        serverId_ = serverId;
        reportedGone_ = false;
        knownOver_ = outcome.over;
        due_.services.merge(missing);
        SubscriptionsAreDue();
        lock_.broadcast();
    }
    if (!again) return;
    CBBLog::info(LibraryLogger(), "libkel: %s is registered again (satId %d)", link_.self.c_str(), satId);
    Report(satId, KELSTATUS_ALIVE);
}

bool Standing::End() {
    {
        PMutexHold hold(lock_);
        ending_ = true;
    }
    const Turn turn(*this);
    PMutexHold hold(lock_);
    return std::exchange(registered_, false);
}

void Standing::Leave() {
    if (!End() || IsDirectoryName(link_.self)) return;
    link_.CallDirectory("RemoveSatellite", Record({}), shortTimeout);
}

// In a turn.
int Standing::RegisterAll(const Elsewhere& elsewhere) {
    {
        Taken taken(*this, &Due::services);
        const Services services = methods_.All();
        bool isNew;
        const int code = RegisterThese(services, isNew, elsewhere);
        if (code != KEL_OK) return code;
        for (const Service& service : services) taken.names.erase(service.name);
        if (isNew) taken.names.clear();  // what went is not in it
    }
    SettleAll();
    return KEL_OK;
}

int Standing::Register() {
    const Turn turn(*this);
    {
        PMutexHold hold(lock_);
        if (ending_) return KEL_NOT_CONNECTED;
    }
    return RegisterAll();
}

int Standing::Unregister(bool leave) {
    const Turn turn(*this);
    {
        Taken taken(*this, &Due::services);
        Services services = methods_.All();
        for (const CStdStr& name : taken.names) services.push_back({name, ""});
        const int code = CodeOf(Tell("UnRegister", Record(services)));
        if (code != KEL_OK) return code;
        taken.names.clear();
    }
    if (!leave) return KEL_OK;
    {
        PMutexHold hold(lock_);
        registered_ = reportedGone_ = false;
    }
    return CodeOf(Tell("RemoveSatellite", Record({})));
}

// --- Telling what is due ---------------------------------------------------------------------------------------------

int Standing::TellOfService(const CStdStr& name) {
    {
        PMutexHold hold(lock_);
        due_.services.insert(name);
    }
    const Turn turn(*this);
    if (!IsRegistered()) {  // the registration tells of all
        Taken(*this, &Due::services, &name).names.clear();
        return KEL_OK;
    }
    const int code = Settle(&Due::services, &name);
    if (code == KEL_OK) SettleAll();
    return code;
}

// In a turn: tells the directory of what is due, or of `only` if that is. What can never be told does not stay due.
int Standing::Settle(Names Due::*what, const CStdStr* only) {
    Taken taken(*this, what, only);
    if (taken.names.empty()) return KEL_OK;
    const int code = what == &Due::services ? TellServices(taken.names) : TellSubscriptions(taken.names);
    if (code == KEL_OK || code == KEL_TOO_LARGE || code == KEL_LIMIT_REACHED) taken.names.clear();
    return code;
}

// What went first: the directory takes names in other letters for the same service.
int Standing::TellServices(const Names& names) {
    Services published;
    Names gone = names;
    for (const Service& service : methods_.All()) {
        if (gone.erase(service.name) > 0) published.push_back(service);
    }
    Services withdrawn;
    for (const CStdStr& name : gone) withdrawn.push_back({name, ""});
    if (!withdrawn.empty()) {
        const int code = CodeOf(Tell("UnRegister", Record(withdrawn)));
        if (code != KEL_OK) return code;
    }
    bool isNew;
    return published.empty() ? KEL_OK : RegisterThese(published, isNew);
}

int Standing::TellSubscriptions(const Names& names) {
    std::vector<CStdStr> wanted;
    Names unwanted = names;
    {
        PMutexHold hold(subscriptions_);
        for (const CStdStr& service : subscriptions_.value()) {
            if (unwanted.erase(service) > 0) wanted.push_back(service);
        }
    }
    if (!unwanted.empty()) {
        const int code = CodeOf(Tell(stopListeningMethod, VUtil::MakeListOf(unwanted)));
        if (code != KEL_OK) return code;
    }
    return wanted.empty() ? KEL_OK : CodeOf(Tell(listenMethod, VUtil::MakeListOf(wanted)));
}

// In a turn.
void Standing::SettleAll() {
    int code = Settle(&Due::services);
    if (code == KEL_OK) code = Settle(&Due::subscriptions);
    if (!settlingFails_.Changes(code != KEL_OK) || code == KEL_OK) return;
    CBBLog::warn(LibraryLogger(), "libkel: %s could not tell the directory what it publishes and listens for: %s; %s",
                 link_.self.c_str(), KelResultText(code).c_str(), "trying on");
}

void Standing::AllIsDue() {
    for (const Service& service : methods_.All()) due_.services.insert(service.name);
    SubscriptionsAreDue();
}

void Standing::SubscriptionsAreDue() {
    PMutexHold hold(subscriptions_);
    due_.subscriptions.insert(subscriptions_.value().begin(), subscriptions_.value().end());
}

// --- Being known -----------------------------------------------------------------------------------------------------

void Standing::Check() {
    int satId;
    if (GetSatelliteId(&satId) != KEL_OK) return;
    try {
        const Outcome answer = link_.CallDirectory("GetSatelliteId", MakeString(link_.self.c_str()), shortTimeout);
        if (IsAnswered(answer)) Heed(satId, answer);
    } catch (const std::exception& error) {
        CBBLog::error(LibraryLogger(), "libkel: %s could not check its standing: %s", link_.self.c_str(), error.what());
    }
}

bool Standing::IsAnswered(const Outcome& answer) {
    const bool answered = answer.end == Outcome::End::answered;
    if (!directoryMissing_.Changes(!answered)) return answered;
    if (answered) {
        CBBLog::warn(LibraryLogger(), "libkel: the directory at %s answers again",
                     link_.addresses.directory().text().c_str());
    } else {
        CBBLog::warn(LibraryLogger(), "libkel: the directory does not answer %s: %s", link_.self.c_str(),
                     answer.problem.c_str());
    }
    return answered;
}

// The directory has said which id this satellite has, which took itself for `satId` when it asked.
void Standing::Heed(int satId, const Outcome& answer) {
    const wire::Message& said = answer.message;
    bool known = said.code != KEL_UNKNOWN_NAME;
    if (said.code == KEL_OK && said.value.vt == VT_I4) known = said.value.lVal == satId;
    const Turn turn(*this);
    {
        PMutexHold hold(lock_);
        if (!registered_ || ending_ || satId != satId_) return;  // it has left or registered anew meanwhile
        // Over another connection it may be another run of the directory, which knows what its files say, and they may
        // be old or have been damaged.
        if (known && !IsSame(knownOver_, answer.over)) AllIsDue();
        if (known) knownOver_ = answer.over;
        known = known && !reportedGone_;
    }
    if (known) return SettleAll();
    const bool isNews = ReportGone();
    const int code = RegisterAll();
    if (code != KEL_OK && isNews) {
        CBBLog::warn(LibraryLogger(), "libkel: %s is not registered: %s; trying on", link_.self.c_str(),
                     KelResultText(code).c_str());
    }
}

// Once for each loss; returns whether it was this time.
bool Standing::ReportGone(const Elsewhere& elsewhere) {
    int satId;
    {
        PMutexHold hold(lock_);
        if (std::exchange(reportedGone_, true)) return false;
        satId = satId_;
    }
    if (elsewhere) {
        CBBLog::warn(LibraryLogger(), "libkel: %s (satId %d) moves from the directory at %s to the one at %s",
                     link_.self.c_str(), satId, link_.addresses.directory().text().c_str(), elsewhere->text().c_str());
    } else {
        CBBLog::warn(LibraryLogger(), "libkel: the directory no longer knows %s (satId %d); registering again",
                     link_.self.c_str(), satId);
    }
    Report(satId, KELSTATUS_GONE);
    return true;
}

void Standing::Report(int satId, KELSTATUS status) {
    link_.standings.Append([this, satId, status] { changed_(satId, status); });
}

// --- Listening -------------------------------------------------------------------------------------------------------

int Standing::Listen(const CStdStr& service) {
    const Turn turn(*this);
    const bool isNew = Subscribe(subscriptions_, service);
    {
        PMutexHold hold(lock_);
        if (!registered_) return KEL_OK;  // the directory hears of it after registering
        due_.subscriptions.insert(service);
    }
    const int code = Settle(&Due::subscriptions, &service);
    if (code != KEL_OK && isNew) Unsubscribe(subscriptions_, service);
    return code;
}

int Standing::StopListening(const CStdStr& service) {
    const Turn turn(*this);
    Unsubscribe(subscriptions_, service);
    {
        PMutexHold hold(lock_);
        if (!registered_) return KEL_OK;
        due_.subscriptions.insert(service);
    }
    return Settle(&Due::subscriptions, &service);
}

// --- Moving ----------------------------------------------------------------------------------------------------------

std::optional<int> Standing::MoveTo(const Address& directory) {
    const Address before = link_.addresses.directory();
    ScopedVariant farewell;
    bool isGone = false;
    {
        const Turn turn(*this);
        farewell = Record({});
        {
            PMutexHold hold(lock_);
            if (!registered_ || ending_) return std::nullopt;
            isGone = directoryMissing_.isSo();
        }
        if (const int code = RegisterAll(directory)) return code;
        directoryMissing_.Ends();
    }
    if (!isGone) link_.CallAt(before, "RemoveSatellite", farewell, shortTimeout);
    return KEL_OK;
}

void Standing::FollowTo(const Address& directory) {
    const Turn turn(*this);
    CBBLog::warn(LibraryLogger(), "libkel: %s goes from the directory at %s to %s", link_.self.c_str(),
                 link_.addresses.directory().text().c_str(), directory.text().c_str());
    link_.addresses.MoveTo(directory);
}

}  // namespace kel

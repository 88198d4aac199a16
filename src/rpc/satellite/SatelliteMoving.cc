// A satellite that was to find its directory, by "auto", goes on looking. While it is at another machine's it asks
// every 30 seconds whether its own machine has one by now, and moves there. When its directory has not answered for 30
// seconds it searches anew, and moves to what it finds.
//
// All of this is looked at with the regular question of its standing, on that timer, and no turn is held while it looks
// and searches. To move is to register at the other directory, under a new id, and then to leave the one before: where
// it is refused, it stays what it was. A directory that answers at another address than before has this satellite's
// record already; then the address is all that changes.
#include "rpc/satellite/SatelliteImpl.h"

#include "rpc/finder/FindDirectory.h"
#include "rpc/transport/LibraryLog.h"
#include "rpc/values/VUtil.h"

#include <utility>

using namespace kel::transport;
using kel::CodeOf;
using kel::foundTimeout;
using kel::shortTimeout;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::chrono::seconds ownPeriod{30};  // between two looks for this machine's directory
constexpr std::chrono::seconds patience{30};   // with a directory that does not answer, and between two searches

}  // namespace

void KelSatellite::Impl::LookAround() {
    const LinkPtr current = link();
    if (!current || !own_ || kel::IsDirectoryName(name_) || (current->listens && !IsRegistered())) return;
    try {
        if (IsAnsweredFor(*current)) current->missingSince.reset();
        else if (!current->missingSince) current->missingSince = Clock::now();
        if (current->missingSince && Clock::now() - *current->missingSince >= patience) return Search(*current);

        if (current->addresses.directory() == *own_ || Clock::now() < current->nextLookForOwn) return;
        current->nextLookForOwn = Clock::now() + ownPeriod;
        if (IsDirectoryAt(*current, *own_, foundTimeout)) MoveTo(*current, *own_);
    } catch (const std::exception& error) {
        CBBLog::error(LibraryLogger(), "libkel: %s could not look for its directory: %s", name_.c_str(), error.what());
    }
}

// Whether the directory answers. A satellite has just asked it, a mere caller asks here.
bool KelSatellite::Impl::IsAnsweredFor(Link& link) {
    if (!link.listens) return IsDirectoryAt(link, link.addresses.directory(), shortTimeout);
    PMutexHold hold(standing_);
    return !directoryMissing_;
}

void KelSatellite::Impl::Search(Link& link) {
    const auto answers = [&](const Address& address) { return IsDirectoryAt(link, address, foundTimeout); };
    const auto isWanted = [this] {
        PMutexHold hold(standing_);
        return !leaving_;
    };
    const auto found = kel::FindDirectory({*own_, answers, isWanted, !link.searchedInVain});
    link.searchedInVain = !found;
    link.missingSince = Clock::now();
    if (found && *found != link.addresses.directory()) MoveTo(link, *found);
}

void KelSatellite::Impl::MoveTo(Link& link, const Address& directory) {
    if (!link.listens || IsKnownAt(link, directory)) {
        const Turn turn(*this);
        CBBLog::warn(LibraryLogger(), "libkel: %s goes from the directory at %s to %s", link.self.c_str(),
                     link.addresses.directory().text().c_str(), directory.text().c_str());
        link.addresses.MoveTo(directory);
    } else if (!MoveRecord(link, directory)) {
        return;
    }
    link.missingSince.reset();
    link.saidRefusal = false;
}

// Whether the directory there has this satellite's record, with the id and the port.
bool KelSatellite::Impl::IsKnownAt(Link& link, const Address& directory) {
    int satId = 0;
    GetSatelliteId(&satId);
    const ScopedVariant self = MakeString(link.self.c_str());
    const Outcome id = CallAt(link, directory, "GetSatelliteId", self, shortTimeout);
    if (CodeOf(id) != KEL_OK || id.message.value.vt != VT_I4 || id.message.value.lVal != satId) return false;
    const Outcome host = CallAt(link, directory, "GetSatelliteHost", self, shortTimeout);
    return CodeOf(host) == KEL_OK && VUtil::GetIntElement(host.message.value, 1) == link.endpoint.port();
}

// False when the other directory does not take it.
bool KelSatellite::Impl::MoveRecord(Link& link, const Address& directory) {
    const Address before = link.addresses.directory();
    ScopedVariant farewell;
    bool isGone = false;
    {
        const Turn turn(*this);
        farewell = Record(link, {});
        {
            PMutexHold hold(standing_);
            if (!registered_ || leaving_) return false;
            isGone = directoryMissing_;
        }
        if (const int code = RegisterAll(link, directory)) {
            if (std::exchange(link.saidRefusal, true)) return false;
            CBBLog::warn(LibraryLogger(), "libkel: %s cannot move to the directory at %s: %s; trying on",
                         link.self.c_str(), directory.text().c_str(), KelResultText(code).c_str());
            return false;
        }
        PMutexHold hold(standing_);
        directoryMissing_ = false;
    }
    if (!isGone) CallAt(link, before, "RemoveSatellite", farewell, shortTimeout);
    return true;
}

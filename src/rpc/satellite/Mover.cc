// A satellite that was to find its directory, by "auto", goes on looking. While it is at another machine's it asks
// every 30 seconds whether its own machine has one by now, and moves there. When its directory has not answered for 30
// seconds it searches anew, and moves to what it finds.
//
// All of this is looked at with the regular question of its standing, on that timer, and no turn is held while it looks
// and searches. To move is to register at the other directory, under a new id, and then to leave the one before: where
// it is refused, it stays what it was. A directory that answers at another address than before has this satellite's
// record already; then the address is all that changes.
#include "rpc/satellite/Mover.h"

#include "rpc/finder/FindDirectory.h"
#include "rpc/transport/LibraryLog.h"
#include "rpc/values/KelResult.h"
#include "rpc/values/VUtil.h"

#include <utility>

namespace kel {

using namespace transport;

namespace {

constexpr std::chrono::seconds ownPeriod{30};  // between two looks for this machine's directory
constexpr std::chrono::seconds patience{30};   // with a directory that does not answer, and between two searches

}  // namespace

Mover::Mover(Link& link, Standing& standing, Address own) : link_(link), standing_(standing), own_(std::move(own)) {}

void Mover::LookAround() {
    if (link_.listens && !standing_.IsRegistered()) return;
    try {
        if (IsAnsweredFor()) missingSince_.reset();
        else if (!missingSince_) missingSince_ = Clock::now();
        if (missingSince_ && Clock::now() - *missingSince_ >= patience) return Search();

        if (link_.addresses.directory() == own_ || Clock::now() < nextLookForOwn_) return;
        nextLookForOwn_ = Clock::now() + ownPeriod;
        if (link_.IsDirectoryAt(own_, foundTimeout)) MoveTo(own_);
    } catch (const std::exception& error) {
        CBBLog::error(LibraryLogger(), "libkel: %s could not look for its directory: %s", link_.self.c_str(),
                      error.what());
    }
}

// Whether the directory answers. A satellite has just asked it, a mere caller asks here.
bool Mover::IsAnsweredFor() {
    if (!link_.listens) return link_.IsDirectoryAt(link_.addresses.directory(), shortTimeout);
    return !standing_.IsDirectoryMissing();
}

void Mover::Search() {
    const auto answers = [&](const Address& address) { return link_.IsDirectoryAt(address, foundTimeout); };
    const auto isWanted = [this] { return !standing_.IsEnding(); };
    const auto found = FindDirectory({own_, answers, isWanted, !searchedInVain_});
    searchedInVain_ = !found;
    missingSince_ = Clock::now();
    if (found && *found != link_.addresses.directory()) MoveTo(*found);
}

void Mover::MoveTo(const Address& directory) {
    if (!link_.listens || IsKnownAt(directory)) {
        standing_.FollowTo(directory);
    } else if (!MoveRecord(directory)) {
        return;
    }
    missingSince_.reset();
    refused_.Ends();
}

// Whether the directory there has this satellite's record, with the id and the port.
bool Mover::IsKnownAt(const Address& directory) {
    int satId = 0;
    standing_.GetSatelliteId(&satId);
    const ScopedVariant self = MakeString(link_.self.c_str());
    const Outcome id = link_.CallAt(directory, "GetSatelliteId", self, shortTimeout);
    if (CodeOf(id) != KEL_OK || id.message.value.vt != VT_I4 || id.message.value.lVal != satId) return false;
    const Outcome host = link_.CallAt(directory, "GetSatelliteHost", self, shortTimeout);
    return CodeOf(host) == KEL_OK && VUtil::GetIntElement(host.message.value, 1) == link_.endpoint.port();
}

// False when the other directory does not take it.
bool Mover::MoveRecord(const Address& directory) {
    const std::optional<int> code = standing_.MoveTo(directory);
    if (!code) return false;
    if (*code == KEL_OK) return true;
    if (!refused_.Begins()) return false;
    CBBLog::warn(LibraryLogger(), "libkel: %s cannot move to the directory at %s: %s; trying on", link_.self.c_str(),
                 directory.text().c_str(), KelResultText(*code).c_str());
    return false;
}

}  // namespace kel

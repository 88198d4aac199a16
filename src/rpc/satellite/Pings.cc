#include "rpc/satellite/Pings.h"

#include "rpc/transport/Quietly.h"
#include "rpc/values/VUtil.h"

#include <algorithm>
#include <utility>

namespace kel {

using namespace transport;

namespace {

constexpr std::chrono::seconds pingTimeout{10};  // of those that no thread waits for
constexpr std::chrono::seconds stoodStill{1};    // later than that nobody wakes who merely waited for a processor
constexpr int maxPings = 3;

// When this process, or the machine, stood still for long, no answer says nothing about the other side, which may have
// stood still as well: it is asked anew.
bool StoodStill(const Outcome& outcome, Deadline deadline) {
    const bool ended = outcome.end == Outcome::End::answered || outcome.end == Outcome::End::failed;
    return !ended && std::chrono::steady_clock::now() > deadline + stoodStill;
}

// Whether the other side closed the connection: perhaps one that was idle, and it is there or was restarted.
bool HungUp(const Outcome& outcome) {
    return outcome.end == Outcome::End::lost || (outcome.end == Outcome::End::unreachable && !outcome.error);
}

int WhyNoAnswer(const Outcome& outcome) {
    if (HungUp(outcome)) return KEL_PING_HUNG_UP;
    if (outcome.end == Outcome::End::noAnswer || outcome.error == boost::asio::error::timed_out) return KEL_PING_SILENT;
    if (outcome.error == boost::asio::error::connection_refused) return KEL_PING_REFUSED;
    if (outcome.error == boost::asio::error::connection_reset) return KEL_PING_HUNG_UP;
    return KEL_PING_NO_WAY;
}

// A ping's result, and the status that it found.
int ResultOfPing(const Outcome& outcome, KELSTATUS* status) {
    *status = KELSTATUS_GONE;
    if (outcome.end == Outcome::End::failed) return KEL_OK;
    if (outcome.end == Outcome::End::answered) {
        const tagVARIANT& answer = outcome.message.value;
        if (outcome.message.code == KEL_OK && answer.vt == VT_I4 && answer.lVal == 1) *status = KELSTATUS_ALIVE;
        return KEL_OK;
    }
    if (!outcome.shortage) return *status = WhyNoAnswer(outcome);
    *status = KELSTATUS_ALIVE;  // nothing is known against it
    return KEL_NO_RESOURCES;
}

}  // namespace

int Pings::Ping(const char* name, const Address& at, int satId, std::chrono::milliseconds timeout, KELSTATUS* status,
                std::string& problem) {
    const Outcome outcome = AskWhoItIs(at, VUtil::MakeList(name, satId), timeout);
    problem = outcome.problem;
    return ResultOfPing(outcome, status);
}

Outcome Pings::AskWhoItIs(const Address& at, const tagVARIANT& in, std::chrono::milliseconds timeout) {
    for (int pings = 1;; ++pings) {
        const Deadline deadline = std::chrono::steady_clock::now() + timeout;
        Outcome outcome;
        do outcome = endpoint_.outbound().Call(at, "kel.Ping", self_, in, deadline);
        while (outcome.end == Outcome::End::lost && outcome.reused);  // it closed while it was idle, or was restarted
        if (!StoodStill(outcome, deadline) || pings == maxPings) return outcome;
    }
}

// A ping that no thread waits for.
struct Pings::LatePing {
    const Address address;
    const CStdStr name;
    const int satId;
    KelSatellite::PingHandler heard;
    Deadline deadline;
    int pings = 0;
};

void Pings::PingLater(const char* name, const Address& at, int satId, KelSatellite::PingHandler heard) {
    const Deadline deadline = std::chrono::steady_clock::now() + pingTimeout;
    AskLater(std::make_shared<LatePing>(LatePing{at, name, satId, std::move(heard), deadline}));
}

void Pings::AskLater(const std::shared_ptr<LatePing>& ping) {
    using std::chrono::milliseconds;
    const auto left = ping->deadline - std::chrono::steady_clock::now();
    const auto timeout = std::max(std::chrono::duration_cast<milliseconds>(left), milliseconds(0));
    ++ping->pings;
    endpoint_.outbound().CallAsync(ping->address, "kel.Ping", self_, VUtil::MakeList(ping->name, ping->satId), timeout,
                                   [this, ping](Outcome& outcome) {
                                       if (AskAgain(ping, outcome)) return;
                                       KELSTATUS status;
                                       const int result = ResultOfPing(outcome, &status);
                                       // Taken out of the ping, which may live for a while: what nobody calls has
                                       // to go now.
                                       Quietly([&, heard = std::move(ping->heard)] {
                                           endpoint_.Post([heard, result, status] { heard(result, status); });
                                       });
                                   });
}

// Asks once more where that may bring an answer after all; false when it does not.
bool Pings::AskAgain(const std::shared_ptr<LatePing>& ping, const Outcome& outcome) {
    const bool stood = StoodStill(outcome, ping->deadline);
    if (ping->pings == maxPings || (!stood && !HungUp(outcome))) return false;
    if (stood) ping->deadline = std::chrono::steady_clock::now() + pingTimeout;
    return Quietly([&] { AskLater(ping); });
}

}  // namespace kel

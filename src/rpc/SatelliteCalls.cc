// What a satellite asks of others: requests, one-way calls and pings.
#include "rpc/SatelliteImpl.h"

#include "rpc/VUtil.h"
#include "rpc/transport/Quietly.h"
#include "rpc/wire/Codec.h"

#include <algorithm>
#include <optional>
#include <utility>

using namespace kel::transport;
namespace wire = kel::wire;

namespace {

constexpr std::chrono::seconds pingTimeout{10};  // of those that no thread waits for
constexpr std::chrono::seconds stoodStill{1};    // later than that nobody wakes who merely waited for a processor
constexpr int maxPings = 3;

// What `v` holds, if there is one; it is empty then.
ScopedVariant TakeFrom(tagVARIANT* v) {
    if (!v) return {};
    ScopedVariant taken = ScopedVariant::adopt(*v);
    VariantInit(v);
    return taken;
}

}  // namespace

namespace kel {

bool IsDirectoryName(const CStdStr& name) { return ssicmp(name.c_str(), directoryName) == 0; }

int CodeOf(const Outcome& outcome) {
    switch (outcome.end) {
        case Outcome::End::answered:
        case Outcome::End::failed:
            return outcome.message.code;
        case Outcome::End::unreachable:
        case Outcome::End::lost:
            return KEL_UNREACHABLE;
        case Outcome::End::noAnswer:
            return KEL_NO_ANSWER;
        case Outcome::End::tooLarge:
            break;
    }
    return KEL_TOO_LARGE;
}

}  // namespace kel

using kel::CodeOf;
using kel::IsDirectoryName;

int KelSatellite::Impl::Request(const char* satellite, const char* method, const tagVARIANT& in, tagVARIANT* out,
                                KELFLAGS flags, tagVARIANT* extra, std::chrono::milliseconds timeout) {
    if (!satellite || !*satellite || !method || !*method) {
        throw KelInvalidParameterException("Request: a satellite and a method are needed");
    }
    // They are emptied, and go when the call has ended: `in` may be one of them, or lie in one.
    const ScopedVariant before[] = {TakeFrom(out), TakeFrom(extra)};
    const tagVARIANT& sent = &in == out ? before[0] : &in == extra ? before[1] : in;
    std::string problem;
    int code = KEL_NOT_CONNECTED;
    if (const LinkPtr current = link()) {
        const Deadline deadline = std::chrono::steady_clock::now() + timeout;
        ScopedVariant value;
        code = flags & KELFLAG_ONE_WAY ? PostOneWay(*current, satellite, method, sent, problem)
                                       : CallSatellite(*current, satellite, method, sent, deadline, value, problem);
        if (out) *out = value.release();
    } else {
        problem = "not connected to a directory";
    }
    if (problem.empty()) return code;
    if (extra) *extra = MakeString(problem.c_str()).release();
    KeepProblem(problem);
    return code;
}

int KelSatellite::Impl::CallSatellite(Link& link, const std::string& satellite, const char* method,
                                      const tagVARIANT& in, Deadline deadline, ScopedVariant& value,
                                      std::string& problem) {
    std::optional<Address> address = link.addresses.Remembered(satellite);
    bool mayAskAgain = address && !IsDirectoryName(satellite);
    for (;;) {
        if (!address) {
            AddressBook::Entry entry = link.addresses.Ask(satellite, deadline);
            problem = entry.problem;
            if (!entry.address) return entry.code;
            address = entry.address;
        }
        Outcome outcome = link.endpoint.outbound().Call(*address, method, link.self, in, deadline);
        problem = outcome.problem;
        switch (outcome.end) {
            case Outcome::End::answered:
                value = std::move(outcome.message.value);
                return outcome.message.code;
            case Outcome::End::failed:
                if (outcome.message.code == KEL_UNREACHABLE) break;  // it is leaving; nothing ran
                throw KelException(outcome.message.errorText.c_str(), outcome.message.code);
            case Outcome::End::tooLarge:
                return KEL_TOO_LARGE;
            default:
                break;
        }
        link.addresses.Forget(satellite, *address);
        // Only a call that was not sent is made again: the method must not run twice.
        const bool isOver = outcome.end != Outcome::End::unreachable || std::chrono::steady_clock::now() >= deadline;
        if (!mayAskAgain || isOver) return CodeOf(outcome);
        mayAskAgain = false;
        address.reset();
    }
}

int KelSatellite::Impl::PostOneWay(Link& link, const std::string& satellite, const char* method, const tagVARIANT& in,
                                   std::string& problem) {
    std::string bytes;
    if (!wire::EncodeNotification(bytes, method, link.self, in)) {
        problem = "the parameters are too large or of a type that cannot travel";
        return KEL_TOO_LARGE;
    }
    link.oneWay.Post(satellite, std::move(bytes));
    return KEL_OK;
}

bool KelSatellite::Impl::WaitForOneWayRoom(const char* satellite, int milliseconds) {
    const LinkPtr current = link();
    return current && current->oneWay.AwaitRoom(satellite, std::chrono::milliseconds(milliseconds));
}

void KelSatellite::Impl::ForgetAddress(const char* satellite) {
    if (const LinkPtr current = link()) current->addresses.Forget(satellite);
}

// --- Pings -----------------------------------------------------------------------------------------------------------

namespace {

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

int KelSatellite::Impl::Ping(const char* name, const char* host, unsigned short port, int satId, KELSTATUS* status,
                             std::chrono::milliseconds timeout) {
    *status = KEL_PING_NO_WAY;
    LinkPtr current = link();
    if (!current) {  // one for the question
        current = std::make_shared<Link>(*this, Address(), CStdStr());
        current->endpoint.Start();
    }
    const Outcome outcome = AskWhoItIs(*current, {host, port}, VUtil::MakeList(name, satId), timeout);
    const int result = ResultOfPing(outcome, status);
    if (result != KEL_OK) KeepProblem(outcome.problem);
    return result;
}

Outcome KelSatellite::Impl::AskWhoItIs(Link& link, const Address& address, const tagVARIANT& in,
                                       std::chrono::milliseconds timeout) {
    for (int pings = 1;; ++pings) {
        const Deadline deadline = std::chrono::steady_clock::now() + timeout;
        Outcome outcome;
        do outcome = link.endpoint.outbound().Call(address, "kel.Ping", link.self, in, deadline);
        while (outcome.end == Outcome::End::lost && outcome.reused);  // it closed while it was idle, or was restarted
        if (!StoodStill(outcome, deadline) || pings == maxPings) return outcome;
    }
}

// A ping that no thread waits for.
struct KelSatellite::Impl::LatePing {
    const Address address;
    const CStdStr name;
    const int satId;
    PingHandler heard;
    Deadline deadline;
    int pings = 0;
};

void KelSatellite::Impl::PingLater(const char* name, const char* host, unsigned short port, int satId,
                                   PingHandler heard) {
    const LinkPtr current = link();
    if (!current) return;
    const Deadline deadline = std::chrono::steady_clock::now() + pingTimeout;
    AskLater(*current, std::make_shared<LatePing>(LatePing{{host, port}, name, satId, std::move(heard), deadline}));
}

void KelSatellite::Impl::AskLater(Link& link, const std::shared_ptr<LatePing>& ping) {
    using std::chrono::milliseconds;
    const auto left = ping->deadline - std::chrono::steady_clock::now();
    const auto timeout = std::max(std::chrono::duration_cast<milliseconds>(left), milliseconds(0));
    ++ping->pings;
    link.endpoint.outbound().CallAsync(ping->address, "kel.Ping", link.self, VUtil::MakeList(ping->name, ping->satId),
                                       timeout, [this, &link, ping](Outcome& outcome) {
                                           if (AskAgain(link, ping, outcome)) return;
                                           KELSTATUS status;
                                           const int result = ResultOfPing(outcome, &status);
                                           // Taken out of the ping, which may live for a while: what nobody calls has
                                           // to go now.
                                           Quietly([&, heard = std::move(ping->heard)] {
                                               link.endpoint.Post([heard, result, status] { heard(result, status); });
                                           });
                                       });
}

// Asks once more where that may bring an answer after all; false when it does not.
bool KelSatellite::Impl::AskAgain(Link& link, const std::shared_ptr<LatePing>& ping, const Outcome& outcome) {
    const bool stood = StoodStill(outcome, ping->deadline);
    if (ping->pings == maxPings || (!stood && !HungUp(outcome))) return false;
    if (stood) ping->deadline = std::chrono::steady_clock::now() + pingTimeout;
    return Quietly([&] { AskLater(link, ping); });
}

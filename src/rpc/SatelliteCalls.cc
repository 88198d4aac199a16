// What a satellite asks of others: requests, one-way calls and pings.
#include "rpc/SatelliteImpl.h"

#include "rpc/VUtil.h"
#include "rpc/wire/Codec.h"

#include <optional>
#include <utility>

using namespace kel::transport;
namespace wire = kel::wire;

namespace {

constexpr std::chrono::seconds pingTimeout{10};

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
                                KELFLAGS flags, tagVARIANT* extra) {
    if (!satellite || !*satellite || !method || !*method) {
        throw KelInvalidParameterException("Request: a satellite and a method are needed");
    }
    if (out) VariantClear(out);
    if (extra) VariantClear(extra);
    std::string problem;
    int code = KEL_NOT_CONNECTED;
    if (const LinkPtr current = link()) {
        ScopedVariant value;
        code = flags & KELFLAG_ONE_WAY ? PostOneWay(*current, satellite, method, in, problem)
                                       : CallSatellite(*current, satellite, method, in, value, problem);
        if (out) *out = value.release();
    } else {
        problem = "not connected to a directory";
    }
    if (extra && !problem.empty()) *extra = MakeString(problem.c_str()).release();
    return code;
}

int KelSatellite::Impl::CallSatellite(Link& link, const std::string& satellite, const char* method,
                                      const tagVARIANT& in, ScopedVariant& value, std::string& problem) {
    const Deadline deadline = std::chrono::steady_clock::now() + callTimeout;
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
                throw KelException(outcome.message.errorText.c_str(), outcome.message.code);
            case Outcome::End::tooLarge:
                return KEL_TOO_LARGE;
            default:
                break;
        }
        link.addresses.Forget(satellite, *address);
        // Only a call that was not sent is made again: the method must not run twice.
        if (!mayAskAgain || outcome.end != Outcome::End::unreachable) return CodeOf(outcome);
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

int KelSatellite::Impl::Ping(const char* name, const char* host, unsigned short port, int satId, KELSTATUS* status) {
    *status = KELSTATUS_GONE;
    const LinkPtr current = link();
    if (!current) return -1;
    ScopedVariant in;
    VUtil::CreateArray(in, VT_VARIANT, 2);
    VUtil::PutElement(in, 0, name);
    VUtil::PutElement(in, 1, satId);
    const Deadline deadline = std::chrono::steady_clock::now() + pingTimeout;
    Outcome outcome;
    do outcome = current->endpoint.outbound().Call({host, port}, "kel.Ping", current->self, in, deadline);
    while (outcome.end == Outcome::End::lost && outcome.reused);  // it closed while it was idle, or was restarted
    if (outcome.end == Outcome::End::failed) return 0;
    if (outcome.end != Outcome::End::answered) return -1;
    const tagVARIANT& answer = outcome.message.value;
    if (outcome.message.code == KEL_OK && answer.vt == VT_I4 && answer.lVal == 1) *status = KELSTATUS_ALIVE;
    return 0;
}

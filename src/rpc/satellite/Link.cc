#include "rpc/satellite/Link.h"

#include "rpc/values/KelException.h"
#include "rpc/values/KelResult.h"
#include "rpc/values/VUtil.h"
#include "rpc/wire/Codec.h"

#include <optional>
#include <utility>

namespace kel {

using namespace transport;

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

Link::Link(Endpoint::Receiver receiver, const Address& directory, const CStdStr& name, Role role)
    : self(name),
      listens(role == Role::satellite),
      endpoint(std::move(receiver)),
      addresses(endpoint.outbound(), directory, self),
      oneWay(endpoint.outbound(), addresses),
      pings(endpoint, self),
      news(endpoint, "OnServiceAvailabilityChanged of " + name),
      standings(endpoint, "OnStatusChange of " + name) {}

int Link::Call(const std::string& satellite, const char* method, const tagVARIANT& in, Deadline deadline,
               ScopedVariant& value, std::string& problem) {
    std::optional<Address> address = addresses.Remembered(satellite);
    bool mayAskAgain = address && !IsDirectoryName(satellite);
    for (;;) {
        if (!address) {
            AddressBook::Entry entry = addresses.Ask(satellite, deadline);
            problem = entry.problem;
            if (!entry.address) return entry.code;
            address = entry.address;
        }
        Outcome outcome = endpoint.outbound().Call(*address, method, self, in, deadline);
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
        addresses.Forget(satellite, *address);
        // Only a call that was not sent is made again: the method must not run twice.
        const bool isOver = outcome.end != Outcome::End::unreachable || std::chrono::steady_clock::now() >= deadline;
        if (!mayAskAgain || isOver) return CodeOf(outcome);
        mayAskAgain = false;
        address.reset();
    }
}

int Link::Post(const std::string& satellite, const char* method, const tagVARIANT& in, std::string& problem) {
    std::string bytes;
    if (!wire::EncodeNotification(bytes, method, self, in)) {
        problem = "the parameters are too large or of a type that cannot travel";
        return KEL_TOO_LARGE;
    }
    oneWay.Post(satellite, std::move(bytes));
    return KEL_OK;
}

Outcome Link::CallAt(const Address& directory, const char* method, const tagVARIANT& in,
                     std::chrono::milliseconds timeout) {
    return endpoint.outbound().Call(directory, method, self, in, std::chrono::steady_clock::now() + timeout);
}

Outcome Link::CallDirectory(const char* method, const tagVARIANT& in, std::chrono::milliseconds timeout) {
    return CallAt(addresses.directory(), method, in, timeout);
}

bool Link::IsDirectoryAt(const Address& address, std::chrono::milliseconds timeout, std::string* problem) {
    const ScopedVariant nothing;
    const Outcome outcome = CallAt(address, "kel.Describe", nothing, timeout);
    const bool isEndpoint = outcome.end == Outcome::End::answered || outcome.end == Outcome::End::failed;
    if (problem) *problem = isEndpoint ? address.text() + noDirectory : outcome.problem;
    if (outcome.end != Outcome::End::answered) return false;
    try {
        const int count = VUtil::GetArrayLengthEmpty(outcome.message.value);
        for (int i = 0; i < count; ++i) {
            ScopedVariant method;
            VUtil::GetElement(outcome.message.value, i, method);
            if (VUtil::GetStringElement(method, 0) == "Register") return true;
        }
    } catch (const KelException&) {
    }
    return false;
}

}  // namespace kel

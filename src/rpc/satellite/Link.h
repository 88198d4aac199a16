// A satellite's way to the others: its endpoint, and what it sends through that.
#pragma once

#include "rpc/satellite/AddressBook.h"
#include "rpc/satellite/EventQueue.h"
#include "rpc/satellite/OneWayQueues.h"
#include "rpc/satellite/Pings.h"
#include "rpc/transport/Endpoint.h"

#include <chrono>
#include <string>

namespace kel {

constexpr std::chrono::seconds shortTimeout{5};  // of what must not hold anybody up for long
constexpr std::chrono::seconds foundTimeout{2};  // of an address that may be out of reach, while others wait
constexpr const char* noDirectory = " answers, but is no directory";  // an address

// Whether `name`, in any case, is the directory's own.
bool IsDirectoryName(const CStdStr& name);

// The result that a caller gets for the way in which a call ended.
int CodeOf(const transport::Outcome& outcome);

// What there is from connecting to a directory until leaving it. It knows nothing of being registered there. The calls
// may be made from any thread; the endpoint has to be closed before the object goes.
class Link {
public:
    enum class Role { satellite, caller };

    // `receiver` gets what others call. `name` is the caller's that they see.
    Link(transport::Endpoint::Receiver receiver, const transport::Address& directory, const CStdStr& name, Role role);

    // Calls `method` of `satellite` and waits until `deadline`. Returns the method's result and fills `value`; else why
    // there is none, and for people in `problem`. Throws KelException when the method threw or is not published.
    int Call(const std::string& satellite, const char* method, const tagVARIANT& in, transport::Deadline deadline,
             ScopedVariant& value, std::string& problem);
    // Queues a one-way call.
    int Post(const std::string& satellite, const char* method, const tagVARIANT& in, std::string& problem);

    // Asks the directory, or the one at another address.
    transport::Outcome CallDirectory(const char* method, const tagVARIANT& in, std::chrono::milliseconds timeout);
    transport::Outcome CallAt(const transport::Address& directory, const char* method, const tagVARIANT& in,
                              std::chrono::milliseconds timeout);
    // Whether the endpoint at `address` publishes what a directory publishes; `problem`, if wanted, is why not.
    bool IsDirectoryAt(const transport::Address& address, std::chrono::milliseconds timeout,
                       std::string* problem = nullptr);

    const CStdStr self;
    const bool listens;  // has a port and may be registered
    transport::Endpoint endpoint;
    AddressBook addresses;
    OneWayQueues oneWay;
    Pings pings;
    EventQueue news;  // of services, over whichever connection it comes
    EventQueue standings;
};

}  // namespace kel

// Who is alive: the question whether an endpoint is a certain satellite.
#pragma once

#include "foundation/StdString.h"
#include "rpc/satellite/KelSatellite.h"
#include "rpc/transport/Endpoint.h"

#include <chrono>
#include <memory>
#include <string>

namespace kel {

// KelSatellite::DirectoryPingSatellite and PingLater, through one endpoint. Any thread; the endpoint must be closed
// before the object goes.
class Pings {
public:
    // `self` is the caller's name that others see. Both outlive the object.
    Pings(transport::Endpoint& endpoint, const CStdStr& self) : endpoint_(endpoint), self_(self) {}

    // Why no answer came is in `problem` then, for people.
    int Ping(const char* name, const transport::Address& at, int satId, std::chrono::milliseconds timeout,
             KELSTATUS* status, std::string& problem);
    void PingLater(const char* name, const transport::Address& at, int satId, KelSatellite::PingHandler heard);

private:
    struct LatePing;

    transport::Outcome AskWhoItIs(const transport::Address& at, const tagVARIANT& in,
                                  std::chrono::milliseconds timeout);
    void AskLater(const std::shared_ptr<LatePing>& ping);
    bool AskAgain(const std::shared_ptr<LatePing>& ping, const transport::Outcome& outcome);

    transport::Endpoint& endpoint_;
    const CStdStr& self_;
};

}  // namespace kel

// The way from the registry to satellites: whether one is alive, and telling one that a service came or went. The
// directory's endpoint is the one there is.
#pragma once

#include "foundation/StdString.h"
#include "rpc/satellite/KelSatellite.h"

class SatelliteChannel {
public:
    virtual ~SatelliteChannel() = default;

    // Asks host:port whether it is the satellite `name` with the id `satId`, once, and waits for the answer. Returns 0
    // when it could be asked, and then `status` is 1 if it is; else the error, and `status` is the KEL_PING_... that
    // says why. Any thread.
    virtual int PingSat(const CStdStr& name, const CStdStr& host, unsigned short port, int satId, int* status) = 0;

    // Tells `listener` that `service` became available (status 1) or unavailable (0) at `satellite`. Returns at once:
    // the listener is told later, of several events in their order. Never throws. Any thread.
    virtual void OnServiceAvailabilityChanged(const CStdStr& service, const CStdStr& satellite, const CStdStr& listener,
                                              int status) = 0;

    // Backpressure for whoever has many events for one listener: waits until it has taken in most of those that wait
    // for it. False when it does not.
    virtual bool AwaitListener(const CStdStr& listener) = 0;
};

// For a log line: why a satellite is taken for dead after PingSat ended like that.
inline CStdStr WhyNotAlive(int result, int status) {
    return result == 0 ? CStdStr("what answers there is not this satellite") : KelResultText(status);
}

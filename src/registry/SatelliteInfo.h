// What the registry knows of a satellite and its services. CRegistration owns the records and hands them out through
// shared pointers, so whoever has looked one up keeps it alive after it has left the registry.
#pragma once

#include "foundation/Locks.h"
#include "foundation/StdString.h"

#include <boost/intrusive/set_hook.hpp>

#include <atomic>
#include <cstdint>
#include <map>
#include <vector>

struct KelSatelliteInfo;

// One published service.
struct KelService {
    // The registry's index links the records of one service with each other. Copies are not linked.
    boost::intrusive::set_member_hook<> indexHook{};
    const KelSatelliteInfo* indexedSatellite = nullptr;  // who publishes it; set when the record enters the index

    CStdStr name;
    CStdStr description;
    bool isToldGone = false;  // listeners heard that it is gone, since its satellite is about to be removed
};

// One registered satellite. The first group of members never changes once the record is in the registry: a satellite
// that registers anew gets a new record.
struct KelSatelliteInfo {
    int32_t satId = 0;
    CStdStr satName;   // in the letters of the registration
    CStdStr ip;        // dotted IPv4; "127.0.0.1" for a satellite on the directory's own machine
    CStdStr hostname;  // as the satellite gave it
    uint16_t port = 0;
    int32_t kelProtocolVersion = 0;

    // Up-time in milliseconds (32 bits, wrapping) until which the satellite must not be pinged; 0: no timer.
    std::atomic<uint32_t> beRightBackDeadline{0};

    // Set while no liveness check of this satellite is under way.
    PManualEvent checkDone{true};

    mutable PReadWriteLock lock;
    std::map<CStdStr, KelService, CaseInsensitiveLess> services KEL_GUARDED_BY(lock);

    // Files other than satName's own that hold a record of this satellite.
    struct FormerFile {
        CStdStr name;     // less ".xml"
        bool isReplaced;  // holds a record that was replaced, in other letters; else this very record
    };
    std::vector<FormerFile> formerFiles KEL_GUARDED_BY(lock);
};

// A service as a look-up hands it out, by value.
struct KelServiceInfo {
    CStdStr name;
    CStdStr description;
    CStdStr satName;
    CStdStr ip;  // the address at which the asker reaches the satellite
    uint16_t port = 0;
    CStdStr hostname;
    int32_t satId = 0;
    int32_t kelProtocolVersion = 0;
};

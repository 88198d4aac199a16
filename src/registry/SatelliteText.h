// The texts of the registry's files: how they are made, and how they are read back. docs/files.md has them.
#pragma once

#include "foundation/StdString.h"
#include "registry/SatelliteInfo.h"

#include <cstdint>
#include <optional>

namespace kel::registry {

// Of the file of a satellite, with the services that it has now.
CStdStr SatelliteText(const KelSatelliteInfo& satellite);

// What is wrong with a text, a phrase for people; empty when nothing is.
using Fault = CStdStr;

// Read the text of a satellite's file into `satellite`: everything but the services; the services, of which those
// before the first that is damaged are read.
Fault ReadSatellite(const CStdStr& text, KelSatelliteInfo& satellite);
Fault ReadServices(const CStdStr& text, KelSatelliteInfo& satellite);

// The id that the text of a satellite's file names; 0 when it names none.
int32_t IdIn(const CStdStr& text);

// What the registration file holds.
struct RegistrationRecord {
    std::optional<CStdStr> serverId;
    std::optional<int32_t> lastSatId;  // without it the file counts as damaged
};

CStdStr RegistrationText(const CStdStr& serverId, int32_t lastSatId);
RegistrationRecord ReadRegistration(const CStdStr& text);
// What is wrong with it; it may name the last id all the same.
Fault RegistrationFault(const CStdStr& text);

}  // namespace kel::registry

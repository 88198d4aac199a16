#include "registry/SatelliteText.h"

#include "registry/XmlTags.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kel::registry {
namespace {

// The longest values that files keep; what is beyond is cut off.
constexpr size_t nameLimit = 1024;
constexpr size_t ipLimit = 16;
constexpr size_t hostnameLimit = 16;
constexpr size_t descriptionLimit = 4096;

// At most `limit` characters, and none behind a NUL.
std::string_view Cut(const CStdStr& value, size_t limit) { return {value.c_str(), strnlen(value.c_str(), limit)}; }

// Reads the one value of `tag`; a fault when there is none, more than one, an unclosed one or, unless allowed, an empty
// one.
Fault OneValue(const CStdStr& text, const char* tag, CStdStr& value, bool mayBeEmpty = false) {
    std::vector<CStdStr> values;
    Fault fault;
    if (getXMLTagValue(text, tag, values) != 0) fault.Format("<%s> is not closed", tag);
    else if (values.size() != 1) fault.Format("<%s> is there %zu times", tag, values.size());
    else if (values.front().empty() && !mayBeEmpty) fault.Format("<%s> is empty", tag);
    else value = std::move(values.front());
    return fault;
}

Fault OneNumber(const CStdStr& text, const char* tag, int& number) {
    CStdStr value;
    Fault fault = OneValue(text, tag, value);
    if (fault.empty()) number = std::atoi(value.c_str());
    return fault;
}

std::optional<CStdStr> FirstValue(const CStdStr& text, const char* tag) {
    std::vector<CStdStr> values;
    if (getXMLTagValue(text, tag, values) != 0 || values.empty()) return std::nullopt;
    return std::move(values.front());
}

}  // namespace

CStdStr SatelliteText(const KelSatelliteInfo& satellite) {
    CStdStr text("<?xml version='1.0'?>\n<satellite>\n");
    AppendTag(text, "\t", "id", std::to_string(satellite.satId));
    AppendTag(text, "\t", "satName", Cut(satellite.satName, nameLimit));
    AppendTag(text, "\t", "ip", Cut(satellite.ip, ipLimit));
    AppendTag(text, "\t", "port", std::to_string(satellite.port));
    AppendTag(text, "\t", "hostname", Cut(satellite.hostname, hostnameLimit));
    AppendTag(text, "\t", "kelProtocolVersion", std::to_string(satellite.kelProtocolVersion));

    PReadHold hold(satellite.lock);
    for (const auto& [key, service] : satellite.services) {
        text.append("\t<service>\n");
        AppendTag(text, "\t\t", "name", Cut(service.name, nameLimit));
        AppendTag(text, "\t\t", "description", Cut(service.description, descriptionLimit));
        text.append("\t</service>\n");
    }
    text.append("</satellite>\n");
    return text;
}

Fault ReadSatellite(const CStdStr& text, KelSatelliteInfo& satellite) {
    if (text.empty()) return "it is empty";
    int port = 0;
    Fault fault = OneNumber(text, "id", satellite.satId);
    if (fault.empty()) fault = OneValue(text, "satName", satellite.satName);
    if (fault.empty()) fault = OneValue(text, "ip", satellite.ip);
    if (fault.empty()) fault = OneNumber(text, "port", port);
    if (fault.empty()) fault = OneValue(text, "hostname", satellite.hostname);
    if (fault.empty()) fault = OneNumber(text, "kelProtocolVersion", satellite.kelProtocolVersion);
    satellite.port = static_cast<uint16_t>(port);
    return fault;
}

Fault ReadServices(const CStdStr& text, KelSatelliteInfo& satellite) {
    std::vector<CStdStr> blocks;
    const bool areAllClosed = getXMLTagValue(text, "service", blocks) == 0;
    PWriteHold hold(satellite.lock);
    for (const CStdStr& block : blocks) {
        KelService service;
        Fault fault = OneValue(block, "name", service.name);
        if (fault.empty()) fault = OneValue(block, "description", service.description, true);
        if (!fault.empty()) return "in a service " + fault;
        const CStdStr name = service.name;
        satellite.services[name] = std::move(service);
    }
    return areAllClosed ? Fault() : Fault("<service> is not closed");
}

int32_t IdIn(const CStdStr& text) {
    const std::optional<CStdStr> id = FirstValue(text, "id");
    return id ? std::atoi(id->c_str()) : 0;
}

CStdStr RegistrationText(const CStdStr& serverId, int32_t lastSatId) {
    CStdStr text("<?xml version='1.0'?>\n<registration>\n");
    AppendTag(text, "\t", "serverId", serverId);
    AppendTag(text, "\t", "lastSatId", std::to_string(lastSatId));
    text.append("</registration>\n");
    return text;
}

RegistrationRecord ReadRegistration(const CStdStr& text) {
    RegistrationRecord record;
    record.serverId = FirstValue(text, "serverId");
    if (const std::optional<CStdStr> last = FirstValue(text, "lastSatId")) record.lastSatId = std::atoi(last->c_str());
    return record;
}

Fault RegistrationFault(const CStdStr& text) {
    if (text.empty()) return "it is empty";
    const std::optional<CStdStr> last = FirstValue(text, "lastSatId");
    if (!last) return "it does not name the last id";
    if (last->empty() || last->find_first_not_of("0123456789") != CStdStr::npos) return "its last id is no number";
    return FirstValue(text, "serverId") ? "" : "it does not name the server";
}

}  // namespace kel::registry

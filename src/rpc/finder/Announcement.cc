#include "rpc/finder/Announcement.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <optional>
#include <string>

namespace kel::wire {
namespace {

constexpr std::string_view lineEnd = "\r\n";
constexpr std::string_view separator = ", ";

std::string_view Trim(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n\v\f";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// The header lines up to the empty one that ends them, by name; the first of a name counts. Nothing when it is missing.
using Headers = std::map<std::string_view, std::string_view>;
std::optional<Headers> ReadHeaders(std::string_view text) {
    Headers headers;
    for (;;) {
        const size_t end = text.find(lineEnd);
        if (end == std::string_view::npos) return std::nullopt;
        if (end == 0) return headers;
        const std::string_view line = text.substr(0, end);
        const size_t colon = line.find(':');
        if (colon != std::string_view::npos) headers.try_emplace(line.substr(0, colon), line.substr(colon + 1));
        text.remove_prefix(end + lineEnd.size());
    }
}

std::string_view Value(const Headers& headers, std::string_view name) {
    const auto entry = headers.find(name);
    return entry == headers.end() ? std::string_view() : Trim(entry->second);
}

// Whether another machine can have the address: neither loopback nor multicast nor one without a meaning of its own.
bool IsHostAddress(const std::string& text) {
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1) return false;
    const uint32_t first = ntohl(address.s_addr) >> 24;
    return first != 0 && first != 127 && first < 224;
}

std::vector<CStdStr> ReadAddresses(std::string_view text) {
    std::vector<CStdStr> addresses;
    while (!text.empty() && addresses.size() < announcedAddresses) {
        const size_t end = std::min(text.find(','), text.size());
        const std::string address(Trim(text.substr(0, end)));
        if (IsHostAddress(address) && std::find(addresses.begin(), addresses.end(), address) == addresses.end()) {
            addresses.emplace_back(address);
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return addresses;
}

// Takes the text up to the next `end` that no backslash stands before, and that end itself.
std::optional<CStdStr> TakeEscaped(std::string_view& text, char end) {
    CStdStr taken;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == end) {
            text.remove_prefix(i + 1);
            return taken;
        }
        if (text[i] == '\\' && ++i == text.size()) break;
        taken += text[i];
    }
    return std::nullopt;
}

// "[name,value,flag], [name,value,flag]"; ends at what is no user.
std::vector<KelDirectoryUser> ReadUsers(std::string_view text) {
    std::vector<KelDirectoryUser> users;
    while (users.size() < announcedUsers && text.substr(0, 1) == "[") {
        text.remove_prefix(1);
        std::optional<CStdStr> name = TakeEscaped(text, ',');
        std::optional<CStdStr> value = name ? TakeEscaped(text, ',') : std::nullopt;
        if (!value || text.size() < 2 || (text[0] != '0' && text[0] != '1') || text[1] != ']') break;
        users.push_back({std::move(*name), std::move(*value), text[0] == '1'});
        text.remove_prefix(2);
        if (text.substr(0, separator.size()) != separator) break;
        text.remove_prefix(separator.size());
    }
    return users;
}

uint16_t ReadPort(std::string_view text) {
    uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size() ? port : uint16_t{0};
}

bool TakeStart(std::string_view& text, std::string_view start) {
    if (text.substr(0, start.size()) != start) return false;
    text.remove_prefix(start.size());
    return true;
}

}  // namespace

CStdStr BuildSearch() {
    CStdStr text;
    text.Format("SEARCH 1.0\r\nServer: %s\r\n\r\n", discoveryServer);
    return text;
}

bool ReadAnnouncement(std::string_view datagram, Announcement& out) {
    out = Announcement();
    if (datagram.find('\0') != std::string_view::npos) return false;
    if (TakeStart(datagram, "BYEBYE 1.0\r\n")) out.isFarewell = true;
    else if (!TakeStart(datagram, "NOTIFY 1.0\r\n")) return false;

    const std::optional<Headers> headers = ReadHeaders(datagram);
    if (!headers || Value(*headers, "Server") != discoveryServer) return false;
    out.directory.serverId = std::string(Value(*headers, "ServerID"));
    if (out.directory.serverId.empty() || out.directory.serverId.size() > serverIdLength) return false;
    if (out.isFarewell) return true;

    out.directory.addresses = ReadAddresses(Value(*headers, "Aliases"));
    out.directory.port = ReadPort(Value(*headers, "Port"));
    const auto users = headers->find("Users");
    if (users != headers->end() && users->second.substr(0, 1) == " ") {
        out.directory.users = ReadUsers(users->second.substr(1));
    }
    return out.directory.port != 0 && !out.directory.addresses.empty();
}

}  // namespace kel::wire

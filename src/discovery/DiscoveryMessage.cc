#include "discovery/DiscoveryMessage.h"

#include "foundation/NetworkUtils.h"

#include <string>

namespace kel::discovery {
namespace {

constexpr const char* version = "2.1";
constexpr const char* separator = ", ";
constexpr size_t separatorLength = 2;
constexpr size_t aliasLength = 17;  // the longest address and a separator

CStdStr Escape(CStdStr text) {
    text.Replace("\\", "\\\\");
    text.Replace(",", "\\,");
    return text;
}

void CutSeparator(CStdStr& list) {
    if (list.size() >= separatorLength) list.resize(list.size() - separatorLength);
}

CStdStr UserItem(const CStdStr& name, const UserDetails& details) {
    CStdStr item;
    item.Format("[%s,%s,%x]", Escape(name).c_str(), Escape(details.value).c_str(), details.flag ? 1U : 0U);
    return item + separator;
}

}  // namespace

size_t UserBytes(const CStdStr& name, const UserDetails& details) { return UserItem(name, details).size(); }

CStdStr BuildUserList(const std::map<CStdStr, UserDetails>& users) {
    CStdStr list;
    for (const auto& [name, details] : users) list += UserItem(name, details);
    CutSeparator(list);
    return list;
}

CStdStr BuildAliases(const std::vector<in_addr>& addresses, in_addr first) {
    CStdStr aliases;
    aliases.reserve(addresses.size() * aliasLength);
    for (const in_addr address : addresses) {
        const CStdStr text = yar::networkutils::inet_ntos(address) + separator;
        if (address.s_addr == first.s_addr) aliases.insert(0, text);
        else aliases += text;
    }
    CutSeparator(aliases);
    return aliases;
}

CStdStr BuildNotify(const CStdStr& serverId, const CStdStr& aliases, uint16_t port, const CStdStr& userList) {
    CStdStr text;
    text.Format("NOTIFY 1.0\r\n%s %s\r\n%s %s\r\n%s %s\r\n%s %s\r\n%s %s\r\n%s %d\r\n%s %s\r\n\r\n",
                "Server:", wire::discoveryServer, "Max-Version:", version, "Version:", version,
                "ServerID:", serverId.c_str(), "Aliases:", aliases.c_str(), "Port:", port, "Users:", userList.c_str());
    return text;
}

CStdStr BuildByeBye(const CStdStr& serverId) {
    CStdStr text;
    text.Format("BYEBYE 1.0\r\n%s %s\r\n%s %s\r\n%s %s\r\n%s %s\r\n\r\n", "Server:", wire::discoveryServer,
                "Max-Version:", version, "Version:", version, "ServerID:", serverId.c_str());
    return text;
}

bool IsSearch(std::string_view datagram) {
    constexpr std::string_view lineEnd = "\r\n";
    constexpr std::string_view header = "Server:";
    const std::string_view text = datagram.substr(0, datagram.find('\0'));
    if (text.find("SEARCH 1.0\r\n") == std::string_view::npos) return false;
    const size_t name = text.find(header);
    if (name == std::string_view::npos) return false;
    const size_t start = name + header.size();
    const size_t end = text.find(lineEnd, start);
    if (end == std::string_view::npos) return false;
    CStdStr server(text.data() + start, end - start);
    return server.Trim() == wire::discoveryServer;
}

bool ReadNotifyHead(std::string_view datagram, wire::Announcement& out) {
    constexpr std::string_view lineEnd = "\r\n";
    const size_t lastLine = datagram.rfind(lineEnd);
    if (datagram.substr(0, 6) != "NOTIFY" || lastLine == std::string_view::npos) return false;
    std::string whole(datagram.substr(0, lastLine));
    whole.append(lineEnd).append(lineEnd);
    return wire::ReadAnnouncement(whole, out) && !out.isFarewell;
}

}  // namespace kel::discovery

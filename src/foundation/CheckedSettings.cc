#include "foundation/CheckedSettings.h"

#include "foundation/Settings.h"
#include "platform/PreferencesStore.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <utility>

using kel::platform::Preferences;
using kel::platform::PreferenceValue;

namespace kel::settings {
namespace {

constexpr char product[] = "com.tessaly.yar";
constexpr char config[] = "com.tessaly.yar.config";
constexpr char directoryPort[] = "kel.directoryPort";
constexpr char bindAddress[] = "kel.bindAddress";
constexpr int defaultPort = 5001;
constexpr char everywhere[] = "0.0.0.0";
constexpr char loopback[] = "127.0.0.1";
constexpr char loopbackOnly[] = "listening on 127.0.0.1 only";

// A file of settings as it is now.
struct List {
    CStdStr path;
    bool exists = false;
    CStdStr fault;  // why it cannot be read; empty when it can, or is not there
    Preferences preferences;
};

List Read(const char* identifier) {
    std::string fault;
    std::optional<Preferences> read = kel::platform::SynchronisePreferences(identifier, &fault);
    return {kel::platform::PreferencesPath(identifier), !fault.empty() || (read && read->exists), fault,
            read ? std::move(*read) : Preferences()};
}

// --- Single values ---

bool IsPort(int64_t number) { return number > 0 && number <= 65535; }

bool IsAddress(const std::string& text) {
    in_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

// As who joins the group reads it: an empty text is the default, and the short forms of an address count.
bool IsGroup(const std::string& text) { return text.empty() || inet_addr(text.c_str()) != INADDR_NONE; }

bool IsNumber(Kind kind) { return kind == Kind::number || kind == Kind::port; }

const char* TypeName(const PreferenceValue& value) {
    constexpr const char* names[] = {"a date, data, array or dict", "a boolean", "an integer", "a real", "a string"};
    return names[value.index()];
}

CStdStr NumberFault(Kind kind, int64_t number) {
    using Limits = std::numeric_limits<int32_t>;
    const std::string digits = std::to_string(number);
    if (kind == Kind::port && !IsPort(number)) return "is " + digits + ", which is no port";
    const bool fits = number >= Limits::min() && number <= Limits::max();
    return fits ? std::string() : "is " + digits + ", which 32 bits cannot hold";
}

CStdStr TextFault(Kind kind, const std::string& text) {
    const bool isRight = kind == Kind::address ? IsAddress(text) : kind != Kind::group || IsGroup(text);
    return isRight ? std::string() : "is \"" + text.substr(0, 100) + "\", which is no IPv4 address";
}

// What is wrong with the value of a setting; empty when nothing is.
CStdStr FaultOf(const Setting& setting, const PreferenceValue& value) {
    const auto* number = std::get_if<int64_t>(&value);
    const auto* text = std::get_if<std::string>(&value);
    if (IsNumber(setting.kind) && number) return NumberFault(setting.kind, *number);
    if (!IsNumber(setting.kind) && text) return TextFault(setting.kind, *text);
    return std::string("is ") + TypeName(value) + ", where " + TypeOf(setting) + " belongs";
}

// What counts in the place of a value that is wrong.
CStdStr InsteadOf(const Setting& setting) {
    int number = 0;
    switch (setting.kind) {
        case Kind::address:
            return loopbackOnly;
        case Kind::group:
            return std::string("using ") + setting.byDefault;
        case Kind::port:
            return "using " + std::to_string(DirectoryPort());
        case Kind::number:
            CRegistry::getInstance()->ReadSettingImpl(setting.identifier, setting.name, number);
            return "read as " + std::to_string(number);
        case Kind::text:
            break;
    }
    return "read as an empty text";
}

// --- A file ---

const Setting* FindSetting(const char* identifier, const std::string& name) {
    const auto& all = All();
    const auto found = std::find_if(all.begin(), all.end(), [&](const Setting& setting) {
        return name == setting.name && std::strcmp(setting.identifier, identifier) == 0;
    });
    return found == all.end() ? nullptr : &*found;
}

// Whether a name that is no setting of its file was meant to be one.
bool IsMistaken(const std::string& name) {
    const auto& all = All();
    return name.rfind("kel.", 0) == 0 ||
           std::any_of(all.begin(), all.end(), [&](const Setting& setting) { return name == setting.name; });
}

void CheckList(const char* identifier, std::vector<Finding>& findings) {
    const List list = Read(identifier);
    if (!list.fault.empty()) {
        const std::string instead = FindSetting(identifier, bindAddress) ? std::string(loopbackOnly) + ", and " : "";
        findings.push_back({list.path, "", "cannot be read: " + list.fault, instead + "using the defaults"});
    }
    for (const auto& [name, value] : list.preferences.values) {
        const Setting* setting = FindSetting(identifier, name);
        if (!setting && IsMistaken(name))
            findings.push_back({list.path, name, "is no setting of this file", "ignored"});
        if (!setting) continue;
        const CStdStr fault = FaultOf(*setting, value);
        if (!fault.empty()) findings.push_back({list.path, name, fault, InsteadOf(*setting)});
    }
}

}  // namespace

const std::vector<Setting>& All() {
    static const std::vector<Setting> all = {
        {product, "LogLevel", Kind::number, "1",
         "lines up to this level are logged: 0 fatal, 1 error, 2 warning, 3 information, 4 debug"},
        {product, "InstallDir", Kind::text, "/Applications/Yar.app", "the folder of the crash reporter's bundle"},
        {config, directoryPort, Kind::port, "5001", "the directory's port, for the directory and for satellites"},
        {config, bindAddress, Kind::address, everywhere,
         "the IPv4 address on which the directory and satellites listen"},
        {config, "kel.multicastGroup", Kind::group, "239.255.255.251",
         "the group in which directories are announced and searched for"},
        {config, "kel.syncFiles", Kind::number, "1",
         "0: do not wait until what is acknowledged is on the disk; a loss of power then loses the latest of it"},
    };
    return all;
}

const char* TypeOf(const Setting& setting) { return IsNumber(setting.kind) ? "an integer" : "a string"; }

CStdStr Finding::Text() const {
    CStdStr text(file);
    if (!name.empty()) text.append(": ").append(name);
    return text.append(" ").append(fault).append("; ").append(instead);
}

std::vector<Finding> Check() {
    std::vector<Finding> findings;
    for (const char* identifier : {product, config}) CheckList(identifier, findings);
    return findings;
}

CStdStr Files() {
    CStdStr text;
    for (const char* identifier : {product, config}) {
        const List list = Read(identifier);
        if (!text.empty()) text.append(", ");
        if (list.path.empty()) text.append(identifier).append(".plist");
        text.append(list.path).append(!list.fault.empty() ? " (broken)" : list.exists ? " (read)" : " (not there)");
    }
    return text;
}

uint16_t DirectoryPort() {
    int port = defaultPort;
    CRegistry::getInstance()->ReadSettingImpl(config, directoryPort, port);
    return static_cast<uint16_t>(IsPort(port) ? port : defaultPort);
}

CStdStr BindAddress() {
    const List list = Read(config);
    if (!list.fault.empty()) return loopback;
    const PreferenceValue* value = list.preferences.Find(bindAddress);
    if (!value) return everywhere;
    const auto* text = std::get_if<std::string>(value);
    return text && IsAddress(*text) ? CStdStr(*text) : CStdStr(loopback);
}

}  // namespace kel::settings

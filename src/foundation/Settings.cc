#include "foundation/Settings.h"

#include "foundation/StandardStreams.h"
#include "platform/PreferencesStore.h"

#include <iconv.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>

using kel::platform::Preferences;
using kel::platform::PreferenceValue;

namespace {

constexpr char productTree[] = "software\\tessaly\\yar";
constexpr char productIdentifier[] = "com.tessaly.yar";

// `text` in another encoding; nothing when it cannot be expressed there.
std::optional<CStdStr> Convert(const CStdStr& text, const char* from, const char* to) {
    const iconv_t converter = iconv_open(to, from);
    if (converter == reinterpret_cast<iconv_t>(-1)) return std::nullopt;
    CStdStr input = text;
    CStdStr output(std::string(3 * text.size(), '\0'));  // a Mac Roman character takes at most three bytes of UTF-8
    char* read = input.data();
    size_t unread = input.size();
    char* written = output.data();
    size_t room = output.size();
    const bool converted = iconv(converter, &read, &unread, &written, &room) != static_cast<size_t>(-1);
    iconv_close(converter);
    if (!converted) return std::nullopt;
    output.resize(output.size() - room);
    return output;
}

// Two characters of Mac Roman that the C library takes for others: theirs in UTF-8, and what they are.
constexpr const char* mistaken[][2] = {{"\u0394", "\u2206"}, {"\ue01e", "\uf8ff"}};

std::optional<CStdStr> ToPlatform(const CStdStr& text) {
    std::optional<CStdStr> converted = Convert(text, "MACINTOSH", "UTF-8");
    if (!converted) return converted;
    for (const auto& [theirs, right] : mistaken) converted->Replace(theirs, right);
    return converted;
}

CStdStr FromPlatform(const std::string& text) {
    CStdStr expected = text;
    for (const auto& [theirs, right] : mistaken) {
        if (expected.find(theirs) != CStdStr::npos) return {};
        expected.Replace(right, theirs);
    }
    return Convert(expected, "UTF-8", "MACINTOSH").value_or(CStdStr());
}

CStdStr ToText(const PreferenceValue& value) {
    const auto* text = std::get_if<std::string>(&value);
    return text ? FromPlatform(*text) : CStdStr();
}

int32_t RealToNumber(double value) {
    using Limits = std::numeric_limits<int32_t>;
    if (!(value > Limits::min())) return Limits::min();  // not a number, too
    return value < Limits::max() ? static_cast<int32_t>(value) : Limits::max();
}

int32_t ToNumber(const PreferenceValue& value) {
    if (const auto* number = std::get_if<int64_t>(&value)) return static_cast<int32_t>(*number);
    if (const auto* flag = std::get_if<bool>(&value)) return *flag;
    if (const auto* real = std::get_if<double>(&value)) return RealToNumber(*real);
    const auto* text = std::get_if<std::string>(&value);
    return text ? static_cast<int32_t>(std::strtoll(text->c_str(), nullptr, 10)) : 0;
}

bool IsNumber(const PreferenceValue& value) {
    return std::holds_alternative<int64_t>(value) || std::holds_alternative<double>(value);
}

std::optional<Preferences> Synchronise(const CStdStr& identifier) {
    const std::optional<CStdStr> name = ToPlatform(identifier);
    return name ? kel::platform::SynchronisePreferences(*name) : std::nullopt;
}

std::optional<PreferenceValue> Find(const CStdStr& identifier, const CStdStr& name) {
    const std::optional<Preferences> preferences = Synchronise(identifier);
    const std::optional<CStdStr> platformName = ToPlatform(name);
    const PreferenceValue* value = preferences && platformName ? preferences->Find(*platformName) : nullptr;
    return value ? std::make_optional(*value) : std::nullopt;
}

bool Store(const CStdStr& key, const CStdStr& name, const PreferenceValue& value) {
    const std::optional<CStdStr> identifier = ToPlatform(CRegistryImpl::createKey(key));
    const std::optional<CStdStr> platformName = ToPlatform(name);
    return identifier && platformName && kel::platform::StorePreference(*identifier, *platformName, value);
}

}  // namespace

boost::shared_ptr<CRegistry> CRegistry::getInstance() {
    static const boost::shared_ptr<CRegistry> instance(new CRegistryImpl);
    return instance;
}

CStdStr CRegistryImpl::createKey(const CStdStr& key) {
    CStdStr identifier = key;
    identifier.ToLower();
    identifier.Replace(productTree, productIdentifier);
    identifier.Replace("\\", ".");
    return identifier;
}

bool CRegistryImpl::WriteSettingImpl(const CStdStr& key, const CStdStr& name, const CStdStr& value) {
    const std::optional<CStdStr> text = ToPlatform(value);
    return text && Store(key, name, PreferenceValue(std::string(*text)));
}

bool CRegistryImpl::WriteSettingImpl(const CStdStr& key, const CStdStr& name, int value) {
    return Store(key, name, PreferenceValue(int64_t{value}));
}

bool CRegistryImpl::ReadSettingImpl(const CStdStr& key, const CStdStr& name, CStdStr& value) {
    const std::optional<PreferenceValue> found = Find(createKey(key), name);
    if (!found) return false;
    value = ToText(*found);
    return true;
}

bool CRegistryImpl::ReadSettingImpl(const CStdStr& key, const CStdStr& name, int& value) {
    const std::optional<PreferenceValue> found = Find(createKey(key), name);
    if (!found) return false;
    value = ToNumber(*found);
    return true;
}

void CRegistryImpl::ReadAllSettingsImpl(const CStdStr& key, std::map<CStdStr, CStdStr>& values) {
    const CStdStr identifier = createKey(key);
    const std::optional<Preferences> preferences = Synchronise(identifier);
    if (!preferences) {
        kel::PrintOut("synchronization failed for " + identifier + "\n");
        return;
    }
    if (!preferences->exists) {
        kel::PrintOut("no keys for " + identifier + "\n");
        return;
    }
    for (const auto& [name, value] : preferences->values) {
        if (IsNumber(value)) values[FromPlatform(name)] = std::to_string(ToNumber(value));
        else if (std::holds_alternative<std::string>(value)) values[FromPlatform(name)] = ToText(value);
    }
}

bool CRegistryImpl::ReadSettingImpl(const CStdStr& key, const CStdStr& name, bool& value) {
    const std::optional<PreferenceValue> found = Find(key, name);
    if (!found) return false;
    const auto* flag = std::get_if<bool>(&*found);
    value = flag && *flag;
    return true;
}

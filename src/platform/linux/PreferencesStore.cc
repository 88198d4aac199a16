#include "platform/PreferencesStore.h"

#include "platform/Files.h"
#include "platform/ProcessPaths.h"

#include <fcntl.h>
#include <plist/plist.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

// The files of one identifier, all in the configuration folder:
//
//     <identifier>.plist    the list; only ever replaced by a rename
//     .<identifier>.lock    empty; a writer holds flock on it from before it reads the list until the rename is done.
//                           It stays: were it removed, two writers could hold locks on two files of that name.
//     .<identifier>.new     the list being written. Only the holder of the lock has it, so a leftover of a writer that
//                           was killed is simply written over by the next.

namespace kel::platform {
namespace {

constexpr mode_t newListMode = 0600;
constexpr mode_t newFolderMode = 0700;
constexpr off_t largestList = 64 * 1024 * 1024;

struct PlistFree {
    void operator()(void* list) const { plist_free(list); }
};
using Plist = std::unique_ptr<void, PlistFree>;

struct CFree {
    void operator()(void* memory) const { std::free(memory); }
};

// A list as it lies on disk; without a file `dictionary` is null.
struct ListFile {
    Plist dictionary;
    mode_t mode = newListMode;
};

bool IsIdentifier(const std::string& identifier) {
    return !identifier.empty() && identifier.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

std::string ConfigurationFolder() {
    const char* folder = std::getenv("XDG_CONFIG_HOME");
    if (folder && *folder == '/') return folder;  // the base directory rules have a relative path ignored
    const std::string home = UserHomeFolder();
    return home.empty() ? std::string() : home + "/.config";
}

// Why a text in XML is damaged although the reader of lists takes it, or null. The reader is content once the
// dictionary is closed, and passes over a last key that has lost its value.
const char* DamageOf(const std::string& text) {
    constexpr char blanks[] = " \t\r\n";
    constexpr std::string_view end = "</plist>";
    constexpr std::string_view keyEnd = "</key>";
    constexpr std::string_view dictEnd = "</dict>";
    if (text.rfind("bplist", 0) == 0) return nullptr;
    const size_t last = text.find_last_not_of(blanks);
    if (last == std::string::npos) return "it is empty";
    if (last + 1 < end.size() || text.compare(last + 1 - end.size(), end.size(), end) != 0) {
        return "it does not end with </plist>";
    }
    for (size_t key = text.find(keyEnd); key != std::string::npos; key = text.find(keyEnd, key)) {
        key = text.find_first_not_of(blanks, key + keyEnd.size());
        if (key != std::string::npos && text.compare(key, dictEnd.size(), dictEnd) == 0)
            return "a key in it has no value";
    }
    return nullptr;
}

// Reads the text of a list; false, with the reason in `fault`, when it cannot be. Without a file it is empty and `mode`
// stays.
bool ReadListText(const std::string& path, std::string& text, std::optional<mode_t>& mode, std::string& fault) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.IsOpen()) {
        fault = std::strerror(errno);
        return errno == ENOENT;
    }
    struct stat info {};
    const bool isKnown = fstat(file.get(), &info) == 0;
    if (isKnown && !S_ISREG(info.st_mode)) {
        fault = "it is no regular file";
    } else if (isKnown && info.st_size > largestList) {
        fault = "it is larger than 64 MiB";
    } else if (isKnown && ReadWhole(file.get(), text) == 0) {
        mode = info.st_mode & 07777;
        return true;
    } else {
        fault = std::strerror(errno);
    }
    return false;
}

// Nothing, with the reason in `fault`, when there is a file that cannot be read or understood.
std::optional<ListFile> ReadListFile(const std::string& path, std::string& fault) {
    std::string text;
    std::optional<mode_t> mode;
    if (!ReadListText(path, text, mode, fault)) return std::nullopt;
    if (!mode) return ListFile();
    if (const char* damage = DamageOf(text)) {
        fault = damage;
        return std::nullopt;
    }
    plist_t root = nullptr;
    plist_from_memory(text.data(), static_cast<uint32_t>(text.size()), &root);
    ListFile list{Plist(root), *mode};
    if (root && plist_get_node_type(root) == PLIST_DICT) return list;
    fault = root ? "it is not a dictionary" : "it is damaged";
    return std::nullopt;
}

bool ReplaceListFile(const std::string& path, const std::string& temporary, const ListFile& list) {
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(list.dictionary.get(), &xml, &length);
    const std::unique_ptr<char, decltype(&plist_to_xml_free)> owner(xml, &plist_to_xml_free);
    if (!xml) return false;
    Descriptor file(open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, newListMode));
    if (!file.IsOpen()) return false;
    const bool written = fchmod(file.get(), list.mode) == 0 && WriteWhole(file.get(), xml, length) == 0;
    if (file.Close() == 0 && written && rename(temporary.c_str(), path.c_str()) == 0) return true;
    unlink(temporary.c_str());
    return false;
}

// Makes the folder with those above it; a failure shows when the lock file in it is opened.
void MakeFolder(const std::string& folder) {
    for (size_t slash = folder.find('/', 1); slash != std::string::npos; slash = folder.find('/', slash + 1)) {
        mkdir(folder.substr(0, slash).c_str(), newFolderMode);
    }
    mkdir(folder.c_str(), newFolderMode);
}

bool WaitForLock(int fd) {
    int result;
    do {
        result = flock(fd, LOCK_EX);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

PreferenceValue FromPlist(plist_t node) {
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            uint8_t value = 0;
            plist_get_bool_val(node, &value);
            return value != 0;
        }
        case PLIST_UINT: {
            uint64_t value = 0;  // negative numbers in two's complement
            plist_get_uint_val(node, &value);
            return static_cast<int64_t>(value);
        }
        case PLIST_REAL: {
            double value = 0;
            plist_get_real_val(node, &value);
            return value;
        }
        case PLIST_STRING: {
            uint64_t length = 0;
            const char* text = plist_get_string_ptr(node, &length);
            return text ? std::string(text, length) : std::string();
        }
        default:
            return OtherPreference{};
    }
}

bool HasNul(const std::string& text) { return text.find('\0') != std::string::npos; }

// The value as a node of a list; null when it cannot be one.
plist_t ToPlist(const PreferenceValue& value) {
    if (const auto* flag = std::get_if<bool>(&value)) return plist_new_bool(*flag);
    if (const auto* number = std::get_if<int64_t>(&value)) return plist_new_uint(static_cast<uint64_t>(*number));
    if (const auto* real = std::get_if<double>(&value)) return plist_new_real(*real);
    const auto* text = std::get_if<std::string>(&value);
    return text && !HasNul(*text) ? plist_new_string(text->c_str()) : nullptr;
}

Preferences ToPreferences(const ListFile& list) {
    Preferences preferences;
    if (!list.dictionary) return preferences;
    preferences.exists = true;
    plist_dict_iter position = nullptr;
    plist_dict_new_iter(list.dictionary.get(), &position);
    const std::unique_ptr<void, CFree> owner(position);
    for (;;) {
        char* name = nullptr;
        plist_t node = nullptr;
        plist_dict_next_item(list.dictionary.get(), position, &name, &node);
        const std::unique_ptr<char, CFree> nameOwner(name);
        if (!node) return preferences;
        preferences.values.emplace_back(name ? name : "", FromPlist(node));
    }
}

}  // namespace

const PreferenceValue* Preferences::Find(const std::string& name) const {
    for (const auto& [key, value] : values) {
        if (key == name) return &value;
    }
    return nullptr;
}

std::string PreferencesPath(const std::string& identifier) {
    const std::string folder = ConfigurationFolder();
    return folder.empty() || !IsIdentifier(identifier) ? std::string() : folder + "/" + identifier + ".plist";
}

std::optional<Preferences> SynchronisePreferences(const std::string& identifier, std::string* fault) {
    const std::string path = PreferencesPath(identifier);
    if (path.empty()) return std::nullopt;
    std::string reason;
    const std::optional<ListFile> list = ReadListFile(path, reason);
    if (list) return ToPreferences(*list);
    if (fault) *fault = reason;
    return std::nullopt;
}

bool StorePreference(const std::string& identifier, const std::string& name, const PreferenceValue& value) {
    const std::string folder = ConfigurationFolder();
    if (folder.empty() || !IsIdentifier(identifier) || HasNul(name)) return false;
    Plist node(ToPlist(value));
    if (!node) return false;

    MakeFolder(folder);
    const std::string lockPath = folder + "/." + identifier + ".lock";
    const Descriptor lock(open(lockPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, newListMode));
    if (!lock.IsOpen() || !WaitForLock(lock.get())) return false;
    const std::string path = folder + "/" + identifier + ".plist";
    std::string ignored;
    std::optional<ListFile> list = ReadListFile(path, ignored);
    if (!list) return false;
    if (!list->dictionary) list->dictionary.reset(plist_new_dict());
    plist_dict_set_item(list->dictionary.get(), name.c_str(), node.release());
    return ReplaceListFile(path, folder + "/." + identifier + ".new", *list);
}

}  // namespace kel::platform

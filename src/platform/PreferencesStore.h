// The preferences of the current user: for each application identifier one typed property list, the file
// "<identifier>.plist" (XML) in $XDG_CONFIG_HOME, by default ~/.config.
//
// Nothing is cached: a synchronise reads the file as it is now, so a change by another process is seen at once. A store
// reads the list under a lock, changes one value and replaces the file as a whole, so that a reader meets the old list
// or the new one and processes that write at the same time lose none of each other's values. What a list holds beside
// the value stored is kept. A list that cannot be read or understood is never written over.
//
// An identifier names a file in that folder and no other: one that is empty, or has a "/" or a NUL in it, fails. Texts
// are UTF-8. All functions may be called from any thread, and block while another writer holds the lock.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace kel::platform {

// A value of another type (date, data, array, dictionary).
struct OtherPreference {};

using PreferenceValue = std::variant<OtherPreference, bool, int64_t, double, std::string>;

// One application's list as it was when it was read.
struct Preferences {
    bool exists = false;                                          // whether there is a list at all
    std::vector<std::pair<std::string, PreferenceValue>> values;  // by name, in the list's order

    // The value stored under `name` (case-sensitive); null when there is none. Valid as long as this object.
    const PreferenceValue* Find(const std::string& name) const;
};

// The file of the list of `identifier`, which may not exist; empty when no file can have this name or the user has no
// folder for it.
std::string PreferencesPath(const std::string& identifier);

// Reads the list of `identifier`. That there is none is no failure; one that is unreadable or broken is, and then
// nothing is returned and `fault`, when it is given, says in words what is wrong with the file at PreferencesPath. A
// list that has lost its end is broken, however much of it could still be read.
std::optional<Preferences> SynchronisePreferences(const std::string& identifier, std::string* fault = nullptr);

// Stores `value` under `name` in the list of `identifier`, making list and folder when they are missing (modes 0600
// and 0700). False, and nothing is changed, when the list is unreadable or broken, the file cannot be replaced, a text
// has a NUL in it or the value is an OtherPreference.
bool StorePreference(const std::string& identifier, const std::string& name, const PreferenceValue& value);

}  // namespace kel::platform

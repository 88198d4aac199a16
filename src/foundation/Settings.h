// CRegistry: the settings of the product, addressed by a registry-style key path such as "Software\Tessaly\Yar\Config"
// and a value name, and kept in the current user's preferences (platform/PreferencesStore.h). Value names are
// case-sensitive, key paths are not. All texts are Mac Roman.
//
// The settings are shared by all processes of the user. Nothing is cached: each read asks the preferences anew, each
// write is on disk when it returns. Any thread may use the one instance.
#pragma once

#include "foundation/Export.h"
#include "foundation/StdString.h"

#include <boost/shared_ptr.hpp>

#include <map>

class KEL_API CRegistry {
public:
    // The instance of this process; made by the first call, it lives until the process ends.
    static boost::shared_ptr<CRegistry> getInstance();

    virtual ~CRegistry() = default;

    // Store a text or a number; true when it is on disk. False when the preferences cannot be read or replaced; they
    // are then as they were.
    virtual bool WriteSettingImpl(const CStdStr& key, const CStdStr& name, const CStdStr& value) = 0;
    virtual bool WriteSettingImpl(const CStdStr& key, const CStdStr& name, int value) = 0;

    // True, and `value` is filled, when the value exists; otherwise false, and `value` is left as it was. A value that
    // is not a text, or cannot be expressed in Mac Roman, reads as the empty text.
    virtual bool ReadSettingImpl(const CStdStr& key, const CStdStr& name, CStdStr& value) = 0;
    // Likewise; a value of another type is read as a number all the same: true is 1, a text counts with the number at
    // its beginning, and what has none is 0.
    virtual bool ReadSettingImpl(const CStdStr& key, const CStdStr& name, int& value) = 0;

    // Adds all texts and numbers (in decimal) under the key to `values`, by name. Prints a line on standard output when
    // the preferences cannot be read or hold nothing for the key.
    virtual void ReadAllSettingsImpl(const CStdStr& key, std::map<CStdStr, CStdStr>& values) = 0;

    // Likewise for a boolean; any other value than true reads as false. Unlike everywhere else, `key` is the
    // preferences identifier as it stands: a boolean under a key path is looked up under that literal path.
    virtual bool ReadSettingImpl(const CStdStr& key, const CStdStr& name, bool& value) = 0;
};

// The settings in the preferences of the platform.
class KEL_API CRegistryImpl : public CRegistry {
public:
    bool WriteSettingImpl(const CStdStr& key, const CStdStr& name, const CStdStr& value) override;
    bool WriteSettingImpl(const CStdStr& key, const CStdStr& name, int value) override;
    bool ReadSettingImpl(const CStdStr& key, const CStdStr& name, CStdStr& value) override;
    bool ReadSettingImpl(const CStdStr& key, const CStdStr& name, int& value) override;
    void ReadAllSettingsImpl(const CStdStr& key, std::map<CStdStr, CStdStr>& values) override;
    bool ReadSettingImpl(const CStdStr& key, const CStdStr& name, bool& value) override;

    // The preferences identifier of a key path: lower-cased, the product's tree "software\tessaly\yar" replaced by the
    // product's identifier, and every "\" by ".".
    static CStdStr createKey(const CStdStr& key);
};

// TempRoot: a folder of its own for one test. While it lives, the environment points below it: YAR_ROOT, so that data
// and logs go there, and XDG_CONFIG_HOME, so that settings do. At its end both variables have their old values again
// and the folder is gone with all that is in it.
//
// Create it before the first thread of the test and destroy it after the last: the environment has no lock.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

class TempRoot {
public:
    TempRoot()
        : path_(makeFolder()), root_("YAR_ROOT", path_ + "/root"), config_("XDG_CONFIG_HOME", path_ + "/config") {
        std::filesystem::create_directories(root() + "/Library/Logs");
        std::filesystem::create_directories(config());
    }

    ~TempRoot() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;

    // The folder itself, for a test's own files.
    const std::string& path() const { return path_; }
    // What YAR_ROOT names. "Library/Logs" exists in it, as on a system where the product was never started.
    std::string root() const { return path_ + "/root"; }
    // What XDG_CONFIG_HOME names.
    std::string config() const { return path_ + "/config"; }
    // Where the product makes its data and its logs; neither exists yet.
    std::string dataFolder() const { return root() + "/Library/Tessaly"; }
    std::string logsFolder() const { return root() + "/Library/Logs/Tessaly"; }

private:
    // One environment variable with a value of the test's, for as long as this lives.
    class Variable {
    public:
        Variable(const char* name, const std::string& value) : name_(name) {
            if (const char* old = ::getenv(name)) old_ = old;
            ::setenv(name, value.c_str(), 1);
        }
        ~Variable() {
            if (old_) ::setenv(name_, old_->c_str(), 1);
            else ::unsetenv(name_);
        }
        Variable(const Variable&) = delete;
        Variable& operator=(const Variable&) = delete;

    private:
        const char* name_;
        std::optional<std::string> old_;
    };

    static std::string makeFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "kel-test-XXXXXX").string();
        if (!::mkdtemp(name.data())) throw std::runtime_error("no temporary folder " + name);
        return name;
    }

    std::string path_;
    Variable root_;
    Variable config_;
};

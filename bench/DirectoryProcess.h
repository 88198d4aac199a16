// The processes that are measured: the directory itself, and the baselines in processes of their own.
#pragma once

#include "FileLoop.h"
#include "Support.h"

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace kel::bench {

// A child process. It ends with its owner, by SIGTERM and after ten seconds by SIGKILL, and with the process that
// started it. Not thread-safe.
class ChildProcess {
public:
    using Environment = std::vector<std::pair<std::string, std::string>>;

    // Where its standard output goes: to ReadLine, and its standard input then comes from WriteLine; or to where this
    // process's errors go.
    enum class Output { toReadLine, toErrors };

    // Runs `arguments[0]` with `environment` added to this process's own.
    ChildProcess(const std::vector<std::string>& arguments, Output output, const Environment& environment = {});
    ChildProcess(ChildProcess&&) = default;
    ChildProcess& operator=(ChildProcess&&) = delete;
    ~ChildProcess();

    pid_t pid() const { return pid_.number; }

    // The next line of its standard output, at most 60 seconds away, without the line feed. Throws when the child ends
    // instead.
    std::string ReadLine();

    // Hands it a line, to which the line feed is added.
    void WriteLine(const std::string& line);

    // Ends it by SIGKILL and waits until it is gone.
    void Kill();

    // Throws when the child has ended by itself.
    void ThrowIfEnded();

    // The processor time that it has used, threads that have ended included.
    double CpuSeconds() const;

private:
    struct Id {
        explicit Id(pid_t id) : number(id) {}
        Id(Id&& other) noexcept : number(std::exchange(other.number, -1)) {}
        pid_t number;  // -1 once it was waited for
    };

    bool WaitFor(double seconds);

    std::string program_;
    Descriptor output_;
    Descriptor input_;
    std::string unread_;
    Id pid_;
};

// This program once more, in one of its child modes, with its output to ReadLine.
ChildProcess StartSelf(std::vector<std::string> arguments, const ChildProcess::Environment& environment = {});

// A port of the loopback address that nobody has.
uint16_t FreePort();

// A KelDirectory, on a free port of the loopback address or of all addresses, with its files below a root of its own.
class DirectoryProcess {
public:
    // Takes what is below `root` as its files; an empty or absent folder gets a registration file (MakeFolders).
    // `program` is the executable. Does not start it.
    DirectoryProcess(std::string program, std::string root, Syncing syncing = Syncing::on,
                     const std::string& bindAddress = "127.0.0.1");

    // Runs the program and waits until it knows the satellite `name`. Returns the seconds from the start of the process
    // to that answer; throws after 60.
    double Start(const std::string& name = "MainRegister");

    // Ends it by SIGTERM; its files stay.
    void Stop() { process_.clear(); }

    uint16_t port() const { return port_; }
    const std::string& root() const { return root_; }

    // What has libkel, and a further directory, take the same files and settings.
    ChildProcess::Environment environment() const;

    // Its resident memory, in bytes: now, and the most that it has ever been.
    uint64_t ResidentBytes() const { return Status("VmRSS:") * 1024; }
    uint64_t PeakResidentBytes() const { return Status("VmHWM:") * 1024; }

    unsigned Threads() const { return static_cast<unsigned>(Status("Threads:")); }

    double CpuSeconds() const { return process_.back().CpuSeconds(); }

private:
    uint64_t Status(const std::string& field) const;

    std::string program_;
    std::string root_;
    uint16_t port_;
    std::vector<ChildProcess> process_;  // at most one
};

}  // namespace kel::bench

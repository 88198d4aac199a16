// ShellRun: runs a command from a process that has crashed.
#pragma once

#include <signal.h>
#include <spawn.h>

namespace kel::crash {

// Made ahead of the crash, since making it allocates; any thread may use it then.
class ShellRun {
public:
    ShellRun();
    ~ShellRun();
    ShellRun(const ShellRun&) = delete;
    ShellRun& operator=(const ShellRun&) = delete;

    // Runs the command line with the shell and waits until it has ended, however long that takes. The command starts as
    // from a terminal: no signal blocked or ignored, no descriptor but the standard three, whatever this process has
    // set up. Standard error leads nowhere, since what the shell says of a command that cannot be run would wait there
    // for a reader. Nothing happens when there is no process to spare. Safe in a signal handler: unlike system() and
    // fork() it takes no lock that the crashed thread may hold.
    void RunAndWait(const char* command) const;

private:
    posix_spawnattr_t attributes_;
    posix_spawn_file_actions_t descriptors_;
};

}  // namespace kel::crash

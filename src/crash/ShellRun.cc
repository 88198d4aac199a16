#include "crash/ShellRun.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace kel::crash {

ShellRun::ShellRun() {
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_init(&attributes_);
    posix_spawnattr_setsigdefault(&attributes_, &all);
    posix_spawnattr_setsigmask(&attributes_, &none);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    posix_spawn_file_actions_init(&descriptors_);
    posix_spawn_file_actions_addopen(&descriptors_, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addclosefrom_np(&descriptors_, STDERR_FILENO + 1);
}

ShellRun::~ShellRun() {
    posix_spawn_file_actions_destroy(&descriptors_);
    posix_spawnattr_destroy(&attributes_);
}

void ShellRun::RunAndWait(const char* command) const {
    const char* const arguments[] = {"sh", "-c", command, nullptr};
    pid_t shell = 0;
    const int error =
        posix_spawn(&shell, "/bin/sh", &descriptors_, &attributes_, const_cast<char* const*>(arguments), environ);
    if (error != 0) return;
    while (waitpid(shell, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace kel::crash

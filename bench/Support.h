// What the parts of kel_bench share: the clock, errors with errno in words, descriptors, and being interrupted.
#pragma once

#include "platform/Files.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <string>
#include <system_error>

namespace kel::bench {

using Clock = std::chrono::steady_clock;

inline double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Throws std::system_error with `what` and errno in words.
[[noreturn]] inline void FailWithErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// Set by SIGINT, SIGTERM and SIGALRM to the signal's number. Every wait looks at it, so that the destructors end the
// child processes and remove the files.
inline volatile std::sig_atomic_t interruptedBy = 0;

inline void ThrowIfInterrupted() {
    if (interruptedBy == SIGALRM) throw std::runtime_error("stopped: it took too long");
    if (interruptedBy) throw std::runtime_error("stopped by a signal");
}

// As many descriptors as the system allows, for this process and those that it starts.
inline void RaiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

using platform::Descriptor;

}  // namespace kel::bench

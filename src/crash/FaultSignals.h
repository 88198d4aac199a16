// The signals that mean that a thread cannot go on: those that Breakpad's handler takes.
#pragma once

#include <signal.h>

namespace kel::crash {

constexpr int faultSignals[] = {SIGSEGV, SIGABRT, SIGFPE, SIGILL, SIGBUS, SIGTRAP};

}  // namespace kel::crash

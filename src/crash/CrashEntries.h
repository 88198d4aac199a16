// CrashEntries: the ways into a crash that are not faults by themselves (an uncaught exception, abort(), SIGUSR1), each
// turned into a write to address zero, which Breakpad's handler takes; and a net below that handler for a fault that it
// cannot take. CrashEntries.cc opens with how this works.
#pragma once

#include "crash/CrashLog.h"
#include "crash/FaultSignals.h"

#include <semaphore.h>
#include <signal.h>

#include <array>
#include <atomic>
#include <exception>
#include <iterator>
#include <memory>

class PThread;

namespace kel::crash {

// There is one a process at a time, and it belongs to the MiniDumpers of that process: signals and the terminate
// handler are the process's own. Construction and destruction are for one thread at a time.
class CrashEntries {
public:
    // Puts up the net: a fault that reaches it calls `onFault` in the signal's context, which must not return. Belongs
    // before Breakpad's handler, which falls back to what it found.
    CrashEntries(CrashLog& log, void (*onFault)());
    // Restores what was there before.
    ~CrashEntries();
    CrashEntries(const CrashEntries&) = delete;
    CrashEntries& operator=(const CrashEntries&) = delete;

    // Opens the three ways in. Belongs behind Breakpad's handler, which takes SIGABRT for itself.
    void Open();

private:
    static void faultHandler(int);
    static void usr1Handler(int);
    static void abortHandler(int, siginfo_t*, void* context);
    static void terminateHandler();
    static unsigned int generateCrash(void*);

    static std::atomic<CrashEntries*> current;

    CrashLog& log_;
    void (*const onFault_)();
    bool isOpen_ = false;
    std::array<struct sigaction, std::size(faultSignals)> faultsBefore_{};
    struct sigaction usr1Before_ {};
    std::terminate_handler terminateBefore_ = nullptr;

    std::atomic<bool> stopping_{false};
    sem_t wakeCrashThread_;
    std::unique_ptr<PThread> crashThread_;
};

}  // namespace kel::crash

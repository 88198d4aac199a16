// How a process comes to crash in order
//
// Breakpad's handler knows faults only. What else ends a process is turned into one: the terminate handler says which
// exception nobody caught, the handler of SIGABRT that abort() was called, and then the very thread writes to address
// zero, so that its stack in the dump leads to the throw or to the abort(). After abort() it does so behind the
// handler's back, where the signal met it: what the system puts on the stack for a handler, nobody can read a stack
// across.
//
// SIGUSR1 is for a process that an operator wants a dump of, often because it hangs. So its handler neither logs nor
// starts a thread, either of which would wait for locks that the interrupted thread may hold: it wakes a thread that
// has been standing by since the start, which logs, for a bounded time, and crashes. The interrupted thread goes on and
// stands in the dump with all others as it was.
//
// Below Breakpad's handler lies a net. Breakpad needs a page of memory and a process to write a dump, and without them
// puts back the handlers that it found, has the fault happen again and leaves. It finds those set up here, which at
// least see to the log and the reporter.
#include "crash/CrashEntries.h"

#include "crash/HelperThread.h"
#include "foundation/SignalContext.h"
#include "foundation/StandardStreams.h"
#include "foundation/Thread.h"

#include <cxxabi.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <typeinfo>

namespace kel::crash {

namespace {

void Handle(int number, void (*handler)(int), int flags, struct sigaction* before) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    sigaction(number, &action, before);
}

// The address is read at run time, so that the compiler sees an ordinary store.
int* volatile addressZero = nullptr;

[[gnu::noinline]] __attribute__((no_sanitize("undefined"))) void WriteToAddressZero() { *addressZero = 0; }

// Prints, unless nobody reads and it would block.
void Print(const char* text, size_t length) { static_cast<void>(WriteAtOnce(STDOUT_FILENO, text, length)); }

}  // namespace

std::atomic<CrashEntries*> CrashEntries::current{nullptr};

CrashEntries::CrashEntries(CrashLog& log, void (*onFault)()) : log_(log), onFault_(onFault) {
    current = this;
    sem_init(&wakeCrashThread_, 0, 0);
    for (size_t i = 0; i < faultsBefore_.size(); ++i)
        Handle(faultSignals[i], &faultHandler, SA_ONSTACK, &faultsBefore_[i]);
}

void CrashEntries::Open() {
    if (isOpen_) return;
    isOpen_ = true;
    crashThread_ = StartHelper(new PThreadDelegateFunction(&generateCrash));
    Handle(SIGUSR1, &usr1Handler, SA_ONSTACK | SA_RESTART, &usr1Before_);
    terminateBefore_ = std::set_terminate(&terminateHandler);
    struct sigaction abortAction {};
    abortAction.sa_sigaction = &abortHandler;
    abortAction.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&abortAction.sa_mask);
    sigaction(SIGABRT, &abortAction, nullptr);
}

CrashEntries::~CrashEntries() {
    if (crashThread_) {  // first: it may be about to crash
        stopping_ = true;
        sem_post(&wakeCrashThread_);
        crashThread_->Join();
    }
    if (isOpen_) {
        sigaction(SIGUSR1, &usr1Before_, nullptr);
        std::set_terminate(terminateBefore_);
    }
    for (size_t i = 0; i < faultsBefore_.size(); ++i) sigaction(faultSignals[i], &faultsBefore_[i], nullptr);
    current = nullptr;
    sem_destroy(&wakeCrashThread_);
}

void CrashEntries::faultHandler(int) { current.load()->onFault_(); }

void CrashEntries::usr1Handler(int) {
    const int error = errno;
    CrashEntries& entries = *current.load();
    if (!entries.crashThread_) WriteToAddressZero();  // no thread could be had at the start
    sem_post(&entries.wakeCrashThread_);
    errno = error;
}

unsigned int CrashEntries::generateCrash(void*) {
    CrashEntries& entries = *current.load();
    while (sem_wait(&entries.wakeCrashThread_) != 0 && errno == EINTR) {
    }
    if (entries.stopping_) return 0;
    entries.log_.Write(LOGLEVEL_INFO, "USR1 signal received, generating crash");
    if (entries.stopping_) return 0;
    WriteToAddressZero();
    return 0;
}

void CrashEntries::abortHandler(int, siginfo_t*, void* context) {
    constexpr char text[] = "abort() was called\n";
    Print(text, sizeof text - 1);
    kel::CallOnReturn(context, &WriteToAddressZero);
}

void CrashEntries::terminateHandler() {
    CrashLog& log = current.load()->log_;
    try {
        if (std::current_exception()) throw;
        log.Write(LOGLEVEL_FATAL, "uncaught unknown c++ exception");
    } catch (const std::exception& exception) {
        int status = 0;
        const char* name = typeid(exception).name();
        const std::unique_ptr<char, decltype(&std::free)> readable(abi::__cxa_demangle(name, nullptr, nullptr, &status),
                                                                   &std::free);
        log.Write(LOGLEVEL_FATAL, "uncaught %s c++ exception: %s", readable ? readable.get() : name, exception.what());
    } catch (...) {
        log.Write(LOGLEVEL_FATAL, "uncaught unknown c++ exception");
    }
    WriteToAddressZero();
}

}  // namespace kel::crash

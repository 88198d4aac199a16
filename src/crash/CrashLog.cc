#include "crash/CrashLog.h"

#include "crash/HelperThread.h"
#include "foundation/Thread.h"

#include <time.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace kel::crash {

namespace {

// Generous for a slow disk: what ends it early is the line being written.
constexpr long patience = 5000;  // milliseconds
constexpr long patienceOfScribe = 4000;

// Polls, since nothing that wakes a thread may be waited for in a signal handler.
template <typename Condition>
bool WaitUntil(Condition condition) {
    constexpr timespec pause{0, 1000000};
    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    while (!condition()) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        if ((now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000 >= patience) return false;
        nanosleep(&pause, nullptr);
    }
    return true;
}

}  // namespace

CrashLog::CrashLog(const CStdStr& module) : lastWords_(module) {
    sem_init(&wake_, 0, 0);
    scribe_ = StartHelper(new PThreadDelegateMember<CrashLog>(this, &CrashLog::ScribeMain));
}

CrashLog::~CrashLog() {
    stopping_ = true;
    sem_post(&wake_);
    if (scribe_) scribe_->Join();
    sem_destroy(&wake_);
}

// A fatal line is never given up: when this thread faulted while it wrote one, or another has not come to an end with
// its own, it goes past the log at once.
void CrashLog::Write(LOGLEVEL level, const char* fmt, ...) {
    const pthread_t self = pthread_self();
    const bool isWriter = pthread_equal(writer_, self);
    const bool isMine = !isWriter && WaitUntil([&] {
        pthread_t nobody{};
        return writer_.compare_exchange_strong(nobody, self);
    });
    if (!isMine && level != LOGLEVEL_FATAL) return;
    va_list arguments;
    va_start(arguments, fmt);
    vsnprintf(text_, sizeof text_, fmt, arguments);
    va_end(arguments);
    lastWords_.Begin();
    const bool isWritten = isMine && HaveItWritten(level);
    if (!isWritten && level == LOGLEVEL_FATAL) lastWords_.Write(text_);
    if (isMine) writer_ = pthread_t{};
}

bool CrashLog::HaveItWritten(LOGLEVEL level) {
    if (!scribe_ || isScribeLost_ || pthread_equal(scribeItself_, pthread_self())) return false;
    level_ = level;
    progress_ = asked;
    sem_post(&wake_);
    isScribeLost_ = !WaitUntil([this] { return progress_ == written; });
    return !isScribeLost_ && succeeded_;
}

unsigned int CrashLog::ScribeMain(void*) {
    scribeItself_ = pthread_self();
    while (true) {
        while (sem_wait(&wake_) != 0 && errno == EINTR) {
        }
        if (stopping_) return 0;
        try {
            const LOGLEVEL level = level_;
            const CStdStr text(text_);
            progress_ = taken;
            if (level == LOGLEVEL_FATAL) CBBLog::fatal("%s", text.c_str());
            else CBBLog::info("%s", text.c_str());
            succeeded_ = CBBLog::flushAll(patienceOfScribe);
        } catch (...) {  // no memory, or no thread for the log
            succeeded_ = false;
        }
        progress_ = written;
    }
}

}  // namespace kel::crash

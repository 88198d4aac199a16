// CrashLog: the log for threads that must not wait: those inside a signal handler, or about to crash.
//
// Such a thread may hold any lock, the log's own and the allocator's among them, so it never calls the log. It leaves
// its line to a thread that stands by for this (the scribe) and waits for a bounded time until the line is in the
// files. When that time passes, a fatal line is written past the log (see LastWords).
//
// Any thread may write, also from a signal handler; lines of several threads follow one another. Whoever owns the
// CrashLog sees that nobody writes when it is destroyed.
#pragma once

#include "crash/LastWords.h"
#include "foundation/Log.h"
#include "foundation/StdString.h"

#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <memory>

class PThread;

namespace kel::crash {

class CrashLog {
public:
    // The module's name, as LastWords takes it. Without a thread to spare, fatal lines are still written.
    explicit CrashLog(const CStdStr& module);
    ~CrashLog();
    CrashLog(const CrashLog&) = delete;
    CrashLog& operator=(const CrashLog&) = delete;

    // Logs the line and returns when it is in the files, after a few seconds at the most. Text beyond 20479 characters
    // is cut. Safe in a signal handler.
    void Write(LOGLEVEL level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

private:
    unsigned int ScribeMain(void*);
    bool HaveItWritten(LOGLEVEL level);

    std::atomic<pthread_t> writer_{};  // the others wait for it
    char text_[20480];                 // the writer's
    LastWords lastWords_;

    // What the claiming thread and the scribe share: level_ and text_ are the scribe's from `asked` to `taken`, the
    // answer is the writer's once `written`.
    enum Progress { idle, asked, taken, written };
    std::atomic<int> progress_{idle};
    std::atomic<bool> stopping_{false};
    LOGLEVEL level_ = LOGLEVEL_FATAL;
    bool succeeded_ = false;
    bool isScribeLost_ = false;  // the claiming thread's: the scribe did not come back once, and is not asked again
    sem_t wake_;
    std::unique_ptr<PThread> scribe_;
    std::atomic<pthread_t> scribeItself_{};
};

}  // namespace kel::crash

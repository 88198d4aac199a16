// What is behind a CBBLog. Log.cc writes lines and has the thread that does, LogFiles.cc opens and rotates the files.
#pragma once

#include "foundation/Locks.h"
#include "foundation/Log.h"
#include "foundation/LogFolding.h"
#include "foundation/Thread.h"

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string_view>

class KEL_HIDDEN CBBLog::Impl {
public:
    Impl(CBBLog& log, const CStdStr& name, bool showPid, long long maxFileSize)
        : log_(log),
          name_(name),
          showPid_(showPid),
          maxFileSize_(maxFileSize),
          pid_(static_cast<std::uint32_t>(getpid())),
          folding_(new LogFolding) {}
    ~Impl() { closeFiles(); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    static bool isEnabled(LOGLEVEL level) { return isEnabledAt(s_level.load(std::memory_order_relaxed), level); }
    bool isEnabledHere(LOGLEVEL level) const { return isEnabledAt(level_, level); }
    // The same, but false while the level was not read yet.
    bool isReached(LOGLEVEL level) const { return level_ >= level; }
    static boost::shared_ptr<CBBLog> instance() KEL_EXCLUDES(s_instanceLock);
    static void setLogger(const boost::shared_ptr<CBBLog>& logger) KEL_EXCLUDES(s_instanceLock);
    void setLogLevel(LOGLEVEL level) KEL_EXCLUDES(s_instanceLock);
    void withdraw() KEL_EXCLUDES(s_instanceLock);

    bool isWritten(LOGLEVEL level);
    LogVerdict judge(LOGLEVEL level, std::string_view kind);
    void addText(LOGLEVEL level, std::string_view kind, std::string_view text, LogVerdict verdict);
    void AddRawLog(const char* text);
    void logLineToFile(const CStdStr& line) KEL_EXCLUDES(fileLock_);
    void FatalError(const CStdStr& line) KEL_EXCLUDES(initLock_);

    void initialize() KEL_EXCLUDES(initLock_);
    void stopThread() KEL_EXCLUDES(queueLock_);
    CStdStr getLogs() KEL_EXCLUDES(queueLock_);
    long long getFileSize() KEL_EXCLUDES(fileLock_);
    bool flush(long milliseconds) KEL_EXCLUDES(queueLock_);

private:
    static bool isEnabledAt(LOGLEVEL current, LOGLEVEL level) {
        return current == LOGLEVEL_UNREAD || current >= levelNeeded(level);
    }
    // The level of a log at which a line of this level is written.
    static constexpr LOGLEVEL levelNeeded(LOGLEVEL level) {
        constexpr LOGLEVEL levelMask = 0xff;
        return level < 0 ? level : level & levelMask;
    }
    static CStdStr getLogsDirectory();

    void finishLine(CStdStr& line, LOGLEVEL level);
    void sayFolded(bool all);
    void wakeThread() KEL_EXCLUDES(queueLock_);
    CStdStr openFiles() KEL_REQUIRES(initLock_);
    void closeFiles() KEL_REQUIRES(initLock_);
    int openFile(const CStdStr& path, bool& isNew) const;
    void readLogLevel();
    void publishLevel() KEL_REQUIRES(s_instanceLock);
    CStdStr buildLineHeader(LOGLEVEL level) const;
    void rotateIfNeeded(int& fd, const CStdStr& path) const;
    void addQueue(const CStdStr& line) KEL_EXCLUDES(queueLock_);
    bool waitForWork() KEL_REQUIRES(queueLock_);
    void writeQueue() KEL_REQUIRES(queueLock_);
    unsigned int loggerThread(void*) KEL_EXCLUDES(queueLock_);

    // The process's log, and its level (noLogger without one) where every thread can read it without a lock: skipping
    // a line costs one load.
    static boost::weak_ptr<CBBLog>& s_instance KEL_GUARDED_BY(s_instanceLock);
    static const CBBLog* s_published KEL_GUARDED_BY(s_instanceLock);
    static PMutex& s_instanceLock;
    static std::atomic<LOGLEVEL> s_level;

    CBBLog& log_;
    const CStdStr name_;
    std::atomic<LOGLEVEL> level_{LOGLEVEL_UNREAD};

    // initialize writes these under initLock_, `initialized_` last; from then on they are only read.
    std::atomic<bool> initialized_{false};
    bool fileEnabled_ = false;
    bool errorsEnabled_ = false;
    CStdStr folder_;
    CStdStr logPath_;
    CStdStr errorsPath_;
    CStdStr shortName_;

    PMutex initLock_;
    const bool showPid_;
    const long long maxFileSize_;
    const std::uint32_t pid_;
    const std::unique_ptr<LogFolding> folding_;

    PMutex fileLock_;  // the log's thread holds it while it writes; for getFileSize, which any thread may ask
    int logFd_ KEL_GUARDED_BY(fileLock_) = -1;
    int errorsFd_ KEL_GUARDED_BY(initLock_) = -1;

    std::unique_ptr<PThread> thread_ KEL_GUARDED_BY(initLock_);

    PCondMutex queueLock_;
    bool stopping_ KEL_GUARDED_BY(queueLock_) = false;
    uint64_t queued_ KEL_GUARDED_BY(queueLock_) = 0;   // lines, since the beginning
    uint64_t written_ KEL_GUARDED_BY(queueLock_) = 0;  // likewise: those of them that are in the file
    std::deque<CStdStr> queue_ KEL_GUARDED_BY(queueLock_);
};

#include "foundation/Log.h"

#include "foundation/LogImpl.h"
#include "foundation/LogText.h"
#include "foundation/Settings.h"
#include "foundation/StandardStreams.h"

#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

namespace {

constexpr size_t timeBuffer = 1024;
constexpr size_t lineBuffer = 20480;

const char* nameOf(LOGLEVEL level) {
    if (level == LOGLEVEL_NOTE) return "NOTE";
    return level >= LOGLEVEL_FATAL && level <= LOGLEVEL_DEBUG ? g_logStr[level] : "";
}

// In place of a level where there is no log: below any level, and not LOGLEVEL_UNREAD.
constexpr LOGLEVEL noLogger = std::numeric_limits<LOGLEVEL>::min();

// The local time to the millisecond.
void formatTime(char (&buffer)[timeBuffer]) {
    timeval now{};
    tm local{};
    gettimeofday(&now, nullptr);
    localtime_r(&now.tv_sec, &local);
    snprintf(buffer, sizeof buffer, "%04d/%02d/%02d %02d:%02d:%02d.%03d", local.tm_year + 1900, local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(now.tv_usec / 1000));
}

// There is nobody to tell that the log cannot be written, so a line that does not fit the disk is lost.
void writeLine(int fd, const CStdStr& line) {
    const ssize_t written = write(fd, line.data(), line.size());
    static_cast<void>(written);
}

}  // namespace

const char* const g_logStr[5] = {"FATAL", "ERROR", "WARN", "INFO", "DEBUG"};

// These two are never destroyed: a thread that outlives main may still log.
PMutex& CBBLog::Impl::s_instanceLock = *new PMutex;
boost::weak_ptr<CBBLog>& CBBLog::Impl::s_instance = *new boost::weak_ptr<CBBLog>;
const CBBLog* CBBLog::Impl::s_published = nullptr;
std::atomic<LOGLEVEL> CBBLog::Impl::s_level{noLogger};

CBBLog::CBBLog(const CStdStr& name, bool showPid, long long maxFileSize)
    : impl_(std::make_unique<Impl>(*this, name, showPid, maxFileSize)) {}

CBBLog::~CBBLog() {
    impl_->withdraw();
    impl_->stopThread();
}

void CBBLog::Impl::withdraw() {
    PMutexHold hold(s_instanceLock);
    if (s_published != &log_) return;
    s_published = nullptr;
    s_level = noLogger;
}

void CBBLog::Impl::stopThread() {
    {
        PMutexHold hold(queueLock_);
        stopping_ = true;
        queueLock_.broadcast();
    }
    std::unique_ptr<PThread> thread;
    {
        PMutexHold hold(initLock_);
        thread.swap(thread_);
    }
    if (thread) thread->Join();
}

// --- The process's log

void CBBLog::Impl::setLogger(const boost::shared_ptr<CBBLog>& logger) {
    PMutexHold hold(s_instanceLock);
    s_instance = logger;
    s_published = logger.get();
    s_level = logger ? logger->impl_->level_.load() : noLogger;
}

boost::shared_ptr<CBBLog> CBBLog::Impl::instance() {
    PMutexHold hold(s_instanceLock);
    return s_instance.lock();
}

// --- Levels

void CBBLog::Impl::setLogLevel(LOGLEVEL level) {
    PMutexHold hold(s_instanceLock);
    level_ = level;
    publishLevel();
}

void CBBLog::Impl::readLogLevel() {
    int level = LOGLEVEL_ERROR;
    CRegistry::getInstance()->ReadSettingImpl("Software\\Tessaly\\Yar", "LogLevel", level);
    PMutexHold hold(s_instanceLock);
    // A setLogLevel in the meantime holds.
    if (level_ == LOGLEVEL_UNREAD) level_ = level;
    publishLevel();
}

void CBBLog::Impl::publishLevel() {
    if (s_published == &log_) s_level = level_.load();
}

// --- Writing a line

CStdStr CBBLog::getTimeString() {
    char time[timeBuffer];
    formatTime(time);
    return time;
}

CStdStr CBBLog::Impl::buildLineHeader(LOGLEVEL level) const {
    char time[timeBuffer];
    formatTime(time);
    CStdStr header;
    if (showPid_) header.Format("%s [%-5.5s] %u - ", time, nameOf(level), pid_);
    else header.Format("%s [%-5.5s] - ", time, nameOf(level));
    if (level == LOGLEVEL_FATAL) header.append(shortName_).append(" - ");
    return header;
}

bool CBBLog::Impl::isWritten(LOGLEVEL level) {
    if (level_ == LOGLEVEL_UNREAD) readLogLevel();
    if (level_ < levelNeeded(level)) return false;
    if (!initialized_) initialize();
    return true;
}

// Without memory for it a line is lost: who logs that there is none must not fail over it.
void CBBLog::_AddLog(const char* fmt, va_list arguments, LOGLEVEL level) try {
    if (!impl_->isWritten(level)) return;
    // A format of nothing but an argument does not tell one message from another: there the text does.
    const bool isBare = std::strcmp(fmt, "%s") == 0;
    LogVerdict verdict = isBare ? LogVerdict::write : impl_->judge(level, fmt);
    if (verdict == LogVerdict::drop) return;
    char buffer[lineBuffer];
    const int length = vsnprintf(buffer, sizeof buffer, fmt, arguments);
    const std::string_view text(buffer, std::min(static_cast<size_t>(std::max(length, 0)), sizeof buffer - 1));
    if (isBare) verdict = impl_->judge(level, text);
    impl_->addText(level, isBare ? text : fmt, text, verdict);
} catch (const std::bad_alloc&) {
}

void CBBLog::_AddLog(boost::format text, LOGLEVEL level) try {
    if (!impl_->isWritten(level)) return;
    text.exceptions(boost::io::no_error_bits);  // a missing argument shows as nothing
    const std::string whole = text.str();
    impl_->addText(level, whole, whole, impl_->judge(level, whole));
} catch (const std::bad_alloc&) {
}

// Fatal lines are too important to be folded, and those below warnings were asked for.
LogVerdict CBBLog::Impl::judge(LOGLEVEL level, std::string_view kind) {
    if (level != LOGLEVEL_ERROR && level != LOGLEVEL_WARN && level != LOGLEVEL_NOTE) return LogVerdict::write;
    return folding_->Judge(level, kind, std::chrono::steady_clock::now());
}

void CBBLog::Impl::addText(LOGLEVEL level, std::string_view kind, std::string_view text, LogVerdict verdict) {
    if (verdict == LogVerdict::drop) return;
    if (verdict == LogVerdict::keep) {
        folding_->Keep(level, kind, text);
        wakeThread();
        return;
    }
    CStdStr line = buildLineHeader(level);
    kel::AppendPrintable(line, text);
    finishLine(line, level);
}

// Says what was left out, in the windows that have ended or in all.
void CBBLog::Impl::sayFolded(bool all) try {
    const LogFolding::Time now = std::chrono::steady_clock::now();
    for (const auto& [level, text] : folding_->TakeEnded(now, all ? LogFolding::Time::max() : now)) {
        CStdStr line = buildLineHeader(level);
        kel::AppendPrintable(line, text);
        finishLine(line, level);
    }
} catch (const std::bad_alloc&) {
}

void CBBLog::Impl::finishLine(CStdStr& line, LOGLEVEL level) {
    line.push_back('\n');
    if (fileEnabled_) addQueue(line);
    else kel::PrintError(line);
    if (level == LOGLEVEL_FATAL) log_._FatalError(line);
}

void CBBLog::Impl::FatalError(const CStdStr& line) {
    if (!initialized_) initialize();
    if (!errorsEnabled_) return;
    PMutexHold hold(initLock_);
    rotateIfNeeded(errorsFd_, errorsPath_);
    writeLine(errorsFd_, line);
}

void CBBLog::Impl::logLineToFile(const CStdStr& line) {
    PMutexHold hold(fileLock_);
    rotateIfNeeded(logFd_, logPath_);
    writeLine(logFd_, line);
}

// --- The queue and its thread

void CBBLog::Impl::addQueue(const CStdStr& line) {
    PMutexHold hold(queueLock_);
    queue_.push_back(line);
    ++queued_;
    // Under the lock, so that the lines stand there in the order of the file.
    kel::PrintOut(line);
    queueLock_.broadcast();
}

void CBBLog::Impl::wakeThread() {
    PMutexHold hold(queueLock_);
    queueLock_.broadcast();
}

CStdStr CBBLog::Impl::getLogs() {
    PMutexHold hold(queueLock_);
    CStdStr lines;
    for (const CStdStr& line : queue_) lines.append(line);
    return lines;
}

bool CBBLog::Impl::flush(long milliseconds) {
    const timespec deadline = DeadlineIn(milliseconds);
    PMutexHold hold(queueLock_);
    const uint64_t last = queued_;
    while (written_ < last) {
        if (!queueLock_.waitUntil(deadline)) return written_ >= last;
    }
    return true;
}

bool CBBLog::flushAll(long milliseconds) {
    const boost::shared_ptr<CBBLog> logger = Impl::instance();
    return !logger || logger->flush(milliseconds);
}

// The queue is looked at before the stop: a log that is destroyed before its thread came this far has lines, too.
unsigned int CBBLog::Impl::loggerThread(void*) {
    queueLock_.lock();
    bool isLast = false;
    do {
        while (!stopping_ && queue_.empty() && waitForWork()) {
        }
        isLast = stopping_;
        queueLock_.unlock();
        sayFolded(isLast);
        queueLock_.lock();
        writeQueue();
    } while (!isLast);
    queueLock_.unlock();
    return 0;
}

// False when lines that were left out are to be told of.
bool CBBLog::Impl::waitForWork() {
    const std::optional<LogFolding::Time> end = folding_->NextEnd();
    if (!end) {
        queueLock_.wait();
        return true;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*end - std::chrono::steady_clock::now());
    return left.count() > 0 && queueLock_.waitUntil(DeadlineIn(left.count()));
}

void CBBLog::Impl::writeQueue() {
    while (!queue_.empty()) {
        const CStdStr line = std::move(queue_.front());
        queue_.pop_front();
        queueLock_.unlock();
        try {
            log_.logLineToFile(line);
        } catch (const std::bad_alloc&) {  // lost, as in _AddLog
        }
        queueLock_.lock();
        ++written_;
        queueLock_.broadcast();
    }
}

// --- The entry points

void CBBLog::setLogger(const boost::shared_ptr<CBBLog>& logger) { Impl::setLogger(logger); }
void CBBLog::setLogLevel(LOGLEVEL level) { impl_->setLogLevel(level); }
void CBBLog::initialize() { impl_->initialize(); }
void CBBLog::stopThread() { impl_->stopThread(); }
CStdStr CBBLog::getLogs() { return impl_->getLogs(); }
long long CBBLog::getFileSize() { return impl_->getFileSize(); }
bool CBBLog::flush(long milliseconds) { return impl_->flush(milliseconds); }
bool CBBLog::isWarnEnabled() { return Impl::isEnabled(LOGLEVEL_WARN); }
bool CBBLog::isInfoEnabled() { return Impl::isEnabled(LOGLEVEL_INFO); }
bool CBBLog::isDebugEnabled() { return Impl::isEnabled(LOGLEVEL_DEBUG); }
void CBBLog::logLineToFile(const CStdStr& line) { impl_->logLineToFile(line); }
void CBBLog::_FatalError(const CStdStr& line) { impl_->FatalError(line); }
void CBBLog::AddRawLog(const char* text) { impl_->AddRawLog(text); }

void CBBLog::AddLog(const char* fmt, ...) {
    va_list arguments;
    va_start(arguments, fmt);
    _AddLog(fmt, arguments, LOGLEVEL_DEBUG);
    va_end(arguments);
}

void CBBLog::AddLog(LOGLEVEL level, const char* fmt, ...) {
    va_list arguments;
    va_start(arguments, fmt);
    _AddLog(fmt, arguments, level);
    va_end(arguments);
}

void CBBLog::Impl::AddRawLog(const char* text) try {
    if (!initialized_) initialize();
    if (fileEnabled_) addQueue(text);
} catch (const std::bad_alloc&) {
}

void CBBLog::debugList(const char* fmt, va_list arguments) {
    if (!Impl::isEnabled(LOGLEVEL_DEBUG)) return;
    if (const boost::shared_ptr<CBBLog> logger = Impl::instance()) logger->_AddLog(fmt, arguments, LOGLEVEL_DEBUG);
}

void CBBLog::note(const char* fmt, ...) {
    if (!Impl::isEnabled(LOGLEVEL_NOTE)) return;
    const boost::shared_ptr<CBBLog> logger = Impl::instance();
    if (!logger) return;
    va_list arguments;
    va_start(arguments, fmt);
    logger->_AddLog(fmt, arguments, LOGLEVEL_NOTE);
    va_end(arguments);
}

void CBBLog::note(const boost::shared_ptr<CBBLog>& logger, const char* fmt, ...) {
    if (!logger || !logger->impl_->isEnabledHere(LOGLEVEL_NOTE)) return;
    va_list arguments;
    va_start(arguments, fmt);
    logger->_AddLog(fmt, arguments, LOGLEVEL_NOTE);
    va_end(arguments);
}

// The same four functions for each level.
#define LOG_ENTRY_POINTS(name, messageLevel)                                           \
    void CBBLog::_##name(const char* fmt, ...) {                                       \
        if (!impl_->isReached(messageLevel)) return;                                   \
        va_list arguments;                                                             \
        va_start(arguments, fmt);                                                      \
        _AddLog(fmt, arguments, messageLevel);                                         \
        va_end(arguments);                                                             \
    }                                                                                  \
    void CBBLog::name(const char* fmt, ...) {                                          \
        if (!Impl::isEnabled(messageLevel)) return;                                    \
        const boost::shared_ptr<CBBLog> logger = Impl::instance();                     \
        if (!logger) return;                                                           \
        va_list arguments;                                                             \
        va_start(arguments, fmt);                                                      \
        logger->_AddLog(fmt, arguments, messageLevel);                                 \
        va_end(arguments);                                                             \
    }                                                                                  \
    void CBBLog::name(const boost::format& text) {                                     \
        if (!Impl::isEnabled(messageLevel)) return;                                    \
        if (const boost::shared_ptr<CBBLog> logger = Impl::instance()) {               \
            logger->_AddLog(text, messageLevel);                                       \
        }                                                                              \
    }                                                                                  \
    void CBBLog::name(const boost::shared_ptr<CBBLog>& logger, const char* fmt, ...) { \
        if (!logger || !logger->impl_->isEnabledHere(messageLevel)) return;            \
        va_list arguments;                                                             \
        va_start(arguments, fmt);                                                      \
        logger->_AddLog(fmt, arguments, messageLevel);                                 \
        va_end(arguments);                                                             \
    }

LOG_ENTRY_POINTS(fatal, LOGLEVEL_FATAL)
LOG_ENTRY_POINTS(error, LOGLEVEL_ERROR)
LOG_ENTRY_POINTS(warn, LOGLEVEL_WARN)
LOG_ENTRY_POINTS(info, LOGLEVEL_INFO)
LOG_ENTRY_POINTS(debug, LOGLEVEL_DEBUG)

#undef LOG_ENTRY_POINTS

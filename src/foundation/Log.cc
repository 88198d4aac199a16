#include "foundation/Log.h"

#include "foundation/LogFolder.h"
#include "foundation/LogFolding.h"
#include "foundation/LogText.h"
#include "foundation/Settings.h"
#include "foundation/StandardStreams.h"
#include "foundation/Thread.h"
#include "platform/ProcessPaths.h"

#include <sys/file.h>
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
#include <deque>
#include <filesystem>
#include <limits>
#include <new>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

namespace {

constexpr size_t timeBuffer = 1024;
constexpr size_t lineBuffer = 20480;

constexpr LOGLEVEL levelMask = 0xff;

// The level of a log at which a line of this level is written.
constexpr LOGLEVEL levelNeeded(LOGLEVEL level) { return level < 0 ? level : level & levelMask; }

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

// The module's name, as fatal lines show it, from its file's.
CStdStr shortNameOf(const CStdStr& name) {
    CStdStr shortName = name.substr(0, name.find('.'));
    const size_t separator = shortName.find_last_of("/\\");
    if (separator != CStdStr::npos) shortName.erase(0, separator + 1);
    return shortName;
}

// What is wrong with a folder or file that LogFolder has refused; empty when it is neither a link nor anybody else's.
CStdStr WhyRefused(const CStdStr& path, bool isFolder) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) return CStdStr();
    const bool isForeign = isFolder && info.st_uid != 0 && info.st_uid != geteuid();
    const bool isKind = isFolder ? S_ISDIR(info.st_mode) : S_ISREG(info.st_mode);
    if (isKind && !isForeign) return CStdStr();
    CStdStr text;
    text.Format("%s is not used: it is %s, of the user with the id %u; remove it", path.c_str(),
                S_ISLNK(info.st_mode) ? "a link"
                : !isKind             ? (isFolder ? "no folder" : "no file")
                                      : "a folder of another user",
                static_cast<unsigned>(info.st_uid));
    return text;
}

// Why a file in the folder could not be opened, in words.
CStdStr WhyUnused(const CStdStr& folder, const CStdStr& file, int reason) {
    for (const bool isFolder : {true, false}) {
        CStdStr text = WhyRefused(isFolder ? folder : file, isFolder);
        if (!text.empty()) return text;
    }
    CStdStr text;
    std::error_code ignored;
    std::filesystem::path parent(folder.c_str());
    while (!std::filesystem::exists(parent, ignored) && parent.has_relative_path()) parent = parent.parent_path();
    if (parent != folder.c_str() && access(parent.c_str(), W_OK) != 0)
        text.Format("%s cannot be made in %s: %s", folder.c_str(), parent.c_str(), std::strerror(errno));
    else text.Format("%s cannot be opened: %s", file.c_str(), std::strerror(reason));
    return text;
}

bool isSameFile(const struct stat& a, const struct stat& b) { return a.st_ino == b.st_ino && a.st_dev == b.st_dev; }

// There is nobody to tell that the log cannot be written, so a line that does not fit the disk is lost.
void writeLine(int fd, const CStdStr& line) {
    const ssize_t written = write(fd, line.data(), line.size());
    static_cast<void>(written);
}

}  // namespace

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

// --- Opening and rotating the files

CStdStr CBBLog::Impl::getLogsDirectory() { return kel::platform::RootPrefix() + "/Library/Logs/Tessaly"; }

// Opens a file of the folder; -1 with the reason in errno.
int CBBLog::Impl::openFile(const CStdStr& path, bool& isNew) const {
    return LogFolder(folder_.c_str()).OpenFile(path.c_str() + folder_.size() + 1, isNew);
}

void CBBLog::Impl::initialize() {
    PMutexHold hold(initLock_);
    if (initialized_) return;

    folder_ = getLogsDirectory();
    logPath_ = folder_ + "/" + name_;
    errorsPath_ = folder_ + "/errors.log";
    shortName_ = shortNameOf(name_);
    mkdir(folder_.c_str(), 0777);
    const CStdStr problems = openFiles();

    std::unique_ptr<PThread> thread(new PThread(new PThreadDelegateMember<Impl>(this, &Impl::loggerThread)));
    try {
        thread->Start();
    } catch (...) {  // the next line tries again
        closeFiles();
        throw;
    }
    thread_.swap(thread);
    if (!problems.empty()) kel::PrintError(problems);
    if (!problems.empty() && fileEnabled_) addQueue(problems);
    initialized_ = true;
}

void CBBLog::Impl::closeFiles() {
    PMutexHold hold(fileLock_);
    for (int* fd : {&logFd_, &errorsFd_}) {
        if (*fd >= 0) close(*fd);
        *fd = -1;
    }
    fileEnabled_ = errorsEnabled_ = false;
}

// Returns the lines that say what is wrong with the files, if anything is.
CStdStr CBBLog::Impl::openFiles() {
    PMutexHold hold(fileLock_);
    CStdStr problems;
    const auto open = [&](int& fd, const CStdStr& path, const char* what) {
        bool isNew = false;
        fd = openFile(path, isNew);
        // Processes of other users append as well, whatever this one's umask. What is somebody else's keeps its mode.
        struct stat info {};
        const bool isOwn = fd >= 0 && fstat(fd, &info) == 0 && info.st_uid == geteuid() && info.st_nlink == 1;
        if (isNew || isOwn) fchmod(fd, 0666);
        if (fd >= 0) return true;
        const int reason = errno;
        CStdStr line;
        line.Format("Error: could not open %s '%s': %d\n", what, logPath_.c_str(), reason);
        kel::PrintOut(line);
        const CStdStr problem = "Log: " + WhyUnused(folder_, path, reason) + "\n";
        if (problems.find(problem) == CStdStr::npos) problems += buildLineHeader(LOGLEVEL_ERROR) + problem;
        return false;
    };
    fileEnabled_ = open(logFd_, logPath_, "log file");
    // The message names the module's log, as it always has.
    errorsEnabled_ = open(errorsFd_, errorsPath_, "error log file");
    return problems;
}

// Several processes append to the same file, and each finds out by itself that it is full. The first to lock it renames
// it; the others hold a descriptor whose inode the name no longer has, and only open the name again. So the line that
// finds the file full goes to a new one, and the backup is not overwritten by a file with a line or two.
void CBBLog::Impl::rotateIfNeeded(int& fd, const CStdStr& path) const {
    struct stat opened {};
    struct stat named {};
    if (fstat(fd, &opened) != 0) return;
    const bool exists = lstat(path.c_str(), &named) == 0;
    if (!exists && errno != ENOENT) return;
    if (exists && isSameFile(opened, named)) {
        if (opened.st_size < maxFileSize_) return;
        if (flock(fd, LOCK_EX) != 0) return;
        const bool stillNamed = lstat(path.c_str(), &named) == 0 && isSameFile(opened, named);
        const CStdStr name = path.substr(folder_.size() + 1);
        if (stillNamed) LogFolder(folder_.c_str()).Rename(name.c_str(), (name + ".back").c_str());
    }
    bool isNew = false;
    const int fresh = openFile(path, isNew);
    if (fresh < 0) return;  // the line goes where the last one went, and the next one tries again
    close(fd);              // gives the lock back
    fd = fresh;
}

long long CBBLog::Impl::getFileSize() {
    PMutexHold hold(fileLock_);
    struct stat opened {};
    return fstat(logFd_, &opened) == 0 ? static_cast<long long>(opened.st_size) : -1;
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

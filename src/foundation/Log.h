// CBBLog: the process's log. Lines with a time and a level go to a file of the module's own in the logs folder and are
// echoed on standard output; fatal lines also go, at once, to "errors.log", which all processes of the product share.
//
//     boost::shared_ptr<CBBLog> logger(new CBBLog("Recorder.log", false, 512 * 1024));
//     logger->initialize();
//     CBBLog::setLogger(logger);
//     CBBLog::warn("no answer from %s", host);
//     if (CBBLog::isDebugEnabled()) CBBLog::debug("in: %s", costlyText().c_str());
//
// A line of a level is written when the log's level is at least that: the setting "LogLevel" under
// "Software\Tessaly\Yar", read once with the first line, or what setLogLevel says. Either file is renamed with ".back"
// appended, over an older one, when it has reached its largest size, also when several processes append to it. The
// files and their folder are taken as LogFolder says. Without the module's file its lines go to standard error.
//
// What a line says often comes from others, so none of them can be made to look like two, or the log to hold nothing
// else: control characters in texts are written as "\n" or "\x1b", and of lines that repeat themselves at the levels of
// errors and warnings only the first are written and the others counted (see LogFolding.h, and docs/operating.md).
//
// Callers never wait for the disk, fatal lines aside: a thread of the log's own writes its queue to the file. No
// failure of the log reaches its callers, except that of starting this thread (std::runtime_error): by initialize or,
// without it, by the first line, which may be the one that says that threads or descriptors have run out. So initialize
// at the start.
//
// Threads: every member may be called from any thread; destroying the log belongs to its last owner. What is still
// queued then is written first.
#pragma once

#include "foundation/Export.h"
#include "foundation/Locks.h"
#include "foundation/StdString.h"

#include <boost/format.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <cstdarg>
#include <cstdint>
#include <memory>
#include <type_traits>

// How much is written: each level includes those below it. A log's level above LOGLEVEL_DEBUG writes everything.
using LOGLEVEL = std::int32_t;
constexpr LOGLEVEL LOGLEVEL_UNREAD = -1;  // of a log whose level was not read yet; it counts as everything enabled
constexpr LOGLEVEL LOGLEVEL_FATAL = 0;
constexpr LOGLEVEL LOGLEVEL_ERROR = 1;
constexpr LOGLEVEL LOGLEVEL_WARN = 2;
constexpr LOGLEVEL LOGLEVEL_INFO = 3;
constexpr LOGLEVEL LOGLEVEL_DEBUG = 4;
// Not a level of a log but of a line: news that an operator wants without having asked for more, such as a start or the
// end of a satellite. Written where errors are, and shown as "NOTE".
constexpr LOGLEVEL LOGLEVEL_NOTE = 0x100 | LOGLEVEL_ERROR;

// The names of the levels from LOGLEVEL_FATAL to LOGLEVEL_DEBUG, as lines show them.
extern KEL_API const char* const g_logStr[5];

class KEL_API CBBLog {
    static void debugList(const char* fmt, va_list arguments) __attribute__((format(printf, 1, 0)));

public:
    // `name` is the log file's name, `showPid` puts the process id into every line, `maxFileSize` is the size in bytes
    // at which a file is renamed. Nothing is opened before the first line.
    CBBLog(const CStdStr& name, bool showPid, long long maxFileSize);
    virtual ~CBBLog();
    CBBLog(const CBBLog&) = delete;
    CBBLog& operator=(const CBBLog&) = delete;

    // Adds a line at LOGLEVEL_DEBUG, or at the given level. Text beyond 20479 characters is cut.
    virtual void AddLog(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    virtual void AddLog(LOGLEVEL level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
    // Adds the text as it is, without time, level or line end and whatever the level. Null counts as empty.
    virtual void AddRawLog(const char* text);
    // Sets the level of this object; the setting stays as it is.
    virtual void setLogLevel(LOGLEVEL level);

    // Add a line at the level that they name. Unlike all others, these write nothing before the level was read.
    void _fatal(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void _error(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void _warn(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void _info(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void _debug(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

    // The lines that wait to be written, one after the other.
    CStdStr getLogs();
    // The size of the log file in bytes; -1 when it is not open.
    long long getFileSize();

    // Waits until what is queued now is written to the log file, for at most `milliseconds`; false when it is not by
    // then. For a process that is about to end without destroying its log.
    bool flush(long milliseconds);

    // Opens the files and starts the thread, once. The first line does it.
    void initialize();

    // Makes `logger` the one that the static functions below write to; null for none. It is not kept alive by this.
    static void setLogger(const boost::shared_ptr<CBBLog>& logger);

    // Add a line to the process's log, or to the given one. They do nothing without a log, and little when its level
    // leaves the line out: ask the functions below before making a costly argument.
    static void fatal(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
    static void error(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
    static void note(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
    static void warn(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
    static void info(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
    static void debug(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

    static void fatal(const boost::format& text);
    static void error(const boost::format& text);
    static void warn(const boost::format& text);
    static void info(const boost::format& text);
    static void debug(const boost::format& text);

    static void fatal(const boost::shared_ptr<CBBLog>& logger, const char* fmt, ...)
        __attribute__((format(printf, 2, 3)));
    static void error(const boost::shared_ptr<CBBLog>& logger, const char* fmt, ...)
        __attribute__((format(printf, 2, 3)));
    static void note(const boost::shared_ptr<CBBLog>& logger, const char* fmt, ...)
        __attribute__((format(printf, 2, 3)));
    static void warn(const boost::shared_ptr<CBBLog>& logger, const char* fmt, ...)
        __attribute__((format(printf, 2, 3)));
    static void info(const boost::shared_ptr<CBBLog>& logger, const char* fmt, ...)
        __attribute__((format(printf, 2, 3)));
    static void debug(const boost::shared_ptr<CBBLog>& logger, const char* fmt, ...)
        __attribute__((format(printf, 2, 3)));

    // The same with a ready argument list (a va_list). A template, so that a 0 or a null pointer among the arguments of
    // the variadic form is not taken for one.
    template <typename List, typename = std::enable_if_t<std::is_pointer_v<List>>>
    __attribute__((format(printf, 1, 0))) static auto debug(const char* fmt, List arguments)
        -> decltype(debugList(fmt, arguments)) {
        debugList(fmt, arguments);
    }

    // Whether a line of the level would be written to the process's log; false without one.
    static bool isWarnEnabled();
    static bool isInfoEnabled();
    static bool isDebugEnabled();

    // flush() of the process's log; true without a log.
    static bool flushAll(long milliseconds);

    // The local time as lines show it: "2009/03/31 23:59:59.999".
    static CStdStr getTimeString();

protected:
    // What a derived class overrides to send lines elsewhere: every line comes through one of the two _AddLog, the
    // log's thread writes through logLineToFile, and the copy to "errors.log" through _FatalError.
    virtual void _AddLog(boost::format text, LOGLEVEL level);
    virtual void _AddLog(const char* fmt, va_list arguments, LOGLEVEL level) __attribute__((format(printf, 2, 0)));
    virtual void logLineToFile(const CStdStr& line);
    virtual void _FatalError(const CStdStr& line);

    // Writes what is queued and ends the log's thread. The destructor of a class that overrides logLineToFile calls it,
    // while the override can still run.
    void stopThread();

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

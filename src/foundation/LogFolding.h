// LogFolding: decides which lines of the log are repeats, so that who causes the same message again and again does not
// have the log to himself.
//
// Lines are of one kind when they have the same level and the same format. Of each kind a window of 10 seconds lets 20
// lines through and counts the rest, and when it ends a line says what was left out: the text of the first of them, and
// how many more there were. While a kind goes on like that, its next window lets one line through and is twice as long,
// up to five minutes. A window that has nothing to say is the last.
//
// Any thread. The time is given, not read.
#pragma once

#include "foundation/Locks.h"
#include "foundation/Log.h"
#include "foundation/StdString.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

enum class LogVerdict {
    write,
    keep,  // it is left out, but Keep wants its text
    drop
};

class LogFolding {
public:
    using Time = std::chrono::steady_clock::time_point;
    struct Line {
        LOGLEVEL level;
        CStdStr text;
    };

    static constexpr std::chrono::seconds firstWindow{10};
    static constexpr std::chrono::seconds longestWindow{320};
    static constexpr unsigned linesPerWindow = 20;
    static constexpr size_t longestText = 1024;  // of what is kept
    static constexpr size_t mostKinds = 256;     // that have a window; the lines of further ones share a single one

    LogVerdict Judge(LOGLEVEL level, std::string_view kind, Time now) KEL_EXCLUDES(lock_);
    void Keep(LOGLEVEL level, std::string_view kind, std::string_view text) KEL_EXCLUDES(lock_);

    // When the next window ends that has something to say, if there is one.
    std::optional<Time> NextEnd() KEL_EXCLUDES(lock_);
    // What those have to say that end by `end`, and how long they were at `now`.
    std::vector<Line> TakeEnded(Time now, Time end) KEL_EXCLUDES(lock_);

private:
    struct Window {
        LOGLEVEL level = LOGLEVEL_UNREAD;
        Time begin{};
        std::chrono::seconds length{0};
        unsigned left = 0;  // lines that are still let through
        uint64_t leftOut = 0;
        CStdStr text;  // of the first that was left out

        Time End() const { return begin + length; }
        void Begin(Time now, std::chrono::seconds howLong, unsigned lines);
        CStdStr Summary(Time now) const;
    };

    Window& Find(LOGLEVEL level, std::string_view kind, Time now) KEL_REQUIRES(lock_);

    PMutex lock_;
    std::unordered_map<uint64_t, Window> windows_ KEL_GUARDED_BY(lock_);  // by level and kind
    size_t talkative_ KEL_GUARDED_BY(lock_) = 0;                          // those of them that have something to say
};

#include "foundation/LogFolding.h"

#include <algorithm>
#include <functional>
#include <string>

namespace {

constexpr uint64_t sharedWindow = 0;

uint64_t KeyOf(LOGLEVEL level, std::string_view kind) {
    return std::hash<std::string_view>()(kind) * 31 + static_cast<uint64_t>(level);
}

// "4,312"
CStdStr WithThousands(uint64_t number) {
    CStdStr text = std::to_string(number);
    for (size_t at = text.size(); at > 3; at -= 3) text.insert(at - 3, ",");
    return text;
}

}  // namespace

void LogFolding::Window::Begin(Time now, std::chrono::seconds howLong, unsigned lines) {
    begin = now;
    length = howLong;
    left = lines;
    leftOut = 0;
}

CStdStr LogFolding::Window::Summary(Time now) const {
    if (leftOut == 1) return text;
    const auto seconds = std::chrono::round<std::chrono::seconds>(now - begin).count();
    return text + " ... and " + WithThousands(leftOut - 1) + " more in " + std::to_string(seconds) + " s";
}

LogFolding::Window& LogFolding::Find(LOGLEVEL level, std::string_view kind, Time now) {
    const uint64_t key = KeyOf(level, kind);
    if (const auto found = windows_.find(key); found != windows_.end()) return found->second;
    if (windows_.size() >= mostKinds)
        std::erase_if(windows_,
                      [now](const auto& entry) { return entry.second.leftOut == 0 && entry.second.End() <= now; });
    return windows_[windows_.size() < mostKinds ? key : sharedWindow];
}

LogVerdict LogFolding::Judge(LOGLEVEL level, std::string_view kind, Time now) {
    PMutexHold hold(lock_);
    Window& window = Find(level, kind, now);
    if (window.leftOut == 0 && window.End() <= now) window.Begin(now, firstWindow, linesPerWindow);
    if (window.left > 0) {
        --window.left;
        return LogVerdict::write;
    }
    if (window.leftOut++ > 0) return LogVerdict::drop;
    window.level = level;
    window.text.clear();
    ++talkative_;
    return LogVerdict::keep;
}

void LogFolding::Keep(LOGLEVEL level, std::string_view kind, std::string_view text) {
    PMutexHold hold(lock_);
    Find(level, kind, Time::min()).text.assign(text.substr(0, longestText));
}

std::optional<LogFolding::Time> LogFolding::NextEnd() {
    PMutexHold hold(lock_);
    std::optional<Time> next;
    if (talkative_ == 0) return next;
    for (const auto& [key, window] : windows_) {
        if (window.leftOut > 0 && (!next || window.End() < *next)) next = window.End();
    }
    return next;
}

std::vector<LogFolding::Line> LogFolding::TakeEnded(Time now, Time end) {
    PMutexHold hold(lock_);
    std::vector<Line> lines;
    if (talkative_ == 0) return lines;
    for (auto& [key, window] : windows_) {
        if (window.leftOut == 0 || window.End() > end) continue;
        lines.push_back({window.level, window.Summary(now)});
        window.Begin(now, std::min(window.length * 2, longestWindow), 1);
        --talkative_;
    }
    return lines;
}

// What lasts, or comes again and again, and is said once: when it begins, and where that is worth a line when it is
// over.
#pragma once

#include <atomic>

// Any thread.
class SaidOnce {
public:
    // It is so, it is over: whether that is news.
    bool Begins() { return Changes(true); }
    bool Ends() { return Changes(false); }
    bool Changes(bool isSo) { return isSo_.load(std::memory_order_relaxed) != isSo && isSo_.exchange(isSo) != isSo; }

    bool isSo() const { return isSo_; }

private:
    std::atomic<bool> isSo_{false};
};

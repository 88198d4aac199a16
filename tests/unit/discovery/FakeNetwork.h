// A network and a clock that stand still until the test moves them. Who announces on it runs its rounds on a thread of
// its own; each step of the test returns when that thread waits again, so nothing depends on real time.
#pragma once

#include "discovery/DiscoveryNetwork.h"
#include "foundation/Locks.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <set>
#include <string>
#include <utility>
#include <vector>

class FakeNetwork : public kel::discovery::DiscoveryNetwork {
public:
    struct Sent {
        CStdStr text;
        std::string by;  // the interface
        std::string to;
        uint32_t at = 0;
    };

    static in_addr Address(const std::string& text) { return in_addr{inet_addr(text.c_str())}; }
    static std::string Text(in_addr address) { return inet_ntoa(address); }

    // --- The test's side ---

    void SetInterfaces(std::vector<std::string> addresses) KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        interfaces_ = std::move(addresses);
    }
    void SetRoute(const std::string& interface) KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        route_ = interface;
    }
    // Everything that is sent from now on gets this error.
    void SetSendError(int error) KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        sendError_ = error;
    }
    void SetNow(uint32_t now) KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        now_ = now;
    }
    uint32_t now() KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        return now_;
    }
    bool IsJoined(const std::string& interface) KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        return joined_.count(interface) > 0;
    }

    // Returns when the thread waits and there is nothing for it to receive.
    void Settle() KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        while (!(isWaiting_ && arrived_.empty() && static_cast<int32_t>(now_ - wakeAt_) < 0)) lock_.wait();
    }
    void Advance(uint32_t milliseconds) KEL_EXCLUDES(lock_) {
        {
            PMutexHold hold(lock_);
            now_ += milliseconds;
            lock_.broadcast();
        }
        Settle();
    }
    void Receive(const std::string& from, const std::string& text) KEL_EXCLUDES(lock_) {
        {
            PMutexHold hold(lock_);
            arrived_.emplace_back(from, text);
            lock_.broadcast();
        }
        Settle();
    }
    // What was sent since the last call.
    std::vector<Sent> TakeSent() KEL_EXCLUDES(lock_) {
        PMutexHold hold(lock_);
        return std::exchange(sent_, {});
    }

    // --- The announcer's side ---

    int Open() override { return 0; }
    in_addr Group() const override { return Address("239.255.255.251"); }

    std::vector<in_addr> LocalAddresses() override {
        PMutexHold hold(lock_);
        std::vector<in_addr> addresses;
        for (const std::string& text : interfaces_) addresses.push_back(Address(text));
        return addresses;
    }
    CStdStr AddressTowards(const CStdStr&) override {
        PMutexHold hold(lock_);
        return route_;
    }
    bool Join(const std::vector<in_addr>& interfaces) override {
        PMutexHold hold(lock_);
        for (const in_addr interface : interfaces) joined_.insert(Text(interface));
        return true;
    }
    bool SelectInterface(in_addr address) override {
        PMutexHold hold(lock_);
        selected_ = Text(address);
        return std::find(interfaces_.begin(), interfaces_.end(), selected_) != interfaces_.end();
    }
    int Send(const CStdStr& text, in_addr to) override {
        PMutexHold hold(lock_);
        if (sendError_ == 0) sent_.push_back({text, selected_, Text(to), now_});
        return sendError_;
    }
    int WaitReadable(int milliseconds) override {
        PMutexHold hold(lock_);
        wakeAt_ = now_ + static_cast<uint32_t>(milliseconds);
        isWaiting_ = true;
        lock_.broadcast();
        while (arrived_.empty() && !isEnding_ && static_cast<int32_t>(now_ - wakeAt_) < 0) lock_.wait();
        isWaiting_ = false;
        return arrived_.empty() && !isEnding_ ? 0 : 1;
    }
    ssize_t Receive(char* buffer, size_t size, in_addr* sender) override {
        PMutexHold hold(lock_);
        if (arrived_.empty()) return -1;
        const auto [from, text] = arrived_.front();
        arrived_.pop_front();
        *sender = Address(from);
        return static_cast<ssize_t>(text.copy(buffer, size));
    }
    void EndWaiting() override {
        PMutexHold hold(lock_);
        isEnding_ = true;
        lock_.broadcast();
    }
    uint32_t UpTimeMs() override { return now(); }
    void Pause(unsigned milliseconds) override {
        PMutexHold hold(lock_);
        now_ += milliseconds;
    }

private:
    PCondMutex lock_;
    uint32_t now_ KEL_GUARDED_BY(lock_) = 5000;
    uint32_t wakeAt_ KEL_GUARDED_BY(lock_) = 0;
    bool isWaiting_ KEL_GUARDED_BY(lock_) = false;
    bool isEnding_ KEL_GUARDED_BY(lock_) = false;
    std::vector<std::string> interfaces_ KEL_GUARDED_BY(lock_);
    std::string route_ KEL_GUARDED_BY(lock_);
    std::string selected_ KEL_GUARDED_BY(lock_);
    int sendError_ KEL_GUARDED_BY(lock_) = 0;
    std::set<std::string> joined_ KEL_GUARDED_BY(lock_);
    std::deque<std::pair<std::string, std::string>> arrived_ KEL_GUARDED_BY(lock_);
    std::vector<Sent> sent_ KEL_GUARDED_BY(lock_);
};

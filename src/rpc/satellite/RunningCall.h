// Which call the calling thread runs, and how it is answered: when its method returns, or later.
#pragma once

#include "rpc/wire/Message.h"

#include <functional>
#include <memory>
#include <string>

namespace kel {

namespace transport {
class Connection;
}

class LateAnswer;

// Marks, for as long as it lives, that this thread runs `call`, which came over `connection`. Both outlive it.
class RunningCall {
public:
    // What a call does: returns its result and fills `out`. What it throws becomes an error answer.
    using Method = std::function<int(ScopedVariant& out)>;

    RunningCall(transport::Connection& connection, const wire::Message& call);
    ~RunningCall();
    RunningCall(const RunningCall&) = delete;
    RunningCall& operator=(const RunningCall&) = delete;

    // Runs `method` and answers, unless the call is a notification or the method has put the answer off.
    void Run(const Method& method);

    // The address of the peer that made this thread's call, in dotted form, provided that the call came over `socket`
    // and that its connection is still there, else null; what getpeername says then, without asking the system for
    // every call. Good until the call ends.
    static const std::string* PeerOn(int socket);

    // Says that this thread is about to wait, for a disk for instance. If it runs a method, another one goes on with
    // the library's work at once, instead of when it is found to be held up.
    static void AboutToBlock();

    // Whether this thread runs a call whose answer may be put off.
    static bool IsUnderWay();
    // For a method that would have to wait long, where that is so: what it returns or throws after this is not sent,
    // whoever has the object answers instead.
    static std::unique_ptr<LateAnswer> PutOff();

private:
    bool WantsAnswer() const { return call_.kind == wire::MessageKind::request && !putOff_; }

    transport::Connection& connection_;
    const wire::Message& call_;
    bool putOff_ = false;
    RunningCall* const outer_;
};

// The answer to a call that was put off. Until it is given, the call counts as outstanding on its connection. It goes
// without having been given when the endpoint closes or for want of memory: the caller hears that nothing was done.
// Any thread, one at a time.
class LateAnswer {
public:
    LateAnswer(std::shared_ptr<transport::Connection> connection, const wire::Message& call);
    ~LateAnswer();
    LateAnswer(const LateAnswer&) = delete;
    LateAnswer& operator=(const LateAnswer&) = delete;

    // Runs the rest of the method, as RunningCall::Run does. Once.
    void Give(const RunningCall::Method& rest);

private:
    std::shared_ptr<transport::Connection> connection_;  // null once it was given
    wire::Message call_;                                 // less its parameter
};

}  // namespace kel

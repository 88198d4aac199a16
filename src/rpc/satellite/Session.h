// What a satellite has while it is connected.
#pragma once

#include "foundation/Locks.h"
#include "rpc/satellite/Link.h"
#include "rpc/satellite/Mover.h"
#include "rpc/satellite/Standing.h"

#include <memory>
#include <optional>
#include <utility>

namespace kel {

// Calls under way in other threads share it, so that Disconnect does not pull it from under them.
struct Session {
    // With `own`, where this machine's directory listens, it goes on looking for its directory.
    Session(transport::Endpoint::Receiver receiver, const transport::Address& directory, const CStdStr& name,
            Link::Role role, const MethodTable& methods, Subscriptions& subscriptions, LastProblem& problem,
            Standing::StatusHandler changed, const std::optional<transport::Address>& own)
        : link(std::move(receiver), directory, name, role),
          standing(link, methods, subscriptions, problem, std::move(changed)) {
        if (own && !IsDirectoryName(name)) mover.emplace(link, standing, *own);
    }

    // What is due now and then.
    void LookAfter() {
        if (link.listens) standing.Check();
        if (mover) mover->LookAround();
    }

    Link link;
    Standing standing;
    std::optional<Mover> mover;
};
using SessionPtr = std::shared_ptr<Session>;

// The session that a satellite has at the moment, if any. Any thread.
class CurrentSession {
public:
    SessionPtr Get() {
        PMutexHold hold(lock_);
        return session_;
    }
    void Set(SessionPtr session) {  // the former one goes after the lock
        PMutexHold hold(lock_);
        session_.swap(session);
    }

private:
    PMutex lock_;
    SessionPtr session_ KEL_GUARDED_BY(lock_);
};

}  // namespace kel

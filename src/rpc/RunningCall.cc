#include "rpc/RunningCall.h"

#include "rpc/transport/Connection.h"
#include "rpc/transport/WorkerPool.h"

#include <utility>

namespace kel {

namespace {
thread_local const transport::Connection* current = nullptr;
}

RunningCall::RunningCall(const transport::Connection& connection) : outer_(std::exchange(current, &connection)) {}

RunningCall::~RunningCall() { current = outer_; }

std::optional<in_addr> RunningCall::PeerOn(int socket) {
    if (!current || current->descriptor() != socket || current->closed()) return std::nullopt;
    return current->peerAddress();
}

void RunningCall::AboutToBlock() { transport::WorkerPool::ThisThreadBlocks(); }

}  // namespace kel

#include "rpc/satellite/RunningCall.h"

#include "rpc/transport/Connection.h"
#include "rpc/transport/LibraryLog.h"
#include "rpc/transport/Quietly.h"
#include "rpc/transport/WorkerPool.h"
#include "rpc/values/KelException.h"
#include "rpc/values/KelResult.h"
#include "rpc/wire/Codec.h"

#include <utility>

namespace kel {

using transport::Connection;
using transport::ConnectionPtr;

namespace {

constexpr size_t maxKeptBytes = 64 * 1024;  // of the answer that a thread gave last

thread_local RunningCall* current = nullptr;

}  // namespace

RunningCall::RunningCall(Connection& connection, const wire::Message& call)
    : connection_(connection), call_(call), outer_(std::exchange(current, this)) {}

RunningCall::~RunningCall() { current = outer_; }

void RunningCall::Run(const Method& method) {
    thread_local std::string bytes;
    const struct Large {  // is given back; there may be hundreds of threads
        ~Large() {
            if (bytes.capacity() > maxKeptBytes) bytes = std::string();
        }
    } givenBack;
    ScopedVariant out;
    int code = 0;
    CStdStr problem;
    try {
        code = method(out);
        bytes.clear();
        if (!WantsAnswer()) return;
        if (wire::EncodeResponse(bytes, call_.id, code, out)) {
            connection_.Send(bytes, Connection::WhenFull::disconnect);
            return;
        }
        code = KEL_METHOD_FAILED;
        problem.Format("the answer of %.200s is too large or of a type that cannot travel", call_.method.c_str());
    } catch (const KelException& error) {
        code = error.GetCode();
        problem = error.GetMessage();
    } catch (const std::exception& error) {
        code = KEL_METHOD_FAILED;
        problem = error.what();
    } catch (...) {
        code = KEL_METHOD_FAILED;
        problem = "an exception of an unknown type";
    }
    if (CBBLog::isDebugEnabled()) {
        CBBLog::debug(LibraryLogger(), "libkel: %.256s, called by %.256s from %s, failed: 0x%x %s",
                      call_.method.c_str(), call_.caller.c_str(), connection_.peer().c_str(),
                      static_cast<unsigned>(code), problem.c_str());
    }
    if (!WantsAnswer()) return;
    bytes.clear();
    wire::EncodeError(bytes, call_.id, code, problem);
    connection_.Send(bytes, Connection::WhenFull::disconnect);
}

const std::string* RunningCall::PeerOn(int socket) {
    if (!current) return nullptr;
    const Connection& connection = current->connection_;
    if (connection.descriptor() != socket || connection.closed()) return nullptr;
    return &connection.peerAddressText();
}

bool RunningCall::IsUnderWay() { return current && !current->putOff_; }

std::unique_ptr<LateAnswer> RunningCall::PutOff() {
    auto answer = std::make_unique<LateAnswer>(current->connection_.shared_from_this(), current->call_);
    current->putOff_ = true;
    return answer;
}

LateAnswer::LateAnswer(ConnectionPtr connection, const wire::Message& call) : connection_(std::move(connection)) {
    call_.kind = call.kind;
    call_.id = call.id;
    call_.method = call.method;
    call_.caller = call.caller;
    connection_->BeginLateCall();
}

LateAnswer::~LateAnswer() {
    if (!connection_) return;
    transport::Quietly([this] {
        Give([](ScopedVariant&) -> int { throw KelException("the satellite is leaving", KEL_UNREACHABLE); });
    });
}

void LateAnswer::Give(const RunningCall::Method& rest) {
    const ConnectionPtr connection = std::exchange(connection_, nullptr);
    const struct End {
        ~End() { connection.EndLateCall(); }
        Connection& connection;
    } end{*connection};
    RunningCall(*connection, call_).Run(rest);
}

void RunningCall::AboutToBlock() { transport::WorkerPool::ThisThreadBlocks(); }

}  // namespace kel

#include "rpc/transport/Outbound.h"

#include "rpc/transport/Quietly.h"

#include <boost/asio/ip/basic_resolver.hpp>

#include <sched.h>

#include <algorithm>
#include <new>
#include <optional>
#include <utility>

namespace kel::transport {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

constexpr std::chrono::milliseconds retryAfter{50};
constexpr size_t maxLookedAt = 64;
constexpr std::chrono::milliseconds lateness{10};
constexpr std::chrono::milliseconds timeToRead{500};
constexpr int maxBeginnings = 5;
constexpr int yieldsBeforeSleep = 4;

// One value that a thread waits for and another one brings.
template <typename T>
class Awaited {
public:
    void Bring(T value) {
        {
            PMutexHold hold(lock_);
            value_ = std::move(value);
        }
        lock_.signal();  // whoever wakes finds the lock free
    }

    bool IsThere() {
        PMutexHold hold(lock_);
        return value_.has_value();
    }

    // Of many threads that call at once, each is answered while the others run: to give way to them a few times costs
    // less than to sleep and be woken.
    std::optional<T> AwaitAmongOthers(Deadline deadline) {
        for (int i = 0; i < yieldsBeforeSleep && !IsThere(); ++i) ::sched_yield();
        return Await(deadline);
    }

    std::optional<T> Await(Deadline deadline) {
        PMutexHold hold(lock_);
        while (!value_ && lock_.waitUntil(deadline)) {
        }
        return std::exchange(value_, std::nullopt);
    }

private:
    PCondMutex lock_;
    std::optional<T> value_ KEL_GUARDED_BY(lock_);
};

struct Answer {
    CallEnd end;
    wire::Message message;
};

void Settle(Outcome& outcome, CallEnd end, wire::Message& message, const std::string& peer) {
    outcome.message = std::move(message);
    switch (end) {
        case CallEnd::answered:
            outcome.end = Outcome::End::answered;
            break;
        case CallEnd::failed:
            outcome.end = Outcome::End::failed;
            outcome.problem = outcome.message.errorText;
            break;
        case CallEnd::lost:
            outcome.end = Outcome::End::lost;
            outcome.problem = peer + " closed the connection before it answered";
            break;
    }
}

// Of a connection that the other side ended.
std::string HowItEnded(const Connection& connection, const Address& to, const char* when) {
    if (connection.spokeOtherwise()) return to.text() + " answers, but not as a satellite does";
    return to.text() + " closed the connection " + when;
}

}  // namespace

// One attempt to connect. Kept alive by its operations.
class Outbound::Attempt : public std::enable_shared_from_this<Attempt> {
public:
    Attempt(Outbound& outbound, const Address& to)
        : outbound_(outbound),
          to_(to),
          socket_(outbound.pool_.io().get_executor()),
          resolver_(outbound.pool_.io().get_executor()),
          timer_(outbound.pool_.io().get_executor()),
          retry_(outbound.pool_.io().get_executor()) {}

    void Start() {
        OrFail([this] { Begin(); });
    }

private:
    using Resolver = asio::ip::basic_resolver<tcp, Executor>;

    // An exception, for which there is no reason but a shortage, ends the attempt.
    template <typename Work>
    void OrFail(Work&& work) {
        if (!Quietly(work)) Finish(asio::error::no_memory);
    }

    void Begin() {
        PMutexHold hold(lock_);
        shortageEnd_ = std::chrono::steady_clock::now() + shortageTimeout;
        timer_.expires_after(connectTimeout);
        timer_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
            if (!error) self->Finish(asio::error::timed_out);
        });
        boost::system::error_code notNumeric;
        const auto address = asio::ip::make_address_v4(to_.host, notNumeric);
        if (!notNumeric) return ConnectTo(tcp::endpoint(address, to_.port));
        resolver_.async_resolve(
            tcp::v4(), to_.host, std::to_string(to_.port),
            [self = shared_from_this()](const boost::system::error_code& error, const auto& results) {
                if (error || results.empty()) return self->Finish(error ? error : asio::error::host_not_found);
                self->OrFail([&] { self->ConnectUnlessFinished(results.begin()->endpoint()); });
            });
    }

    void ConnectUnlessFinished(const tcp::endpoint& endpoint) {
        PMutexHold hold(lock_);
        if (!finished_) ConnectTo(endpoint);
    }

    void ConnectTo(const tcp::endpoint& endpoint) KEL_REQUIRES(lock_) {
        socket_.async_connect(endpoint, [self = shared_from_this(), endpoint](const boost::system::error_code& error) {
            self->OrFail([&] {
                if (!IsShortage(error) || !self->TryAgain(endpoint, error)) self->Finish(error);
            });
        });
    }

    // Without a descriptor: makes room and tries again soon; false when that went on for long enough.
    bool TryAgain(const tcp::endpoint& endpoint, const boost::system::error_code& shortage) {
        outbound_.shortage_(shortage);
        PMutexHold hold(lock_);
        if (finished_ || std::chrono::steady_clock::now() > shortageEnd_) return false;
        boost::system::error_code ignored;
        socket_.close(ignored);
        retry_.expires_after(retryAfter);
        retry_.async_wait([self = shared_from_this(), endpoint](const boost::system::error_code& cancelled) {
            if (!cancelled) self->OrFail([&] { self->ConnectUnlessFinished(endpoint); });
        });
        return true;
    }

    void Finish(boost::system::error_code error) {
        Descriptor connected;
        {
            PMutexHold hold(lock_);
            if (std::exchange(finished_, true)) return;
            timer_.cancel();
            retry_.cancel();
            resolver_.cancel();
            boost::system::error_code ignored;
            if (error) {
                socket_.close(ignored);
            } else {
                connected = Descriptor(socket_.release(error));
            }
        }
        outbound_.Connected(to_, error, std::move(connected));
    }

    Outbound& outbound_;
    const Address to_;
    PMutex lock_;
    bool finished_ KEL_GUARDED_BY(lock_) = false;
    Socket socket_ KEL_GUARDED_BY(lock_);
    Resolver resolver_ KEL_GUARDED_BY(lock_);
    Timer timer_ KEL_GUARDED_BY(lock_);
    Timer retry_ KEL_GUARDED_BY(lock_);
    Deadline shortageEnd_ KEL_GUARDED_BY(lock_);
};

// A call that no thread waits for: it ends once, with an answer, without a connection or when its time is up. Kept
// alive by its timer and by whatever may still end it.
class Outbound::AsyncCall : public std::enable_shared_from_this<AsyncCall> {
public:
    AsyncCall(WorkerPool& pool, Address peer, std::string called, std::string by, ScopedVariant with,
              CallHandler handler)
        : to(std::move(peer)),
          method(std::move(called)),
          caller(std::move(by)),
          in(std::move(with)),
          handler_(std::move(handler)),
          timer_(pool.io().get_executor()) {}

    const Address to;
    const std::string method;
    const std::string caller;
    const ScopedVariant in;

    void ExpireAfter(std::chrono::milliseconds timeout) {
        PMutexHold hold(lock_);
        timer_.expires_after(timeout);
        timer_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
            if (!error) self->Expire();
        });
    }

    // It was sent, and `connection` keeps it under `id`: also when nobody wants the answer any more, so it says so
    // then.
    void WaitsOn(const ConnectionPtr& connection, uint32_t id) {
        {
            PMutexHold hold(lock_);
            over_ = connection;
            id_ = id;
            if (!finished_) return;
        }
        connection->Abandon(id);
    }

    void Finish(Outcome& outcome) {
        {
            PMutexHold hold(lock_);
            if (std::exchange(finished_, true)) return;
            timer_.cancel();
        }
        handler_(outcome);
    }

private:
    void Expire() {
        Outcome outcome;
        outcome.end = Outcome::End::noAnswer;
        Quietly([&] { outcome.problem = to.text() + " did not answer in time"; });
        Finish(outcome);
        ConnectionPtr connection;
        uint32_t id;
        {
            PMutexHold hold(lock_);
            connection = over_.lock();
            id = id_;
        }
        if (connection) connection->Abandon(id);
    }

    const CallHandler handler_;
    PMutex lock_;
    bool finished_ KEL_GUARDED_BY(lock_) = false;
    Timer timer_ KEL_GUARDED_BY(lock_);
    std::weak_ptr<Connection> over_ KEL_GUARDED_BY(lock_);  // once it was sent
    uint32_t id_ KEL_GUARDED_BY(lock_) = 0;                 // there
};

Outbound::Outbound(WorkerPool& pool, Adopt adopt, Shortage shortage)
    : pool_(pool), adopt_(std::move(adopt)), shortage_(std::move(shortage)) {}

void Outbound::WithConnection(const Address& to, ConnectHandler handler) {
    ConnectionPtr connection;
    bool first = false;
    {
        PMutexHold hold(lock_);
        if (!closed_) {
            Slot& slot = slots_[to];
            connection = slot.connection;
            if (!connection) {
                first = slot.waiting.empty();
                slot.waiting.push_back(std::move(handler));
                handler = nullptr;
            }
        }
    }
    if (first) {
        std::shared_ptr<Attempt> attempt;
        if (Quietly([&] { attempt = std::make_shared<Attempt>(*this, to); })) {
            attempt->Start();
        } else {
            Connected(to, asio::error::no_memory, Descriptor());
        }
    }
    if (handler) handler(connection, connection ? boost::system::error_code() : asio::error::operation_aborted);
}

// Throws nothing: whoever waits for the connection hears of it.
void Outbound::Connected(const Address& to, boost::system::error_code error, Descriptor socket) {
    ConnectionPtr connection;
    if (!error && !Quietly([&] { connection = adopt_(std::move(socket), to.text()); })) {
        error = asio::error::no_memory;
    }
    ConnectionPtr refused;
    std::vector<ConnectHandler> waiting;
    {
        PMutexHold hold(lock_);
        const auto slot = slots_.find(to);
        if (slot != slots_.end()) {
            waiting.swap(slot->second.waiting);
            try {
                if (connection) addresses_.emplace(connection.get(), to);
            } catch (const std::bad_alloc&) {
                refused.swap(connection);
                error = asio::error::no_memory;
            }
            if (connection) slot->second.connection = connection;
            else slots_.erase(slot);
        }
    }
    if (refused) refused->Close("no memory");
    if (connection) connection->Start();
    if (!connection && !error) error = asio::error::operation_aborted;
    for (const ConnectHandler& handler : waiting) handler(connection, error);
}

bool Outbound::CloseIdle() {
    std::vector<ConnectionPtr> candidates;
    {
        PMutexHold hold(lock_);
        for (size_t i = std::min(slots_.bucket_count(), maxLookedAt); i > 0; --i) {
            nextBucket_ = (nextBucket_ + 1) % slots_.bucket_count();
            for (auto slot = slots_.begin(nextBucket_); slot != slots_.end(nextBucket_); ++slot) {
                if (slot->second.connection) candidates.push_back(slot->second.connection);
            }
        }
    }
    return std::any_of(candidates.begin(), candidates.end(),
                       [](const ConnectionPtr& candidate) { return candidate->CloseIfIdle(); });
}

// The connection for a call, waiting for it if need be; null with the outcome filled in.
ConnectionPtr Outbound::Connect(const Address& to, Deadline deadline, Outcome& outcome) {
    using Result = std::pair<ConnectionPtr, boost::system::error_code>;
    const auto awaited = std::make_shared<Awaited<Result>>();
    {
        PMutexHold hold(lock_);
        const auto slot = slots_.find(to);
        if (slot != slots_.end() && slot->second.connection) {
            outcome.reused = true;
            return slot->second.connection;
        }
    }
    outcome.reused = false;
    WithConnection(to, [awaited](const ConnectionPtr& connection, const boost::system::error_code& error) {
        awaited->Bring({connection, error});
    });
    pool_.AboutToBlock();
    std::optional<Result> result = awaited->Await(deadline);
    if (result && result->first) return result->first;
    outcome.end = Outcome::End::unreachable;
    outcome.error = result ? result->second : asio::error::timed_out;
    outcome.shortage = IsShortage(outcome.error);
    outcome.problem =
        to.text() + " cannot be reached: " + (result ? result->second.message() : "no connection in time");
    return nullptr;
}

Outcome Outbound::Call(const Address& to, std::string_view method, std::string_view caller, const tagVARIANT& in,
                       Deadline deadline) {
    Outcome outcome;
    for (;;) {
        const ConnectionPtr connection = Connect(to, deadline, outcome);
        if (!connection) return outcome;
        outcome.over = connection;
        const auto awaited = std::make_shared<Awaited<Answer>>();
        uint32_t id = 0;
        const auto begun = connection->Call(
            method, caller, in,
            [awaited](CallEnd end, wire::Message& message) {
                awaited->Bring({end, std::move(message)});
            },
            &id);
        if (begun == Connection::Begun::tooLarge) {
            outcome.end = Outcome::End::tooLarge;
            outcome.problem = "the parameters are too large or of a type that cannot travel";
            return outcome;
        }
        if (begun == Connection::Begun::closed) {
            Forget(connection);  // it closed before the call: nothing was sent
            if (outcome.reused || connection->gaveRoom()) continue;
            outcome.problem = HowItEnded(*connection, to, "at once");
            return outcome;
        }
        pool_.AboutToBlock();
        connection->ReadAnswer([&awaited] { return awaited->IsThere(); }, deadline);
        std::optional<Answer> answer = awaited->AwaitAmongOthers(deadline);
        if (!answer && std::chrono::steady_clock::now() > deadline + lateness) {
            // This process stood still meanwhile: an answer may have come and not been read yet.
            answer = awaited->Await(std::chrono::steady_clock::now() + timeToRead);
        }
        if (answer) {
            Settle(outcome, answer->end, answer->message, to.text());
            if (answer->end == CallEnd::lost) outcome.problem = HowItEnded(*connection, to, "before it answered");
        } else {
            connection->Abandon(id);
            outcome.end = Outcome::End::noAnswer;
            outcome.problem = to.text() + " did not answer in time";
        }
        return outcome;
    }
}

void Outbound::CallAsync(const Address& to, std::string method, std::string caller, ScopedVariant in,
                         std::chrono::milliseconds timeout, CallHandler handler) {
    const auto call =
        std::make_shared<AsyncCall>(pool_, to, std::move(method), std::move(caller), std::move(in), std::move(handler));
    call->ExpireAfter(timeout);
    Begin(call, maxBeginnings);
}

// Makes the call, anew when a connection was closed under it to make room. Throws nothing.
void Outbound::Begin(const std::shared_ptr<AsyncCall>& call, int attempts) {
    const bool begun = Quietly([&] {
        WithConnection(call->to,
                       [this, call, attempts](const ConnectionPtr& connection, const boost::system::error_code& error) {
                           CallOn(connection, error, call, attempts);
                       });
    });
    if (begun) return;
    Outcome outcome;
    outcome.shortage = true;
    outcome.problem = "no memory";
    call->Finish(outcome);
}

void Outbound::CallOn(const ConnectionPtr& connection, const boost::system::error_code& error,
                      const std::shared_ptr<AsyncCall>& call, int attempts) {
    std::optional<Connection::Begun> begun;
    Outcome outcome;
    outcome.error = error;
    outcome.shortage = IsShortage(error);
    uint32_t id = 0;
    Quietly([&] {
        outcome.problem = call->to.text() + " cannot be reached: " + error.message();
        if (!connection) return;
        begun = connection->Call(
            call->method, call->caller, call->in,
            [call](CallEnd end, wire::Message& message) {
                Outcome ended;
                Quietly([&] { Settle(ended, end, message, call->to.text()); });
                call->Finish(ended);
            },
            &id);
    });
    if (begun == Connection::Begun::begun) {
        connection->ReadByWorkers();
        return call->WaitsOn(connection, id);
    }
    if (begun == Connection::Begun::closed) {
        Forget(connection);
        if (connection->gaveRoom() && attempts > 1) return Begin(call, attempts - 1);
    }
    call->Finish(outcome);
}

void Outbound::Forget(const ConnectionPtr& connection) {
    PMutexHold hold(lock_);
    const auto address = addresses_.find(connection.get());
    if (address == addresses_.end()) return;
    const auto slot = slots_.find(address->second);
    if (slot != slots_.end() && slot->second.connection == connection) slots_.erase(slot);
    addresses_.erase(address);
}

void Outbound::Close() {
    decltype(slots_) slots;
    {
        PMutexHold hold(lock_);
        closed_ = true;
        slots.swap(slots_);
        addresses_.clear();
    }
    for (const auto& [address, slot] : slots) {
        if (slot.connection) slot.connection->Close("this endpoint closes");
        for (const ConnectHandler& handler : slot.waiting) handler(nullptr, asio::error::operation_aborted);
    }
}

}  // namespace kel::transport

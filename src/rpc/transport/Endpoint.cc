#include "rpc/transport/Endpoint.h"

#include "rpc/KelSatellite.h"
#include "rpc/LibraryLog.h"
#include "rpc/transport/Quietly.h"
#include "rpc/wire/Codec.h"

#include <boost/asio/post.hpp>

#include <algorithm>
#include <thread>
#include <vector>

namespace kel::transport {

namespace {
constexpr std::chrono::seconds lastAnswersTimeout{5};  // for peers to read what methods answered last
constexpr int maxPortsTried = 100;
constexpr std::chrono::seconds lookPeriod{5};
constexpr int maxLooks = maxStall / lookPeriod;
constexpr std::chrono::minutes cutWarningPeriod{1};
}  // namespace

Endpoint::Endpoint(CallReceiver& receiver)
    : receiver_(receiver),
      listener_(
          pool_, [this](Socket socket) { OnAccepted(std::move(socket)); },
          [this](const auto& shortage) { outbound_.MakeRoom(shortage); }),
      loopback_(
          pool_, [this](Socket socket) { OnAccepted(std::move(socket)); },
          [this](const auto& shortage) { outbound_.MakeRoom(shortage); }),
      outbound_(pool_, [this](Socket socket, const std::string& peer) { return Adopt(std::move(socket), peer); }),
      timer_(pool_.io().get_executor()),
      lookTimer_(pool_.io().get_executor()) {}

Endpoint::~Endpoint() { Close(); }

void Endpoint::Start() { pool_.Start(); }

boost::system::error_code Endpoint::Listen(const Address& at) {
    boost::system::error_code error;
    // A free port of the one address may be taken on the other.
    for (int attempt = 0; attempt < maxPortsTried; ++attempt) {
        error = listener_.Open(at);
        if (error) return error;
        const auto address = boost::asio::ip::make_address_v4(at.host);
        if (address.is_unspecified() || address.is_loopback()) return error;
        error = loopback_.Open({"127.0.0.1", listener_.port()});
        if (!error) return error;
        listener_.Close();
        if (at.port != 0) return error;
    }
    return error;
}

void Endpoint::Accept() {
    listener_.Start();
    loopback_.Start();
}

ConnectionPtr Endpoint::Adopt(Socket socket, const std::string& peer) {
    ConnectionOwner& owner = *this;
    const auto connection = std::make_shared<Connection>(std::move(socket), owner, peer);
    PMutexHold hold(lock_);
    if (closed_) return nullptr;
    connections_.insert(connection);
    return connection;
}

void Endpoint::OnAccepted(Socket socket) {
    boost::system::error_code gone;
    const auto peer = socket.remote_endpoint(gone);
    if (gone) return;
    outbound_.KeepRoom(socket);
    const std::string name = peer.address().to_string() + ":" + std::to_string(peer.port());
    if (const ConnectionPtr connection = Adopt(std::move(socket), name)) connection->Start();
}

void Endpoint::OnClosed(const ConnectionPtr& connection) {
    outbound_.Forget(connection);
    PMutexHold hold(lock_);
    connections_.erase(connection);
}

// Peers that owe the rest of a message, or do not read, hold too much together.
void Endpoint::OnBuffersOver() {
    while (memory_.BuffersAreOver()) {
        const ConnectionPtr largest = WriteOffLargest();
        if (!largest) return;
        largest->Cut("others need the memory");
    }
}

ConnectionPtr Endpoint::WriteOffLargest() {
    ConnectionPtr largest;
    ptrdiff_t held = 0;
    bool warn = false;
    {
        PMutexHold hold(lock_);
        for (const ConnectionPtr& connection : connections_) {
            if (connection->bufferBytes() <= held) continue;
            held = connection->bufferBytes();
            largest = connection;
        }
        if (!largest) return nullptr;
        largest->WriteOff();
        const Deadline now = std::chrono::steady_clock::now();
        warn = now >= nextCutWarning_;
        if (warn) nextCutWarning_ = now + cutWarningPeriod;
    }
    if (warn) {
        Quietly([&] {
            CBBLog::warn(LibraryLogger(),
                         "libkel: unfinished messages and unread answers take more than %zu MiB; those that hold the "
                         "most are disconnected, %s with %zu MiB first",
                         maxBufferBytes >> 20, largest->peer().c_str(), static_cast<size_t>(held) >> 20);
        });
    }
    return largest;
}

void Endpoint::OnUnfinished() {
    if (!looking_.load(std::memory_order_relaxed) && !looking_.exchange(true)) pool_.Do(armLook_);
}

void Endpoint::ArmLook() {
    PMutexHold hold(timerLock_);
    lookTimer_.expires_after(lookPeriod);
    lookTimer_.async_wait([this](const boost::system::error_code& cancelled) {
        if (!cancelled) LookAtUnfinished();
    });
}

// Cuts connections whose peers have owed the same bytes for maxStall. Looks are counted, not time: while this process
// stands still, nobody can do anything about it.
void Endpoint::LookAtUnfinished() {
    looking_ = false;  // first, so that whoever is unfinished from here on sees to the next look
    bool again = false;
    std::vector<ConnectionPtr> stalled;
    {
        PMutexHold hold(lock_);
        for (const ConnectionPtr& connection : connections_) {
            const int looks = connection->LookAtUnfinished();
            again |= looks > 0;
            if (looks > maxLooks) Quietly([&] { stalled.push_back(connection); });
        }
    }
    if (again) OnUnfinished();
    if (stalled.empty()) return;
    Quietly([&] {
        CBBLog::warn(LibraryLogger(),
                     "libkel: disconnecting %zu peers that sent nothing more of a message for %lld s: %s",
                     stalled.size(), static_cast<long long>(maxStall.count()), stalled.front()->peer().c_str());
    });
    for (const ConnectionPtr& connection : stalled) connection->Close("the rest of a message did not come");
}

// Runs `code` as a method is run; false, without running it, when the endpoint is quiescing.
template <typename Code>
bool Endpoint::RunCounted(Code&& code) {
    struct Count {
        explicit Count(Endpoint& counted) : endpoint(counted) { endpoint.running_.fetch_add(1); }
        ~Count() {
            if (endpoint.running_.fetch_sub(1) > 1 || !endpoint.quiescing_) return;
            PMutexHold hold(endpoint.idle_);
            endpoint.idle_.broadcast();
        }
        Endpoint& endpoint;
    } const count(*this);
    if (quiescing_) return false;
    const WorkerPool::DelegateScope scope(pool_);
    code();
    return true;
}

void Endpoint::OnCall(const ConnectionPtr& connection, wire::Message& call) {
    if (RunCounted([&] { receiver_.OnCall(connection, call); })) return;
    if (call.kind != wire::MessageKind::request) return;
    std::string refusal;
    wire::EncodeError(refusal, call.id, KEL_UNREACHABLE, "the satellite is leaving");
    connection->Send(refusal, Connection::Bytes::answer);
}

void Endpoint::Post(std::function<void()> task) {
    boost::asio::post(pool_.io(), [this, task = std::move(task)] { RunCounted(task); });
}

void Endpoint::Repeat(std::chrono::milliseconds period, std::function<void()> task) {
    period_ = period;
    task_ = std::move(task);
    pool_.Do(armTimer_);
}

void Endpoint::ArmTimer() {
    PMutexHold hold(timerLock_);
    if (quiescing_) return;
    timer_.expires_after(period_);
    timer_.async_wait([this](const boost::system::error_code& cancelled) {
        if (cancelled) return;
        const struct Again {  // whether the task throws or not
            ~Again() { endpoint.pool_.Do(endpoint.armTimer_); }
            Endpoint& endpoint;
        } again{*this};
        RunCounted([this] { task_(); });
    });
}

void Endpoint::Quiesce() {
    listener_.Close();
    loopback_.Close();
    quiescing_ = true;
    {
        PMutexHold hold(timerLock_);
        timer_.cancel();
    }
    {
        PMutexHold hold(idle_);
        while (running_ > 0) idle_.wait();
    }
    const Deadline deadline = std::chrono::steady_clock::now() + lastAnswersTimeout;
    while (HasBacklog() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

// Whether a peer still has an answer to read.
bool Endpoint::HasBacklog() {
    PMutexHold hold(lock_);
    return std::any_of(connections_.begin(), connections_.end(),
                       [](const auto& connection) { return connection->HasBacklog(); });
}

void Endpoint::Close() {
    listener_.Close();
    loopback_.Close();
    std::unordered_set<ConnectionPtr> connections;
    {
        PMutexHold hold(lock_);
        if (closed_) return;
        closed_ = true;
        connections.swap(connections_);
    }
    for (const ConnectionPtr& connection : connections) connection->Close("this endpoint closes");
    outbound_.Close();
    pool_.Stop();
    memory_.Close();
}

}  // namespace kel::transport

#include "rpc/transport/Endpoint.h"

#include "foundation/NetworkUtils.h"
#include "rpc/transport/DescriptorReserve.h"
#include "rpc/transport/LibraryLog.h"
#include "rpc/transport/Quietly.h"
#include "rpc/values/KelResult.h"
#include "rpc/wire/Codec.h"

#include <algorithm>
#include <cstddef>
#include <thread>
#include <unordered_map>
#include <vector>

namespace kel::transport {

namespace {
constexpr std::chrono::seconds lastAnswersTimeout{5};  // for peers to read what methods answered last
constexpr int maxPortsTried = 100;
constexpr std::chrono::seconds lookPeriod{5};
constexpr int maxLooks = maxStall / lookPeriod;
constexpr std::chrono::minutes warningPeriod{1};
constexpr size_t maxConnections = 24'576;  // of both directions; each takes some 2 kB
}  // namespace

Endpoint::Endpoint(Receiver receiver)
    : receiver_(std::move(receiver)),
      listener_(
          pool_, [this](Descriptor socket, const sockaddr_in& peer) { OnAccepted(std::move(socket), peer); },
          [this] { return HasRoom(); }, [this](const auto& shortage) { MakeRoom(Connection::Opener::peer, shortage); }),
      loopback_(
          pool_, [this](Descriptor socket, const sockaddr_in& peer) { OnAccepted(std::move(socket), peer); },
          [this] { return HasRoom(); }, [this](const auto& shortage) { MakeRoom(Connection::Opener::peer, shortage); }),
      outbound_(
          pool_,
          [this](Descriptor socket, const std::string& peer) {
              return Adopt(std::move(socket), peer, Connection::Opener::us);
          },
          [this](const auto& shortage) { MakeRoom(Connection::Opener::us, shortage); }),
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

ConnectionPtr Endpoint::Adopt(Descriptor socket, const std::string& peer, Connection::Opener opener) {
    if (IsOfReserve(socket.get()) || IsCrowded()) {
        scarce_ = true;
        madeRoom_ = MakeRoom(opener, boost::asio::error::no_descriptors);
    }
    ConnectionOwner& owner = *this;
    const auto connection = std::make_shared<Connection>(std::move(socket), owner, peer, opener);
    PMutexHold hold(lock_);
    if (closed_) return nullptr;
    connections_.insert(connection);
    if (connection->openedByPeer()) ++inbound_;
    return connection;
}

void Endpoint::OnAccepted(Descriptor socket, const sockaddr_in& peer) {
    const std::string name = yar::networkutils::inet_ntos(peer.sin_addr) + ":" + std::to_string(ntohs(peer.sin_port));
    if (const ConnectionPtr connection = Adopt(std::move(socket), name, Connection::Opener::peer)) connection->Start();
}

// Whether a further connection may be accepted. Since one has touched the reserve of descriptors that is looked at each
// time, and only as many are accepted as others make room for: their descriptors are closed by handlers that have yet
// to run.
Listener::Room Endpoint::HasRoom() {
    if (!scarce_) return Listener::Room::yes;
    if (madeRoom_.exchange(false)) return Listener::Room::soon;
    if (!ReserveIsNext() && !IsCrowded()) return Listener::Room::yes;
    return MakeRoom(Connection::Opener::peer, boost::asio::error::no_descriptors) ? Listener::Room::soon
                                                                                  : Listener::Room::no;
}

bool Endpoint::IsCrowded() {
    PMutexHold hold(lock_);
    return connections_.size() >= maxConnections;
}

// Descriptors, or memory for connections, are few: has idle connections make room, first those of the direction in
// which there are more. For one more of ours, where there are more of them already, none of a peer is closed: it may
// wait for one of them. False when there are none.
bool Endpoint::MakeRoom(Connection::Opener forOneOf, const boost::system::error_code& shortage) {
    bool warn = false;
    bool inboundFirst = false;
    {
        PMutexHold hold(lock_);
        const Deadline now = std::chrono::steady_clock::now();
        warn = now >= nextRoomWarning_;
        if (warn) nextRoomWarning_ = now + warningPeriod;
        inboundFirst = inbound_ > connections_.size() / 2;
    }
    if (warn) {
        CBBLog::warn(LibraryLogger(), "libkel: no room for a further connection: %s; idle ones are closed",
                     shortage.message().c_str());
    }
    if (inboundFirst) return CloseIdleInbound() || outbound_.CloseIdle();
    return outbound_.CloseIdle() || (forOneOf == Connection::Opener::peer && CloseIdleInbound());
}

bool Endpoint::CloseIdleInbound() {
    std::vector<ConnectionPtr> longestIdle;
    {
        PMutexHold hold(lock_);
        longestIdle = LongestIdle();
    }
    return std::count_if(longestIdle.begin(), longestIdle.end(),
                         [](const ConnectionPtr& connection) { return connection->CloseIfIdle(); }) > 0;
}

// Of the address from which there are the most connections those that have been idle the longest: so the many of a
// stranger push out each other, and never the few of everybody else. One in 64, as it takes a while to look.
std::vector<ConnectionPtr> Endpoint::LongestIdle() {
    struct FromOneAddress {
        size_t count = 0;
        std::vector<const ConnectionPtr*> idle;
    };
    std::unordered_map<in_addr_t, FromOneAddress> inbound;
    FromOneAddress* most = nullptr;
    for (const ConnectionPtr& connection : connections_) {
        if (!connection->openedByPeer()) continue;
        FromOneAddress& those = inbound[connection->peerAddress().s_addr];
        if (connection->IsIdle()) those.idle.push_back(&connection);
        if (++those.count > (most ? most->count : 0)) most = &those;
    }
    if (!most || most->idle.empty()) return {};
    std::vector<const ConnectionPtr*>& idle = most->idle;
    const size_t count = 1 + (idle.size() - 1) / 64;
    std::partial_sort(idle.begin(), idle.begin() + static_cast<std::ptrdiff_t>(count), idle.end(),
                      [](const auto* one, const auto* other) { return (*one)->lastUse() < (*other)->lastUse(); });
    std::vector<ConnectionPtr> result;
    for (size_t i = 0; i < count; ++i) result.push_back(*idle[i]);
    return result;
}

void Endpoint::OnClosed(const ConnectionPtr& connection) {
    outbound_.Forget(connection);
    PMutexHold hold(lock_);
    if (connections_.erase(connection) > 0 && connection->openedByPeer()) --inbound_;
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
        if (warn) nextCutWarning_ = now + warningPeriod;
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

void Endpoint::OnCall(Connection& connection, wire::Message& call) {
    if (RunCounted([&] { receiver_(connection, call); })) return;
    if (call.kind != wire::MessageKind::request) return;
    std::string refusal;
    wire::EncodeError(refusal, call.id, KEL_UNREACHABLE, "the satellite is leaving");
    connection.Send(refusal, Connection::WhenFull::disconnect);
}

void Endpoint::Post(std::function<void()> task) {
    if (quiescing_) return;
    pool_.Post([this, task = std::move(task)] { RunCounted(task); });
}

void Endpoint::Repeat(std::chrono::milliseconds period, std::function<void()> task) {
    period_ = period;
    task_ = std::move(task);
    repeated_ = std::make_shared<Task>([this] { RunRepeated(); });
    pool_.Do(armTimer_);
}

void Endpoint::ArmTimer() {
    PMutexHold hold(timerLock_);
    if (quiescing_) return;
    timer_.expires_after(period_);
    timer_.async_wait([this](const boost::system::error_code& cancelled) {
        if (!cancelled) pool_.queue().Add(repeated_, Work::firstOwn);
    });
}

void Endpoint::RunRepeated() {
    const struct Again {  // whether the task throws or not
        ~Again() { endpoint.pool_.Do(endpoint.armTimer_); }
        Endpoint& endpoint;
    } again{*this};
    RunCounted([this] { task_(); });
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
    outbound_.Close();  // first: answers that wait for a call of this side are given now
    for (const ConnectionPtr& connection : connections) connection->Close("this endpoint closes");
    pool_.Stop();
    memory_.Close();
}

}  // namespace kel::transport

#include "rpc/transport/Connection.h"

#include "foundation/Locks.h"
#include "rpc/transport/Endpoint.h"
#include "rpc/wire/Codec.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <string>
#include <vector>

namespace kel::transport {
namespace {

// An endpoint that answers every call, but "Block" only once it may and "Later" when the test does, and a plain socket
// that is connected to it.
class MessagesThatComeTogether : public testing::Test {
protected:
    MessagesThatComeTogether() {
        endpoint_.Start();
        EXPECT_FALSE(endpoint_.Listen({"127.0.0.1", 0}));
        endpoint_.Accept();
        peer_ = Connected();
    }
    ~MessagesThatComeTogether() override {
        mayGoOn_.set();
        endpoint_.Close();
    }

    Descriptor Connected() {
        Descriptor peer(::socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(endpoint_.port());
        EXPECT_EQ(::connect(peer.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        const timeval patience{60, 0};
        ::setsockopt(peer.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        return peer;
    }

    void Run(Connection& connection, const wire::Message& call) {
        if (call.method == "Block") mayGoOn_.waitSignalled();
        std::string answer;
        if (call.method == "Later") {
            connection.BeginLateCall();
            PMutexHold hold(lock_);
            late_.push_back(connection.shared_from_this());
            EXPECT_LE(late_.size(), size_t{maxOutstandingCalls});
            lock_.signal();
        } else if (call.kind == wire::MessageKind::request) {
            EXPECT_TRUE(wire::EncodeResponse(answer, call.id, 0, ScopedVariant()));
            connection.Send(answer, Connection::WhenFull::disconnect);
        } else {
            PMutexHold hold(lock_);
            notified_ += call.method + " ";
            lock_.signal();
        }
    }

    // The ids of the next answers, in the order in which they come.
    std::vector<uint32_t> Answers(size_t count) {
        std::vector<uint32_t> ids;
        while (ids.size() < count) {
            char part[1024];
            const ssize_t got = ::recv(peer_.get(), part, sizeof part, 0);
            if (got <= 0) break;
            input_.append(part, static_cast<size_t>(got));
            wire::Framer framer;
            for (; framer.Scan(input_.data(), input_.size()) == wire::Framer::Status::complete; framer.Reset()) {
                wire::Message answer;
                EXPECT_TRUE(wire::Decode(input_.data(), framer.length(), answer));
                ids.push_back(answer.id);
                input_.erase(0, framer.length());
            }
        }
        return ids;
    }

    void Send(const std::string& bytes) {
        EXPECT_EQ(::send(peer_.get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }

    PManualEvent mayGoOn_;
    PCondMutex lock_;
    std::string notified_ KEL_GUARDED_BY(lock_);
    std::vector<ConnectionPtr> late_ KEL_GUARDED_BY(lock_);
    Endpoint endpoint_{[this](Connection& connection, wire::Message& call) { Run(connection, call); }};
    Descriptor peer_;
    std::string input_;
};

// A connection that was opened here, to a plain socket, and whoever holds it.
class AConnectionOfOurs : public testing::Test, public ConnectionOwner {
protected:
    AConnectionOfOurs() {
        int ends[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        peer_ = Descriptor(ends[1]);
        connection_ = std::make_shared<Connection>(Descriptor(ends[0]), *this, "peer", Connection::Opener::us);
        pool_.Start();
    }
    ~AConnectionOfOurs() override {
        connection_->Close("the test is over");
        pool_.Stop();
    }

    WorkerPool& pool() override { return pool_; }
    MemoryBudget& memory() override { return memory_; }
    void OnBuffersOver() override {}
    void OnUnfinished() override {}
    void OnCall(Connection&, wire::Message&) override {}
    void OnClosed(const ConnectionPtr&) override { ended_.set(); }

    uint32_t Call() {
        uint32_t id = 0;
        const auto heard = [this](CallEnd, wire::Message&) { answered_.set(); };
        EXPECT_EQ(connection_->Call("Go", "", ScopedVariant(), heard, &id), Connection::Begun::begun);
        return id;
    }
    void Answer(uint32_t id) {
        std::string bytes;
        EXPECT_TRUE(wire::EncodeResponse(bytes, id, 0, ScopedVariant()));
        EXPECT_EQ(::send(peer_.get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }
    // Until a worker has run what the system has told of.
    void AwaitWorkers() {
        for (int i = 0; i < 2; ++i) {
            PManualEvent ran;
            pool_.Post([&] { ran.set(); });
            ran.waitSignalled();
        }
    }

    static constexpr int patience = 60'000;
    MemoryBudget memory_{[] {}};
    PManualEvent answered_, ended_;
    Descriptor peer_;
    WorkerPool pool_;
    ConnectionPtr connection_;
};

TEST_F(AConnectionOfOurs, IsReadThoughItWasUsedBeforeItWasStarted) {
    Answer(Call());
    connection_->ReadByWorkers();
    connection_->Start();
    EXPECT_TRUE(answered_.waitSignalled(patience));
}

TEST_F(AConnectionOfOurs, EndsWithItsPeerThoughAThreadReadsItsAnswerThen) {
    connection_->Start();
    Answer(Call());
    const auto isThere = [this] {
        if (!answered_.waitSignalled(0)) return false;
        peer_ = Descriptor();
        AwaitWorkers();
        return true;
    };
    connection_->ReadAnswer(isThere, std::chrono::steady_clock::now() + std::chrono::minutes(1));
    EXPECT_TRUE(ended_.waitSignalled(patience));
}

TEST_F(AConnectionOfOurs, ReadsTheAnswerThatNobodyWaitsForAnyMore) {
    connection_->Start();
    const uint32_t abandoned = Call();
    connection_->Abandon(abandoned);
    Answer(Call());
    const auto isThere = [this] { return answered_.waitSignalled(0); };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    connection_->ReadAnswer(isThere, deadline);
    EXPECT_TRUE(answered_.waitSignalled(patience));
    Answer(abandoned);
    bool wasIdle = false;  // one with something to read is not
    while (!(wasIdle = connection_->CloseIfIdle()) && std::chrono::steady_clock::now() < deadline) AwaitWorkers();
    EXPECT_TRUE(wasIdle);
}

TEST_F(MessagesThatComeTogether, AreAnsweredThoughOneOfThemBlocks) {
    std::string bytes;
    std::vector<uint32_t> others;
    for (uint32_t id = 1; id <= 40; ++id) {
        EXPECT_TRUE(wire::EncodeRequest(bytes, id, id == 20 ? "Block" : "Go", "", ScopedVariant()));
        if (id != 20) others.push_back(id);
    }
    Send(bytes);
    EXPECT_EQ(Answers(39), others);
    mayGoOn_.set();
    EXPECT_EQ(Answers(1), std::vector<uint32_t>{20});
}

TEST_F(MessagesThatComeTogether, AreNotRunWhileAsManyAsMayBeAreUnderWay) {
    constexpr size_t count = maxOutstandingCalls + 100;
    std::string bytes;
    for (uint32_t id = 0; id < count; ++id) {
        EXPECT_TRUE(wire::EncodeRequest(bytes, id, "Later", "", ScopedVariant()));
    }
    Send(bytes);
    const auto takeOne = [this](size_t whenThereAre) {
        PMutexHold hold(lock_);
        while (late_.size() < whenThereAre) lock_.wait();
        const ConnectionPtr connection = late_.back();
        late_.pop_back();
        return connection;
    };
    for (size_t left = count; left > 0; --left) takeOne(std::min<size_t>(left, maxOutstandingCalls))->EndLateCall();
}

TEST_F(MessagesThatComeTogether, AreAnsweredThoughTheirSendersHaveEnded) {
    std::string block, go;
    EXPECT_TRUE(wire::EncodeRequest(block, 1, "Block", "", ScopedVariant()));
    EXPECT_TRUE(wire::EncodeRequest(go, 2, "Go", "", ScopedVariant()));
    std::vector<Descriptor> senders;
    for (int i = 0; i < 60; ++i) senders.push_back(Connected());
    Send(go);
    EXPECT_EQ(Answers(1), std::vector<uint32_t>{2});
    Send(block);  // so that many wait for whoever takes this thread's place
    for (const Descriptor& sender : senders) {
        ::send(sender.get(), go.data(), go.size(), 0);
        ::shutdown(sender.get(), SHUT_WR);
    }
    for (const Descriptor& sender : senders) {
        char answer[64];
        EXPECT_GT(::recv(sender.get(), answer, sizeof answer, 0), 0);
    }
}

TEST_F(MessagesThatComeTogether, KeepTheOrderOfNotificationsThoughOneOfThemBlocks) {
    std::string bytes;
    for (const char* const method : {"a", "b", "Block", "c", "d"})
        EXPECT_TRUE(wire::EncodeNotification(bytes, method, "", ScopedVariant()));
    EXPECT_TRUE(wire::EncodeRequest(bytes, 1, "Go", "", ScopedVariant()));
    Send(bytes);
    EXPECT_EQ(Answers(1), std::vector<uint32_t>{1}) << "a call behind them is answered";
    mayGoOn_.set();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    PMutexHold hold(lock_);
    while (notified_.size() < 14 && lock_.waitUntil(deadline)) {
    }
    EXPECT_EQ(notified_, "a b Block c d ");
}

}  // namespace
}  // namespace kel::transport

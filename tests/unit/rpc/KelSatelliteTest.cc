#include "rpc/satellite/KelSatellite.h"

#include "foundation/Settings.h"
#include "rpc/values/VUtil.h"
#include "rpc/wire/Codec.h"
#include "rpc/wire/Framer.h"
#include "support/ReservedPort.h"
#include "support/TempRoot.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

namespace {

using Handler = std::function<int(const char*, const tagVARIANT&, tagVARIANT*)>;

class FunctionDelegate : public KelSatelliteDelegateGeneric {
public:
    explicit FunctionDelegate(Handler handler) : handler_(std::move(handler)) {}
    int Invoke(const char* caller, const tagVARIANT& in, tagVARIANT* out) override { return handler_(caller, in, out); }

private:
    Handler handler_;
};

void Publish(KelSatellite& satellite, const char* name, Handler handler) {
    satellite.AddService(name, "", new FunctionDelegate(std::move(handler)));
}

bool Eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// As much of a directory as the library needs of one.
class Directory : public KelSatellite {
public:
    ~Directory() override { Disconnect(); }

    void CreateServices() override {
        Publish(*this, "Register", [this](const char*, const tagVARIANT& in, tagVARIANT* out) {
            const std::lock_guard<std::mutex> hold(mutex);
            ++registrations;
            Entry& entry = known[VUtil::GetStringElement(in, 0)];
            if (entry.id == 0 || entry.id != VUtil::GetIntElement(in, 4)) entry = {++lastId, 0};
            entry.port = VUtil::GetUnsignedShortElement(in, 2);
            *out = VUtil::MakeList("0123456789abcdef", entry.id).release();
            return 0;
        });
        Publish(*this, "UnRegister", [](const char*, const tagVARIANT&, tagVARIANT*) { return 0; });
        Publish(*this, "RemoveSatellite", [this](const char*, const tagVARIANT& in, tagVARIANT*) {
            Forget(VUtil::GetStringElement(in, 0));
            return 0;
        });
        Publish(*this, "GetSatelliteId", [this](const char*, const tagVARIANT& in, tagVARIANT* out) {
            if (beforeId) beforeId(in.bstrVal);
            const int id = IdOf(in.bstrVal);
            *out = MakeInt(id).release();
            return id ? 0 : KEL_UNKNOWN_NAME;
        });
        Publish(*this, "GetSatelliteHost", [this](const char*, const tagVARIANT& in, tagVARIANT* out) {
            const std::lock_guard<std::mutex> hold(mutex);
            ++lookups;
            const auto found = known.find(in.bstrVal);
            if (found == known.end()) return KEL_UNKNOWN_SATELLITE;
            *out = VUtil::MakeList("127.0.0.1", static_cast<int>(found->second.port)).release();
            return 0;
        });
    }

    void Forget(const std::string& name) {
        const std::lock_guard<std::mutex> hold(mutex);
        known.erase(name);
    }

    int IdOf(const std::string& name) {
        const std::lock_guard<std::mutex> hold(mutex);
        return known.count(name) ? known[name].id : 0;
    }

    struct Entry {
        int id = 0;
        unsigned short port = 0;
    };
    std::mutex mutex;
    std::map<std::string, Entry> known;
    std::function<void(const std::string&)> beforeId;
    int registrations = 0;
    int lastId = 0;
    std::atomic<int> lookups{0};
};

struct Throwing : KelSatellite {
    ~Throwing() override { Disconnect(); }
    void OnStatusChange(int, KELSTATUS) override { throw ++changes; }
    std::atomic<int> changes{0};
};

class ASatellite : public testing::Test {
protected:
    void SetUp() override {
        CRegistry::getInstance()->WriteSettingImpl("Software\\Tessaly\\Yar\\Config", "kel.directoryPort",
                                                   directoryPort.number());
        KelSatellite early;
        ASSERT_EQ(early.Connect("127.0.0.1", "Player"), KEL_UNREACHABLE);
        ASSERT_EQ(early.ConnectUser("127.0.0.1", "Somebody"), KEL_UNREACHABLE);
        ASSERT_EQ(early.Request("Recorder", "Ask", ScopedVariant(), nullptr, KELFLAG_WAIT, nullptr), KEL_NOT_CONNECTED);
        ASSERT_EQ(directory.Connect("127.0.0.1", "MainRegister"), 0);
    }

    static void Serve(KelSatellite& satellite, const char* name, const char* method, Handler handler) {
        Publish(satellite, method, std::move(handler));
        ASSERT_EQ(satellite.Connect("127.0.0.1", name), 0);
    }

    int Call(const char* method, KELFLAGS flags = KELFLAG_WAIT, const ScopedVariant& in = ScopedVariant()) {
        return directory.Request("Recorder", method, in, nullptr, flags, nullptr);
    }

    TempRoot root;
    ReservedPort directoryPort;
    Directory directory;
};

// Listens at a port of its own, and says something to the first who comes before it hangs up, if that is wanted.
class Stranger {
public:
    explicit Stranger(const char* says) : listener(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        ::bind(listener, reinterpret_cast<sockaddr*>(&address), size);
        ::listen(listener, 1);
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
        port = ntohs(address.sin_port);
        if (!says) return;
        thread_ = std::thread([this, says] {
            const int peer = ::accept(listener, nullptr, nullptr);
            ::send(peer, says, std::strlen(says), MSG_NOSIGNAL);
            ::shutdown(peer, SHUT_WR);
            char asked[4096];
            [[maybe_unused]] const ssize_t got = ::recv(peer, asked, sizeof asked, 0);
            ::close(peer);
        });
    }
    ~Stranger() {
        ::shutdown(listener, SHUT_RDWR);
        if (thread_.joinable()) thread_.join();
        ::close(listener);
    }
    std::string at() const { return "127.0.0.1:" + std::to_string(port); }

    const int listener;
    unsigned short port = 0;

private:
    std::thread thread_;
};

}  // namespace

TEST_F(ASatellite, SaysWhyItCouldNotConnectAndWhereItTried) {
    KelSatellite recorder, player;
    ASSERT_EQ(recorder.Connect("127.0.0.1", "Recorder"), 0);
    const auto problem = [&player](const std::string& host, int code, bool registers) {
        const char* const name = "Recorder";
        EXPECT_EQ(registers ? player.Connect(host.c_str(), name) : player.ConnectUser(host.c_str(), name), code);
        return std::string(player.LastProblem());
    };
    const std::string recorderAt = "127.0.0.1:" + std::to_string(recorder.getSatellitePort());
    const std::string directoryAt = "127.0.0.1:" + std::to_string(directoryPort.number());
    for (const bool registers : {true, false}) {
        const ReservedPort closed;
        const std::string closedAt = "127.0.0.1:" + std::to_string(closed.number());
        const Stranger otherwise("HTTP/1.1 400 Bad Request\r\n\r\n"), hangsUp("");
        EXPECT_EQ(problem(closedAt, KEL_UNREACHABLE, registers), closedAt + " cannot be reached: Connection refused");
        EXPECT_EQ(problem(otherwise.at(), KEL_UNREACHABLE, registers),
                  otherwise.at() + " answers, but not as a satellite does");
        EXPECT_EQ(problem(hangsUp.at(), KEL_UNREACHABLE, registers).find(hangsUp.at() + " closed the connection "), 0u);
        EXPECT_EQ(problem("no host:7", KEL_UNREACHABLE, registers).find("no host:7 cannot be reached: Host not found"),
                  0u);
    }
    EXPECT_EQ(problem(recorderAt, KEL_UNREACHABLE, false), recorderAt + " answers, but is no directory");
    EXPECT_EQ(player.ConnectUser("127.0.0.1", "Somebody"), 0);
    EXPECT_EQ(player.LastProblem(), "");
    EXPECT_EQ(player.Request("Nobody", "Ask", ScopedVariant(), nullptr, KELFLAG_WAIT, nullptr), KEL_UNKNOWN_SATELLITE);
    EXPECT_EQ(player.LastProblem(), "the directory at " + directoryAt + " knows no satellite Nobody");
}

TEST_F(ASatellite, WaitsForAnAnswerOnlyAsLongAsItIsTold) {
    std::promise<void> told;
    const std::shared_future<void> mayAnswer = told.get_future().share();
    KelSatellite recorder;
    Serve(recorder, "Recorder", "Slow", [&](const char*, const tagVARIANT&, tagVARIANT*) {
        mayAnswer.wait_for(std::chrono::seconds(20));
        return 5;
    });
    const std::string problem = "127.0.0.1:" + std::to_string(recorder.getSatellitePort()) + " did not answer in time";
    EXPECT_TRUE(Eventually([&] {
        ScopedVariant extra;
        return directory.Request("Recorder", "Slow", extra, nullptr, KELFLAG_WAIT, &extra, 50) == KEL_NO_ANSWER &&
               extra.bstrVal == problem;
    }));
    told.set_value();
}

TEST_F(ASatellite, PingsOthersWithoutBeingConnected) {
    KelSatellite early;
    KELSTATUS status = 7;
    int id = 0;
    ASSERT_EQ(directory.GetSatelliteId(&id), 0);
    EXPECT_EQ(early.DirectoryPingSatellite("MainRegister", "127.0.0.1", directoryPort.number(), id, &status), 0);
    EXPECT_EQ(status, KELSTATUS_ALIVE);
}

TEST_F(ASatellite, ThrowsForNullArguments) {
    KELSTATUS status;
    int result;
    ScopedVariant out;
    EXPECT_THROW(directory.DirectoryPingSatellite(nullptr, "127.0.0.1", 1, 1, &status), KelException);
    EXPECT_THROW(directory.DirectoryPingSatellite("Recorder", nullptr, 1, 1, &status), KelException);
    EXPECT_THROW(directory.DirectoryPingSatellite("Recorder", "127.0.0.1", 1, 1, nullptr), KelException);
    EXPECT_THROW(directory.PingLater("Recorder", nullptr, 1, 1, [](int, KELSTATUS) {}), KelException);
    EXPECT_THROW(directory.PingLater("Recorder", "127.0.0.1", 1, 1, nullptr), KelException);
    EXPECT_THROW(directory.WaitForOneWayRoom(nullptr, 1), KelException);
    EXPECT_THROW(directory.ForgetAddress(nullptr), KelException);
    EXPECT_THROW(directory.GetSatelliteId(nullptr), KelException);
    EXPECT_THROW(directory.OnServiceRequested(0, "", nullptr, out, &out, &result), KelException);
    EXPECT_THROW(KelSatelliteDelegateFunction(nullptr), KelException);
}

TEST_F(ASatellite, IsCalledByNameAndAnswersWithItsResult) {
    KelSatellite recorder;
    std::string caller;
    Serve(recorder, "Recorder", "Echo", [&](const char* from, const tagVARIANT& in, tagVARIANT* out) {
        caller = from;
        VariantCopy(out, &in);
        return 7;
    });
    KelSatellite player;
    EXPECT_THROW(player.Connect("127.0.0.1:five", "Player"), KelInvalidParameterException);
    EXPECT_THROW(player.Connect("127.0.0.1", ""), KelInvalidParameterException);
    ASSERT_EQ(player.ConnectUser("127.0.0.1", "Somebody"), 0);
    ScopedVariant out, extra;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(player.Request("Recorder", "Echo", MakeString("text"), &out, KELFLAG_WAIT, &extra), 7);
        EXPECT_STREQ(out.bstrVal, "text");
    }
    EXPECT_EQ(player.Request("Recorder", "Echo", out, &out, KELFLAG_WAIT, nullptr), 7);
    EXPECT_STREQ(out.bstrVal, "text");
    EXPECT_EQ(caller, "Somebody");
    EXPECT_EQ(directory.lookups, 1) << "the address is asked for once";
    EXPECT_EQ(player.Request("Nobody", "Echo", out, nullptr, KELFLAG_WAIT, &extra), KEL_UNKNOWN_SATELLITE);
    EXPECT_EQ(extra.vt, VT_BSTR);
    EXPECT_EQ(player.getSatellitePort(), 0);
    recorder.Disconnect();
    EXPECT_EQ(directory.IdOf("Recorder"), 0) << "it left the directory";
    // One call may still go out on the old connection.
    EXPECT_TRUE(Eventually([&] {
        return player.Request("Recorder", "Echo", out, nullptr, KELFLAG_WAIT, nullptr) == KEL_UNKNOWN_SATELLITE;
    }));
}

TEST_F(ASatellite, SendsExceptionsOfItsMethodsToTheCaller) {
    KelSatellite recorder;
    Publish(recorder, "Fail",
            [](const char*, const tagVARIANT&, tagVARIANT*) -> int { throw std::runtime_error("boom"); });
    Serve(recorder, "Recorder", "Unsendable", [](const char*, const tagVARIANT&, tagVARIANT* out) {
        out->vt = 0x1fff;
        return 0;
    });
    const auto failure = [&](const char* method) {
        try {
            Call(method);
        } catch (const KelException& error) {
            return std::to_string(error.GetCode()) + " " + error.GetMessage();
        }
        return std::string("no exception");
    };
    EXPECT_EQ(failure("Fail"), "131077 boom");
    EXPECT_EQ(failure("Unsendable").substr(0, 6), "131077");
}

TEST_F(ASatellite, ServesACallThatItsOwnCallWaitsFor) {
    KelSatellite recorder, player;
    Serve(recorder, "Recorder", "Ask", [&](const char* caller, const tagVARIANT& in, tagVARIANT* out) {
        return in.lVal == 0 ? 42 : recorder.Request(caller, "Back", MakeInt(in.lVal - 1), out, KELFLAG_WAIT, nullptr);
    });
    Serve(player, "Player", "Back", [&](const char* caller, const tagVARIANT& in, tagVARIANT* out) {
        return player.Request(caller, "Ask", in, out, KELFLAG_WAIT, nullptr);
    });
    EXPECT_EQ(player.Request("Recorder", "Ask", MakeInt(20), nullptr, KELFLAG_WAIT, nullptr), 42);
}

TEST_F(ASatellite, ReceivesOneWayCallsInOrderHoweverLongEachTakes) {
    std::vector<int> seen;
    std::atomic<int> count{0};
    KelSatellite recorder;
    Serve(recorder, "Recorder", "Note", [&](const char*, const tagVARIANT& in, tagVARIANT*) {
        if (in.lVal % 100 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        seen.push_back(in.lVal);
        ++count;
        return 0;
    });
    for (int i = 0; i < 500; ++i) ASSERT_EQ(Call("Note", KELFLAG_ONE_WAY, MakeInt(i)), 0);
    ASSERT_TRUE(Eventually([&] { return count == 500; }));
    for (int i = 0; i < 500; ++i) EXPECT_EQ(seen[i], i);
    EXPECT_EQ(directory.Request("Nobody", "Note", MakeInt(1), nullptr, KELFLAG_ONE_WAY, nullptr), 0);
}

TEST_F(ASatellite, FindsASatelliteThatMovedToAnotherPort) {
    for (int code : {5, 6}) {
        KelSatellite recorder;
        Serve(recorder, "Recorder", "Ask", [=](const char*, const tagVARIANT&, tagVARIANT*) { return code; });
        EXPECT_EQ(Call("Ask"), code);
    }
}

TEST_F(ASatellite, LetsRunningMethodsFinishBeforeItsEndpointGoes) {
    std::promise<void> entered, mayLeave;
    std::atomic<bool> left{false};
    auto recorder = std::make_unique<KelSatellite>();
    KelSatellite* const leaving = recorder.get();
    Publish(*recorder, "Quick", [](const char*, const tagVARIANT&, tagVARIANT*) { return 4; });
    Serve(*recorder, "Recorder", "Slow", [&](const char*, const tagVARIANT&, tagVARIANT*) {
        entered.set_value();
        mayLeave.get_future().wait();
        EXPECT_EQ(leaving->AddService("Late", "", [](const char*, const tagVARIANT&, tagVARIANT*) { return 0; }), 0);
        left = true;
        return 3;
    });
    auto call = std::async(std::launch::async, [&] { return Call("Slow"); });
    entered.get_future().wait();
    auto ending = std::async(std::launch::async, [&] { recorder.reset(); });
    EXPECT_TRUE(Eventually([&] { return directory.IdOf("Recorder") == 0; }));
    EXPECT_TRUE(Eventually([&] {
        try {
            return Call("Quick") == KEL_UNREACHABLE;
        } catch (const KelException&) {
            return false;
        }
    }));
    EXPECT_NE(ending.wait_for(std::chrono::milliseconds(50)), std::future_status::ready);
    mayLeave.set_value();
    ending.wait();
    EXPECT_TRUE(left);
    EXPECT_EQ(call.get(), 3) << "the answer still leaves";
    EXPECT_EQ(directory.IdOf("Recorder"), 0) << "what the method published did not bring it back";
}

TEST_F(ASatellite, RegistersAgainWhenTheDirectoryForgotItThoughItsAuthorsCodeThrows) {
    Throwing recorder;
    ASSERT_EQ(recorder.Connect("127.0.0.1", "Recorder"), 0);
    const int before = directory.IdOf("Recorder");
    directory.Forget("Recorder");
    EXPECT_TRUE(Eventually([&] { return directory.IdOf("Recorder") > before && recorder.changes == 2; }));
}

TEST_F(ASatellite, StaysAwayWhenItLeavesWhileTheDirectoryIsAskedForIt) {
    KelSatellite recorder;
    std::promise<void> asked, mayAnswer;
    directory.beforeId = [&](const std::string& name) {
        if (name != "Recorder") return;
        asked.set_value();
        mayAnswer.get_future().wait();
    };
    ASSERT_EQ(recorder.Connect("127.0.0.1", "Recorder"), 0);
    const int before = directory.registrations;
    asked.get_future().wait();
    EXPECT_EQ(recorder.UnregisterServices(true), 0);
    mayAnswer.set_value();
    recorder.Disconnect();
    EXPECT_EQ(directory.registrations, before);
}

TEST_F(ASatellite, HearsOfServicesInTheOrderInWhichTheNewsCameOverSeveralConnections) {
    struct Listening : KelSatellite {
        ~Listening() override { Disconnect(); }
        void OnServiceAvailabilityChanged(const char*, const char*, int status) override {
            mayGoOn.wait();
            heard += std::to_string(status);
            throw ++count;
        }
        std::shared_future<void> mayGoOn;
        std::string heard;
        std::atomic<int> count{0};
    } listener;
    std::promise<void> mayGoOn;
    listener.mayGoOn = mayGoOn.get_future();
    std::atomic<int> ends{0};
    Serve(listener, "Listener", "End", [&](const char*, const tagVARIANT&, tagVARIANT*) { return ++ends; });
    KelSatellite other;
    ASSERT_EQ(other.ConnectUser("127.0.0.1", "Other"), 0);
    int status = 0;
    for (KelSatellite* const teller : std::vector<KelSatellite*>{&directory, &other}) {
        for (int last = status + 3; status < last; ++status) {
            const ScopedVariant in = VUtil::MakeList("Play", "Recorder", status);
            teller->Request("Listener", "OnServiceAvailabilityChanged", in, nullptr, KELFLAG_ONE_WAY, nullptr);
        }
        const int before = ends;
        teller->Request("Listener", "End", ScopedVariant(), nullptr, KELFLAG_ONE_WAY, nullptr);
        EXPECT_TRUE(Eventually([&] { return ends > before; })) << "the author holds up no connection";
    }
    mayGoOn.set_value();
    EXPECT_TRUE(Eventually([&] { return listener.count == 6; }));
    EXPECT_EQ(listener.heard, "012345");
}

TEST_F(ASatellite, DropsTheOldestOneWayCallsOfAPeerThatDoesNotRead) {
    const Stranger deaf(nullptr);
    directory.known["Deaf"] = {77, deaf.port};

    constexpr int calls = 4000;
    const std::string payload(16 * 1024, 'x');  // 64 MiB in all: far more than the system buffers
    for (int i = 0; i < calls; ++i) {
        const ScopedVariant in = VUtil::MakeList(i, payload);
        ASSERT_EQ(directory.Request("Deaf", "Note", in, nullptr, KELFLAG_ONE_WAY, nullptr), 0);
    }

    const int peer = ::accept(deaf.listener, nullptr, nullptr);
    std::vector<int> numbers;
    std::string input;
    kel::wire::Framer framer;
    kel::wire::Message message;
    while (numbers.empty() || numbers.back() != calls - 1) {
        char part[64 * 1024];
        const ssize_t got = ::recv(peer, part, sizeof part, 0);
        ASSERT_GT(got, 0);
        input.append(part, static_cast<size_t>(got));
        while (framer.Scan(input.data(), input.size()) == kel::wire::Framer::Status::complete) {
            ASSERT_TRUE(kel::wire::Decode(input.data(), framer.length(), message));
            numbers.push_back(VUtil::GetIntElement(message.value, 0));
            input.erase(0, framer.length());
            framer.Reset();
        }
    }
    ::close(peer);
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end())) << "what arrives is in order";
    EXPECT_LT(numbers.size(), static_cast<size_t>(calls)) << "some were dropped";
    for (int i = 0; i < 1024; ++i)
        EXPECT_EQ(numbers[numbers.size() - 1024 + i], calls - 1024 + i) << "the newest are kept";
}

#include "rpc/transport/Outbound.h"

#include "rpc/transport/Endpoint.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

namespace kel::transport {
namespace {

TEST(ACallThatNoThreadWaitsFor, IsForgottenByItsConnectionWhenItsTimeIsUp) {
    const auto neverAnswer = [](Connection&, wire::Message&) {};
    Endpoint callee(neverAnswer), caller(neverAnswer);
    callee.Start();
    ASSERT_FALSE(callee.Listen({"127.0.0.1", 0}));
    callee.Accept();
    caller.Start();
    std::promise<Outcome::End> end;
    caller.outbound().CallAsync({"127.0.0.1", callee.port()}, "kel.Ping", "", ScopedVariant(),
                                std::chrono::milliseconds(20),
                                [&](const Outcome& outcome) { end.set_value(outcome.end); });
    EXPECT_EQ(end.get_future().get(), Outcome::End::noAnswer);

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    bool wasIdle = false;  // a connection with calls on it is not
    while (!(wasIdle = caller.outbound().CloseIdle()) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_TRUE(wasIdle);
    caller.Close();
    callee.Close();
}

}  // namespace
}  // namespace kel::transport

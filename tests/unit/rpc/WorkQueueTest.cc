#include "rpc/transport/WorkQueue.h"

#include <gtest/gtest.h>

namespace kel::transport {
namespace {

struct Nothing : Work {
    void Run(unsigned) override {}
};

TEST(WhatIsPutBehindOthers, HasItsTurnWhenTheyHaveHadTheirs) {
    WorkQueue queue;
    const auto late = std::make_shared<Nothing>();
    EXPECT_FALSE(queue.AddBehindOthers(late, Work::firstOwn)) << "behind nobody";
    const std::vector<WorkPtr> others{std::make_shared<Nothing>(), std::make_shared<Nothing>()};
    for (const WorkPtr& other : others) queue.Add(other, Work::firstOwn);
    EXPECT_EQ(queue.Take().work, others[0]);
    EXPECT_TRUE(queue.AddBehindOthers(late, Work::firstOwn));
    const WorkPtr second = queue.Take().work, third = queue.Take().work;
    EXPECT_TRUE((second == others[1] && third == late) || (second == late && third == others[1]))
        << "before the others only if those take long";
    EXPECT_FALSE(queue.AddBehindOthers(late, Work::firstOwn));
}

}  // namespace
}  // namespace kel::transport

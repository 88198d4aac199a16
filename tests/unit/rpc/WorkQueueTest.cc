#include "rpc/transport/WorkQueue.h"

#include <gtest/gtest.h>

namespace kel::transport {
namespace {

struct Nothing : Work {
    void Run(unsigned) override {}
};

TEST(WhatIsPutBehindOthers, HasItsTurnWhenTheyHaveHadTheirs) {
    WorkQueue queue;
    const auto first = std::make_shared<Nothing>();
    EXPECT_FALSE(queue.AddBehindOthers(first, Work::firstOwn)) << "behind nobody";
    std::vector<WorkPtr> others;
    for (int i = 0; i < 40; ++i) {
        others.push_back(std::make_shared<Nothing>());
        queue.Add(others.back(), Work::firstOwn);
    }
    EXPECT_EQ(queue.Take().work, others[0]);
    EXPECT_TRUE(queue.IsBusy());
    EXPECT_TRUE(queue.AddBehindOthers(first, Work::firstOwn << 1));
    bool wasTaken = false;
    for (int i = 1; i < 40; ++i) {
        const WorkQueue::Due due = queue.Take();
        wasTaken |= due.work == first;  // before the others' end only if that takes long
        if (due.work == first) --i;
    }
    EXPECT_FALSE(queue.IsBusy());
    EXPECT_TRUE(wasTaken || queue.Take().work == first);
    EXPECT_FALSE(queue.AddBehindOthers(first, Work::firstOwn));
}

TEST(WhatIsPutBehindOthers, GoesWithTheQueue) {
    const auto late = std::make_shared<Nothing>();
    WorkQueue queue;
    for (int i = 0; i < 3; ++i) queue.Add(std::make_shared<Nothing>(), Work::firstOwn);
    (void)queue.Take();
    EXPECT_TRUE(queue.AddBehindOthers(late, Work::firstOwn));
    queue.Stop();
    EXPECT_EQ(late.use_count(), 1);
    EXPECT_FALSE(queue.Take().work);
}

}  // namespace
}  // namespace kel::transport

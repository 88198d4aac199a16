#include "foundation/LogFolding.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using std::chrono::seconds;

class AFolding : public testing::Test {
protected:
    // Lines of one kind; how many of them are written.
    int log(int lines, const std::string& kind = "failed") {
        int written = 0;
        for (int i = 0; i < lines; ++i) {
            const LogVerdict verdict = folding_.Judge(LOGLEVEL_ERROR, kind, now_);
            if (verdict == LogVerdict::keep) folding_.Keep(LOGLEVEL_ERROR, kind, kind);
            written += verdict == LogVerdict::write;
        }
        return written;
    }

    std::string said() {
        std::string all;
        for (const auto& line : folding_.TakeEnded(now_, now_)) all += line.text + "|";
        return all;
    }

    LogFolding folding_;
    LogFolding::Time now_{seconds(1000)};
};

TEST_F(AFolding, CountsTheRestOfAWindowAndStretchesItWhileItGoesOn) {
    EXPECT_EQ(log(1000), 20);
    EXPECT_EQ(folding_.NextEnd(), now_ + seconds(10));
    now_ += seconds(9);
    EXPECT_EQ(said(), "");
    now_ += seconds(1);
    EXPECT_EQ(said(), "failed ... and 979 more in 10 s|");
    EXPECT_EQ(folding_.NextEnd(), std::nullopt);
    EXPECT_EQ(log(2), 1);
    EXPECT_EQ(folding_.NextEnd(), now_ + seconds(20));
    now_ += seconds(20);
    EXPECT_EQ(said(), "failed|");
    for (int i = 0; i < 10; ++i) {
        log(3);
        now_ += seconds(320);
        EXPECT_EQ(said(), "failed ... and 1 more in 320 s|");
    }
    now_ += seconds(320);
    EXPECT_EQ(log(21), 20) << "after a window without a line";
    EXPECT_EQ(folding_.NextEnd(), now_ + seconds(10));
}

TEST_F(AFolding, TakesKindsBeyondItsRoomForOneUntilOthersHaveEnded) {
    for (size_t i = 0; i < LogFolding::mostKinds; ++i) EXPECT_EQ(log(21, std::to_string(i)), 20);
    EXPECT_EQ(log(10, "one too many"), 10);
    EXPECT_EQ(log(20, "two too many"), 10);
    now_ += seconds(10);
    said();
    now_ += seconds(20);
    EXPECT_EQ(log(20, "one too many"), 20);
    EXPECT_EQ(log(20, "two too many"), 20);
}

}  // namespace

#include "rpc/finder/FoundDirectories.h"

#include <gtest/gtest.h>

namespace {

class FoundDirectories : public testing::Test {
protected:
    static KelFoundDirectory At(const char* address) {
        KelFoundDirectory one;
        one.serverId = "7f3a";
        one.addresses = {address};
        one.port = 5001;
        one.heardFrom = address;
        return one;
    }
    void Hear(const char* address, uint32_t now) {
        KelFoundDirectory heard = At(address);
        found_.Take(heard, now);
    }

    kel::FoundDirectories found_;
};

TEST_F(FoundDirectories, LoseAnEntryWhoseDirectorySaidFarewellUnderAnotherAddress) {
    Hear("10.0.0.1", 1000);
    Hear("10.0.0.2", 2000);
    EXPECT_TRUE(found_.TakeFarewell(At("10.0.0.2"), 3000));
    EXPECT_EQ(found_.All().size(), 1U);
    EXPECT_FALSE(found_.Forget(1000 + found_.doubtMs));
    EXPECT_TRUE(found_.Forget(1001 + found_.doubtMs));
    EXPECT_TRUE(found_.All().empty());

    Hear("10.0.0.1", 0);
    EXPECT_TRUE(found_.TakeFarewell(At("10.0.0.2"), 100000)) << "its new address was never announced";
}

TEST_F(FoundDirectories, KeepOneThatAnnouncesItselfWhateverAnotherOfItsIdSays) {
    Hear("10.0.0.1", 1000);
    Hear("10.0.0.2", 2000);
    EXPECT_TRUE(found_.TakeFarewell(At("10.0.0.2"), 3000));
    Hear("10.0.0.1", 21000);
    EXPECT_FALSE(found_.Forget(100000));
    EXPECT_FALSE(found_.TakeFarewell(At("10.0.0.3"), 22000));
    EXPECT_EQ(found_.All().size(), 1U);
}

}  // namespace

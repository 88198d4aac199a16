#include "foundation/Random.h"

#include <gtest/gtest.h>

#include <random>

namespace {

TEST(ARandomGenerator, GivesTheReferenceSequenceOfItsSeed) {
    EXPECT_EQ(CRandom().genrand_int32(), 3499211612U) << "nobody seeded it";
    EXPECT_EQ(CRandom(1).genrand_int32(), 1791095845U);
    EXPECT_EQ(CRandom(0x100000001UL).genrand_int32(), 1791095845U) << "the low 32 bits count";
}

TEST(ARandomGenerator, DerivesItsOtherNumbersFromTheDraws) {
    const std::uint32_t draw = 3499211612U;
    EXPECT_EQ(CRandom(5489).genrand_int31(), static_cast<std::int32_t>(draw / 2));
    EXPECT_DOUBLE_EQ(CRandom(5489).genrand_real1(), draw / 4294967295.0);
    EXPECT_DOUBLE_EQ(CRandom(5489).genrand_real2(), draw / 4294967296.0);
    EXPECT_DOUBLE_EQ(CRandom(5489).genrand_real3(), (draw + 0.5) / 4294967296.0);
    std::mt19937 reference;
    const std::uint32_t high = reference() >> 5;
    const std::uint32_t low = reference() >> 6;
    EXPECT_DOUBLE_EQ(CRandom(5489).genrand_res53(), (high * 67108864.0 + low) / 9007199254740992.0);
}

TEST(ARandomText, IsDrawnFromTheAlphabetInItsOrder) {
    const std::string letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    const std::string alphabets[] = {"0123456789" + letters, letters, "0123456789"};
    for (int type = 0; type < 3; ++type) {
        std::mt19937 reference(42);
        std::string expected;
        for (int i = 0; i < 16; ++i) expected += alphabets[type][reference() % alphabets[type].size()];
        EXPECT_EQ(CRandom(42).genrand_string(16, static_cast<CRandom::StringType>(type)), expected) << type;
    }
    CRandom random(5489);
    EXPECT_EQ(random.genrand_string(5, static_cast<CRandom::StringType>(7)), "");
    EXPECT_EQ(random.genrand_string(-1, CRandom::digits), "");
    EXPECT_EQ(random.genrand_int32(), 3499211612U) << "nothing was drawn for them";
}

}  // namespace

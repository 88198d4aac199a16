#include "foundation/StdString.h"

#include "foundation/StdPath.h"

#include <gtest/gtest.h>

namespace {

TEST(AString, FormatsTextsOfEveryLengthAroundItsFirstBuffer) {
    for (const size_t length : {0U, 1U, 126U, 127U, 128U, 129U, 100000U}) {
        const std::string text(length, 'x');
        CStdStr formatted("what was there before");
        formatted.Format("%s", text.c_str());
        EXPECT_EQ(formatted, text) << length;
        formatted.AppendFormat("<%d|%s>", -7, text.c_str());
        EXPECT_EQ(formatted, text + "<-7|" + text + ">") << length;
        formatted.AppendFormat("%s", formatted.c_str());
        EXPECT_EQ(formatted, text + "<-7|" + text + ">" + text + "<-7|" + text + ">") << "of itself";
    }
}

TEST(AString, MadeOfANullPointerIsEmptyAndTakesAPartOfItself) {
    const char* const none = nullptr;
    CStdStr text(none);
    EXPECT_TRUE(text.empty());
    text = "Recorder";
    text = text.c_str() + 2;
    EXPECT_EQ(text, "corder");
    text = none;
    EXPECT_TRUE(text.empty());
}

TEST(AString, TrimsWhiteSpaceAtItsEndsOnly) {
    EXPECT_EQ(CStdStr(" \t\n\v\f\r a b\t\r\n").Trim(), "a b");
    EXPECT_EQ(CStdStr(" \t ").Trim(), "");
    EXPECT_EQ(CStdStr("\xc3\xa9 ").Trim(), "\xc3\xa9");
}

TEST(AString, ReplacesWithoutSearchingWhatItInserted) {
    const auto replaced = [](const char* text, const char* from, const char* to, int expectedCount) {
        CStdStr result(text);
        EXPECT_EQ(result.Replace(from, to), expectedCount) << text;
        return result;
    };
    EXPECT_EQ(replaced("aaaa", "aa", "a", 2), "aa");
    EXPECT_EQ(replaced("aaa", "a", "aa", 3), "aaaaaa");
    EXPECT_EQ(replaced("abc", "b", nullptr, 1), "ac");
    EXPECT_EQ(replaced("abc", "", "x", 0), "abc");
    EXPECT_EQ(replaced("abc", nullptr, "x", 0), "abc");
}

TEST(AString, HandsOutAPartAndEndsTheProcessBeyondItsEnd) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const CStdStr text("Recorder");
    EXPECT_EQ(text.Mid(2, 4), "cord");
    EXPECT_EQ(text.Mid(8, 0), "");
    const char* message = "\\./StdString\\.h:4039: failed assertion `\\(nFirst \\+ nCount <= nSize\\)'";
    EXPECT_DEATH(text.Mid(5, 4), message);
    EXPECT_DEATH(text.Mid(1, CStdStr::npos), message);
}

TEST(ACaseInsensitiveComparison, OrdersByTheFirstLettersThatDiffer) {
    EXPECT_EQ(ssicmp("ABC", "abc"), 0);
    EXPECT_EQ(ssicmp("a", "B"), -1);
    EXPECT_GT(ssicmp("abc", "AB"), 0);
    EXPECT_LT(ssicmp("", "a"), 0);
    EXPECT_LT(ssicmp("_", "A"), 0) << "letters are lowered, so they come after the underscore";
    EXPECT_LT(ssicmp("\xe9", "a"), 0) << "bytes are signed";
    EXPECT_NE(ssicmp("\xc9", "\xe9"), 0) << "only ASCII has case";
    EXPECT_EQ(ssicmp("\x7f", "\x80"), 127 + 128);
}

TEST(APath, PutsASlashBetweenComponentsThatBringNone) {
    const char* const rows[][3] = {{"a", "b", "a/b"},    {"a/", "b", "a/b"}, {"a", "/b", "a/b"},
                                   {"a/", "/b", "a//b"}, {"", "b", "b"},     {"a", "", "a"}};
    for (const auto& [path, component, joined] : rows) EXPECT_EQ(CStdPath(path).AppendPath(component), joined);
    CStdPath path("a");
    EXPECT_EQ(path.AppendPath(path).AppendPath(path), "a/a/a/a");
}

}  // namespace

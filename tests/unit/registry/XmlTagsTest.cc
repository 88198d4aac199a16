#include "registry/XmlTags.h"

#include <gtest/gtest.h>

namespace {

using Values = std::vector<CStdStr>;

TEST(TheTagReader, FindsEveryValueInOrderAndAsItIs) {
    Values values{"from before"};
    EXPECT_EQ(getXMLTagValue("<a> 1 </a><b>x</b>\n<a></a><a>&lt;<b></a>", "a", values), 0);
    EXPECT_EQ(values, (Values{" 1 ", "", "&lt;<b>"}));
}

TEST(TheTagReader, HasNoErrorForATagThatIsAbsent) {
    Values values{"from before"};
    EXPECT_EQ(getXMLTagValue("<ab>1</ab></a>", "a", values), 0);
    EXPECT_TRUE(values.empty());
}

TEST(TheTagReader, KeepsTheValuesBeforeOneThatIsNotClosed) {
    Values values;
    EXPECT_EQ(getXMLTagValue("<a>1</a><a>2</b>", "a", values), 31);
    EXPECT_EQ(values, (Values{"1"}));
}

TEST(TheTagReader, EndsAValueAtTheFirstCloseMark) {
    Values values;
    EXPECT_EQ(getXMLTagValue("<a>x<a>y</a>z</a>", "a", values), 0);
    EXPECT_EQ(values, (Values{"x<a>y"}));
}

}  // namespace

#include "rpc/VUtil.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

std::string Xml(const tagVARIANT& v, int depth = 0) {
    CStdStr out;
    VUtil::VariantToXML(&v, depth, out);
    return out;
}

std::string Friendly(const tagVARIANT& v) {
    CStdStr out;
    VUtil::VariantToFriendlyString(&v, out);
    return out;
}

ScopedVariant MakeArray(VARTYPE elementType, unsigned long count) {
    ScopedVariant array;
    VUtil::CreateArray(array, elementType, count);
    return array;
}

ScopedVariant MakeDate(double days) {
    ScopedVariant value;
    value.vt = VT_DATE;
    value.date = days;
    return value;
}

// All bits of the value set.
ScopedVariant MakeOnes(int type) {
    ScopedVariant value;
    value.vt = static_cast<VARTYPE>(type);
    value.llVal = -1;
    return value;
}

// 7, "a<b & \"c\"", empty, and an array of two UI4.
ScopedVariant MakeMixedList() {
    ScopedVariant numbers = MakeArray(VT_UI4, 2);
    uint32_t most = 0xffffffff;
    VUtil::PutElement(numbers, 0, static_cast<void*>(&most));
    ScopedVariant list = MakeArray(VT_VARIANT, 4);
    VUtil::PutElement(list, 0, 7);
    VUtil::PutElement(list, 1, "a<b & \"c\"");
    VUtil::PutElement(list, 3, numbers);
    return list;
}

template <typename Action>
std::string Refusal(Action action) {
    try {
        action();
    } catch (const KelInvalidParameterException& failure) {
        return failure.GetMessage();
    }
    return "(nothing thrown)";
}

}  // namespace

TEST(TheXmlForm, OfScalarsIsALineEach) {
    EXPECT_EQ(Xml(MakeInt(7)), "<var vt=\"VT_I4\">7</var>\n");
    EXPECT_EQ(Xml(MakeInt(7), 2), "      <var vt=\"VT_I4\">7</var>\n");
    EXPECT_EQ(Xml(ScopedVariant()), "<var vt=\"VT_EMPTY\" />\n");
    EXPECT_EQ(Xml(MakeOnes(VT_NULL)), "<var vt=\"VT_NULL\" />\n");
    EXPECT_EQ(Xml(MakeOnes(VT_I1)), "<var vt=\"VT_I1\">-1</var>\n");
    EXPECT_EQ(Xml(MakeOnes(VT_UI1)), "<var vt=\"VT_UI1\">255</var>\n");
    EXPECT_EQ(Xml(MakeOnes(VT_I2)), "<var vt=\"VT_I2\">-1</var>\n");
    EXPECT_EQ(Xml(MakeOnes(VT_UI2)), "<var vt=\"VT_UI2\">65535</var>\n");
    EXPECT_EQ(Xml(MakeOnes(VT_UI4)), "<var vt=\"VT_UI4\">4294967295</var>\n");
    EXPECT_EQ(Xml(MakeOnes(VT_I8)), "<var vt=\"VT_I8\">-1</var>\n");
    EXPECT_EQ(Xml(MakeOnes(VT_UI8)), "<var vt=\"VT_UI8\">18446744073709551615</var>\n");
    EXPECT_EQ(Xml(MakeDouble(-1.5)), "<var vt=\"VT_R8\">-1.500000</var>\n");
    EXPECT_EQ(Xml(MakeDouble(1e300)).size(), sizeof "<var vt=\"VT_R8\">.000000</var>\n" - 1 + 301);
    EXPECT_EQ(Xml(MakeBool(true)), "<var vt=\"VT_BOOL\">TRUE</var>\n");
    EXPECT_EQ(Xml(MakeString("it's <&lt;>")), "<var vt=\"VT_BSTR\">it&apos;s &lt;&amp;lt;&gt;</var>\n");
    for (int type : {6, 12, 22, 0x200b, 0x2007, 0xffff & ~VT_ARRAY}) {
        ScopedVariant unknown;
        unknown.vt = static_cast<VARTYPE>(type);
        EXPECT_EQ(Xml(unknown), "<var vt=\"" + std::to_string(type) + " (unknown)\" />\n");
    }
}

TEST(TheXmlForm, OfADateIsUtcAndEmptyWhenTheYearDoesNotFit) {
    EXPECT_EQ(Xml(MakeDate(25569.5)), "<var vt=\"VT_DATE\">1970-01-01 12:00:00</var>\n");
    EXPECT_EQ(Xml(MakeDate(0)), "<var vt=\"VT_DATE\">1899-12-30 00:00:00</var>\n");
    EXPECT_EQ(Xml(MakeDate(2958465)), "<var vt=\"VT_DATE\">9999-12-31 00:00:00</var>\n");
    EXPECT_EQ(Xml(MakeDate(2958466)), "<var vt=\"VT_DATE\"></var>\n");
    EXPECT_EQ(Xml(MakeDate(1e300)), "<var vt=\"VT_DATE\"></var>\n");
}

TEST(TheXmlForm, OfArraysListsElementsOneLevelDeeper) {
    EXPECT_EQ(Xml(MakeMixedList(), 1),
              "   <var vt=\"VT_ARRAY|VT_VARIANT\" count=\"4\">\n"
              "      <var vt=\"VT_I4\">7</var>\n"
              "      <var vt=\"VT_BSTR\">a&lt;b &amp; &quot;c&quot;</var>\n"
              "      <var vt=\"VT_EMPTY\" />\n"
              "      <var vt=\"VT_ARRAY|VT_UI4\" count=\"2\">\n"
              "         <var vt=\"VT_UI4\">4294967295</var>\n"
              "         <var vt=\"VT_UI4\">0</var>\n"
              "      </var>\n"
              "   </var>\n");
    EXPECT_EQ(Xml(MakeArray(VT_BSTR, 1)),
              "<var vt=\"VT_ARRAY|VT_BSTR\" count=\"1\">\n   <var vt=\"VT_BSTR\"></var>\n</var>\n");
    EXPECT_EQ(Xml(MakeArray(VT_UI1, 1000)), "<var vt=\"VT_ARRAY|VT_UI1\" count=\"1000\" />\n");
    EXPECT_EQ(Xml(MakeArray(VT_R8, 0)), "<var vt=\"VT_ARRAY|VT_R8\" count=\"0\" />\n");
    ScopedVariant broken;
    broken.vt = VT_ARRAY | VT_UI1;
    EXPECT_EQ(Refusal([&] { Xml(broken); }), "SafeArrayGetLBound failed in VUtil::GetArrayLength");
}

TEST(TheFriendlyForm, QuotesTextsAndCountsNumbers) {
    EXPECT_EQ(Friendly(MakeMixedList()), "[\n   7\n   \"a<b & \"c\"\"\n   (empty)\n   [2 UI4 elements]\n]");
    EXPECT_EQ(Friendly(MakeBool(false)), "false");
    EXPECT_EQ(Friendly(MakeDate(25569)), "(date)1970-01-01 00:00:00");
    EXPECT_EQ(Friendly(MakeArray(VT_BOOL, 1)), "(unknown vt 8203)");
}

TEST(APairList, BecomesAMapInWhichTheFirstKeyCounts) {
    ScopedVariant list = MakeArray(VT_VARIANT, 4);
    VUtil::PutPair(list, 1, "Name", "first");
    VUtil::PutPair(list, 2, "NAME", "second");
    VUtil::PutPair(list, 3, "none", ScopedVariant());
    EXPECT_EQ(VUtil::toStringMap(list).size(), 3u);
    EXPECT_EQ(VUtil::toStringMap(list, true).at("name"), "first");
    EXPECT_EQ(Refusal([&] { VUtil::toStringAMap(list); }), "the value in the pair is neither a string nor an int");
    VUtil::PutPair(list, 3, "Port", 5001);
    EXPECT_EQ(VUtil::toStringAMap(list).at("Port"), "5001");
    EXPECT_EQ(Refusal([&] { VUtil::toStringMap(list); }), "Element is not a string");
    EXPECT_EQ(Refusal([] { VUtil::toStringAMap(MakeInt(1)); }),
              "Variant passed to VUtil::toStringAMap is not an array");
}

TEST(TwoValues, AreEqualWhenTypeAndEveryElementAre) {
    ScopedVariant other = MakeMixedList();
    EXPECT_TRUE(VUtil::Equals(MakeMixedList(), other));
    VUtil::PutElement(other, 1, "a<b & \"C\"");
    EXPECT_FALSE(VUtil::Equals(MakeMixedList(), other));
    EXPECT_FALSE(VUtil::Equals(MakeArray(VT_I4, 1), MakeArray(VT_I4, 2)));
    EXPECT_FALSE(VUtil::Equals(MakeInt(1), MakeBool(true)));
    EXPECT_TRUE(VUtil::Equals(MakeBool(true), MakeOnes(VT_BOOL)));
    EXPECT_EQ(Refusal([] { VUtil::Equals(MakeOnes(9), MakeOnes(9)); }),
              "VUtil::Equals: cannot compare values for type 9");
    ScopedVariant strange;
    strange.vt = VT_ARRAY | 9;
    EXPECT_EQ(Refusal([&] { VUtil::Equals(strange, strange); }),
              "VUtil::Equals: cannot compare values for array type 8201");
}

TEST(AFieldOfACommaSeparatedLine, IsQuotedWhenItMustBe) {
    ScopedVariant list = MakeMixedList();
    EXPECT_EQ(VUtil::GetCSVElement(list, 0), "7");
    EXPECT_EQ(VUtil::GetCSVElement(list, 1), "\"a<b & \"\"c\"\"\"");
    EXPECT_EQ(VUtil::GetCSVElement(list, 2), "");
    EXPECT_EQ(Refusal([&] { VUtil::GetCSVElement(list, 3); }), "Element is not a string");
    EXPECT_EQ(Refusal([&] { VUtil::GetCSVElement(list, 1L << 32); }),
              "SafeArrayGetElement failed in VUtil::GetElement");
}

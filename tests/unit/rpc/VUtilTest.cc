#include "rpc/values/VUtil.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

ScopedVariant MakeArray(VARTYPE elementType, unsigned long count) {
    ScopedVariant array;
    VUtil::CreateArray(array, elementType, count);
    return array;
}

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

ScopedVariant MakeDate(double days) {
    ScopedVariant value = MakeDouble(days);
    value.vt = VT_DATE;
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
    return VUtil::MakeList(7, "a<b & \"c\"", ScopedVariant(), numbers);
}

// The message of the exception that `action` throws.
std::string Refusal(const std::function<void()>& action) {
    try {
        action();
    } catch (const KelInvalidParameterException& failure) {
        EXPECT_EQ(failure.GetCode(), 1);
        return failure.GetMessage();
    }
    return "(nothing thrown)";
}

#define EXPECT_REFUSED(action) EXPECT_THROW(action, KelInvalidParameterException)
#define EXPECT_REFUSAL(action, message) EXPECT_EQ(Refusal([&] { action; }), message)

}  // namespace

TEST(ALength, IsThatOfAZeroBasedArrayOnlyAndNeverAnImpossibleOne) {
    ScopedVariant array = MakeArray(VT_I4, 3);
    VUtil::RedimArray(array, 5);
    EXPECT_EQ(VUtil::GetArrayLength(array), 5);
    EXPECT_EQ(VUtil::GetArrayLength(MakeArray(VT_I4, 0)), 0);
    EXPECT_EQ(VUtil::GetArrayLengthEmpty(ScopedVariant()), 0);
    EXPECT_REFUSED(VUtil::GetArrayLength(ScopedVariant()));
    EXPECT_REFUSED(VUtil::GetArrayLengthEmpty(MakeInt(1)));
    const SAFEARRAYBOUND fromOne{2, 1};
    ASSERT_EQ(SafeArrayRedim(array.parray, &fromOne), 0);
    EXPECT_REFUSED(VUtil::GetArrayLength(array));
    ScopedVariant nothing;
    nothing.vt = VT_ARRAY | VT_I4;
    EXPECT_REFUSED(VUtil::GetArrayLength(nothing));
    EXPECT_REFUSED(Xml(nothing));

    ScopedVariant v;
    for (unsigned long count : {0x100000001UL, ~0UL, 0xffffffffUL}) {
        EXPECT_REFUSED(VUtil::CreateArray(v, VT_VARIANT, count));
    }
    VUtil::CreateArray(v, VT_UI1, 1);
    EXPECT_REFUSED(VUtil::RedimArray(v, 0x100000001UL));
    EXPECT_EQ(VUtil::GetArrayLength(v), 1);
}

TEST(ACheck, SaysWhatItGotAndWhatItWanted) {
    EXPECT_REFUSAL(VUtil::CheckType(MakeInt(1), VT_BSTR, "RemoveKelUser"),
                   "RemoveKelUser: checkType failed, got 3, expected 8");
    VUtil::CheckArrayType(MakeArray(VT_BSTR, 3), VT_BSTR, 2, true, "Register");
    EXPECT_REFUSAL(VUtil::CheckArrayType(MakeArray(VT_BSTR, 1), VT_BSTR, 2, true, "Register"),
                   "Register: checkArrayType failed, got length 1, expect 2+");
    EXPECT_REFUSAL(VUtil::CheckArrayType(MakeArray(VT_BSTR, 3), VT_BSTR, 2),
                   "checkArrayType failed, got length 3, expect 2");
    EXPECT_REFUSAL(VUtil::CheckArrayType(MakeArray(VT_I4, 2), VT_VARIANT, 2, "Register"),
                   "Register: checkArrayType failed, got 8195, expected 8204");
    const std::string longContext(300, 'c');
    EXPECT_REFUSAL(VUtil::CheckType(MakeInt(1), VT_BSTR, longContext.c_str()), std::string(255, 'c'));
}

TEST(AnElement, ComesBackFromTypedArraysAndFromVariants) {
    const auto comesBack = [](VARTYPE type, auto value, auto get, auto expected) {
        for (VARTYPE elementType : {type, VARTYPE{VT_VARIANT}}) {
            ScopedVariant array = MakeArray(elementType, 2);
            VUtil::PutElement(array, 1, value);
            EXPECT_EQ(get(array, 1), expected) << type;
        }
    };
    comesBack(VT_I4, -7L, VUtil::GetLongElement, -7);
    comesBack(VT_I4, 0, VUtil::GetIntElement, 0);
    comesBack(VT_I2, short{-2}, VUtil::GetShortElement, -2);
    comesBack(VT_UI2, static_cast<unsigned short>(65535), VUtil::GetUnsignedShortElement, 65535);
    comesBack(VT_R8, 0.5, VUtil::GetDoubleElement, 0.5);
    comesBack(VT_R8, 0.5, VUtil::GetFloatElement, 0.5f);
    comesBack(VT_R4, 0.25f, VUtil::GetFloatElement, 0.25f);
    comesBack(VT_BSTR, CStdStr("text"), VUtil::GetStringElement, "text");
    comesBack(VT_BSTR, nullptr, VUtil::GetStringElementEmpty, "");
    for (VARTYPE elementType : {VT_DATE, VT_VARIANT}) {
        ScopedVariant array = MakeArray(elementType, 2);
        VUtil::PutDateElement(array, 1, 1246363200);
        EXPECT_EQ(VUtil::GetDateElement(array, 1), 1246363200);
    }
}

template <typename T>
concept Listable = requires(T value) {
    VUtil::MakeList(value);
};
static_assert(Listable<const char*> && Listable<std::vector<int>> && Listable<ScopedVariant&>);
static_assert(!Listable<void*> && !Listable<unsigned char*> && !Listable<const tagVARIANT*>);

TEST(AList, HoldsEveryValueAsItsOwnTypeAndGivesItBack) {
    const std::vector<unsigned char> bytes{0, 255};
    const std::vector<std::string> texts{"one", "two"};
    const std::vector<bool> flags{true, false};
    const ScopedVariant list =
        VUtil::MakeList(true, 4'000'000'000u, 5'000'000'000LL, ~0ULL, std::string_view("seen", 2), bytes, texts, flags,
                        MakeInt(1), flags[0], 70'000UL);
    const int expected[] = {
        VT_BOOL, VT_UI4,  VT_I8, VT_UI8, VT_BSTR, VT_ARRAY | VT_UI1, VT_ARRAY | VT_VARIANT, VT_ARRAY | VT_VARIANT,
        VT_I4,   VT_BOOL, VT_UI4};
    for (int i = 0; i < VUtil::GetArrayLength(list); ++i) {
        ScopedVariant element;
        VUtil::GetElement(list, i, element);
        EXPECT_EQ(element.vt, expected[i]) << i;
    }
    EXPECT_EQ(VUtil::GetUnsignedElement(list, 1), 4'000'000'000u);
    EXPECT_EQ(VUtil::GetLongLongElement(list, 2), 5'000'000'000);
    EXPECT_EQ(VUtil::GetUnsignedLongLongElement(list, 3), ~0ULL);
    EXPECT_EQ(VUtil::GetStringElement(list, 4), "se");
    EXPECT_EQ(VUtil::GetBytesElement(list, 5), bytes);
    EXPECT_EQ(VUtil::GetVectorElement<unsigned char>(list, 5), bytes);
    EXPECT_EQ(VUtil::GetVectorElement<std::string>(list, 6), texts);
    EXPECT_EQ(VUtil::GetVectorElement<bool>(list, 7), flags);
    EXPECT_REFUSED(VUtil::GetVectorElement<int>(list, 6));
    EXPECT_TRUE(VUtil::GetVector<long long>(ScopedVariant()).empty());
}

TEST(AValue, ThatWouldLoseSomethingOrIsNoneIsRefused) {
    EXPECT_REFUSED(VUtil::MakeList(5'000'000'000L));
    EXPECT_REFUSED(VUtil::MakeList(5'000'000'000UL));
    EXPECT_REFUSED(VUtil::MakeList(std::string_view("a\0b", 3)));
    ScopedVariant list = MakeArray(VT_VARIANT, 1);
    unsigned char buffer[16] = {VT_BSTR, 0, 0, 0, 0, 0, 0, 0, 1};
    EXPECT_REFUSED(VUtil::PutElement(list, 0, buffer));
    for (const long long number : {5'000'000'000LL, -5'000'000'000LL, 0x80000000LL}) {
        EXPECT_REFUSED(VUtil::PutPair(list, 0, "size", number));
    }
    VUtil::PutPair(list, 0, "on", true);
    ScopedVariant value;
    EXPECT_TRUE(VUtil::FindPairNoCase(list, "on", value));
    EXPECT_EQ(value.vt, VT_BOOL);
    EXPECT_REFUSED(VUtil::PutBinaryIntoVariant(nullptr, buffer, 1));
    EXPECT_REFUSED(VUtil::GetByteArray(VUtil::MakeList(std::vector<unsigned char>{1}), 0, nullptr));
    EXPECT_LT(VariantCopy(&value, nullptr), 0);
}

TEST(ATrueElement, IsOneInAnArrayOfBooleansAndMinusOneInAVariant) {
    ScopedVariant booleans = MakeArray(VT_BOOL, 2);
    ScopedVariant variants = MakeArray(VT_VARIANT, 2);
    for (tagVARIANT* v : {static_cast<tagVARIANT*>(&booleans), static_cast<tagVARIANT*>(&variants)}) {
        VUtil::PutBoolElement(*v, 0, true);
        VUtil::PutBoolElement(*v, 1, false);
        EXPECT_TRUE(VUtil::GetBoolElement(*v, 0));
        EXPECT_FALSE(VUtil::GetBoolElementEmpty(*v, 1));
    }
    long index = 0;
    VARIANT_BOOL stored = 9;
    SafeArrayGetElement(booleans.parray, &index, &stored);
    EXPECT_EQ(stored, 1);
    ScopedVariant element;
    VUtil::GetElement(variants, 0, element);
    EXPECT_EQ(element.boolVal, -1);
    stored = 0x100;  // true, though its low byte is 0
    SafeArrayPutElement(booleans.parray, &index, &stored);
    bool truth = false;
    VUtil::GetElement(booleans, 0, truth);
    EXPECT_TRUE(truth);
}

TEST(ALongOfTheCaller, TakesFourBytesInTheVariant) {
    ScopedVariant signedOnes = MakeArray(VT_I4, 2);
    VUtil::PutElement(signedOnes, 0, -1L);
    long number = 0;
    VUtil::GetElement(signedOnes, 0, number);
    EXPECT_EQ(number, -1);
    EXPECT_EQ(VUtil::GetLongElement(signedOnes, 1), 0) << "the neighbour";
    ScopedVariant unsignedOnes = MakeArray(VT_UI4, 1);
    uint32_t value = 0xfffffffe;
    VUtil::PutElement(unsignedOnes, 0, static_cast<void*>(&value));
    unsigned long wide = ~0UL;
    VUtil::GetElement(unsignedOnes, 0, wide);
    EXPECT_EQ(wide, 0xfffffffeUL);
}

TEST(AnElement, OfTheWrongTypeOrPlaceIsRefused) {
    ScopedVariant list = VUtil::MakeList("text", 7);
    ScopedVariant numbers = MakeArray(VT_I4, 1);
    EXPECT_REFUSED(VUtil::GetLongElement(list, 0));
    EXPECT_REFUSED(VUtil::GetFloatElement(list, 1));
    EXPECT_REFUSED(VUtil::GetFloatElement(numbers, 0));
    EXPECT_REFUSED(VUtil::GetDateElement(MakeInt(1), 0));
    for (int index : {-1, 2, INT32_MAX}) {
        EXPECT_REFUSED(VUtil::GetIntElement(list, index));
        EXPECT_REFUSED(VUtil::PutElement(list, index, "x"));
        EXPECT_REFUSED(VUtil::PutElement(numbers, index, 1));
    }
    EXPECT_REFUSED(VUtil::GetDateElement(list, 2));
    EXPECT_REFUSED(VUtil::PutElement(numbers, 0, "x"));
    numbers.vt = VT_ARRAY | VT_I8;  // a type code that lies about the array
    long long wide = 0;
    EXPECT_REFUSED(VUtil::GetElement(numbers, 0, wide));
    EXPECT_REFUSED(VUtil::PutElement(numbers, 0, wide));
}

TEST(AnEmptyElement, IsAValueOnlyForThoseWhoAcceptItAndAsABooleanConvertsUpToUI4) {
    ScopedVariant list = VUtil::MakeList(ScopedVariant(), 256, 0.0, "False", "yes", static_cast<unsigned char>(2), 1LL);
    EXPECT_EQ(VUtil::GetLongElementEmpty(list, 0), 0);
    EXPECT_EQ(VUtil::GetStringElement(list, 0), "");
    EXPECT_REFUSED(VUtil::GetLongElement(list, 0));
    EXPECT_REFUSED(VUtil::GetBoolElement(list, 0));
    const bool expected[] = {false, true, false, false, true, true};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(VUtil::GetBoolElementEmpty(list, i), expected[i]) << i;
    EXPECT_REFUSED(VUtil::GetBoolElementEmpty(list, 6));
}

TEST(AVariantElement, MayReplaceItsListAndIsTakenOverOnlyWhenItFits) {
    ScopedVariant list = VUtil::MakeList(VUtil::MakeList("inner"));
    VUtil::GetElement(list, 0, list);
    EXPECT_EQ(VUtil::GetStringElement(list, 0), "inner");
    EXPECT_REFUSED(VUtil::GetElement(list, 5, list));
    EXPECT_EQ(list.vt, VT_EMPTY);
    list = MakeArray(VT_VARIANT, 1);
    ScopedVariant inner = VUtil::MakeList("inner");
    EXPECT_REFUSED(VUtil::PutElement(list, 1, std::move(inner)));
    VUtil::PutElement(list, 0, inner);
    ASSERT_EQ(VUtil::GetArrayLength(inner), 1);
    VUtil::PutElement(list, 0, std::move(inner));
    EXPECT_EQ(inner.vt, VT_EMPTY);
    VUtil::GetElement(list, 0, list);
    EXPECT_EQ(VUtil::GetStringElement(list, 0), "inner");
}

TEST(AReturnCode, IsElementZeroOrAPlainNumber) {
    ScopedVariant plain = MakeInt(0);
    ScopedVariant failed = VUtil::MakeList(0x40010, "text");
    ScopedVariant text = MakeString("x");
    ScopedVariant texts = VUtil::MakeList("x");
    EXPECT_EQ(VUtil::GetSingleRetcode(failed), 0x40010);
    VUtil::CheckSingleRetcode(plain, "Register");
    EXPECT_REFUSAL(VUtil::CheckSingleRetcode(failed, "Register"),
                   "Register: Kel error detected in VUtil::CheckSingleRetcode : hr = 262160 - 0x40010");
    EXPECT_REFUSAL(VUtil::CheckSingleRetcode(text),
                   "Kel error detected in VUtil::CheckSingleRetcode : hr = -1 - 0xffffffff");
    EXPECT_REFUSAL(VUtil::GetSingleRetcode(texts),
                   "safeArrayGetElement failed in VUtil::GetSingleRetcode : 'Element is not a long'");
    CStdStr s;
    VUtil::GetSingleOutParamString(texts, s);
    EXPECT_EQ(s, "x");
    EXPECT_REFUSED(VUtil::GetSingleOutParamString(failed, s));
}

TEST(APairList, SkipsEmptySlotsAndStopsAtTheFirstMatchAndRefusesWhatIsNone) {
    ScopedVariant list = MakeArray(VT_VARIANT, 5);
    VUtil::PutPair(list, 1, "Name", "first");
    VUtil::PutPair(list, 2, "NAME", "second");
    VUtil::PutPair(list, 3, "Port", 5001);
    VUtil::PutPair(list, 4, "List", list);
    CStdStr key, value = "untouched";
    int number = 0;
    EXPECT_FALSE(VUtil::FindPair(list, "name", value));
    EXPECT_FALSE(VUtil::FindPairNoCase(list, "Nam", value));
    EXPECT_EQ(value, "untouched");
    EXPECT_TRUE(VUtil::FindPair(list, "NAME", value));
    EXPECT_EQ(value, "second");
    EXPECT_TRUE(VUtil::FindPairNoCase(list, "NAME", value));
    EXPECT_EQ(value, "first");
    EXPECT_TRUE(VUtil::FindPairNoCase(list, "port", number));
    EXPECT_EQ(number, 5001);
    EXPECT_REFUSED(VUtil::FindPair(list, "Port", value));
    VUtil::GetPair(list, 2, key, value);
    EXPECT_EQ(key + "=" + value, "NAME=second");
    EXPECT_TRUE(VUtil::FindPairNoCase(list, "LIST", list));
    EXPECT_EQ(VUtil::GetArrayLength(list), 5);
    const ScopedVariant none = VUtil::MakeList(7);
    ScopedVariant plain = MakeInt(7);
    EXPECT_REFUSED(VUtil::FindPair(none, "x", value));
    EXPECT_REFUSED(VUtil::FindPairNoCase(plain, "x", value));
    EXPECT_REFUSED(VUtil::GetPair(plain, 0, key, value));
    EXPECT_REFUSED(VUtil::GetPair(list, 5, key, value));
    EXPECT_REFUSED(VUtil::PutPair(list, 5, "x", "y"));
    EXPECT_REFUSED(VUtil::PutPair(plain, 0, "x", 1));
}

TEST(Bytes, TravelWholeOrInPart) {
    unsigned char bytes[] = {1, 2, 0, 4};
    ScopedVariant binary = MakeString("replaced");
    VUtil::PutBinaryIntoVariant(&binary, bytes, sizeof bytes);
    unsigned char part[2] = {};
    VUtil::GetBinaryElement(binary, part, 1, 2);
    EXPECT_EQ(part[0] * 256 + part[1], 512);
    EXPECT_REFUSED(VUtil::GetBinaryElement(binary, part, 3, 2));
    EXPECT_REFUSED(VUtil::GetBinaryElement(binary, part, 1, ~0UL));
    ScopedVariant list = VUtil::MakeList(binary, "text");
    unsigned char* copy = nullptr;
    unsigned long length = 0;
    VUtil::GetBinaryElement(list, 0, copy, length);
    ASSERT_EQ(length, 4u);
    EXPECT_EQ(copy[3], 4);
    std::free(copy);
    EXPECT_REFUSED(VUtil::PutBinaryIntoVariant(&binary, bytes, 0x100000001UL));
    EXPECT_REFUSED(VUtil::GetByteArray(list, 1, &copy));
    EXPECT_REFUSAL(VUtil::GetBinaryElement(list, 1, copy, length), "Element is not an array of unsigned char: 8");
}

TEST(ADate, CountsDaysSince1899) {
    EXPECT_EQ(VUtil::TimeToDate(0), 25569.0);
    EXPECT_EQ(VUtil::DateToTime(25569.5), 43200);
    // Division truncates towards zero, so the fraction of a time before 1970 is negative and still comes back.
    EXPECT_EQ(VUtil::TimeToDate(-43200), 25568.5);
    EXPECT_EQ(VUtil::DateToTime(25568.5), -43200);
    EXPECT_EQ(VUtil::DateToTime(VUtil::TimeToDate(4294967296)), 4294967296);
    // No value, however wild, is undefined.
    EXPECT_EQ(VUtil::DateToTime(std::nan("")), VUtil::DateToTime(0));
    EXPECT_GT(VUtil::DateToTime(1e300), 0);
    EXPECT_LT(VUtil::DateToTime(-1e300), 0);
}

TEST(TheXmlForm, OfScalarsIsALineEach) {
    EXPECT_EQ(Xml(MakeInt(7), 2), "      <var vt=\"VT_I4\">7</var>\n");
    const struct {
        ScopedVariant value;
        std::string text;
    } rows[] = {{ScopedVariant(), "EMPTY\" />"},
                {MakeOnes(VT_NULL), "NULL\" />"},
                {MakeOnes(VT_I1), "I1\">-1</var>"},
                {MakeOnes(VT_UI1), "UI1\">255</var>"},
                {MakeOnes(VT_I2), "I2\">-1</var>"},
                {MakeOnes(VT_UI2), "UI2\">65535</var>"},
                {MakeOnes(VT_UI4), "UI4\">4294967295</var>"},
                {MakeOnes(VT_I8), "I8\">-1</var>"},
                {MakeOnes(VT_UI8), "UI8\">18446744073709551615</var>"},
                {MakeDouble(-1.5), "R8\">-1.500000</var>"},
                {MakeBool(true), "BOOL\">TRUE</var>"},
                {MakeString("it's <&lt;>"), "BSTR\">it&apos;s &lt;&amp;lt;&gt;</var>"},
                {MakeDate(25569.5), "DATE\">1970-01-01 12:00:00</var>"},
                {MakeDate(0), "DATE\">1899-12-30 00:00:00</var>"},
                {MakeDate(2958465), "DATE\">9999-12-31 00:00:00</var>"},
                {MakeDate(2958466), "DATE\"></var>"},  // a year that does not fit
                {MakeDate(1e300), "DATE\"></var>"}};
    for (const auto& [value, text] : rows) EXPECT_EQ(Xml(value), "<var vt=\"VT_" + text + "\n");
    EXPECT_EQ(Xml(MakeDouble(1e300)).size(), sizeof "<var vt=\"VT_R8\">.000000</var>\n" - 1 + 301);
    for (int type : {6, 12, 22, 0x200b, 0x2007, 0xffff & ~VT_ARRAY}) {
        ScopedVariant unknown;
        unknown.vt = static_cast<VARTYPE>(type);
        EXPECT_EQ(Xml(unknown), "<var vt=\"" + std::to_string(type) + " (unknown)\" />\n");
    }
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
    EXPECT_EQ(Xml(MakeArray(VT_R8, 0)), "<var vt=\"VT_ARRAY|VT_R8\" count=\"0\" />\n");
    EXPECT_EQ(Xml(MakeArray(VT_UI1, 1000)), "<var vt=\"VT_ARRAY|VT_UI1\" count=\"1000\" />\n");
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
    EXPECT_REFUSED(VUtil::toStringAMap(list));
    VUtil::PutPair(list, 3, "Port", 5001);
    EXPECT_EQ(VUtil::toStringAMap(list).at("Port"), "5001");
    EXPECT_REFUSED(VUtil::toStringMap(list));
    EXPECT_REFUSED(VUtil::toStringAMap(MakeInt(1)));
}

TEST(TwoValues, AreEqualWhenTypeAndEveryElementAre) {
    ScopedVariant other = MakeMixedList();
    EXPECT_TRUE(VUtil::Equals(MakeMixedList(), other));
    VUtil::PutElement(other, 1, "a<b & \"C\"");
    EXPECT_FALSE(VUtil::Equals(MakeMixedList(), other));
    EXPECT_FALSE(VUtil::Equals(MakeArray(VT_I4, 1), MakeArray(VT_I4, 2)));
    EXPECT_FALSE(VUtil::Equals(MakeInt(1), MakeBool(true)));
    EXPECT_TRUE(VUtil::Equals(MakeBool(true), MakeOnes(VT_BOOL)));
    EXPECT_REFUSAL(VUtil::Equals(MakeOnes(9), MakeOnes(9)), "VUtil::Equals: cannot compare values for type 9");
    ScopedVariant strange;
    strange.vt = VT_ARRAY | 9;
    EXPECT_REFUSAL(VUtil::Equals(strange, strange), "VUtil::Equals: cannot compare values for array type 8201");
}

TEST(AFieldOfACommaSeparatedLine, IsQuotedWhenItMustBe) {
    ScopedVariant list = MakeMixedList();
    EXPECT_EQ(VUtil::GetCSVElement(list, 0), "7");
    EXPECT_EQ(VUtil::GetCSVElement(list, 1), "\"a<b & \"\"c\"\"\"");
    EXPECT_EQ(VUtil::GetCSVElement(list, 2), "");
    EXPECT_REFUSED(VUtil::GetCSVElement(list, 3));
    EXPECT_REFUSED(VUtil::GetCSVElement(list, 1L << 32));
}

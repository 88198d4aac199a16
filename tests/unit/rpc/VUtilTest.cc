#include "rpc/VUtil.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <string>
#include <utility>

namespace {

ScopedVariant MakeArray(VARTYPE elementType, unsigned long count) {
    ScopedVariant array;
    VUtil::CreateArray(array, elementType, count);
    return array;
}

template <typename... Values>
ScopedVariant MakeList(const Values&... values) {
    ScopedVariant list = MakeArray(VT_VARIANT, sizeof...(values));
    int i = 0;
    (VUtil::PutElement(list, i++, values), ...);
    return list;
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

const std::string unreadable = "SafeArrayGetElement failed in VUtil::GetElement";

}  // namespace

TEST(ALength, IsThatOfAZeroBasedArrayOnly) {
    ScopedVariant array = MakeArray(VT_I4, 3);
    VUtil::RedimArray(array, 5);
    EXPECT_EQ(VUtil::GetArrayLength(array), 5);
    EXPECT_EQ(VUtil::GetArrayLength(MakeArray(VT_I4, 0)), 0);
    EXPECT_EQ(VUtil::GetArrayLengthEmpty(ScopedVariant()), 0);
    EXPECT_EQ(Refusal([] { VUtil::GetArrayLength(ScopedVariant()); }),
              "Variant passed to VUtil::GetArrayLength is not an array");
    EXPECT_EQ(Refusal([] { VUtil::GetArrayLengthEmpty(MakeInt(1)); }),
              "Variant passed to VUtil::GetArrayLengthEmpty is not an array");
    const SAFEARRAYBOUND fromOne{2, 1};
    ASSERT_EQ(SafeArrayRedim(array.parray, &fromOne), 0);
    EXPECT_EQ(Refusal([&] { VUtil::GetArrayLength(array); }), "Array is not zero indexed! (VUtil::GetArrayLength)");
    ScopedVariant nothing;
    nothing.vt = VT_ARRAY | VT_I4;
    EXPECT_EQ(Refusal([&] { VUtil::GetArrayLength(nothing); }), "SafeArrayGetLBound failed in VUtil::GetArrayLength");
}

TEST(AnArray, OfAnImpossibleSizeIsRefused) {
    ScopedVariant v;
    for (unsigned long count : {0x100000001UL, ~0UL, 0xffffffffUL}) {
        EXPECT_EQ(Refusal([&] { VUtil::CreateArray(v, VT_VARIANT, count); }), "Could not create safe array");
    }
    VUtil::CreateArray(v, VT_UI1, 1);
    EXPECT_EQ(Refusal([&] { VUtil::RedimArray(v, 0x100000001UL); }), "Could not redimension safe array");
    EXPECT_EQ(VUtil::GetArrayLength(v), 1);
    ScopedVariant number = MakeInt(1);
    EXPECT_EQ(Refusal([&] { VUtil::RedimArray(number, 1); }), "Could not redimension safe array");
}

TEST(ACheck, SaysWhatItGotAndWhatItWanted) {
    EXPECT_EQ(Refusal([] { VUtil::CheckType(MakeInt(1), VT_BSTR); }), "checkType failed, got 3, expected 8");
    EXPECT_EQ(Refusal([] { VUtil::CheckType(MakeInt(1), VT_BSTR, "RemoveKelUser"); }),
              "RemoveKelUser: checkType failed, got 3, expected 8");
    VUtil::CheckArrayType(MakeArray(VT_BSTR, 3), VT_BSTR, 2, true, "Register");
    EXPECT_EQ(Refusal([] { VUtil::CheckArrayType(MakeArray(VT_BSTR, 1), VT_BSTR, 2, true, "Register"); }),
              "Register: checkArrayType failed, got length 1, expect 2+");
    EXPECT_EQ(Refusal([] { VUtil::CheckArrayType(MakeArray(VT_BSTR, 3), VT_BSTR, 2); }),
              "checkArrayType failed, got length 3, expect 2");
    EXPECT_EQ(Refusal([] { VUtil::CheckArrayType(MakeArray(VT_I4, 2), VT_VARIANT, 2, "Register"); }),
              "Register: checkArrayType failed, got 8195, expected 8204");
    const std::string longContext(300, 'c');
    EXPECT_EQ(Refusal([&] { VUtil::CheckType(MakeInt(1), VT_BSTR, longContext.c_str()); }), std::string(255, 'c'));
}

TEST(AnElement, ComesBackFromTypedArraysAndFromVariants) {
    const auto inBoth = [](VARTYPE type, const std::function<void(tagVARIANT&)>& check) {
        for (VARTYPE elementType : {type, VARTYPE{VT_VARIANT}}) {
            ScopedVariant array = MakeArray(elementType, 2);
            check(array);
        }
    };
    inBoth(VT_I4, [](tagVARIANT& v) {
        VUtil::PutElement(v, 1, 0);
        VUtil::PutElement(v, 0, -7L);
        EXPECT_EQ(VUtil::GetLongElement(v, 0), -7);
        EXPECT_EQ(VUtil::GetIntElement(v, 1), 0);
    });
    inBoth(VT_I2, [](tagVARIANT& v) {
        VUtil::PutElement(v, 1, short{-2});
        EXPECT_EQ(VUtil::GetShortElement(v, 1), -2);
    });
    inBoth(VT_UI2, [](tagVARIANT& v) {
        VUtil::PutElement(v, 1, static_cast<unsigned short>(65535));
        EXPECT_EQ(VUtil::GetUnsignedShortElement(v, 1), 65535);
    });
    inBoth(VT_R8, [](tagVARIANT& v) {
        VUtil::PutElement(v, 1, 0.5);
        EXPECT_EQ(VUtil::GetDoubleElement(v, 1), 0.5);
        EXPECT_EQ(VUtil::GetFloatElement(v, 1), 0.5f);
    });
    inBoth(VT_R4, [](tagVARIANT& v) {
        VUtil::PutElement(v, 1, 0.25f);
        EXPECT_EQ(VUtil::GetFloatElement(v, 1), 0.25f);
    });
    inBoth(VT_DATE, [](tagVARIANT& v) {
        VUtil::PutDateElement(v, 1, 1246363200);
        EXPECT_EQ(VUtil::GetDateElement(v, 1), 1246363200);
    });
    inBoth(VT_BSTR, [](tagVARIANT& v) {
        VUtil::PutElement(v, 0, CStdStr("first"));
        VUtil::PutElement(v, 0, "second");
        VUtil::PutElement(v, 1, nullptr);
        EXPECT_EQ(VUtil::GetStringElement(v, 0), "second");
        EXPECT_EQ(VUtil::GetStringElementEmpty(v, 1), "");
    });
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
    EXPECT_EQ(VUtil::GetLongElement(signedOnes, 1), 0);
    ScopedVariant unsignedOnes = MakeArray(VT_UI4, 1);
    uint32_t value = 0xfffffffe;
    VUtil::PutElement(unsignedOnes, 0, static_cast<void*>(&value));
    unsigned long wide = ~0UL;
    VUtil::GetElement(unsignedOnes, 0, wide);
    EXPECT_EQ(wide, 0xfffffffeUL);
}

TEST(AnElement, OfTheWrongTypeOrPlaceIsRefused) {
    ScopedVariant list = MakeList("text", 7);
    ScopedVariant numbers = MakeArray(VT_I4, 1);
    EXPECT_EQ(Refusal([&] { VUtil::GetLongElement(list, 0); }), "Element is not a long");
    EXPECT_EQ(Refusal([&] { VUtil::GetStringElement(list, 1); }), "Element is not a string");
    EXPECT_EQ(Refusal([&] { VUtil::GetFloatElement(list, 1); }), "Element is not a float or a double");
    EXPECT_EQ(Refusal([&] { VUtil::GetFloatElement(numbers, 0); }), "Not an array of variant, float or double");
    EXPECT_EQ(Refusal([] { VUtil::GetDateElement(MakeInt(1), 0); }), "Not an array of variant or date");
    for (int index : {-1, 2, std::numeric_limits<int>::max()}) {
        EXPECT_EQ(Refusal([&] { VUtil::GetIntElement(list, index); }), unreadable);
        EXPECT_EQ(Refusal([&] { VUtil::GetStringElementEmpty(list, index); }), unreadable);
        EXPECT_EQ(Refusal([&] { VUtil::PutElement(list, index, "x"); }), "SafeArrayPutElement failed");
        EXPECT_EQ(Refusal([&] { VUtil::PutElement(numbers, index, 1); }), "SafeArrayPutElement failed");
    }
    EXPECT_EQ(Refusal([&] { VUtil::GetDateElement(list, 2); }), "SafeArrayGetElement failed in VUtil::GetDateElement");
    EXPECT_EQ(Refusal([&] { VUtil::PutElement(numbers, 0, "x"); }),
              "PutElement failed: not an array of BSTR nor VARIANT");
    ScopedVariant texts = MakeArray(VT_BSTR, 1);
    EXPECT_EQ(Refusal([&] { VUtil::PutElement(texts, 0, list); }), "SafeArrayPutElement failed");
    numbers.vt = VT_ARRAY | VT_I8;  // a type code that lies about the array
    long long wide = 0;
    EXPECT_EQ(Refusal([&] { VUtil::GetElement(numbers, 0, wide); }), unreadable);
    EXPECT_EQ(Refusal([&] { VUtil::PutElement(numbers, 0, wide); }), "SafeArrayPutElement failed");
}

TEST(AnEmptyElement, IsAValueOnlyForThoseWhoAcceptIt) {
    ScopedVariant list = MakeArray(VT_VARIANT, 1);
    EXPECT_EQ(VUtil::GetLongElementEmpty(list, 0), 0);
    EXPECT_EQ(VUtil::GetStringElement(list, 0), "");
    EXPECT_FALSE(VUtil::GetBoolElementEmpty(list, 0));
    EXPECT_EQ(Refusal([&] { VUtil::GetLongElement(list, 0); }), "Element is not a long");
    EXPECT_EQ(Refusal([&] { VUtil::GetBoolElement(list, 0); }), "Element is not a bool");
}

TEST(ABooleanThatMayBeEmpty, IsConvertedFromTheTypesUpToUI4) {
    ScopedVariant list = MakeList(256, 0.0, "False", "yes", static_cast<unsigned char>(2), 1LL);
    const bool expected[] = {true, false, false, true, true};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(VUtil::GetBoolElementEmpty(list, i), expected[i]) << i;
    EXPECT_EQ(Refusal([&] { VUtil::GetBoolElementEmpty(list, 5); }), "Element is not a bool");
}

TEST(AVariantElement, MayReplaceTheListItCameFrom) {
    ScopedVariant list = MakeList(MakeList("inner"));
    VUtil::GetElement(list, 0, list);
    EXPECT_EQ(VUtil::GetStringElement(list, 0), "inner");
    EXPECT_EQ(Refusal([&] { VUtil::GetElement(list, 5, list); }), unreadable);
    EXPECT_EQ(list.vt, VT_EMPTY);
}

TEST(AVariantElement, IsTakenOverFromAnOwnerThatGivesItUpOnlyWhenItFits) {
    ScopedVariant list = MakeArray(VT_VARIANT, 1);
    ScopedVariant inner = MakeList("inner");
    EXPECT_EQ(Refusal([&] { VUtil::PutElement(list, 1, std::move(inner)); }), "SafeArrayPutElement failed");
    VUtil::PutElement(list, 0, inner);
    ASSERT_EQ(VUtil::GetArrayLength(inner), 1);
    VUtil::PutElement(list, 0, std::move(inner));
    EXPECT_EQ(inner.vt, VT_EMPTY);
    VUtil::GetElement(list, 0, inner);
    EXPECT_EQ(VUtil::GetStringElement(inner, 0), "inner");
}

TEST(AReturnCode, IsElementZeroOrAPlainNumber) {
    ScopedVariant plain = MakeInt(0);
    ScopedVariant failed = MakeList(0x40010, "text");
    ScopedVariant text = MakeString("x");
    ScopedVariant texts = MakeList("x");
    EXPECT_EQ(VUtil::GetSingleRetcode(failed), 0x40010);
    VUtil::CheckSingleRetcode(plain, "Register");
    EXPECT_EQ(Refusal([&] { VUtil::CheckSingleRetcode(failed, "Register"); }),
              "Register: Kel error detected in VUtil::CheckSingleRetcode : hr = 262160 - 0x40010");
    EXPECT_EQ(Refusal([&] { VUtil::CheckSingleRetcode(text); }),
              "Kel error detected in VUtil::CheckSingleRetcode : hr = -1 - 0xffffffff");
    EXPECT_EQ(Refusal([&] { VUtil::GetSingleRetcode(text); }), "VUtil::GetSingleRetcode wrong type");
    EXPECT_EQ(Refusal([&] { VUtil::GetSingleRetcode(texts); }),
              "safeArrayGetElement failed in VUtil::GetSingleRetcode : 'Element is not a long'");
    CStdStr s;
    VUtil::GetSingleOutParamString(texts, s);
    EXPECT_EQ(s, "x");
    EXPECT_EQ(Refusal([&] { VUtil::GetSingleOutParamString(failed, s); }),
              "outParam is not a BSTR in VUtil::GetSingleOutParamString");
    EXPECT_EQ(Refusal([&] { VUtil::GetSingleOutParamString(text, s); }),
              "SafeArrayGetElement failed in VUtil::GetSingleOutParamString");
}

TEST(APairList, SkipsEmptySlotsAndStopsAtTheFirstMatch) {
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
    EXPECT_EQ(Refusal([&] { VUtil::FindPair(list, "Port", value); }), "Element is not a string");
    VUtil::GetPair(list, 2, key, value);
    EXPECT_EQ(key + "=" + value, "NAME=second");
    EXPECT_TRUE(VUtil::FindPairNoCase(list, "LIST", list));
    EXPECT_EQ(VUtil::GetArrayLength(list), 5);
}

TEST(APairList, RefusesWhatIsNone) {
    ScopedVariant list = MakeList(7);
    ScopedVariant number = MakeInt(7);
    CStdStr key, value;
    EXPECT_EQ(Refusal([&] { VUtil::FindPair(list, "x", value); }), "Not an array of variant or string");
    EXPECT_EQ(Refusal([&] { VUtil::FindPairNoCase(number, "x", value); }),
              "Variant passed to VUtil::FindPair is not an array");
    EXPECT_EQ(Refusal([&] { VUtil::GetPair(number, 0, key, value); }),
              "Variant passed to VUtil::GetPair is not an array");
    EXPECT_EQ(Refusal([&] { VUtil::GetPair(list, 1, key, value); }), "SafeArrayGetElement failed in VUtil::GetPair");
    EXPECT_EQ(Refusal([&] { VUtil::PutPair(list, 1, "x", "y"); }), "PutPair failed");
    EXPECT_EQ(Refusal([&] { VUtil::PutPair(number, 0, "x", 1); }),
              "PutPair: the given variant is not an array of variants");
}

TEST(Bytes, TravelWholeOrInPart) {
    unsigned char bytes[] = {1, 2, 0, 4};
    ScopedVariant binary = MakeString("replaced");
    VUtil::PutBinaryIntoVariant(&binary, bytes, sizeof bytes);
    unsigned char part[2] = {};
    VUtil::GetBinaryElement(binary, part, 1, 2);
    EXPECT_EQ(part[0], 2);
    EXPECT_EQ(part[1], 0);
    EXPECT_EQ(Refusal([&] { VUtil::GetBinaryElement(binary, part, 3, 2); }), unreadable);
    EXPECT_EQ(Refusal([&] { VUtil::GetBinaryElement(binary, part, 1, ~0UL); }), unreadable);
    ScopedVariant list = MakeList(binary, "text");
    unsigned char* copy = nullptr;
    unsigned long length = 0;
    VUtil::GetBinaryElement(list, 0, copy, length);
    ASSERT_EQ(length, 4u);
    EXPECT_EQ(copy[3], 4);
    std::free(copy);
    EXPECT_EQ(VUtil::GetByteArray(list, 0, &copy), 4u);
    std::free(copy);
    EXPECT_EQ(Refusal([&] { VUtil::GetByteArray(list, 1, &copy); }), "Element is not an unsigned char array");
    EXPECT_EQ(Refusal([&] { VUtil::GetBinaryElement(list, 1, copy, length); }),
              "Element is not an array of unsigned char: 8");
    EXPECT_EQ(Refusal([&] { VUtil::PutBinaryIntoVariant(&binary, bytes, 0x100000001UL); }),
              "PutBinaryIntoVariant: could not create safe array");
    EXPECT_EQ(binary.vt, VT_ARRAY | VT_UI1);
    EXPECT_EQ(binary.parray, nullptr);
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

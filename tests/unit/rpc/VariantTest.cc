#include "rpc/values/Variant.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

ScopedVariant MakeArray(VARTYPE elementType, uint32_t count, int32_t lowerBound = 0) {
    const SAFEARRAYBOUND bound{count, lowerBound};
    ScopedVariant value;
    value.parray = SafeArrayCreate(elementType, 1, &bound);
    value.vt = static_cast<VARTYPE>(VT_ARRAY | elementType);
    return value;
}

std::string TextAt(const tagVARIANT& strings, long index) {
    BSTR text = nullptr;
    EXPECT_EQ(SafeArrayGetElement(strings.parray, &index, &text), 0);
    const std::string copy = text ? text : "(null)";
    SysFreeString(text);
    return copy;
}

void PutText(tagVARIANT& strings, long index, const char* text) {
    BSTR string = SysAllocString(text);
    EXPECT_EQ(SafeArrayPutElement(strings.parray, &index, string), 0);
    SysFreeString(string);
}

// An array of one variant that holds an array of one variant and so on, around `core`.
ScopedVariant Nest(ScopedVariant core, int levels) {
    for (; levels > 0; --levels) {
        ScopedVariant outer = MakeArray(VT_VARIANT, 1);
        void* elements = nullptr;
        SafeArrayAccessData(outer.parray, &elements);
        *static_cast<tagVARIANT*>(elements) = core.release();
        SafeArrayUnaccessData(outer.parray);
        core = std::move(outer);
    }
    return core;
}

}  // namespace

TEST(ASafeArray, RefusesWhatItCannotHoldAndIndicesOutOfItsRange) {
    const SAFEARRAYBOUND none{0, 0};
    const SAFEARRAYBOUND most{UINT32_MAX, 0};
    for (VARTYPE type : {VT_I1, VT_I8, VT_BSTR, VT_VARIANT})
        EXPECT_EQ(SafeArrayCreate(type, 1, &most), nullptr) << type;
    for (int type : {0, 1, 6, 9, 13, 22, 0x2003, 0xffff}) {
        EXPECT_EQ(SafeArrayCreate(static_cast<VARTYPE>(type), 1, &none), nullptr) << type;
    }
    EXPECT_EQ(SafeArrayCreate(VT_I4, 2, &none), nullptr);
    EXPECT_EQ(SafeArrayCreate(VT_I4, 1, nullptr), nullptr);
    ScopedVariant array = MakeArray(VT_I4, 2, -1);
    int32_t number = 7;
    for (long index : {-2L, 1L, 0x100000000L, INT64_MAX, INT64_MIN}) {
        EXPECT_LT(SafeArrayPutElement(array.parray, &index, &number), 0) << index;
        EXPECT_LT(SafeArrayGetElement(array.parray, &index, &number), 0) << index;
    }
    long upper = 9;
    EXPECT_EQ(SafeArrayGetUBound(array.parray, 1, &upper), 0);
    EXPECT_EQ(upper, 0);
    EXPECT_LT(SafeArrayGetUBound(nullptr, 1, &upper), 0);
}

TEST(ASafeArray, KeepsElementsThroughGrowingAndEmptiesThoseItLoses) {
    ScopedVariant strings = MakeArray(VT_BSTR, 1);
    PutText(strings, 0, "first");
    for (uint32_t count = 2; count <= 100; ++count) {
        const SAFEARRAYBOUND bound{count, 0};
        ASSERT_EQ(SafeArrayRedim(strings.parray, &bound), 0);
        EXPECT_EQ(TextAt(strings, count - 1), "(null)");
        PutText(strings, count - 1, std::to_string(count).c_str());
    }
    const SAFEARRAYBOUND one{1, 0};
    const SAFEARRAYBOUND two{2, 0};
    const SAFEARRAYBOUND hostile{UINT32_MAX, 0};
    ASSERT_EQ(SafeArrayRedim(strings.parray, &one), 0);
    ASSERT_EQ(SafeArrayRedim(strings.parray, &two), 0);
    EXPECT_NE(SafeArrayRedim(strings.parray, &hostile), 0);
    EXPECT_EQ(TextAt(strings, 0), "first");
    EXPECT_EQ(TextAt(strings, 1), "(null)");
}

TEST(ASafeArray, StaysAsItIsWhileItsDataAreAccessed) {
    ScopedVariant array = MakeArray(VT_UI1, 3);
    const SAFEARRAYBOUND bound{9, 0};
    void* data = nullptr;
    ASSERT_EQ(SafeArrayAccessData(array.parray, &data), 0);
    EXPECT_NE(SafeArrayRedim(array.parray, &bound), 0);
    EXPECT_LT(SafeArrayDestroy(array.parray), 0);
    EXPECT_LT(VariantClear(&array), 0);
    EXPECT_EQ(array.vt, VT_ARRAY | VT_UI1);
    EXPECT_EQ(SafeArrayUnaccessData(array.parray), 0);
    EXPECT_LT(SafeArrayUnaccessData(array.parray), 0);
}

TEST(AVariant, SharesNothingWithItsCopyAlsoOfItselfAndOfWhatIsInside) {
    ScopedVariant strings = MakeArray(VT_BSTR, 2);
    PutText(strings, 1, "inner");
    ScopedVariant nested = Nest(std::move(strings), 200);
    ScopedVariant copy;
    ASSERT_EQ(VariantCopy(&copy, &nested), 0);
    nested.clear();
    long first = 0;
    ASSERT_EQ(SafeArrayPutElement(copy.parray, &first, &copy), 0);  // now one level deeper
    for (int level = 0; level < 201; ++level) {
        ASSERT_EQ(copy.vt, VT_ARRAY | VT_VARIANT);
        void* elements = nullptr;
        SafeArrayAccessData(copy.parray, &elements);
        SafeArrayUnaccessData(copy.parray);
        ASSERT_EQ(VariantCopy(&copy, static_cast<tagVARIANT*>(elements)), 0);
    }
    ASSERT_EQ(copy.vt, VT_ARRAY | VT_BSTR);
    EXPECT_EQ(VariantCopy(&copy, &copy), 0);
    EXPECT_EQ(TextAt(copy, 0), "(null)");
    EXPECT_EQ(TextAt(copy, 1), "inner");
}

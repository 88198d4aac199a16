// The values that remote calls carry: variants, strings and one-dimensional safe arrays, with the type codes and member
// names of OLE Automation.
//
// A variant owns what it points to: its string, its array and everything inside. Copying the struct copies the
// pointers only; VariantCopy makes a second value. ScopedVariant, below, clears itself, so new code should use that.
//
// Threads: a value has no lock. Several threads may read the same value at once; a thread that changes it must be
// alone.
//
// Results: 0 for success, negative for failure, null arguments included. No function here throws, MakeInt aside.
#pragma once

#include "foundation/Export.h"
#include "rpc/values/KelException.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

using HRESULT = int32_t;
using VARTYPE = uint16_t;
using VARIANT_BOOL = int16_t;
using DATE = double;  // days since 1899-12-30, the fraction being the time of day
using BSTR = char*;   // a zero-terminated text made by SysAllocString; null counts as the empty text

constexpr HRESULT S_OK = 0;
constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000Eu);
constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057u);
constexpr HRESULT DISP_E_BADINDEX = static_cast<HRESULT>(0x8002000Bu);
constexpr HRESULT DISP_E_ARRAYISLOCKED = static_cast<HRESULT>(0x8002000Du);

constexpr VARIANT_BOOL VARIANT_TRUE = -1;
constexpr VARIANT_BOOL VARIANT_FALSE = 0;

enum VARENUM : VARTYPE {
    VT_EMPTY = 0,
    VT_NULL = 1,
    VT_I2 = 2,
    VT_I4 = 3,
    VT_R4 = 4,
    VT_R8 = 5,
    VT_DATE = 7,
    VT_BSTR = 8,
    VT_BOOL = 11,
    VT_VARIANT = 12,  // as the element type of an array only
    VT_I1 = 16,
    VT_UI1 = 17,
    VT_UI2 = 18,
    VT_UI4 = 19,
    VT_I8 = 20,
    VT_UI8 = 21,
    VT_ARRAY = 0x2000  // a flag, combined with the element type
};

// An array of values of one type. Opaque: use the functions below.
struct SAFEARRAY;

struct SAFEARRAYBOUND {
    uint32_t cElements;
    int32_t lLbound;
};

struct tagVARIANT {
    VARTYPE vt;
    uint16_t wReserved1;
    uint16_t wReserved2;
    uint16_t wReserved3;
    union {
        int8_t cVal;                // VT_I1
        uint8_t bVal;               // VT_UI1
        int16_t iVal;               // VT_I2
        uint16_t uiVal;             // VT_UI2
        int32_t lVal;               // VT_I4
        uint32_t ulVal;             // VT_UI4
        long long llVal;            // VT_I8
        unsigned long long ullVal;  // VT_UI8
        float fltVal;               // VT_R4
        double dblVal;              // VT_R8
        DATE date;                  // VT_DATE
        VARIANT_BOOL boolVal;       // VT_BOOL
        BSTR bstrVal;               // VT_BSTR
        SAFEARRAY* parray;          // VT_ARRAY with any element type; may be null
    };
};
typedef tagVARIANT VARIANT;
static_assert(sizeof(tagVARIANT) == 16 && offsetof(tagVARIANT, lVal) == 8, "the layout of OLE Automation");

// Makes `v` VT_EMPTY without looking at what it holds: for memory that holds no value yet.
KEL_API void VariantInit(tagVARIANT* v);
// Frees what `v` owns and makes it VT_EMPTY. Fails, changing nothing, when its array is being accessed
// (SafeArrayAccessData without SafeArrayUnaccessData).
KEL_API HRESULT VariantClear(tagVARIANT* v);
// Replaces `to` by a copy of `from` that shares nothing with it. `from` may be `to` or lie inside it. After a failure
// `to` is unchanged.
KEL_API HRESULT VariantCopy(tagVARIANT* to, const tagVARIANT* from);

// A copy of `text`, to be freed with SysFreeString or by the variant or array that takes it. Null for a null `text`, or
// when there is no memory.
KEL_API BSTR SysAllocString(const char* text);
// The same of the `length` characters at `text`, which need no terminating zero; characters behind a zero are lost to
// readers.
KEL_API BSTR SysAllocStringLen(const char* text, size_t length);
KEL_API void SysFreeString(BSTR text);
// In characters; 0 for null.
KEL_API size_t SysStringLen(const char* text);

// An array of `bound->cElements` elements, all zero (empty variants, null strings). `elementType` is any of the types
// above but VT_EMPTY, VT_NULL and arrays; `dimensions` must be 1. Null for anything else, for an array of more than
// 1 GiB, and when there is no memory.
KEL_API SAFEARRAY* SafeArrayCreate(VARTYPE elementType, unsigned dimensions, const SAFEARRAYBOUND* bound);
// Frees the array and all elements. Fails while the array is being accessed. Null is fine.
KEL_API HRESULT SafeArrayDestroy(SAFEARRAY* array);
// Changes the number of elements and the lower bound: surplus elements are freed, new ones are zero, the others stay.
// Fails, changing nothing, while the array is being accessed.
KEL_API HRESULT SafeArrayRedim(SAFEARRAY* array, const SAFEARRAYBOUND* bound);

// `dimension` counts from 1. The upper bound of an empty array is one below its lower bound.
KEL_API HRESULT SafeArrayGetLBound(const SAFEARRAY* array, unsigned dimension, long* bound);
KEL_API HRESULT SafeArrayGetUBound(const SAFEARRAY* array, unsigned dimension, long* bound);
KEL_API HRESULT SafeArrayGetVartype(const SAFEARRAY* array, VARTYPE* elementType);

// Copies one element out. `out` points to memory of the element's type whose contents are overwritten, not freed: a
// BSTR array gives a string to be freed with SysFreeString, a VARIANT array a value to be cleared with VariantClear.
KEL_API HRESULT SafeArrayGetElement(const SAFEARRAY* array, long* index, void* out);
// Copies one value in and frees the one that was there; after a failure that one stays. `in` is the string itself for a
// BSTR array, else a pointer to the value.
KEL_API HRESULT SafeArrayPutElement(SAFEARRAY* array, long* index, void* in);

// Gives the elements in place, one after the other. Until SafeArrayUnaccessData, called once for each, the array can
// neither be resized nor destroyed.
KEL_API HRESULT SafeArrayAccessData(SAFEARRAY* array, void** data);
KEL_API HRESULT SafeArrayUnaccessData(SAFEARRAY* array);

// A variant that clears itself. It may stand wherever a tagVARIANT may and adds no members to it.
class ScopedVariant : public tagVARIANT {
public:
    ScopedVariant() : tagVARIANT{} {}
    ScopedVariant(ScopedVariant&& other) noexcept : tagVARIANT(other.release()) {}
    ScopedVariant& operator=(ScopedVariant&& other) noexcept {
        if (this != &other) {
            clear();
            static_cast<tagVARIANT&>(*this) = other.release();
        }
        return *this;
    }
    ScopedVariant(const ScopedVariant&) = delete;
    ScopedVariant& operator=(const ScopedVariant&) = delete;
    ~ScopedVariant() { clear(); }

    // Takes over what `value` owns; the caller must not clear it any more.
    static ScopedVariant adopt(const tagVARIANT& value) noexcept {
        ScopedVariant owner;
        static_cast<tagVARIANT&>(owner) = value;
        return owner;
    }

    // Frees the value and becomes VT_EMPTY.
    void clear() {
        if (vt != VT_EMPTY) VariantClear(this);
    }

    // Gives the value away and becomes VT_EMPTY: `*out = value.release()` hands it to an out-parameter that is empty.
    tagVARIANT release() noexcept {
        const tagVARIANT value = *this;
        static_cast<tagVARIANT&>(*this) = tagVARIANT{};
        return value;
    }
};

// One value of a type, ready to be passed as a parameter. For arrays see VUtil::MakeList.
inline ScopedVariant MakeString(const char* text) {
    ScopedVariant value;
    value.vt = VT_BSTR;
    value.bstrVal = SysAllocString(text ? text : "");
    return value;
}

// Characters behind a zero are lost to readers.
inline ScopedVariant MakeString(std::string_view text) {
    ScopedVariant value;
    value.vt = VT_BSTR;
    value.bstrVal = SysAllocStringLen(text.empty() ? "" : text.data(), text.size());
    return value;
}

inline ScopedVariant MakeInt(int32_t number) {
    ScopedVariant value;
    value.vt = VT_I4;
    value.lVal = number;
    return value;
}
// Throws KelInvalidParameterException when 32 bits do not hold it.
template <typename T, typename = std::enable_if_t<std::is_integral_v<T>>>
ScopedVariant MakeInt(T number) {
    const auto low = static_cast<int32_t>(number);
    if (static_cast<T>(low) != number || (low < 0) != (number < T{0})) {
        throw KelInvalidParameterException("the number does not fit VT_I4");
    }
    return MakeInt(low);
}

ScopedVariant MakeInt(double) = delete;  // it would lose what is behind the point

inline ScopedVariant MakeDouble(double number) {
    ScopedVariant value;
    value.vt = VT_R8;
    value.dblVal = number;
    return value;
}

inline ScopedVariant MakeBool(bool truth) {
    ScopedVariant value;
    value.vt = VT_BOOL;
    value.boolVal = truth ? VARIANT_TRUE : VARIANT_FALSE;
    return value;
}

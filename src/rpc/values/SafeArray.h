// The inside of a safe array, for libkel's own files: they read elements in place, where the public functions copy.
//
// Header and elements are one block of memory. An array that grows beyond it moves its elements into a block of their
// own, since the header's address is what variants hold; that block leaves room for half as many elements again, so
// that growing one by one stays cheap. Every element type is all zero when empty and may be moved byte by byte.
#pragma once

#include "rpc/values/Variant.h"

#include <atomic>
#include <cstddef>

struct SAFEARRAY {
    VARTYPE elementType;
    uint16_t elementSize;
    uint32_t count;
    int32_t lowerBound;
    std::atomic<uint32_t> accesses;  // atomic because several threads may read, and so access, an array at once
    unsigned char* elements;         // behind this header, or the block of its own
    uint64_t capacity;               // in elements

    unsigned char* inlineElements() { return reinterpret_cast<unsigned char*>(this + 1); }
};
static_assert(sizeof(SAFEARRAY) % alignof(std::max_align_t) == 0, "elements follow the header");

namespace kel {

// The bytes of a number, a boolean or a date; 0 for every other type.
constexpr uint16_t NumberSize(int type) {
    switch (type) {
        case VT_I1:
        case VT_UI1:
            return 1;
        case VT_I2:
        case VT_UI2:
        case VT_BOOL:
            return 2;
        case VT_I4:
        case VT_UI4:
        case VT_R4:
            return 4;
        case VT_I8:
        case VT_UI8:
        case VT_R8:
        case VT_DATE:
            return 8;
        default:
            return 0;
    }
}

// The place of an element; null for no array and for an index out of range.
inline unsigned char* ElementAt(const SAFEARRAY* array, long index) {
    if (!array || index < array->lowerBound || index >= long{array->lowerBound} + array->count) return nullptr;
    return array->elements + static_cast<size_t>(index - array->lowerBound) * array->elementSize;
}

// Element `index` of the array that `v` holds, in place. T is what SafeArrayGetElement would copy. Null when the array
// has elements of another type than `elementType`, or no such element.
template <typename T>
T* ElementAt(const tagVARIANT& v, VARTYPE elementType, long index) {
    if (v.vt != (VT_ARRAY | elementType) || !v.parray || v.parray->elementType != elementType) return nullptr;
    return reinterpret_cast<T*>(ElementAt(v.parray, index));
}

}  // namespace kel

// Which variants travel as MessagePack ext values, and what their payloads are. All others have a form of MessagePack's
// own. docs/wire-protocol.md holds the table in words.
#pragma once

#include "rpc/values/SafeArray.h"
#include "rpc/wire/Message.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kel::wire {

static_assert(std::endian::native == std::endian::little, "CopyBigEndian swaps");

// The ext type of an array is this plus its elements' type code.
constexpr int arrayExt = 64;
constexpr int textArrayExt = arrayExt + VT_BSTR;

constexpr bool ScalarIsExt(int vt) {
    switch (vt) {
        case VT_NULL:
        case VT_I1:
        case VT_UI1:
        case VT_I2:
        case VT_UI2:
        case VT_UI4:
        case VT_I8:
        case VT_UI8:
        case VT_DATE:
            return true;
        default:
            return false;
    }
}

constexpr bool ArrayIsExt(int elementVt) {
    return elementVt == VT_BSTR || (elementVt != VT_UI1 && NumberSize(elementVt) != 0);
}

// Whether an array in a payload of `bytes` keeps to the limit of elements. True for what is no array and, as only their
// payload tells how many they are, for texts.
constexpr bool ExtElementsFit(int extType, size_t bytes) {
    const int elementVt = extType - arrayExt;
    const size_t size = ArrayIsExt(elementVt) ? NumberSize(elementVt) : 0;
    return size == 0 || bytes / size <= maxArrayElements;
}

template <typename Word>
void CopySwapped(const char* from, char* to, size_t count) {
    for (size_t i = 0; i < count * sizeof(Word); i += sizeof(Word)) {
        Word word;
        std::memcpy(&word, from + i, sizeof(Word));
        if constexpr (sizeof(Word) == 2) word = __builtin_bswap16(word);
        if constexpr (sizeof(Word) == 4) word = __builtin_bswap32(word);
        if constexpr (sizeof(Word) == 8) word = __builtin_bswap64(word);
        std::memcpy(to + i, &word, sizeof(Word));
    }
}

// Copies `count` elements of `elementSize` bytes each between a payload and memory, in either direction.
inline void CopyBigEndian(const char* from, char* to, size_t elementSize, size_t count) {
    switch (elementSize) {
        case 1:
            CopySwapped<uint8_t>(from, to, count);
            break;
        case 2:
            CopySwapped<uint16_t>(from, to, count);
            break;
        case 4:
            CopySwapped<uint32_t>(from, to, count);
            break;
        case 8:
            CopySwapped<uint64_t>(from, to, count);
            break;
    }
}

}  // namespace kel::wire

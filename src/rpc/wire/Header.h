// The headers of MessagePack values: what a lead byte and the lengths behind it announce, without the value itself.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kel::wire {

enum class Family : uint8_t {
    scalar,  // nil, boolean, integer, float: the body is the number itself
    text,    // str
    bytes,   // bin
    array,   // `count` values follow
    ext,     // the body follows its type
    refused  // maps, which no message holds, and 0xc1, which MessagePack never uses
};

// What one header announces.
struct Header {
    Family family = Family::refused;
    uint8_t size = 0;     // bytes of the header itself
    uint8_t extType = 0;  // ext only
    uint32_t count = 0;   // array: the values that follow; all others: the bytes of the body
};

// What a lead byte says on its own.
struct Lead {
    Family family = Family::refused;
    uint8_t countBytes = 0;  // a big-endian count of this many bytes follows; 0: `count` below is it
    uint32_t count = 0;
};

constexpr Lead LeadOf(uint8_t lead) {
    if (lead <= 0x7f || lead >= 0xe0) return {Family::scalar};
    if (lead <= 0x8f) return {};
    if (lead <= 0x9f) return {Family::array, 0, lead & 0x0fu};
    if (lead <= 0xbf) return {Family::text, 0, lead & 0x1fu};
    if (lead >= 0xc4 && lead <= 0xc6) return {Family::bytes, static_cast<uint8_t>(1 << (lead - 0xc4))};
    if (lead >= 0xc7 && lead <= 0xc9) return {Family::ext, static_cast<uint8_t>(1 << (lead - 0xc7))};
    if (lead >= 0xca && lead <= 0xcb) return {Family::scalar, 0, 4u << (lead - 0xca)};
    if (lead >= 0xcc && lead <= 0xcf) return {Family::scalar, 0, 1u << (lead - 0xcc)};
    if (lead >= 0xd0 && lead <= 0xd3) return {Family::scalar, 0, 1u << (lead - 0xd0)};
    if (lead >= 0xd4 && lead <= 0xd8) return {Family::ext, 0, 1u << (lead - 0xd4)};
    if (lead >= 0xd9 && lead <= 0xdb) return {Family::text, static_cast<uint8_t>(1 << (lead - 0xd9))};
    if (lead >= 0xdc && lead <= 0xdd) return {Family::array, static_cast<uint8_t>(2 << (lead - 0xdc))};
    if (lead == 0xc0 || lead == 0xc2 || lead == 0xc3) return {Family::scalar};
    return {};
}

constexpr std::array<Lead, 256> MakeLeads() {
    std::array<Lead, 256> leads{};
    for (size_t lead = 0; lead < leads.size(); ++lead) leads[lead] = LeadOf(static_cast<uint8_t>(lead));
    return leads;
}

inline constexpr std::array<Lead, 256> leads = MakeLeads();

// Reads the header that starts at data[0]. False when its bytes are not all there yet.
[[gnu::always_inline]] inline bool ReadHeader(const char* data, size_t size, Header& header) {
    if (size == 0) return false;
    const Lead& lead = leads[static_cast<uint8_t>(data[0])];
    header = {lead.family, 1, 0, lead.count};
    if (lead.countBytes == 0 && lead.family != Family::ext) return true;  // as most are
    const size_t typeBytes = lead.family == Family::ext ? 1 : 0;
    const size_t headerSize = 1 + lead.countBytes + typeBytes;
    if (size < headerSize) return false;
    header.size = static_cast<uint8_t>(headerSize);
    for (size_t i = 1; i <= lead.countBytes; ++i) header.count = header.count << 8 | static_cast<uint8_t>(data[i]);
    if (typeBytes != 0) header.extType = static_cast<uint8_t>(data[headerSize - 1]);
    return true;
}

}  // namespace kel::wire

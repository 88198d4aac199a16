#include "rpc/wire/Codec.h"

#include "rpc/values/SafeArray.h"
#include "rpc/wire/DecodedSize.h"
#include "rpc/wire/ExtTypes.h"
#include "rpc/wire/Header.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>

namespace kel::wire {
namespace {

bool IsText(const char* text, size_t size) { return size == 0 || std::memchr(text, '\0', size) == nullptr; }

// Makes the empty variant `v` an array of `count` elements, all zero, and gives them in place; false when there is no
// memory.
template <typename Element>
bool MakeArray(tagVARIANT& v, int elementVt, size_t count, Element** elements) {
    const SAFEARRAYBOUND bound = {static_cast<uint32_t>(count), 0};
    v.parray = SafeArrayCreate(static_cast<VARTYPE>(elementVt), 1, &bound);
    if (v.parray == nullptr) return false;
    v.vt = static_cast<VARTYPE>(VT_ARRAY | elementVt);
    *elements = reinterpret_cast<Element*>(v.parray->elements);
    return true;
}

// The MessagePack texts of a payload, one after the other.
class Texts {
public:
    Texts(const char* payload, size_t size) : next_(payload), end_(payload + size) {}

    // Steps to the next text, behind which `*size` bytes from the result on are its own; null at the end and when there
    // is none, which AtEnd tells apart.
    const char* Next(size_t* size) {
        Header header;
        const size_t left = static_cast<size_t>(end_ - next_);
        if (!ReadHeader(next_, left, header) || header.family != Family::text) return nullptr;
        if (left - header.size < header.count) return nullptr;
        const char* text = next_ + header.size;
        if (!IsText(text, header.count)) return nullptr;
        next_ = text + header.count;
        *size = header.count;
        return text;
    }

    bool AtEnd() const { return next_ == end_; }

private:
    const char* next_;
    const char* end_;
};

// How many texts the payload is made of; none when it is anything else, or they are over a limit.
std::optional<size_t> CountTexts(const char* payload, size_t size, DecodedSize& decoded) {
    Texts texts(payload, size);
    size_t count = 0;
    size_t length = 0;
    while (texts.Next(&length) != nullptr) {
        if (++count > maxArrayElements || !decoded.AddElements(1, sizeof(BSTR)) || !decoded.AddText(length)) {
            return std::nullopt;
        }
    }
    if (!texts.AtEnd()) return std::nullopt;
    return count;
}

bool DecodeTextArray(const char* payload, size_t size, tagVARIANT& v, DecodedSize& decoded) {
    const std::optional<size_t> count = CountTexts(payload, size, decoded);
    if (!count || !decoded.AddArray()) return false;
    BSTR* elements = nullptr;
    if (!MakeArray(v, VT_BSTR, *count, &elements)) return false;
    Texts texts(payload, size);
    for (size_t i = 0; i < *count; ++i) {
        size_t length = 0;
        const char* text = texts.Next(&length);
        elements[i] = SysAllocStringLen(text, length);
        if (elements[i] == nullptr) return false;
    }
    return true;
}

bool DecodeNumberArray(int elementVt, const char* payload, size_t size, tagVARIANT& v, DecodedSize& decoded) {
    const size_t elementSize = NumberSize(elementVt);
    const size_t count = size / elementSize;
    if (size % elementSize != 0 || count > maxArrayElements || !decoded.AddNumbers(size)) return false;
    char* elements = nullptr;
    if (!MakeArray(v, elementVt, count, &elements)) return false;
    CopyBigEndian(payload, elements, elementSize, count);
    return true;
}

bool DecodeExt(int type, const char* payload, size_t size, tagVARIANT& v, DecodedSize& decoded) {
    if (ScalarIsExt(type)) {
        if (size != NumberSize(type)) return false;
        v.vt = static_cast<VARTYPE>(type);
        CopyBigEndian(payload, reinterpret_cast<char*>(&v.llVal), size, 1);
        return true;
    }
    const int elementVt = type - arrayExt;
    if (!ArrayIsExt(elementVt)) return false;
    if (elementVt == VT_BSTR) return DecodeTextArray(payload, size, v, decoded);
    return DecodeNumberArray(elementVt, payload, size, v, decoded);
}

// An integer of any of MessagePack's formats: `bits` is the number, or its two's complement if it is negative.
struct Integer {
    uint64_t bits = 0;
    bool isNegative = false;

    bool Fits32() const {
        const auto number = static_cast<int64_t>(bits);
        if (isNegative) return number >= std::numeric_limits<int32_t>::min();
        return bits <= std::numeric_limits<int32_t>::max();
    }
};

// False when the scalar that `lead` opens is no integer.
bool ReadInteger(uint8_t lead, const char* body, size_t size, Integer& integer) {
    if (lead <= 0x7f) {
        integer = {lead, false};
    } else if (lead >= 0xe0) {
        integer = {static_cast<uint64_t>(static_cast<int8_t>(lead)), true};
    } else if (lead >= 0xcc && lead <= 0xd3) {
        uint64_t number = 0;
        for (size_t i = 0; i < size; ++i) number = number << 8 | static_cast<uint8_t>(body[i]);
        integer = {number, false};
        if (lead < 0xd0) return true;
        const size_t unused = 64 - 8 * size;
        const int64_t extended = static_cast<int64_t>(number << unused) >> unused;
        integer = {static_cast<uint64_t>(extended), extended < 0};
    } else {
        return false;
    }
    return true;
}

// Fills a Message from its bytes. Members return false when the message is malformed.
class Decoder {
public:
    Decoder(Message& message, const char* data, size_t size)
        : message_(message), next_(data), end_(data + size), budget_(size) {}

    // All of it, and nothing behind it.
    bool Run() {
        Value parts;
        if (!TakeArray(parts) || !TakeKind(parts.header.count)) return false;
        return (message_.kind == MessageKind::response ? TakeAnswer() : TakeCall()) && next_ == end_;
    }

private:
    // A header, and for all but arrays the body behind it, which is all there.
    struct Value {
        Header header;
        uint8_t lead = 0;
        const char* body = nullptr;
    };

    bool Take(Value& value) {
        const auto left = static_cast<size_t>(end_ - next_);
        if (!ReadHeader(next_, left, value.header)) return false;
        value.lead = static_cast<uint8_t>(*next_);
        value.body = next_ + value.header.size;
        next_ = value.body;
        if (value.header.family == Family::array) return true;
        if (value.header.count > left - value.header.size) return false;
        next_ += value.header.count;
        return true;
    }

    // --- What stands around the variant ---

    bool TakeCall() {
        if (message_.kind == MessageKind::request && !TakeId()) return false;
        return TakeText(message_.method) && TakePair() && TakeText(message_.caller) && TakeVariant(message_.value, 0);
    }

    bool TakeAnswer() {
        Value error;
        if (!TakeId() || !Take(error)) return false;
        message_.failed = error.header.family == Family::array;
        if (message_.failed) {
            return error.header.count == 2 && TakeCode() && TakeText(message_.errorText) && TakeNil();
        }
        return error.lead == nil && TakePair() && TakeCode() && TakeVariant(message_.value, 0);
    }

    bool TakeKind(uint32_t parts) {
        Integer kind;
        if (!TakeInteger(kind) || kind.bits > static_cast<uint64_t>(MessageKind::notification)) return false;
        message_.kind = static_cast<MessageKind>(kind.bits);
        return parts == (message_.kind == MessageKind::notification ? 3 : 4);
    }

    bool TakeId() {
        Integer id;
        if (!TakeInteger(id) || id.bits > std::numeric_limits<uint32_t>::max()) return false;
        message_.id = static_cast<uint32_t>(id.bits);
        return true;
    }

    bool TakeCode() {
        Integer code;
        if (!TakeInteger(code) || !code.Fits32()) return false;
        message_.code = static_cast<int32_t>(code.bits);
        return true;
    }

    bool TakeInteger(Integer& integer) {
        Value value;
        return Take(value) && value.header.family == Family::scalar &&
               ReadInteger(value.lead, value.body, value.header.count, integer);
    }

    bool TakeText(std::string& to) {
        Value text;
        if (!Take(text) || text.header.family != Family::text || !CountText(text.header.count)) return false;
        if (!IsText(text.body, text.header.count)) return false;
        to.assign(text.body, text.header.count);
        return true;
    }

    bool TakeNil() {
        Value value;
        return Take(value) && value.lead == nil;
    }

    bool TakeArray(Value& array) { return Take(array) && array.header.family == Family::array; }
    bool TakePair() {
        Value array;
        return TakeArray(array) && array.header.count == 2;
    }

    // --- The variant ---

    // `v` is empty; `depth`: the arrays that are open around it.
    bool TakeVariant(tagVARIANT& v, unsigned depth) {
        Value value;
        if (!Take(value)) return false;
        const uint32_t count = value.header.count;
        switch (value.header.family) {
            case Family::scalar:
                return FillScalar(v, value);
            case Family::text:
                return CountText(count) && IsText(value.body, count) && FillText(v, value.body, count);
            case Family::bytes:
                return Spend(count) && decoded_.AddNumbers(count) && FillBytes(v, value.body, count);
            case Family::ext:
                return Spend(count) && DecodeExt(value.header.extType, value.body, count, v, decoded_);
            case Family::array:
                return TakeVariants(v, count, depth);
            default:
                return false;
        }
    }

    bool TakeVariants(tagVARIANT& v, uint32_t count, unsigned depth) {
        if (depth == maxNesting || count > maxArrayElements || !Spend(count)) return false;
        if (!decoded_.AddArray() || !decoded_.AddElements(count, sizeof(tagVARIANT))) return false;
        tagVARIANT* elements = nullptr;
        if (!MakeArray(v, VT_VARIANT, count, &elements)) return false;
        for (uint32_t i = 0; i < count; ++i) {
            if (!TakeVariant(elements[i], depth + 1)) return false;
        }
        return true;
    }

    static bool FillScalar(tagVARIANT& v, const Value& value) {
        switch (value.lead) {
            case nil:
                return true;
            case 0xc2:
            case 0xc3:
                v.vt = VT_BOOL;
                v.boolVal = value.lead == 0xc3 ? VARIANT_TRUE : VARIANT_FALSE;
                return true;
            case 0xca:
                v.vt = VT_R4;
                CopyBigEndian(value.body, reinterpret_cast<char*>(&v.fltVal), sizeof v.fltVal, 1);
                return true;
            case 0xcb:
                v.vt = VT_R8;
                CopyBigEndian(value.body, reinterpret_cast<char*>(&v.dblVal), sizeof v.dblVal, 1);
                return true;
            default:
                break;
        }
        Integer integer;
        if (!ReadInteger(value.lead, value.body, value.header.count, integer)) return false;
        FillInteger(v, integer);
        return true;
    }

    static void FillInteger(tagVARIANT& v, const Integer& integer) {
        if (integer.Fits32()) {
            v.vt = VT_I4;
            v.lVal = static_cast<int32_t>(integer.bits);
        } else {
            const bool isSigned = integer.isNegative || integer.bits <= std::numeric_limits<int64_t>::max();
            v.vt = isSigned ? VT_I8 : VT_UI8;
            v.ullVal = integer.bits;
        }
    }

    static bool FillText(tagVARIANT& v, const char* text, uint32_t size) {
        v.bstrVal = SysAllocStringLen(size == 0 ? "" : text, size);
        if (v.bstrVal == nullptr) return false;
        v.vt = VT_BSTR;
        return true;
    }

    static bool FillBytes(tagVARIANT& v, const char* bytes, uint32_t size) {
        char* elements = nullptr;
        if (!MakeArray(v, VT_UI1, size, &elements)) return false;
        if (size != 0) std::memcpy(elements, bytes, size);
        return true;
    }

    // --- Limits ---

    bool CountText(uint32_t size) { return Spend(size) && decoded_.AddText(size); }

    // Takes account of what an array's elements or a body take of the message, at the least: an array that announces
    // more than can follow is refused before memory is taken for it.
    bool Spend(size_t bytes) {
        if (bytes > budget_) return false;
        budget_ -= bytes;
        return true;
    }

    static constexpr uint8_t nil = 0xc0;

    Message& message_;
    const char* next_;
    const char* const end_;
    size_t budget_;  // bytes of the message that are not accounted for
    DecodedSize decoded_;
};

}  // namespace

bool Decode(const char* data, size_t size, Message& message) {
    message.value.clear();
    if (size > maxMessageBytes) return false;
    return Decoder(message, data, size).Run();
}

}  // namespace kel::wire

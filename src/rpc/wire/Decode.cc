#include "rpc/wire/Codec.h"

#include "rpc/values/SafeArray.h"
#include "rpc/wire/DecodedSize.h"
#include "rpc/wire/ExtTypes.h"
#include "rpc/wire/Header.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>

namespace kel::wire {
namespace {

bool IsText(const char* text, size_t size) { return size == 0 || std::memchr(text, '\0', size) == nullptr; }

bool AssignText(std::string& to, const char* text, size_t size) {
    if (!IsText(text, size)) return false;
    to.assign(text, size);
    return true;
}

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

// Fills a Message from its bytes, value by value. A message's shape is fixed up to its variant, so one state says which
// value must come next; inside the variant the elements of the innermost open array are filled in place. Members return
// false when the message is malformed.
class Decoder {
public:
    Decoder(Message& message, const char* data, size_t size)
        : message_(message), next_(data), end_(data + size), budget_(size) {}

    // All of it, and nothing behind it.
    bool Run() {
        do {
            if (!TakeNext()) return false;
        } while (levels_ > 0);
        return next_ == end_ && expected_ == Expected::nothing;
    }

private:
    bool TakeNext() {
        const char* const start = next_;
        const auto left = static_cast<size_t>(end_ - start);
        Header header;
        if (!ReadHeader(start, left, header)) return false;
        const char* const body = start + header.size;
        if (header.family == Family::array) {
            next_ = body;
            return TakeArray(header.count);
        }
        if (header.count > left - header.size) return false;
        next_ = body + header.count;
        return Take(static_cast<uint8_t>(*start), header, body) && CloseArrays();
    }

    bool TakeArray(uint32_t count) {
        if (levels_ == rest_.size() || !StartArray(count)) return false;
        if (count == 0) return EndArray() && CloseArrays();
        rest_[levels_++] = count;
        return true;
    }

    // A value is complete, and with the last one its array.
    bool CloseArrays() {
        while (levels_ > 0 && --rest_[levels_ - 1] == 0) {
            --levels_;
            if (!EndArray()) return false;
        }
        return true;
    }

    bool Take(uint8_t lead, const Header& header, const char* body) {
        switch (header.family) {
            case Family::scalar:
                return TakeScalar(lead, header.count, body);
            case Family::text:
                return TakeText(body, header.count);
            case Family::bytes:
                return TakeBytes(body, header.count);
            case Family::ext:
                return TakeExt(header.extType, body, header.count);
            default:
                return false;
        }
    }

    bool TakeScalar(uint8_t lead, uint32_t size, const char* body) {
        if (lead <= 0x7f) return TakePositive(lead);
        if (lead >= 0xe0) return TakeSigned(static_cast<int8_t>(lead));
        switch (lead) {
            case 0xc0:
                return TakeNil();
            case 0xc2:
            case 0xc3:
                return TakeBoolean(lead == 0xc3);
            case 0xca:
                return TakeFloat(NumberIn<float>(body));
            case 0xcb:
                return TakeDouble(NumberIn<double>(body));
            default:
                break;
        }
        uint64_t number = 0;
        for (uint32_t i = 0; i < size; ++i) number = number << 8 | static_cast<uint8_t>(body[i]);
        if (lead < 0xd0) return TakePositive(number);
        const unsigned unused = 64 - 8 * size;
        return TakeSigned(static_cast<int64_t>(number << unused) >> unused);
    }

    template <typename Number>
    static Number NumberIn(const char* body) {
        Number number;
        CopyBigEndian(body, reinterpret_cast<char*>(&number), sizeof number, 1);
        return number;
    }

    bool TakeNil() {
        switch (expected_) {
            case Expected::error:
                message_.failed = false;
                return Expect(Expected::result);
            case Expected::noResult:
                return Expect(Expected::nothing);
            case Expected::value:
                NextValue();
                return ValueTaken();
            default:
                return false;
        }
    }

    bool TakeBoolean(bool truth) {
        if (expected_ != Expected::value) return false;
        tagVARIANT& v = NextValue();
        v.vt = VT_BOOL;
        v.boolVal = truth ? VARIANT_TRUE : VARIANT_FALSE;
        return ValueTaken();
    }

    bool TakePositive(uint64_t number) {
        switch (expected_) {
            case Expected::kind:
                return TakeKind(number);
            case Expected::id:
                return TakeId(number);
            case Expected::value:
                break;
            default:
                return number <= std::numeric_limits<int32_t>::max() && TakeCode(static_cast<int32_t>(number));
        }
        if (number <= std::numeric_limits<int64_t>::max()) return TakeInteger(static_cast<int64_t>(number));
        tagVARIANT& v = NextValue();
        v.vt = VT_UI8;
        v.ullVal = number;
        return ValueTaken();
    }

    // The signed formats, which hold positive numbers too.
    bool TakeSigned(int64_t number) {
        if (number >= 0) return TakePositive(static_cast<uint64_t>(number));
        if (expected_ == Expected::value) return TakeInteger(number);
        return number >= std::numeric_limits<int32_t>::min() && TakeCode(static_cast<int32_t>(number));
    }

    bool TakeFloat(float number) {
        if (expected_ != Expected::value) return false;
        tagVARIANT& v = NextValue();
        v.vt = VT_R4;
        v.fltVal = number;
        return ValueTaken();
    }

    bool TakeDouble(double number) {
        if (expected_ != Expected::value) return false;
        tagVARIANT& v = NextValue();
        v.vt = VT_R8;
        v.dblVal = number;
        return ValueTaken();
    }

    bool TakeText(const char* text, uint32_t size) {
        if (!Spend(size) || !decoded_.AddText(size)) return false;
        switch (expected_) {
            case Expected::method:
                return AssignText(message_.method, text, size) && Expect(Expected::parameters);
            case Expected::caller:
                return AssignText(message_.caller, text, size) && Expect(Expected::value);
            case Expected::errorText:
                return AssignText(message_.errorText, text, size) && Expect(Expected::noResult);
            case Expected::value:
                break;
            default:
                return false;
        }
        if (!IsText(text, size)) return false;
        tagVARIANT& v = NextValue();
        v.bstrVal = SysAllocStringLen(size == 0 ? "" : text, size);
        if (v.bstrVal == nullptr) return false;
        v.vt = VT_BSTR;
        return ValueTaken();
    }

    bool TakeBytes(const char* bytes, uint32_t size) {
        if (expected_ != Expected::value || !Spend(size) || !decoded_.AddNumbers(size)) return false;
        char* elements = nullptr;
        if (!MakeArray(NextValue(), VT_UI1, size, &elements)) return false;
        if (size != 0) std::memcpy(elements, bytes, size);
        return ValueTaken();
    }

    bool TakeExt(int type, const char* payload, uint32_t size) {
        if (expected_ != Expected::value || !Spend(size)) return false;
        return DecodeExt(type, payload, size, NextValue(), decoded_) && ValueTaken();
    }

    bool StartArray(uint32_t count) {
        switch (expected_) {
            case Expected::message:
                parts_ = count;
                return Expect(Expected::kind);
            case Expected::parameters:
                return count == 2 && Expect(Expected::caller);
            case Expected::error:
                message_.failed = true;
                return count == 2 && Expect(Expected::errorCode);
            case Expected::result:
                return count == 2 && Expect(Expected::resultCode);
            case Expected::value:
                return OpenArray(count);
            default:
                return false;
        }
    }

    bool EndArray() { return depth_ == 0 || (--depth_, ValueTaken()); }

    enum class Expected {
        message,
        kind,
        id,
        method,
        parameters,
        caller,  // requests and notifications
        error,
        errorCode,
        errorText,
        noResult,
        result,
        resultCode,  // responses
        value,
        nothing
    };

    bool Expect(Expected next) {
        expected_ = next;
        return true;
    }

    // Takes account of what an array's elements or a body take of the message, at the least: an array that announces
    // more than can follow is refused before memory is taken for it.
    bool Spend(size_t bytes) {
        if (bytes > budget_) return false;
        budget_ -= bytes;
        return true;
    }

    bool TakeKind(uint64_t kind) {
        const bool oneWay = kind == static_cast<uint64_t>(MessageKind::notification);
        if (kind > static_cast<uint64_t>(MessageKind::notification) || parts_ != (oneWay ? 3u : 4u)) return false;
        message_.kind = static_cast<MessageKind>(kind);
        return Expect(oneWay ? Expected::method : Expected::id);
    }

    bool TakeId(uint64_t id) {
        if (id > std::numeric_limits<uint32_t>::max()) return false;
        message_.id = static_cast<uint32_t>(id);
        return Expect(message_.kind == MessageKind::request ? Expected::method : Expected::error);
    }

    bool TakeCode(int32_t code) {
        message_.code = code;
        if (expected_ == Expected::resultCode) return Expect(Expected::value);
        return expected_ == Expected::errorCode && Expect(Expected::errorText);
    }

    bool TakeInteger(int64_t number) {
        tagVARIANT& v = NextValue();
        if (number >= std::numeric_limits<int32_t>::min() && number <= std::numeric_limits<int32_t>::max()) {
            v.vt = VT_I4;
            v.lVal = static_cast<int32_t>(number);
        } else {
            v.vt = VT_I8;
            v.llVal = number;
        }
        return ValueTaken();
    }

    bool OpenArray(uint32_t count) {
        if (depth_ == maxNesting || count > maxArrayElements || !Spend(count)) return false;
        if (!decoded_.AddArray() || !decoded_.AddElements(count, sizeof(tagVARIANT))) return false;
        tagVARIANT& v = NextValue();
        return MakeArray(v, VT_VARIANT, count, &elements_[depth_++]);
    }

    // Called no more often than the array has announced elements.
    tagVARIANT& NextValue() { return depth_ == 0 ? message_.value : *elements_[depth_ - 1]++; }

    bool ValueTaken() { return depth_ != 0 || Expect(Expected::nothing); }

    Message& message_;
    const char* next_;
    const char* const end_;
    size_t budget_;  // bytes of the message that are not accounted for
    DecodedSize decoded_;
    Expected expected_ = Expected::message;
    uint32_t parts_ = 0;                            // elements of the message's own array
    unsigned levels_ = 0;                           // open arrays, the message's own included
    std::array<uint32_t, maxNesting + 2> rest_;     // how many values each of them lacks; in use: [0, levels_)
    unsigned depth_ = 0;                            // open arrays in the variant
    std::array<tagVARIANT*, maxNesting> elements_;  // of each of them the element to fill next; in use: [0, depth_)
};

}  // namespace

bool Decode(const char* data, size_t size, Message& message) {
    message.value.clear();
    if (size > maxMessageBytes) return false;
    return Decoder(message, data, size).Run();
}

}  // namespace kel::wire

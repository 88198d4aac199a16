#include "rpc/wire/Codec.h"

#include "rpc/values/SafeArray.h"
#include "rpc/wire/DecodedSize.h"
#include "rpc/wire/ExtTypes.h"

#include <msgpack/pack.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace kel::wire {
namespace {

// An error answer takes 19 bytes besides its text, at the most.
constexpr size_t maxErrorTextBytes = maxMessageBytes - 19;

std::string_view TextOf(BSTR text) { return text == nullptr ? std::string_view() : std::string_view(text); }

size_t TextHeaderSize(size_t length) { return length < 32 ? 1 : length < 1u << 8 ? 2 : length < 1u << 16 ? 3 : 5; }

// Where the packer writes, a few bytes at a time: behind the end of a string, up to the limit of a message. What goes
// beyond it is dropped. Before Finish or Undo the string is longer than what was written.
class MessageBytes {
public:
    explicit MessageBytes(std::string& out) : out_(out), start_(out.size()), left_(maxMessageBytes) { MakeRoom(0); }

    void write(const char* data, size_t size) {
        if (size > room_) return Write(data, size);
        std::copy_n(data, size, at_);  // the bytes of nothing may be null
        Take(size);
    }

    // Room for `size` bytes at the end; null when they do not fit.
    char* Extend(size_t size) {
        if (size > room_ && !MakeRoom(size)) return nullptr;
        char* const bytes = at_;
        Take(size);
        return bytes;
    }

    // Whether nothing has been dropped.
    bool Whole() const { return whole_; }
    void Finish() { out_.resize(Size()); }
    void Undo() { out_.resize(start_); }

private:
    static constexpr size_t ahead = 64;

    size_t Size() const { return static_cast<size_t>(at_ - out_.data()); }

    void Take(size_t size) {
        at_ += size;
        room_ -= size;
        left_ -= size;
    }

    [[gnu::noinline]] void Write(const char* data, size_t size) {
        if (char* const bytes = Extend(size)) std::copy_n(data, size, bytes);
    }

    // False, and there is none from now on, when the message would be too large.
    bool MakeRoom(size_t size) {
        whole_ = whole_ && size <= left_;
        room_ = 0;
        if (!whole_) return false;
        const size_t end = start_ + (maxMessageBytes - left_);
        out_.resize(end + size + ahead);
        at_ = out_.data() + end;
        room_ = std::min(size + ahead, left_);
        return true;
    }

    std::string& out_;
    const size_t start_;
    size_t left_;  // of the limit
    char* at_ = nullptr;
    size_t room_ = 0;  // at at_
    bool whole_ = true;
};

// Writes one message behind the end of a string and, unless Finish has been called, takes it back in the end. The
// members return false for what cannot travel.
class Encoder {
public:
    explicit Encoder(std::string& out) : bytes_(out), packer_(bytes_) {}
    ~Encoder() { finished_ ? bytes_.Finish() : bytes_.Undo(); }
    Encoder(const Encoder&) = delete;
    Encoder& operator=(const Encoder&) = delete;

    // The message's own array and its kind; what stands between them and the rest goes to the packer that is returned.
    msgpack::packer<MessageBytes>& Open(uint32_t parts, MessageKind kind) {
        return packer_.pack_array(parts).pack_uint8(static_cast<uint8_t>(kind));
    }
    bool Call(std::string_view method, std::string_view caller, const tagVARIANT& in);
    bool Text(std::string_view text);
    bool Value(const tagVARIANT& v, unsigned depth = 0);
    bool Finish() { return finished_ = bytes_.Whole(); }

private:
    bool String(BSTR text) { return Body(TextOf(text)); }
    bool Body(std::string_view text);
    bool Float(char lead, const char* number, size_t size);
    bool Scalar(const tagVARIANT& v);
    bool Array(const tagVARIANT& v, unsigned depth);
    bool Bytes(const char* elements, uint32_t count);
    bool Variants(const tagVARIANT* elements, uint32_t count, unsigned depth);
    bool Texts(const BSTR* elements, uint32_t count);
    bool Numbers(int elementVt, const char* elements, uint32_t count);
    bool ExtHeader(int type, size_t payloadSize);

    MessageBytes bytes_;
    msgpack::packer<MessageBytes> packer_;
    DecodedSize decoded_;
    bool finished_ = false;
};

bool Encoder::Call(std::string_view method, std::string_view caller, const tagVARIANT& in) {
    if (!Text(method)) return false;
    packer_.pack_array(2);
    return Text(caller) && Value(in);
}

bool Encoder::Text(std::string_view text) { return text.find('\0') == std::string_view::npos && Body(text); }

// Of a text without a NUL in it.
bool Encoder::Body(std::string_view text) {
    if (text.size() > maxMessageBytes || !decoded_.AddText(text.size())) return false;
    packer_.pack_str(static_cast<uint32_t>(text.size()));
    packer_.pack_str_body(text.data(), static_cast<uint32_t>(text.size()));
    return true;
}

// `depth`: the arrays of the variant that are open around `v`.
bool Encoder::Value(const tagVARIANT& v, unsigned depth) {
    switch (v.vt) {
        case VT_EMPTY:
            packer_.pack_nil();
            return true;
        case VT_BOOL:
            v.boolVal != VARIANT_FALSE ? packer_.pack_true() : packer_.pack_false();
            return true;
        case VT_I4:
            packer_.pack_int32(v.lVal);
            return true;
        case VT_R4:
            return Float('\xca', reinterpret_cast<const char*>(&v.fltVal), sizeof(v.fltVal));
        case VT_R8:
            return Float('\xcb', reinterpret_cast<const char*>(&v.dblVal), sizeof(v.dblVal));
        case VT_BSTR:
            return String(v.bstrVal);
        default:
            return (v.vt & VT_ARRAY) != 0 ? Array(v, depth) : Scalar(v);
    }
}

// Not by the packer, which makes an integer of a float without a fraction: the value would come out as another type.
bool Encoder::Float(char lead, const char* number, size_t size) {
    char bytes[1 + sizeof(double)];
    bytes[0] = lead;
    CopyBigEndian(number, bytes + 1, size, 1);
    bytes_.write(bytes, 1 + size);
    return true;
}

bool Encoder::Scalar(const tagVARIANT& v) {
    if (!ScalarIsExt(v.vt)) return false;
    char payload[sizeof(v.llVal)];
    const size_t size = NumberSize(v.vt);
    CopyBigEndian(reinterpret_cast<const char*>(&v.llVal), payload, size, 1);
    if (!ExtHeader(v.vt, size)) return false;
    bytes_.write(payload, size);
    return true;
}

// The array's own element type, too, must be the one that the variant says: the elements are read by it.
bool Encoder::Array(const tagVARIANT& v, unsigned depth) {
    const int elementVt = v.vt & ~VT_ARRAY;
    if (v.parray == nullptr || v.parray->elementType != elementVt || v.parray->lowerBound != 0) return false;
    const uint32_t count = v.parray->count;
    const unsigned char* elements = v.parray->elements;
    if (elementVt == VT_UI1) return Bytes(reinterpret_cast<const char*>(elements), count);
    if (count > maxArrayElements) return false;
    if (elementVt == VT_VARIANT) return Variants(reinterpret_cast<const tagVARIANT*>(elements), count, depth);
    if (elementVt == VT_BSTR) return Texts(reinterpret_cast<const BSTR*>(elements), count);
    return Numbers(elementVt, reinterpret_cast<const char*>(elements), count);
}

bool Encoder::Bytes(const char* elements, uint32_t count) {
    if (!decoded_.AddNumbers(count)) return false;
    packer_.pack_bin(count);
    packer_.pack_bin_body(elements, count);
    return true;
}

bool Encoder::Variants(const tagVARIANT* elements, uint32_t count, unsigned depth) {
    if (depth == maxNesting) return false;
    if (!decoded_.AddArray() || !decoded_.AddElements(count, sizeof(tagVARIANT))) return false;
    packer_.pack_array(count);
    for (size_t i = 0; i < count; ++i) {
        if (!Value(elements[i], depth + 1) || !bytes_.Whole()) return false;
    }
    return true;
}

bool Encoder::Texts(const BSTR* elements, uint32_t count) {
    if (!decoded_.AddArray() || !decoded_.AddElements(count, sizeof(BSTR))) return false;
    size_t payloadSize = 0;
    for (size_t i = 0; i < count; ++i) {
        const size_t length = TextOf(elements[i]).size();
        payloadSize += TextHeaderSize(length) + length;
    }
    if (!ExtHeader(textArrayExt, payloadSize)) return false;
    for (size_t i = 0; i < count; ++i) {
        if (!String(elements[i])) return false;
    }
    return true;
}

bool Encoder::Numbers(int elementVt, const char* elements, uint32_t count) {
    const size_t size = NumberSize(elementVt);
    if (!decoded_.AddNumbers(count * size) || !ExtHeader(arrayExt + elementVt, count * size)) return false;
    char* payload = bytes_.Extend(count * size);
    if (payload != nullptr) CopyBigEndian(elements, payload, size, count);
    return payload != nullptr;
}

bool Encoder::ExtHeader(int type, size_t payloadSize) {
    if (payloadSize > maxMessageBytes) return false;
    packer_.pack_ext(payloadSize, static_cast<int8_t>(type));
    return true;
}

}  // namespace

bool EncodeRequest(std::string& out, uint32_t id, std::string_view method, std::string_view caller,
                   const tagVARIANT& in) {
    Encoder encoder(out);
    encoder.Open(4, MessageKind::request).pack_uint32(id);
    return encoder.Call(method, caller, in) && encoder.Finish();
}

bool EncodeNotification(std::string& out, std::string_view method, std::string_view caller, const tagVARIANT& in) {
    Encoder encoder(out);
    encoder.Open(3, MessageKind::notification);
    return encoder.Call(method, caller, in) && encoder.Finish();
}

bool EncodeResponse(std::string& out, uint32_t id, int32_t code, const tagVARIANT& value) {
    Encoder encoder(out);
    encoder.Open(4, MessageKind::response).pack_uint32(id).pack_nil().pack_array(2).pack_int32(code);
    return encoder.Value(value) && encoder.Finish();
}

void EncodeError(std::string& out, uint32_t id, int32_t code, std::string_view text) {
    Encoder encoder(out);
    auto& packer = encoder.Open(4, MessageKind::response).pack_uint32(id).pack_array(2).pack_int32(code);
    encoder.Text(text.substr(0, std::min(text.find('\0'), maxErrorTextBytes)));
    packer.pack_nil();
    encoder.Finish();
}

}  // namespace kel::wire

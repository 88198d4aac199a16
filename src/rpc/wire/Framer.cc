// The state of the walk:
//
// - position_ is where the next header starts. A body (of a text, byte array, ext or number) is skipped by moving
//   position_ behind it at once, so position_ may lie beyond the bytes that have arrived; until they reach it there is
//   nothing to look at.
// - rest_[0..depth_) holds, for each array that is open, outermost first, how many of its values have not started yet.
//   A level is closed when none is left and its last value is complete; so an array's level is open for as long as
//   anything inside it is, and depth_ is exactly the nesting at position_.
// - awaited_ is the sum of rest_ (and 1 before the message's own array starts): values that have been announced and
//   have not started. Each takes a byte at least, so position_ + awaited_ is the least size that the message can have,
//   and a message whose announcements do not fit is refused at the header that says so. When awaited_ is 0 the message
//   ends at position_.
// - textsEnd_ is where the latest array of texts ends. Its payload is not skipped: the texts in it are walked, since
//   only their headers tell how many they are. texts_ counts them.
// - kindAt_ is where the header of the message's kind stands and, once that has been walked, the last byte of the
// number;
//   0 when it is none.
// - decoded_ is what the message takes of memory, as far as it has been walked.
//
// The outer two levels, the message and its [caller, in], [rc, out] or [code, message], are no part of a variant, and
// variants stand only inside the second level: maxNesting + 2 levels in all give a variant exactly maxNesting.
#include "rpc/wire/Framer.h"

#include "rpc/wire/ExtTypes.h"
#include "rpc/wire/Header.h"

#include <algorithm>

namespace kel::wire {

namespace {
constexpr unsigned partLevels = 2;  // that are open around a variant
constexpr size_t maxUsualText = 255;
}  // namespace

void Framer::Reset() {
    position_ = 0;
    textsEnd_ = 0;
    kindAt_ = 0;
    awaited_ = 1;
    depth_ = 0;
    decoded_ = {};
}

// One of the texts in the payload of an array of texts. False when it is none.
bool Framer::TakeText(const Header& header) {
    const size_t position = position_ + header.size + header.count;
    if (header.family != Family::text || position > textsEnd_ || ++texts_ > maxArrayElements) return false;
    if (!decoded_.AddElements(1, sizeof(BSTR)) || !decoded_.AddText(header.count)) return false;
    position_ = position;
    return true;
}

// Counts what a header announces; false when that is over a limit.
inline bool Framer::CountMemory(const Header& header) {
    switch (header.family) {
        case Family::text:
            return decoded_.AddText(header.count);
        case Family::bytes:
            return decoded_.AddNumbers(header.count);
        case Family::array:
            return depth_ < partLevels ||
                   (decoded_.AddArray() && decoded_.AddElements(header.count, sizeof(tagVARIANT)));
        case Family::ext:
            if (header.extType == textArrayExt) return decoded_.AddArray();
            return ScalarIsExt(header.extType) || decoded_.AddNumbers(header.count);
        default:
            return true;
    }
}

// Steps over a header and its body; false, with the state as it was, when the message cannot go on with it. Inline, so
// that the header stays in registers: a fifth of what finding the end of a small call takes.
[[gnu::always_inline]] inline bool Framer::Take(const Header& header) {
    if (header.family == Family::refused) return false;
    const bool isArray = header.family == Family::array;
    if (position_ == 0 && !(isArray && (header.count == 3 || header.count == 4))) return false;
    if (isArray && (header.count > maxArrayElements || depth_ == rest_.size())) return false;
    if (header.family == Family::ext && !ExtElementsFit(header.extType, header.count)) return false;

    // All three terms are far below 2^33: nothing wraps.
    const size_t position = position_ + header.size + (isArray ? 0 : header.count);
    const size_t awaited = awaited_ - 1 + (isArray ? header.count : 0);
    if (position + awaited > maxMessageBytes || !CountMemory(header)) return false;
    if (position_ == 0) {
        kindAt_ = position;
    } else if (position_ == kindAt_) {
        kindAt_ = header.family == Family::scalar ? position - 1 : 0;
    }
    position_ = position;
    awaited_ = awaited;
    if (header.family == Family::ext && header.extType == textArrayExt) {
        textsEnd_ = position;
        position_ -= header.count;
        texts_ = 0;
    }

    if (depth_ > 0) --rest_[depth_ - 1];
    if (isArray) rest_[depth_++] = header.count;
    while (depth_ > 0 && rest_[depth_ - 1] == 0) --depth_;
    return true;
}

// Steps at once over a message as nearly all are, short and whole: numbers and short texts, then a pair of such a one
// and the variant; over that too if it is a number or a short text. Does nothing where a message starts otherwise.
inline void Framer::TakeUsual(const char* data, size_t size) {
    Header header;
    DecodedSize decoded;
    size_t at = 0;
    const auto takeArray = [&]() __attribute__((always_inline)) {
        const bool isThere = ReadHeader(data + at, size - at, header) && header.family == Family::array;
        at += header.size;
        return isThere;
    };
    const auto takePart = [&]() __attribute__((always_inline)) {
        if (!ReadHeader(data + at, size - at, header)) return false;
        at += header.size + header.count;
        if (header.family == Family::scalar) return at <= size;
        return header.family == Family::text && header.count <= maxUsualText && at <= size &&
               decoded.AddText(header.count);
    };
    if (!takeArray() || (header.count != 3 && header.count != 4)) return;
    const uint32_t parts = header.count;
    if (!takePart() || header.family != Family::scalar) return;
    const size_t kindAt = at - 1;
    for (uint32_t taken = 2; taken < parts; ++taken) {
        if (!takePart()) return;
    }
    if (!takeArray() || header.count != 2 || !takePart()) return;
    kindAt_ = kindAt;
    position_ = at;
    if (takePart()) {
        position_ = at;
        awaited_ = 0;
    } else {
        depth_ = 2;
        rest_[0] = 0;
        rest_[1] = 1;
    }
    decoded_ = decoded;
}

Framer::Status Framer::Scan(const char* data, size_t size) {
    if (position_ == 0) TakeUsual(data, size);
    while (awaited_ > 0 || position_ < textsEnd_) {
        if (position_ >= size) return Status::incomplete;
        const bool inTexts = position_ < textsEnd_;
        const size_t end = inTexts ? std::min(size, textsEnd_) : size;
        Header header;
        if (!ReadHeader(data + position_, end - position_, header)) {
            return end < size ? Status::malformed : Status::incomplete;
        }
        if (!(inTexts ? TakeText(header) : Take(header))) return Status::malformed;
    }
    return position_ <= size ? Status::complete : Status::incomplete;
}

}  // namespace kel::wire

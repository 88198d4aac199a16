#include "rpc/wire/Framer.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

using namespace kel::wire;
using namespace std::string_literals;

namespace {

using Status = Framer::Status;

// A request whose in-parameter starts with the bytes of `value`.
std::string RequestWith(const std::string& value) { return "\x94\x00\x01\xa1m\x92\xa0"s + value; }

// Feeds one byte more at a time; the result is the verdict and the number of bytes that it took.
std::pair<Status, size_t> FeedByteByByte(const std::string& bytes) {
    Framer framer;
    for (size_t size = 1; size <= bytes.size(); ++size) {
        const Status status = framer.Scan(bytes.data(), size);
        if (status != Status::incomplete) return {status, size};
    }
    return {Status::incomplete, bytes.size()};
}

std::string Nested(size_t depth) { return std::string(depth - 1, '\x91') + '\x90'; }

}  // namespace

TEST(AFramer, FindsTheEndOfAMessageHoweverItsBytesCome) {
    const std::vector<std::string> messages = {
        "\x94\x00\x01\xaeGetSatelliteId\x92\xa6Player\xa8Recorder"s, "\x93\x02\xa1m\x92\xa0\xc0"s,
        "\xdd\0\0\0\4\xcf\0\0\0\0\0\0\0\0\xce\0\0\0\1\xdb\0\0\0\1m\xdc\0\2\xd9\0\xdc\0\1\xc0"s,
        RequestWith("\x9e\xc2\xc3\x7f\xe0\xca\0\0\0\0\xcb\0\0\0\0\0\0\0\0\xcc\0\xcd\0\0\xd0\0\xd1\0\0\xd2\0\0\0\0"
                    "\xd3\0\0\0\0\0\0\0\0\x90\xc0"s),
        RequestWith(
            "\x9b\xc4\2ab\xc5\0\1a\xc6\0\0\0\1a\xc7\0\1\xc8\0\0\x42\xc9\0\0\0\0\x42\xd4\x10z\xd5\2zz\xd6\x13zzzz"
            "\xd7\x14zzzzzzzz\xd8\x43zzzzzzzzzzzzzzzz"s)};
    for (const std::string& message : messages) {
        EXPECT_EQ(FeedByteByByte(message), std::make_pair(Status::complete, message.size()));
        Framer framer;
        EXPECT_EQ(framer.Scan((message + "\x94\x00"s).data(), message.size() + 2), Status::complete);
        EXPECT_EQ(framer.length(), message.size()) << "bytes behind it belong to the next message";
    }
}

TEST(AFramer, RefusesWhatIsNoMessageOrMoreThanALimitAtTheByteThatSaysSo) {
    std::vector<std::string> refused = {"\xc1", "\x80", "\xde", "\xdf", "\x05", "\xc0", "\xa5", "G", "\x92", "\x95"};
    for (const std::string& length : {"\xdc\0\5"s, "\xdd\0\0\0\0"s}) refused.push_back(length);
    for (const std::string& value : {"\xc1"s, "\x91\x81"s, "\xdf"s}) refused.push_back(RequestWith(value));
    // A text, bytes and an extension of more than a message, then 1,048,577 values and numbers.
    for (const std::string& header :
         {"\xdb\xff\xff\xff\xff"s, "\xdb\x01\0\0\0"s, "\xc6\x01\0\0\0"s, "\xc9\xff\xff\xff\xff\x43"s,
          "\xdd\xff\xff\xff\xff"s, "\xdd\x00\x10\x00\x01"s, "\xc9\x00\x20\x00\x02\x42"s, "\xc9\x00\x80\x00\x08\x45"s,
          "\xc9\x00\x10\x00\x01\x50"s}) {
        refused.push_back(RequestWith(header));
    }
    for (const std::string& bytes : refused) {
        EXPECT_EQ(FeedByteByByte(bytes), std::make_pair(Status::malformed, bytes.size()))
            << testing::PrintToString(bytes);
        Framer framer;
        framer.Scan(bytes.data(), bytes.size());
        EXPECT_EQ(framer.Scan(bytes.data(), bytes.size()), Status::malformed) << "and keeps refusing";
    }
    for (const std::string& header :
         {"\xdd\x00\x10\x00\x00"s, "\xc9\x00\x20\x00\x00\x42"s,
          "\xc6\x00\xff\x00\x00"s /* a byte array may be longer */, "\xc9\x00\xff\x00\x00\x48"s}) {
        EXPECT_EQ(FeedByteByByte(RequestWith(header)).first, Status::incomplete) << testing::PrintToString(header);
    }
}

TEST(AFramer, AllowsAMessageOfExactlyTheLimit) {
    const std::string head = RequestWith("\xc6"s);
    const size_t body = maxMessageBytes - head.size() - 4;
    const auto announcing = [&](size_t size) {
        return head + static_cast<char>(size >> 24) + static_cast<char>(size >> 16) + static_cast<char>(size >> 8) +
               static_cast<char>(size);
    };
    const std::string fits = announcing(body) + std::string(body, '\0');
    Framer framer;
    EXPECT_EQ(framer.Scan(fits.data(), fits.size() - 1), Status::incomplete);
    EXPECT_EQ(framer.Scan(fits.data(), fits.size()), Status::complete);
    EXPECT_EQ(framer.length(), maxMessageBytes);
    EXPECT_EQ(FeedByteByByte(announcing(body + 1)).first, Status::malformed);
}

TEST(AFramer, CountsWhatEarlierHeadersAnnouncedTowardsTheLimits) {
    const std::string array = "\xdd\x00\x10\x00\x00"s;  // 1,048,576 values that must still come
    const std::string most = RequestWith(array + array);
    EXPECT_EQ(FeedByteByByte(most).first, Status::incomplete);
    EXPECT_EQ(FeedByteByByte(most + array), std::make_pair(Status::malformed, most.size() + array.size()));
    EXPECT_EQ(FeedByteByByte(RequestWith(array + "\xc6\x00\xe0\x00\x00"s)).first, Status::incomplete);
    EXPECT_EQ(FeedByteByByte(RequestWith(array + "\xc6\x00\xf0\x00\x00"s)).first, Status::malformed);
}

TEST(AFramer, RefusesAMessageWhoseValuesTakeTooMuchMemory) {
    // Empty texts take 48 bytes each: that many of them are over the limit before their array is complete.
    const size_t fits = (maxDecodedBytes - (16u << 20)) / 32 - 10;
    std::string bytes = RequestWith("\xdd\x00\x10\x00\x00"s + std::string(fits, '\xa0'));
    Framer framer;
    EXPECT_EQ(framer.Scan(bytes.data(), bytes.size()), Status::incomplete);
    bytes.append(10, '\xa0');
    EXPECT_EQ(framer.Scan(bytes.data(), bytes.size()), Status::malformed);

    // In an array of texts, however its bytes come, likewise; what it announces is not all that it takes.
    const std::string texts = RequestWith("\x92\xc9\x00\x10\x00\x00\x48"s + std::string(1u << 20, '\xa0'));
    EXPECT_EQ(FeedByteByByte(texts).first, Status::incomplete);
    bytes = texts + "\xc9\x00\x04\x00\x00\x48"s + std::string(1u << 18, '\xa0');
    EXPECT_EQ(FeedByteByByte(bytes).first, Status::malformed);
    EXPECT_EQ(FeedByteByByte(RequestWith("\xc7\3\x48\xa1z\xd9"s) + '\0').first, Status::malformed) << "cut text";
}

TEST(AFramer, AllowsAVariantThirtyTwoArraysInsideEachOtherAndNoMore) {
    const std::string deepest = RequestWith(Nested(32));
    EXPECT_EQ(FeedByteByByte(deepest), std::make_pair(Status::complete, deepest.size()));
    EXPECT_EQ(FeedByteByByte(RequestWith(Nested(33))).first, Status::malformed);

    const std::string response = "\x94\x01\x01\xc0\x92\x00"s;
    EXPECT_EQ(FeedByteByByte(response + Nested(32)).first, Status::complete);
    EXPECT_EQ(FeedByteByByte(response + Nested(33)).first, Status::malformed);

    // Arrays beside each other do not add up, and a last element is as deep as a first one.
    const std::string beside = RequestWith("\x92" + Nested(31) + Nested(31));
    EXPECT_EQ(FeedByteByByte(beside), std::make_pair(Status::complete, beside.size()));
    EXPECT_EQ(FeedByteByByte(RequestWith("\x92" + Nested(31) + Nested(32))).first, Status::malformed);
}

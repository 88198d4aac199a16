#include "rpc/wire/Codec.h"

#include "rpc/wire/Framer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

using namespace kel::wire;
using namespace std::string_literals;

namespace {

ScopedVariant Scalar(VARTYPE vt, long long number) {
    ScopedVariant value;
    value.vt = vt;
    value.llVal = number;
    return value;
}

ScopedVariant ArrayOf(VARTYPE elementVt, uint32_t count) {
    ScopedVariant value;
    const SAFEARRAYBOUND bound = {count, 0};
    value.parray = SafeArrayCreate(elementVt, 1, &bound);
    value.vt = static_cast<VARTYPE>(VT_ARRAY | elementVt);
    return value;
}

template <typename Number>
ScopedVariant Numbers(VARTYPE elementVt, const std::vector<Number>& numbers) {
    ScopedVariant value = ArrayOf(elementVt, static_cast<uint32_t>(numbers.size()));
    void* data = nullptr;
    SafeArrayAccessData(value.parray, &data);
    std::copy(numbers.begin(), numbers.end(), static_cast<Number*>(data));
    SafeArrayUnaccessData(value.parray);
    return value;
}

ScopedVariant Texts(const std::vector<const char*>& texts) {
    ScopedVariant value = ArrayOf(VT_BSTR, static_cast<uint32_t>(texts.size()));
    for (size_t i = 0; i < texts.size(); ++i) {
        long index = static_cast<long>(i);
        const ScopedVariant text = MakeString(texts[i]);
        SafeArrayPutElement(value.parray, &index, text.bstrVal);
    }
    return value;
}

template <typename... Values>
ScopedVariant Variants(Values... values) {
    ScopedVariant array = ArrayOf(VT_VARIANT, sizeof...(values));
    long index = 0;
    ((SafeArrayPutElement(array.parray, &index, &values), ++index), ...);
    return array;
}

ScopedVariant Nested(unsigned depth) {
    ScopedVariant value = ArrayOf(VT_VARIANT, 0);
    while (--depth > 0) value = Variants(std::move(value));
    return value;
}

const std::string requestHead =
    "\x94\x00\x07\xa1m\x92\xa1"
    "c"s;

// The bytes that `value` has in a request; "refused" when it cannot travel.
std::string Encoded(const tagVARIANT& value) {
    std::string bytes;
    if (!EncodeRequest(bytes, 7, "m", "c", value)) return "refused";
    EXPECT_EQ(bytes.substr(0, requestHead.size()), requestHead);
    return bytes.substr(requestHead.size());
}

bool Decodes(const std::string& bytes, Message& message) { return Decode(bytes.data(), bytes.size(), message); }

bool Decodes(const std::string& bytes) {
    Message message;
    return Decodes(bytes, message);
}

bool ValueDecodes(const std::string& valueBytes) { return Decodes(requestHead + valueBytes); }

}  // namespace

TEST(ACodec, WritesAndReadsTheBytesOfTheWorkedExample) {
    std::string bytes;
    ASSERT_TRUE(EncodeRequest(bytes, 1, "GetSatelliteId", "Player", MakeString("Recorder")));
    EXPECT_EQ(bytes, "\x94\x00\x01\xaeGetSatelliteId\x92\xa6Player\xa8Recorder"s);
    Message message;
    ASSERT_TRUE(Decodes(bytes, message));
    EXPECT_EQ(message.kind, MessageKind::request);
    EXPECT_EQ(message.id, 1u);
    EXPECT_EQ(message.method, "GetSatelliteId");
    EXPECT_EQ(message.caller, "Player");
    ASSERT_EQ(message.value.vt, VT_BSTR);
    EXPECT_STREQ(message.value.bstrVal, "Recorder");

    bytes.clear();
    ASSERT_TRUE(EncodeResponse(bytes, 1, 0, MakeInt(17)));
    EXPECT_EQ(bytes, "\x94\x01\x01\xc0\x92\x00\x11"s);
    ASSERT_TRUE(Decodes(bytes, message));
    EXPECT_EQ(message.kind, MessageKind::response);
    EXPECT_FALSE(message.failed);
    EXPECT_EQ(message.code, 0);
    ASSERT_EQ(message.value.vt, VT_I4);
    EXPECT_EQ(message.value.lVal, 17);

    bytes.clear();
    EncodeError(bytes, 2, 0x20004, "unknown method Rewind");
    EXPECT_EQ(bytes, "\x94\x01\x02\x92\xce\x00\x02\x00\x04\xb5unknown method Rewind\xc0"s);
    ASSERT_TRUE(Decodes(bytes, message));
    EXPECT_TRUE(message.failed);
    EXPECT_EQ(message.code, 0x20004);
    EXPECT_EQ(message.errorText, "unknown method Rewind");
    EXPECT_EQ(message.value.vt, VT_EMPTY) << "nothing is left of the message before";

    bytes.clear();
    const ScopedVariant record =
        Variants(MakeString("Recorder"), MakeString("studio"), Scalar(VT_UI2, 50123), MakeInt(1), MakeInt(0),
                 MakeInt(1), Variants(Variants(MakeString("Schedule"), MakeString("Recording schedule"))));
    ASSERT_TRUE(EncodeRequest(bytes, 3, "Register", "Recorder", record));
    EXPECT_EQ(bytes,
              "\x94\x00\x03\xa8Register\x92\xa8Recorder\x97\xa8Recorder\xa6studio\xd5\x12\xc3\xcb\x01\x00\x01"
              "\x91\x92\xa8Schedule\xb2Recording schedule"s);

    bytes.clear();
    const ScopedVariant change = Variants(MakeString("Schedule"), MakeString("Recorder"), MakeInt(1));
    ASSERT_TRUE(EncodeNotification(bytes, "Changed", "Recorder", change));
    EXPECT_EQ(bytes,
              "\x93\x02\xa7"
              "Changed\x92\xa8Recorder\x93\xa8Schedule\xa8Recorder\x01"s);
    ASSERT_TRUE(Decodes(bytes, message));
    EXPECT_EQ(message.kind, MessageKind::notification);
}

TEST(ACodec, CarriesEveryTypeInItsOwnFormAndBack) {
    const std::vector<std::pair<ScopedVariant, std::string>> forms = [] {
        std::vector<std::pair<ScopedVariant, std::string>> all;
        const auto add = [&all](ScopedVariant value, const std::string& bytes) {
            all.emplace_back(std::move(value), bytes);
        };
        add(ScopedVariant(), "\xc0");
        add(MakeBool(true), "\xc3");
        add(MakeBool(false), "\xc2");
        add(MakeInt(-1), "\xff");
        add(MakeInt(INT32_MIN), "\xd2\x80\x00\x00\x00"s);
        add(MakeInt(INT32_MAX), "\xce\x7f\xff\xff\xff"s);
        add(Scalar(VT_R4, 0x3fc00000), "\xca\x3f\xc0\x00\x00"s);  // 1.5
        add(Scalar(VT_R4, 0x40000000), "\xca\x40\x00\x00\x00"s);  // 2: stays a float
        add(MakeDouble(2), "\xcb\x40\x00\x00\x00\x00\x00\x00\x00"s);
        add(MakeString("Gr\xc3\xbc\xc3\x9f\xff"), "\xa7Gr\xc3\xbc\xc3\x9f\xff");
        add(MakeString(std::string(300, 'x').c_str()), "\xda\x01\x2c" + std::string(300, 'x'));
        add(Scalar(VT_NULL, 0), "\xc7\x00\x01"s);
        add(Scalar(VT_I1, 0xfe), "\xd4\x10\xfe");
        add(Scalar(VT_UI1, 0xfe), "\xd4\x11\xfe");
        add(Scalar(VT_I2, 0xfffe), "\xd5\x02\xff\xfe");
        add(Scalar(VT_UI2, 0x1234), "\xd5\x12\x12\x34");
        add(Scalar(VT_UI4, 0x12345678), "\xd6\x13\x12\x34\x56\x78");
        add(Scalar(VT_I8, 5), "\xd7\x14\x00\x00\x00\x00\x00\x00\x00\x05"s);
        add(Scalar(VT_UI8, -1), "\xd7\x15\xff\xff\xff\xff\xff\xff\xff\xff");
        add(Scalar(VT_DATE, 0x4000000000000000), "\xd7\x07\x40\x00\x00\x00\x00\x00\x00\x00"s);
        add(Variants(), "\x90");
        add(Variants(MakeInt(0), MakeString(""), Variants(ScopedVariant())), "\x93\x00\xa0\x91\xc0"s);
        add(ArrayOf(VT_UI1, 0), "\xc4\x00"s);
        add(Numbers<uint8_t>(VT_UI1, {0, 1, 255}), "\xc4\x03\x00\x01\xff"s);
        add(Numbers<int8_t>(VT_I1, {-1, 1, 2}), "\xc7\x03\x50\xff\x01\x02"s);
        add(Numbers<int16_t>(VT_I2, {-2, 1}), "\xd6\x42\xff\xfe\x00\x01"s);
        add(Numbers<uint16_t>(VT_UI2, {0x1234}), "\xd5\x52\x12\x34");
        add(Numbers<int16_t>(VT_BOOL, {-1, 0}), "\xd6\x4b\xff\xff\x00\x00"s);
        add(Numbers<int32_t>(VT_I4, {1}), "\xd6\x43\x00\x00\x00\x01"s);
        add(Numbers<uint32_t>(VT_UI4, {1, 2}), "\xd7\x53\x00\x00\x00\x01\x00\x00\x00\x02"s);
        add(Numbers<float>(VT_R4, {1.5f}), "\xd6\x44\x3f\xc0\x00\x00"s);
        add(Numbers<double>(VT_R8, {1.5}), "\xd7\x45\x3f\xf8\x00\x00\x00\x00\x00\x00"s);
        add(Numbers<double>(VT_DATE, {2}), "\xd7\x47\x40\x00\x00\x00\x00\x00\x00\x00"s);
        add(Numbers<int64_t>(VT_I8, {-2}), "\xd7\x54\xff\xff\xff\xff\xff\xff\xff\xfe");
        add(Numbers<uint64_t>(VT_UI8, {2, 1}),
            "\xd8\x55" + std::string(7, '\0') + '\x02' + std::string(7, '\0') + '\x01');
        add(ArrayOf(VT_I4, 0), "\xc7\x00\x43"s);
        add(ArrayOf(VT_BSTR, 0), "\xc7\x00\x48"s);
        add(Texts({"one", "", std::string(40, 'x').c_str()}), "\xc7\x2f\x48\xa3one\xa0\xd9\x28" + std::string(40, 'x'));
        return all;
    }();
    for (const auto& [value, bytes] : forms) {
        EXPECT_EQ(Encoded(value), bytes) << "type " << value.vt;
        Message message;
        ASSERT_TRUE(Decodes(requestHead + bytes, message)) << "type " << value.vt;
        EXPECT_EQ(message.value.vt, value.vt);
        EXPECT_EQ(Encoded(message.value), bytes) << "type " << value.vt;
    }
}

TEST(ACodec, ReadsIntegersOfEveryWidthByTheirValue) {
    const std::vector<std::pair<std::string, ScopedVariant>> integers = [] {
        std::vector<std::pair<std::string, ScopedVariant>> all;
        const auto add = [&all](const std::string& bytes, ScopedVariant value) {
            all.emplace_back(bytes, std::move(value));
        };
        for (const std::string& five :
             {"\x05"s, "\xcc\x05"s, "\xcd\0\x05"s, "\xce\0\0\0\x05"s, "\xcf\0\0\0\0\0\0\0\x05"s, "\xd0\x05"s,
              "\xd1\0\x05"s, "\xd2\0\0\0\x05"s, "\xd3\0\0\0\0\0\0\0\x05"s}) {
            add(five, MakeInt(5));
        }
        add("\xd3\xff\xff\xff\xff\x80\0\0\0"s, MakeInt(INT32_MIN));
        add("\xd3\xff\xff\xff\xff\x7f\xff\xff\xff", Scalar(VT_I8, int64_t{INT32_MIN} - 1));
        add("\xce\x80\0\0\0"s, Scalar(VT_I8, int64_t{INT32_MAX} + 1));
        add("\xcf\x7f\xff\xff\xff\xff\xff\xff\xff", Scalar(VT_I8, INT64_MAX));
        add("\xcf\x80\0\0\0\0\0\0\0"s, Scalar(VT_UI8, INT64_MIN));
        return all;
    }();
    for (const auto& [bytes, value] : integers) {
        Message message;
        ASSERT_TRUE(Decodes(requestHead + bytes, message)) << testing::PrintToString(bytes);
        EXPECT_EQ(message.value.vt, value.vt) << testing::PrintToString(bytes);
        EXPECT_EQ(Encoded(message.value), Encoded(value)) << testing::PrintToString(bytes);
    }
}

TEST(ACodec, RefusesValuesThatAreNoVariant) {
    const std::vector<std::string> refused = {"",
                                              "\xc1",
                                              "\x80",
                                              "\x91\x80",
                                              "\xc0\xc0",  // nothing, no value, maps, two values
                                              "\xc7\x00\x00"s,
                                              "\xd6\x03zzzz",
                                              "\xd6\x04zzzz",
                                              "\xd7\x05zzzzzzzz",
                                              "\xa1\0"s,  // types with a form of their own
                                              "\xd4\x08z",
                                              "\xd5\x0bzz",
                                              "\xd4\x0cz",
                                              "\xd4\xffz",
                                              "\xd4\x16z",
                                              "\xd4\x40z",
                                              "\xd4\x41z",
                                              "\xd4\x4cz",
                                              "\xd4\x51z",
                                              "\xd4\x01z",
                                              "\xd4\x02z",
                                              "\xd6\x12zzzz",
                                              "\xd6\x14zzzz",
                                              "\xd6\x07zzzz",  // a size that is not the type's
                                              "\xc7\x03\x42zzz",
                                              "\xd5\x43zz",
                                              "\xd6\x45zzzz",
                                              "\xd4\x48\x01",
                                              "\xd5\x48\xa2z",
                                              "\xd4\x48\xd9",
                                              "\xd5\x48\xa1\0"s,
                                              "\xd6\x48\xa1z\x91\xa0",  // no texts
                                              "\xa3"
                                              "a\0b"s};
    for (const std::string& bytes : refused) EXPECT_FALSE(ValueDecodes(bytes)) << testing::PrintToString(bytes);
}

TEST(ACodec, RefusesMessagesOfAnotherShape) {
    const std::vector<std::string> good = {
        "\x94\x00\x01\xa1m\x92\xa1"
        "c\xc0"s,
        "\x93\x02\xa1m\x92\xa0\xc0"s, "\x94\x01\x01\xc0\x92\x00\xc0"s, "\x94\x01\x01\x92\x01\xa1t\xc0"s,
        "\x94\x01\xce\xff\xff\xff\xff\xc0\x92\xd2\x80\0\0\0\xc0"s};
    for (const std::string& bytes : good) {
        EXPECT_TRUE(Decodes(bytes)) << testing::PrintToString(bytes);
        EXPECT_FALSE(Decodes(bytes + '\xc0')) << "bytes behind the end";
        for (size_t size = 0; size < bytes.size(); ++size) EXPECT_FALSE(Decodes(bytes.substr(0, size))) << size;
    }
    const std::vector<std::string> refused = {"\x93\x00\x01\xa1m"s,
                                              "\x93\x01\x01\xc0"s,
                                              "\x94\x02\xa1m\x92\xa0\xc0\xc0"s,  // parts of another kind
                                              "\x94\x03\x01\xa1m\x92\xa0\xc0"s,
                                              "\x94\xff\x01\xa1m\x92\xa0\xc0",
                                              "\x94\xc0\x01\xa1m\x92\xa0\xc0",
                                              "\x94\x00\xff\xa1m\x92\xa0\xc0"s,
                                              "\x94\x00\xcf\0\0\0\1\0\0\0\0\xa1m\x92\xa0\xc0"s,  // ids
                                              "\x94\x00\x01\x05\x92\xa0\xc0"s,
                                              "\x94\x00\x01\xa1m\x92\xc0\xc0"s,  // names that are none
                                              "\x94\x00\x01\xa2"
                                              "a\0\x92\xa0\xc0"s,
                                              "\x94\x00\x01\xa1m\x92\xa1\0\xc0"s,
                                              "\x94\x00\x01\xa1m\x91\xa0"s,
                                              "\x94\x00\x01\xa1m\x93\xa0\xc0\xc0"s,
                                              "\x94\x00\x01\xa1m\xc0"s,
                                              "\x94\x01\x01\xc0\xc0"s,
                                              "\x94\x01\x01\x92\x01\xa1t\x92\x00\xc0"s,  // neither, both
                                              "\x94\x01\x01\xc0\x91\x00"s,
                                              "\x94\x01\x01\xc0\x92\xc0\xc0"s,
                                              "\x94\x01\x01\x91\x01\xc0"s,
                                              "\x94\x01\x01\x92\xa1t\x01\xc0"s,
                                              "\x94\x01\x01\x92\x01\xc0\xc0"s,
                                              "\x94\x01\x01\xa1t\xc0"s,
                                              "\x94\x01\x01\xc0\x92\xce\x80\0\0\0\xc0"s,
                                              "\x94\x01\x01\x92\xd3\xff\xff\xff\xff\x7f\xff\xff\xff\xa1t\xc0"s,
                                              "\xc0"s,
                                              ""s};
    for (const std::string& bytes : refused) EXPECT_FALSE(Decodes(bytes)) << testing::PrintToString(bytes);
}

TEST(ACodec, DoesNotEncodeWhatCannotTravelAndLeavesTheOutputAlone) {
    ScopedVariant fromOne = ArrayOf(VT_I4, 2);
    const SAFEARRAYBOUND bound = {2, 1};
    ASSERT_EQ(SafeArrayRedim(fromOne.parray, &bound), 0);
    EXPECT_EQ(Encoded(fromOne), "refused");

    ScopedVariant otherElements = ArrayOf(VT_UI1, 2);
    otherElements.vt = VT_ARRAY | VT_VARIANT;
    EXPECT_EQ(Encoded(otherElements), "refused");
    otherElements.vt = VT_ARRAY | VT_UI1;

    for (const VARTYPE vt : {6, 9, 12, 13, 22, 64, 0x4003, 0x200c, 0x2003, 0x2011, 0x2008, 0x2001}) {
        EXPECT_EQ(Encoded(Scalar(vt, 0)), "refused") << vt;  // types that are none, and arrays that are null
    }

    std::string bytes = "kept";
    EXPECT_FALSE(EncodeRequest(bytes, 1, "a\0b"s, "c", ScopedVariant()));
    EXPECT_FALSE(EncodeRequest(bytes, 1, "m", "\0"s, ScopedVariant()));
    EXPECT_FALSE(EncodeNotification(bytes, "m", "c", Variants(MakeString("before"), Scalar(VT_VARIANT, 0))));
    EXPECT_FALSE(EncodeResponse(bytes, 1, 0, Scalar(6, 0)));
    EXPECT_EQ(bytes, "kept");
    EXPECT_TRUE(EncodeResponse(bytes, 1, 0, ScopedVariant()));
    EXPECT_EQ(bytes, "kept\x94\x01\x01\xc0\x92\x00\xc0"s) << "and is appended to";
}

TEST(ACodec, WritesAnyTruthAsTrueAndANullTextAsTheEmptyOne) {
    EXPECT_EQ(Encoded(Scalar(VT_BOOL, 1)), "\xc3");
    EXPECT_EQ(Encoded(Scalar(VT_BSTR, 0)), "\xa0");
    EXPECT_EQ(Encoded(ArrayOf(VT_BSTR, 2)), "\xd5\x48\xa0\xa0");
    Message message;
    ASSERT_TRUE(Decodes(requestHead + "\xc3", message));
    EXPECT_EQ(message.value.boolVal, VARIANT_TRUE);
}

TEST(ACodec, HoldsBothDirectionsToTheLimits) {
    EXPECT_EQ(Encoded(Nested(32)), std::string(31, '\x91') + '\x90');
    EXPECT_TRUE(ValueDecodes(std::string(31, '\x91') + '\x90'));
    EXPECT_EQ(Encoded(Nested(33)), "refused");
    EXPECT_FALSE(ValueDecodes(std::string(32, '\x91') + '\x90'));
    EXPECT_FALSE(ValueDecodes(std::string(100000, '\x91') + '\x90'));

    const auto most = static_cast<uint32_t>(maxArrayElements);
    for (const VARTYPE vt : {VT_VARIANT, VT_BSTR, VT_I2, VT_R8}) {
        const std::string bytes = Encoded(ArrayOf(vt, most));
        EXPECT_NE(bytes, "refused") << vt;
        EXPECT_TRUE(ValueDecodes(bytes)) << vt;
        EXPECT_EQ(Encoded(ArrayOf(vt, most + 1)), "refused") << vt;
    }
    EXPECT_FALSE(ValueDecodes("\xdd\x00\x10\x00\x01"s + std::string(most + 1, '\xc0')));
    EXPECT_FALSE(ValueDecodes("\xc9\x00\x10\x00\x01\x48"s + std::string(most + 1, '\xa0')));
    EXPECT_FALSE(ValueDecodes("\xc9\x00\x20\x00\x02\x42"s + std::string(2 * most + 2, '\0')));
    EXPECT_FALSE(ValueDecodes("\xdd\x00\x10\x00\x00\xc0"s)) << "announced, and not there";

    const auto room = static_cast<uint32_t>(maxMessageBytes - requestHead.size() - 5);
    const std::string largest = Encoded(ArrayOf(VT_UI1, room));
    EXPECT_EQ(requestHead.size() + largest.size(), maxMessageBytes);
    EXPECT_TRUE(ValueDecodes(largest)) << "byte arrays are bounded by the message alone";
    EXPECT_EQ(Encoded(ArrayOf(VT_UI1, room + 1)), "refused");
    EXPECT_EQ(Encoded(MakeString(std::string(maxMessageBytes, 'x').c_str())), "refused");
    EXPECT_EQ(Encoded(Variants(ArrayOf(VT_R8, most), ArrayOf(VT_R8, most))), "refused");
}

TEST(ACodec, CutsAnErrorTextThatDoesNotFit) {
    std::string bytes;
    EncodeError(bytes, UINT32_MAX, INT32_MIN, std::string(2 * maxMessageBytes, 'x'));
    EXPECT_EQ(bytes.size(), maxMessageBytes);
    Framer framer;
    EXPECT_EQ(framer.Scan(bytes.data(), bytes.size()), Framer::Status::complete);
    EXPECT_TRUE(Decodes(bytes));

    bytes.clear();
    EncodeError(bytes, 1, 1, "shown\0hidden"s);
    EXPECT_EQ(bytes, "\x94\x01\x01\x92\x01\xa5shown\xc0");
}

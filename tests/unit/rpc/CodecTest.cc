#include "rpc/wire/Codec.h"

#include "rpc/wire/Framer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <sstream>
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

template <typename... Values>
ScopedVariant Variants(Values... values) {
    ScopedVariant array = ArrayOf(VT_VARIANT, sizeof...(values));
    long index = 0;
    ((SafeArrayPutElement(array.parray, &index, &values), ++index), ...);
    return array;
}

template <typename... Values>
ScopedVariant Texts(Values... values) {
    ScopedVariant array = ArrayOf(VT_BSTR, sizeof...(values));
    long index = 0;
    ((SafeArrayPutElement(array.parray, &index, MakeString(values).bstrVal), ++index), ...);
    return array;
}

ScopedVariant Nested(unsigned depth) {
    ScopedVariant value = ArrayOf(VT_VARIANT, 0);
    while (--depth > 0) value = Variants(std::move(value));
    return value;
}

const std::string requestHead = "\x94\x00\x07\xa1m\x92\xa1\x63"s;

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

// The bytes that each word of `hex` stands for.
std::vector<std::string> Rows(const char* hex) {
    std::vector<std::string> rows;
    std::istringstream words(hex);
    for (std::string word; words >> word;) {
        rows.emplace_back();
        for (size_t i = 0; i < word.size(); i += 2)
            rows.back() += static_cast<char>(std::stoi(word.substr(i, 2), nullptr, 16));
    }
    return rows;
}

bool ValueDecodes(const std::string& valueBytes) { return Decodes(requestHead + valueBytes); }

}  // namespace

TEST(ACodec, WritesAndReadsTheBytesOfTheWorkedExample) {
    std::string bytes;
    Message message;
    ASSERT_TRUE(EncodeRequest(bytes, 1, "GetSatelliteId", "Player", MakeString("Recorder")));
    EXPECT_EQ(bytes, "\x94\x00\x01\xaeGetSatelliteId\x92\xa6Player\xa8Recorder"s);
    ASSERT_TRUE(Decodes(bytes, message));
    EXPECT_EQ(message.kind, MessageKind::request);
    EXPECT_EQ(message.id, 1u);
    EXPECT_EQ(message.method + " " + message.caller, "GetSatelliteId Player");
    EXPECT_EQ(Encoded(message.value), "\xa8Recorder");

    bytes.clear();
    ASSERT_TRUE(EncodeResponse(bytes, 1, 0, MakeInt(17)));
    EXPECT_EQ(bytes, "\x94\x01\x01\xc0\x92\x00\x11"s);
    ASSERT_TRUE(Decodes(bytes, message));
    EXPECT_EQ(message.kind, MessageKind::response);
    EXPECT_FALSE(message.failed);
    EXPECT_EQ(message.code, 0);
    EXPECT_EQ(Encoded(message.value), "\x11");

    bytes.clear();
    EncodeError(bytes, 2, 0x20004, "unknown method Rewind");
    EXPECT_EQ(bytes, "\x94\x01\x02\x92\xce\x00\x02\x00\x04\xb5unknown method Rewind\xc0"s);
    ASSERT_TRUE(Decodes(bytes, message));
    EXPECT_TRUE(message.failed);
    EXPECT_EQ(message.code, 0x20004);
    EXPECT_EQ(message.errorText, "unknown method Rewind");
    EXPECT_EQ(message.value.vt, VT_EMPTY) << "nothing is left of the message before";

    bytes.clear();
    ASSERT_TRUE(EncodeNotification(bytes, "Changed", "Recorder", Variants(MakeString("Schedule"), MakeInt(1))));
    EXPECT_EQ(bytes, "\x93\x02\xa7\x43hanged\x92\xa8Recorder\x92\xa8Schedule\x01"s);
    ASSERT_TRUE(Decodes(bytes, message));
    EXPECT_EQ(message.kind, MessageKind::notification);
}

TEST(ACodec, CarriesEveryTypeInItsOwnFormAndBack) {
    const struct {
        ScopedVariant value;
        std::string bytes;
    } forms[] = {
        {Scalar(VT_BOOL, 1), "\xc3"},
        {Scalar(VT_BSTR, 0), "\xa0"},
        {ArrayOf(VT_BSTR, 2), "\xd5\x48\xa0\xa0"},
        {ScopedVariant(), "\xc0"},
        {MakeBool(false), "\xc2"},
        {MakeInt(-1), "\xff"},
        {MakeInt(INT32_MIN), "\xd2\x80\x00\x00\x00"s},
        {MakeInt(INT32_MAX), "\xce\x7f\xff\xff\xff"s},
        {Scalar(VT_R4, 0x3fc00000), "\xca\x3f\xc0\x00\x00"s},
        {Scalar(VT_R4, 0x40000000), "\xca\x40\x00\x00\x00"s},
        {MakeDouble(2), "\xcb\x40\x00\x00\x00\x00\x00\x00\x00"s},
        {MakeString("Gr\xc3\xbc\xc3\x9f\xff"), "\xa7Gr\xc3\xbc\xc3\x9f\xff"},
        {MakeString(std::string(300, 'x').c_str()), "\xda\x01\x2c" + std::string(300, 'x')},
        {Scalar(VT_NULL, 0), "\xc7\x00\x01"s},
        {Scalar(VT_I1, 0xfe), "\xd4\x10\xfe"},
        {Scalar(VT_UI1, 0xfe), "\xd4\x11\xfe"},
        {Scalar(VT_I2, 0xfffe), "\xd5\x02\xff\xfe"},
        {Scalar(VT_UI2, 0x1234), "\xd5\x12\x12\x34"},
        {Scalar(VT_UI4, 0x12345678), "\xd6\x13\x12\x34\x56\x78"},
        {Scalar(VT_I8, 5), "\xd7\x14\x00\x00\x00\x00\x00\x00\x00\x05"s},
        {Scalar(VT_UI8, -1), "\xd7\x15\xff\xff\xff\xff\xff\xff\xff\xff"},
        {Scalar(VT_DATE, 0x4000000000000000), "\xd7\x07\x40\x00\x00\x00\x00\x00\x00\x00"s},
        {Variants(), "\x90"},
        {Variants(MakeInt(0), MakeString(""), Variants(ScopedVariant())), "\x93\x00\xa0\x91\xc0"s},
        {ArrayOf(VT_UI1, 0), "\xc4\x00"s},
        {Numbers<uint8_t>(VT_UI1, {0, 1, 255}), "\xc4\x03\x00\x01\xff"s},
        {Numbers<int8_t>(VT_I1, {-1, 1, 2}), "\xc7\x03\x50\xff\x01\x02"s},
        {Numbers<int16_t>(VT_I2, {-2, 1}), "\xd6\x42\xff\xfe\x00\x01"s},
        {Numbers<uint16_t>(VT_UI2, {0x1234}), "\xd5\x52\x12\x34"},
        {Numbers<int16_t>(VT_BOOL, {-1, 0}), "\xd6\x4b\xff\xff\x00\x00"s},
        {Numbers<int32_t>(VT_I4, {1}), "\xd6\x43\x00\x00\x00\x01"s},
        {Numbers<uint32_t>(VT_UI4, {1, 2}), "\xd7\x53\x00\x00\x00\x01\x00\x00\x00\x02"s},
        {Numbers<float>(VT_R4, {1.5f}), "\xd6\x44\x3f\xc0\x00\x00"s},
        {Numbers<double>(VT_R8, {1.5}), "\xd7\x45\x3f\xf8\x00\x00\x00\x00\x00\x00"s},
        {Numbers<double>(VT_DATE, {2}), "\xd7\x47\x40\x00\x00\x00\x00\x00\x00\x00"s},
        {Numbers<int64_t>(VT_I8, {-2}), "\xd7\x54\xff\xff\xff\xff\xff\xff\xff\xfe"},
        {Numbers<uint64_t>(VT_UI8, {2, 1}), "\xd8\x55" + std::string(7, '\0') + '\x02' + std::string(7, '\0') + '\x01'},
        {ArrayOf(VT_I4, 0), "\xc7\x00\x43"s},
        {ArrayOf(VT_BSTR, 0), "\xc7\x00\x48"s},
        {Texts("one", "", std::string(40, 'x').c_str()), "\xc7\x2f\x48\xa3one\xa0\xd9\x28" + std::string(40, 'x')}};
    for (const auto& [value, bytes] : forms) {
        EXPECT_EQ(Encoded(value), bytes) << "type " << value.vt;
        Message message;
        ASSERT_TRUE(Decodes(requestHead + bytes, message)) << "type " << value.vt;
        EXPECT_EQ(message.value.vt, value.vt);
        EXPECT_EQ(Encoded(message.value), bytes) << "type " << value.vt;
        if (value.vt == VT_BOOL) {
            EXPECT_EQ(message.value.boolVal, bytes == "\xc3" ? VARIANT_TRUE : VARIANT_FALSE);
        }
    }
}

TEST(ACodec, ReadsIntegersByTheirValueAndNotByTheirWidth) {
    const struct {
        std::string bytes;
        ScopedVariant value;
    } integers[] = {{"\xcc\xff", MakeInt(255)},
                    {"\xd0\xff", MakeInt(-1)},
                    {"\xcd\xff\xfe", MakeInt(65534)},
                    {"\xd1\xff\xfe", MakeInt(-2)},
                    {"\xd3\xff\xff\xff\xff\x80\0\0\0"s, MakeInt(INT32_MIN)},
                    {"\xd3\xff\xff\xff\xff\x7f\xff\xff\xff", Scalar(VT_I8, int64_t{INT32_MIN} - 1)},
                    {"\xce\x80\0\0\0"s, Scalar(VT_I8, int64_t{INT32_MAX} + 1)},
                    {"\xcf\x7f\xff\xff\xff\xff\xff\xff\xff", Scalar(VT_I8, INT64_MAX)},
                    {"\xcf\x80\0\0\0\0\0\0\0"s, Scalar(VT_UI8, INT64_MIN)}};
    for (const auto& [bytes, value] : integers) {
        Message message;
        ASSERT_TRUE(Decodes(requestHead + bytes, message)) << testing::PrintToString(bytes);
        EXPECT_EQ(message.value.vt, value.vt) << testing::PrintToString(bytes);
        EXPECT_EQ(Encoded(message.value), Encoded(value)) << testing::PrintToString(bytes);
    }
}

TEST(ACodec, RefusesValuesThatAreNoVariant) {
    const char refused[] =
        "c1 80 9180 c0c0 "                                             // no value, maps, two values
        "c70000 d6037a7a7a7a d6047a7a7a7a d7057a7a7a7a7a7a7a7a a100 "  // types with a form of their own
        "d4087a d50b7a7a d40c7a d4ff7a d4167a d4407a d4417a d44c7a d4517a d4017a "
        "d4027a "                                                  // types that are none
        "d6127a7a7a7a d6147a7a7a7a d6077a7a7a7a "                  // of a size that is not the type's
        "c703427a7a7a d5437a7a d6457a7a7a7a "                      // numbers, of another size, too
        "d44801 d548a27a d448d9 d548a100 d648a17a91a0 a3610062 ";  // no texts
    EXPECT_FALSE(ValueDecodes(""));
    for (const std::string& bytes : Rows(refused)) EXPECT_FALSE(ValueDecodes(bytes)) << testing::PrintToString(bytes);
}

TEST(ACodec, RefusesMessagesOfAnotherShape) {
    const std::vector<std::string> good = {"\x94\x00\x01\xa1m\x92\xa1\x63\xc0"s, "\x93\x02\xa1m\x92\xa0\xc0"s,
                                           "\x94\x01\x01\xc0\x92\x00\xc0"s, "\x94\x01\x01\x92\x01\xa1t\xc0"s,
                                           "\x94\x01\xce\xff\xff\xff\xff\xc0\x92\xd2\x80\0\0\0\xc0"s};
    for (const std::string& bytes : good) {
        EXPECT_TRUE(Decodes(bytes)) << testing::PrintToString(bytes);
        EXPECT_FALSE(Decodes(bytes + '\xc0')) << "bytes behind the end";
        for (size_t size = 0; size < bytes.size(); ++size) EXPECT_FALSE(Decodes(bytes.substr(0, size))) << size;
    }
    const char refused[] =
        "930001a16d 930101c0 9402a16d92a0c0c0 "  // parts of another kind
        "940301a16d92a0c0 94ff01a16d92a0c0 94c001a16d92a0c0 9400ffa16d92a0c0 "
        "9400cf0000000100000000a16d92a0c0 "                                       // kinds and ids
        "9400010592a0c0 940001a16d92c0c0 940001a2610092a0c0 940001a16d92a100c0 "  // names that are none
        "940001a16d91a0 940001a16d93a0c0c0 940001a16dc0 "                         // parameters
        "940101c0c0 9401019201a1749200c0 940101c09100 940101c092c0c0 "
        "9401019101c0 94010192a17401c0 9401019201c0c0 940101a174c0 "
        "940101c092ce80000000c0 94010192d3ffffffff7fffffffa174c0 "  // neither, both, or broken results
        "c0 ";                                                      // no array
    EXPECT_FALSE(Decodes(""));
    for (const std::string& bytes : Rows(refused)) EXPECT_FALSE(Decodes(bytes)) << testing::PrintToString(bytes);
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

    // Both stop at the same amount of the reader's memory.
    EXPECT_EQ(Encoded(Variants(ArrayOf(VT_BSTR, most), ArrayOf(VT_BSTR, most / 4))), "refused");
    EXPECT_EQ(Encoded(Variants(ArrayOf(VT_VARIANT, most), ArrayOf(VT_VARIANT, most))), "refused");
    const std::string texts = Encoded(Variants(ArrayOf(VT_BSTR, most), ArrayOf(VT_BSTR, most / 8)));
    ASSERT_NE(texts, "refused");
    EXPECT_TRUE(ValueDecodes(texts));
    EXPECT_FALSE(ValueDecodes("\xdd\x00\x10\x00\x00"s + std::string(most, '\xa0')));
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

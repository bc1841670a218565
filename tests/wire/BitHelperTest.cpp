#include <cmath>
#include <stdexcept>

#include <gtest/gtest.h>

#include "wire/BitConverter.h"
#include "wire/BitHelper.h"

using namespace BitHelper;

TEST(BitHelper, EncodersLayOutLittleEndianIntegersAndUtf8ByteLengths)
{
    EXPECT_EQ(encodeLongLong(1), (Bytes{1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(encodeLongLong(-1), Bytes(8, 0xFF));
    EXPECT_EQ(encodeLongLong(258), (Bytes{2, 1, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(BitConverter::toInt64(encodeLongLong(INT64_MIN).data()), INT64_MIN);
    EXPECT_EQ(encodeLongLongNumber(std::nullopt), Bytes(8, 0));

    // Strings count UTF-8 bytes; an absent one is empty.
    EXPECT_EQ(encodeString(std::string("")), Bytes(8, 0));
    EXPECT_EQ(encodeString(std::optional<std::string>()), Bytes(8, 0));
    EXPECT_EQ(encodeString("\xC3\xA9"), (Bytes{2, 0, 0, 0, 0, 0, 0, 0, 0xC3, 0xA9}));

    EXPECT_TRUE(encodeLongLongArray({}).empty());
    EXPECT_EQ(encodeLongLongArray({5, 6}), (Bytes{5, 0, 0, 0, 0, 0, 0, 0, 6, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(encodeStrings({}), Bytes(8, 0));
    Bytes two = encodeStrings({"a", "bc"});
    EXPECT_EQ(two.size(), 8u + 9u + 10u);
    EXPECT_EQ(two[0], 2);
    EXPECT_EQ(encodeBool(true), Bytes{1});
    EXPECT_EQ(encodeBool(false), Bytes{0});
    EXPECT_EQ(encodeByte(0xAB), Bytes{0xAB});
}

TEST(BitHelper, DatesTruncateTowardZero)
{
    EXPECT_EQ(encodeDate(1.9), encodeLongLong(1));
    EXPECT_EQ(encodeDate(-1.9), encodeLongLong(-1));
    EXPECT_EQ(encodeDate(std::nullopt), encodeLongLong(0));
    Bytes b = encodeLongLong(-5);
    std::int32_t at = 0;
    EXPECT_DOUBLE_EQ(decodeDate(b, at), -5.0);
}

TEST(BitHelper, DecodersMoveTheCursor)
{
    Bytes b = encodeLongLong(42);
    b += encodeBool(true);
    b += Bytes{0x02};
    b += encodeString(std::string("hi"));
    std::int32_t at = 0;
    EXPECT_EQ(decodeLongLong(b, at), 42);
    EXPECT_TRUE(decodeBool(b, at));
    EXPECT_TRUE(decodeBool(b, at)); // any non-zero byte is true
    EXPECT_EQ(decodeString(b, at), std::optional<std::string>("hi"));
    EXPECT_EQ(at, static_cast<std::int32_t>(b.size()));
}

TEST(BitHelper, DecodersFailPastTheEnd)
{
    Bytes shortString = encodeLongLong(10);
    shortString += Bytes{'a', 'b', 'c', 'd'};
    std::int32_t at = 0;
    EXPECT_THROW(decodeString(shortString, at), std::out_of_range);
    EXPECT_EQ(at, 8); // the length was read, the bytes were not

    Bytes seven(7, 0);
    at = 0;
    EXPECT_THROW(decodeLongLong(seven, at), std::out_of_range);
    EXPECT_EQ(at, 0);
    at = -1;
    EXPECT_THROW(decodeBool(seven, at), std::out_of_range);
    EXPECT_EQ(at, -1);

    Bytes negative = encodeLongLong(-3);
    at = 0;
    EXPECT_THROW(decodeString(negative, at), std::out_of_range);

    // A length so large that cursor + length would wrap is still refused.
    Bytes huge = encodeLongLong(INT64_MAX - 3);
    huge += Bytes{'x'};
    at = 0;
    EXPECT_THROW(decodeString(huge, at), std::out_of_range);
    EXPECT_EQ(at, 8);
}

TEST(BitHelper, InvalidUtf8IsAnAbsentString)
{
    Bytes bad = encodeLongLong(2);
    bad += Bytes{0xC3, 0x28};
    std::int32_t at = 0;
    EXPECT_EQ(decodeString(bad, at), std::nullopt);
    EXPECT_EQ(at, 10);
    EXPECT_EQ(stringFromBinary(Bytes{0xFF}), std::nullopt);
    EXPECT_EQ(stringFromBinary(Bytes{'o', 'k'}), std::optional<std::string>("ok"));
}

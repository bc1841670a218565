#include <stdexcept>

#include <gtest/gtest.h>

#include "wire/BitHelper.h"

using namespace BitHelper;

TEST(BitHelper, StringsCountUtf8BytesAndOffsetArraysHaveNoCount)
{
    // Strings count UTF-8 bytes; an absent one is empty.
    EXPECT_EQ(encodeString(std::optional<std::string>()), Bytes(8, 0));
    EXPECT_EQ(encodeString("\xC3\xA9"), (Bytes{2, 0, 0, 0, 0, 0, 0, 0, 0xC3, 0xA9}));

    // Offsets go out bare: the packet's length tells how many.
    EXPECT_TRUE(encodeLongLongArray({}).empty());
    EXPECT_EQ(encodeLongLongArray({5, 6}), (Bytes{5, 0, 0, 0, 0, 0, 0, 0, 6, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(BitHelper, DecodersMoveTheCursorAndFailPastTheEnd)
{
    Bytes b = encodeLongLong(42);
    b += Bytes{0x02};
    b += encodeString(std::string("hi"));
    b += encodeLongLong(2);
    b += Bytes{0xC3, 0x28};
    std::int32_t at = 0;
    EXPECT_EQ(decodeLongLong(b, at), 42);
    EXPECT_TRUE(decodeBool(b, at)); // any non-zero byte is true
    EXPECT_EQ(decodeString(b, at), std::optional<std::string>("hi"));
    EXPECT_EQ(decodeString(b, at), std::nullopt) << "invalid UTF-8 is an absent string";
    EXPECT_EQ(at, static_cast<std::int32_t>(b.size()));

    // Short, negative, and so large that cursor + length would wrap.
    for (std::int64_t length : {std::int64_t{10}, std::int64_t{-3}, INT64_MAX - 3}) {
        Bytes cut = encodeLongLong(length);
        cut += Bytes{'a', 'b', 'c', 'd'};
        at = 0;
        EXPECT_THROW(decodeString(cut, at), std::out_of_range) << length;
        EXPECT_EQ(at, 8) << "the length was read, the bytes were not";
    }
    Bytes seven(7, 0);
    at = 0;
    EXPECT_THROW(decodeLongLong(seven, at), std::out_of_range);
    EXPECT_EQ(at, 0);
    at = -1;
    EXPECT_THROW(decodeBool(seven, at), std::out_of_range);
    EXPECT_EQ(at, -1);
}

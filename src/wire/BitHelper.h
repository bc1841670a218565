#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "wire/Bytes.h"

// Wire forms of strings, numbers, lists and single bytes, and their
// decoders over a received buffer with a moving 32-bit cursor. The record
// encoders (files and folders) join this namespace from records/.
namespace BitHelper {

Bytes encodeLongLong(std::int64_t value);
Bytes encodeBool(bool value);
Bytes encodeByte(std::uint8_t value);
// 8-byte UTF-8 byte count, then the bytes; an absent string is length 0.
Bytes encodeString(const std::optional<std::string>& value);
Bytes encodeString(std::string_view value);
Bytes encodeString(const std::string& value);
Bytes encodeString(const char* value);
Bytes encodeLongLongNumber(std::optional<std::int64_t> value);
// No count in front: the receiver knows how many it asked for.
Bytes encodeLongLongArray(const std::vector<std::int64_t>& values);

// Decoders throw std::out_of_range when the read runs past the buffer.
std::int64_t decodeLongLong(const Bytes& data, std::int32_t& index);
bool decodeBool(const Bytes& data, std::int32_t& index);
// Invalid UTF-8 gives an absent string, not an error.
std::optional<std::string> decodeString(const Bytes& data, std::int32_t& index);
std::int64_t decodeLongLongNumber(const Bytes& data, std::int32_t& index);

// A whole buffer as UTF-8 text, no length prefix; absent when not valid UTF-8.
std::optional<std::string> stringFromBinary(const Bytes& data);
std::optional<std::string> stringFromBinary(const std::uint8_t* data, std::size_t length);
// Whether the bytes are valid UTF-8 (what stringFromBinary accepts).
bool isUtf8(const void* data, std::size_t length);

} // namespace BitHelper

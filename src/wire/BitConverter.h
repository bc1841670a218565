#pragma once

#include <cstdint>

#include "wire/Bytes.h"

// Raw little-endian conversions of 64-bit integers and booleans; the base of
// every value that crosses a connection. No byte swapping happens anywhere else.
namespace BitConverter {

Bytes getBytesFromLongLong(std::int64_t value);
Bytes getBytesFromBool(bool value);
// Reads 8 bytes: byte 0 is bits 0-7, byte 7 is bits 56-63.
std::int64_t toInt64(const std::uint8_t* bytes);
bool toBool(const std::uint8_t* bytes);

} // namespace BitConverter

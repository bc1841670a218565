#include "wire/BitConverter.h"

namespace BitConverter {

Bytes getBytesFromLongLong(std::int64_t value)
{
    Bytes out(8);
    auto u = static_cast<std::uint64_t>(value);
    for (int i = 0; i < 8; ++i)
        out[i] = static_cast<std::uint8_t>(u >> (8 * i));
    return out;
}

Bytes getBytesFromBool(bool value)
{
    return Bytes{static_cast<std::uint8_t>(value ? 1 : 0)};
}

std::int64_t toInt64(const std::uint8_t* bytes)
{
    std::uint64_t u = 0;
    for (int i = 7; i >= 0; --i)
        u = (u << 8) | bytes[i];
    return static_cast<std::int64_t>(u);
}

bool toBool(const std::uint8_t* bytes)
{
    return bytes[0] != 0;
}

} // namespace BitConverter

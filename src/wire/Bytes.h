#pragma once

#include <cstdint>
#include <vector>

// The byte buffer every encoder returns and every packet is built from.
using Bytes = std::vector<std::uint8_t>;

// Appends one buffer to another; packets are assembled this way.
inline Bytes& operator+=(Bytes& to, const Bytes& more)
{
    to.insert(to.end(), more.begin(), more.end());
    return to;
}

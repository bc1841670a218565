#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "wire/Bytes.h"

// The phone at the other end of a session, as the accepted socket saw it.
// An address that could not be read is empty, port 0.
struct Peer {
    std::string address;
    std::uint16_t port = 0;

    // From the raw socket address the listener hands over (IPv4 or IPv6).
    static Peer fromSocketAddress(const std::optional<Bytes>& raw);
    // "ADDRESS:PORT" ("[ADDRESS]:PORT" for IPv6), or "unknown".
    std::string text() const;
};

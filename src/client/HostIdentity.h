#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// What a server says about itself, in discovery datagrams and in the reply to
// identify-host: one ":"-separated text of version, computer name, user name,
// comma-joined IPv4 addresses, port and the MD5 of its password hash.
struct HostIdentity {
    std::string version;
    std::string computer;
    std::string user;
    std::vector<std::string> addresses;
    std::uint16_t port = 0;
    // Upper-case hex; lets a client tell whether a stored hash still matches
    // without sending it.
    std::string hashDigest;
    // The text as received.
    std::string raw;

    // Nothing when the text does not have the six fields and a valid port.
    static std::optional<HostIdentity> parse(const std::string& text);
    // True when `passwordHash` is the hash whose digest the server announces.
    bool acceptsHash(const std::string& passwordHash) const;
};

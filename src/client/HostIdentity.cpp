#include "client/HostIdentity.h"

#include <charconv>

#include "wire/Digest.h"

std::optional<HostIdentity> HostIdentity::parse(const std::string& text)
{
    // The computer name has its ":" replaced by the server, but nothing else
    // is escaped, so the fields are taken from both ends: the version and
    // computer from the front, digest, port and addresses from the back, and
    // the user name is whatever lies between.
    auto first = text.find(':');
    if (first == std::string::npos)
        return std::nullopt;
    auto second = text.find(':', first + 1);
    auto last = text.rfind(':');
    if (second == std::string::npos || last <= second)
        return std::nullopt;
    auto beforePort = text.rfind(':', last - 1);
    if (beforePort == std::string::npos || beforePort <= second)
        return std::nullopt;
    auto beforeAddresses = text.rfind(':', beforePort - 1);
    if (beforeAddresses == std::string::npos || beforeAddresses <= second)
        return std::nullopt;

    HostIdentity id;
    id.raw = text;
    id.version = text.substr(0, first);
    id.computer = text.substr(first + 1, second - first - 1);
    id.user = text.substr(second + 1, beforeAddresses - second - 1);
    std::string addresses = text.substr(beforeAddresses + 1, beforePort - beforeAddresses - 1);
    std::string port = text.substr(beforePort + 1, last - beforePort - 1);
    id.hashDigest = text.substr(last + 1);

    unsigned value = 0;
    auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), value);
    if (error != std::errc() || end != port.data() + port.size() || port.empty() || value > 65535)
        return std::nullopt;
    id.port = static_cast<std::uint16_t>(value);
    for (std::size_t at = 0; !addresses.empty() && at <= addresses.size();) {
        auto comma = addresses.find(',', at);
        if (comma == std::string::npos)
            comma = addresses.size();
        id.addresses.push_back(addresses.substr(at, comma - at));
        at = comma + 1;
    }
    return id;
}

bool HostIdentity::acceptsHash(const std::string& passwordHash) const
{
    return Digest::md5OfString(passwordHash) == hashDigest;
}

#include "session/Peer.h"

#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <fmt/format.h>

Peer Peer::fromSocketAddress(const std::optional<Bytes>& raw)
{
    Peer peer;
    if (!raw || raw->size() < sizeof(sa_family_t))
        return peer;
    sockaddr_storage storage{};
    std::memcpy(&storage, raw->data(), std::min(raw->size(), sizeof storage));
    char text[INET6_ADDRSTRLEN] = {};
    if (storage.ss_family == AF_INET && raw->size() >= sizeof(sockaddr_in)) {
        const auto& in = reinterpret_cast<const sockaddr_in&>(storage);
        if (::inet_ntop(AF_INET, &in.sin_addr, text, sizeof text))
            peer = {text, ntohs(in.sin_port)};
    } else if (storage.ss_family == AF_INET6 && raw->size() >= sizeof(sockaddr_in6)) {
        const auto& in6 = reinterpret_cast<const sockaddr_in6&>(storage);
        if (::inet_ntop(AF_INET6, &in6.sin6_addr, text, sizeof text))
            peer = {text, ntohs(in6.sin6_port)};
    }
    return peer;
}

std::string Peer::text() const
{
    if (address.empty())
        return "unknown";
    if (address.find(':') != std::string::npos)
        return fmt::format("[{}]:{}", address, port);
    return fmt::format("{}:{}", address, port);
}

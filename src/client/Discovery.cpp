#include "client/Discovery.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client/ClientErrors.h"
#include "wire/Protocol.h"

namespace {

using Protocol::kAnnounceGroup;
using Protocol::kDiscoveryPort;
using Protocol::kQueryGroup;

sockaddr_in address(const char* ip, std::uint16_t port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    ::inet_pton(AF_INET, ip, &a.sin_addr);
    return a;
}

// Closes the socket however the run ends.
struct SocketCloser {
    int fd;
    ~SocketCloser() { ::close(fd); }
};

std::string systemError(const std::string& what)
{
    return what + ": " + std::strerror(errno);
}

} // namespace

std::string Discovery::queryPayload()
{
    std::string payload(Protocol::kQueryText);
    payload += '\0';
    return payload;
}

int Discovery::openSocket() const
{
    int fd = m_options.makeSocket ? m_options.makeSocket() : ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (fd < 0)
        throw ClientError(systemError("cannot make a UDP socket"));
    SocketCloser guard{fd};
    int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    // Answers come to this port whatever port the query left from, so the
    // query goes out from the same socket that listens.
    sockaddr_in any = address("0.0.0.0", kDiscoveryPort);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&any), sizeof any) != 0) {
        if (errno == EADDRINUSE)
            throw ClientError("UDP port " + std::to_string(kDiscoveryPort)
                + " is in use on this machine (a server running here holds it); discover from another machine,"
                  " or connect with --host");
        throw ClientError(systemError("cannot listen on UDP port " + std::to_string(kDiscoveryPort)));
    }
    if (m_options.listenForAnnouncements) {
        ip_mreq join{};
        ::inet_pton(AF_INET, kAnnounceGroup, &join.imr_multiaddr);
        join.imr_interface.s_addr = htonl(INADDR_ANY);
        if (::setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &join, sizeof join) != 0)
            throw ClientError(systemError(std::string("cannot join the announcement group ") + kAnnounceGroup));
    }
    int ttl = Protocol::kMulticastTtl;
    ::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl);
    guard.fd = -1;
    return fd;
}

void Discovery::sendQuery(int fd) const
{
    const std::string query = queryPayload();
    sockaddr_in to = address(kQueryGroup, kDiscoveryPort);
    if (::sendto(fd, query.data(), query.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) < 0)
        throw ClientError(systemError(std::string("cannot send the query to ") + kQueryGroup));
}

std::vector<Discovery::Found> Discovery::run(const std::function<void(const Found&)>& onFound)
{
    using Clock = std::chrono::steady_clock;
    SocketCloser socket{openSocket()};
    std::vector<Found> found;
    const auto deadline = Clock::now() + m_options.timeout;
    auto nextQuery = Clock::now();
    for (;;) {
        auto now = Clock::now();
        if (now >= deadline)
            break;
        if (m_options.sendQuery && now >= nextQuery) {
            sendQuery(socket.fd);
            nextQuery = now + m_options.queryInterval;
        }
        auto wakeAt = m_options.sendQuery ? std::min(deadline, nextQuery) : deadline;
        auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(wakeAt - now).count();
        pollfd p{socket.fd, POLLIN, 0};
        int r = ::poll(&p, 1, static_cast<int>(std::max<long long>(wait, 1)));
        if (r <= 0)
            continue;
        char buffer[Protocol::kDatagramSize];
        sockaddr_in from{};
        socklen_t fromLength = sizeof from;
        ssize_t n = ::recvfrom(socket.fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &fromLength);
        if (n <= 0)
            continue;
        // Senders pad nothing, but a stray terminator is not part of the text.
        std::string text(buffer, static_cast<std::size_t>(n));
        text = text.substr(0, text.find('\0'));
        auto identity = HostIdentity::parse(text);
        if (!identity)
            continue;
        char ip[INET_ADDRSTRLEN] = {};
        ::inet_ntop(AF_INET, &from.sin_addr, ip, sizeof ip);
        bool seen = std::any_of(found.begin(), found.end(),
            [&](const Found& f) { return f.from == ip && f.identity.raw == identity->raw; });
        if (seen)
            continue;
        found.push_back({*identity, ip});
        if (onFound)
            onFound(found.back());
        if (m_options.stopAfter != 0 && found.size() >= m_options.stopAfter)
            break;
    }
    return found;
}

#include "client/SyncClient.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "wire/BitConverter.h"
#include "wire/BitHelper.h"
#include "wire/Protocol.h"

namespace {

// A length from the wire is never trusted for one allocation: buffers grow
// by this much as the bytes actually arrive.
constexpr std::size_t kReadPiece = 1024 * 1024;
constexpr std::size_t kReadAhead = 64 * 1024;

in_addr resolve(const std::string& host, std::uint16_t port)
{
    in_addr address{};
    if (::inet_pton(AF_INET, host.c_str(), &address) == 1)
        return address;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    int r = ::getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (r != 0 || !found)
        throw ConnectError(host, port, std::string("cannot resolve the host name: ") + ::gai_strerror(r));
    address = reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr;
    ::freeaddrinfo(found);
    return address;
}

// Waits for a non-blocking connect; returns 0 or the errno it ended with.
int finishConnect(int fd, std::chrono::milliseconds timeout)
{
    pollfd p{fd, POLLOUT, 0};
    int r;
    do
        r = ::poll(&p, 1, static_cast<int>(timeout.count()));
    while (r < 0 && errno == EINTR);
    if (r == 0)
        return ETIMEDOUT;
    if (r < 0)
        return errno;
    int err = 0;
    socklen_t len = sizeof err;
    ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
    return err;
}

} // namespace

SyncClient::~SyncClient()
{
    close();
}

void SyncClient::connect(const std::string& host, std::uint16_t port, std::chrono::milliseconds timeout)
{
    close();
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr = resolve(host, port);
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        throw ConnectError(host, port, std::strerror(errno));
    int err = 0;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0)
        err = errno == EINPROGRESS ? finishConnect(fd, timeout) : errno;
    if (err != 0) {
        ::close(fd);
        throw ConnectError(host, port, std::strerror(err));
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    m_fd = fd;
}

void SyncClient::adopt(int fd)
{
    close();
    m_fd = fd;
}

void SyncClient::close()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
    m_pending.clear();
    m_pendingAt = 0;
}

void SyncClient::shutdownSend()
{
    if (m_fd >= 0)
        ::shutdown(m_fd, SHUT_WR);
}

std::string SyncClient::hashPassword(const std::string& plain)
{
    return Protocol::hashPassword(plain);
}

void SyncClient::sendRaw(const Bytes& bytes)
{
    sendRaw(bytes.data(), bytes.size());
}

void SyncClient::sendRaw(const std::uint8_t* data, std::size_t length)
{
    if (m_fd < 0)
        throw Error("not connected");
    std::size_t sent = 0;
    while (sent < length) {
        ssize_t n = ::send(m_fd, data + sent, length - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            throw Error(std::string("cannot send to the server: ") + std::strerror(errno));
        sent += static_cast<std::size_t>(n);
    }
}

void SyncClient::sendCommandWithPassword(std::uint8_t code, const std::string& password, const Bytes& fields)
{
    Bytes payload = BitHelper::encodeString(std::string_view(password));
    payload += fields;
    Bytes packet{code};
    packet += BitHelper::encodeLongLong(static_cast<std::int64_t>(payload.size()));
    packet += payload;
    sendRaw(packet);
}

void SyncClient::sendCommand(std::uint8_t code, const Bytes& fields)
{
    sendCommandWithPassword(code, m_hash, fields);
}

std::size_t SyncClient::receive(std::uint8_t* destination, std::size_t capacity)
{
    if (m_fd < 0)
        throw Error("not connected");
    for (;;) {
        pollfd p{m_fd, POLLIN, 0};
        int r = ::poll(&p, 1, static_cast<int>(m_timeout.count()));
        if (r == 0)
            throw Error("timed out waiting for the server");
        if (r < 0 && errno == EINTR)
            continue;
        ssize_t n = ::recv(m_fd, destination, capacity, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw Error(std::string("cannot read from the server: ") + std::strerror(errno));
        return static_cast<std::size_t>(n);
    }
}

std::size_t SyncClient::readSome(std::uint8_t* destination, std::size_t capacity)
{
    if (capacity == 0)
        return 0;
    if (m_pendingAt == m_pending.size() && m_readAhead && capacity < kReadAhead) {
        m_pending.resize(kReadAhead);
        m_pending.resize(receive(m_pending.data(), m_pending.size()));
        m_pendingAt = 0;
        if (m_pending.empty())
            return 0;
    }
    if (m_pendingAt < m_pending.size()) {
        std::size_t n = std::min(capacity, m_pending.size() - m_pendingAt);
        std::memcpy(destination, m_pending.data() + m_pendingAt, n);
        m_pendingAt += n;
        if (m_pendingAt == m_pending.size()) {
            m_pending.clear();
            m_pendingAt = 0;
        }
        return n;
    }
    return receive(destination, capacity);
}

void SyncClient::readInto(std::uint8_t* destination, std::size_t length)
{
    std::size_t got = 0;
    while (got < length) {
        std::size_t n = readSome(destination + got, length - got);
        if (n == 0)
            throw Error("the server closed the connection");
        got += n;
    }
}

Bytes SyncClient::readExact(std::size_t length)
{
    Bytes out;
    while (out.size() < length) {
        std::size_t piece = std::min(kReadPiece, length - out.size());
        std::size_t at = out.size();
        out.resize(at + piece);
        readInto(out.data() + at, piece);
    }
    return out;
}

Bytes SyncClient::peek(std::size_t length)
{
    if (m_pendingAt > 0) {
        m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<std::ptrdiff_t>(m_pendingAt));
        m_pendingAt = 0;
    }
    while (m_pending.size() < length) {
        std::size_t at = m_pending.size();
        m_pending.resize(length);
        std::size_t n = receive(m_pending.data() + at, length - at);
        m_pending.resize(at + n);
        if (n == 0)
            break;
    }
    auto first = m_pending.begin();
    return Bytes(first, first + static_cast<std::ptrdiff_t>(std::min(length, m_pending.size())));
}

std::int64_t SyncClient::readLong()
{
    std::uint8_t b[8];
    readInto(b, sizeof b);
    return BitConverter::toInt64(b);
}

bool SyncClient::readBool()
{
    std::uint8_t b = 0;
    readInto(&b, 1);
    return b != 0;
}

std::string SyncClient::readString(std::size_t maxLength)
{
    auto n = readLong();
    if (n < 0 || static_cast<std::uint64_t>(n) > maxLength)
        throw ProtocolError("the server sent a string of length " + std::to_string(n));
    auto b = readExact(static_cast<std::size_t>(n));
    return std::string(b.begin(), b.end());
}

SyncClient::Reply SyncClient::readReply(bool streamed)
{
    Reply reply;
    std::uint8_t head[2];
    readInto(head, sizeof head);
    reply.code = head[0];
    reply.status = head[1];
    reply.message = readString();
    auto length = readLong();
    // Code 34 (an unknown command's answer) is always an empty header.
    if ((streamed || reply.code == 34) && reply.status == 0 && length == 1) {
        reply.isEmptyHeader = true;
        return reply;
    }
    if (length < 0)
        throw ProtocolError("the server sent a negative data length");
    reply.data = readExact(static_cast<std::size_t>(length));
    return reply;
}

bool SyncClient::waitForClose(std::chrono::milliseconds timeout)
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    std::uint8_t byte;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        pollfd p{m_fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0)
            continue;
        ssize_t n = ::recv(m_fd, &byte, 1, 0);
        if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN))
            return true;
    }
}

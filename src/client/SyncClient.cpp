#include "client/SyncClient.h"

#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "wire/BitConverter.h"
#include "wire/BitHelper.h"
#include "wire/Digest.h"

namespace {
constexpr const char* kSalt = "0E991F413708B1AE61C724F430F5965779D826E8E537CED914D3279314E25930518FFE";
}

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
    if (::inet_pton(AF_INET, host.c_str(), &addr.sin_addr) != 1)
        throw Error("not an IPv4 address: " + host);
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        throw Error(std::string("socket: ") + std::strerror(errno));
    int r = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    if (r < 0 && errno == EINPROGRESS) {
        pollfd p{fd, POLLOUT, 0};
        if (::poll(&p, 1, static_cast<int>(timeout.count())) == 1) {
            int err = 0;
            socklen_t len = sizeof err;
            ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
            errno = err;
            r = err == 0 ? 0 : -1;
        } else {
            errno = ETIMEDOUT;
        }
    }
    if (r < 0) {
        int e = errno;
        ::close(fd);
        throw Error("cannot connect to " + host + ":" + std::to_string(port) + ": " + std::strerror(e));
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    m_fd = fd;
}

void SyncClient::close()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}

void SyncClient::shutdownSend()
{
    if (m_fd >= 0)
        ::shutdown(m_fd, SHUT_WR);
}

std::string SyncClient::hashPassword(const std::string& plain)
{
    return Digest::md5OfString(std::string(kSalt) + plain);
}

void SyncClient::sendRaw(const Bytes& bytes)
{
    if (m_fd < 0)
        throw Error("not connected");
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t n = ::send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            throw Error(std::string("send: ") + std::strerror(errno));
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

Bytes SyncClient::readExact(std::size_t length)
{
    Bytes out(length);
    std::size_t got = 0;
    while (got < length) {
        pollfd p{m_fd, POLLIN, 0};
        int r = ::poll(&p, 1, static_cast<int>(m_timeout.count()));
        if (r == 0)
            throw Error("timed out waiting for the server");
        if (r < 0 && errno == EINTR)
            continue;
        ssize_t n = ::recv(m_fd, out.data() + got, length - got, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n == 0)
            throw Error("the server closed the connection");
        if (n < 0)
            throw Error(std::string("recv: ") + std::strerror(errno));
        got += static_cast<std::size_t>(n);
    }
    return out;
}

std::int64_t SyncClient::readLong()
{
    auto b = readExact(8);
    return BitConverter::toInt64(b.data());
}

bool SyncClient::readBool()
{
    return readExact(1)[0] != 0;
}

std::string SyncClient::readString()
{
    auto n = readLong();
    if (n < 0)
        throw Error("negative string length");
    auto b = readExact(static_cast<std::size_t>(n));
    return std::string(b.begin(), b.end());
}

SyncClient::Reply SyncClient::readReply(bool streamed)
{
    Reply reply;
    auto head = readExact(2);
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
        throw Error("negative data length");
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

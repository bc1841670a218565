#include "wire/SocketStreams.h"

#include <cerrno>
#include <cstring>

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

SocketHandle::~SocketHandle()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

void SocketStream::open()
{
    auto expected = StreamStatus::NotOpen;
    m_status.compare_exchange_strong(expected, StreamStatus::Open);
}

void SocketStream::close()
{
    if (m_status.exchange(StreamStatus::Closed) == StreamStatus::Closed)
        return;
    // Shutting down (rather than closing) keeps the descriptor valid for the
    // other stream and wakes any poll() that waits on it.
    ::shutdown(fd(), shutdownHow());
}

bool SocketStream::isUsable() const
{
    auto s = status();
    return s >= StreamStatus::Opening && s <= StreamStatus::Writing;
}

std::string SocketStream::streamError() const
{
    int e = m_error.load();
    return fmt::format("{} (errno {})", std::strerror(e), e);
}

void SocketStream::fail(int error)
{
    m_error = error;
    auto expected = m_status.load();
    if (expected != StreamStatus::Closed)
        m_status.compare_exchange_strong(expected, StreamStatus::Error);
    if (m_onEvent)
        m_onEvent(kStreamEventErrorOccurred);
}

void SocketStream::reachEnd()
{
    auto expected = m_status.load();
    if (expected != StreamStatus::Closed)
        m_status.compare_exchange_strong(expected, StreamStatus::AtEnd);
    if (m_onEvent)
        m_onEvent(kStreamEventEndEncountered);
}

bool SocketStream::waitFor(short events, int timeoutMs) const
{
    pollfd p{fd(), events, 0};
    int r;
    do {
        r = ::poll(&p, 1, timeoutMs);
    } while (r < 0 && errno == EINTR);
    return r > 0;
}

bool InputStream::hasBytesAvailable() const
{
    return isUsable() && waitFor(POLLIN, 0);
}

ssize_t InputStream::read(std::uint8_t* buffer, std::size_t length)
{
    ssize_t n;
    do {
        n = ::recv(fd(), buffer, length, MSG_DONTWAIT);
    } while (n < 0 && errno == EINTR);
    if (n > 0)
        return n;
    if (n == 0) {
        if (length > 0)
            reachEnd();
        return 0;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK)
        return kWouldBlock;
    fail(errno);
    return -1;
}

int InputStream::shutdownHow() const { return SHUT_RD; }

bool OutputStream::hasSpaceAvailable() const
{
    return isUsable() && waitFor(POLLOUT, 0);
}

ssize_t OutputStream::write(const std::uint8_t* buffer, std::size_t length)
{
    ssize_t n;
    do {
        n = ::send(fd(), buffer, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    if (n >= 0)
        return n;
    if (errno == EAGAIN || errno == EWOULDBLOCK)
        return kWouldBlock;
    fail(errno);
    return -1;
}

int OutputStream::shutdownHow() const { return SHUT_WR; }

StreamPair makeStreamPair(int fd)
{
    auto handle = std::make_shared<SocketHandle>(fd);
    return {std::make_shared<InputStream>(handle), std::make_shared<OutputStream>(handle)};
}

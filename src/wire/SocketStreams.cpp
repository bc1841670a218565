#include "wire/SocketStreams.h"

#include <cerrno>
#include <cstring>

#include <fmt/format.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/sendfile.h>
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

namespace {

// sendfile has no MSG_NOSIGNAL: a peer gone would raise SIGPIPE. The signal
// is held back for this thread while it sends, and one it caused is taken.
class QuietPipe {
public:
    QuietPipe()
    {
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_before);
    }
    ~QuietPipe() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    QuietPipe(const QuietPipe&) = delete;
    QuietPipe& operator=(const QuietPipe&) = delete;

    void takeRaised()
    {
        const timespec now{0, 0};
        while (sigtimedwait(&m_pipe, nullptr, &now) == SIGPIPE) {
        }
    }

private:
    sigset_t m_pipe;
    sigset_t m_before;
};

bool isSocketError(int error)
{
    switch (error) {
    case EPIPE:
    case ECONNRESET:
    case ECONNABORTED:
    case ENOTCONN:
    case ETIMEDOUT:
    case EHOSTUNREACH:
    case ENETUNREACH:
    case ENETDOWN:
    case ENOBUFS:
        return true;
    default:
        return false;
    }
}

} // namespace

ssize_t OutputStream::writeFromFile(int fileFd, std::int64_t& offset, std::size_t length)
{
    // sendfile takes no MSG_DONTWAIT; the socket itself must not block, and
    // every other call on it already passes MSG_DONTWAIT.
    int flags = ::fcntl(fd(), F_GETFL);
    if (flags < 0 || (!(flags & O_NONBLOCK) && ::fcntl(fd(), F_SETFL, flags | O_NONBLOCK) != 0))
        return kFileTrouble;
    QuietPipe quiet;
    ssize_t n;
    off_t at = static_cast<off_t>(offset);
    do {
        n = ::sendfile(fd(), fileFd, &at, length);
    } while (n < 0 && errno == EINTR);
    if (n >= 0) {
        offset = at;
        return n;
    }
    int error = errno;
    if (error == EAGAIN)
        return kWouldBlock;
    if (!isSocketError(error))
        return kFileTrouble;
    if (error == EPIPE)
        quiet.takeRaised();
    fail(error);
    return -1;
}

int OutputStream::shutdownHow() const { return SHUT_WR; }

StreamPair makeStreamPair(int fd)
{
    auto handle = std::make_shared<SocketHandle>(fd);
    return {std::make_shared<InputStream>(handle), std::make_shared<OutputStream>(handle)};
}

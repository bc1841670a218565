#include "server/ControlChannel.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fmt/format.h>

namespace {

// A client that sends nothing, or reads nothing, does not hold the channel
// up for longer than this.
constexpr int kClientTimeoutMs = 1000;
constexpr std::size_t kMaxRequest = 4096;

std::optional<sockaddr_un> addressOf(const std::string& path)
{
    sockaddr_un address{};
    if (path.empty() || path.size() >= sizeof address.sun_path)
        return std::nullopt;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

int connectTo(const std::string& path)
{
    auto address = addressOf(path);
    if (!address)
        return -1;
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&*address), sizeof *address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool waitFor(int fd, short events, int timeoutMs)
{
    pollfd p{fd, events, 0};
    int rc;
    do
        rc = ::poll(&p, 1, timeoutMs);
    while (rc < 0 && errno == EINTR);
    return rc > 0;
}

// Reads until `stop` is seen (or the peer closes), within the time-out.
std::optional<std::string> readUntil(int fd, char stop, std::size_t limit, int timeoutMs)
{
    std::string text;
    char buffer[4096];
    while (text.size() < limit) {
        if (!waitFor(fd, POLLIN, timeoutMs))
            return std::nullopt;
        auto n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (n <= 0)
            return text;
        text.append(buffer, static_cast<std::size_t>(n));
        if (stop && text.find(stop) != std::string::npos)
            return text;
    }
    return std::nullopt;
}

bool writeAll(int fd, std::string_view text)
{
    while (!text.empty()) {
        if (!waitFor(fd, POLLOUT, kClientTimeoutMs))
            return false;
        auto n = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (n <= 0)
            return false;
        text.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

} // namespace

std::string ControlChannel::defaultPath()
{
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (!runtime || !*runtime)
        return {};
    return (std::filesystem::path(runtime) / "zandrel" / "control").string();
}

ControlChannel::ControlChannel(Handler handler, std::string path, uid_t owner)
    : m_handler(std::move(handler)), m_path(std::move(path)), m_owner(owner)
{
    if (!listen())
        return;
    if (::pipe2(m_wake, O_CLOEXEC) != 0) {
        m_error = fmt::format("cannot make a pipe: {}", std::strerror(errno));
        ::close(m_listenFd);
        m_listenFd = -1;
        return;
    }
    m_thread = std::jthread([this](std::stop_token stop) { run(stop); });
}

ControlChannel::~ControlChannel()
{
    if (m_thread.joinable()) {
        m_thread.request_stop();
        [[maybe_unused]] auto ignored = ::write(m_wake[1], "x", 1);
        m_thread.join();
    }
    if (m_listenFd >= 0) {
        ::close(m_listenFd);
        ::unlink(m_path.c_str());
    }
    for (int fd : m_wake)
        if (fd >= 0)
            ::close(fd);
}

bool ControlChannel::listen()
{
    auto address = addressOf(m_path);
    if (!address) {
        m_error = m_path.empty() ? "no runtime folder ($XDG_RUNTIME_DIR is not set)" : "the path is too long";
        return false;
    }
    // The folder is ours alone, whatever the runtime folder's own mode.
    const auto folder = std::filesystem::path(m_path).parent_path();
    ::mkdir(folder.c_str(), 0700);
    struct stat info {};
    if (::lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid()
        || ::chmod(folder.c_str(), 0700) != 0) {
        m_error = fmt::format("{} is not a folder of this user's", folder.string());
        return false;
    }
    if (int other = connectTo(m_path); other >= 0) {
        ::close(other);
        m_error = fmt::format("another server answers at {}", m_path);
        return false;
    }
    // Nobody answers: a socket left by a process that was killed.
    ::unlink(m_path.c_str());
    m_listenFd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    // The mode is right from the start: no moment in which others may connect.
    const mode_t old = ::umask(0177);
    const bool bound = m_listenFd >= 0
        && ::bind(m_listenFd, reinterpret_cast<const sockaddr*>(&*address), sizeof *address) == 0;
    ::umask(old);
    if (!bound || ::chmod(m_path.c_str(), 0600) != 0 || ::listen(m_listenFd, 8) != 0) {
        m_error = fmt::format("cannot listen at {}: {}", m_path, std::strerror(errno));
        if (m_listenFd >= 0)
            ::close(m_listenFd);
        m_listenFd = -1;
        return false;
    }
    return true;
}

void ControlChannel::run(const std::stop_token& stop)
{
    while (!stop.stop_requested()) {
        pollfd fds[2] = {{m_listenFd, POLLIN, 0}, {m_wake[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno != EINTR)
            return;
        if (fds[1].revents)
            return;
        if (!(fds[0].revents & POLLIN))
            continue;
        // Non-blocking, so that a client that stops reading holds the
        // channel up for the time-out only, never for ever.
        int fd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0)
            continue;
        answer(fd);
        ::close(fd);
    }
}

void ControlChannel::answer(int fd)
{
    // The socket's mode keeps other users out; the credentials check is the
    // second lock, for a folder someone has loosened.
    ucred cred{};
    socklen_t length = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &length) != 0 || cred.uid != m_owner)
        return;
    auto request = readUntil(fd, '\n', kMaxRequest, kClientTimeoutMs);
    if (!request || request->find('\n') == std::string::npos)
        return;
    request->erase(request->find('\n'));
    std::string reply;
    try {
        reply = m_handler(*request);
    } catch (const std::exception& failure) {
        reply = fmt::format("error\t{}\n", failure.what());
    }
    writeAll(fd, reply);
}

std::optional<std::string> ControlChannel::ask(const std::string& request, const std::string& path)
{
    int fd = connectTo(path);
    if (fd < 0)
        return std::nullopt;
    std::optional<std::string> reply;
    if (writeAll(fd, request + "\n")) {
        ::shutdown(fd, SHUT_WR);
        // A large status (many sessions) is read to its end.
        reply = readUntil(fd, '\0', 16 << 20, 10000);
    }
    ::close(fd);
    return reply;
}

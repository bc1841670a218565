#include "discovery/Broadcaster.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>

#include "bridge/UIBridge.h"
#include "settings/Settings.h"
#include "wire/Protocol.h"

namespace {

using Protocol::kAnnounceGroup;
using Protocol::kDiscoveryPort;
using Protocol::kQueryText;

constexpr std::uint64_t kRefreshEvery = 7;
constexpr double kAnnounceInterval = 5.0;
constexpr double kSetUpRetry = 20.0;
constexpr double kAnswerFailurePause = 2.0;
constexpr time_t kWaitSeconds = 5;
// The received text is what precedes the first zero within the first 12 bytes.
constexpr std::size_t kQueryCut = 12;

using Buffer = std::array<char, Protocol::kDatagramSize>;

// A failure of the discovery threads; its text serves as name and reason.
class BroadcastError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Owns one socket descriptor.
class Socket {
public:
    Socket() = default;
    explicit Socket(int fd) : m_fd(fd) {}
    ~Socket() { reset(); }
    Socket(Socket&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Socket& operator=(Socket&& other) noexcept
    {
        if (this != &other) {
            reset();
            m_fd = std::exchange(other.m_fd, -1);
        }
        return *this;
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    void reset()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd = -1;
};

Socket udpSocket()
{
    return Socket(::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
}

bool setMulticastTtl(const Socket& sock)
{
    int ttl = Protocol::kMulticastTtl;
    return ::setsockopt(sock.get(), IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl) == 0;
}

sockaddr_in endpoint(const char* address, std::uint16_t port)
{
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    ::inet_pton(AF_INET, address, &to.sin_addr);
    return to;
}

// Zeroes the buffer and copies the identifier into it with its terminator.
// Returns the byte count, or -1 when it does not fit.
int rebuildIdentifier(const Settings* settings, Buffer& buffer)
{
    buffer.fill(0);
    if (!settings)
        return -1;
    const std::string text = settings->getIdentifier();
    if (text.size() + 1 > buffer.size())
        return -1;
    std::memcpy(buffer.data(), text.data(), text.size());
    return static_cast<int>(text.size());
}

// The four address bytes in network order, read as a little-endian signed
// 32-bit number. kept: see docs/protocol.md (query sender as a number)
std::int32_t senderNumber(const sockaddr_in& from)
{
    std::array<unsigned char, 4> b{};
    std::memcpy(b.data(), &from.sin_addr.s_addr, b.size());
    std::uint32_t value = std::uint32_t(b[0]) | std::uint32_t(b[1]) << 8 | std::uint32_t(b[2]) << 16
        | std::uint32_t(b[3]) << 24;
    return static_cast<std::int32_t>(value);
}

// What the answering thread's wait works with. Prepared once per set-up.
struct AnswerState {
    Socket listener;
    fd_set readSet;
    timeval timeout;
};

Socket setUpAnnouncer()
{
    Socket sock = udpSocket();
    if (!sock.valid())
        throw BroadcastError("Failed to create a socket");
    if (!setMulticastTtl(sock))
        throw BroadcastError("Could not set TTL.");
    return sock;
}

void setUpAnswerer(AnswerState& state)
{
    state.listener = udpSocket();
    // select() cannot watch a descriptor past FD_SETSIZE; that socket is as
    // useless to this thread as none at all.
    if (!state.listener.valid() || state.listener.get() >= FD_SETSIZE) {
        state.listener.reset();
        throw BroadcastError("Listener < 0");
    }
    ip_mreq membership{};
    ::inet_pton(AF_INET, Protocol::kQueryGroup, &membership.imr_multiaddr);
    membership.imr_interface.s_addr = htonl(INADDR_ANY);
    if (::setsockopt(state.listener.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) < 0)
        throw BroadcastError("Couldn't join multicast group");
    state.timeout = timeval{kWaitSeconds, 0};
    FD_ZERO(&state.readSet);
    FD_SET(state.listener.get(), &state.readSet);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    any.sin_port = htons(kDiscoveryPort);
    if (::bind(state.listener.get(), reinterpret_cast<const sockaddr*>(&any), sizeof any) < 0) {
        state.listener.reset();
        throw BroadcastError("bind() failed in threadproc2.");
    }
}

// Waits for a query. The read set is the one the previous wait left behind,
// never re-armed: once a wait has timed out the listening socket is no longer
// in it, so every later wait only times out and no query is read again until
// the broadcaster is restarted (kept: see docs/protocol.md, deaf query
// socket). The timeout, on the other hand, is copied afresh: Linux writes
// the time left back into it, so after one timeout the prepared value would be
// zero and every later wait would return at once, spinning a core, where each
// wait is meant to last 5 seconds. The wake descriptor rides along only so
// that stopBroadcasting need not sit out the rest of a wait; it never touches
// the carried-over set.
bool waitForQuery(AnswerState& state, int wakeFd)
{
    const int fd = state.listener.get();
    fd_set ready = state.readSet;
    int highest = fd;
    if (wakeFd >= 0 && wakeFd < FD_SETSIZE) {
        FD_SET(wakeFd, &ready);
        highest = std::max(highest, wakeFd);
    }
    timeval timeout = state.timeout;
    int result = ::select(highest + 1, &ready, nullptr, nullptr, &timeout);
    if (result < 0)
        return false; // the set is left as it was, as select() leaves it
    if (!FD_ISSET(fd, &ready))
        FD_CLR(fd, &state.readSet);
    return result > 0 && FD_ISSET(fd, &ready);
}

} // namespace

Broadcaster::Broadcaster(std::shared_ptr<Settings> settings, std::shared_ptr<UIBridge> uiBridge)
    : m_settings(std::move(settings)), m_uiBridge(std::move(uiBridge))
{
    // Without it stopping still works, only up to one wait later.
    m_wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

Broadcaster::~Broadcaster()
{
    stopBroadcasting();
    if (m_wakeFd >= 0)
        ::close(m_wakeFd);
}

bool Broadcaster::staysSilent(const std::string& listenAddress)
{
    in_addr address{};
    if (listenAddress.find('\0') != std::string::npos || ::inet_pton(AF_INET, listenAddress.c_str(), &address) != 1)
        return false;
    return (ntohl(address.s_addr) >> 24) == 127;
}

void Broadcaster::startBroadcasting()
{
    if (m_settings && staysSilent(m_settings->getListenAddress()))
        return;
    std::lock_guard threads(m_threadsMutex);
    if (m_announcer.joinable() || m_answerer.joinable())
        return;
    if (m_wakeFd >= 0) {
        eventfd_t ignored;
        ::eventfd_read(m_wakeFd, &ignored);
    }
    m_announcer = std::jthread([this](std::stop_token stop) { threadProc(stop); });
    m_answerer = std::jthread([this](std::stop_token stop) { threadProc2(stop); });
}

void Broadcaster::stopBroadcasting()
{
    std::lock_guard threads(m_threadsMutex);
    m_announcer.request_stop();
    m_answerer.request_stop();
    if (m_wakeFd >= 0)
        ::eventfd_write(m_wakeFd, 1);
    if (m_announcer.joinable())
        m_announcer.join();
    if (m_answerer.joinable())
        m_answerer.join();
}

void Broadcaster::safeWait(const std::stop_token& stop, double seconds)
{
    try {
        std::unique_lock lock(m_waitMutex);
        m_wake.wait_for(lock, stop, std::chrono::duration<double>(seconds), [] { return false; });
    } catch (...) {
    }
}

void Broadcaster::logInfo(const std::string& message) const
{
    if (m_uiBridge)
        m_uiBridge->logInfo(message);
}

void Broadcaster::logAlways(const std::string& message) const
{
    if (m_uiBridge)
        m_uiBridge->logAlways(message);
}

// The same three lines for either thread; the group named is the
// announcement's even for a reply. kept: see docs/protocol.md (answer failure
// names the announcement group)
void Broadcaster::logShortSend(long sent, int length, int error) const
{
    logInfo(fmt::format("Could not sendto {}", kAnnounceGroup));
    logInfo(fmt::format("amountSent = {} len = {}", sent, length));
    logInfo(fmt::format("Errno = {}", error));
}

void Broadcaster::threadProc(const std::stop_token& stop)
{
    try {
        while (!stop.stop_requested() && announceOnce(stop)) {
        }
    } catch (...) {
        // Nothing leaves a discovery thread.
    }
}

void Broadcaster::threadProc2(const std::stop_token& stop)
{
    try {
        while (!stop.stop_requested() && answerOnce(stop)) {
        }
    } catch (...) {
    }
}

// One set-up and the announcing loop after it. Returns true when the set-up
// failed and should be tried again.
bool Broadcaster::announceOnce(const std::stop_token& stop)
{
    Socket sock;
    const sockaddr_in group = endpoint(kAnnounceGroup, kDiscoveryPort);
    try {
        sock = setUpAnnouncer();
    } catch (const std::exception& e) {
        logInfo(fmt::format("Broadcast exception in threadproc: {}", e.what()));
        if (stop.stop_requested())
            return false;
        safeWait(stop, kSetUpRetry);
        return !stop.stop_requested();
    }

    Buffer identifier{};
    std::uint64_t cycle = 0;
    int length = -1;
    while (!stop.stop_requested()) {
        try {
            if (cycle % kRefreshEvery == 0)
                length = rebuildIdentifier(m_settings.get(), identifier);
            if (length <= 0) {
                logInfo("Error creating identifier string");
            } else {
                ssize_t sent = ::sendto(sock.get(), identifier.data(), static_cast<std::size_t>(length), 0,
                                        reinterpret_cast<const sockaddr*>(&group), sizeof group);
                const int error = errno;
                if (sent != length)
                    logShortSend(sent, length, error);
            }
        } catch (const std::exception& e) {
            logInfo(fmt::format("Broadcast exception in threadproc: {}", e.what()));
            safeWait(stop, kAnnounceInterval);
            continue;
        }
        ++cycle;
        safeWait(stop, kAnnounceInterval);
    }
    return false;
}

// One set-up and the answering loop after it. Returns true when the set-up
// failed and should be tried again.
bool Broadcaster::answerOnce(const std::stop_token& stop)
{
    AnswerState state;
    try {
        setUpAnswerer(state);
    } catch (const std::exception& e) {
        logInfo(fmt::format("Broadcast exception in threadproc2: {}", e.what()));
        if (stop.stop_requested())
            return false;
        safeWait(stop, kSetUpRetry);
        return !stop.stop_requested();
    }

    Buffer identifier{};
    Buffer received{};
    std::uint64_t cycle = 0;
    int length = 0;
    while (!stop.stop_requested()) {
        try {
            if (cycle % kRefreshEvery == 0)
                length = std::max(rebuildIdentifier(m_settings.get(), identifier), 0);
            ++cycle;
            if (!waitForQuery(state, m_wakeFd))
                continue;
            sockaddr_in from{};
            socklen_t fromLength = sizeof from;
            // select() said readable; MSG_DONTWAIT still guards against a
            // datagram the kernel dropped in between (bad checksum).
            ssize_t got = ::recvfrom(state.listener.get(), received.data(), received.size(), MSG_DONTWAIT,
                                     reinterpret_cast<sockaddr*>(&from), &fromLength);
            if (got <= 0)
                continue;
            received[kQueryCut] = 0;
            const std::string text(received.data());
            logInfo(fmt::format("Received {} from {}", text, senderNumber(from)));
            if (text != kQueryText) {
                logAlways(fmt::format("False alarm tier 2 connect of {}", text));
                continue;
            }
            logInfo("Tier 2 connect");
            reply(from, identifier.data(), length);
        } catch (const std::exception& e) {
            safeWait(stop, kAnswerFailurePause);
            logInfo(fmt::format("Broadcast exception in threadproc2: {}", e.what()));
        }
    }
    return false;
}

// Answers a query by unicast to its sender, port 31415 whatever port it came from.
void Broadcaster::reply(const sockaddr_in& from, const char* identifier, int length)
{
    Socket sock = udpSocket();
    if (!sock.valid())
        throw BroadcastError("Sock < 0");
    if (!setMulticastTtl(sock))
        logInfo("Could not set TTL.");
    sockaddr_in to = from;
    to.sin_port = htons(kDiscoveryPort);
    ssize_t sent = ::sendto(sock.get(), identifier, static_cast<std::size_t>(length), 0,
                            reinterpret_cast<const sockaddr*>(&to), sizeof to);
    const int error = errno;
    if (sent != length)
        logShortSend(sent, length, error);
}

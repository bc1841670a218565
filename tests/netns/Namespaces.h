#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

// Owns one file descriptor.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : m_fd(fd) {}
    ~Fd()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    Fd(Fd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    // The descriptor held before goes with `other`.
    Fd& operator=(Fd&& other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }

private:
    int m_fd = -1;
};

// Runs iproute2's `ip` with the arguments and waits for it, inside the
// network namespace `nsFd` when one is given. True when it exits with 0.
bool runIp(const std::vector<std::string>& args, int nsFd = -1);

// Moves the calling thread (and the threads it starts afterwards) into a
// private network namespace with lo up and 224.0.0.0/4 routed to lo, so a
// test's datagrams stay inside it however the binary was started. Returns
// why that could not be done, or an empty text.
std::string isolateNetwork();

// Two hosts on one veth pair: the calling thread's new namespace is the
// desktop (10.77.0.1/24 on veth0), a second namespace is the phone
// (10.77.0.2/24 and 10.77.0.130/24 on veth1); both route multicast to the
// link. Used from the test's main thread only.
class TwoHosts {
public:
    static constexpr const char* kDesktop = "10.77.0.1";
    static constexpr const char* kPhone = "10.77.0.2";
    // A second phone address whose last byte has the high bit set.
    static constexpr const char* kPhoneHigh = "10.77.0.130";

    // Returns why the hosts could not be made, or an empty text.
    std::string make();
    // A UDP socket that lives in the phone's namespace.
    Fd phoneSocket() const;

private:
    Fd m_desktopNs;
    Fd m_phoneNs;
};

// A datagram as the receiver saw it, with the destination address in the IP
// header (a group or a host) and the TTL it arrived with.
struct Datagram {
    std::string payload;
    std::string from;
    std::string to;
    int ttl = -1;
};

// Binds a UDP socket and asks for the destination and TTL of what arrives.
bool bindReceiver(int fd, const char* address, std::uint16_t port);
bool joinGroup(int fd, const char* group);
bool sendDatagram(int fd, const std::string& payload, const char* address, std::uint16_t port);
// The next datagram, or nothing when none arrives within the time.
std::optional<Datagram> receive(int fd, std::chrono::milliseconds timeout);

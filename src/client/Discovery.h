#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "client/HostIdentity.h"

// Finds servers on the local network the way a phone does: sends the query
// datagram to the query group, listens on the discovery port for the unicast
// answers and for the periodic announcements, until the time is up. Runs on
// the caller's thread.
class Discovery {
public:
    struct Options {
        std::chrono::milliseconds timeout{std::chrono::seconds(3)};
        bool sendQuery = true;
        bool listenForAnnouncements = true;
        // How often the query is sent again while waiting; datagrams get lost.
        std::chrono::milliseconds queryInterval{std::chrono::seconds(1)};
        // Stop as soon as this many servers are heard; 0 waits the whole time.
        std::size_t stopAfter = 0;
        // Makes the UDP socket; when empty, a plain IPv4 UDP socket. Lets a
        // caller pick the network the socket lives in.
        std::function<int()> makeSocket;
    };

    struct Found {
        HostIdentity identity;
        // The IPv4 address the datagram came from.
        std::string from;
    };

    explicit Discovery(Options options) : m_options(std::move(options)) {}

    // Every server heard, each sender and identifier once, in the order
    // heard; `onFound` (if given) is called as each one arrives. Throws
    // ClientError when the discovery port cannot be used.
    std::vector<Found> run(const std::function<void(const Found&)>& onFound = {});

    // The query datagram: the name and a terminating zero byte.
    static std::string queryPayload();

private:
    int openSocket() const;
    void sendQuery(int fd) const;

    Options m_options;
};

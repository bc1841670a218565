#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client/ProtocolClient.h"
#include "wire/BitHelper.h"
#include "wire/Bytes.h"

// The far end of a socket pair handed to a client, speaking from a script:
// it writes all of its bytes on its own thread (so a script longer than the
// socket buffer cannot block the test), then closes its side as the server
// does after an error packet, or stays open.
class ScriptedServer {
public:
    ScriptedServer(ProtocolClient& client, Bytes script, bool closeWhenDone = true)
    {
        int fds[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
            throw std::runtime_error("socketpair");
        client.adopt(fds[0]);
        client.setTimeout(std::chrono::seconds(5));
        m_fd = fds[1];
        m_writer = std::thread([this, script = std::move(script), closeWhenDone] {
            std::size_t at = 0;
            while (at < script.size()) {
                ssize_t n = ::send(m_fd, script.data() + at, script.size() - at, MSG_NOSIGNAL);
                if (n <= 0)
                    return;
                at += static_cast<std::size_t>(n);
            }
            if (closeWhenDone)
                ::shutdown(m_fd, SHUT_WR);
        });
    }
    ~ScriptedServer()
    {
        ::shutdown(m_fd, SHUT_RDWR);
        m_writer.join();
        ::close(m_fd);
    }
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    // What the client has sent so far: everything that arrives within a
    // short deadline after the last byte.
    Bytes received()
    {
        Bytes out;
        std::uint8_t buffer[65536];
        for (;;) {
            pollfd p{m_fd, POLLIN, 0};
            if (::poll(&p, 1, 200) <= 0)
                return out;
            ssize_t n = ::recv(m_fd, buffer, sizeof buffer, MSG_DONTWAIT);
            if (n <= 0)
                return out;
            out.insert(out.end(), buffer, buffer + n);
        }
    }

private:
    int m_fd = -1;
    std::thread m_writer;
};

// The request bytes a client lays out: code, length, password hash, fields.
inline Bytes scriptedRequest(std::uint8_t code, const std::string& hash, const Bytes& fields = {})
{
    Bytes payload = BitHelper::encodeString(hash);
    payload += fields;
    Bytes out{code};
    out += BitHelper::encodeLongLong(static_cast<std::int64_t>(payload.size()));
    out += payload;
    return out;
}

#pragma once

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client/ProtocolClient.h"
#include "wire/BitHelper.h"
#include "wire/Bytes.h"

// The far end of a socket pair handed to a client, speaking from a script:
// all of its bytes are written at once (scripts stay far below the socket
// buffer), then its side closes as the server's does after an error packet,
// or stays open.
class ScriptedServer {
public:
    ScriptedServer(ProtocolClient& client, const Bytes& script, bool closeWhenDone = true)
    {
        int fds[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
            throw std::runtime_error("socketpair");
        client.adopt(fds[0]);
        client.setTimeout(std::chrono::seconds(5));
        m_fd = fds[1];
        if (::send(m_fd, script.data(), script.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(script.size()))
            throw std::runtime_error("script longer than the socket buffer");
        if (closeWhenDone)
            ::shutdown(m_fd, SHUT_WR);
    }
    ~ScriptedServer() { ::close(m_fd); }
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    // What the client has sent: everything that arrives until a short
    // quiet spell.
    Bytes received()
    {
        Bytes out;
        std::uint8_t buffer[65536];
        pollfd p{m_fd, POLLIN, 0};
        for (ssize_t n; ::poll(&p, 1, 200) > 0 && (n = ::recv(m_fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;)
            out.insert(out.end(), buffer, buffer + n);
        return out;
    }

private:
    int m_fd = -1;
};

// The request bytes a client lays out: code, length, password hash, fields.
inline Bytes scriptedRequest(std::uint8_t code, const std::string& hash, const Bytes& fields = {})
{
    Bytes out{code};
    out += BitHelper::encodeLongLong(static_cast<std::int64_t>(8 + hash.size() + fields.size()));
    out += BitHelper::encodeString(hash);
    out += fields;
    return out;
}

#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "session/SessionWork.h"

class App;

// What `zandrel-syncd status` shows: the server of this user (its port,
// addresses, process, uptime, admission rule) and what each phone's session
// is doing. Made by the running server, sent over the control channel as
// ControlText records, read back by the status command.
struct ServerStatus {
    long pid = 0;
    // 0 when the server is not listening (the port is taken).
    std::uint16_t port = 0;
    std::int64_t uptimeSeconds = 0;
    std::vector<std::string> addresses;
    std::string admission;
    std::vector<SessionStatus> sessions;

    static ServerStatus of(App& app, std::chrono::steady_clock::time_point started);
    std::string encode() const;
    // Nothing when the text is not a status.
    static std::optional<ServerStatus> decode(std::string_view text);
};

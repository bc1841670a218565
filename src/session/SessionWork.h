#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "session/Peer.h"

// What one session is doing, as the person at the computer sees it.
struct SessionStatus {
    Peer peer;
    std::chrono::system_clock::time_point since;
    // The code of the command being served; -1 between commands.
    int command = -1;
    // The file being moved by the command under way, empty when none.
    std::string file;
    std::int64_t done = 0;
    std::int64_t total = 0;
    // File bytes moved in this session so far, each way.
    std::int64_t sent = 0;
    std::int64_t received = 0;
    // Refused by the admission rule at its last command.
    bool heldOut = false;
};

// One session's live status: written by the session thread (the loop and
// its handlers), read from any thread (the control channel, the desktop's
// Phones view) under its own lock, never held for more than a copy.
class SessionWork {
public:
    explicit SessionWork(Peer peer);

    void commandStarted(std::uint8_t code);
    void commandEnded();
    // A chunk of `path` went out (or came in): `done` of `total` now.
    void sending(const std::string& path, std::int64_t done, std::int64_t total, std::int64_t bytes);
    void receiving(const std::string& path, std::int64_t done, std::int64_t total, std::int64_t bytes);
    void setHeldOut(bool heldOut);
    SessionStatus snapshot() const;

    // "download", "upload", ... for a command code; "" for none.
    static std::string commandName(int code);

private:
    void moving(const std::string& path, std::int64_t done, std::int64_t total);

    mutable std::mutex m_mutex;
    SessionStatus m_status;
};

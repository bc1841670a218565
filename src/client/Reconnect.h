#pragma once

#include <chrono>
#include <functional>
#include <string>

class TransferProgress;

// Opens a fresh connection after the server has dropped one in the middle of
// a transfer (it ends every session some minutes after it began, whatever
// the session is doing), so the transfer can resume from where it was.
// Attempts are bounded: `retries` in a row that move no byte end it.
class Reconnect {
public:
    Reconnect(std::function<void()> connect, int retries, TransferProgress* progress = nullptr);

    // Called after a connection was lost; `progressed` says whether any
    // byte moved since the last call (which starts the count again).
    // True when a new connection is open; false when none may be made
    // (no way to connect, or the retries are spent).
    bool again(bool progressed);
    int retries() const { return m_retries; }

private:
    std::function<void()> m_connect;
    int m_retries;
    int m_failures = 0;
    TransferProgress* m_progress;
};

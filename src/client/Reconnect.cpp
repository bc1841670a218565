#include "client/Reconnect.h"

#include <algorithm>
#include <thread>

#include <fmt/format.h>

#include "client/ClientErrors.h"
#include "client/TransferProgress.h"

Reconnect::Reconnect(std::function<void()> connect, int retries, TransferProgress* progress)
    : m_connect(std::move(connect))
    , m_retries(std::max(0, retries))
    , m_progress(progress)
{
}

bool Reconnect::again(bool progressed)
{
    if (!m_connect)
        return false;
    if (progressed)
        m_failures = 0;
    while (++m_failures <= m_retries) {
        if (m_progress)
            m_progress->note(fmt::format("connection lost, reconnecting ({} of {})", m_failures, m_retries));
        // The first attempt goes at once (the usual cause is the server's
        // session limit, and the server is right there); a server that is
        // restarting gets a little more time with each attempt.
        if (m_failures > 1)
            std::this_thread::sleep_for(std::chrono::seconds(std::min(1 << (m_failures - 2), 8)));
        try {
            m_connect();
            if (m_progress)
                m_progress->note("resumed");
            return true;
        } catch (const ConnectError&) {
        }
    }
    return false;
}

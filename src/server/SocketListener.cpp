#include "server/SocketListener.h"

#include <algorithm>

#include <fmt/format.h>

#include "bridge/UIBridge.h"

SocketListener::SocketListener(
    std::shared_ptr<Settings> settings, std::shared_ptr<UIBridge> uiBridge, std::chrono::milliseconds lifetime)
    : m_settings(std::move(settings)), m_uiBridge(std::move(uiBridge)), m_lifetime(lifetime)
{
}

void SocketListener::handleNewConnection(std::optional<Bytes>, StreamPair streams)
{
    // The peer's address is not used: every connection gets a session.
    std::lock_guard lock(m_lock);
    m_newThread = true;
    try {
        if (!m_servers)
            m_servers.emplace();
        auto session = SocketServer::create(std::move(streams), m_settings, m_uiBridge,
            std::weak_ptr<SessionRegistry>(shared_from_this()), runLoop(), m_lifetime);
        m_servers->push_back(std::move(session));
    } catch (...) {
        // The connection is simply dropped.
    }
}

void SocketListener::acceptFailed(const std::error_code& error)
{
    m_uiBridge->logError(fmt::format("Could not accept a connection: {}. Retrying.", error.message()));
}

void SocketListener::removeConnection(SocketServer* session)
{
    std::lock_guard lock(m_lock);
    try {
        if (!m_servers)
            return;
        auto& list = *m_servers;
        list.erase(std::remove_if(list.begin(), list.end(), [&](const auto& s) { return s.get() == session; }),
            list.end());
    } catch (...) {
    }
}

void SocketListener::shutdown()
{
    std::lock_guard lock(m_lock);
    try {
        if (!m_servers)
            return;
        for (std::size_t i = 0; i < m_servers->size(); ++i)
            (*m_servers)[i]->shutdown();
        m_servers->clear();
        m_servers.reset();
    } catch (...) {
    }
}

std::vector<std::shared_ptr<SocketServer>> SocketListener::connections() const
{
    std::lock_guard lock(m_lock);
    return m_servers ? *m_servers : std::vector<std::shared_ptr<SocketServer>>{};
}

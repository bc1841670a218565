#include "server/SocketListener.h"

#include <algorithm>

#include <asio/post.hpp>
#include <fmt/format.h>

#include "bridge/UIBridge.h"

namespace {

// A thread that is the caller's own (the last owner let go of the listener
// on a session thread) cannot be joined; it is left to return by itself.
void join(std::jthread& thread)
{
    if (thread.get_id() == std::this_thread::get_id())
        thread.detach();
    else if (thread.joinable())
        thread.join();
}

} // namespace

SocketListener::SocketListener(
    std::shared_ptr<Settings> settings, std::shared_ptr<UIBridge> uiBridge, std::chrono::milliseconds lifetime)
    : m_settings(std::move(settings)), m_uiBridge(std::move(uiBridge)), m_lifetime(lifetime)
{
}

SocketListener::~SocketListener()
{
    shutdown();
}

void SocketListener::handleNewConnection(std::optional<Bytes> address, StreamPair streams)
{
    reapFinished();
    // Held while the session starts, so that one ending at once waits to
    // remove itself until it is on the list.
    std::lock_guard lock(m_lock);
    try {
        // Made room for first: once the thread runs, nothing may fail here.
        m_servers.reserve(m_servers.size() + 1);
        m_servers.push_back(SocketServer::create(std::move(streams), m_settings, m_uiBridge,
            std::weak_ptr<SessionRegistry>(shared_from_this()), runLoop(), m_lifetime,
            Peer::fromSocketAddress(address), m_admission));
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
    {
        std::lock_guard lock(m_lock);
        auto found = std::find_if(
            m_servers.begin(), m_servers.end(), [&](const auto& s) { return s.session.get() == session; });
        // Not there: shutdown has taken it and joins it.
        if (found == m_servers.end())
            return;
        try {
            m_finished.push_back(std::move(found->thread));
        } catch (...) {
            // With no room to keep it, the thread is left to end by itself.
            found->thread.detach();
        }
        m_servers.erase(found);
    }
    // Joined on the server thread once this one has returned.
    if (auto loop = runLoop()) {
        asio::post(*loop, [weak = weak_from_this()] {
            if (auto self = weak.lock())
                self->reapFinished();
        });
    }
}

void SocketListener::reapFinished()
{
    std::vector<std::jthread> finished;
    {
        std::lock_guard lock(m_lock);
        finished.swap(m_finished);
    }
    for (auto& thread : finished)
        join(thread);
}

void SocketListener::shutdown()
{
    std::vector<SocketServer::Started> servers;
    std::vector<std::jthread> finished;
    {
        std::lock_guard lock(m_lock);
        servers.swap(m_servers);
        finished.swap(m_finished);
    }
    // Every session is told first, so that they all end at once.
    for (auto& server : servers)
        server.thread.request_stop();
    for (auto& server : servers)
        join(server.thread);
    for (auto& thread : finished)
        join(thread);
}

std::vector<std::shared_ptr<SocketServer>> SocketListener::connections() const
{
    std::lock_guard lock(m_lock);
    std::vector<std::shared_ptr<SocketServer>> sessions;
    for (const auto& server : m_servers)
        sessions.push_back(server.session);
    return sessions;
}

std::vector<SessionStatus> SocketListener::statuses() const
{
    std::vector<SessionStatus> found;
    for (const auto& session : connections())
        found.push_back(session->status());
    return found;
}

int SocketListener::endSessionsFrom(const std::string& address)
{
    int ended = 0;
    // shutdown() only closes the connection; the session then removes
    // itself, so the lock is not held while it does.
    for (const auto& session : connections()) {
        if (session->peer().address == address) {
            session->shutdown();
            ++ended;
        }
    }
    return ended;
}

void SocketListener::setAdmission(std::shared_ptr<Admission> admission)
{
    std::lock_guard lock(m_lock);
    m_admission = std::move(admission);
}

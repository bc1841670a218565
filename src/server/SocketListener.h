#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "server/TCPServer.h"
#include "session/SocketServer.h"

class Settings;
class UIBridge;

// The application's listener: makes one session per accepted connection,
// keeps the list of live sessions and ends them all on shutdown. Sessions
// are added on the server thread, removed on their own threads, shut down
// from the main thread; m_lock (recursive) guards the list.
class SocketListener : public TCPServer, public SessionRegistry, public std::enable_shared_from_this<SocketListener> {
public:
    // `lifetime` is how long each connection lives; only tests shorten it.
    SocketListener(std::shared_ptr<Settings> settings, std::shared_ptr<UIBridge> uiBridge,
        std::chrono::milliseconds lifetime = SocketServer::kLifetime);

    void removeConnection(SocketServer* session) override;
    // Asks every session to end and drops the list.
    void shutdown();
    // The live sessions, in order of arrival.
    std::vector<std::shared_ptr<SocketServer>> connections() const;

protected:
    void handleNewConnection(std::optional<Bytes> address, StreamPair streams) override;
    void acceptFailed(const std::error_code& error) override;

private:
    std::shared_ptr<Settings> m_settings;
    std::shared_ptr<UIBridge> m_uiBridge;
    std::chrono::milliseconds m_lifetime;
    mutable std::recursive_mutex m_lock;
    std::optional<std::vector<std::shared_ptr<SocketServer>>> m_servers;
    bool m_newThread = false;
};

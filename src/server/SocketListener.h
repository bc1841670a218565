#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "session/SocketServer.h"
#include "server/TCPServer.h"

class Admission;
class Settings;
class UIBridge;

// The application's listener: makes one session per accepted connection and
// owns each session's thread. Sessions are added on the server thread and
// remove themselves on their own threads when they end; their threads are
// joined on the server thread soon after, and shutdown (on the main thread)
// ends and joins the rest. m_lock guards both lists and is never held while
// a thread is joined.
class SocketListener : public TCPServer, public SessionRegistry, public std::enable_shared_from_this<SocketListener> {
public:
    // `lifetime` is how long each connection lives; only tests shorten it.
    SocketListener(std::shared_ptr<Settings> settings, std::shared_ptr<UIBridge> uiBridge,
        std::chrono::milliseconds lifetime = SocketServer::kLifetime);

    ~SocketListener() override;

    void removeConnection(SocketServer* session) override;
    // Ends every session and returns once their threads have finished.
    void shutdown();
    // The live sessions, in order of arrival.
    std::vector<std::shared_ptr<SocketServer>> connections() const;
    // What each live session is doing, in order of arrival; any thread.
    std::vector<SessionStatus> statuses() const;
    // Ends every open session of the phone at `address` at once; returns how many.
    int endSessionsFrom(const std::string& address);
    // The rule every new session asks before each command; null serves everyone.
    void setAdmission(std::shared_ptr<Admission> admission);

protected:
    void handleNewConnection(std::optional<Bytes> address, StreamPair streams) override;
    void acceptFailed(const std::error_code& error) override;

private:
    // Joins the threads of sessions that have ended.
    void reapFinished();

    std::shared_ptr<Settings> m_settings;
    std::shared_ptr<UIBridge> m_uiBridge;
    std::chrono::milliseconds m_lifetime;
    mutable std::mutex m_lock;
    std::shared_ptr<Admission> m_admission;
    // Live sessions in order of arrival, with their threads.
    std::vector<SocketServer::Started> m_servers;
    // Threads of sessions that have removed themselves, not yet joined.
    std::vector<std::jthread> m_finished;
};

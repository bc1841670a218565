#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

#include "journal/SessionActivity.h"
#include "session/FileSystemOps.h"
#include "session/FileTransfer.h"
#include "session/FolderQueries.h"
#include "session/Peer.h"
#include "session/SessionWork.h"
#include "wire/SocketStreams.h"
#include "wire/StreamIO.h"

class Admission;
class Settings;
class UIBridge;
class SocketServer;

// The owner told when a session ends (the listener's registry).
class SessionRegistry {
public:
    virtual ~SessionRegistry() = default;
    // Called on the ending session's own thread.
    virtual void removeConnection(SocketServer* session) = 0;
};

// One phone's session: its own thread reads one command at a time, applies
// the password rule and hands the command to its handler through the
// dispatch table (identify, start and finish sync and unknown codes are
// answered here; the rest by the handler classes). Created on the
// server thread; the lifetime timer fires there too and only closes streams,
// which ends the session at once, as a peer going away does.
class SocketServer : public std::enable_shared_from_this<SocketServer>, private StreamLogger {
public:
    // How long a connection lives after it was accepted.
    static constexpr std::chrono::milliseconds kLifetime{360000};

    // A session and the thread that runs it. Whoever holds the thread owns
    // the session's end: a stop request (or dropping it) ends the session as
    // shutdown() does, then joins.
    struct Started {
        std::shared_ptr<SocketServer> session;
        std::jthread thread;
    };

    // Builds the session, starts its thread and arms its lifetime timer on
    // `io` (the server thread's loop). Logs "Added connection.". Throws when
    // the thread cannot be made; the connection is then closed.
    static Started create(StreamPair streams, std::shared_ptr<Settings> settings,
        std::shared_ptr<UIBridge> uiBridge, std::weak_ptr<SessionRegistry> listener,
        std::shared_ptr<asio::io_context> io, std::chrono::milliseconds lifetime = kLifetime, Peer peer = {},
        std::shared_ptr<Admission> admission = nullptr);
    ~SocketServer() override;
    SocketServer(const SocketServer&) = delete;
    SocketServer& operator=(const SocketServer&) = delete;

    bool isConnected() const { return m_connected; }
    const Peer& peer() const { return m_peer; }
    // What the session is doing now; callable from any thread.
    SessionStatus status() const { return m_work.snapshot(); }
    // Ends the session: clears the keep-running flag and closes both
    // streams, which wakes whatever the thread waits for (the next command,
    // a read from a stalled peer, a full socket, the upload lock) and fails
    // the command in progress. Callable from any thread.
    void shutdown();

private:
    SocketServer(StreamPair streams, std::shared_ptr<Settings> settings, std::shared_ptr<UIBridge> uiBridge,
        std::weak_ptr<SessionRegistry> listener, std::shared_ptr<asio::io_context> io, Peer peer,
        std::shared_ptr<Admission> admission);

    void threadProc(const std::stop_token& stop);
    void commandLoop();
    bool waitForCommand();
    void dispatch(std::uint8_t code);
    void verifyPassword(std::uint8_t code);
    bool admitted();
    void tellAdmission(const std::function<void()>& news);
    void requirePassword();
    void identifyHost();
    void startSync();
    void finishSync();
    void invalidCommand();
    void closeStreams();
    void releaseLargeBuffers();
    void killTime();
    void streamEvent(int event);
    SessionContext handlerContext();

    // StreamLogger
    void logInfo(const std::string& message) override;
    void logMessage(const std::string& message) override;
    void logError(const std::string& message) override;
    bool verbose() const override;

    std::shared_ptr<UIBridge> m_uiBridge;
    std::shared_ptr<InputStream> m_istream;
    std::shared_ptr<OutputStream> m_ostream;
    std::shared_ptr<Settings> m_settings;
    std::weak_ptr<SessionRegistry> m_listener;
    // Before the handlers, which keep a reference to it.
    const Peer m_peer;
    SessionActivity m_activity;
    // Null: everyone is served, as the protocol has it.
    std::shared_ptr<Admission> m_admission;
    SessionWork m_work;
    StreamIO m_io;
    // Declared before the timer so that the loop outlives it.
    std::shared_ptr<asio::io_context> m_loop;
    std::unique_ptr<asio::steady_timer> m_timer;

    // Written by the listener's and the session's threads, read by the loop.
    std::atomic<bool> m_keepRunning{false};
    std::atomic<bool> m_connected{false};
    // Cleared when stop or the lifetime timer cuts the connection: nobody
    // will read what the work under way would answer, so long digests stop.
    std::atomic<bool> m_answerable{true};
    bool m_authenticated = false;
    // Held out by the admission rule at the command being served.
    bool m_heldOut = false;
    bool m_toldHeldOut = false;

    // The command handlers, each given the context above.
    FolderQueries m_folders;
    FileTransfer m_transfers;
    FileSystemOps m_fileOps;
};


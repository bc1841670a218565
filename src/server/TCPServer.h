#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>

#include "wire/Bytes.h"
#include "wire/SocketStreams.h"

// Why start failed: domain "TCPServerErrorDomain", code 1 (bind) or 2 (socket).
struct TCPServerError {
    std::string domain = "TCPServerErrorDomain";
    int code = 0;
    std::string description() const;
};

// One listening IPv4 TCP socket on the server thread's loop; turns each
// accepted connection into a stream pair for handleNewConnection. start and
// the accept handler run on the server thread; stop may come from any thread.
class TCPServer {
public:
    static constexpr int kNoSocket = -5;

    TCPServer() = default;
    virtual ~TCPServer();
    TCPServer(const TCPServer&) = delete;
    TCPServer& operator=(const TCPServer&) = delete;

    // Opens, binds and schedules the socket on `loop`, which the calling
    // thread then runs. Port 0 lets the system choose; port() reads it back.
    bool start(std::optional<TCPServerError>* error, std::shared_ptr<asio::io_context> loop);
    // Closes the socket and stops the loop recorded by start. Always true.
    bool stop();
    void unscheduleFromRunLoop();

    std::uint16_t port() const { return m_port; }
    void setPort(std::uint16_t port) { m_port = port; }
    // One IPv4 address to bind instead of all; set before start. Text that
    // is no such address fails start as an address that cannot be bound.
    void setAddress(std::string address) { m_address = std::move(address); }
    int nativeSocket() const { return m_nativeSocket; }
    // Accepts that failed since start (out of descriptors, ...).
    std::uint64_t acceptFailures() const { return m_acceptFailures; }

protected:
    // Called on the server thread with each accepted connection; the base
    // drops it (the streams go, and the connection closes).
    virtual void handleNewConnection(std::optional<Bytes> address, StreamPair streams);
    // Called on the server thread at the first failed accept after a good
    // one; accepting goes on by itself after a pause.
    virtual void acceptFailed(const std::error_code& error);
    const std::shared_ptr<asio::io_context>& runLoop() const { return m_runLoop; }

private:
    void acceptNext();
    void onAccept(const std::error_code& ec, asio::ip::tcp::socket socket);
    void retryLater(const std::error_code& ec);
    bool listening() const;
    void closeSocket();

    std::uint16_t m_port = 0;
    std::string m_address;
    std::shared_ptr<asio::io_context> m_runLoop;
    std::unique_ptr<asio::ip::tcp::acceptor> m_socket;
    // Re-arms accepting after a failure; the pause doubles while it lasts.
    std::unique_ptr<asio::steady_timer> m_retry;
    std::chrono::milliseconds m_retryDelay{0};
    std::atomic<std::uint64_t> m_acceptFailures{0};
    // Cleared by stop on any thread, read by the accept handler.
    std::atomic<bool> m_scheduled{false};
    std::atomic<int> m_nativeSocket{kNoSocket};
};

#include "server/TCPServer.h"

#include <algorithm>
#include <future>

#include <sys/socket.h>

#include <asio/post.hpp>

namespace {

// The pause after a failed accept, doubled while failures go on.
constexpr std::chrono::milliseconds kFirstRetry{50};
constexpr std::chrono::milliseconds kLongestRetry{1000};

} // namespace

std::string TCPServerError::description() const
{
    return "Error Domain=" + domain + " Code=" + std::to_string(code);
}

TCPServer::~TCPServer()
{
    stop();
}

bool TCPServer::start(std::optional<TCPServerError>* error, std::shared_ptr<asio::io_context> loop)
{
    auto fail = [&](int code) {
        if (error)
            *error = TCPServerError{"TCPServerErrorDomain", code};
        return false;
    };
    auto socket = std::make_unique<asio::ip::tcp::acceptor>(*loop);
    std::error_code ec;
    socket->open(asio::ip::tcp::v4(), ec);
    if (ec)
        return fail(2);
    m_nativeSocket = socket->native_handle();
    socket->set_option(asio::socket_base::reuse_address(true), ec);
    if (ec) {
        m_socket = std::move(socket);
        return false;
    }
    asio::ip::address_v4 address = asio::ip::address_v4::any();
    if (!m_address.empty())
        address = asio::ip::make_address_v4(m_address, ec);
    if (!ec)
        socket->bind(asio::ip::tcp::endpoint(address, m_port), ec);
    if (!ec)
        socket->listen(asio::socket_base::max_listen_connections, ec);
    if (ec) {
        m_nativeSocket = kNoSocket;
        return fail(1);
    }
    if (m_port == 0)
        m_port = socket->local_endpoint(ec).port();
    unscheduleFromRunLoop();
    m_socket = std::move(socket);
    m_retry = std::make_unique<asio::steady_timer>(*loop);
    m_retryDelay = std::chrono::milliseconds(0);
    m_runLoop = std::move(loop);
    m_scheduled = true;
    acceptNext();
    return true;
}

void TCPServer::acceptNext()
{
    m_socket->async_accept([this](const std::error_code& ec, asio::ip::tcp::socket socket) {
        onAccept(ec, std::move(socket));
    });
}

bool TCPServer::listening() const
{
    return m_socket && m_socket->is_open() && m_scheduled;
}

void TCPServer::onAccept(const std::error_code& ec, asio::ip::tcp::socket socket)
{
    // A stop that raced this completion wins.
    if (ec == asio::error::operation_aborted || !listening())
        return;
    if (ec) {
        retryLater(ec);
        return;
    }
    m_retryDelay = std::chrono::milliseconds(0);
    std::error_code releaseError;
    int fd = socket.release(releaseError);
    if (!releaseError && fd >= 0) {
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        std::optional<Bytes> address;
        if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0) {
            auto* p = reinterpret_cast<const std::uint8_t*>(&peer);
            address = Bytes(p, p + std::min<socklen_t>(length, 255));
        }
        handleNewConnection(std::move(address), makeStreamPair(fd));
    }
    acceptNext();
}

// Accepting again at once after a failure (no descriptors left, ...) would
// spin a core and still serve nobody: pause instead, 50 ms doubling to 1 s,
// and report the failure once for the whole run of them.
void TCPServer::retryLater(const std::error_code& ec)
{
    ++m_acceptFailures;
    if (m_retryDelay.count() == 0) {
        acceptFailed(ec);
        m_retryDelay = kFirstRetry;
    } else {
        m_retryDelay = std::min(m_retryDelay * 2, kLongestRetry);
    }
    m_retry->expires_after(m_retryDelay);
    m_retry->async_wait([this](const std::error_code& waited) {
        if (!waited && listening())
            acceptNext();
    });
}

void TCPServer::handleNewConnection(std::optional<Bytes>, StreamPair) {}

void TCPServer::acceptFailed(const std::error_code&) {}

void TCPServer::unscheduleFromRunLoop()
{
    m_scheduled = false;
}

void TCPServer::closeSocket()
{
    if (!m_socket)
        return;
    std::error_code ec;
    m_socket->close(ec);
    m_socket.reset();
    if (m_retry)
        m_retry->cancel();
}

bool TCPServer::stop()
{
    unscheduleFromRunLoop();
    if (m_socket) {
        m_nativeSocket = kNoSocket;
        // The acceptor belongs to the loop's thread: close it there while the
        // loop still turns, else here.
        auto loop = m_runLoop;
        if (loop && !loop->stopped() && !loop->get_executor().running_in_this_thread()) {
            auto closed = std::make_shared<std::promise<void>>();
            auto done = closed->get_future();
            asio::post(*loop, [this, closed] {
                closeSocket();
                closed->set_value();
            });
            // A loop that nobody turns never runs the close: do it here.
            if (done.wait_for(std::chrono::seconds(2)) != std::future_status::ready) {
                loop->stop();
                closeSocket();
            }
        } else {
            closeSocket();
        }
    }
    if (m_runLoop)
        m_runLoop->stop();
    return true;
}

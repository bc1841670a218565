#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

// What can go wrong on the client side of a connection, one kind per way a
// caller reacts: check the address, check the password, report the server's
// own message, or give up on a server that breaks the protocol.

// Any client failure; on its own it means the connection itself failed
// (closed, timed out, reset).
class ClientError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The connection could not be made: the host, port and system reason are kept
// so a front end can say which address to check.
class ConnectError : public ClientError {
public:
    ConnectError(const std::string& host, std::uint16_t port, const std::string& reason)
        : ClientError("cannot connect to " + host + ":" + std::to_string(port) + ": " + reason)
        , m_host(host)
        , m_port(port)
        , m_reason(reason)
    {
    }
    const std::string& host() const noexcept { return m_host; }
    std::uint16_t port() const noexcept { return m_port; }
    const std::string& reason() const noexcept { return m_reason; }

private:
    std::string m_host;
    std::uint16_t m_port;
    std::string m_reason;
};

// The server answered with an error packet; it ends the session after one,
// so the connection is closed by the time this is thrown.
class ServerError : public ClientError {
public:
    ServerError(std::uint8_t code, const std::string& message, std::optional<std::size_t> item = std::nullopt)
        : ClientError(message.empty() ? "the server failed command " + std::to_string(code)
                                      : message)
        , m_code(code)
        , m_message(message)
        , m_item(item)
    {
    }
    std::uint8_t code() const noexcept { return m_code; }
    // In a batch, the item the error packet answered for (the server sends
    // one where that item's data would be).
    std::optional<std::size_t> item() const noexcept { return m_item; }
    // The server's reason text as sent; may be empty.
    const std::string& message() const noexcept { return m_message; }
    // The server failed to read from or write to the connection (its
    // reasons for that are fixed texts): the connection was cut, and the
    // command may be tried again on a new one.
    bool isConnectionFailure() const
    {
        return m_message.find(" returned while trying to ") != std::string::npos
            || m_message.starts_with("End of stream ") || m_message.starts_with("Stream error ");
    }

private:
    std::uint8_t m_code;
    std::string m_message;
    std::optional<std::size_t> m_item;
};

// The server does not know the command (its code-34 answer). The rest of the
// request would be read as further commands, so the connection is closed.
class UnknownCommand : public ServerError {
public:
    explicit UnknownCommand(std::uint8_t code)
        : ServerError(code, "the server does not support command " + std::to_string(code))
    {
    }
};

// The server asked for the password (code-16 packets): the password hash
// sent does not match the server's. The command was not carried out.
class PasswordRequired : public ClientError {
public:
    explicit PasswordRequired(std::uint8_t code)
        : ClientError("the server refused the password (command " + std::to_string(code) + ")")
        , m_code(code)
    {
    }
    std::uint8_t code() const noexcept { return m_code; }

private:
    std::uint8_t m_code;
};

// A local file could not be read or written; the connection is not to blame.
class LocalFileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The server sent something the protocol does not allow at that point.
class ProtocolError : public ClientError {
public:
    using ClientError::ClientError;
};

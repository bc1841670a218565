#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/ClientErrors.h"
#include "wire/Bytes.h"

// A client of the sync protocol over one TCP connection: sends commands with
// their password hash and reads every kind of reply, down to raw bytes for
// the streamed answers. Blocking; one thread.
class SyncClient {
public:
    // The three reply kinds, told apart by status and by the data length.
    struct Reply {
        std::uint8_t code = 0;
        std::uint8_t status = 0;
        std::string message;
        Bytes data;
        // An empty header announces a stream: its data length field is 1 and
        // no data byte follows.
        bool isEmptyHeader = false;
        bool isError() const { return status == 1; }
    };

    using Error = ClientError;

    SyncClient() = default;
    ~SyncClient();
    SyncClient(const SyncClient&) = delete;
    SyncClient& operator=(const SyncClient&) = delete;

    // Connects to host:port; the host is an IPv4 address or a name that
    // resolves to one. Throws ConnectError on failure.
    void connect(const std::string& host, std::uint16_t port,
        std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Takes over a socket that is already connected (a socket pair in tests,
    // a tunnel); the client closes it.
    void adopt(int fd);
    void close();
    // Half-closes the sending side, as a phone that leaves does.
    void shutdownSend();
    bool isConnected() const { return m_fd >= 0; }
    int fd() const { return m_fd; }

    // The hash that proves the password: MD5 of salt + plain, upper case.
    static std::string hashPassword(const std::string& plain);
    void setPasswordHash(std::string hash) { m_hash = std::move(hash); }
    const std::string& passwordHash() const { return m_hash; }

    // Sends code, 8-byte length, the password string, then `fields`.
    void sendCommand(std::uint8_t code, const Bytes& fields = {});
    void sendCommandWithPassword(std::uint8_t code, const std::string& password, const Bytes& fields = {});
    void sendRaw(const Bytes& bytes);
    void sendRaw(const std::uint8_t* data, std::size_t length);

    // Reads one reply packet. When `streamed` is true an 8-byte data length
    // of 1 is taken as an empty header (nothing follows it).
    Reply readReply(bool streamed = false);
    Bytes readExact(std::size_t length);
    // Fills exactly `length` bytes or throws.
    void readInto(std::uint8_t* destination, std::size_t length);
    // Whatever is there, at least one byte; 0 only when the server has closed.
    std::size_t readSome(std::uint8_t* destination, std::size_t capacity);
    // The next `length` bytes without consuming them; fewer only when the
    // server closes before they all arrive.
    Bytes peek(std::size_t length);
    std::int64_t readLong();
    bool readBool();
    // A length-prefixed string; a length past `maxLength` is a protocol error.
    std::string readString(std::size_t maxLength = kMaxStringLength);
    // True when the server has closed the connection (reads 0 within the wait).
    bool waitForClose(std::chrono::milliseconds timeout);

    // With read-ahead on, small reads take up to 64 KiB from the socket at
    // once and serve the rest from memory; off (the default), every byte a
    // read does not ask for stays in the socket, where fd() pollers see it.
    void setReadAhead(bool on) { m_readAhead = on; }

    // How long one read may wait for the next byte.
    void setTimeout(std::chrono::milliseconds timeout) { m_timeout = timeout; }
    std::chrono::milliseconds timeout() const { return m_timeout; }

    static constexpr std::size_t kMaxStringLength = 16 * 1024 * 1024;

private:
    // One recv into the destination, after waiting up to the time-out.
    std::size_t receive(std::uint8_t* destination, std::size_t capacity);

    int m_fd = -1;
    std::string m_hash;
    std::chrono::milliseconds m_timeout{std::chrono::seconds(30)};
    bool m_readAhead = false;
    // Bytes received (by peek() or read-ahead) and not yet consumed, from
    // m_pendingAt on.
    Bytes m_pending;
    std::size_t m_pendingAt = 0;
};

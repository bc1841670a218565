#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "wire/Bytes.h"

// A client of the sync protocol over one TCP connection: sends commands with
// their password hash and reads every kind of reply. Blocking; one thread.
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

    struct Error : std::runtime_error {
        using std::runtime_error::runtime_error;
    };

    SyncClient() = default;
    ~SyncClient();
    SyncClient(const SyncClient&) = delete;
    SyncClient& operator=(const SyncClient&) = delete;

    // Connects to host:port (IPv4); throws Error on failure.
    void connect(const std::string& host, std::uint16_t port,
        std::chrono::milliseconds timeout = std::chrono::seconds(10));
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

    // Reads one reply packet. When `streamed` is true an 8-byte data length
    // of 1 is taken as an empty header (nothing follows it).
    Reply readReply(bool streamed = false);
    Bytes readExact(std::size_t length);
    std::int64_t readLong();
    bool readBool();
    std::string readString();
    // True when the server has closed the connection (reads 0 within the wait).
    bool waitForClose(std::chrono::milliseconds timeout);

    void setTimeout(std::chrono::milliseconds timeout) { m_timeout = timeout; }

private:
    int m_fd = -1;
    std::string m_hash;
    std::chrono::milliseconds m_timeout{std::chrono::seconds(30)};
};

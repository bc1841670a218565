#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <poll.h>
#include <sys/types.h>

// A connection's two byte streams over one accepted socket. Statuses and
// events use the values the packet layer keys on. Reads and writes happen on
// the session thread; close may come from any thread (the lifetime timer),
// and wakes a poll() waiting on the socket.

enum class StreamStatus : int {
    NotOpen = 0,
    Opening = 1,
    Open = 2,
    Reading = 3,
    Writing = 4,
    AtEnd = 5,
    Closed = 6,
    Error = 7,
};

enum StreamEvent : int {
    kStreamEventErrorOccurred = 8,
    kStreamEventEndEncountered = 16,
};

// The accepted socket; closed when the last stream that uses it is gone.
class SocketHandle {
public:
    explicit SocketHandle(int fd) : m_fd(fd) {}
    ~SocketHandle();
    SocketHandle(const SocketHandle&) = delete;
    SocketHandle& operator=(const SocketHandle&) = delete;
    int fd() const { return m_fd; }

private:
    int m_fd;
};

// What a read or write call returns when the socket has nothing for it yet.
inline constexpr ssize_t kWouldBlock = -2;
// What a write from a file returns when the file, not the socket, failed
// (or cannot be sent from): the caller reads it instead.
inline constexpr ssize_t kFileTrouble = -3;

// Common part of the two streams: status, error, close, event hook.
class SocketStream {
public:
    explicit SocketStream(std::shared_ptr<SocketHandle> handle) : m_handle(std::move(handle)) {}
    virtual ~SocketStream() = default;
    SocketStream(const SocketStream&) = delete;
    SocketStream& operator=(const SocketStream&) = delete;

    void open();
    // Idempotent. Shuts the socket down in this stream's direction.
    void close();
    StreamStatus status() const { return m_status.load(); }
    bool isUsable() const;
    // The last socket error as text, for log lines.
    std::string streamError() const;
    int fd() const { return m_handle->fd(); }
    // Called with kStreamEventErrorOccurred or kStreamEventEndEncountered on
    // the thread that saw it; set once before the session starts.
    void setEventHandler(std::function<void(int)> handler) { m_onEvent = std::move(handler); }
    void clearEventHandler() { m_onEvent = nullptr; }

protected:
    virtual int shutdownHow() const = 0;
    void fail(int error);
    void reachEnd();
    // Waits for the given poll events; true when they (or a hang-up) came.
    bool waitFor(short events, int timeoutMs) const;

    std::shared_ptr<SocketHandle> m_handle;
    std::atomic<StreamStatus> m_status{StreamStatus::NotOpen};
    std::atomic<int> m_error{0};
    std::function<void(int)> m_onEvent;
};

class InputStream : public SocketStream {
public:
    using SocketStream::SocketStream;
    // True when a read would not block (data, end of stream or an error).
    bool hasBytesAvailable() const;
    // Bytes read, 0 at end of stream, -1 on error, kWouldBlock when nothing yet.
    ssize_t read(std::uint8_t* buffer, std::size_t length);
    bool waitReadable(int timeoutMs) const { return waitFor(POLLIN, timeoutMs); }

private:
    int shutdownHow() const override;
};

class OutputStream : public SocketStream {
public:
    using SocketStream::SocketStream;
    bool hasSpaceAvailable() const;
    // Bytes written, -1 on error, kWouldBlock when the socket is full.
    ssize_t write(const std::uint8_t* buffer, std::size_t length);
    // Up to `length` bytes of a file from `offset` (moved on), straight from
    // the page cache: bytes written, 0 at the file's end, -1 on a socket
    // error, kWouldBlock when the socket is full, kFileTrouble.
    ssize_t writeFromFile(int fileFd, std::int64_t& offset, std::size_t length);
    bool waitWritable(int timeoutMs) const { return waitFor(POLLOUT, timeoutMs); }

private:
    int shutdownHow() const override;
};

// Makes the two streams of one accepted socket.
struct StreamPair {
    std::shared_ptr<InputStream> input;
    std::shared_ptr<OutputStream> output;
};
StreamPair makeStreamPair(int fd);

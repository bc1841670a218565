#pragma once

#include <cstdint>
#include <exception>
#include <mutex>
#include <optional>
#include <string>

#include "wire/Bytes.h"
#include "wire/SocketStreams.h"

// Where the packet layer reports; the session forwards to the UI bridge.
// Called on the session thread.
class StreamLogger {
public:
    virtual ~StreamLogger() = default;
    virtual void logInfo(const std::string& message) = 0;
    virtual void logMessage(const std::string& message) = 0;
    virtual void logError(const std::string& message) = 0;
    // Whether the extra stream lines are made at all.
    virtual bool verbose() const = 0;
};

// One session's byte layer: the guarded read and write loops, the typed
// readers and the reply packets. Every failure is a SyncException whose name
// and reason are the protocol's. Used by one session thread only; all
// sessions share one read lock and one write lock, held around a single
// status check and stream call, never while waiting for the peer.
class StreamIO {
public:
    StreamIO(InputStream& input, OutputStream& output, StreamLogger& log);

    void read(std::uint8_t* dest, std::int64_t length, const std::string& context);
    std::int64_t readLong(const std::string& context);
    bool readBool(const std::string& context);
    // Absent when the bytes are not UTF-8. Costs about the string's length
    // plus a small block, however long the declared length is.
    std::optional<std::string> readString(const std::string& context);
    // True (once) when a string of several MiB was read since the last call:
    // when the caller has dropped it, its memory is worth giving back.
    bool takeLargeRead();

    void writeBytes(const std::uint8_t* source, std::int64_t length, const std::string& context);
    // Up to `length` bytes of a file from `offset` (moved on), sent without
    // passing through user space, under the same lock and with the same
    // failures as writeBytes of those bytes. Fewer bytes come back only at
    // the file's end, or with `readInstead` set when the file cannot be sent
    // this way (the caller reads it from `offset` instead).
    std::int64_t writeFromFile(
        int fileFd, std::int64_t& offset, std::int64_t length, const std::string& context, bool& readInstead);
    void writeData(const Bytes& data, const std::string& context);
    void writeDataPacket(std::uint8_t code, const Bytes& data, const std::string& context);
    void writeErrorPacket(std::uint8_t code, const std::exception& failure, const std::string& context);
    void writeEmptyHeader(std::uint8_t code, const std::string& context);

    // Packet images, for tests and for the writers above.
    static Bytes dataPacket(std::uint8_t code, const Bytes& data);
    static Bytes errorPacket(std::uint8_t code, const std::string& reason);
    static Bytes emptyHeader(std::uint8_t code);
    // The reason an error packet carries for any failure.
    static std::string reasonOf(const std::exception& failure);
    static std::string nameOf(const std::exception& failure);

private:
    template <typename Sink>
    void readLoop(std::int64_t length, const std::string& context, Sink& sink);
    // One guarded pass; returns the yield, or nullopt when it must wait.
    std::optional<std::int64_t> readPass(std::uint8_t* dest, std::int64_t want);
    // One guarded pass of `send`; returns the yield, or nullopt when it must wait.
    template <typename Send>
    std::optional<std::int64_t> writePass(const Send& send);
    template <typename Pass>
    std::int64_t writeLoop(std::int64_t length, const std::string& context, const Pass& pass);
    void logStatus(StreamStatus status, const SocketStream& stream);

    InputStream& m_input;
    OutputStream& m_output;
    StreamLogger& m_log;
    bool m_largeRead = false;
};

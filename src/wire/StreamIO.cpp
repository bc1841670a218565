#include "wire/StreamIO.h"

#include <algorithm>
#include <new>
#include <utility>
#include <vector>

#include <sys/mman.h>

#include <fmt/format.h>

#include "wire/BitConverter.h"
#include "wire/BitHelper.h"
#include "wire/SyncException.h"

namespace {

std::mutex& readLock()
{
    static std::mutex lock;
    return lock;
}

std::mutex& writeLock()
{
    static std::mutex lock;
    return lock;
}

// How long one wait for the peer lasts before the status is looked at again;
// close() wakes the wait at once, so this only bounds an unforeseen stall.
constexpr int kWaitSliceMs = 500;
// A write from a file that met the file's end.
constexpr ssize_t kFileEnd = -4;

// A length from the wire is not trusted for an allocation: a string is read
// into blocks allocated as its bytes arrive, the first one small, so a
// declared length with nothing behind it costs one small block.
constexpr std::int64_t kFirstBlock = 64 << 10;
constexpr std::int64_t kLargestBlock = 1 << 20;

// Strings longer than this have their memory handed back to the system
// once they are gone.
constexpr std::int64_t kLargeString = 4 << 20;

// Reads straight into a caller's buffer.
struct FixedSink {
    std::uint8_t* at;
    std::uint8_t* space(std::int64_t) { return at; }
    void commit(std::int64_t n) { at += n; }
};

// Memory for one block of a string. The full-size blocks are mapped
// directly, so that each one goes back to the system the moment it has been
// copied; from the allocator they could stay with the process.
class BlockMemory {
public:
    explicit BlockMemory(std::int64_t size) : m_size(static_cast<std::size_t>(size))
    {
        if (size >= kLargestBlock) {
            void* mapped = ::mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (mapped == MAP_FAILED)
                throw std::bad_alloc();
            m_bytes = static_cast<std::uint8_t*>(mapped);
            m_mapped = true;
        } else {
            m_bytes = new std::uint8_t[m_size];
        }
    }
    ~BlockMemory() { release(); }
    BlockMemory(BlockMemory&& other) noexcept
        : m_bytes(std::exchange(other.m_bytes, nullptr)), m_size(other.m_size), m_mapped(other.m_mapped)
    {
    }
    BlockMemory(const BlockMemory&) = delete;
    BlockMemory& operator=(const BlockMemory&) = delete;
    BlockMemory& operator=(BlockMemory&&) = delete;

    std::uint8_t* data() const { return m_bytes; }
    void release()
    {
        if (m_bytes && m_mapped)
            ::munmap(m_bytes, m_size);
        else
            delete[] m_bytes;
        m_bytes = nullptr;
    }

private:
    std::uint8_t* m_bytes = nullptr;
    std::size_t m_size = 0;
    bool m_mapped = false;
};

// Reads into blocks that are added as the bytes arrive.
struct BlockSink {
    struct Block {
        BlockMemory memory;
        std::int64_t size;
        std::int64_t filled;
    };
    std::vector<Block> blocks;

    std::uint8_t* space(std::int64_t want)
    {
        if (blocks.empty() || blocks.back().filled == blocks.back().size) {
            auto step = std::min(kFirstBlock << std::min<std::size_t>(blocks.size(), 4), kLargestBlock);
            auto size = std::min(want, step);
            blocks.push_back({BlockMemory(size), size, 0});
        }
        return blocks.back().memory.data() + blocks.back().filled;
    }
    std::int64_t room() const { return blocks.back().size - blocks.back().filled; }
    void commit(std::int64_t n) { blocks.back().filled += n; }
};

std::int64_t roomOf(FixedSink&, std::int64_t want) { return want; }
std::int64_t roomOf(BlockSink& s, std::int64_t want) { return std::min(want, s.room()); }

} // namespace

StreamIO::StreamIO(InputStream& input, OutputStream& output, StreamLogger& log)
    : m_input(input), m_output(output), m_log(log)
{
}

void StreamIO::logStatus(StreamStatus status, const SocketStream& stream)
{
    if (!m_log.verbose())
        return;
    switch (status) {
    case StreamStatus::NotOpen:
    case StreamStatus::Closed:
        m_log.logMessage(fmt::format("Stream closed. Status = {}", static_cast<int>(status)));
        break;
    case StreamStatus::AtEnd:
        m_log.logMessage("Stream at end.");
        break;
    case StreamStatus::Error:
        m_log.logMessage(fmt::format("Stream error: {}", stream.streamError()));
        break;
    default:
        break;
    }
}

std::optional<std::int64_t> StreamIO::readPass(std::uint8_t* dest, std::int64_t want)
{
    std::lock_guard lock(readLock());
    auto status = m_input.status();
    if (status == StreamStatus::Error) {
        logStatus(status, m_input);
        return -1;
    }
    if (!m_input.isUsable()) {
        logStatus(status, m_input);
        return 0;
    }
    if (!m_input.hasBytesAvailable())
        return std::nullopt;
    auto n = m_input.read(dest, static_cast<std::size_t>(want));
    if (n == kWouldBlock)
        return std::nullopt;
    if (n == 0)
        logStatus(m_input.status(), m_input);
    if (n < 0)
        logStatus(StreamStatus::Error, m_input);
    return n;
}

template <typename Sink>
void StreamIO::readLoop(std::int64_t length, const std::string& context, Sink& sink)
{
    if (length < 0)
        throw SyncException("Negative Length Packet?", "");
    std::int64_t remaining = length;
    while (remaining > 0) {
        std::uint8_t* dest = sink.space(remaining);
        auto yield = readPass(dest, roomOf(sink, remaining));
        if (!yield) {
            // Wait for data without holding the read lock.
            m_input.waitReadable(kWaitSliceMs);
            continue;
        }
        // A pass that errors would yield -1 forever on a dead socket; it ends
        // the read the way a pass yielding 0 does.
        if (*yield <= 0) {
            if (context == "get command")
                throw SyncException("Close", "");
            throw SyncException("Read Failed", fmt::format("{} returned while trying to {}", 0, context));
        }
        sink.commit(*yield);
        remaining -= *yield;
        if (remaining > 4000000000LL)
            throw SyncException("4GB File??", "");
    }
}

void StreamIO::read(std::uint8_t* dest, std::int64_t length, const std::string& context)
{
    FixedSink sink{dest};
    readLoop(length, context, sink);
}

std::int64_t StreamIO::readLong(const std::string& context)
{
    std::uint8_t bytes[8] = {};
    read(bytes, 8, context);
    return BitConverter::toInt64(bytes);
}

bool StreamIO::readBool(const std::string& context)
{
    std::uint8_t byte = 0;
    read(&byte, 1, context);
    return BitConverter::toBool(&byte);
}

std::optional<std::string> StreamIO::readString(const std::string& context)
{
    std::int64_t length = readLong("get length of string");
    BlockSink sink;
    readLoop(length, context, sink);
    // Each block goes as soon as it is copied, so the whole string is held
    // about once, never twice.
    std::string text;
    text.reserve(static_cast<std::size_t>(length));
    for (auto& block : sink.blocks) {
        text.append(reinterpret_cast<const char*>(block.memory.data()), static_cast<std::size_t>(block.filled));
        block.memory.release();
    }
    if (length > kLargeString)
        m_largeRead = true;
    if (!BitHelper::isUtf8(text.data(), text.size()))
        return std::nullopt;
    return text;
}

bool StreamIO::takeLargeRead()
{
    return std::exchange(m_largeRead, false);
}

template <typename Send>
std::optional<std::int64_t> StreamIO::writePass(const Send& send)
{
    std::lock_guard lock(writeLock());
    auto status = m_output.status();
    if (status == StreamStatus::Error) {
        logStatus(status, m_output);
        return -1;
    }
    if (!m_output.isUsable()) {
        logStatus(status, m_output);
        return 0;
    }
    if (!m_output.hasSpaceAvailable())
        return std::nullopt;
    auto n = send();
    if (n == kWouldBlock)
        return std::nullopt;
    if (n == kFileTrouble || n == kFileEnd)
        return n;
    if (n < 0)
        logStatus(StreamStatus::Error, m_output);
    return static_cast<std::int32_t>(n);
}

template <typename Pass>
std::int64_t StreamIO::writeLoop(std::int64_t length, const std::string& context, const Pass& pass)
{
    if (length < 0)
        throw SyncException("Negative Length Packet To Write?", "");
    std::int64_t written = 0;
    std::int32_t passes = 1;
    while (written < length) {
        if (passes % 10000000 == 0)
            m_log.logInfo("Are we sending a huge file, or stuck in a loop?");
        auto yield = pass(written, length - written);
        if (!yield) {
            m_output.waitWritable(kWaitSliceMs);
            continue;
        }
        if (*yield == kFileTrouble || *yield == kFileEnd)
            break;
        if (*yield == 0)
            throw SyncException("End of stream while writing data", fmt::format("End of stream {}", context));
        if (*yield < 0)
            throw SyncException("Error occurred while writing data", fmt::format("Stream error {}", context));
        written += *yield;
        ++passes;
    }
    return written;
}

void StreamIO::writeBytes(const std::uint8_t* source, std::int64_t length, const std::string& context)
{
    writeLoop(length, context, [&](std::int64_t written, std::int64_t want) {
        return writePass([&] { return m_output.write(source + written, static_cast<std::size_t>(want)); });
    });
}

std::int64_t StreamIO::writeFromFile(
    int fileFd, std::int64_t& offset, std::int64_t length, const std::string& context, bool& readInstead)
{
    readInstead = false;
    return writeLoop(length, context, [&](std::int64_t, std::int64_t want) {
        auto yield = writePass([&]() -> ssize_t {
            ssize_t n = m_output.writeFromFile(fileFd, offset, static_cast<std::size_t>(want));
            return n == 0 ? kFileEnd : n;
        });
        if (yield == kFileTrouble)
            readInstead = true;
        return yield;
    });
}

void StreamIO::writeData(const Bytes& data, const std::string& context)
{
    // The length travels as a signed 32-bit value, so 2 GiB and more is refused.
    auto length = static_cast<std::int32_t>(static_cast<std::uint32_t>(data.size()));
    writeBytes(data.data(), length, context);
}

Bytes StreamIO::dataPacket(std::uint8_t code, const Bytes& data)
{
    Bytes packet{code, 0x00};
    packet += BitHelper::encodeLongLong(0);
    packet += BitHelper::encodeLongLong(static_cast<std::int64_t>(data.size()));
    packet += data;
    return packet;
}

Bytes StreamIO::errorPacket(std::uint8_t code, const std::string& reason)
{
    Bytes packet{code, 0x01};
    packet += BitHelper::encodeString(std::string_view(reason));
    packet += BitHelper::encodeLongLong(0);
    return packet;
}

Bytes StreamIO::emptyHeader(std::uint8_t code)
{
    Bytes packet{code, 0x00};
    packet += BitHelper::encodeLongLong(0);
    // Always 1, whatever follows. kept: see docs/protocol.md (empty header)
    packet += BitHelper::encodeLongLong(1);
    return packet;
}

std::string StreamIO::reasonOf(const std::exception& failure)
{
    if (auto* sync = dynamic_cast<const SyncException*>(&failure))
        return sync->reason();
    return failure.what();
}

std::string StreamIO::nameOf(const std::exception& failure)
{
    if (auto* sync = dynamic_cast<const SyncException*>(&failure))
        return sync->name();
    return "PlatformError";
}

void StreamIO::writeDataPacket(std::uint8_t code, const Bytes& data, const std::string& context)
{
    auto packet = dataPacket(code, data);
    writeBytes(packet.data(), static_cast<std::int64_t>(packet.size()), context);
}

void StreamIO::writeErrorPacket(std::uint8_t code, const std::exception& failure, const std::string& context)
{
    auto reason = reasonOf(failure);
    m_log.logError(fmt::format("Exception thrown {}: {}", context, reason));
    auto packet = errorPacket(code, reason);
    writeBytes(packet.data(), static_cast<std::int64_t>(packet.size()), context);
}

void StreamIO::writeEmptyHeader(std::uint8_t code, const std::string& context)
{
    auto packet = emptyHeader(code);
    writeBytes(packet.data(), static_cast<std::int64_t>(packet.size()), context);
}

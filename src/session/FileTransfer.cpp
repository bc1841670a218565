#include "session/FileTransfer.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "bridge/UIBridge.h"
#include "cache/DigestCache.h"
#include "journal/SessionActivity.h"
#include "records/FileSyncInfo.h"
#include "records/RecordEncoding.h"
#include "session/DiskPath.h"
#include "session/FileSystem.h"
#include "session/PartialFile.h"
#include "settings/Settings.h"
#include "wire/BitHelper.h"
#include "wire/Commands.h"
#include "wire/Digest.h"
#include "wire/Paths.h"
#include "wire/Protocol.h"
#include "wire/SyncException.h"

namespace {

// Bounds every read from a file (download) and from the stream (upload).
constexpr auto kChunkSize = static_cast<std::int64_t>(Protocol::kChunkSize);

const std::string kDownloading = "downloading files";
const std::string kSendingData = "sending file data";
const std::string kUploading = "uploading files";
const std::string kReceivingData = "receiving file data";

// Serialises the reception of file data across every session of the
// process. A session waits for it only while its connection is open: one
// whose streams were closed (stop, the lifetime timer) never takes it, and
// fails as its first read of file data would.
class UploadLock {
public:
    void lock(const InputStream& input)
    {
        std::unique_lock guard(m_mutex);
        // Closing a stream notifies nobody here: look at it every 100 ms.
        while (m_held && input.isUsable())
            m_free.wait_for(guard, std::chrono::milliseconds(100));
        if (!input.isUsable())
            throw SyncException("Read Failed", fmt::format("{} returned while trying to {}", 0, kReceivingData));
        m_held = true;
    }

    void unlock()
    {
        {
            std::lock_guard guard(m_mutex);
            m_held = false;
        }
        m_free.notify_one();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_free;
    bool m_held = false;
};

UploadLock g_uploadLock;

// Holds the upload lock for one scope.
class UploadHold {
public:
    explicit UploadHold(const InputStream& input) { g_uploadLock.lock(input); }
    ~UploadHold() { g_uploadLock.unlock(); }
    UploadHold(const UploadHold&) = delete;
    UploadHold& operator=(const UploadHold&) = delete;
};

// Counts travel as 64 bits but only their low 32 bits count, signed.
// kept: see docs/protocol.md (32-bit counts)
std::int32_t low32(std::int64_t value)
{
    return static_cast<std::int32_t>(value);
}

void notifyIfWanted(const UIBridge& bridge, const Settings& settings, const std::string& title,
    const std::string& path, const std::string& name)
{
    if (settings.getToast())
        bridge.notify(title, path, name);
}

// A file read from start offset to end for a download.
class SourceFile {
public:
    // Only a plain file counts as open. A FIFO would block the open for a
    // writer that may never come, and a device can be endless; neither
    // holds a file to send, so both end like a file that cannot be opened.
    explicit SourceFile(const std::string& path) : m_fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC))
    {
        struct stat st {};
        if (m_fd >= 0 && (::fstat(m_fd, &st) != 0 || !S_ISREG(st.st_mode))) {
            ::close(m_fd);
            m_fd = -1;
        }
    }
    ~SourceFile()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    SourceFile(const SourceFile&) = delete;
    SourceFile& operator=(const SourceFile&) = delete;

    bool isOpen() const { return m_fd >= 0; }

    void seek(std::int64_t offset, const std::string& path)
    {
        if (::lseek(m_fd, static_cast<off_t>(offset), SEEK_SET) < 0)
            throw std::system_error(errno, std::generic_category(),
                fmt::format("Failed to seek to {} in {}", offset, path));
    }

    int fd() const { return m_fd; }

    // Up to `length` bytes from `offset`, fewer only at the end of the file.
    std::int64_t read(std::uint8_t* buffer, std::int64_t length, std::int64_t offset, const std::string& path)
    {
        std::int64_t got = 0;
        while (got < length) {
            ssize_t n = ::pread(m_fd, buffer + got, static_cast<std::size_t>(length - got), offset + got);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                throw std::system_error(errno, std::generic_category(), "Failed to read " + path);
            if (n == 0)
                break;
            got += n;
        }
        return got;
    }

private:
    int m_fd;
};

// One downloadFiles command: reads the request, then streams each file's
// record, bytes and digest, then the end marker.
class Download {
public:
    explicit Download(const SessionContext& ctx)
        : m_io(ctx.io)
        , m_bridge(ctx.bridge)
        , m_settings(ctx.settings)
        , m_keepGoing(ctx.answerable)
        , m_activity(ctx.activity)
        , m_work(ctx.work)
    {
    }

    void run()
    {
        auto count = low32(m_io.readLong(kDownloading));
        m_bridge.logInfo(fmt::format("Downloading files. File count = {}", count));
        std::vector<Wanted> files;
        for (std::int32_t i = 0; i < count; ++i) {
            auto path = m_io.readString(kDownloading);
            files.push_back({path, m_io.readLong(kDownloading)});
        }
        bool withDigest = m_io.readBool(kDownloading);

        m_io.writeEmptyHeader(Command::DownloadFiles, kDownloading);
        for (const auto& file : files)
            send(file, withDigest);
        m_io.writeData(BitHelper::encodeFileSyncInfo(FileSyncInfo::finish()), kDownloading);
    }

private:
    struct Wanted {
        // Absent when the phone's bytes were not UTF-8: its record then has
        // no path parts.
        std::optional<std::string> path;
        std::int64_t offset;
    };

    [[noreturn]] void failOpen(const std::string& path)
    {
        auto reason = fmt::format("Failed to open file: {}", path);
        m_bridge.logError(reason);
        throw SyncException("FailedOpen", reason);
    }

    void send(const Wanted& file, bool withDigest)
    {
        const std::string shown = FileSystem::shown(file.path);
        m_bridge.logInfo(fmt::format("Sending: {}. Offset = {}", shown, file.offset));
        notifyIfWanted(m_bridge, m_settings, "Sending File", shown, "SENDFILE");
        // The record expands a leading "~"; the file is opened as named.
        auto disk = DiskPath::of(file.path, m_settings);
        auto record = FileSyncInfo::initFromPath(file.path.value_or(std::string()));
        if (!disk)
            describeAsMissing(record);
        m_io.writeData(BitHelper::encodeFileSyncInfo(record), kDownloading);

        if (!disk)
            failOpen(shown);
        SourceFile source(*disk);
        if (!source.isOpen())
            failOpen(shown);
        source.seek(file.offset, *disk);
        sendBytes(source, *disk, file.offset, static_cast<std::int64_t>(record.size));

        if (withDigest)
            m_io.writeData(
                BitHelper::encodeString(DigestCache::shared()->digestOf(*disk, std::nullopt, &m_keepGoing)),
                kDownloading);
        m_bridge.logInfo(fmt::format("Sent: {}", *disk));
        // What left the computer; a digest asked for without data is no download.
        auto size = static_cast<std::int64_t>(record.size);
        if (size == 0 || file.offset < size)
            m_activity.downloaded(*disk, size - std::max<std::int64_t>(file.offset, 0));
    }

    // A path that names nothing is described like one where nothing exists,
    // whatever stands at some other path its text might be taken for.
    static void describeAsMissing(FileSyncInfo& record)
    {
        record.size = 0;
        record.created = 0;
        record.modified = 0;
        record.readonly = true;
    }

    // The bytes from `offset` to the size the record announced, a chunk at a
    // time as far as the phone and the log can tell.
    void sendBytes(SourceFile& source, const std::string& path, std::int64_t offset, std::int64_t size)
    {
        bool readFile = false;
        while (size > offset) {
            auto got = sendChunk(source, path, offset, std::min(size - offset, kChunkSize), readFile);
            // The file has shrunk since its record went out. Read literally,
            // the loop would wait forever for bytes that will never come; the
            // session ends instead the way a file that cannot be opened ends it.
            if (got == 0)
                failOpen(path);
            offset += got;
            if (m_settings.getVerbose())
                m_bridge.logMessage(fmt::format("Sent {} bytes. Offset = {}", got, offset));
            m_bridge.setProgress(offset, size);
            m_work.sending(path, offset, size, got);
        }
    }

    // Up to `length` bytes from `offset`, fewer only at the file's end: sent
    // from the page cache, or read and written where the file cannot be sent
    // that way (`readFile` then stays set for the rest of the file).
    std::int64_t sendChunk(SourceFile& source, const std::string& path, std::int64_t offset, std::int64_t length,
        bool& readFile)
    {
        std::int64_t sent = 0;
        if (!readFile) {
            std::int64_t at = offset;
            sent = m_io.writeFromFile(source.fd(), at, length, kSendingData, readFile);
            if (!readFile)
                return sent;
        }
        if (m_buffer.empty())
            m_buffer.resize(kChunkSize);
        auto got = source.read(m_buffer.data(), length - sent, offset + sent, path);
        m_io.writeBytes(m_buffer.data(), got, kSendingData);
        return sent + got;
    }

    StreamIO& m_io;
    const UIBridge& m_bridge;
    const Settings& m_settings;
    // Turns false when the session is told to end.
    const std::atomic<bool>& m_keepGoing;
    SessionActivity& m_activity;
    SessionWork& m_work;
    std::vector<std::uint8_t> m_buffer;
};

// One uploadFiles command: works out every file's start offset from its
// partial file, answers them, then receives each file and moves it into place.
class Upload {
public:
    explicit Upload(const SessionContext& ctx)
        : m_io(ctx.io)
        , m_input(ctx.input)
        , m_bridge(ctx.bridge)
        , m_settings(ctx.settings)
        , m_keepGoing(ctx.answerable)
        , m_activity(ctx.activity)
        , m_work(ctx.work)
    {
    }

    void run()
    {
        bool withDigest = m_io.readBool(kUploading);
        auto count = low32(m_io.readLong(kUploading));
        m_bridge.logInfo(
            fmt::format("Uploading files. File count = {}, hash = {}", count, withDigest ? "YES" : "NO"));
        std::vector<Incoming> files;
        std::vector<std::int64_t> offsets;
        for (std::int32_t i = 0; i < count; ++i) {
            files.push_back(readHeader(withDigest));
            offsets.push_back(files.back().start.offset);
        }
        m_io.writeDataPacket(Command::UploadFiles, BitHelper::encodeLongLongArray(offsets), kUploading);
        for (const auto& file : files)
            receive(file, withDigest);
    }

private:
    struct Incoming {
        // Nothing when the path names no file: the data is then read and
        // dropped, and the digest is that of no file.
        std::optional<std::string> disk;
        // As log lines show it.
        std::string path;
        std::int64_t size;
        std::int64_t modified;
        PartialFile::Start start;
    };

    Incoming readHeader(bool withDigest)
    {
        Incoming file;
        auto received = m_io.readString(kUploading);
        // Read only: every path names nothing, so the data is dropped and no
        // partial is looked at (an over-long one would be deleted).
        file.disk = m_settings.getReadOnly() ? std::nullopt : DiskPath::of(received, m_settings);
        // The partial beside it must pass the door as well: under
        // confinement, a link at its name could take the bytes elsewhere.
        if (file.disk && !DiskPath::of(PartialFile::pathFor(*file.disk), m_settings))
            file.disk.reset();
        file.path = FileSystem::shown(received);
        file.size = m_io.readLong(kUploading);
        file.modified = m_io.readLong(kUploading);
        // The phone's digest is read and dropped: the answer carries ours.
        // kept: see docs/protocol.md (upload digest ignored)
        if (withDigest)
            m_io.readString(kUploading);
        if (file.disk)
            file.start = PartialFile::startFor(PartialFile::pathFor(*file.disk), file.size);
        return file;
    }

    void receive(const Incoming& file, bool withDigest)
    {
        std::error_code ignored;
        if (file.disk)
            std::filesystem::create_directories(Paths::deletingLastPathComponent(*file.disk), ignored);
        m_bridge.logInfo(fmt::format("Receiving: {}. Offset = {}", file.path, file.start.offset));
        notifyIfWanted(m_bridge, m_settings, "Receiving File", file.path, "RECEIVEFILE");

        std::optional<std::string> written;
        auto received = receiveData(file, withDigest ? &written : nullptr);
        m_io.writeData(BitHelper::encodeLongLong(received), kUploading);
        if (withDigest)
            m_io.writeData(BitHelper::encodeString(written ? *written : digestOf(file.disk)), kUploading);
        m_bridge.logInfo(fmt::format("Saved: {}.", file.path));
    }

    // Appends the missing bytes to the partial file and moves it into place;
    // returns how many came. The move happens under the upload lock too:
    // released before it, a second upload of the same path could append to
    // the file being moved, or find its partial gone and remove the
    // destination for nothing. A partial that cannot be opened, or that is
    // no longer the file the phone resumes, ends the upload before any byte
    // is taken, so the phone never hears of bytes that went nowhere; only a
    // path that names nothing has its bytes read and dropped.
    //
    // Each chunk is put on disk by a helper while the next one is received;
    // the last sync is waited for before the count is answered, so no byte
    // the phone is told of can be lost. A whole file written here from its
    // first byte is digested as it is written (`written`), never read back.
    std::int64_t receiveData(const Incoming& file, std::optional<std::string>* written)
    {
        UploadHold lock(m_input);
        auto partial = file.disk ? openPartial(*file.disk, file.start) : nullptr;
        const auto offset = file.start.offset;
        std::optional<Digest::Md5> md5;
        if (written && partial && offset == 0)
            md5.emplace();
        std::int64_t remaining = file.size - offset;
        std::int64_t received = 0;
        if (m_buffer.empty() && remaining > 0)
            m_buffer.resize(kChunkSize);
        while (remaining > 0) {
            auto n = std::min(remaining, kChunkSize);
            receiveChunk(partial.get(), n, md5 ? &*md5 : nullptr);
            received += n;
            remaining -= n;
            if (partial && remaining > 0)
                partial->flushInBackground();
            if (m_settings.getVerbose())
                m_bridge.logMessage(fmt::format("Received {} bytes. Offset = {}", n, offset + received));
            m_bridge.setProgress(received, file.size);
            m_work.receiving(file.path, offset + received, file.size, n);
        }
        if (partial) {
            partial->flush();
            partial->setModified(file.modified);
            bool placed = m_activity.replace(
                *file.disk, file.size, [&] { return partial->moveIntoPlace(*file.disk, file.modified); });
            if (placed && md5)
                *written = md5->hex();
        }
        return received;
    }

    // Logged like a download's file that cannot be opened.
    std::unique_ptr<PartialFile> openPartial(const std::string& disk, const PartialFile::Start& start)
    {
        try {
            return PartialFile::open(PartialFile::pathFor(disk), start);
        } catch (const SyncException& failure) {
            m_bridge.logError(failure.reason());
            throw;
        }
    }

    // Reads one chunk, appending each piece as soon as it has arrived, so
    // that a connection cut mid-chunk still leaves every byte that came
    // before the cut in the partial file. Without a partial the bytes are
    // only taken off the connection.
    void receiveChunk(PartialFile* partial, std::int64_t length, Digest::Md5* md5)
    {
        std::int64_t filled = 0;
        while (filled < length) {
            auto piece = std::clamp<std::int64_t>(waiting(), 1, length - filled);
            m_io.read(m_buffer.data() + filled, piece, kReceivingData);
            if (partial)
                partial->append(m_buffer.data() + filled, static_cast<std::size_t>(piece));
            if (md5)
                md5->update(m_buffer.data() + filled, static_cast<std::size_t>(piece));
            filled += piece;
        }
    }

    std::string digestOf(const std::optional<std::string>& disk) const
    {
        return disk ? DigestCache::shared()->digestOf(*disk, std::nullopt, &m_keepGoing)
                    : Digest::md5OfFile(std::string());
    }

    // Bytes already on the connection, after a short wait when there are none
    // (a read of one byte then waits for more, or reports the cut).
    std::int64_t waiting() const
    {
        int count = 0;
        if (::ioctl(m_input.fd(), FIONREAD, &count) == 0 && count > 0)
            return count;
        m_input.waitReadable(500);
        if (::ioctl(m_input.fd(), FIONREAD, &count) == 0)
            return count;
        return 0;
    }

    StreamIO& m_io;
    const InputStream& m_input;
    const UIBridge& m_bridge;
    const Settings& m_settings;
    // Turns false when the session is told to end.
    const std::atomic<bool>& m_keepGoing;
    SessionActivity& m_activity;
    SessionWork& m_work;
    std::vector<std::uint8_t> m_buffer;
};

} // namespace

void FileTransfer::downloadFiles()
{
    guarded(m_ctx.io, Command::DownloadFiles, kDownloading, [&] { Download(m_ctx).run(); });
}

void FileTransfer::uploadFiles()
{
    guarded(m_ctx.io, Command::UploadFiles, kUploading, [&] { Upload(m_ctx).run(); });
}

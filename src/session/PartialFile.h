#pragma once

#include <cstddef>
#include <cstdint>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

// The file an upload is received into, "<destination>.zandrel". It outlives a
// cut connection on purpose: the next upload of the same path resumes from
// its length. Opened, written and moved into place only under the upload
// lock, by one session thread at a time.
class PartialFile {
public:
    static std::string pathFor(const std::string& destination);
    // Where an upload of `announced` bytes starts: the partial's length; 0 when
    // nothing or a folder is there, or when it is longer than announced (it
    // cannot belong to this file and is started afresh once the data comes).
    // Changes nothing on disk: another session may be receiving into it.
    static std::int64_t resumeOffset(const std::string& partial, std::int64_t announced);

    // Opens the partial of an upload that starts at `offset` (created when
    // missing and the upload starts at 0; emptied when it starts at 0 but
    // something is there). Null when the partial no longer holds exactly
    // `offset` bytes: another upload of the same path, or someone else,
    // changed it since the offset was answered, so the phone's bytes would
    // not continue what is there. Throws a SyncException ("FailedOpen") when
    // it cannot be opened or is not a plain file.
    static std::unique_ptr<PartialFile> open(const std::string& path, std::int64_t offset);

    // Closes (see close()).
    ~PartialFile();
    PartialFile(const PartialFile&) = delete;
    PartialFile& operator=(const PartialFile&) = delete;

    const std::string& path() const { return m_path; }
    // Appends all `length` bytes; throws std::system_error on a write error.
    void append(const std::uint8_t* data, std::size_t length);
    // Starts putting what was appended so far on disk on a helper thread and
    // returns at once, so the next bytes are received meanwhile. A failure
    // of that sync is thrown by the next call to this or to flush().
    void flushInBackground();
    // Everything appended is on disk when this returns (fsync, after the
    // helper's sync); throws std::system_error when the disk refuses.
    void flush();
    // Sets the modification time; a failure is ignored, like those of the
    // move into place: the data is kept either way.
    void setModified(std::int64_t seconds);
    // Puts this file at `destination` (replacing a file, or a folder with
    // all it holds) and dates it, provided the partial's name still names
    // the file written here. Otherwise (it was deleted or replaced while the
    // data came) nothing is moved or removed. Failures are ignored.
    bool moveIntoPlace(const std::string& destination, std::int64_t seconds);
    // Flushes what was appended since the last flush, so that even a failed
    // upload leaves every received byte on disk, then closes.
    void close();

private:
    PartialFile(std::string path, int fd);

    void syncLoop();
    void stopSyncing();
    void throwSyncError();

    std::string m_path;
    int m_fd = -1;
    bool m_unflushed = false;

    // The helper that syncs while the session receives; its flags are
    // guarded by m_syncMutex.
    std::thread m_syncer;
    std::mutex m_syncMutex;
    std::condition_variable m_syncWake;
    std::condition_variable m_syncIdle;
    bool m_syncWanted = false;
    bool m_syncing = false;
    bool m_syncStop = false;
    int m_syncError = 0;
};

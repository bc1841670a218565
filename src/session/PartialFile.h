#pragma once

#include <cstddef>
#include <cstdint>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <sys/types.h>

// The file an upload is received into, "<destination>.zandrel". It outlives a
// cut connection on purpose: the next upload of the same path resumes from
// its length. Opened, written and moved into place only under the upload
// lock, by one session thread at a time.
class PartialFile {
public:
    static std::string pathFor(const std::string& destination);

    // Where an upload starts, as the offsets answer told the phone, and for
    // a resumed upload which file it continues.
    struct Start {
        std::int64_t offset = 0;
        dev_t device = 0;
        ino_t inode = 0;
    };

    // Works out where an upload of `announced` bytes starts, when the offsets
    // are answered: the partial's length when it is a plain file of the
    // server's own that the data can continue (not a link, no other names,
    // writable, not longer than announced, not empty). Anything else but a
    // folder or a special file is removed (a link as a link, never followed),
    // and the upload starts from 0 into a file created afresh, so it never
    // writes into a file someone else holds, nor keeps a stale one's mode.
    static Start startFor(const std::string& partial, std::int64_t announced);

    // Opens the partial of an upload that starts at `start`: from 0 a new
    // file is created exclusively (the usual 0666 less the umask), otherwise
    // the very file whose length was answered is continued. Throws a
    // SyncException ("FailedOpen") when it cannot be created or opened, or
    // when the partial is no longer that file at that length (another item
    // of the batch, another session or program replaced, grew or removed
    // it): the phone's bytes would not continue what is there.
    static std::unique_ptr<PartialFile> open(const std::string& path, const Start& start);

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

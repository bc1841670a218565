#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// The file an upload is received into, "<destination>.zandrel". It outlives a
// cut connection on purpose: the next upload of the same path resumes from
// its length. Used by one session thread; written only under the upload lock.
class PartialFile {
public:
    static std::string pathFor(const std::string& destination);
    // Where an upload of `announced` bytes starts: the partial's length; 0 when
    // nothing or a folder is there, or when it is longer than announced (it
    // is deleted then, as it cannot belong to this file).
    static std::int64_t resumeOffset(const std::string& partial, std::int64_t announced);
    // Sets the modification time; failures are ignored, as they always were.
    static void setModified(const std::string& path, std::int64_t seconds);
    // Replaces whatever is at `destination` (a folder with all it holds) by
    // the partial and dates it. Failures of these steps are ignored.
    static void moveIntoPlace(const std::string& partial, const std::string& destination, std::int64_t seconds);

    // Creates the partial when nothing is there and opens it for appending.
    // Throws a SyncException ("FailedOpen") when it cannot be opened.
    explicit PartialFile(std::string path);
    // Closes (see close()).
    ~PartialFile();
    PartialFile(const PartialFile&) = delete;
    PartialFile& operator=(const PartialFile&) = delete;

    const std::string& path() const { return m_path; }
    // Appends all `length` bytes; throws std::system_error on a write error.
    void append(const std::uint8_t* data, std::size_t length);
    // fsync; throws std::system_error when the disk refuses.
    void flush();
    // Flushes what was appended since the last flush, so that even a failed
    // upload leaves every received byte on disk, then closes.
    void close();

private:
    std::string m_path;
    int m_fd = -1;
    bool m_unflushed = false;
};

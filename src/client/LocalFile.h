#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

// One open local file for the transfers: positioned reads and writes, the
// modification date, closed when the object goes.
class LocalFile {
public:
    enum class Mode { Read, Write, WriteTruncate };

    LocalFile() = default;
    // Throws LocalFileError naming the path when it cannot be opened.
    LocalFile(const std::string& path, Mode mode);
    ~LocalFile() { close(); }
    LocalFile(LocalFile&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)), m_path(std::move(other.m_path)) {}
    LocalFile& operator=(LocalFile&& other) noexcept;
    LocalFile(const LocalFile&) = delete;
    LocalFile& operator=(const LocalFile&) = delete;

    bool isOpen() const { return m_fd >= 0; }
    // Up to `length` bytes from `position`; 0 at the end of the file.
    std::size_t readAt(std::int64_t position, std::uint8_t* buffer, std::size_t length);
    void writeAt(std::int64_t position, const std::uint8_t* data, std::size_t length);
    void close();
    // Of the open file.
    bool setModified(std::int64_t seconds);

    // -1 when nothing is there or it is not a regular file.
    static std::int64_t sizeOf(const std::string& path);
    // What stands at `path` when it is neither nothing nor a plain file
    // (links followed), for messages: "a folder", "a FIFO", "a socket", "a
    // device"; empty otherwise.
    static std::string kindOf(const std::string& path);
    // Seconds since 1970, of a file that exists.
    static std::int64_t modifiedOf(const std::string& path);
    static bool setModified(const std::string& path, std::int64_t seconds);

private:
    int m_fd = -1;
    std::string m_path;
};

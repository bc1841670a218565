#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

// MD5 digests as text. The case differs on purpose and is part of the
// protocol: file digests are lower case, string digests upper case.
namespace Digest {

// 32 lower-case hex digits of a file's contents, read in blocks so memory
// stays bounded; a file that cannot be read is digested as empty input.
// Reading stops early once `keepGoing` turns false (the session that asked
// has been told to end, and nobody will see the result); the text returned
// then is that of the bytes read so far and must not be kept.
std::string md5OfFile(const std::string& path, const std::atomic<bool>* keepGoing = nullptr);
// 32 upper-case hex digits of the UTF-8 bytes of a string.
std::string md5OfString(std::string_view text);
// 32 lower-case hex digits of a byte range.
std::string md5Hex(const void* data, std::size_t length);

// A file digest built up piece by piece, as the file is written, so that it
// need not be read back.
class Md5 {
public:
    Md5();
    void update(const void* data, std::size_t length);
    // 32 lower-case hex digits of everything given so far.
    std::string hex() const;

private:
    std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st*)> m_ctx;
};

} // namespace Digest

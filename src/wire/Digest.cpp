#include "wire/Digest.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/evp.h>

namespace Digest {

namespace {

struct CtxFree {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
using Ctx = std::unique_ptr<EVP_MD_CTX, CtxFree>;

Ctx newMd5()
{
    Ctx ctx(EVP_MD_CTX_new());
    EVP_DigestInit_ex(ctx.get(), EVP_md5(), nullptr);
    return ctx;
}

std::string finishHex(EVP_MD_CTX* ctx)
{
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    EVP_DigestFinal_ex(ctx, md, &len);
    std::string hex;
    hex.reserve(len * 2);
    char two[3];
    for (unsigned int i = 0; i < len; ++i) {
        std::snprintf(two, sizeof two, "%02x", md[i]);
        hex += two;
    }
    return hex;
}

} // namespace

std::string md5Hex(const void* data, std::size_t length)
{
    auto ctx = newMd5();
    EVP_DigestUpdate(ctx.get(), data, length);
    return finishHex(ctx.get());
}

std::string md5OfFile(const std::string& path, const std::atomic<bool>* keepGoing)
{
    auto ctx = newMd5();
    // Only a plain file is digested, and only as far as it reached when it
    // was opened: a FIFO would block the open, a device can be endless, and
    // a file still growing would keep the reader going. Anything else counts
    // as unreadable. A NUL byte would cut the path short and name another
    // file.
    if (path.find('\0') != std::string::npos)
        return finishHex(ctx.get());
    int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return finishHex(ctx.get());
    struct stat st {};
    std::int64_t left = 0;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode))
        left = st.st_size;
    // A file that fails part-way is treated like an unreadable one: the
    // whole-file read it replaces would have produced no data at all.
    constexpr std::int64_t kBlock = 1 << 20;
    std::unique_ptr<unsigned char[]> block(new unsigned char[kBlock]);
    while (left > 0 && (!keepGoing || *keepGoing)) {
        ssize_t n = ::read(fd, block.get(), static_cast<std::size_t>(std::min(left, kBlock)));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            ctx = newMd5();
        if (n <= 0)
            break;
        EVP_DigestUpdate(ctx.get(), block.get(), static_cast<std::size_t>(n));
        left -= n;
    }
    ::close(fd);
    return finishHex(ctx.get());
}

Md5::Md5() : m_ctx(newMd5().release(), &EVP_MD_CTX_free) {}

void Md5::update(const void* data, std::size_t length)
{
    EVP_DigestUpdate(m_ctx.get(), data, length);
}

std::string Md5::hex() const
{
    // Finishing ends a context, so a copy is finished.
    Ctx copy(EVP_MD_CTX_new());
    EVP_MD_CTX_copy_ex(copy.get(), m_ctx.get());
    return finishHex(copy.get());
}

std::string md5OfString(std::string_view text)
{
    auto hex = md5Hex(text.data(), text.size());
    std::transform(hex.begin(), hex.end(), hex.begin(), [](unsigned char c) { return std::toupper(c); });
    return hex;
}

} // namespace Digest

#include "wire/Digest.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <memory>

#include <fcntl.h>
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

std::string md5OfFile(const std::string& path)
{
    auto ctx = newMd5();
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        // A file that fails part-way is treated like an unreadable one: the
        // whole-file read it replaces would have produced no data at all.
        std::unique_ptr<unsigned char[]> block(new unsigned char[1 << 20]);
        bool failed = false;
        for (;;) {
            ssize_t n = ::read(fd, block.get(), 1 << 20);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                failed = true;
            if (n <= 0)
                break;
            EVP_DigestUpdate(ctx.get(), block.get(), static_cast<std::size_t>(n));
        }
        ::close(fd);
        if (failed)
            ctx = newMd5();
    }
    return finishHex(ctx.get());
}

std::string md5OfString(std::string_view text)
{
    auto hex = md5Hex(text.data(), text.size());
    std::transform(hex.begin(), hex.end(), hex.begin(), [](unsigned char c) { return std::toupper(c); });
    return hex;
}

} // namespace Digest

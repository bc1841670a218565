#include "session/FolderListing.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "records/ItemAttributes.h"
#include "session/HelperThread.h"
#include "session/WriteAccess.h"

namespace {

// What a record needs: type, size, dates (birth included), and what the
// digest cache and the write test look at. Attributes are taken as the
// kernel has them: no round trip to a network file system's server.
constexpr unsigned kMask = STATX_TYPE | STATX_MODE | STATX_UID | STATX_GID | STATX_INO | STATX_SIZE
    | STATX_MTIME | STATX_CTIME | STATX_BTIME;
constexpr int kFlags = AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC;
// Entries a thread takes at a time.
constexpr std::size_t kShare = 8;

struct Fd {
    int fd;
    ~Fd()
    {
        if (fd >= 0)
            ::close(fd);
    }
};

} // namespace

void FolderListing::read(
    const std::string& path, bool followLink, WriteAccess& access, std::vector<char>& block, HelperThread* helper)
{
    m_entries.clear();
    m_names.clear();
    if (path.find('\0') != std::string::npos)
        return;
    Fd dir{::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | (followLink ? 0 : O_NOFOLLOW))};
    if (dir.fd < 0)
        return;
    access.enterFolder(dir.fd);
    if (!readNames(dir.fd, block)) {
        m_entries.clear();
        m_names.clear();
        return;
    }
    // Each thread takes the next few entries until none are left; each
    // entry is written by the one thread that took it.
    std::atomic<std::size_t> next{0};
    auto lookAll = [&] {
        for (std::size_t at; (at = next.fetch_add(kShare)) < m_entries.size();)
            for (std::size_t i = at; i < std::min(at + kShare, m_entries.size()); ++i)
                look(dir.fd, m_entries[i], access);
    };
    if (helper && m_entries.size() >= 2 * kShare)
        helper->runOnBoth(lookAll);
    else
        lookAll();
    std::erase_if(m_entries, [](const Entry& e) { return !e.listed; });
}

bool FolderListing::readNames(int fd, std::vector<char>& block)
{
    for (;;) {
        ssize_t got = ::getdents64(fd, block.data(), block.size());
        if (got < 0)
            return false;
        if (got == 0)
            return true;
        for (ssize_t at = 0; at < got;) {
            const auto* d = reinterpret_cast<const dirent64*>(block.data() + at);
            at += d->d_reclen;
            const char* name = d->d_name;
            if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
                continue;
            // Links and special files are passed over without a look: the
            // walk lists plain files and folders, and never follows a link.
            if (d->d_type != DT_REG && d->d_type != DT_DIR && d->d_type != DT_UNKNOWN)
                continue;
            Entry entry;
            entry.nameAt = static_cast<std::uint32_t>(m_names.size());
            entry.nameLength = static_cast<std::uint32_t>(std::strlen(name));
            m_names.insert(m_names.end(), name, name + entry.nameLength + 1);
            m_entries.push_back(entry);
        }
    }
}

void FolderListing::look(int fd, Entry& entry, const WriteAccess& access) const
{
    const char* name = m_names.data() + entry.nameAt;
    struct statx stx {};
    // An entry gone since the listing is passed over too.
    if (::statx(fd, name, kFlags, kMask, &stx) != 0 || !(S_ISREG(stx.stx_mode) || S_ISDIR(stx.stx_mode)))
        return;
    const ItemAttributes attrs = ItemAttributes::fromStatx(stx);
    entry.listed = true;
    entry.isFolder = S_ISDIR(stx.stx_mode);
    entry.writable = access.writable(fd, name, stx);
    entry.size = attrs.size;
    entry.created = attrs.created;
    entry.modified = attrs.modified;
    entry.state = FileState::fromStatx(stx);
}

#include "session/WriteAccess.h"

#include <atomic>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace {

// File systems whose write permission is the generic mode-bit and ACL
// check, with no hook of their own (network, FUSE, overlay and btrfs
// file systems decide for themselves and are always asked).
constexpr long kExt = 0xEF53;
constexpr long kXfs = 0x58465342;
constexpr long kTmpfs = 0x01021994;

std::atomic<bool> g_shortcutEnabled{true};

// What access(2) runs with: the real user, and for a real root the
// permitted capabilities (the kernel drops them for anyone else).
struct Process {
    uid_t uid = 0;
    bool override = false;
    bool inodeModules = true;
    std::uint32_t overflowUid = 65534;
    std::uint32_t overflowGid = 65534;
};

std::string firstLineOf(const char* path)
{
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

bool hasDacOverride()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("CapPrm:", 0) == 0)
            return (std::stoull(line.substr(7), nullptr, 16) >> 1) & 1; // CAP_DAC_OVERRIDE
    return false;
}

// SELinux and Smack check every inode access; the other modules the kernel
// has do not answer access(2) differently from the mode bits.
bool inodeModulesPresent()
{
    std::string lsm = firstLineOf("/sys/kernel/security/lsm");
    if (!lsm.empty())
        return lsm.find("selinux") != std::string::npos || lsm.find("smack") != std::string::npos;
    return ::access("/sys/fs/selinux/enforce", F_OK) == 0 || ::access("/sys/fs/smackfs", F_OK) == 0;
}

const Process& process()
{
    static const Process p = [] {
        Process p;
        p.uid = ::getuid();
        p.override = p.uid == 0 && hasDacOverride();
        p.inodeModules = inodeModulesPresent();
        std::string uid = firstLineOf("/proc/sys/kernel/overflowuid");
        std::string gid = firstLineOf("/proc/sys/kernel/overflowgid");
        if (!uid.empty())
            p.overflowUid = static_cast<std::uint32_t>(std::stoul(uid));
        if (!gid.empty())
            p.overflowGid = static_cast<std::uint32_t>(std::stoul(gid));
        return p;
    }();
    return p;
}

} // namespace

WriteAccess::WriteAccess() : m_shortcut(g_shortcutEnabled && !process().inodeModules) {}

void WriteAccess::setShortcutEnabled(bool on)
{
    g_shortcutEnabled = on;
}

void WriteAccess::enterFolder(int dirFd)
{
    struct statfs fs {};
    // The mount flags are only there when the kernel says they are valid.
    constexpr unsigned long kFlagsValid = 0x0020; // ST_VALID
    m_folderPlain = m_shortcut && ::fstatfs(dirFd, &fs) == 0 && (fs.f_flags & kFlagsValid)
        && (fs.f_type == kExt || fs.f_type == kXfs || fs.f_type == kTmpfs);
    m_folderReadOnly = m_folderPlain && (fs.f_flags & ST_RDONLY);
}

int WriteAccess::fromAttributes(const struct statx& stx) const
{
    constexpr std::uint64_t needed = STATX_ATTR_IMMUTABLE | STATX_ATTR_MOUNT_ROOT;
    constexpr unsigned ids = STATX_UID | STATX_GID | STATX_MODE;
    // An item that is a mount of its own lives elsewhere than its folder.
    if (!m_folderPlain || (stx.stx_attributes_mask & needed) != needed || (stx.stx_mask & ids) != ids
        || (stx.stx_attributes & STATX_ATTR_MOUNT_ROOT))
        return -1;
    if (m_folderReadOnly || (stx.stx_attributes & STATX_ATTR_IMMUTABLE))
        return 0;
    const Process& p = process();
    // The override holds only for items whose owner this user namespace can
    // name; unnamed owners show as the overflow ids.
    if (p.override && stx.stx_uid != p.overflowUid && stx.stx_gid != p.overflowGid)
        return 1;
    // The owner is judged by the owner bits alone, ACLs or not.
    if (!p.override && stx.stx_uid == p.uid)
        return (stx.stx_mode & S_IWUSR) ? 1 : 0;
    return -1;
}

bool WriteAccess::writable(int dirFd, const char* name, const struct statx& stx) const
{
    int known = fromAttributes(stx);
    if (known >= 0)
        return known == 1;
    return ::faccessat(dirFd, name, W_OK, 0) == 0;
}

#pragma once

#include <fcntl.h>
#include <sys/stat.h>

// Whether this process may write an item, as access(W_OK) answers it, for
// the entries of one folder being listed. Where the answer follows from the
// attributes already read (an item we own, or any item for a root with the
// override capability, on a local file system whose permission check is the
// plain one, without a security module that checks inodes), it costs no
// system call; everything else asks the kernel. Used by one walk's thread.
class WriteAccess {
public:
    WriteAccess();

    // Called once for each folder listed, with its descriptor.
    void enterFolder(int dirFd);
    // The entry `name` of that folder, whose statx (with STATX_UID and
    // STATX_GID) has just been made.
    bool writable(int dirFd, const char* name, const struct statx& stx) const;

    // Off: every answer comes from the kernel (tests compare both).
    static void setShortcutEnabled(bool on);

private:
    // -1 when the attributes do not settle it.
    int fromAttributes(const struct statx& stx) const;

    bool m_shortcut = false;
    bool m_folderPlain = false;
    bool m_folderReadOnly = false;
};

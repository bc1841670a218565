#pragma once

#include <optional>
#include <string>

#include "session/SessionContext.h"

// The commands that change or measure the disk for a phone (codes 28 to
// 32): create folders, delete files or folders, rename files (batches
// answered with one flag, item by item), and free space. Read only leaves
// every change out. Called on the session thread.
class FileSystemOps {
public:
    explicit FileSystemOps(SessionContext context) : m_ctx(context) {}

    void createDirectories();
    void deleteFiles();
    void deleteFolders();
    void renameFiles();
    void freeSpace();

private:
    // Where a received path leads on disk, if anywhere.
    std::optional<std::string> onDisk(const std::optional<std::string>& received) const;
    // True (and logged) when removing the path would take the home or base
    // folder with it: that item fails, the batch goes on. Files and renames
    // need no such check: they never act on a folder, nor on a link to one.
    // See docs/protocol.md (folders that hold the home or base folder).
    bool refused(const std::optional<std::string>& disk, const std::string& shownPath) const;
    // Off under read only: the change of each item is left out.
    bool mayChange() const;

    SessionContext m_ctx;
};

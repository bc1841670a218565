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
    // Off under read only: the change of each item is left out.
    bool mayChange() const;

    SessionContext m_ctx;
};

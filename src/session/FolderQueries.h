#pragma once

#include <string>

#include "session/SessionContext.h"

// The read-only commands with which a phone browses the disk (codes 18 to
// 25): the default folder, a parent, whether a folder exists, one folder's
// record, the folders or files inside one, and the walk of a whole tree.
// Each reads its own fields after the password and answers under its code.
// Called on the session thread.
class FolderQueries {
public:
    explicit FolderQueries(SessionContext context) : m_ctx(context) {}

    void defaultPath();
    void parentFolder();
    void pathExists();
    void folderInfo();
    void foldersInFolder();
    void filesInFolder();
    void allFilesInFolder();
    void calculateFileHash();

private:
    void recurseFolder(const std::string& path, bool withHash);

    SessionContext m_ctx;
};

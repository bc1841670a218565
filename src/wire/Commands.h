#pragma once

#include <cstdint>

// The command codes of the sync protocol and the reply codes that are not
// a command's own.
namespace Command {

enum : std::uint8_t {
    IdentifyHost = 14,
    PasswordFailed = 15,   // error packet of a failed password read
    PasswordRequired = 16, // reply of the password rule
    StartSync = 17,
    DefaultPath = 18,
    ParentFolder = 19,
    PathExists = 20,
    FolderInfo = 21,
    FoldersInFolder = 22,
    FilesInFolder = 23,
    AllFilesInFolder = 24,
    CalculateFileHash = 25,
    DownloadFiles = 26,
    UploadFiles = 27,
    CreateDirectories = 28,
    DeleteFiles = 29,
    DeleteFolders = 30,
    RenameFiles = 31,
    FreeSpace = 32,
    FinishSync = 33,
    Invalid = 34, // reply code of an unknown command
};

// Codes 18 to 32 run only on an authenticated session.
constexpr bool needsAuthentication(std::uint8_t code)
{
    return code >= DefaultPath && code <= FreeSpace;
}

} // namespace Command

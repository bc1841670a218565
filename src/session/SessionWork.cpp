#include "session/SessionWork.h"

#include "wire/Commands.h"

SessionWork::SessionWork(Peer peer)
{
    m_status.peer = std::move(peer);
    m_status.since = std::chrono::system_clock::now();
}

void SessionWork::commandStarted(std::uint8_t code)
{
    std::lock_guard lock(m_mutex);
    m_status.command = code;
}

void SessionWork::commandEnded()
{
    std::lock_guard lock(m_mutex);
    m_status.command = -1;
    m_status.file.clear();
    m_status.done = m_status.total = 0;
}

void SessionWork::moving(const std::string& path, std::int64_t done, std::int64_t total)
{
    // Only the first chunk of a file pays for copying its path.
    if (m_status.file != path)
        m_status.file = path;
    m_status.done = done;
    m_status.total = total;
}

void SessionWork::sending(const std::string& path, std::int64_t done, std::int64_t total, std::int64_t bytes)
{
    std::lock_guard lock(m_mutex);
    moving(path, done, total);
    m_status.sent += bytes;
}

void SessionWork::receiving(const std::string& path, std::int64_t done, std::int64_t total, std::int64_t bytes)
{
    std::lock_guard lock(m_mutex);
    moving(path, done, total);
    m_status.received += bytes;
}

void SessionWork::setHeldOut(bool heldOut)
{
    std::lock_guard lock(m_mutex);
    m_status.heldOut = heldOut;
}

SessionStatus SessionWork::snapshot() const
{
    std::lock_guard lock(m_mutex);
    return m_status;
}

std::string SessionWork::commandName(int code)
{
    switch (code) {
    case Command::IdentifyHost: return "identify";
    case Command::StartSync: return "start sync";
    case Command::DefaultPath: return "default path";
    case Command::ParentFolder: return "parent folder";
    case Command::PathExists: return "path exists";
    case Command::FolderInfo: return "folder info";
    case Command::FoldersInFolder: return "folders in folder";
    case Command::FilesInFolder: return "files in folder";
    case Command::AllFilesInFolder: return "all files in folder";
    case Command::CalculateFileHash: return "file hash";
    case Command::DownloadFiles: return "download";
    case Command::UploadFiles: return "upload";
    case Command::CreateDirectories: return "create folders";
    case Command::DeleteFiles: return "delete files";
    case Command::DeleteFolders: return "delete folders";
    case Command::RenameFiles: return "rename";
    case Command::FreeSpace: return "free space";
    case Command::FinishSync: return "finish sync";
    default: return code < 0 ? "" : "unknown";
    }
}

#include "session/FolderQueries.h"

#include <string>
#include <vector>

#include <fmt/format.h>

#include "bridge/UIBridge.h"
#include "records/DirSyncInfo.h"
#include "records/FileSyncInfo.h"
#include "records/RecordEncoding.h"
#include "session/DiskPath.h"
#include "session/FileSystem.h"
#include "session/FolderWalk.h"
#include "settings/Settings.h"
#include "wire/BitHelper.h"
#include "wire/Commands.h"
#include "wire/Digest.h"
#include "wire/Paths.h"
#include "wire/Protocol.h"
#include "wire/SyncException.h"

namespace {

const char* yesNo(bool value)
{
    return value ? "YES" : "NO";
}

// The folder handlers take the path as sent: "~" is not expanded for their
// test, so "~/x" names nothing and ends the session with this failure.
// kept: see docs/protocol.md (tilde in 18 and 20 only)
SyncException pathDoesntExist(const std::optional<std::string>& path)
{
    return SyncException("PathDoesntExist", fmt::format("Path {} does not exist.", FileSystem::shown(path)));
}

} // namespace

void FolderQueries::defaultPath()
{
    const std::string context = "default path";
    guarded(m_ctx.io, Command::DefaultPath, context, [&] {
        std::string path = Paths::expandTilde(m_ctx.settings.getBasePath());
        m_ctx.bridge.logInfo(fmt::format("Default path: {}", path));
        m_ctx.io.writeDataPacket(Command::DefaultPath, BitHelper::encodeString(path), context);
    });
}

void FolderQueries::parentFolder()
{
    const std::string context = "parent folder";
    guarded(m_ctx.io, Command::ParentFolder, context, [&] {
        auto path = m_ctx.io.readString(context);
        // Text only: the path need not exist, and "~" stays.
        // kept: see docs/protocol.md (parent folder from text)
        std::optional<std::string> parent;
        if (path)
            parent = Paths::deletingLastPathComponent(*path);
        m_ctx.bridge.logInfo(
            fmt::format("Parent folder of '{}' is '{}'.", FileSystem::shown(path), FileSystem::shown(parent)));
        m_ctx.io.writeDataPacket(Command::ParentFolder, BitHelper::encodeString(parent), context);
    });
}

void FolderQueries::pathExists()
{
    const std::string context = "path exists";
    guarded(m_ctx.io, Command::PathExists, context, [&] {
        auto path = m_ctx.io.readString(context);
        if (path)
            path = Paths::expandTilde(*path);
        bool isFolder = FileSystem::stateOf(DiskPath::of(path, m_ctx.settings)).isFolder;
        m_ctx.bridge.logInfo(fmt::format("Path exists: {}", yesNo(isFolder)));
        m_ctx.io.writeDataPacket(Command::PathExists, BitHelper::encodeBool(isFolder), context);
    });
}

void FolderQueries::folderInfo()
{
    const std::string context = "folder information";
    guarded(m_ctx.io, Command::FolderInfo, context, [&] {
        auto path = m_ctx.io.readString(context);
        auto disk = DiskPath::of(path, m_ctx.settings);
        bool isFolder = FileSystem::stateOf(disk).isFolder;
        m_ctx.bridge.logInfo(fmt::format("Folder info: {}", FileSystem::shown(path)));
        if (!isFolder)
            throw pathDoesntExist(path);
        m_ctx.io.writeDataPacket(Command::FolderInfo, BitHelper::encodeDirSyncInfo(DirSyncInfo::initFromPath(*disk)),
            context);
    });
}

void FolderQueries::foldersInFolder()
{
    const std::string context = "folders in folder";
    guarded(m_ctx.io, Command::FoldersInFolder, context, [&] {
        auto path = m_ctx.io.readString(context);
        auto disk = DiskPath::of(path, m_ctx.settings);
        bool isFolder = FileSystem::stateOf(disk).isFolder;
        m_ctx.bridge.logInfo(fmt::format("Folders in folder: {}", FileSystem::shown(path)));
        if (!isFolder)
            throw pathDoesntExist(path);
        const std::string& folder = *disk;
        std::vector<DirSyncInfo> folders;
        for (const auto& name : FileSystem::listFolder(folder)) {
            std::string child = FileSystem::childPath(folder, name);
            if (FileSystem::typeOf(child) != FileSystem::ItemType::Directory)
                continue;
            folders.push_back(DirSyncInfo::initFromPath(child));
            m_ctx.bridge.logInfo(child);
        }
        m_ctx.io.writeDataPacket(Command::FoldersInFolder, BitHelper::encodeDirSyncInfoArray(folders), context);
    });
}

void FolderQueries::filesInFolder()
{
    const std::string context = "files in folder";
    guarded(m_ctx.io, Command::FilesInFolder, context, [&] {
        auto path = m_ctx.io.readString(context);
        auto disk = DiskPath::of(path, m_ctx.settings);
        bool isFolder = FileSystem::stateOf(disk).isFolder;
        m_ctx.bridge.logInfo(fmt::format("Files in folder: {}", FileSystem::shown(path)));
        if (!isFolder)
            throw pathDoesntExist(path);
        const std::string& folder = *disk;
        // Unlike the walk, this listing keeps partial uploads and .DS_Store.
        std::vector<FileSyncInfo> files;
        for (const auto& name : FileSystem::listFolder(folder)) {
            std::string child = FileSystem::childPath(folder, name);
            if (FileSystem::typeOf(child) != FileSystem::ItemType::RegularFile)
                continue;
            files.push_back(FileSyncInfo::initFromPath(child));
            m_ctx.bridge.logInfo(child);
        }
        m_ctx.io.writeDataPacket(Command::FilesInFolder, BitHelper::encodeFileSyncInfoArray(files), context);
    });
}

void FolderQueries::allFilesInFolder()
{
    const std::string context = "all files in folder";
    guarded(m_ctx.io, Command::AllFilesInFolder, context, [&] {
        auto path = m_ctx.io.readString(context);
        bool withHash = m_ctx.io.readBool(context);
        m_ctx.bridge.logInfo(
            fmt::format("All files in folder: {}, MD5 = {}", FileSystem::shown(path), yesNo(withHash)));
        auto disk = DiskPath::of(path, m_ctx.settings);
        if (!FileSystem::stateOf(disk).isFolder)
            throw pathDoesntExist(path);
        m_ctx.io.writeEmptyHeader(Command::AllFilesInFolder, context);
        // A folder literally named "~..." passed the test above; its records
        // expand the "~" and so name other items than those listed. That
        // oddity keeps the walk by paths; every other tree takes the fast one.
        if (disk->starts_with("~")) {
            recurseFolder(*disk, withHash);
            m_ctx.io.writeData(BitHelper::encodeDirSyncInfo(DirSyncInfo::finish()), context);
            return;
        }
        FolderWalk::Hooks hooks{[this](const std::string& line) { m_ctx.bridge.logInfo(line); },
            m_ctx.settings.getTrace(), &m_ctx.answerable};
        FolderWalk(m_ctx.io, context, std::move(hooks), withHash).run(*disk);
    });
}

void FolderQueries::calculateFileHash()
{
    // Answers nothing and reads nothing beyond the password: phones send it
    // and go straight on to their next command.
    // kept: see docs/protocol.md (hash command answers nothing)
}

// Depth first, pre-order: the folder's record, its files, then each subfolder
// in turn. Every record goes out as soon as it is built, and only the
// listings of the folders on the current path are held.
void FolderQueries::recurseFolder(const std::string& path, bool withHash)
{
    const std::string context = "all files in folder";
    m_ctx.io.writeData(BitHelper::encodeDirSyncInfo(DirSyncInfo::initFromPath(path)), context);
    const std::vector<std::string> names = FileSystem::listFolder(path);

    for (const auto& name : names) {
        std::string child = FileSystem::childPath(path, name);
        try {
            if (FileSystem::typeOf(child) != FileSystem::ItemType::RegularFile || Protocol::isLeftOutOfListings(name))
                continue;
            FileSyncInfo info = FileSyncInfo::initFromPath(child);
            if (withHash)
                info.hash = Digest::md5OfFile(child, &m_ctx.answerable);
            m_ctx.io.writeData(BitHelper::encodeFileSyncInfo(info), context);
            m_ctx.bridge.logInfo(fmt::format("Found file: {}.", child));
        } catch (const std::exception& failure) {
            // One bad file does not end the walk; a dead connection surfaces
            // at the next folder record.
            m_ctx.bridge.logInfo(fmt::format("Exception thrown for {}: {} - {}", child, StreamIO::nameOf(failure),
                StreamIO::reasonOf(failure)));
        }
    }

    // Links to folders are not followed, so the walk cannot loop.
    for (const auto& name : names) {
        std::string child = FileSystem::childPath(path, name);
        if (FileSystem::typeOf(child) == FileSystem::ItemType::Directory)
            recurseFolder(child, withHash);
    }
}

#include "session/FileSystemOps.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include <fmt/format.h>

#include "bridge/UIBridge.h"
#include "journal/SessionActivity.h"
#include "session/DeleteGuard.h"
#include "session/DiskPath.h"
#include "session/FileSystem.h"
#include "settings/Settings.h"
#include "wire/BitHelper.h"
#include "wire/Commands.h"
#include "wire/Paths.h"
#include "wire/SyncException.h"

namespace {

using OptionalPath = std::optional<std::string>;

// The count travels as 64 bits, but only its low 32 bits count, signed: 2^32
// is 0, and anything at or below 0 reads no items.
// kept: see docs/protocol.md (32-bit counts)
std::int32_t batchCount(std::int64_t raw)
{
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(static_cast<std::uint64_t>(raw)));
}

// What one item of a batch did: it was skipped (which counts as success),
// or its check afterwards passed or failed.
enum class Outcome { Skipped, Done, Failed };

// Errors of the platform's create, remove and move are not looked at: only
// the existence checks after each one decide. With `mayChange` off (the
// read-only switch) the change itself is left out, so an item that would
// have acted fails its check and is answered as a failed item.
Outcome createOne(const OptionalPath& path, bool mayChange, SessionActivity& activity)
{
    if (FileSystem::stateOf(path).exists)
        return Outcome::Skipped;
    if (mayChange && path) {
        std::error_code ignored;
        std::filesystem::create_directories(*path, ignored);
    }
    if (!FileSystem::stateOf(path).exists)
        return Outcome::Failed;
    activity.createdFolder(*path);
    return Outcome::Done;
}

Outcome deleteFileOne(const OptionalPath& path, bool mayChange, SessionActivity& activity)
{
    auto state = FileSystem::stateOf(path);
    if (!state.exists || state.isFolder)
        return Outcome::Skipped;
    if (mayChange)
        activity.remove(*path, false);
    return FileSystem::stateOf(path).exists ? Outcome::Failed : Outcome::Done;
}

Outcome deleteFolderOne(const OptionalPath& path, bool mayChange, SessionActivity& activity)
{
    auto state = FileSystem::stateOf(path);
    if (!state.exists || !state.isFolder)
        return Outcome::Skipped;
    // A link to a folder goes as a link: what it points at stays. A trailing
    // "/" would make the removal look through the link, so it is dropped.
    std::string item = *path;
    while (item.size() > 1 && item.back() == '/')
        item.pop_back();
    if (mayChange)
        activity.remove(item, true);
    return FileSystem::stateOf(path).exists ? Outcome::Failed : Outcome::Done;
}

Outcome renameOne(const OptionalPath& from, const OptionalPath& to, bool mayChange, SessionActivity& activity)
{
    auto state = FileSystem::stateOf(from);
    if (!state.exists || state.isFolder)
        return Outcome::Skipped;
    if (mayChange && to)
        FileSystem::moveWithoutReplacing(*from, *to);
    bool moved = !FileSystem::stateOf(from).exists && FileSystem::stateOf(to).exists;
    if (moved)
        activity.renamed(*from, *to);
    return moved ? Outcome::Done : Outcome::Failed;
}

// Logs an item's outcome; a skipped item logs nothing.
Outcome report(Outcome outcome, const UIBridge& log, const std::string& doneLine, const std::string& failedLine)
{
    if (outcome == Outcome::Done)
        log.logInfo(doneLine);
    else if (outcome == Outcome::Failed)
        log.logInfo(failedLine);
    return outcome;
}

// The frame the four batch handlers share: a count, then per item its
// strings and its work; a failed item turns the answer false and the next
// one goes on.
template <typename Item>
void runBatch(StreamIO& io, const UIBridge& log, std::uint8_t code, const std::string& context,
    const std::string& countLine, Item&& item)
{
    std::int32_t count = batchCount(io.readLong(context));
    log.logInfo(fmt::format("{}. Count = {}", countLine, count));
    bool result = true;
    for (std::int32_t i = 0; i < count; ++i) {
        if (item() == Outcome::Failed)
            result = false;
    }
    io.writeDataPacket(code, BitHelper::encodeBool(result), context);
}

} // namespace

using FileSystem::shown;

void FileSystemOps::createDirectories()
{
    const std::string context = "creating directories";
    guarded(m_ctx.io, Command::CreateDirectories, context, [&] {
        runBatch(m_ctx.io, m_ctx.bridge, Command::CreateDirectories, context, "Creating directories", [&] {
            auto path = m_ctx.io.readString(context);
            return report(createOne(onDisk(path), mayChange(), m_ctx.activity), m_ctx.bridge,
                fmt::format("Created directory: {}", shown(path)),
                fmt::format("Could not create directory: {}", shown(path)));
        });
    });
}

void FileSystemOps::deleteFiles()
{
    const std::string context = "deleting files";
    guarded(m_ctx.io, Command::DeleteFiles, context, [&] {
        runBatch(m_ctx.io, m_ctx.bridge, Command::DeleteFiles, context, "Deleting files", [&] {
            auto path = m_ctx.io.readString(context);
            return report(deleteFileOne(onDisk(path), mayChange(), m_ctx.activity), m_ctx.bridge,
                fmt::format("Deleted file: {}", shown(path)), fmt::format("Could not delete file: {}", shown(path)));
        });
    });
}

void FileSystemOps::deleteFolders()
{
    const std::string context = "deleting directories";
    guarded(m_ctx.io, Command::DeleteFolders, context, [&] {
        runBatch(m_ctx.io, m_ctx.bridge, Command::DeleteFolders, context, "Deleting folders", [&] {
            auto path = m_ctx.io.readString(context);
            auto disk = onDisk(path);
            if (refused(disk, shown(path)))
                return Outcome::Failed;
            return report(deleteFolderOne(disk, mayChange(), m_ctx.activity), m_ctx.bridge,
                fmt::format("Deleted directory: {}", shown(path)),
                fmt::format("Could not delete directory: {}", shown(path)));
        });
    });
}

void FileSystemOps::renameFiles()
{
    const std::string context = "renaming files";
    guarded(m_ctx.io, Command::RenameFiles, context, [&] {
        runBatch(m_ctx.io, m_ctx.bridge, Command::RenameFiles, context, "Renaming files", [&] {
            auto from = m_ctx.io.readString(context);
            auto to = m_ctx.io.readString(context);
            return report(renameOne(onDisk(from), onDisk(to), mayChange(), m_ctx.activity), m_ctx.bridge,
                fmt::format("Renamed file '{}' to '{}'", shown(from), shown(to)),
                fmt::format("Could not rename file '{}' to '{}'", shown(from), shown(to)));
        });
    });
}

void FileSystemOps::freeSpace()
{
    const std::string context = "free space";
    guarded(m_ctx.io, Command::FreeSpace, context, [&] {
        auto path = m_ctx.io.readString(context);
        m_ctx.bridge.logInfo(fmt::format("Free space for path: {}", shown(path)));
        auto disk = onDisk(path);
        if (!FileSystem::stateOf(disk).isFolder)
            throw SyncException("PathDoesntExist", fmt::format("Path {} does not exist.", shown(path)));
        auto free = FileSystem::freeBytes(*disk);
        if (!free)
            throw SyncException("AttributesError",
                fmt::format("Could not retrieve file system attributes for path: {}", *path));
        m_ctx.io.writeDataPacket(Command::FreeSpace, BitHelper::encodeLongLong(*free), context);
        // Gigabytes of 1024^3 bytes, logged only once the phone has its answer.
        m_ctx.bridge.logInfo(
            fmt::format("Free space: {:.2f} GB", static_cast<double>(*free) / 1024 / 1024 / 1024));
    });
}

std::optional<std::string> FileSystemOps::onDisk(const std::optional<std::string>& received) const
{
    return DiskPath::of(received, m_ctx.settings);
}

bool FileSystemOps::refused(const std::optional<std::string>& disk, const std::string& shownPath) const
{
    if (!disk)
        return false;
    auto holds = DeleteGuard::check(*disk, Paths::homeDirectory(), m_ctx.settings.getBasePath());
    if (holds == DeleteGuard::Holds::Nothing)
        return false;
    m_ctx.bridge.logInfo(DeleteGuard::refusal(shownPath, holds));
    return true;
}

bool FileSystemOps::mayChange() const
{
    return !m_ctx.settings.getReadOnly();
}

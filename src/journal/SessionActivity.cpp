#include "journal/SessionActivity.h"

#include <filesystem>
#include <mutex>
#include <random>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "journal/Journal.h"
#include "journal/Trash.h"
#include "settings/Settings.h"

namespace {

const char* const kKeepingOff = "keeping is off";

// Sessions of every process share the file: a random number tells them apart.
std::int64_t newSessionNumber()
{
    static std::mutex lock;
    static std::mt19937_64 numbers{std::random_device{}()};
    std::lock_guard guard(lock);
    return static_cast<std::int64_t>(numbers() >> 2);
}

bool exists(const std::string& path)
{
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

std::int64_t fileSize(const std::string& path)
{
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode) ? st.st_size : -1;
}

void fillKept(Change& change, const Trash::Kept& kept)
{
    change.state = Change::State::Kept;
    change.path = kept.original;
    change.keptAs = kept.item;
    change.info = kept.info;
}

} // namespace

SessionActivity::SessionActivity(std::shared_ptr<Journal> journal, const Settings& settings, std::string device)
    : m_journal(std::move(journal)), m_settings(settings), m_device(std::move(device)), m_session(newSessionNumber())
{
}

Change SessionActivity::entry(Change::Kind kind, const std::string& path) const
{
    Change change;
    change.session = m_session;
    change.device = m_device;
    change.kind = kind;
    change.path = path;
    return change;
}

void SessionActivity::started() { m_journal->record(entry(Change::Kind::Connected, "")); }

void SessionActivity::ended() { m_journal->record(entry(Change::Kind::Disconnected, "")); }

void SessionActivity::downloaded(const std::string& path, std::int64_t bytes)
{
    auto change = entry(Change::Kind::Downloaded, path);
    change.size = bytes;
    m_journal->record(std::move(change));
}

void SessionActivity::createdFolder(const std::string& path)
{
    m_journal->record(entry(Change::Kind::CreatedFolder, path));
}

void SessionActivity::renamed(const std::string& from, const std::string& to)
{
    auto change = entry(Change::Kind::Renamed, from);
    change.target = to;
    change.size = fileSize(to);
    m_journal->record(std::move(change));
}

void SessionActivity::remove(const std::string& path, bool folder)
{
    auto change = entry(folder ? Change::Kind::DeletedFolder : Change::Kind::DeletedFile, path);
    change.size = fileSize(path);
    Trash::Kept kept;
    if (m_settings.getKeepDeleted())
        kept = Trash::keep(path);
    else
        kept.why = kKeepingOff;
    if (kept.kept) {
        fillKept(change, kept);
        change.keptSize = change.size;
    } else {
        // Kept or not, the item leaves its path as the Parts say.
        std::error_code ignored;
        if (folder)
            std::filesystem::remove_all(path, ignored);
        else
            std::filesystem::remove(path, ignored);
        change.note = kept.why;
    }
    if (!exists(path))
        m_journal->record(std::move(change));
}

bool SessionActivity::replace(const std::string& destination, std::int64_t size, const std::function<bool()>& move)
{
    struct stat before {};
    bool existed = ::lstat(destination.c_str(), &before) == 0;
    Trash::Kept kept;
    if (existed && m_settings.getKeepReplaced())
        kept = Trash::keep(destination);
    else if (existed)
        kept.why = kKeepingOff;
    bool moved = move();
    if (!moved && kept.kept) {
        // Nothing took its place: the old item goes back rather than stay lost.
        if (::renameat2(AT_FDCWD, kept.item.c_str(), AT_FDCWD, kept.original.c_str(), RENAME_NOREPLACE) == 0)
            ::unlink(kept.info.c_str());
        return moved;
    }
    if (!moved)
        return moved;
    auto change = entry(existed ? Change::Kind::Replaced : Change::Kind::Uploaded, destination);
    change.size = size;
    if (kept.kept) {
        fillKept(change, kept);
        change.keptSize = S_ISDIR(before.st_mode) ? -1 : before.st_size;
    } else {
        change.note = kept.why;
    }
    m_journal->record(std::move(change));
    return moved;
}

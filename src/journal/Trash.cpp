#include "journal/Trash.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "wire/Paths.h"

namespace fs = std::filesystem;

namespace {

// Name clashes in the trash are rare; past this many the item is not kept.
constexpr int kMaxNameTries = 10000;

struct Place {
    std::string dir;
    // The volume's top folder for a trash on another volume: its info
    // files then hold paths relative to it, as the specification allows.
    std::string topdir;
};

std::string errorText(int error) { return std::strerror(error); }

std::string withoutTrailingSlashes(std::string path)
{
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

// The item's place with its folder resolved (the item itself, perhaps a
// link, is left as it is), so the info file names where it really was.
std::string originalPath(const std::string& path)
{
    fs::path p = fs::absolute(withoutTrailingSlashes(path));
    std::error_code ignored;
    fs::path parent = fs::weakly_canonical(p.parent_path(), ignored);
    return (parent.empty() ? p.parent_path() : parent).append(p.filename().string()).string();
}

bool isTrashFolderName(const std::string& name)
{
    return name == ".Trash" || name.rfind(".Trash-", 0) == 0;
}

bool insideTrash(const std::string& original)
{
    const std::string home = Trash::homeTrash();
    if (original == home || original.rfind(home + "/", 0) == 0)
        return true;
    for (const auto& part : fs::path(original))
        if (isTrashFolderName(part.string()))
            return true;
    return false;
}

// A folder of ours, made 0700 when missing: a link or someone else's
// folder in its place is not used.
bool ownFolder(const std::string& dir, std::string& why)
{
    if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
        why = errno == EROFS ? "its volume is read-only" : "no trash can be made on its volume (" + errorText(errno) + ")";
        return false;
    }
    struct stat st {};
    if (::lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::getuid()) {
        why = "the volume's trash " + dir + " is not a folder of this user";
        return false;
    }
    return true;
}

bool readyTrash(const Place& place, std::string& why)
{
    return ownFolder(place.dir, why) && ownFolder(place.dir + "/files", why) && ownFolder(place.dir + "/info", why);
}

// The folder at the top of the volume that holds `original`.
std::string topdirOf(const std::string& original, dev_t device)
{
    fs::path top = fs::path(original).parent_path();
    for (fs::path up = top.parent_path(); up != top; top = up, up = top.parent_path()) {
        struct stat st {};
        if (::stat(up.c_str(), &st) != 0 || st.st_dev != device)
            break;
    }
    return top.string();
}

std::optional<Place> placeFor(const std::string& original, dev_t device, std::string& why)
{
    std::string home = Trash::homeTrash();
    std::error_code ignored;
    fs::create_directories(home, ignored);
    struct stat homeState {};
    if (::stat(home.c_str(), &homeState) == 0 && homeState.st_dev == device) {
        Place place{home, {}};
        if (readyTrash(place, why))
            return place;
        return std::nullopt;
    }
    std::string top = topdirOf(original, device);
    std::string uid = std::to_string(::getuid());
    // An administrator's $topdir/.Trash: used only when it is a real folder
    // with the sticky bit, as the specification requires.
    struct stat shared {};
    if (::lstat((top + "/.Trash").c_str(), &shared) == 0 && S_ISDIR(shared.st_mode) && (shared.st_mode & S_ISVTX)) {
        Place place{top + "/.Trash/" + uid, top};
        std::string ignoredWhy;
        if (readyTrash(place, ignoredWhy))
            return place;
    }
    Place place{top + "/.Trash-" + uid, top};
    if (readyTrash(place, why))
        return place;
    return std::nullopt;
}

// "a.txt", "a.2.txt", "a.3.txt", …: the extension stays last so the file
// manager still knows the kind.
std::string candidate(const std::string& name, int n)
{
    if (n == 1)
        return name;
    auto dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0)
        return name + "." + std::to_string(n);
    return name.substr(0, dot) + "." + std::to_string(n) + name.substr(dot);
}

bool writeAll(int fd, const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// Claims a name by creating its info file exclusively; a name whose item
// already stands in files/ (an item without its info) is passed over too.
std::optional<std::string> claimName(const Place& place, const std::string& name, const std::string& text,
    std::string& why)
{
    for (int n = 1; n <= kMaxNameTries; ++n) {
        std::string chosen = candidate(name, n);
        std::string info = place.dir + "/info/" + chosen + ".trashinfo";
        int fd = ::open(info.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0) {
            if (errno == EEXIST)
                continue;
            why = errno == EROFS ? "its volume is read-only" : "no info file can be written (" + errorText(errno) + ")";
            return std::nullopt;
        }
        struct stat st {};
        bool taken = ::lstat((place.dir + "/files/" + chosen).c_str(), &st) == 0;
        bool written = !taken && writeAll(fd, text);
        ::close(fd);
        if (written)
            return chosen;
        ::unlink(info.c_str());
        if (!taken) {
            why = "no info file can be written";
            return std::nullopt;
        }
    }
    why = "too many items of that name in the trash";
    return std::nullopt;
}

std::string relativeTo(const std::string& top, const std::string& original)
{
    if (top == "/")
        return original.substr(1);
    return original.substr(top.size() + 1);
}

} // namespace

namespace Trash {

std::string homeTrash()
{
    const char* xdg = std::getenv("XDG_DATA_HOME");
    std::string base = (xdg && *xdg == '/') ? std::string(xdg) : Paths::homeDirectory() + "/.local/share";
    return base + "/Trash";
}

Kept keep(const std::string& path, const std::function<void()>& betweenSteps)
{
    Kept result;
    std::string original = originalPath(path);
    result.original = original;
    struct stat st {};
    if (::lstat(original.c_str(), &st) != 0) {
        result.why = "it is gone (" + errorText(errno) + ")";
        return result;
    }
    if (insideTrash(original)) {
        result.why = "it is inside a trash folder";
        return result;
    }
    auto place = placeFor(original, st.st_dev, result.why);
    if (!place)
        return result;
    std::string pathValue = place->topdir.empty() ? original : relativeTo(place->topdir, original);
    std::string text = infoText(pathValue, std::time(nullptr));
    auto name = claimName(*place, fs::path(original).filename().string(), text, result.why);
    if (!name)
        return result;
    result.item = place->dir + "/files/" + *name;
    result.info = place->dir + "/info/" + *name + ".trashinfo";
    if (betweenSteps)
        betweenSteps();
    if (::renameat2(AT_FDCWD, original.c_str(), AT_FDCWD, result.item.c_str(), RENAME_NOREPLACE) != 0) {
        int error = errno;
        ::unlink(result.info.c_str());
        result.why = error == EROFS ? "its volume is read-only" : "it cannot be moved into the trash (" + errorText(error) + ")";
        result.item.clear();
        result.info.clear();
        return result;
    }
    result.kept = true;
    return result;
}

std::optional<std::string> putBack(const std::string& item, const std::string& info, const std::string& original,
    std::string& why)
{
    struct stat st {};
    if (::lstat(item.c_str(), &st) != 0) {
        why = "it is no longer in the trash";
        return std::nullopt;
    }
    std::error_code ignored;
    fs::create_directories(fs::path(original).parent_path(), ignored);
    for (int n = 1; n <= kMaxNameTries; ++n) {
        std::string target = n == 1 ? original
            : n == 2                ? original + " (restored)"
                                    : original + " (restored " + std::to_string(n - 1) + ")";
        if (::renameat2(AT_FDCWD, item.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) {
            ::unlink(info.c_str());
            return target;
        }
        if (errno != EEXIST) {
            why = errorText(errno);
            return std::nullopt;
        }
    }
    why = "every restored name is taken";
    return std::nullopt;
}

void discard(const std::string& item, const std::string& info)
{
    std::error_code ignored;
    fs::remove_all(item, ignored);
    if (!ignored)
        ::unlink(info.c_str());
}

int removeOrphanInfo(const std::string& trashDir, std::int64_t minAgeSeconds)
{
    int removed = 0;
    std::error_code failed;
    const std::string suffix = ".trashinfo";
    std::time_t now = std::time(nullptr);
    for (const auto& entry : fs::directory_iterator(trashDir + "/info", failed)) {
        std::string name = entry.path().filename().string();
        if (name.size() <= suffix.size() || name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0)
            continue;
        struct stat st {}, item {};
        std::string itemPath = trashDir + "/files/" + name.substr(0, name.size() - suffix.size());
        if (::lstat(itemPath.c_str(), &item) == 0 || ::lstat(entry.path().c_str(), &st) != 0)
            continue;
        if (now - st.st_mtime >= minAgeSeconds && ::unlink(entry.path().c_str()) == 0)
            ++removed;
    }
    return removed;
}

std::string trashDirOf(const std::string& item)
{
    return fs::path(item).parent_path().parent_path().string();
}

std::int64_t sizeOf(const std::string& path)
{
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0)
        return 0;
    std::int64_t total = S_ISDIR(st.st_mode) ? 0 : st.st_size;
    if (!S_ISDIR(st.st_mode))
        return total;
    std::error_code failed;
    for (fs::recursive_directory_iterator it(path, failed), end; !failed && it != end; it.increment(failed)) {
        struct stat child {};
        if (::lstat(it->path().c_str(), &child) == 0 && !S_ISDIR(child.st_mode))
            total += child.st_size;
    }
    return total;
}

std::int64_t volumeSize(const std::string& path)
{
    struct statvfs vfs {};
    if (::statvfs(path.c_str(), &vfs) != 0)
        return 0;
    return static_cast<std::int64_t>(vfs.f_blocks) * static_cast<std::int64_t>(vfs.f_frsize);
}

std::string infoText(const std::string& pathValue, std::int64_t deletedAtSeconds)
{
    return "[Trash Info]\nPath=" + escapePath(pathValue) + "\nDeletionDate=" + deletionDate(deletedAtSeconds) + "\n";
}

// Escaped as URLs are: everything but letters, digits, "/" and the marks
// "-_.!~*'()" as %XX, byte by byte, so any name survives the round trip.
std::string escapePath(const std::string& path)
{
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : path) {
        if (std::isalnum(c) && c < 0x80)
            out += static_cast<char>(c);
        else if (std::strchr("/-_.!~*'()", c) && c != 0)
            out += static_cast<char>(c);
        else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

std::string unescapePath(const std::string& text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1]))
            && std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

// Local time, YYYY-MM-DDThh:mm:ss, as the specification asks.
std::string deletionDate(std::int64_t seconds)
{
    std::time_t t = static_cast<std::time_t>(seconds);
    std::tm local{};
    localtime_r(&t, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
    return text;
}

} // namespace Trash

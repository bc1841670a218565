#include "session/DiskPath.h"

#include <cerrno>
#include <climits>
#include <deque>
#include <filesystem>
#include <system_error>

#include <sys/stat.h>
#include <unistd.h>

#include "settings/Settings.h"
#include "wire/Paths.h"

namespace DiskPath {

namespace {

namespace fs = std::filesystem;

// As many links as the kernel follows before it gives up (ELOOP).
constexpr int kMaxLinks = 40;

void pushFront(std::deque<std::string>& pending, const fs::path& path)
{
    std::deque<std::string> parts;
    for (const auto& part : path.relative_path())
        parts.push_back(part.string());
    pending.insert(pending.begin(), parts.begin(), parts.end());
}

// Confinement: the path must lead to the base folder (the one the default
// path command answers) or below it.
bool insideBaseFolder(const std::string& path, const Settings& settings)
{
    const auto base = resolved(Paths::expandTilde(settings.getBasePath()));
    const auto target = resolved(path);
    return base && target && contains(*base, *target);
}

} // namespace

// Dangling links are followed because a file created through one lands at
// its target; ".." below a folder that does not exist gives nothing because
// the platform's create-all would make that folder first, wherever it is.
std::optional<fs::path> resolved(const std::string& text)
{
    std::error_code ec;
    const fs::path absolute = fs::absolute(text, ec);
    if (ec)
        return std::nullopt;
    std::deque<std::string> pending;
    pushFront(pending, absolute);
    fs::path result = "/";
    bool missing = false;
    int links = 0;
    while (!pending.empty()) {
        const std::string part = std::move(pending.front());
        pending.pop_front();
        if (part.empty() || part == ".")
            continue;
        if (part == "..") {
            if (missing)
                return std::nullopt;
            result = result.parent_path();
            continue;
        }
        fs::path next = result / part;
        struct stat st {};
        if (missing || ::lstat(next.c_str(), &st) != 0) {
            missing = true;
            result = std::move(next);
            continue;
        }
        if (!S_ISLNK(st.st_mode)) {
            result = std::move(next);
            continue;
        }
        if (++links > kMaxLinks)
            return std::nullopt;
        char target[PATH_MAX];
        ssize_t length = ::readlink(next.c_str(), target, sizeof target);
        if (length <= 0 || length == static_cast<ssize_t>(sizeof target))
            return std::nullopt;
        const fs::path link(std::string(target, static_cast<std::size_t>(length)));
        if (link.is_absolute())
            result = "/";
        pushFront(pending, link);
    }
    return result;
}

bool contains(const fs::path& folder, const fs::path& path)
{
    auto f = folder.begin();
    auto p = path.begin();
    for (; f != folder.end(); ++f, ++p) {
        if (p == path.end() || *f != *p)
            return false;
    }
    return true;
}

std::optional<std::string> of(const std::optional<std::string>& received, const Settings& settings)
{
    if (!received || received->find('\0') != std::string::npos)
        return std::nullopt;
    if (settings.getConfineToBasePath() && !insideBaseFolder(*received, settings))
        return std::nullopt;
    return received;
}

} // namespace DiskPath

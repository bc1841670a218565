#include "session/DeleteGuard.h"

#include <filesystem>
#include <optional>
#include <system_error>

#include <fmt/format.h>

#include "session/DiskPath.h"
#include "wire/Paths.h"

namespace DeleteGuard {

namespace {

namespace fs = std::filesystem;

// "~" and "~/x" take the given home; "~name/x" that user's.
std::string withHome(const std::string& path, const std::string& home)
{
    if (path == "~" || path.rfind("~/", 0) == 0)
        return home + path.substr(1);
    return Paths::expandTilde(path);
}

// The item a removal of `text` would take: the parent chain resolved, the
// last component left as it is, unless it is "." or ".." (which name the
// folder they lead to, links and all).
std::optional<fs::path> itemOf(std::string text)
{
    while (text.size() > 1 && text.back() == '/')
        text.pop_back();
    std::error_code ec;
    const fs::path absolute = fs::absolute(text, ec);
    if (ec)
        return std::nullopt;
    const fs::path last = absolute.filename();
    if (last.empty() || last == "." || last == "..")
        return DiskPath::resolved(absolute.string());
    auto parent = DiskPath::resolved(absolute.parent_path().string());
    if (!parent)
        return std::nullopt;
    return *parent / last;
}

// The folder as written and as its links lead.
bool holds(const fs::path& item, const std::string& folder)
{
    if (folder.empty())
        return false;
    for (const auto& form : {itemOf(folder), DiskPath::resolved(folder)}) {
        if (form && DiskPath::contains(item, *form))
            return true;
    }
    return false;
}

} // namespace

Holds check(const std::string& path, const std::string& home, const std::string& base)
{
    const std::string homeFolder = withHome(home, home);
    const auto item = itemOf(withHome(path, homeFolder));
    // A path that cannot be worked out cannot be removed either.
    if (!item)
        return Holds::Nothing;
    if (*item == item->root_path() || holds(*item, homeFolder))
        return Holds::HomeFolder;
    if (holds(*item, withHome(base, homeFolder)))
        return Holds::BaseFolder;
    return Holds::Nothing;
}

std::string refusal(const std::string& shownPath, Holds holds)
{
    return fmt::format("Refused to delete {}: it holds the {} folder", shownPath,
        holds == Holds::BaseFolder ? "base" : "home");
}

} // namespace DeleteGuard

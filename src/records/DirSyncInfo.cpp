#include "records/DirSyncInfo.h"

#include <filesystem>
#include <system_error>

#include "records/ItemAttributes.h"
#include "wire/Paths.h"
#include "wire/Protocol.h"

namespace {

// Plain files directly inside the folder; a symbolic link counts as a link,
// whatever it points at.
std::int32_t countPlainFiles(const std::string& folder)
{
    std::error_code ec;
    std::filesystem::directory_iterator it(folder, ec);
    std::int32_t count = 0;
    for (; !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
        std::string entry = it->path().filename().string();
        if (Protocol::isLeftOutOfListings(entry))
            continue;
        if (ItemAttributes::read(folder + "/" + entry).isRegularFile)
            ++count;
    }
    return count;
}

} // namespace

DirSyncInfo DirSyncInfo::initFromPath(const std::string& path)
{
    DirSyncInfo info;
    info.fullName = Paths::expandTilde(path);
    info.parent = Paths::deletingLastPathComponent(info.fullName);
    info.name = Paths::lastPathComponent(info.fullName);

    const ItemAttributes attrs = ItemAttributes::read(info.fullName);
    info.created = attrs.created;
    info.modified = attrs.modified;

    info.hidden = info.name.starts_with(".");
    info.readonly = !isWritableByUs(info.fullName);
    info.fileCount = countPlainFiles(info.fullName);
    return info;
}

DirSyncInfo DirSyncInfo::finish()
{
    return DirSyncInfo{};
}

DirSyncInfo DirSyncInfo::copy() const
{
    return *this;
}

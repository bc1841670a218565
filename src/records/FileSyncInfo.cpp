#include "records/FileSyncInfo.h"

#include "records/ItemAttributes.h"
#include "wire/Paths.h"

FileSyncInfo FileSyncInfo::initFromPath(const std::string& path)
{
    FileSyncInfo info;
    info.fullName = Paths::expandTilde(path);
    info.parent = Paths::deletingLastPathComponent(info.fullName);
    info.name = Paths::lastPathComponent(info.fullName);
    info.extension = Paths::pathExtension(info.fullName);
    info.kind = info.guessFileType();

    const ItemAttributes attrs = ItemAttributes::read(info.fullName);
    info.size = attrs.size;
    info.created = attrs.created;
    info.modified = attrs.modified;

    info.hidden = info.name.starts_with(".");
    info.readonly = !isWritableByUs(info.fullName);
    info.hash = std::string();
    return info;
}

FileSyncInfo FileSyncInfo::finish()
{
    return FileSyncInfo{};
}

RecordField::Kind FileSyncInfo::guessFileType() const
{
    return fileKindForExtension(extension);
}

FileSyncInfo FileSyncInfo::copy() const
{
    FileSyncInfo duplicate = *this;
    duplicate.hash.reset();
    return duplicate;
}

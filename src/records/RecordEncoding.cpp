#include "records/RecordEncoding.h"

#include <cstdint>
#include <string_view>

namespace BitHelper {

namespace {

Bytes withLength(const Bytes& body)
{
    Bytes out = encodeLongLong(static_cast<std::int64_t>(body.size()));
    out += body;
    return out;
}

template <typename Info>
void appendFlags(Bytes& body, const Info& info)
{
    body += encodeBool(info.archive);
    body += encodeBool(info.compressed);
    body += encodeBool(info.encrypted);
    body += encodeBool(info.hidden);
    body += encodeBool(info.readonly);
    body += encodeBool(info.system);
}

template <typename Info, typename Encode>
Bytes encodeList(const std::vector<Info>& infos, Encode encode)
{
    Bytes out = encodeLongLong(static_cast<std::int64_t>(infos.size()));
    for (const auto& info : infos)
        out += encode(info);
    return out;
}

} // namespace

Bytes encodeFileSyncInfo(const FileSyncInfo& info)
{
    Bytes body = encodeString(std::string_view(info.fullName));
    body += encodeString(std::string_view(info.parent));
    body += encodeString(std::string_view(info.name));
    body += encodeString(std::string_view(info.extension));
    // The kind goes out as one byte, unlike the folder's 8-byte file count.
    body += encodeByte(static_cast<std::uint8_t>(info.kind & 0xFF));
    body += encodeLongLong(static_cast<std::int64_t>(info.size));
    body += encodeLongLong(info.created);
    body += encodeLongLong(info.modified);
    appendFlags(body, info);
    body += encodeString(info.hash);
    return withLength(body);
}

Bytes encodeFileSyncInfoArray(const std::vector<FileSyncInfo>& infos)
{
    return encodeList(infos, encodeFileSyncInfo);
}

Bytes encodeDirSyncInfo(const DirSyncInfo& info)
{
    Bytes body = encodeString(std::string_view(info.fullName));
    body += encodeString(std::string_view(info.parent));
    body += encodeString(std::string_view(info.name));
    body += encodeLongLong(info.created);
    body += encodeLongLong(info.modified);
    appendFlags(body, info);
    body += encodeLongLong(static_cast<std::int64_t>(info.fileCount));
    return withLength(body);
}

Bytes encodeDirSyncInfoArray(const std::vector<DirSyncInfo>& infos)
{
    return encodeList(infos, encodeDirSyncInfo);
}

} // namespace BitHelper

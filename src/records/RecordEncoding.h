#pragma once

#include <vector>

#include "records/DirSyncInfo.h"
#include "records/FileSyncInfo.h"
#include "wire/BitHelper.h"
#include "wire/Bytes.h"

// The wire forms of file and folder records: each record is its body's
// length (8 bytes) and the body; a list is the record count, then each record.
namespace BitHelper {

Bytes encodeFileSyncInfo(const FileSyncInfo& info);
Bytes encodeFileSyncInfoArray(const std::vector<FileSyncInfo>& infos);
Bytes encodeDirSyncInfo(const DirSyncInfo& info);
Bytes encodeDirSyncInfoArray(const std::vector<DirSyncInfo>& infos);

} // namespace BitHelper

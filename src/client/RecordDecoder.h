#pragma once

#include <cstddef>
#include <cstdint>
#include <variant>
#include <vector>

#include "client/RemoteRecords.h"
#include "wire/Bytes.h"

// Turns the server's record bytes back into RemoteFolder and RemoteFile
// values. Records carry no tag: a streamed record is told apart by which
// layout its body fits exactly. Malformed input throws ProtocolError.
namespace RecordDecoder {

// Bodies without the fixed parts' strings: 8+8+6+8 after three strings for
// a folder, 1+8+8+8+6 after four strings (then the hash) for a file.
constexpr std::size_t kFolderFixedBytes = 30;
constexpr std::size_t kFileFixedBytes = 31;
// The body lengths of the empty end-of-list records: every string empty.
constexpr std::int64_t kFolderEndBodyLength = 3 * 8 + 30;
constexpr std::int64_t kFileEndBodyLength = 5 * 8 + 31;
// No record of a real path comes near this; a longer one means the stream
// has lost its place.
constexpr std::int64_t kMaxRecordBodyLength = 4 * 1024 * 1024;

// A record body, without its 8-byte length field.
RemoteFolder decodeFolderBody(const Bytes& body);
RemoteFile decodeFileBody(const Bytes& body);

using Record = std::variant<RemoteFolder, RemoteFile>;
// Whichever layout the body fits.
Record decodeRecordBody(const Bytes& body);

// The data of a listing reply: an 8-byte count, then each record with its
// own length field.
std::vector<RemoteFolder> decodeFolderList(const Bytes& data);
std::vector<RemoteFile> decodeFileList(const Bytes& data);

bool isEndMarker(const RemoteFolder& folder);
bool isEndMarker(const RemoteFile& file);

} // namespace RecordDecoder

// The client's record decoders against the server's encoders.

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "client/ClientErrors.h"
#include "client/RecordDecoder.h"
#include "records/DirSyncInfo.h"
#include "records/FileSyncInfo.h"
#include "records/RecordEncoding.h"
#include "support/TestSupport.h"

namespace {

// The body of an encoded record, without its length field.
Bytes bodyOf(const Bytes& record) { return Bytes(record.begin() + 8, record.end()); }

auto fields(const RemoteFile& f)
{
    return std::make_tuple(f.fullName, f.parent, f.name, f.extension, f.kind, f.size, f.created, f.modified,
        f.archive, f.compressed, f.encrypted, f.hidden, f.readonly, f.system, f.hash);
}

auto fields(const RemoteFolder& f)
{
    return std::make_tuple(f.fullName, f.parent, f.name, f.created, f.modified, f.archive, f.compressed, f.encrypted,
        f.hidden, f.readonly, f.system, f.fileCount);
}

TEST(RecordDecoderTest, EachKindComesBackWholeFromTheServersEncoders)
{
    TempHome home;
    auto song = home.write("Music/Ünïcode Band/.b song.MP3", std::string(1234, 'x'));
    home.write("Music/Ünïcode Band/other.txt", "t");
    auto file = FileSyncInfo::initFromPath(song.string());
    file.hash = std::string(32, 'a');
    file.size = 5'000'000'000ull; // wider than 32 bits
    // Flags the server never sets, so that each lands in its own place.
    file.archive = file.encrypted = true;
    auto dir = DirSyncInfo::initFromPath(song.parent_path().string());
    dir.created = -2;
    dir.compressed = dir.system = true;

    auto files = RecordDecoder::decodeFileList(BitHelper::encodeFileSyncInfoArray({file, FileSyncInfo::finish()}));
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(fields(files[0]),
        std::make_tuple(file.fullName, file.parent, file.name, std::string("MP3"), RecordField::Kind(FileKindAudio),
            file.size, file.created, file.modified, true, false, true, true, false, false, *file.hash));
    EXPECT_TRUE(RecordDecoder::isEndMarker(files[1]));

    auto folders = RecordDecoder::decodeFolderList(BitHelper::encodeDirSyncInfoArray({dir, DirSyncInfo::finish()}));
    ASSERT_EQ(folders.size(), 2u);
    EXPECT_EQ(fields(folders[0]), std::make_tuple(dir.fullName, dir.parent, dir.name, RecordField::Date(-2),
                                      dir.modified, false, true, false, false, false, true, RecordField::FileCount(2)));
    EXPECT_TRUE(RecordDecoder::isEndMarker(folders[1]));

    // A streamed record carries no tag: its layout tells. A missing file
    // has dates 0 and must still not pass for a folder.
    auto missing = BitHelper::encodeFileSyncInfo(FileSyncInfo::initFromPath("/no/such"));
    EXPECT_EQ(std::get<RemoteFile>(RecordDecoder::decodeRecordBody(bodyOf(missing))).fullName, "/no/such");
    auto folder = RecordDecoder::decodeRecordBody(bodyOf(BitHelper::encodeDirSyncInfo(dir)));
    EXPECT_EQ(fields(std::get<RemoteFolder>(folder)), fields(folders[0]));
}

TEST(RecordDecoderTest, MalformedBytesAreProtocolErrors)
{
    Bytes body = bodyOf(BitHelper::encodeFileSyncInfo(FileSyncInfo::initFromPath("/a/b.txt")));
    Bytes folder = bodyOf(BitHelper::encodeDirSyncInfo(DirSyncInfo::initFromPath("/a")));
    Bytes longBody = body;
    longBody.push_back(0);
    Bytes badString = body; // a string length that points past the record
    badString[0] = 0xff;
    Bytes wideCount = folder; // a file count no 32-bit server sends
    wideCount[wideCount.size() - 4] = 1;
    Bytes list = BitHelper::encodeFileSyncInfoArray({FileSyncInfo::finish()});
    list[0] = 2; // announces more records than it holds

    EXPECT_THROW(RecordDecoder::decodeFileBody(Bytes(body.begin(), body.end() - 1)), ProtocolError);
    EXPECT_THROW(RecordDecoder::decodeFileBody(longBody), ProtocolError);
    EXPECT_THROW(RecordDecoder::decodeRecordBody(badString), ProtocolError);
    EXPECT_THROW(RecordDecoder::decodeFileBody(folder), ProtocolError);
    EXPECT_THROW(RecordDecoder::decodeFolderBody(body), ProtocolError);
    EXPECT_THROW(RecordDecoder::decodeFolderBody(wideCount), ProtocolError);
    EXPECT_THROW(RecordDecoder::decodeFileList(list), ProtocolError);
    EXPECT_THROW(RecordDecoder::decodeFolderList(BitHelper::encodeLongLong(INT64_MAX)), ProtocolError);
}

} // namespace

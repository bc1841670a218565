// The client's record decoders read back exactly what the server's encoders
// write, and tell the two untagged layouts apart in a stream.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/ClientErrors.h"
#include "client/RecordDecoder.h"
#include "records/DirSyncInfo.h"
#include "records/FileSyncInfo.h"
#include "records/RecordEncoding.h"
#include "support/TestSupport.h"
#include "wire/BitConverter.h"

namespace fs = std::filesystem;

namespace {

// The body of an encoded record, without its length field.
Bytes bodyOf(const Bytes& record)
{
    EXPECT_GE(record.size(), 8u);
    EXPECT_EQ(static_cast<std::size_t>(BitConverter::toInt64(record.data())), record.size() - 8);
    return Bytes(record.begin() + 8, record.end());
}

void expectSame(const FileSyncInfo& sent, const RemoteFile& got)
{
    EXPECT_EQ(got.fullName, sent.fullName);
    EXPECT_EQ(got.parent, sent.parent);
    EXPECT_EQ(got.name, sent.name);
    EXPECT_EQ(got.extension, sent.extension);
    EXPECT_EQ(got.kind, sent.kind);
    EXPECT_EQ(got.size, sent.size);
    EXPECT_EQ(got.created, sent.created);
    EXPECT_EQ(got.modified, sent.modified);
    EXPECT_EQ(got.hidden, sent.hidden);
    EXPECT_EQ(got.readonly, sent.readonly);
    EXPECT_EQ(got.hash, sent.hash.value_or(""));
}

void expectSame(const DirSyncInfo& sent, const RemoteFolder& got)
{
    EXPECT_EQ(got.fullName, sent.fullName);
    EXPECT_EQ(got.parent, sent.parent);
    EXPECT_EQ(got.name, sent.name);
    EXPECT_EQ(got.created, sent.created);
    EXPECT_EQ(got.modified, sent.modified);
    EXPECT_EQ(got.hidden, sent.hidden);
    EXPECT_EQ(got.readonly, sent.readonly);
    EXPECT_EQ(got.fileCount, sent.fileCount);
}

class RecordDecoderTest : public ::testing::Test {
protected:
    TempHome m_home;
};

TEST_F(RecordDecoderTest, RecordsBuiltFromRealPathsComeBackWhole)
{
    auto song = m_home.write("Music/Ünïcode Band/.b song.MP3", std::string(1234, 'x'));
    m_home.write("Music/Ünïcode Band/other.txt", "t");
    auto info = FileSyncInfo::initFromPath(song.string());
    info.hash = "0123456789abcdef0123456789abcdef";
    auto file = RecordDecoder::decodeFileBody(bodyOf(BitHelper::encodeFileSyncInfo(info)));
    expectSame(info, file);
    EXPECT_EQ(file.size, 1234u);
    EXPECT_TRUE(file.hidden);
    EXPECT_EQ(file.kind, 1); // audio

    auto dir = DirSyncInfo::initFromPath(song.parent_path().string());
    auto folder = RecordDecoder::decodeFolderBody(bodyOf(BitHelper::encodeDirSyncInfo(dir)));
    expectSame(dir, folder);
    EXPECT_EQ(folder.fileCount, 2);
    EXPECT_NE(folder.modified, 0);
}

TEST_F(RecordDecoderTest, StreamedRecordsAreToldApartByLayout)
{
    auto path = m_home.write("a/b.txt", "hello");
    std::vector<Bytes> bodies = {
        bodyOf(BitHelper::encodeDirSyncInfo(DirSyncInfo::initFromPath((m_home.path() / "a").string()))),
        bodyOf(BitHelper::encodeFileSyncInfo(FileSyncInfo::initFromPath(path.string()))),
        // A missing file has dates 0: its body must still not pass for a folder.
        bodyOf(BitHelper::encodeFileSyncInfo(FileSyncInfo::initFromPath("/no/such"))),
        bodyOf(BitHelper::encodeFileSyncInfo(FileSyncInfo::finish())),
        bodyOf(BitHelper::encodeDirSyncInfo(DirSyncInfo::finish())),
    };
    EXPECT_TRUE(std::holds_alternative<RemoteFolder>(RecordDecoder::decodeRecordBody(bodies[0])));
    EXPECT_EQ(std::get<RemoteFile>(RecordDecoder::decodeRecordBody(bodies[1])).name, "b.txt");
    EXPECT_EQ(std::get<RemoteFile>(RecordDecoder::decodeRecordBody(bodies[2])).fullName, "/no/such");

    auto fileEnd = std::get<RemoteFile>(RecordDecoder::decodeRecordBody(bodies[3]));
    EXPECT_TRUE(RecordDecoder::isEndMarker(fileEnd));
    EXPECT_EQ(bodies[3].size(), std::size_t(RecordDecoder::kFileEndBodyLength));
    auto folderEnd = std::get<RemoteFolder>(RecordDecoder::decodeRecordBody(bodies[4]));
    EXPECT_TRUE(RecordDecoder::isEndMarker(folderEnd));
    EXPECT_EQ(bodies[4].size(), std::size_t(RecordDecoder::kFolderEndBodyLength));
    EXPECT_FALSE(RecordDecoder::isEndMarker(std::get<RemoteFolder>(RecordDecoder::decodeRecordBody(bodies[0]))));
}

TEST_F(RecordDecoderTest, WideValuesKeepTheirSign)
{
    DirSyncInfo dir = DirSyncInfo::finish();
    dir.fullName = "/x";
    dir.created = -2;
    dir.fileCount = -1; // sign-extended to 8 bytes on the wire
    auto folder = RecordDecoder::decodeFolderBody(bodyOf(BitHelper::encodeDirSyncInfo(dir)));
    EXPECT_EQ(folder.created, -2);
    EXPECT_EQ(folder.fileCount, -1);

    FileSyncInfo file = FileSyncInfo::finish();
    file.kind = 8;
    file.size = 5'000'000'000ull;
    auto decoded = RecordDecoder::decodeFileBody(bodyOf(BitHelper::encodeFileSyncInfo(file)));
    EXPECT_EQ(decoded.kind, 8);
    EXPECT_EQ(decoded.size, 5'000'000'000ull);
}

TEST_F(RecordDecoderTest, ListsDecodeInOrder)
{
    m_home.write("d/one", "1");
    m_home.write("d/two", "22");
    fs::create_directories(m_home.path() / "d/sub");
    auto d = (m_home.path() / "d").string();
    std::vector<FileSyncInfo> files = {FileSyncInfo::initFromPath(d + "/one"), FileSyncInfo::initFromPath(d + "/two")};
    auto decoded = RecordDecoder::decodeFileList(BitHelper::encodeFileSyncInfoArray(files));
    ASSERT_EQ(decoded.size(), 2u);
    expectSame(files[0], decoded[0]);
    expectSame(files[1], decoded[1]);

    std::vector<DirSyncInfo> folders = {DirSyncInfo::initFromPath(d + "/sub"), DirSyncInfo::initFromPath(d)};
    auto decodedFolders = RecordDecoder::decodeFolderList(BitHelper::encodeDirSyncInfoArray(folders));
    ASSERT_EQ(decodedFolders.size(), 2u);
    expectSame(folders[1], decodedFolders[1]);

    EXPECT_TRUE(RecordDecoder::decodeFileList(BitHelper::encodeFileSyncInfoArray({})).empty());
    expectSame(folders[0], RecordDecoder::decodeFolderRecord(BitHelper::encodeDirSyncInfo(folders[0])));
}

TEST_F(RecordDecoderTest, MalformedBytesAreProtocolErrors)
{
    auto file = BitHelper::encodeFileSyncInfo(FileSyncInfo::initFromPath("/a/b.txt"));
    Bytes body = bodyOf(file);
    Bytes shortBody(body.begin(), body.end() - 1);
    EXPECT_THROW(RecordDecoder::decodeFileBody(shortBody), ProtocolError);
    Bytes longBody = body;
    longBody.push_back(0);
    EXPECT_THROW(RecordDecoder::decodeFileBody(longBody), ProtocolError);
    // A string length that points past the record.
    Bytes badString = body;
    badString[0] = 0xff;
    EXPECT_THROW(RecordDecoder::decodeRecordBody(badString), ProtocolError);
    // A folder body read as a file and the other way round.
    auto folderBody = bodyOf(BitHelper::encodeDirSyncInfo(DirSyncInfo::initFromPath("/a")));
    EXPECT_THROW(RecordDecoder::decodeFileBody(folderBody), ProtocolError);
    EXPECT_THROW(RecordDecoder::decodeFolderBody(body), ProtocolError);

    // A list that announces more records than it holds.
    Bytes list = BitHelper::encodeFileSyncInfoArray({FileSyncInfo::finish()});
    list[0] = 2;
    EXPECT_THROW(RecordDecoder::decodeFileList(list), ProtocolError);
    Bytes huge = BitHelper::encodeLongLong(INT64_MAX);
    EXPECT_THROW(RecordDecoder::decodeFolderList(huge), ProtocolError);
}

} // namespace

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "client/LocalFile.h"
#include "client/RecordDecoder.h"
#include "records/FileSyncInfo.h"
#include "records/RecordEncoding.h"
#include "session/SessionTestHelpers.h"
#include "support/LoopbackServer.h"
#include "support/RecordingNotifier.h"
#include "wire/Digest.h"

namespace fs = std::filesystem;
using SessionTest::expectSessionAlive;

namespace {

constexpr std::uint8_t kDownload = Command::DownloadFiles;
constexpr std::uint8_t kUpload = Command::UploadFiles;

std::string pattern(std::size_t length, unsigned seed = 1)
{
    std::string text(length, '\0');
    for (std::size_t i = 0; i < length; ++i)
        text[i] = static_cast<char>((i * 131 + seed * 7 + i / 977) & 0xff);
    return text;
}

// Equal contents, reported by size and first difference rather than in full.
::testing::AssertionResult sameBytes(const std::string& actual, const std::string& expected)
{
    if (actual == expected)
        return ::testing::AssertionSuccess();
    auto diff = std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end());
    return ::testing::AssertionFailure() << actual.size() << " bytes where " << expected.size()
                                         << " were expected; first difference at " << (diff.first - actual.begin());
}

Bytes bytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }
std::string textOf(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }
std::string md5(const std::string& text) { return Digest::md5Hex(text.data(), text.size()); }
std::int64_t mtimeOf(const fs::path& path) { return LocalFile::modifiedOf(path.string()); }

void writeFile(const fs::path& path, const std::string& contents)
{
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << contents;
}

// A streamed file record, read through the client's decoder.
RemoteFile readRecord(SyncClient& client)
{
    return RecordDecoder::decodeFileBody(client.readExact(static_cast<std::size_t>(client.readLong())));
}

Bytes endMarker() { return BitHelper::encodeFileSyncInfo(FileSyncInfo::finish()); }

struct Wanted {
    std::string path;
    std::int64_t offset;
};

Bytes downloadFields(std::int64_t count, const std::vector<Wanted>& files, bool digest)
{
    Bytes fields = SessionTest::number(count);
    for (const auto& f : files)
        fields += SessionTest::join({SessionTest::text(f.path), SessionTest::number(f.offset)});
    return SessionTest::join({fields, SessionTest::flag(digest)});
}

struct Sending {
    std::string path;
    std::int64_t size;
    std::int64_t modified;
};

Bytes uploadFields(bool digest, std::int64_t count, const std::vector<Sending>& files)
{
    Bytes fields = SessionTest::join({SessionTest::flag(digest), SessionTest::number(count)});
    for (const auto& f : files) {
        fields += SessionTest::join({SessionTest::text(f.path), SessionTest::number(f.size), SessionTest::number(f.modified)});
        if (digest)
            fields += SessionTest::text("phone digest, ignored");
    }
    return fields;
}

std::vector<std::int64_t> readOffsets(SyncClient& client)
{
    auto reply = client.readReply();
    EXPECT_EQ(reply.code, kUpload);
    EXPECT_FALSE(reply.isError()) << reply.message;
    std::vector<std::int64_t> offsets;
    std::int32_t at = 0;
    while (at < static_cast<std::int32_t>(reply.data.size()))
        offsets.push_back(BitHelper::decodeLongLong(reply.data, at));
    return offsets;
}

// Everything the server sends until it closes the connection.
Bytes drainUntilClose(SyncClient& client)
{
    Bytes all;
    std::uint8_t block[1 << 16];
    for (;;) {
        pollfd p{client.fd(), POLLIN, 0};
        if (::poll(&p, 1, 20000) <= 0)
            throw SyncClient::Error("the server neither sent nor closed");
        ssize_t n = ::recv(client.fd(), block, sizeof block, 0);
        if (n <= 0)
            return all;
        all.insert(all.end(), block, block + n);
    }
}

class TransferTest : public ::testing::Test {
protected:
    fs::path at(const std::string& relative) { return server.home().path() / relative; }

    LoopbackServer server;
};

// ---- downloadFiles ----

TEST_F(TransferTest, DownloadSendsFromEachOffsetToTheEndAndTheWholeFileDigest)
{
    const auto contents = pattern(1000);
    const auto path = at("music/a.mp3");
    writeFile(path, contents);
    auto client = server.connect();
    client->sendCommand(kDownload, downloadFields(4, {{path, 0}, {path, 300}, {path, 1000}, {path, 1500}}, true));

    EXPECT_TRUE(client->readReply(true).isEmptyHeader);
    for (std::int64_t offset : {0, 300, 1000, 1500}) {
        auto record = readRecord(*client);
        EXPECT_EQ(record.fullName, path.string());
        EXPECT_EQ(record.size, 1000u);
        EXPECT_EQ(record.modified, mtimeOf(path));
        auto from = static_cast<std::size_t>(std::min<std::int64_t>(offset, 1000));
        EXPECT_TRUE(sameBytes(textOf(client->readExact(1000 - from)), contents.substr(from))) << "offset " << offset;
        EXPECT_EQ(client->readString(), md5(contents)) << "offset " << offset;
    }
    EXPECT_EQ(client->readExact(79), endMarker());
    expectSessionAlive(*client);
    EXPECT_TRUE(server.log().contains("Downloading files. File count = 4"));
    EXPECT_TRUE(server.log().contains(fmt::format("Sending: {}. Offset = 300", path.string())));
    EXPECT_TRUE(server.log().contains(fmt::format("Sent: {}", path.string())));
}

TEST_F(TransferTest, DownloadStreamsLargeFilesInChunksWithoutDigest)
{
    server.settings().setVerbose(true);
    const auto contents = pattern(1100000, 3);
    const auto path = at("big.bin");
    writeFile(path, contents);
    auto client = server.connect();
    client->sendCommand(kDownload, downloadFields(1, {{path, 100000}}, false));

    EXPECT_TRUE(client->readReply(true).isEmptyHeader);
    EXPECT_EQ(readRecord(*client).size, 1100000u);
    EXPECT_TRUE(sameBytes(textOf(client->readExact(1000000)), contents.substr(100000)));
    // No digest: the end marker follows the data at once.
    EXPECT_EQ(client->readExact(79), endMarker());
    expectSessionAlive(*client);
    EXPECT_TRUE(server.log().contains("Sent 512000 bytes. Offset = 612000"));
    EXPECT_TRUE(server.log().contains("Sent 488000 bytes. Offset = 1100000"));
}

TEST_F(TransferTest, DownloadOfAMissingFileSendsAnEmptyRecordThenFailsAndEndsTheSession)
{
    const auto path = at("gone.mp3").string();
    auto client = server.connect();
    client->sendCommand(kDownload, downloadFields(1, {{path, 0}}, true));

    EXPECT_TRUE(client->readReply(true).isEmptyHeader);
    auto record = readRecord(*client);
    EXPECT_EQ(record.fullName, path);
    EXPECT_EQ(record.size, 0u);
    EXPECT_EQ(record.created, 0);
    EXPECT_EQ(record.modified, 0);
    SessionTest::expectSessionEndsWith(*client, kDownload, "Failed to open file: " + path);
    EXPECT_TRUE(server.log().contains("Failed to open file: " + path));
}

TEST_F(TransferTest, DownloadOfAPathThatIsNotUtf8SendsAnEmptyRecordThenFails)
{
    // Such a path names nothing: its record has no path parts at all, and
    // no file of the name an absent value prints as is ever looked at.
    Bytes fields = SessionTest::join({SessionTest::number(1), SessionTest::number(1), Bytes{0xFF},
        SessionTest::number(0), SessionTest::flag(false)});
    auto client = server.connect();
    client->sendCommand(kDownload, fields);

    EXPECT_TRUE(client->readReply(true).isEmptyHeader);
    SessionTest::expectNext(*client, BitHelper::encodeFileSyncInfo(FileSyncInfo::initFromPath("")));
    SessionTest::expectSessionEndsWith(*client, kDownload, "Failed to open file: (null)");
    EXPECT_TRUE(server.log().contains("Sending: (null). Offset = 0"));
}

TEST_F(TransferTest, DownloadOfAPathWithANulByteNamesNothing)
{
    // The kernel would cut the path at the NUL and send report.txt instead.
    const auto real = at("report.txt");
    writeFile(real, "not to be sent");
    const auto path = real.string() + std::string(1, '\0') + ".new";
    auto client = server.connect();
    client->sendCommand(kDownload, downloadFields(1, {{path, 0}}, true));

    EXPECT_TRUE(client->readReply(true).isEmptyHeader);
    auto record = readRecord(*client);
    EXPECT_EQ(record.fullName, path);
    EXPECT_EQ(record.size, 0u);
    EXPECT_EQ(record.modified, 0);
    SessionTest::expectSessionEndsWith(*client, kDownload, "Failed to open file: " + path);
}

TEST_F(TransferTest, DownloadOfAFileThatShrinksEndsTheSessionInsteadOfWaitingForever)
{
    const auto path = at("shrinking.bin");
    {
        std::ofstream(path, std::ios::binary);
    }
    fs::resize_file(path, 64 << 20); // sparse: far more than the socket buffers hold
    auto client = server.connect();
    client->sendCommand(kDownload, downloadFields(1, {{path, 0}}, false));
    EXPECT_TRUE(client->readReply(true).isEmptyHeader);
    EXPECT_EQ(readRecord(*client).size, 64u << 20);
    fs::resize_file(path, 0);

    // Whatever was read before the cut arrives, then the error packet.
    auto rest = drainUntilClose(*client);
    auto expected = StreamIO::errorPacket(kDownload, "Failed to open file: " + path.string());
    ASSERT_GE(rest.size(), expected.size());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), rest.end() - static_cast<long>(expected.size())));
    EXPECT_LT(rest.size(), std::size_t{64} << 20);
}

TEST_F(TransferTest, DownloadOfAnythingButAPlainFileFailsLikeAFileThatCannotBeOpened)
{
    // A FIFO nobody writes would block the open; /dev/zero would feed the
    // digest for ever.
    const auto fifo = at("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& path : {fifo.string(), std::string("/dev/zero")}) {
        auto client = server.connect();
        client->sendCommand(kDownload, downloadFields(1, {{path, 0}}, true));
        EXPECT_TRUE(client->readReply(true).isEmptyHeader);
        EXPECT_EQ(readRecord(*client).fullName, path);
        SessionTest::expectSessionEndsWith(*client, kDownload, "Failed to open file: " + path);
    }
}

TEST_F(TransferTest, DownloadOfNoFilesSendsTheEndMarkerOnly)
{
    auto client = server.connect();
    // Only the low 32 bits of the count are used: 2^32 is zero files.
    for (std::int64_t count : {0LL, -3LL, 1LL << 32}) {
        client->sendCommand(kDownload, downloadFields(count, {}, true));
        EXPECT_TRUE(client->readReply(true).isEmptyHeader);
        EXPECT_EQ(client->readExact(79), endMarker());
        expectSessionAlive(*client);
    }
}

// ---- uploadFiles ----

TEST_F(TransferTest, UploadResumesFromThePartialFile)
{
    const auto contents = pattern(1000, 5);
    const auto path = at("in/song.mp3");
    writeFile(path.string() + ".zandrel", contents.substr(0, 300));
    auto client = server.connect();
    client->sendCommand(kUpload, uploadFields(true, 1, {{path, 1000, 1300000000}}));

    EXPECT_EQ(readOffsets(*client), std::vector<std::int64_t>{300});
    client->sendRaw(bytesOf(contents.substr(300)));
    EXPECT_EQ(client->readLong(), 700);
    EXPECT_EQ(client->readString(), md5(contents));
    expectSessionAlive(*client);

    EXPECT_TRUE(sameBytes(readFile(path), contents));
    EXPECT_FALSE(fs::exists(path.string() + ".zandrel"));
    EXPECT_EQ(mtimeOf(path), 1300000000);
    EXPECT_TRUE(server.log().contains(fmt::format("Uploading files. File count = 1, hash = YES")));
    EXPECT_TRUE(server.log().contains(fmt::format("Receiving: {}. Offset = 300", path.string())));
    EXPECT_TRUE(server.log().contains(fmt::format("Saved: {}.", path.string())));
}

// Several chunks, synced while the next ones arrive and digested as they are
// written: the count and digest answered are those of the stored file.
TEST_F(TransferTest, UploadOfManyChunksFromTheStartAnswersTheStoredFilesDigest)
{
    const auto contents = pattern(1300000, 9);
    const auto path = at("big/clip.m4v");
    auto client = server.connect();
    client->sendCommand(kUpload, uploadFields(true, 1, {{path, 1300000, 1400000000}}));
    EXPECT_EQ(readOffsets(*client), std::vector<std::int64_t>{0});
    for (std::size_t at = 0; at < contents.size(); at += 100000)
        client->sendRaw(bytesOf(contents.substr(at, 100000)));
    EXPECT_EQ(client->readLong(), 1300000);
    EXPECT_EQ(client->readString(), md5(contents));
    expectSessionAlive(*client);
    EXPECT_TRUE(sameBytes(readFile(path), contents));
    EXPECT_EQ(mtimeOf(path), 1400000000);
}

TEST_F(TransferTest, UploadBatchStartsEachFileWhereItsPartialAllows)
{
    const auto tooLong = at("a/long.bin"), full = at("a/full.bin"), empty = at("a/empty.bin");
    const auto overFolder = at("a/folder.bin"), deep = at("new/deeper/deep.bin");
    writeFile(tooLong.string() + ".zandrel", pattern(50));
    writeFile(full.string() + ".zandrel", pattern(40, 2));
    writeFile(overFolder / "inside" / "x.txt", "in the way");
    const auto longContents = pattern(20, 4), folderContents = pattern(10, 6), deepContents = pattern(5, 7);
    auto client = server.connect();
    client->sendCommand(kUpload,
        uploadFields(false, 5,
            {{tooLong, 20, 1000000001}, {full, 40, 1000000002}, {empty, 0, 1000000003},
                {overFolder, 10, 1000000004}, {deep, 5, 1000000005}}));

    EXPECT_EQ(readOffsets(*client), (std::vector<std::int64_t>{0, 40, 0, 0, 0}));
    client->sendRaw(bytesOf(longContents));
    EXPECT_EQ(client->readLong(), 20);
    EXPECT_EQ(client->readLong(), 0); // nothing more was needed
    EXPECT_EQ(client->readLong(), 0);
    client->sendRaw(bytesOf(folderContents));
    EXPECT_EQ(client->readLong(), 10);
    client->sendRaw(bytesOf(deepContents));
    EXPECT_EQ(client->readLong(), 5);
    expectSessionAlive(*client); // no digest, no end marker

    EXPECT_TRUE(sameBytes(readFile(tooLong), longContents)) << "a partial longer than announced is dropped";
    EXPECT_TRUE(sameBytes(readFile(full), pattern(40, 2)));
    EXPECT_EQ(mtimeOf(full), 1000000002);
    EXPECT_TRUE(fs::is_regular_file(empty));
    EXPECT_EQ(fs::file_size(empty), 0u);
    EXPECT_EQ(mtimeOf(empty), 1000000003);
    EXPECT_TRUE(fs::is_regular_file(overFolder));
    EXPECT_TRUE(sameBytes(readFile(overFolder), folderContents));
    EXPECT_TRUE(sameBytes(readFile(deep), deepContents));
    for (const auto& p : {tooLong, full, empty, overFolder, deep})
        EXPECT_FALSE(fs::exists(p.string() + ".zandrel")) << p;
}

TEST_F(TransferTest, UploadToAPathThatNamesNothingDropsTheDataAndTouchesNothing)
{
    // "report.txt\0.new" would append to and then delete report.txt; text
    // that is not UTF-8 would land in a file named "(null)".
    const auto folder = at("nul");
    writeFile(folder / "report.txt", "keep me");
    writeFile(folder / "report.txt.zandrel", "and me");
    const auto before = fs::current_path();
    fs::current_path(folder);
    const auto nul = (folder / "report.txt").string() + std::string(1, '\0') + ".new";
    Bytes fields = SessionTest::join({SessionTest::flag(true), SessionTest::number(2), SessionTest::text(nul),
        SessionTest::number(4), SessionTest::number(7), SessionTest::text("d"), SessionTest::number(1), Bytes{0xFF},
        SessionTest::number(3), SessionTest::number(8), SessionTest::text("d")});
    auto client = server.connect();
    client->sendCommand(kUpload, fields);

    EXPECT_EQ(readOffsets(*client), (std::vector<std::int64_t>{0, 0}));
    client->sendRaw(bytesOf("abcd"));
    EXPECT_EQ(client->readLong(), 4);
    EXPECT_EQ(client->readString(), md5(""));
    client->sendRaw(bytesOf("xyz"));
    EXPECT_EQ(client->readLong(), 3);
    EXPECT_EQ(client->readString(), md5(""));
    expectSessionAlive(*client);
    fs::current_path(before);

    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"report.txt", "report.txt.zandrel"}));
    EXPECT_EQ(readFile(folder / "report.txt"), "keep me");
    EXPECT_EQ(readFile(folder / "report.txt.zandrel"), "and me");
    EXPECT_TRUE(server.log().contains("Saved: (null)."));
}

TEST_F(TransferTest, UploadOfNoFilesAnswersAnEmptyDataPacket)
{
    auto client = server.connect();
    for (std::int64_t count : {0LL, -1LL}) {
        client->sendCommand(kUpload, uploadFields(true, count, {}));
        auto reply = client->readReply();
        EXPECT_EQ(reply.code, kUpload);
        EXPECT_FALSE(reply.isError());
        EXPECT_TRUE(reply.data.empty());
        expectSessionAlive(*client);
    }
}

TEST_F(TransferTest, UploadCutMidFileKeepsEveryReceivedByteAndFreesTheLock)
{
    const auto contents = pattern(2000000, 8);
    const auto path = at("cut/video.m4v");
    const auto partial = path.string() + ".zandrel";
    {
        auto client = server.connect();
        client->sendCommand(kUpload, uploadFields(false, 1, {{path, 2000000, 1200000000}}));
        EXPECT_EQ(readOffsets(*client), std::vector<std::int64_t>{0});
        // More than one chunk, and part of the next one.
        client->sendRaw(bytesOf(contents.substr(0, 700000)));
    }
    ASSERT_TRUE(server.log().waitFor("Connection closed.", 10000));
    EXPECT_TRUE(sameBytes(readFile(partial), contents.substr(0, 700000)));
    EXPECT_FALSE(fs::exists(path));

    // A second session can take the lock and resumes where the first stopped.
    auto client = server.connect();
    client->sendCommand(kUpload, uploadFields(true, 1, {{path, 2000000, 1200000000}}));
    EXPECT_EQ(readOffsets(*client), std::vector<std::int64_t>{700000});
    client->sendRaw(bytesOf(contents.substr(700000)));
    EXPECT_EQ(client->readLong(), 1300000);
    EXPECT_EQ(client->readString(), md5(contents));
    EXPECT_TRUE(sameBytes(readFile(path), contents));
    EXPECT_EQ(mtimeOf(path), 1200000000);
}

TEST_F(TransferTest, TwoSessionsUploadingAtOnceReceiveOneFileAfterTheOther)
{
    server.settings().setVerbose(true);
    const auto first = at("two/first.bin"), second = at("two/second.bin");
    const auto firstContents = pattern(1500000, 9), secondContents = pattern(1500100, 10);
    // The second resumes from 100 bytes, so its progress lines differ.
    writeFile(second.string() + ".zandrel", secondContents.substr(0, 100));

    auto a = server.connect();
    a->sendCommand(kUpload, uploadFields(false, 1, {{first, 1500000, 1}}));
    EXPECT_EQ(readOffsets(*a), std::vector<std::int64_t>{0});
    a->sendRaw(bytesOf(firstContents.substr(0, 600000)));
    ASSERT_TRUE(server.log().waitFor("Received 512000 bytes. Offset = 512000", 10000));

    // While the first holds the lock the second still gets its offsets.
    auto b = server.connect();
    b->sendCommand(kUpload, uploadFields(false, 1, {{second, 1500100, 2}}));
    EXPECT_EQ(readOffsets(*b), std::vector<std::int64_t>{100});
    std::int64_t secondReceived = -1;
    std::thread sender([&] {
        b->sendRaw(bytesOf(secondContents.substr(100)));
        secondReceived = b->readLong();
    });
    ASSERT_TRUE(server.log().waitFor(fmt::format("Receiving: {}. Offset = 100", second.string()), 10000));
    a->sendRaw(bytesOf(firstContents.substr(600000)));
    EXPECT_EQ(a->readLong(), 1500000);
    sender.join();
    EXPECT_EQ(secondReceived, 1500000);
    EXPECT_TRUE(sameBytes(readFile(first), firstContents));
    EXPECT_TRUE(sameBytes(readFile(second), secondContents));

    // Every progress line of the first precedes every line of the second.
    auto lines = server.log().lines();
    auto index = [&](const std::string& line) {
        return std::find(lines.begin(), lines.end(), line) - lines.begin();
    };
    auto lastOfFirst = index("Received 476000 bytes. Offset = 1500000");
    auto firstOfSecond = index("Received 512000 bytes. Offset = 512100");
    ASSERT_LT(lastOfFirst, static_cast<long>(lines.size()));
    ASSERT_LT(firstOfSecond, static_cast<long>(lines.size()));
    EXPECT_LT(lastOfFirst, firstOfSecond);
}

TEST_F(TransferTest, TwoUploadsOfOnePathAtOnceLeaveOneCompleteFile)
{
    server.settings().setVerbose(true);
    const auto path = at("same/song.mp3");
    const auto longer = pattern(1500000, 11), shorter = pattern(1000000, 12);
    writeFile(path, "old");

    auto a = server.connect();
    a->sendCommand(kUpload, uploadFields(true, 1, {{path, 1500000, 1}}));
    EXPECT_EQ(readOffsets(*a), std::vector<std::int64_t>{0});
    a->sendRaw(bytesOf(longer.substr(0, 1100000)));
    ASSERT_TRUE(server.log().waitFor("Received 512000 bytes. Offset = 1024000", 10000));

    // The partial is longer than this upload announces while the first is
    // still receiving into it.
    auto b = server.connect();
    b->sendCommand(kUpload, uploadFields(true, 1, {{path, 1000000, 2}}));
    EXPECT_EQ(readOffsets(*b), std::vector<std::int64_t>{0});
    std::string digestB;
    std::thread sender([&] {
        b->sendRaw(bytesOf(shorter));
        EXPECT_EQ(b->readLong(), 1000000);
        digestB = b->readString();
    });
    a->sendRaw(bytesOf(longer.substr(1100000)));
    EXPECT_EQ(a->readLong(), 1500000);
    auto digestA = a->readString();
    sender.join();

    // One of the two, whole; a phone told another digest sees it differ.
    const auto stored = readFile(path);
    EXPECT_TRUE(stored == longer || stored == shorter) << stored.size() << " bytes";
    for (const auto& digest : {digestA, digestB})
        EXPECT_TRUE(digest == md5(longer) || digest == md5(shorter)) << digest;
    EXPECT_EQ(digestB, md5(stored));
    EXPECT_FALSE(fs::exists(path.string() + ".zandrel"));
    expectSessionAlive(*a);
    expectSessionAlive(*b);
}

TEST_F(TransferTest, UploadWhosePartialIsDeletedMidwayKeepsTheOldFile)
{
    server.settings().setVerbose(true);
    const auto path = at("kept/doc.txt");
    const auto contents = pattern(1200000, 13);
    writeFile(path, "the old version");

    auto client = server.connect();
    client->sendCommand(kUpload, uploadFields(true, 1, {{path, 1200000, 3}}));
    EXPECT_EQ(readOffsets(*client), std::vector<std::int64_t>{0});
    client->sendRaw(bytesOf(contents.substr(0, 600000)));
    ASSERT_TRUE(server.log().waitFor("Received 512000 bytes. Offset = 512000", 10000));
    fs::remove(path.string() + ".zandrel");
    client->sendRaw(bytesOf(contents.substr(600000)));

    EXPECT_EQ(client->readLong(), 1200000);
    // The phone is told the digest of what is there, not of what it sent.
    EXPECT_EQ(client->readString(), md5("the old version"));
    EXPECT_EQ(readFile(path), "the old version");
    expectSessionAlive(*client);
}

TEST_F(TransferTest, ReadOnlyUploadTakesAndDropsTheDataAndStoresNothing)
{
    server.settings().setReadOnly(true);
    writeFile(at("old.txt"), "old");
    // Longer than announced: a writable server would delete it.
    writeFile(at("old.txt.zandrel"), pattern(50));
    auto c = server.connect();
    c->sendCommand(kUpload, uploadFields(true, 2, {{at("old.txt").string(), 10, 1}, {at("new/b.bin").string(), 700, 1}}));
    EXPECT_EQ(readOffsets(*c), (std::vector<std::int64_t>{0, 0}));
    for (std::int64_t size : {10, 700}) {
        c->sendRaw(bytesOf(pattern(static_cast<std::size_t>(size))));
        SessionTest::expectNext(*c, SessionTest::join({SessionTest::number(size), SessionTest::text(md5(""))}));
    }
    expectSessionAlive(*c);
    EXPECT_EQ(readFile(at("old.txt")), "old");
    EXPECT_EQ(readFile(at("old.txt.zandrel")), pattern(50));
    EXPECT_FALSE(fs::exists(at("new")));
}

TEST_F(TransferTest, EachFileRaisesANotificationOnlyWhenToastIsOn)
{
    auto notifier = std::make_shared<RecordingNotifier>();
    server.app().uiBridge()->setNotifier(notifier);
    const auto source = at("n/out.txt"), destination = at("n/in.txt");
    writeFile(source, "abc");
    auto client = server.connect();

    auto download = [&] {
        client->sendCommand(kDownload, downloadFields(1, {{source, 0}}, false));
        client->readReply(true);
        readRecord(*client);
        client->readExact(3 + 79);
    };
    server.settings().setToast(false);
    download();
    EXPECT_TRUE(notifier->notices().empty());

    server.settings().setToast(true);
    download();
    client->sendCommand(kUpload, uploadFields(false, 1, {{destination, 2, 5}}));
    readOffsets(*client);
    client->sendRaw(bytesOf("xy"));
    EXPECT_EQ(client->readLong(), 2);
    expectSessionAlive(*client);

    using Notice = RecordingNotifier::Notice;
    EXPECT_EQ(notifier->notices(), (std::vector<Notice>{{"Sending File", source.string(), "SENDFILE"},
                                       {"Receiving File", destination.string(), "RECEIVEFILE"}}));
}

} // namespace

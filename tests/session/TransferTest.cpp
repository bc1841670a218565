#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <sys/stat.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "HandlerFixture.h"
#include "RecordingNotifier.h"
#include "client/LocalFile.h"
#include "client/RecordDecoder.h"
#include "journal/ActivityStore.h"
#include "journal/Journal.h"
#include "records/FileSyncInfo.h"
#include "records/RecordEncoding.h"
#include "wire/Digest.h"

namespace fs = std::filesystem;
using namespace SessionTest;

namespace {

std::string pattern(std::size_t length, unsigned seed = 1)
{
    std::string text(length, '\0');
    for (std::size_t i = 0; i < length; ++i)
        text[i] = static_cast<char>((i * 131 + seed * 7 + i / 977) & 0xff);
    return text;
}

Bytes bytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }
std::string textOf(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }
std::string md5(const std::string& text) { return Digest::md5Hex(text.data(), text.size()); }
std::int64_t mtimeOf(const fs::path& path) { return LocalFile::modifiedOf(path.string()); }

// A streamed file record, read through the client's decoder.
RemoteFile readRecord(SyncClient& phone)
{
    return RecordDecoder::decodeFileBody(phone.readExact(static_cast<std::size_t>(phone.readLong())));
}

Bytes downloadFields(std::int64_t count, const std::vector<std::pair<std::string, std::int64_t>>& files, bool digest)
{
    Bytes fields = number(count);
    for (const auto& [path, offset] : files)
        fields += join({text(path), number(offset)});
    return join({fields, flag(digest)});
}

struct Sending {
    std::string path;
    std::int64_t size;
    std::int64_t modified;
};

Bytes uploadFields(bool digest, std::int64_t count, const std::vector<Sending>& files)
{
    Bytes fields = join({flag(digest), number(count)});
    for (const auto& f : files)
        fields += join({text(f.path), number(f.size), number(f.modified), digest ? text("ignored") : Bytes{}});
    return fields;
}

// The first answer of an upload: every file's start offset.
void expectOffsets(SyncClient& phone, std::initializer_list<std::int64_t> offsets)
{
    Bytes data;
    for (auto offset : offsets)
        data += number(offset);
    expectDataPacket(phone, Command::UploadFiles, data);
}

class TransferTest : public HandlerTest {
protected:
    TransferTest() { bridge->setNotifier(notifier); }
    void download(HandlerSession& s, const Bytes& fields)
    {
        s.start([&s] { s.transfers.downloadFiles(); }, fields);
        EXPECT_TRUE(s.phone.readReply(true).isEmptyHeader);
    }
    void upload(HandlerSession& s, const Bytes& fields) { s.start([&s] { s.transfers.uploadFiles(); }, fields); }
    // The phone sends a whole file, the server answers its count and digest.
    static void expectStored(SyncClient& phone, const std::string& data)
    {
        phone.sendRaw(bytesOf(data));
        expectNext(phone, join({number(static_cast<std::int64_t>(data.size())), text(md5(data))}));
    }
    std::shared_ptr<RecordingNotifier> notifier = std::make_shared<RecordingNotifier>();
};

using Notices = std::vector<RecordingNotifier::Notice>;

// ---- downloadFiles ----

TEST_F(TransferTest, DownloadSendsFromEachOffsetToTheEndAndTheWholeFileDigest)
{
    settings->setVerbose(true);
    const auto contents = pattern(1100000, 3);
    const auto path = home.write("music/a.mp3", contents).string();
    download(*session, downloadFields(3, {{path, 100000}, {path, 1100000}, {path, 1500000}}, true));
    for (std::int64_t offset : {100000, 1100000, 1500000}) {
        auto record = readRecord(phone());
        EXPECT_EQ(record.fullName, path);
        EXPECT_EQ(record.size, 1100000u);
        EXPECT_EQ(record.modified, mtimeOf(path));
        auto from = static_cast<std::size_t>(std::min<std::int64_t>(offset, 1100000));
        EXPECT_EQ(md5(textOf(phone().readExact(1100000 - from))), md5(contents.substr(from))) << offset;
        EXPECT_EQ(phone().readString(), md5(contents)) << "offset " << offset;
    }
    EXPECT_EQ(phone().readExact(79), BitHelper::encodeFileSyncInfo(FileSyncInfo::finish()));
    session->expectAnswered();
    EXPECT_TRUE(log.contains(fmt::format("Sending: {}. Offset = 100000", path)));
    EXPECT_TRUE(log.contains("Sent 512000 bytes. Offset = 612000"));
    EXPECT_TRUE(log.contains("Sent 488000 bytes. Offset = 1100000"));
    EXPECT_TRUE(log.contains(fmt::format("Sent: {}", path)));
    EXPECT_EQ(notifier->notices(), Notices(3, {"Sending File", path, "SENDFILE"}));
}

// A FIFO nobody writes would block the open; /dev/zero would feed the digest for ever; a folder, from any
// offset, holds no bytes to send. A missing file, or one named with a NUL byte (cut there, the path would
// name report.txt), is described as nothing: size and dates 0.
TEST_F(TransferTest, DownloadOfAnythingButAPlainFileFailsLikeAFileThatCannotBeOpened)
{
    const auto fifo = at("fifo").string(), missing = at("gone.mp3").string(), folder = home.path().string();
    const auto nul = at("report.txt").string() + std::string(1, '\0') + ".new";
    home.write("report.txt", "not to be sent");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::pair<std::string, int> wanted[] = {
        {missing, 0}, {nul, 0}, {fifo, 0}, {"/dev/zero", 0}, {folder, 0}, {folder, 1 << 30}};
    for (const auto& [path, offset] : wanted) {
        auto s = newSession();
        download(*s, downloadFields(1, {{path, offset}}, true));
        auto record = readRecord(s->phone);
        EXPECT_EQ(record.fullName, path);
        if (path == missing || path == nul) {
            EXPECT_EQ(std::tie(record.size, record.created, record.modified), std::tuple(0u, 0, 0));
        }
        s->expectFailure(Command::DownloadFiles, "Failed to open file: " + path);
    }
    EXPECT_TRUE(log.contains("Failed to open file: " + missing));

    // Text that is not UTF-8 names nothing: a record without path parts.
    download(*session, join({number(1), number(1), Bytes{0xFF}, number(0), flag(false)}));
    expectNext(phone(), BitHelper::encodeFileSyncInfo(FileSyncInfo::initFromPath("")));
    session->expectFailure(Command::DownloadFiles, "Failed to open file: (null)");
    EXPECT_TRUE(log.contains("Sending: (null). Offset = 0"));
}

// Sent from the page cache, a file sends what its record announced: one
// that grows meanwhile sends no more, one that shrinks ends the session.
TEST_F(TransferTest, DownloadOfAFileThatShrinksEndsTheSessionInsteadOfWaitingForever)
{
    const auto growing = at("growing.bin");
    std::ofstream(growing, std::ios::binary).close();
    fs::resize_file(growing, 8 << 20);
    auto s = newSession();
    download(*s, downloadFields(1, {{growing.string(), 0}}, false));
    EXPECT_EQ(readRecord(s->phone).size, 8u << 20);
    fs::resize_file(growing, 9 << 20);
    EXPECT_EQ(s->phone.readExact(8 << 20), Bytes(8 << 20, 0));
    EXPECT_EQ(s->phone.readExact(79), BitHelper::encodeFileSyncInfo(FileSyncInfo::finish()));
    s->expectAnswered();

    const auto path = at("shrinking.bin");
    std::ofstream(path, std::ios::binary).close();
    fs::resize_file(path, 64 << 20); // sparse: far more than the socket buffers hold
    download(*session, downloadFields(1, {{path.string(), 0}}, false));
    EXPECT_EQ(readRecord(phone()).size, 64u << 20);
    fs::resize_file(path, 0);

    // Whatever was read before the cut arrives, then the error packet.
    Bytes rest;
    std::uint8_t block[1 << 16];
    while (auto n = phone().readSome(block, sizeof block))
        rest.insert(rest.end(), block, block + n);
    auto expected = StreamIO::errorPacket(Command::DownloadFiles, "Failed to open file: " + path.string());
    ASSERT_GE(rest.size(), expected.size());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), rest.end() - static_cast<long>(expected.size())));
    EXPECT_LT(rest.size(), std::size_t{64} << 20);
    EXPECT_TRUE(session->failed());
}

// ---- uploadFiles ----

// Each file starts where its partial allows; several chunks are synced while
// the next ones arrive and digested as they are written; the count and the
// digest answered are those of the stored file.
TEST_F(TransferTest, UploadBatchStartsEachFileWhereItsPartialAllows)
{
    settings->setToast(false);
    const auto resumed = at("in/song.mp3"), tooLong = at("a/long.bin"), full = at("a/full.bin");
    const auto empty = at("a/empty.bin"), overFolder = at("a/folder.bin"), big = at("new/deeper/clip.m4v");
    const auto song = pattern(1000, 5), longContents = pattern(20, 4), folderContents = pattern(10, 6);
    const auto clip = pattern(1300000, 9);
    home.write("in/song.mp3.zandrel", song.substr(0, 300));
    home.write("a/long.bin.zandrel", pattern(50));
    home.write("a/full.bin.zandrel", pattern(40, 2));
    home.write("a/folder.bin/inside/x.txt", "in the way");
    upload(*session, uploadFields(true, 6,
                         {{resumed, 1000, 1300000000}, {tooLong, 20, 1000000001}, {full, 40, 1000000002},
                             {empty, 0, 1000000003}, {overFolder, 10, 1000000004}, {big, 1300000, 1000000005}}));

    expectOffsets(phone(), {300, 0, 40, 0, 0, 0});
    const std::pair<std::string, std::string> sent[] = {{song.substr(300), song}, {longContents, longContents},
        {"", pattern(40, 2)}, {"", ""}, {folderContents, folderContents}, {clip, clip}};
    for (const auto& [data, stored] : sent) {
        for (std::size_t at = 0; at < data.size(); at += 100000)
            phone().sendRaw(bytesOf(data.substr(at, 100000)));
        EXPECT_EQ(phone().readLong(), static_cast<std::int64_t>(data.size()));
        EXPECT_EQ(phone().readString(), md5(stored));
    }
    session->expectAnswered(); // no end marker

    EXPECT_EQ(readFile(resumed), song);
    EXPECT_EQ(mtimeOf(resumed), 1300000000);
    EXPECT_EQ(readFile(tooLong), longContents) << "a partial longer than announced is dropped";
    EXPECT_EQ(readFile(full), pattern(40, 2));
    EXPECT_EQ(mtimeOf(full), 1000000002);
    EXPECT_EQ(fs::file_size(empty), 0u);
    EXPECT_EQ(mtimeOf(empty), 1000000003);
    EXPECT_EQ(readFile(overFolder), folderContents);
    EXPECT_EQ(md5(readFile(big)), md5(clip));
    for (const auto& p : {resumed, tooLong, full, empty, overFolder, big})
        EXPECT_FALSE(fs::exists(p.string() + ".zandrel")) << p;
    EXPECT_TRUE(log.contains("Uploading files. File count = 6, hash = YES"));
    EXPECT_TRUE(log.contains(fmt::format("Receiving: {}. Offset = 300", resumed.string())));
    EXPECT_TRUE(log.contains(fmt::format("Saved: {}.", resumed.string())));
    EXPECT_TRUE(notifier->notices().empty());
}

TEST_F(TransferTest, UploadToAPathThatNamesNothingDropsTheDataAndTouchesNothing)
{
    // "report.txt\0.new" would append to and then delete report.txt; text
    // that is not UTF-8 would land in a file named "(null)".
    const auto folder = at("nul");
    home.write("nul/report.txt", "keep me");
    home.write("nul/report.txt.zandrel", "and me");
    const auto before = fs::current_path();
    fs::current_path(folder);
    const auto nul = (folder / "report.txt").string() + std::string(1, '\0') + ".new";
    upload(*session, join({flag(true), number(2), text(nul), number(4), number(7), text("d"), number(1),
                          Bytes{0xFF}, number(3), number(8), text("d")}));
    expectOffsets(phone(), {0, 0});
    phone().sendRaw(bytesOf("abcd"));
    expectNext(phone(), join({number(4), text(md5(""))}));
    phone().sendRaw(bytesOf("xyz"));
    expectNext(phone(), join({number(3), text(md5(""))}));
    session->expectAnswered();
    fs::current_path(before);

    EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 2);
    EXPECT_EQ(readFile(folder / "report.txt"), "keep me");
    EXPECT_EQ(readFile(folder / "report.txt.zandrel"), "and me");
    EXPECT_TRUE(log.contains("Saved: (null)."));

    // Read only: every path names nothing, even one whose partial is longer
    // than announced (a writable server would delete it).
    settings->setReadOnly(true);
    auto s = newSession();
    upload(*s, uploadFields(true, 2, {{folder / "report.txt", 5, 1}, {at("new/b.bin"), 700, 1}}));
    expectOffsets(s->phone, {0, 0});
    for (std::int64_t size : {5, 700}) {
        s->phone.sendRaw(bytesOf(pattern(static_cast<std::size_t>(size))));
        expectNext(s->phone, join({number(size), text(md5(""))}));
    }
    s->expectAnswered();
    EXPECT_EQ(readFile(folder / "report.txt"), "keep me");
    EXPECT_EQ(readFile(folder / "report.txt.zandrel"), "and me");
    EXPECT_FALSE(fs::exists(at("new")));
}

TEST_F(TransferTest, UploadCutMidFileKeepsEveryReceivedByteAndFreesTheLock)
{
    const auto contents = pattern(2000000, 8);
    const auto path = at("cut/video.m4v");
    upload(*session, uploadFields(false, 1, {{path, 2000000, 1}}));
    expectOffsets(phone(), {0});
    // More than one chunk, and part of the next one.
    phone().sendRaw(bytesOf(contents.substr(0, 700000)));
    phone().close();
    EXPECT_TRUE(session->failed());
    EXPECT_EQ(md5(readFile(path.string() + ".zandrel")), md5(contents.substr(0, 700000)));
    EXPECT_FALSE(fs::exists(path));

    // Another session can take the lock and resumes where the first stopped.
    auto s = newSession();
    upload(*s, uploadFields(true, 1, {{path, 2000000, 1}}));
    expectOffsets(s->phone, {700000});
    s->phone.sendRaw(bytesOf(contents.substr(700000)));
    EXPECT_EQ(s->phone.readLong(), 1300000);
    EXPECT_EQ(s->phone.readString(), md5(contents));
    s->expectAnswered();
}

TEST_F(TransferTest, TwoUploadsOfOnePathAtOnceLeaveOneCompleteFile)
{
    settings->setVerbose(true);
    const auto path = home.write("same/song.mp3", "old");
    const auto longer = pattern(1500000, 11), shorter = pattern(1000000, 12);

    upload(*session, uploadFields(true, 1, {{path, 1500000, 1}}));
    expectOffsets(phone(), {0});
    phone().sendRaw(bytesOf(longer.substr(0, 1100000)));
    ASSERT_TRUE(log.waitFor("Received 512000 bytes. Offset = 1024000", 10000));

    // The partial is longer than this upload announces while the first is
    // still receiving into it.
    auto b = newSession();
    upload(*b, uploadFields(true, 1, {{path, 1000000, 2}}));
    expectOffsets(b->phone, {0});
    std::thread sender([&] { b->phone.sendRaw(bytesOf(shorter)); });
    phone().sendRaw(bytesOf(longer.substr(1100000)));
    EXPECT_EQ(phone().readLong(), 1500000);
    auto digestA = phone().readString();
    sender.join();
    EXPECT_EQ(b->phone.readLong(), 1000000);
    auto digestB = b->phone.readString();

    // The second removed the partial when it answered its offset, so the
    // first moves nothing and its phone is told a digest that differs.
    EXPECT_EQ(md5(readFile(path)), md5(shorter));
    EXPECT_NE(digestA, md5(longer));
    EXPECT_EQ(digestB, md5(shorter));
    EXPECT_FALSE(fs::exists(path.string() + ".zandrel"));
    session->expectAnswered();
    b->expectAnswered();
}

TEST_F(TransferTest, UploadWhosePartialIsDeletedMidwayKeepsTheOldFile)
{
    settings->setVerbose(true);
    const auto path = home.write("kept/doc.txt", "the old version");
    const auto contents = pattern(1200000, 13);
    upload(*session, uploadFields(true, 1, {{path, 1200000, 3}}));
    expectOffsets(phone(), {0});
    phone().sendRaw(bytesOf(contents.substr(0, 600000)));
    ASSERT_TRUE(log.waitFor("Received 512000 bytes. Offset = 512000", 10000));
    fs::remove(path.string() + ".zandrel");
    phone().sendRaw(bytesOf(contents.substr(600000)));

    EXPECT_EQ(phone().readLong(), 1200000);
    // The phone is told the digest of what is there, not of what it sent.
    EXPECT_EQ(phone().readString(), md5("the old version"));
    EXPECT_EQ(readFile(path), "the old version");
    session->expectAnswered();
    EXPECT_EQ(notifier->notices(), Notices(1, {"Receiving File", path.string(), "RECEIVEFILE"}));
}

// A link at the partial's name, a partial with another name, or a stale one longer than announced is
// removed when the offsets are answered (a link as a link) and the file written afresh, keeping nothing of it.
TEST_F(TransferTest, UploadNeverWritesThroughAPartialThatIsNotItsOwn)
{
    const auto precious = home.write("up/precious.txt", pattern(48, 1)), shared = home.write("up/shared.bin", "shared");
    const auto linked = at("up/dest.txt"), hardLinked = at("up/song.bin"), stale = at("up/stale.bin");
    const auto partialOf = [](const fs::path& p) { return fs::path(p.string() + ".zandrel"); };
    fs::create_symlink(precious, partialOf(linked));
    fs::create_hard_link(shared, partialOf(hardLinked));
    fs::permissions(home.write("up/stale.bin.zandrel", pattern(50, 2)), fs::perms::none);
    const auto oldMask = ::umask(002);
    upload(*session, uploadFields(true, 3, {{linked, 3, 1}, {hardLinked, 10, 2}, {stale, 20, 3}}));

    expectOffsets(phone(), {0, 0, 0});
    // Removed before any data (the first one may already be created afresh).
    EXPECT_FALSE(fs::is_symlink(partialOf(linked)));
    for (const auto& p : {hardLinked, stale})
        EXPECT_FALSE(fs::exists(fs::symlink_status(partialOf(p)))) << p;
    const std::pair<fs::path, std::string> sent[] = {
        {linked, pattern(3, 3)}, {hardLinked, pattern(10, 4)}, {stale, pattern(20, 5)}};
    for (const auto& [p, data] : sent) {
        expectStored(phone(), data);
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(p))) << p;
        EXPECT_EQ(readFile(p), data) << p;
    }
    session->expectAnswered();
    ::umask(oldMask);

    EXPECT_EQ(readFile(precious), pattern(48, 1));
    EXPECT_EQ(readFile(shared), "shared");
    EXPECT_EQ(fs::status(stale).permissions(), static_cast<fs::perms>(0664));
}

// A partial that cannot be created, or is no longer the file whose length was answered, fails the upload
// before any byte is taken: dropped, the phone would believe them stored. The third file resumes the stale
// partial the first replaces meanwhile; continuing it would append the third's tail to the first file.
TEST_F(TransferTest, UploadWhosePartialCannotBeOpenedOrChangedFailsBeforeTakingAnyByte)
{
    const auto hidden = home.write("S/.hidden", "the old contents"), other = at("S/x.zandrel");
    const auto hiddenPartial = home.write("S/.hidden.zandrel", pattern(1357, 7)); // stale, resumed by the third
    const auto first = pattern(3564, 8), second = pattern(100, 9);
    upload(*session, uploadFields(true, 3, {{hiddenPartial, 3564, 1}, {other, 100, 2}, {hidden, 512001, 3}}));
    expectOffsets(phone(), {0, 0, 1357});
    expectStored(phone(), first);
    expectStored(phone(), second);
    session->expectFailure(Command::UploadFiles, "Failed to open file: " + hiddenPartial.string());
    EXPECT_EQ(readFile(hiddenPartial), first);
    EXPECT_EQ(readFile(other), second);
    EXPECT_EQ(readFile(hidden), "the old contents");

    // Its folder cannot be made: a file stands where it would be.
    const auto unstorable = at("S/x.zandrel/x.txt").string();
    auto s = newSession();
    upload(*s, uploadFields(false, 1, {{unstorable, 2000, 1}}));
    expectOffsets(s->phone, {0});
    s->expectFailure(Command::UploadFiles, "Failed to open file: " + unstorable + ".zandrel");
    EXPECT_TRUE(log.contains("Failed to open file: " + unstorable + ".zandrel"));
}

} // namespace

// ---- kept items ----

// What a phone sees of 26–31 is the same, byte for byte and line for line,
// with removed and replaced items kept or not. Kept, they wait in the trash
// and come back from the journal; not kept, the journal says why.
TEST_F(TransferTest, KeepingChangesNothingAPhoneSeesAndEverythingKeptComesBack)
{
    auto w = [&](const std::string& relative) { return at("work/" + relative).string(); };
    auto run = [&](bool keep) {
        settings->setKeepDeleted(keep);
        settings->setKeepReplaced(keep);
        fs::remove_all(at("work"));
        home.write("work/a.txt", "A");
        home.write("work/dir/sub/y", "YY");
        home.write("work/up.txt", "old");
        log.sink().clear();
        auto s = newSession();
        auto batch = [&](void (FileSystemOps::*handler)(), std::uint8_t code, const Bytes& fields) {
            s->start([&s, handler] { (s->fileOps.*handler)(); }, fields);
            expectDataPacket(s->phone, code, flag(true));
        };
        batch(&FileSystemOps::createDirectories, Command::CreateDirectories, join({number(1), text(w("new/deep"))}));
        batch(&FileSystemOps::renameFiles, Command::RenameFiles, join({number(1), text(w("a.txt")), text(w("b.txt"))}));
        batch(&FileSystemOps::deleteFiles, Command::DeleteFiles, join({number(2), text(w("b.txt")), text(w("none"))}));
        batch(&FileSystemOps::deleteFolders, Command::DeleteFolders, join({number(1), text(w("dir/"))}));
        upload(*s, uploadFields(true, 1, {{w("up.txt"), 3, 1}}));
        expectOffsets(s->phone, {0});
        s->phone.sendRaw(bytesOf("new"));
        expectNext(s->phone, join({number(3), text(md5("new"))}));
        download(*s, downloadFields(1, {{w("up.txt"), 0}}, false));
        EXPECT_EQ(readRecord(s->phone).size, 3u);
        EXPECT_EQ(textOf(s->phone.readExact(3)), "new");
        EXPECT_EQ(s->phone.readExact(79), BitHelper::encodeFileSyncInfo(FileSyncInfo::finish()));
        s->expectAnswered();
        EXPECT_FALSE(fs::exists(w("b.txt")) || fs::exists(w("dir")));
        Journal::shared()->flush();
        return log.lines();
    };
    auto summary = [](const std::vector<Change>& changes) {
        std::vector<std::string> lines;
        for (const auto& c : changes)
            lines.push_back(Change::kindText(c.kind) + " " + Change::stateText(c.state) + " " + c.note);
        return lines;
    };

    auto keptLines = run(true);
    auto store = ActivityStore::open();
    ASSERT_TRUE(store);
    auto kept = store->list({});
    EXPECT_EQ(summary(kept), (std::vector<std::string>{"created folder  ", "renamed  ", "deleted file kept ",
                                 "deleted folder kept ", "replaced kept ", "downloaded  "}));
    EXPECT_EQ(store->keptBytes(), 1 + 2 + 3);
    for (const auto& c : kept) {
        if (c.state == Change::State::Kept) {
            EXPECT_TRUE(store->restore(c.id).restoredTo) << c.path;
        }
    }
    EXPECT_EQ(readFile(w("b.txt")), "A");
    EXPECT_EQ(readFile(w("dir/sub/y")), "YY");
    EXPECT_EQ(readFile(w("up.txt")), "new");
    EXPECT_EQ(readFile(w("up.txt (restored)")), "old");
    EXPECT_TRUE(fs::is_empty(at(".local/share/Trash/files")));
    EXPECT_TRUE(fs::is_empty(at(".local/share/Trash/info")));

    EXPECT_EQ(run(false), keptLines);
    auto plain = store->list({});
    plain.erase(plain.begin(), plain.begin() + static_cast<std::ptrdiff_t>(kept.size()));
    EXPECT_EQ(summary(plain), (std::vector<std::string>{"created folder  ", "renamed  ",
                                  "deleted file  keeping is off", "deleted folder  keeping is off",
                                  "replaced  keeping is off", "downloaded  "}));
    EXPECT_TRUE(fs::is_empty(at(".local/share/Trash/files")));
}

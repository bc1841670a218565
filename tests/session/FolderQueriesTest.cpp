#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "SessionTestHelpers.h"
#include "records/DirSyncInfo.h"
#include "records/FileSyncInfo.h"
#include "records/RecordEncoding.h"
#include "support/LoopbackServer.h"

namespace fs = std::filesystem;
using namespace SessionTest;

namespace {

const std::string kHelloMd5 = "5d41402abc4b2a76b9719d911017c592";
const std::string kEmptyMd5 = "d41d8cd98f00b204e9800998ecf8427e";

bool skippedByWalk(const std::string& name)
{
    return name == ".DS_Store" || name.ends_with(".zandrel");
}

// Entry names in the order the platform lists them, read independently of
// the server.
std::vector<std::string> listing(const std::string& folder, fs::file_type type)
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
        if (entry.symlink_status().type() == type)
            names.push_back(entry.path().filename().string());
    return names;
}

// Record bytes with their 8-byte length, and the full name that leads them.
struct Record {
    Bytes bytes;
    std::string fullName;
};

Record record(Bytes bytes)
{
    std::int32_t index = 8;
    auto name = BitHelper::decodeString(bytes, index);
    return {std::move(bytes), name.value_or("")};
}

class FolderQueries : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_client = m_server.connect();
        m_client->setTimeout(std::chrono::seconds(5));
        m_root = (m_server.home().path() / "tree").string();
    }

    SyncClient& client() { return *m_client; }
    CapturedLog& log() { return m_server.log(); }
    std::string home() { return m_server.home().path().string(); }

    // Every file holds "hello" or nothing, so its digest is known.
    void makeTree()
    {
        for (const char* name : {"a.txt", ".DS_Store", "part.zandrel", "sub1/x.txt", "sub1/deeper/y.txt",
                 ".hid/z.txt", "sub1/.DS_Store"})
            m_server.home().write(std::string("tree/") + name, "hello");
        m_server.home().write("tree/empty.bin", "");
        fs::create_directories(m_root + "/sub2");
        fs::create_directory_symlink(m_root + "/sub1", m_root + "/link-to-sub1");
        fs::create_symlink(m_root + "/a.txt", m_root + "/link-to-file");
    }

    // The walk as a phone must see it: the folder, its files, then each
    // subfolder in turn.
    void expectedWalk(const std::string& folder, bool withHash, std::vector<Record>& out)
    {
        out.push_back(record(BitHelper::encodeDirSyncInfo(DirSyncInfo::initFromPath(folder))));
        for (const auto& name : listing(folder, fs::file_type::regular)) {
            if (skippedByWalk(name))
                continue;
            std::string child = folder + "/" + name;
            FileSyncInfo info = FileSyncInfo::initFromPath(child);
            if (withHash)
                info.hash = fs::file_size(child) == 0 ? kEmptyMd5 : kHelloMd5;
            out.push_back(record(BitHelper::encodeFileSyncInfo(info)));
        }
        for (const auto& name : listing(folder, fs::file_type::directory))
            expectedWalk(folder + "/" + name, withHash, out);
    }

    // Reads the empty header and the records up to the 62-byte end marker.
    std::vector<Record> readWalk()
    {
        expectNext(client(), StreamIO::emptyHeader(Command::AllFilesInFolder));
        std::vector<Record> records;
        for (int guard = 0; guard < 1000; ++guard) {
            std::int64_t length = client().readLong();
            Bytes bytes = BitHelper::encodeLongLong(length);
            bytes += client().readExact(static_cast<std::size_t>(length));
            if (bytes == BitHelper::encodeDirSyncInfo(DirSyncInfo::finish()))
                return records;
            records.push_back(record(std::move(bytes)));
        }
        ADD_FAILURE() << "no end marker";
        return records;
    }

    void checkWalk(bool withHash)
    {
        makeTree();
        client().sendCommand(Command::AllFilesInFolder, join({text(m_root), flag(withHash)}));
        std::vector<Record> got = readWalk();
        std::vector<Record> want;
        expectedWalk(m_root, withHash, want);

        auto names = [](const std::vector<Record>& records) {
            std::vector<std::string> out;
            for (const auto& r : records)
                out.push_back(r.fullName);
            return out;
        };
        ASSERT_EQ(names(got), names(want));
        for (std::size_t i = 0; i < got.size(); ++i)
            EXPECT_EQ(got[i].bytes, want[i].bytes) << want[i].fullName;
        expectSessionAlive(client());

        EXPECT_TRUE(log().contains(
            std::string("All files in folder: ") + m_root + ", MD5 = " + (withHash ? "YES" : "NO")));
        EXPECT_TRUE(log().contains("Found file: " + m_root + "/sub1/deeper/y.txt."));
        EXPECT_FALSE(log().contains("Found file: " + m_root + "/.DS_Store."));
        EXPECT_FALSE(log().contains("Found file: " + m_root + "/link-to-file."));
    }

    LoopbackServer m_server;
    std::unique_ptr<SyncClient> m_client;
    std::string m_root;
};

TEST_F(FolderQueries, ParentFolderIsWorkedOutFromTheTextAlone)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"/no/such/place/b/", "/no/such/place"}, {"~/missing/file", "~/missing"}, {"/", "/"}, {"plain", ""}};
    for (const auto& [path, parent] : cases) {
        client().sendCommand(Command::ParentFolder, text(path));
        expectDataPacket(client(), Command::ParentFolder, text(parent));
    }
    EXPECT_TRUE(log().contains("Parent folder of '/no/such/place/b/' is '/no/such/place'."));
    EXPECT_TRUE(log().contains("Parent folder of 'plain' is ''."));
}

TEST_F(FolderQueries, PathExistsExpandsTildeAndAnswersForFoldersOnly)
{
    makeTree();
    const std::vector<std::pair<std::string, bool>> cases = {{"~", true}, {"~/tree/sub1", true},
        {m_root + "/link-to-sub1", true}, {m_root + "/a.txt", false}, {m_root + "/missing", false}};
    for (const auto& [path, answer] : cases) {
        client().sendCommand(Command::PathExists, text(path));
        expectDataPacket(client(), Command::PathExists, flag(answer));
    }
    EXPECT_TRUE(log().contains("Path exists: YES"));
    EXPECT_TRUE(log().contains("Path exists: NO"));
}

TEST_F(FolderQueries, FolderInfoAnswersTheFolderRecord)
{
    makeTree();
    client().sendCommand(Command::FolderInfo, text(m_root));
    expectDataPacket(client(), Command::FolderInfo, BitHelper::encodeDirSyncInfo(DirSyncInfo::initFromPath(m_root)));
    EXPECT_TRUE(log().contains("Folder info: " + m_root));

    // A plain file is no folder: the error ends the session.
    client().sendCommand(Command::FolderInfo, text(m_root + "/a.txt"));
    expectSessionEndsWith(client(), Command::FolderInfo, "Path " + m_root + "/a.txt does not exist.");
}

TEST_F(FolderQueries, FoldersInFolderListsRealFoldersInPlatformOrder)
{
    makeTree();
    client().sendCommand(Command::FoldersInFolder, text(m_root));
    std::vector<DirSyncInfo> want;
    for (const auto& name : listing(m_root, fs::file_type::directory))
        want.push_back(DirSyncInfo::initFromPath(m_root + "/" + name));
    ASSERT_EQ(want.size(), 3u); // sub1, sub2 and the hidden one; not the link
    expectDataPacket(client(), Command::FoldersInFolder, BitHelper::encodeDirSyncInfoArray(want));
    EXPECT_TRUE(log().contains("Folders in folder: " + m_root));
    EXPECT_TRUE(log().contains(m_root + "/.hid"));
    expectSessionAlive(client());
}

TEST_F(FolderQueries, FilesInFolderListsEveryRegularFileSkipNamesIncluded)
{
    makeTree();
    // A folder sent with a trailing "/" still gets "/" and the name appended.
    const std::string sent = m_root + "/";
    client().sendCommand(Command::FilesInFolder, text(sent));
    std::vector<FileSyncInfo> want;
    for (const auto& name : listing(m_root, fs::file_type::regular))
        want.push_back(FileSyncInfo::initFromPath(sent + "/" + name));
    ASSERT_EQ(want.size(), 4u); // a.txt, .DS_Store, part.zandrel, empty.bin
    expectDataPacket(client(), Command::FilesInFolder, BitHelper::encodeFileSyncInfoArray(want));
    EXPECT_TRUE(log().contains("Files in folder: " + sent));
    EXPECT_TRUE(log().contains(sent + "/part.zandrel"));

    client().sendCommand(Command::FilesInFolder, text(m_root + "/sub2"));
    expectDataPacket(client(), Command::FilesInFolder, number(0));
}

TEST_F(FolderQueries, WalkWithoutDigests)
{
    checkWalk(false);
}

TEST_F(FolderQueries, WalkWithDigests)
{
    checkWalk(true);
}

// More files than are digested ahead still come in walk order, and a damaged
// digest cache costs one log line, not the walk.
TEST_F(FolderQueries, WalkWithDigestsOfManyFilesOverADamagedCache)
{
    m_server.home().write(".cache/zandrel/digests.sqlite", std::string(4096, 'x'));
    for (int i = 0; i < 150; ++i)
        m_server.home().write("tree/many/f" + std::to_string(i) + ".txt", i % 3 ? "hello" : "");
    checkWalk(true);
    EXPECT_TRUE(log().contains("Digest cache " + home() + "/.cache/zandrel/digests.sqlite was damaged and has been "
                               "rebuilt."));
}

TEST_F(FolderQueries, WalkOfAnEmptyFolderIsItsRecordAndTheEndMarker)
{
    fs::create_directories(m_root);
    client().sendCommand(Command::AllFilesInFolder, join({text(m_root), flag(true)}));
    // The end marker: length 54, then a body of empty strings and zeros.
    expectNext(client(), join({StreamIO::emptyHeader(Command::AllFilesInFolder),
                             BitHelper::encodeDirSyncInfo(DirSyncInfo::initFromPath(m_root)), number(54),
                             Bytes(54, 0)}));
    expectSessionAlive(client());
}

TEST_F(FolderQueries, CalculateFileHashAnswersNothingAndDefaultPathIsExpanded)
{
    m_server.settings().setBasePath("~/Music");
    client().sendCommand(Command::CalculateFileHash);
    client().sendCommand(Command::DefaultPath);
    expectDataPacket(client(), Command::DefaultPath, text(home() + "/Music"));
    EXPECT_TRUE(log().contains("Default path: " + home() + "/Music"));
    EXPECT_FALSE(log().contains("Invalid command."));
}

// The folder handlers take "~" literally, so even an existing home folder
// is missing to them, and the failure ends the session.
class TildePaths : public FolderQueries, public ::testing::WithParamInterface<std::uint8_t> {};

TEST_P(TildePaths, FailWithPathDoesntExistAndEndTheSession)
{
    fs::create_directories(m_root);
    Bytes fields = text("~/tree");
    if (GetParam() == Command::AllFilesInFolder)
        fields += flag(false);
    client().sendCommand(GetParam(), fields);
    expectSessionEndsWith(client(), GetParam(), "Path ~/tree does not exist.");
    EXPECT_TRUE(log().waitFor("Exception in run loop: Path ~/tree does not exist."));
}

INSTANTIATE_TEST_SUITE_P(FolderHandlers, TildePaths,
    ::testing::Values(Command::FolderInfo, Command::FoldersInFolder, Command::FilesInFolder,
        Command::AllFilesInFolder));

} // namespace

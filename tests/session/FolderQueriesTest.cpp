#include <atomic>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "HandlerFixture.h"
#include "records/DirSyncInfo.h"
#include "records/FileSyncInfo.h"
#include "records/RecordEncoding.h"
#include "session/WriteAccess.h"
#include "wire/Digest.h"

namespace fs = std::filesystem;
using namespace SessionTest;

namespace {

const std::string kHelloMd5 = "5d41402abc4b2a76b9719d911017c592";
const std::string kEmptyMd5 = "d41d8cd98f00b204e9800998ecf8427e";

// Files larger than "hello" are that many "L" bytes.
std::string md5OfLarge(std::uint64_t size)
{
    const std::string text(size, 'L');
    return Digest::md5Hex(text.data(), text.size());
}

// Entry names in the order the platform lists them, read independently of
// the server; an unreadable folder lists nothing.
std::vector<std::string> listing(const std::string& folder, fs::file_type type)
{
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error))
        if (entry.symlink_status().type() == type)
            names.push_back(entry.path().filename().string());
    return names;
}

// The full path a record begins with.
std::string fullNameOf(const Bytes& record)
{
    std::int32_t at = 8;
    return BitHelper::decodeString(record, at).value_or("");
}

using Query = void (FolderQueries::*)();

class FolderQueriesTest : public HandlerTest {
protected:
    std::string m_root = at("tree").string();

    // Every file holds "hello" or nothing, so its digest is known.
    void makeTree()
    {
        for (const char* name : {"a.txt", ".DS_Store", "part.zandrel", "sub1/x.txt", "sub1/deeper/y.txt",
                 ".hid/z.txt", "sub1/.DS_Store"})
            home.write(std::string("tree/") + name, "hello");
        home.write("tree/empty.bin", "");
        fs::create_directories(m_root + "/sub2");
        fs::create_directory_symlink(m_root + "/sub1", m_root + "/link-to-sub1");
        fs::create_symlink(m_root + "/a.txt", m_root + "/link-to-file");
    }

    // The walk as a phone must see it: the folder, its files but our
    // partials and .DS_Store, then each subfolder in turn.
    void expectedWalk(const std::string& folder, bool withHash, std::vector<Bytes>& out)
    {
        out.push_back(BitHelper::encodeDirSyncInfo(DirSyncInfo::initFromPath(folder)));
        for (const auto& name : listing(folder, fs::file_type::regular)) {
            if (name == ".DS_Store" || name.ends_with(".zandrel"))
                continue;
            FileSyncInfo info = FileSyncInfo::initFromPath(folder + "/" + name);
            if (withHash)
                info.hash = info.size == 0 ? kEmptyMd5 : info.size == 5 ? kHelloMd5 : md5OfLarge(info.size);
            out.push_back(BitHelper::encodeFileSyncInfo(info));
        }
        for (const auto& name : listing(folder, fs::file_type::directory))
            expectedWalk(folder + "/" + name, withHash, out);
    }

    // Names a phone may meet: spaces, a newline, bytes that are not UTF-8,
    // a dot at either end, the longest name; read-only items and a folder
    // nobody may read.
    void makeOddTree()
    {
        for (const std::string& name : std::vector<std::string>{"with space.MP3", "new\nline.txt", "bad\xff\xfe.jpg", "trailing.", ".dotfile",
                 std::string(255, 'n')})
            home.write("tree/odd/" + name, "hello");
        home.write("tree/odd/ro.txt", "hello");
        home.write("tree/odd/ro-folder/in.txt", "hello");
        home.write("tree/odd/locked/in.txt", "hello");
        fs::permissions(m_root + "/odd/ro.txt", fs::perms::owner_read);
        fs::permissions(m_root + "/odd/ro-folder", fs::perms::owner_read | fs::perms::owner_exec);
        fs::permissions(m_root + "/odd/locked", fs::perms::none);
    }

    // The walk of the tree, compared record by record up to the end marker;
    // records under `churning` change as the walk runs and are only counted.
    std::size_t checkWalk(bool withHash, const std::string& churning = "\n")
    {
        session->start([this] { session->folders.allFilesInFolder(); }, join({text(m_root), flag(withHash)}));
        expectNext(phone(), StreamIO::emptyHeader(Command::AllFilesInFolder));
        std::vector<Bytes> got;
        for (int guard = 0; guard < 10000; ++guard) {
            std::int64_t length = phone().readLong();
            got.push_back(join({number(length), phone().readExact(static_cast<std::size_t>(length))}));
            if (got.back() == BitHelper::encodeDirSyncInfo(DirSyncInfo::finish()))
                break;
        }
        session->expectAnswered();
        std::vector<Bytes> want;
        expectedWalk(m_root, withHash, want);
        want.push_back(BitHelper::encodeDirSyncInfo(DirSyncInfo::finish()));
        auto changing = [&](const Bytes& record) { return fullNameOf(record).starts_with(churning); };
        std::size_t churned = std::erase_if(got, changing);
        std::erase_if(want, changing);
        EXPECT_EQ(got.size(), want.size());
        if (got.size() != want.size())
            return churned;
        for (std::size_t i = 0; i < got.size(); ++i)
            EXPECT_EQ(got[i], want[i]) << "record " << i;
        EXPECT_TRUE(log.contains("All files in folder: " + m_root + ", MD5 = " + (withHash ? "YES" : "NO")));
        EXPECT_TRUE(log.contains("Found file: " + m_root + "/sub1/deeper/y.txt."));
        EXPECT_FALSE(log.contains("Found file: " + m_root + "/.DS_Store."));
        return churned;
    }

    // Runs one query and expects exactly `answer` as its data packet.
    void expectQuery(Query query, std::uint8_t code, const Bytes& fields, const Bytes& answer)
    {
        session->start([this, query] { (session->folders.*query)(); }, fields);
        expectDataPacket(phone(), code, answer);
        session->expectAnswered();
    }
};

// Only the default path and path exists expand "~"; the parent is text.
// calculateFileHash reads and answers nothing. Listings describe what is
// directly inside a folder.
TEST_F(FolderQueriesTest, SmallQueriesExpandTildeOnlyWherePhonesExpectItAndListingsLookOneLevelDown)
{
    makeTree();
    settings->setBasePath("~/Music");
    expectQuery(&FolderQueries::defaultPath, Command::DefaultPath, {}, text(home.path().string() + "/Music"));
    expectQuery(&FolderQueries::parentFolder, Command::ParentFolder, text("~/missing/file"), text("~/missing"));
    for (const auto& [path, answer] : std::vector<std::pair<std::string, bool>>{{"~", true}, {"~/tree/sub1", true},
             {m_root + "/link-to-sub1", true}, {m_root + "/a.txt", false}, {m_root + "/missing", false}})
        expectQuery(&FolderQueries::pathExists, Command::PathExists, text(path), flag(answer));
    session->start([this] { session->folders.calculateFileHash(); });
    session->expectAnswered();
    EXPECT_TRUE(log.contains("Path exists: NO"));

    expectQuery(&FolderQueries::folderInfo, Command::FolderInfo, text(m_root),
        BitHelper::encodeDirSyncInfo(DirSyncInfo::initFromPath(m_root)));

    std::vector<DirSyncInfo> folders;
    for (const auto& name : listing(m_root, fs::file_type::directory))
        folders.push_back(DirSyncInfo::initFromPath(m_root + "/" + name));
    ASSERT_EQ(folders.size(), 3u); // sub1, sub2 and the hidden one; not the link
    expectQuery(&FolderQueries::foldersInFolder, Command::FoldersInFolder, text(m_root),
        BitHelper::encodeDirSyncInfoArray(folders));
    EXPECT_TRUE(log.contains(m_root + "/.hid"));

    // Files: every regular file, .DS_Store and partials included. A folder
    // sent with a trailing "/" still gets "/" and the name appended.
    const std::string sent = m_root + "/";
    std::vector<FileSyncInfo> files;
    for (const auto& name : listing(m_root, fs::file_type::regular))
        files.push_back(FileSyncInfo::initFromPath(sent + "/" + name));
    ASSERT_EQ(files.size(), 4u); // a.txt, .DS_Store, part.zandrel, empty.bin
    expectQuery(&FolderQueries::filesInFolder, Command::FilesInFolder, text(sent),
        BitHelper::encodeFileSyncInfoArray(files));
    EXPECT_TRUE(log.contains(sent + "/part.zandrel"));
    expectQuery(&FolderQueries::filesInFolder, Command::FilesInFolder, text(m_root + "/sub2"), number(0));
}

// More files than are digested ahead, small ones read in batches and large
// ones alone, still come in walk order, and a damaged digest cache costs one
// log line, not the walk.
TEST_F(FolderQueriesTest, WalksStreamTheTreeInWalkOrderOverADamagedDigestCache)
{
    home.write(".cache/zandrel/digests.sqlite", std::string(4096, 'x'));
    makeTree();
    for (int i = 0; i < 150; ++i)
        home.write("tree/many/f" + std::to_string(i) + ".txt",
            i % 40 == 7 ? std::string(300000 + i, 'L') : i % 3 ? "hello" : "");
    checkWalk(false);
    checkWalk(true);
    EXPECT_TRUE(log.contains("Digest cache " + home.path().string() +
                             "/.cache/zandrel/digests.sqlite was damaged and has been rebuilt."));
}

// The walk's records are those the single-item records give, whether write
// access is judged from the attributes or asked of the kernel, and files
// that come and go while a folder is read cost no other record.
TEST_F(FolderQueriesTest, WalksOddNamesLockedFoldersAndChangingFilesAsSingleRecordsDescribeThem)
{
    makeTree();
    makeOddTree();
    for (int i = 0; i < 400; ++i)
        home.write("tree/churn/f" + std::to_string(i), "x");
    checkWalk(false);
    WriteAccess::setShortcutEnabled(false);
    checkWalk(false);
    WriteAccess::setShortcutEnabled(true);

    std::atomic<bool> walking{true};
    std::thread churn([&] {
        for (int round = 0; walking; ++round) {
            const std::string name = m_root + "/churn/f" + std::to_string(round % 400);
            fs::remove(name);
            home.write("tree/churn/f" + std::to_string(round % 400), std::string(round % 7, 'y'));
        }
    });
    std::size_t churned = checkWalk(true, m_root + "/churn");
    walking = false;
    churn.join();
    EXPECT_LE(churned, 401u);
    EXPECT_TRUE(log.contains("Found file: " + m_root + "/odd/ro.txt."));
    fs::permissions(m_root + "/odd/locked", fs::perms::owner_all);
}

// The folder handlers and free space take "~" literally, so even an
// existing home folder is missing to them, as is a plain file; the failure
// ends the session.
TEST_F(FolderQueriesTest, TildePathsAndFilesFailWithPathDoesntExist)
{
    home.write("tree/a.txt", "hello");
    const std::pair<std::uint8_t, std::function<void(HandlerSession&)>> handlers[] = {
        {Command::FolderInfo, [](HandlerSession& s) { s.folders.folderInfo(); }},
        {Command::FoldersInFolder, [](HandlerSession& s) { s.folders.foldersInFolder(); }},
        {Command::FilesInFolder, [](HandlerSession& s) { s.folders.filesInFolder(); }},
        {Command::AllFilesInFolder, [](HandlerSession& s) { s.folders.allFilesInFolder(); }},
        {Command::FreeSpace, [](HandlerSession& s) { s.fileOps.freeSpace(); }}};
    for (const auto& [code, handler] : handlers) {
        for (const std::string& path : {std::string("~/tree"), m_root + "/a.txt"}) {
            auto s = newSession();
            const bool walk = code == Command::AllFilesInFolder;
            s->start([&s, &handler] { handler(*s); }, walk ? join({text(path), flag(false)}) : text(path));
            s->expectFailure(code, "Path " + path + " does not exist.");
        }
    }
    EXPECT_TRUE(log.contains("Exception thrown free space: Path " + m_root + "/a.txt does not exist."));
}

} // namespace

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "HandlerFixture.h"
#include "session/DeleteGuard.h"
#include "records/FileSyncInfo.h"
#include "records/RecordEncoding.h"

namespace fs = std::filesystem;
using namespace SessionTest;

namespace {

// The handler that answers each code.
const std::map<std::uint8_t, void (FileSystemOps::*)()> kHandlers = {
    {Command::CreateDirectories, &FileSystemOps::createDirectories}, {Command::DeleteFiles, &FileSystemOps::deleteFiles},
    {Command::DeleteFolders, &FileSystemOps::deleteFolders}, {Command::RenameFiles, &FileSystemOps::renameFiles},
    {Command::FreeSpace, &FileSystemOps::freeSpace}};

class FileSystemOpsTest : public HandlerTest {
protected:
    std::string at(const std::string& relative) const { return m_dir + "/" + relative; }

    void start(std::uint8_t code, const Bytes& fields, HandlerSession& s)
    {
        s.start([&s, code] { (s.fileOps.*kHandlers.at(code))(); }, fields);
    }

    // Runs one command on `fields` and expects its one-byte answer.
    void expectAnswer(std::uint8_t code, const Bytes& fields, bool answer)
    {
        start(code, fields, *session);
        expectDataPacket(phone(), code, flag(answer));
        session->expectAnswered();
    }

    // A batch of single paths.
    void batch(std::uint8_t code, const std::vector<std::string>& paths, bool answer)
    {
        Bytes fields = number(static_cast<std::int64_t>(paths.size()));
        for (const auto& path : paths)
            fields += text(path);
        expectAnswer(code, fields, answer);
    }

    // A batch of (old, new) pairs.
    void rename(const std::vector<std::pair<std::string, std::string>>& pairs, bool answer)
    {
        Bytes fields = number(static_cast<std::int64_t>(pairs.size()));
        for (const auto& [from, to] : pairs)
            fields += join({text(from), text(to)});
        expectAnswer(Command::RenameFiles, fields, answer);
    }

    const std::string m_dir = home.path().string();
};

// Folders are made as whole chains, what exists is skipped. Each delete
// removes its own kind and skips the other kind and what is missing; through
// a link only the link goes, never what it points at. A path with a NUL byte
// names nothing.
TEST_F(FileSystemOpsTest, CreatesAndDeletesActOnTheirKindOnlyAndANulBytePathNamesNothing)
{
    home.write("file.txt", "x");
    batch(Command::CreateDirectories, {at("a/b/c"), m_dir, at("file.txt")}, true);
    EXPECT_TRUE(fs::is_directory(at("a/b/c")));
    EXPECT_TRUE(fs::is_regular_file(at("file.txt")));
    EXPECT_TRUE(log.contains("Created directory: " + at("a/b/c")));
    EXPECT_FALSE(log.contains("Created directory: " + m_dir));
    EXPECT_FALSE(log.contains("Could not create directory: " + at("file.txt")));

    // A folder under a plain file cannot be made; the next item still is.
    batch(Command::CreateDirectories, {at("file.txt/sub"), at("next")}, false);
    EXPECT_TRUE(log.contains("Could not create directory: " + at("file.txt/sub")));
    EXPECT_TRUE(fs::is_directory(at("next")));

    home.write("d/sub/deep.txt", "y");
    home.write("kept/inside.txt", "z");
    fs::create_symlink(at("kept/inside.txt"), at("link"));
    fs::create_directory_symlink(at("kept"), at("link-to-kept"));
    batch(Command::DeleteFiles, {at("file.txt"), at("d"), at("missing"), at("link")}, true);
    batch(Command::DeleteFolders, {at("d"), at("kept/inside.txt"), at("missing"), at("link-to-kept/")}, true);
    EXPECT_FALSE(fs::exists(at("file.txt")));
    EXPECT_FALSE(fs::exists(at("d")));
    EXPECT_FALSE(fs::exists(fs::symlink_status(at("link"))));
    EXPECT_FALSE(fs::exists(fs::symlink_status(at("link-to-kept"))));
    EXPECT_TRUE(fs::exists(at("kept/inside.txt")));
    EXPECT_TRUE(log.contains("Deleted file: " + at("file.txt")));
    EXPECT_TRUE(log.contains("Deleted file: " + at("link")));
    EXPECT_TRUE(log.contains("Deleted directory: " + at("d")));
    for (const auto& line : {"Deleted file: " + at("d"), "Could not delete file: " + at("missing"),
             "Deleted directory: " + at("kept/inside.txt"), "Could not delete directory: " + at("missing")})
        EXPECT_FALSE(log.contains(line)) << line;

    // Cut at the NUL, each of these would act on inside.txt or its folder.
    const std::string nul = at("kept/inside.txt") + std::string(1, '\0') + "/x";
    batch(Command::DeleteFiles, {nul}, true);
    batch(Command::CreateDirectories, {nul}, false);
    rename({{at("kept/inside.txt"), nul}}, false);
    batch(Command::DeleteFolders, {at("kept") + std::string(1, '\0')}, true);
    EXPECT_EQ(readFile(at("kept/inside.txt")), "z");
}

// rename(2) cannot cross file systems: /dev/shm is reached by a copy of the
// contents and the date.
TEST_F(FileSystemOpsTest, RenameNeverReplacesAndGoesOnWithTheOtherPairs)
{
    const std::string target = "/dev/shm/zandrel-move-" + std::to_string(::getpid());
    home.write("a", "A");
    home.write("b", "B");
    home.write("c", "C");
    home.write("travel.txt", "contents");
    fs::last_write_time(at("travel.txt"), fs::file_time_type::clock::now() - std::chrono::hours(48));
    const auto date = fs::last_write_time(at("travel.txt"));
    fs::create_directories(at("folder"));
    rename({{at("a"), at("b")}, {at("c"), at("d")}, {at("missing"), at("e")}, {at("folder"), at("f")},
               {at("travel.txt"), target}},
        false);

    EXPECT_EQ(readFile(at("a")), "A");
    EXPECT_EQ(readFile(at("b")), "B");
    EXPECT_FALSE(fs::exists(at("c")));
    EXPECT_EQ(readFile(at("d")), "C");
    EXPECT_TRUE(fs::is_directory(at("folder")));
    EXPECT_FALSE(fs::exists(at("f")));
    EXPECT_EQ(readFile(target), "contents");
    EXPECT_EQ(fs::last_write_time(target), date);
    fs::remove(target);
    EXPECT_TRUE(log.contains("Could not rename file '" + at("a") + "' to '" + at("b") + "'"));
    EXPECT_TRUE(log.contains("Renamed file '" + at("c") + "' to '" + at("d") + "'"));
    EXPECT_FALSE(log.contains("Could not rename file '" + at("missing") + "' to '" + at("e") + "'"));
}

TEST_F(FileSystemOpsTest, ReadOnlyChangesNothingAndAnswersAsFailedItems)
{
    settings->setReadOnly(true);
    home.write("keep.txt", "x");
    fs::create_directories(at("folder/inner"));
    batch(Command::CreateDirectories, {at("new")}, false);
    batch(Command::DeleteFiles, {at("keep.txt")}, false);
    batch(Command::DeleteFolders, {at("folder")}, false);
    rename({{at("keep.txt"), at("moved.txt")}}, false);
    // What would have been skipped anyway still counts as done.
    batch(Command::DeleteFiles, {at("missing.txt")}, true);

    EXPECT_FALSE(fs::exists(at("new")));
    EXPECT_TRUE(fs::exists(at("keep.txt")));
    EXPECT_TRUE(fs::exists(at("folder/inner")));
    EXPECT_FALSE(fs::exists(at("moved.txt")));
    EXPECT_TRUE(log.contains("Could not delete file: " + at("keep.txt")));
}

// Only the low 32 bits of a count are used: 2^32 is zero items. The
// transfers answer their frame only, the others true.
TEST_F(FileSystemOpsTest, CountsOfZeroOrBelowReadNothing)
{
    const Bytes noFiles =
        join({StreamIO::emptyHeader(Command::DownloadFiles), BitHelper::encodeFileSyncInfo(FileSyncInfo::finish())});
    for (std::int64_t count : {std::int64_t{0}, std::int64_t{-1}, std::int64_t{1} << 32}) {
        for (std::uint8_t code :
            {Command::CreateDirectories, Command::DeleteFiles, Command::DeleteFolders, Command::RenameFiles}) {
            expectAnswer(code, number(count), true);
        }
        session->start([this] { session->transfers.downloadFiles(); }, join({number(count), flag(true)}));
        expectNext(phone(), noFiles);
        session->expectAnswered();
        session->start([this] { session->transfers.uploadFiles(); }, join({flag(true), number(count)}));
        expectDataPacket(phone(), Command::UploadFiles, {});
        session->expectAnswered();
    }
    EXPECT_TRUE(log.contains("Renaming files. Count = -1"));
}

// Free bytes, logged once the phone has them.
TEST_F(FileSystemOpsTest, FreeSpaceIsAnsweredThenLogged)
{
    start(Command::FreeSpace, text(m_dir), *session);
    auto reply = phone().readReply();
    ASSERT_EQ(reply.data.size(), 8u);
    std::int32_t index = 0;
    std::int64_t free = BitHelper::decodeLongLong(reply.data, index);
    EXPECT_GT(free, 0);
    session->expectAnswered(); // the line after the reply is written by now
    char gigabytes[64];
    std::snprintf(gigabytes, sizeof gigabytes, "Free space: %.2lf GB", free / 1024.0 / 1024.0 / 1024.0);
    EXPECT_TRUE(log.contains(gigabytes));
}

// Confinement as a phone meets it: what leads outside the base folder, by
// "..", by a link or by a dangling link, names nothing; the base itself and
// what lies below it stay reachable.
TEST_F(FileSystemOpsTest, ConfinedPathsOutsideTheBaseFolderNameNothing)
{
    const std::string base = at("base");
    home.write("base/sub/in.txt", "in");
    home.write("outside/secret.txt", "secret");
    fs::create_directory_symlink(at("outside"), at("base/escape"));
    fs::create_symlink(at("outside/new.txt"), at("base/up.txt.zandrel"));
    settings->setBasePath(base);
    settings->setConfineToBasePath(true);
    auto& s = *session;

    for (const auto& [path, answer] : {std::pair{base, true}, {base + "/sub/..", true}, {base + "/sub", true},
             {base + "/../outside", false}, {base + "/escape", false}, {base + "/sub/../../outside", false}}) {
        s.start([&s] { s.folders.pathExists(); }, text(path));
        expectDataPacket(s.phone, Command::PathExists, flag(answer));
        s.expectAnswered();
    }
    batch(Command::DeleteFiles, {base + "/escape/secret.txt"}, true);
    EXPECT_TRUE(fs::exists(at("outside/secret.txt")));

    // A dangling link at the partial's name would have the upload create
    // its target outside.
    s.start([&s] { s.transfers.uploadFiles(); }, join({flag(false), number(1), text(base + "/up.txt"), number(3),
                                                       number(1)}));
    expectDataPacket(s.phone, Command::UploadFiles, number(0));
    s.phone.sendRaw(Bytes{'a', 'b', 'c'});
    expectNext(s.phone, number(3));
    s.expectAnswered();
    EXPECT_FALSE(fs::exists(at("outside/new.txt")));
}

// Removing a folder never takes the home or base folder with it, however
// the path names it. The refusal is checked as a rule here, "/" included
// (no test ever sends a delete of "/"), and then through the handler, with
// $HOME moved one level down the scratch folder so that its parent is
// scratch too. A link to the home folder is only a link: removing it leaves
// the home folder alone, so it holds nothing.
TEST_F(FileSystemOpsTest, FoldersHoldingTheHomeOrBaseFolderAreRefusedItemByItem)
{
    using DeleteGuard::Holds;
    const std::string user = at("user"), homeDir = at("user/home"), base = at("base");
    fs::create_directories(homeDir + "/inside/deep");
    fs::create_directories(base + "/sub");
    fs::create_directories(at("base2"));
    fs::create_directory_symlink(homeDir, at("link-to-home"));
    fs::create_directory_symlink(user, at("link-to-user"));
    const std::string link = at("link-to-home");
    for (const auto& [path, holds] : {std::pair<std::string, Holds>{"/", Holds::HomeFolder}, {"//", Holds::HomeFolder},
             {"/.", Holds::HomeFolder}, {homeDir + "/", Holds::HomeFolder}, {homeDir + "/..", Holds::HomeFolder},
             {"~", Holds::HomeFolder}, {"~/", Holds::HomeFolder}, {"~/inside/../.", Holds::HomeFolder},
             {link + "/.", Holds::HomeFolder}, {link + "/..", Holds::HomeFolder},
             {at("link-to-user/home"), Holds::HomeFolder}, {base, Holds::BaseFolder},
             {base + "/sub/..//", Holds::BaseFolder}, {m_dir, Holds::HomeFolder}, {link, Holds::Nothing},
             {link + "/", Holds::Nothing}, {"~/inside", Holds::Nothing}, {homeDir + "/inside/deep", Holds::Nothing},
             {base + "/sub", Holds::Nothing}, {at("base2"), Holds::Nothing}})
        EXPECT_EQ(DeleteGuard::check(path, homeDir, base), holds) << path;
    // Home and base may be given as settings hold them, with "~".
    EXPECT_EQ(DeleteGuard::check(homeDir + "/inside/..", homeDir, "~/Documents"), Holds::HomeFolder);
    EXPECT_EQ(DeleteGuard::check(homeDir + "/Documents", homeDir, "~/Documents"), Holds::BaseFolder);

    ::setenv("HOME", homeDir.c_str(), 1);
    settings->setBasePath(base);
    batch(Command::DeleteFolders, {homeDir, user, base, homeDir + "/inside", link}, false);
    EXPECT_TRUE(fs::is_directory(homeDir));
    EXPECT_TRUE(fs::is_directory(base + "/sub"));
    EXPECT_FALSE(fs::exists(homeDir + "/inside"));
    EXPECT_FALSE(fs::exists(fs::symlink_status(link)));
    for (const auto& line : {"Refused to delete " + homeDir + ": it holds the home folder",
             "Refused to delete " + user + ": it holds the home folder",
             "Refused to delete " + base + ": it holds the base folder", "Deleted directory: " + homeDir + "/inside"})
        EXPECT_TRUE(log.contains(line)) << line;
    EXPECT_FALSE(log.contains("Could not delete directory: " + homeDir));
}

} // namespace

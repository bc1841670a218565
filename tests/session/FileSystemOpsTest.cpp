#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "SessionTestHelpers.h"
#include "support/LoopbackServer.h"

namespace fs = std::filesystem;
using namespace SessionTest;

namespace {

class FileSystemOps : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_client = m_server.connect();
        m_client->setTimeout(std::chrono::seconds(5));
        m_dir = (m_server.home().path() / "work").string();
        fs::create_directories(m_dir);
    }

    SyncClient& client() { return *m_client; }
    CapturedLog& log() { return m_server.log(); }
    std::string at(const std::string& relative) const { return m_dir + "/" + relative; }
    void write(const std::string& relative, const std::string& contents)
    {
        m_server.home().write("work/" + relative, contents);
    }

    // Sends a batch of single paths and expects its one-byte answer.
    void batch(std::uint8_t code, const std::vector<std::string>& paths, bool answer)
    {
        Bytes fields = number(static_cast<std::int64_t>(paths.size()));
        for (const auto& path : paths)
            fields += text(path);
        client().sendCommand(code, fields);
        expectDataPacket(client(), code, flag(answer));
    }

    // Index of a log line, or -1.
    long lineIndex(const std::string& line)
    {
        auto lines = m_server.log().lines();
        auto it = std::find(lines.begin(), lines.end(), line);
        return it == lines.end() ? -1 : it - lines.begin();
    }

    LoopbackServer m_server;
    std::unique_ptr<SyncClient> m_client;
    std::string m_dir;
};

TEST_F(FileSystemOps, CreateDirectoriesMakesWholeChainsAndSkipsWhatExists)
{
    write("file.txt", "x");
    batch(Command::CreateDirectories, {at("a/b/c"), m_dir, at("file.txt")}, true);
    EXPECT_TRUE(fs::is_directory(at("a/b/c")));
    EXPECT_TRUE(fs::is_regular_file(at("file.txt")));
    EXPECT_TRUE(log().contains("Creating directories. Count = 3"));
    EXPECT_TRUE(log().contains("Created directory: " + at("a/b/c")));
    EXPECT_EQ(lineIndex("Created directory: " + m_dir), -1);
    EXPECT_EQ(lineIndex("Could not create directory: " + at("file.txt")), -1);

    // A folder under a plain file cannot be made; the next item still is.
    batch(Command::CreateDirectories, {at("file.txt/sub"), at("next")}, false);
    EXPECT_TRUE(log().contains("Could not create directory: " + at("file.txt/sub")));
    EXPECT_TRUE(fs::is_directory(at("next")));
}

TEST_F(FileSystemOps, DeleteFilesRemovesFilesAndSkipsFoldersAndMissingPaths)
{
    write("f.txt", "x");
    write("d/inner.txt", "y");
    fs::create_symlink(at("d/inner.txt"), at("link"));
    batch(Command::DeleteFiles, {at("f.txt"), at("d"), at("missing"), at("link")}, true);
    EXPECT_FALSE(fs::exists(at("f.txt")));
    EXPECT_FALSE(fs::exists(fs::symlink_status(at("link"))));
    EXPECT_TRUE(fs::exists(at("d/inner.txt")));
    EXPECT_TRUE(log().contains("Deleting files. Count = 4"));
    EXPECT_TRUE(log().contains("Deleted file: " + at("f.txt")));
    EXPECT_TRUE(log().contains("Deleted file: " + at("link")));
    EXPECT_EQ(lineIndex("Deleted file: " + at("d")), -1);
    EXPECT_EQ(lineIndex("Could not delete file: " + at("missing")), -1);
}

TEST_F(FileSystemOps, DeleteFoldersRemovesContentsAndSkipsFilesAndMissingPaths)
{
    write("d/sub/deep.txt", "x");
    write("kept/inside.txt", "y");
    write("plain.txt", "z");
    fs::create_directory_symlink(at("kept"), at("link-to-kept"));
    batch(Command::DeleteFolders, {at("d"), at("plain.txt"), at("missing"), at("link-to-kept/")}, true);
    EXPECT_FALSE(fs::exists(at("d")));
    EXPECT_TRUE(fs::exists(at("plain.txt")));
    // Through a link only the link goes, never what it points at.
    EXPECT_FALSE(fs::exists(fs::symlink_status(at("link-to-kept"))));
    EXPECT_TRUE(fs::exists(at("kept/inside.txt")));
    EXPECT_TRUE(log().contains("Deleting folders. Count = 4"));
    EXPECT_TRUE(log().contains("Deleted directory: " + at("d")));
    EXPECT_EQ(lineIndex("Deleted directory: " + at("plain.txt")), -1);
    EXPECT_EQ(lineIndex("Could not delete directory: " + at("missing")), -1);
}

TEST_F(FileSystemOps, RenameNeverReplacesAndGoesOnWithTheOtherPairs)
{
    write("a", "A");
    write("b", "B");
    write("c", "C");
    fs::create_directories(at("folder"));
    Bytes fields = number(4);
    for (const auto& [from, to] : std::vector<std::pair<std::string, std::string>>{
             {"a", "b"}, {"c", "d"}, {"missing", "e"}, {"folder", "f"}})
        fields += join({text(at(from)), text(at(to))});
    client().sendCommand(Command::RenameFiles, fields);
    expectDataPacket(client(), Command::RenameFiles, flag(false));

    EXPECT_EQ(readFile(at("a")), "A");
    EXPECT_EQ(readFile(at("b")), "B");
    EXPECT_FALSE(fs::exists(at("c")));
    EXPECT_EQ(readFile(at("d")), "C");
    EXPECT_TRUE(fs::is_directory(at("folder")));
    EXPECT_FALSE(fs::exists(at("f")));
    EXPECT_TRUE(log().contains("Renaming files. Count = 4"));
    EXPECT_TRUE(log().contains("Could not rename file '" + at("a") + "' to '" + at("b") + "'"));
    EXPECT_TRUE(log().contains("Renamed file '" + at("c") + "' to '" + at("d") + "'"));
    EXPECT_EQ(lineIndex("Could not rename file '" + at("missing") + "' to '" + at("e") + "'"), -1);
}

TEST_F(FileSystemOps, RenameAcrossFileSystemsMovesContentsAndDate)
{
    struct stat here {}, there {};
    if (::stat(m_dir.c_str(), &here) != 0 || ::stat("/dev/shm", &there) != 0 || here.st_dev == there.st_dev)
        GTEST_SKIP() << "no second file system at /dev/shm to move to";
    write("travel.txt", "contents");
    fs::last_write_time(at("travel.txt"), fs::last_write_time(at("travel.txt")) - std::chrono::hours(48));
    auto date = fs::last_write_time(at("travel.txt"));
    std::string target = "/dev/shm/zandrel-move-" + std::to_string(::getpid());

    Bytes fields = join({number(1), text(at("travel.txt")), text(target)});
    client().sendCommand(Command::RenameFiles, fields);
    expectDataPacket(client(), Command::RenameFiles, flag(true));
    EXPECT_FALSE(fs::exists(at("travel.txt")));
    EXPECT_EQ(readFile(target), "contents");
    EXPECT_EQ(fs::last_write_time(target), date);
    fs::remove(target);
}

TEST_F(FileSystemOps, ReadOnlyChangesNothingAndAnswersAsFailedItems)
{
    m_server.settings().setReadOnly(true);
    write("keep.txt", "x");
    fs::create_directories(at("folder/inner"));
    batch(Command::CreateDirectories, {at("new")}, false);
    batch(Command::DeleteFiles, {at("keep.txt")}, false);
    batch(Command::DeleteFolders, {at("folder")}, false);
    client().sendCommand(Command::RenameFiles, join({number(1), text(at("keep.txt")), text(at("moved.txt"))}));
    expectDataPacket(client(), Command::RenameFiles, flag(false));
    // What would have been skipped anyway still counts as done.
    batch(Command::DeleteFiles, {at("missing.txt")}, true);

    EXPECT_FALSE(fs::exists(at("new")));
    EXPECT_TRUE(fs::exists(at("keep.txt")));
    EXPECT_TRUE(fs::exists(at("folder/inner")));
    EXPECT_FALSE(fs::exists(at("moved.txt")));
    EXPECT_TRUE(log().contains("Could not delete file: " + at("keep.txt")));
}

TEST_F(FileSystemOps, CountsOfZeroOrBelowReadNothingAndAnswerTrue)
{
    // 2^32 has low 32 bits 0; only those count.
    for (std::int64_t count : {std::int64_t{0}, std::int64_t{-1}, std::int64_t{1} << 32}) {
        for (std::uint8_t code :
            {Command::CreateDirectories, Command::DeleteFiles, Command::DeleteFolders, Command::RenameFiles}) {
            client().sendCommand(code, number(count));
            expectDataPacket(client(), code, flag(true));
        }
    }
    expectSessionAlive(client());
    EXPECT_TRUE(log().contains("Creating directories. Count = 0"));
    EXPECT_TRUE(log().contains("Renaming files. Count = -1"));
}

TEST_F(FileSystemOps, FreeSpaceAnswersAvailableBytesAndLogsAfterwards)
{
    client().sendCommand(Command::FreeSpace, text(m_dir));
    auto reply = client().readReply();
    ASSERT_EQ(reply.code, Command::FreeSpace);
    ASSERT_FALSE(reply.isError());
    ASSERT_EQ(reply.data.size(), 8u);
    std::int32_t index = 0;
    std::int64_t free = BitHelper::decodeLongLong(reply.data, index);
    struct statvfs vfs {};
    ASSERT_EQ(::statvfs(m_dir.c_str(), &vfs), 0);
    EXPECT_GT(free, 0);
    EXPECT_LE(static_cast<std::uint64_t>(free), static_cast<std::uint64_t>(vfs.f_blocks) * vfs.f_frsize);

    expectSessionAlive(client()); // the line after the reply is written by now
    char gigabytes[64];
    std::snprintf(gigabytes, sizeof gigabytes, "Free space: %.2lf GB", free / 1024.0 / 1024.0 / 1024.0);
    long asked = lineIndex("Free space for path: " + m_dir);
    EXPECT_GE(asked, 0);
    EXPECT_GT(lineIndex(gigabytes), asked);
}

TEST_F(FileSystemOps, FreeSpaceOfAFileOrATildePathEndsTheSession)
{
    write("plain.txt", "x");
    client().sendCommand(Command::FreeSpace, text(at("plain.txt")));
    expectSessionEndsWith(client(), Command::FreeSpace, "Path " + at("plain.txt") + " does not exist.");
    EXPECT_TRUE(log().waitFor("Exception thrown free space: Path " + at("plain.txt") + " does not exist."));

    // "~" is not expanded here.
    auto second = m_server.connect();
    second->setTimeout(std::chrono::seconds(5));
    second->sendCommand(Command::FreeSpace, text("~"));
    expectSessionEndsWith(*second, Command::FreeSpace, "Path ~ does not exist.");
}

TEST_F(FileSystemOps, APathWithANulByteNamesNothing)
{
    // Cut at the NUL, each of these would act on keep.txt or its folder.
    write("keep.txt", "x");
    const std::string nul = at("keep.txt") + std::string(1, '\0') + "/x";
    batch(Command::DeleteFiles, {nul}, true);
    batch(Command::CreateDirectories, {nul}, false);
    client().sendCommand(Command::RenameFiles, join({number(1), text(at("keep.txt")), text(nul)}));
    expectDataPacket(client(), Command::RenameFiles, flag(false));
    EXPECT_EQ(readFile(at("keep.txt")), "x");
    batch(Command::DeleteFolders, {m_dir + std::string(1, '\0')}, true);
    EXPECT_TRUE(fs::exists(at("keep.txt")));
}

} // namespace

// The typed client against the real server on loopback, on real files in a
// temporary home folder.

#include <algorithm>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LoopbackServer.h"
#include "client/HostIdentity.h"
#include "client/LocalFile.h"
#include "client/ProtocolClient.h"
#include "wire/Digest.h"
#include "wire/Paths.h"

namespace fs = std::filesystem;

namespace {

std::string md5(const std::string& text)
{
    return Digest::md5Hex(text.data(), text.size());
}

class LoopbackClientTest : public ::testing::Test {
protected:
    LoopbackClientTest()
    {
        m_client.connect("127.0.0.1", m_server.port());
        m_client.setPasswordHash(m_server.hash());
        m_client.setTimeout(std::chrono::seconds(20));
    }

    std::string at(const std::string& relative) { return (m_server.home().path() / relative).string(); }
    std::string write(const std::string& relative, const std::string& contents)
    {
        return m_server.home().write(relative, contents).string();
    }

    LoopbackServer m_server;
    ProtocolClient m_client;
};

TEST_F(LoopbackClientTest, IdentifiesAndBracketsASync)
{
    auto text = m_client.identifyHost();
    EXPECT_EQ(text, m_server.settings().getIdentifier());
    auto id = HostIdentity::parse(text);
    ASSERT_TRUE(id);
    EXPECT_TRUE(id->acceptsHash(m_server.hash()));
    EXPECT_TRUE(m_client.startSync());
    EXPECT_FALSE(m_client.lastReplyRefusedPassword());
    EXPECT_TRUE(m_client.finishSync());
}

TEST_F(LoopbackClientTest, AWrongPasswordIsRefusedBeforeAnythingHappens)
{
    m_client.setPassword("not the password");
    EXPECT_THROW(m_client.createDirectories({at("never")}), PasswordRequired);
    EXPECT_FALSE(fs::exists(at("never")));
    // Start sync is answered anyway, after the refusal.
    EXPECT_TRUE(m_client.startSync());
    EXPECT_TRUE(m_client.lastReplyRefusedPassword());
    m_client.setPasswordHash(m_server.hash());
    EXPECT_TRUE(m_client.createDirectories({at("now")}));
    EXPECT_TRUE(fs::is_directory(at("now")));
}

TEST_F(LoopbackClientTest, AnswersPathQuestions)
{
    write("f.txt", "x");
    EXPECT_EQ(m_client.defaultPath(), Paths::expandTilde(m_server.settings().getBasePath()));
    EXPECT_TRUE(m_client.pathExists("~"));
    EXPECT_FALSE(m_client.pathExists(at("f.txt")));
    EXPECT_FALSE(m_client.pathExists(at("missing")));
    EXPECT_EQ(m_client.parentFolder("/no/such/b/"), "/no/such");
    m_client.calculateFileHash(); // answers nothing: the next reply is the next command's
    EXPECT_EQ(m_client.parentFolder("x"), "");
}

TEST_F(LoopbackClientTest, ListsAFolder)
{
    write("top/a.txt", "aaa");
    write("top/.DS_Store", "");
    write("top/b.mp3.zandrel", "partial");
    fs::create_directories(at("top/sub"));
    fs::create_directories(at("top/.hidden"));

    auto folder = m_client.folderInfo(at("top"));
    EXPECT_EQ(folder.fullName, at("top"));
    EXPECT_EQ(folder.fileCount, 1);

    std::set<std::string> folders, files;
    for (const auto& f : m_client.foldersInFolder(at("top")))
        folders.insert(f.name);
    for (const auto& f : m_client.filesInFolder(at("top")))
        files.insert(f.name);
    EXPECT_EQ(folders, (std::set<std::string>{"sub", ".hidden"}));
    EXPECT_EQ(files, (std::set<std::string>{"a.txt", ".DS_Store", "b.mp3.zandrel"}));
    EXPECT_TRUE(m_client.filesInFolder(at("top/sub")).empty());
}

TEST_F(LoopbackClientTest, WalksATreeInPreOrderWithDigests)
{
    write("w/one.txt", "one");
    write("w/.DS_Store", "skip");
    write("w/two.bin.zandrel", "skip");
    write("w/s/three.txt", "three");
    write("w/s/t/four.txt", "");
    std::vector<std::string> order;
    std::vector<std::string> digests;
    ProtocolClient::TreeHandler handler;
    handler.onFolder = [&](const RemoteFolder& f) { order.push_back(f.fullName + "/"); };
    handler.onFile = [&](const RemoteFile& f) {
        order.push_back(f.fullName);
        digests.push_back(f.hash);
    };
    m_client.allFilesInFolder(at("w"), true, handler);
    EXPECT_EQ(order, (std::vector<std::string>{at("w") + "/", at("w/one.txt"), at("w/s") + "/", at("w/s/three.txt"),
                         at("w/s/t") + "/", at("w/s/t/four.txt")}));
    EXPECT_EQ(digests, (std::vector<std::string>{md5("one"), md5("three"), md5("")}));

    digests.clear();
    m_client.allFilesInFolder(at("w/s/t"), false, handler);
    EXPECT_EQ(digests, (std::vector<std::string>{""}));
}

TEST_F(LoopbackClientTest, APathWithATildeEndsTheSession)
{
    try {
        m_client.foldersInFolder("~/x");
        FAIL() << "no error";
    } catch (const ServerError& e) {
        EXPECT_EQ(e.code(), Command::FoldersInFolder);
        EXPECT_EQ(e.message(), "Path ~/x does not exist.");
    }
    EXPECT_FALSE(m_client.isConnected());
}

TEST_F(LoopbackClientTest, ChangesTheFileSystem)
{
    write("ops/a", "a");
    write("ops/b", "b");
    write("ops/taken", "t");
    EXPECT_TRUE(m_client.createDirectories({at("ops/x/y/z"), at("ops/a")}));
    EXPECT_TRUE(fs::is_directory(at("ops/x/y/z")));

    // One pair fails, the other is still done.
    EXPECT_FALSE(m_client.renameFiles({{at("ops/a"), at("ops/taken")}, {at("ops/b"), at("ops/c")}}));
    EXPECT_TRUE(fs::exists(at("ops/a")));
    EXPECT_TRUE(fs::exists(at("ops/c")));

    EXPECT_TRUE(m_client.deleteFiles({at("ops/a"), at("ops/x")})); // the folder is skipped
    EXPECT_FALSE(fs::exists(at("ops/a")));
    EXPECT_TRUE(m_client.deleteFolders({at("ops/x"), at("ops/c")})); // the file is skipped
    EXPECT_FALSE(fs::exists(at("ops/x")));
    EXPECT_TRUE(fs::exists(at("ops/c")));

    EXPECT_GT(m_client.freeSpace(at("ops")), 0);
    try {
        m_client.freeSpace(at("ops/c"));
        FAIL() << "no error";
    } catch (const ServerError& e) {
        EXPECT_EQ(e.message(), "Path " + at("ops/c") + " does not exist.");
    }
}

TEST_F(LoopbackClientTest, DownloadsFromAnyOffset)
{
    const std::string content(1500000, 'q'); // spans several chunks
    auto path = write("dl/big", content);
    write("dl/small", "hello");
    std::vector<std::string> received(3);
    std::vector<std::string> digests(3);
    ProtocolClient::DownloadHandler handler;
    handler.onData = [&](std::size_t i, const std::uint8_t* d, std::size_t n) { received[i].append(d, d + n); };
    handler.onFileDone = [&](std::size_t i, const std::string& digest) { digests[i] = digest; };
    m_client.downloadFiles({{path, 1000}, {at("dl/small"), 5}, {at("dl/small"), 99}}, true, handler);
    EXPECT_EQ(received[0].size(), content.size() - 1000);
    EXPECT_EQ(received[1], "");
    EXPECT_EQ(received[2], "");
    EXPECT_EQ(digests[0], md5(content));
    EXPECT_EQ(digests[2], md5("hello"));

    try {
        m_client.downloadFiles({{at("dl/missing"), 0}}, false, handler);
        FAIL() << "no error";
    } catch (const ServerError& e) {
        EXPECT_EQ(e.message(), "Failed to open file: " + at("dl/missing"));
    }
}

TEST_F(LoopbackClientTest, UploadsResumeFromThePartialFile)
{
    std::string content(1000, '\0');
    for (std::size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<char>('a' + i % 26);
    write("up/f.bin.zandrel", content.substr(0, 300));
    ProtocolClient::UploadHandler handler;
    handler.read = [&](std::size_t, std::int64_t position, std::uint8_t* buffer, std::size_t length) {
        std::copy_n(content.data() + position, length, buffer);
        return length;
    };
    auto results = m_client.uploadFiles({{at("up/f.bin"), 1000, 1'000'000'000, "ignored"}, {at("up/new/empty"), 0, 0, ""}},
        true, handler);
    ASSERT_EQ(results.size(), 2u);
    EXPECT_EQ(results[0].offset, 300);
    EXPECT_EQ(results[0].received, 700);
    EXPECT_EQ(results[0].digest, md5(content));
    EXPECT_EQ(results[1].digest, md5(""));
    EXPECT_EQ(readFile(at("up/f.bin")), content);
    EXPECT_EQ(LocalFile::modifiedOf(at("up/f.bin")), 1'000'000'000);
    EXPECT_FALSE(fs::exists(at("up/f.bin.zandrel")));
    EXPECT_TRUE(fs::exists(at("up/new/empty")));
    // The connection is still in step.
    EXPECT_TRUE(m_client.finishSync());
}

} // namespace

// Downloader and Uploader against the real server: resuming, refetching,
// digests, and a batch that survives one file the server cannot send.

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LoopbackServer.h"
#include "client/Downloader.h"
#include "client/LocalFile.h"
#include "client/ProtocolClient.h"
#include "client/Uploader.h"

namespace fs = std::filesystem;

namespace {

// Records what a transfer reports, to check the numbers it shows.
class RecordingProgress : public TransferProgress {
public:
    void start(const std::string& name, std::int64_t done, std::int64_t total) override
    {
        starts.push_back(name + " " + std::to_string(done) + "/" + std::to_string(total));
        last = done;
    }
    void update(std::int64_t done) override { last = done; }
    void finish() override { ++finished; }

    std::vector<std::string> starts;
    std::int64_t last = 0;
    int finished = 0;
};

class TransfersTest : public ::testing::Test {
protected:
    TransfersTest()
    {
        connect();
        m_local = m_server.home().path() / "local";
        fs::create_directories(m_local);
    }

    void connect() { m_server.attach(m_client); }
    std::string remote(const std::string& relative) { return (m_server.home().path() / "remote" / relative).string(); }
    std::string local(const std::string& name) { return (m_local / name).string(); }

    LoopbackServer m_server;
    ProtocolClient m_client;
    fs::path m_local;
};

TEST_F(TransfersTest, GetResumesPartialCopiesAndRefetchesWrongOnes)
{
    const std::string content(700000, 'z');
    m_server.home().write("remote/partial", content);
    m_server.home().write("remote/shorter", "short");
    m_server.home().write("remote/fresh", "fresh");
    m_server.home().write("remote/f", "0123456789");
    m_server.home().write("local/partial", content.substr(0, 600000));
    m_server.home().write("local/shorter", "a longer local copy");
    m_server.home().write("local/f", "XXXX"); // resumed, then fails its digest
    LocalFile::setModified(remote("fresh"), 1'500'000'000);

    RecordingProgress progress;
    Downloader downloader(m_client, true);
    auto outcomes = downloader.fetch(
        {remote("partial"), remote("shorter"), remote("fresh"), remote("f")}, m_local.string(), &progress);
    ASSERT_EQ(outcomes.size(), 4u);
    for (const auto& o : outcomes) {
        EXPECT_EQ(o.error, "") << o.remote;
        EXPECT_TRUE(o.verified) << o.remote;
    }
    EXPECT_EQ(outcomes[0].resumedFrom, 600000);
    EXPECT_EQ(outcomes[0].received, 100000);
    EXPECT_EQ(outcomes[1].resumedFrom, 0);
    EXPECT_EQ(readFile(local("partial")), content);
    EXPECT_EQ(readFile(local("shorter")), "short");
    EXPECT_EQ(readFile(local("fresh")), "fresh");
    EXPECT_EQ(readFile(local("f")), "0123456789");
    EXPECT_EQ(LocalFile::modifiedOf(local("fresh")), 1'500'000'000);
    EXPECT_EQ(progress.starts.front(), "partial 600000/700000");
}

TEST_F(TransfersTest, AMissingFileDoesNotStopTheOthers)
{
    m_server.home().write("remote/a", "a");
    m_server.home().write("remote/c", "c");
    Downloader downloader(m_client, false, [this] { connect(); });
    auto outcomes = downloader.fetch({remote("a"), remote("b"), remote("c")}, m_local.string());
    ASSERT_EQ(outcomes.size(), 3u);
    EXPECT_EQ(outcomes[0].error, "");
    EXPECT_EQ(outcomes[1].error, "Failed to open file: " + remote("b"));
    EXPECT_EQ(outcomes[2].error, "");
    EXPECT_EQ(readFile(local("c")), "c");
    // Nothing is left behind for the file that never came.
    EXPECT_FALSE(fs::exists(local("b")));
}

TEST_F(TransfersTest, PutSendsOnlyWhatTheServerLacks)
{
    const std::string content(1200000, 'p');
    m_server.home().write("local/song.mp3", content);
    m_server.home().write("local/empty", "");
    m_server.home().write("remote/dir/song.mp3.zandrel", content.substr(0, 200000));
    LocalFile::setModified(local("song.mp3"), 1'234'567'890);

    RecordingProgress progress;
    Uploader uploader(m_client, true);
    auto outcomes = uploader.send({local("song.mp3"), local("empty"), local("nothing here")}, remote("dir/"), &progress);
    ASSERT_EQ(outcomes.size(), 3u);
    EXPECT_EQ(outcomes[0].error, "");
    EXPECT_EQ(outcomes[0].remote, remote("dir/song.mp3"));
    EXPECT_EQ(outcomes[0].resumedFrom, 200000);
    EXPECT_EQ(outcomes[0].sent, 1000000);
    EXPECT_TRUE(outcomes[0].verified);
    EXPECT_TRUE(outcomes[1].verified);
    EXPECT_NE(outcomes[2].error, "");
    EXPECT_EQ(readFile(remote("dir/song.mp3")), content);
    EXPECT_EQ(LocalFile::modifiedOf(remote("dir/song.mp3")), 1'234'567'890);
    EXPECT_EQ(progress.last, 1200000);
}

} // namespace

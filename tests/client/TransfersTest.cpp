// Downloader and Uploader against the real server.

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <sys/socket.h>

#include <gtest/gtest.h>

#include "LoopbackServer.h"
#include "client/Downloader.h"
#include "client/LocalFile.h"
#include "client/ProtocolClient.h"
#include "client/Uploader.h"
#include "server/SocketListener.h"
#include "session/SocketServer.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// Records what a transfer reports; `onUpdate` (when set) runs as each
// piece lands.
class RecordingProgress : public TransferProgress {
public:
    void start(const std::string&, std::int64_t done, std::int64_t) override
    {
        last = done;
        active = true;
    }
    void update(std::int64_t done) override
    {
        last = done;
        if (onUpdate)
            onUpdate(done);
    }
    void finish() override { active = false; }
    // A note given with no file on the line is never seen.
    void note(const std::string& text) override { notes.push_back(active ? text : "(unseen) " + text); }

    std::vector<std::string> notes;
    std::int64_t last = 0;
    bool active = false;
    std::function<void(std::int64_t)> onUpdate;
};

class TransfersTest : public ::testing::Test {
protected:
    TransfersTest() { connect(); }

    void connect()
    {
        m_server.attach(m_client);
        if (m_smallBuffers) {
            int size = 65536;
            ::setsockopt(m_client.connection().fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
            ::setsockopt(m_client.connection().fd(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        }
    }
    // Below the home folder, dated `modified` when given.
    std::string write(const std::string& relative, const std::string& content, std::int64_t modified = 0)
    {
        auto path = m_server.home().write(relative, content).string();
        if (modified != 0)
            LocalFile::setModified(path, modified);
        return path;
    }
    std::string remote(const std::string& relative) { return (m_server.home().path() / "remote" / relative).string(); }
    std::string local(const std::string& name) { return (m_server.home().path() / "local" / name).string(); }
    Downloader::Item item(const std::string& name) { return {remote(name), local(name), std::nullopt}; }
    Downloader downloader(Downloader::Options options = {})
    {
        return Downloader(m_client, options, [this] { connect(); });
    }

    LoopbackServer m_server;
    ProtocolClient m_client;
    bool m_smallBuffers = false;
};

TEST_F(TransfersTest, GetReplacesAFileOnlyWithAVerifiedCompleteCopy)
{
    const std::string content(700000, 'z');
    const std::string part = Downloader::kPartialSuffix;
    write("remote/stale", "new content");
    write("local/stale", "old content"); // same size, other bytes
    write("remote/shorter", "0123456789");
    write("local/shorter", "XXXX"); // never spliced onto
    write("remote/same", "same");
    write("local/same", "same", 1'000'000'000);
    // Our partial files count only when dated like the remote file.
    write("remote/partial", content, 1'500'000'000);
    write("local/partial" + part, content.substr(0, 600000), 1'500'000'000);
    write("remote/badpart", "0123456789", 1'500'000'000);
    write("local/badpart" + part, "XXXXX", 1'500'000'000);

    auto outcomes = downloader().fetch(
        {item("stale"), item("shorter"), item("same"), item("partial"), item("badpart"), item("missing")});
    ASSERT_EQ(outcomes.size(), 6u);
    EXPECT_EQ(outcomes[2].result, Downloader::Result::UpToDate);
    EXPECT_EQ(outcomes[3].resumedFrom, 600000);
    EXPECT_EQ(outcomes[3].moved, 100000);
    EXPECT_EQ(outcomes[5].error, "no such file on the server");
    EXPECT_EQ(readFile(local("stale")), "new content");
    EXPECT_EQ(readFile(local("shorter")), "0123456789");
    EXPECT_EQ(LocalFile::modifiedOf(local("same")), 1'000'000'000); // left alone
    EXPECT_EQ(readFile(local("partial")), content);
    EXPECT_EQ(readFile(local("badpart")), "0123456789"); // resumed, failed its digest, fetched whole
    EXPECT_EQ(LocalFile::modifiedOf(local("partial")), 1'500'000'000);
    EXPECT_FALSE(fs::exists(local("missing")));
    for (const auto& name : {"stale", "partial", "badpart"})
        EXPECT_FALSE(fs::exists(Downloader::partialPath(local(name)))) << name;

    // Without digests, size and date decide.
    write("remote/f", "server", 1'600'000'000);
    write("local/f", "local!");
    Downloader::Options sizeAndDate;
    sizeAndDate.verify = false;
    sizeAndDate.dryRun = true;
    EXPECT_EQ(downloader(sizeAndDate).fetch({item("f")})[0].result, Downloader::Result::WouldMove);
    LocalFile::setModified(local("f"), 1'600'000'000);
    EXPECT_EQ(downloader(sizeAndDate).fetch({item("f")})[0].result, Downloader::Result::UpToDate);
}

// The server's sessions are ended in the middle of each transfer, once a
// first piece has moved, the way the 360-second limit ends them (both close
// the connection whatever the session is doing).
TEST_F(TransfersTest, TransfersOutliveTheServersSessionLimit)
{
    const std::string content(8'000'000, 'q');
    write("remote/big", content);
    write("local/up", content);
    RecordingProgress progress;
    bool cut = false;
    progress.onUpdate = [&](std::int64_t) {
        if (std::exchange(cut, true))
            return;
        for (const auto& session : m_server.app().listener()->connections())
            session->shutdown();
    };
    // Small socket buffers, so that what the server wrote before the cut
    // is far less than the rest of the file.
    m_smallBuffers = true;

    connect();
    auto got = downloader().fetch({item("big")}, &progress);
    EXPECT_EQ(got[0].result, Downloader::Result::Moved) << got[0].error;
    EXPECT_GT(got[0].reconnects, 0);
    EXPECT_EQ(readFile(local("big")), content);
    ASSERT_FALSE(progress.notes.empty());
    EXPECT_EQ(progress.notes.front(), "connection lost, reconnecting (1 of 5)");

    connect();
    cut = false;
    Uploader uploader(m_client, {}, [this] { connect(); });
    auto sent = uploader.send({{local("up"), remote("up"), std::nullopt, false}}, &progress);
    EXPECT_EQ(sent[0].result, Uploader::Result::Moved) << sent[0].error;
    EXPECT_GT(sent[0].reconnects, 0);
    EXPECT_EQ(readFile(remote("up")), content);
}

TEST_F(TransfersTest, PutResumesAPartialAndNamesWhatCannotBeSent)
{
    const std::string content(1200000, 'p');
    write("local/song.mp3", content, 1'234'567'890);
    write("local/empty", "");
    write("local/folder", "a file");
    write("remote/dir/song.mp3.zandrel", content.substr(0, 200000));
    fs::create_directories(remote("dir/folder"));

    RecordingProgress progress;
    Uploader uploader(m_client, {}, [this] { connect(); });
    auto to = [&](const std::string& name) { return Uploader::Item{local(name), remote("dir/" + name), {}, false}; };
    auto outcomes = uploader.send({to("song.mp3"), to("empty"), to("folder"), to("nothing here")}, &progress);
    ASSERT_EQ(outcomes.size(), 4u);
    EXPECT_EQ(outcomes[0].result, Uploader::Result::Moved) << outcomes[0].error;
    EXPECT_EQ(outcomes[0].resumedFrom, 200000);
    EXPECT_EQ(outcomes[0].moved, 1000000);
    EXPECT_TRUE(outcomes[1].verified);
    EXPECT_EQ(outcomes[2].error, "a folder on the server is in the way: " + remote("dir/folder"));
    EXPECT_EQ(outcomes[3].result, Uploader::Result::Failed);
    EXPECT_EQ(readFile(remote("dir/song.mp3")), content);
    EXPECT_EQ(LocalFile::modifiedOf(remote("dir/song.mp3")), 1'234'567'890);
    EXPECT_TRUE(fs::is_directory(remote("dir/folder")));
    EXPECT_EQ(progress.last, 1200000);
}

} // namespace

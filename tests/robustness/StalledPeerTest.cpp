#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "LoopbackServer.h"
#include "client/ProtocolClient.h"
#include "server/SocketListener.h"
#include "session/SessionTestHelpers.h"
#include "wire/Digest.h"

using namespace std::chrono_literals;
using namespace SessionTest;

namespace {

// Stops the server, which waits for its sessions: true when that took less
// than 10 s. A stop still waiting then is let go with `letGo` (closing the
// phones' ends), so that a session left behind fails the test, not hangs it.
bool stopsPromptly(LoopbackServer& server, const std::function<void()>& letGo)
{
    auto stopped = std::async(std::launch::async, [&] { server.app().stop(); });
    if (stopped.wait_for(10s) == std::future_status::ready)
        return true;
    letGo();
    return false;
}

// Phones that stall: one inside a request header, one inside an upload's
// data (holding the upload lock), one whose upload waits for that lock, and
// one that stops reading a download.
class StalledPeers : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_folder = server.home().path() / "music";
        std::filesystem::create_directories(m_folder);
        m_song = server.home().write("music/song.mp3", std::string(4000000, 's')).string();

        silent = server.connect();
        silent->sendRaw(Bytes{Command::FoldersInFolder, 40, 0, 0});
        holder = startUpload("held.bin");
        holder->sendRaw(Bytes(1000, 'h'));
        ASSERT_TRUE(eventually([&] {
            std::error_code ec;
            return std::filesystem::file_size(m_folder / "held.bin.zandrel", ec) == 1000 && !ec;
        }));
        waiter = startUpload("waits.bin");
        waiter->sendRaw(Bytes(1000, 'w'));
        unread = std::make_unique<SyncClient>();
        int small = 4096;
        int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        unread->adopt(fd);
        sockaddr_in address{AF_INET, htons(server.port()), {htonl(INADDR_LOOPBACK)}, {}};
        ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        unread->setPasswordHash(server.hash());
        unread->sendCommand(Command::DownloadFiles, join({number(1), text(m_song), number(0), flag(false)}));
    }

    std::unique_ptr<SyncClient> startUpload(const std::string& name)
    {
        auto c = server.connect();
        c->sendCommand(Command::UploadFiles,
            join({flag(false), number(1), text((m_folder / name).string()), number(2000000), number(1)}));
        EXPECT_EQ(c->readReply().code, Command::UploadFiles);
        return c;
    }

    LoopbackServer server;
    std::filesystem::path m_folder;
    std::string m_song;
    std::unique_ptr<SyncClient> silent, holder, waiter, unread;
};

} // namespace

TEST_F(StalledPeers, NeverHoldUpAnotherPhoneAndStopEndsThemLeavingTheUploadLockFree)
{
    ProtocolClient phone;
    server.attach(phone);
    // Only a hang fails this: each call may wait for the peer up to 10 s.
    phone.setTimeout(10s);
    auto files = phone.filesInFolder(m_folder.string());
    EXPECT_TRUE(std::any_of(files.begin(), files.end(), [](const auto& f) { return f.name == "song.mp3"; }));
    std::string digest;
    std::size_t bytes = 0;
    phone.downloadFiles({{m_song, 0}}, true,
        {nullptr, [&](std::size_t, const std::uint8_t*, std::size_t n) { bytes += n; },
            [&](std::size_t, const std::string& d) { digest = d; }});
    EXPECT_EQ(bytes, 4000000u);
    EXPECT_EQ(digest, Digest::md5OfFile(m_song));
    EXPECT_FALSE(silent->waitForClose(0ms));
    EXPECT_FALSE(holder->waitForClose(0ms));

    EXPECT_TRUE(stopsPromptly(server, [&] {
        for (auto* c : {silent.get(), holder.get(), waiter.get(), unread.get()})
            c->close();
    }));
    for (auto* c : {silent.get(), holder.get(), waiter.get()})
        EXPECT_TRUE(c->waitForClose(5s));

    server.start();
    ProtocolClient after;
    server.attach(after);
    std::vector<ProtocolClient::UploadResult> results;
    after.uploadFiles({{(m_folder / "after.bin").string(), 4, 1, ""}}, false,
        {nullptr, [](std::size_t, std::int64_t, std::uint8_t* buffer, std::size_t length) {
             std::fill_n(buffer, length, 'a');
             return length;
         },
            nullptr, [&](std::size_t, const ProtocolClient::UploadResult& r) { results.push_back(r); }});
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].received, 4);
}

TEST_F(StalledPeers, AnUploadToldToEndWhileWaitingForTheLockEndsWithoutIt)
{
    // The last phone's connect can return before the server has taken it in.
    auto sessions = server.app().listener()->connections();
    EXPECT_TRUE(eventually([&] { return (sessions = server.app().listener()->connections()).size() == 4; }));
    ASSERT_EQ(sessions.size(), 4u);
    sessions[2]->shutdown();
    // Only the waiting upload can have ended.
    EXPECT_TRUE(server.log().waitFor("Connection closed."));
    EXPECT_FALSE(std::filesystem::exists(m_folder / "waits.bin.zandrel"));
    EXPECT_FALSE(holder->waitForClose(0ms));
}

TEST(BusySession, StopEndsOneDigestingAHugeFile)
{
    LoopbackServer server;
    // Sparse, so it costs no disk, but reading it through takes a minute.
    auto huge = server.home().path() / "huge.img";
    std::filesystem::create_directories(huge.parent_path());
    { std::ofstream(huge).flush(); }
    std::filesystem::resize_file(huge, 64ull << 30);

    auto phone = server.connect();
    // From the end of the file: no bytes to send, only the digest of all of it.
    phone->sendCommand(Command::DownloadFiles, join({number(1), text(huge.string()), number(64ll << 30), flag(true)}));
    EXPECT_EQ(phone->readReply(true).code, Command::DownloadFiles);
    std::this_thread::sleep_for(200ms);

    // A second, normally; the bound only catches a digest read to the end.
    EXPECT_TRUE(stopsPromptly(server, [&] { phone->close(); }));
}

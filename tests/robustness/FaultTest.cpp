// Faults a running server meets: the process killed mid-upload, a disk that
// fills up, a file deleted while it is sent. Each ends with the user's data
// whole and the server serving.

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "integration/DaemonProcess.h"
#include "netns/Namespaces.h"
#include "records/FileSyncInfo.h"
#include "records/RecordEncoding.h"
#include "session/SessionTestHelpers.h"
#include "support/LoopbackServer.h"
#include "wire/Digest.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace SessionTest;

namespace {

constexpr const char* kSettings =
    R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
    R"(<key>port</key><integer>0</integer></dict></plist>)";

std::string pattern(std::size_t length)
{
    std::string text(length, '\0');
    for (std::size_t i = 0; i < length; ++i)
        text[i] = static_cast<char>((i * 131 + i / 977) & 0xff);
    return text;
}

std::string md5(const std::string& text) { return Digest::md5Hex(text.data(), text.size()); }

Bytes uploadOne(const std::string& path, std::int64_t size)
{
    return join({flag(true), number(1), text(path), number(size), number(1500000000), text("ignored")});
}

class FaultTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (auto why = isolateNetwork(); !why.empty())
            GTEST_SKIP() << "no private network for the daemon: " << why;
        m_home = std::make_unique<TempHome>();
        m_home->write("Library/Preferences/com.orvantics.ZandrelSync.plist", kSettings);
    }

    // Sends the upload's data from another thread: the server may stop
    // reading half-way, and a refused send is then expected.
    static std::thread sendInBackground(SyncClient& client, std::string data)
    {
        return std::thread([&client, data = std::move(data)] {
            try {
                client.sendRaw(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
            } catch (const std::exception&) {
            }
        });
    }

    std::unique_ptr<TempHome> m_home;
};

TEST_F(FaultTest, UploadResumesAfterTheServerWasKilledMidFile)
{
    const auto source = pattern(3 << 20);
    const auto path = (m_home->path() / "in/video.m4v").string();
    const auto partial = path + ".zandrel";
    {
        DaemonProcess daemon({"--no-discovery"});
        ASSERT_NE(daemon.port(), 0) << daemon.err("\n", 1s);
        auto client = daemon.connect();
        client->sendCommand(Command::UploadFiles, uploadOne(path, static_cast<std::int64_t>(source.size())));
        ASSERT_EQ(client->readReply().data, number(0));
        client->sendRaw(reinterpret_cast<const std::uint8_t*>(source.data()), 1300000);
        // Two chunks on disk, the third arriving.
        auto onDisk = [&] {
            std::error_code missing;
            auto size = fs::file_size(partial, missing);
            return missing ? 0 : size;
        };
        auto deadline = std::chrono::steady_clock::now() + 20s;
        while (onDisk() < 1024000 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(10ms);
        daemon.kill();
    }
    const auto kept = static_cast<std::int64_t>(fs::file_size(partial));
    ASSERT_GE(kept, 1024000);
    EXPECT_FALSE(fs::exists(path));

    DaemonProcess daemon({"--no-discovery"});
    ASSERT_NE(daemon.port(), 0) << daemon.err("\n", 1s);
    auto client = daemon.connect();
    client->sendCommand(Command::UploadFiles, uploadOne(path, static_cast<std::int64_t>(source.size())));
    ASSERT_EQ(client->readReply().data, number(kept));
    client->sendRaw(reinterpret_cast<const std::uint8_t*>(source.data()) + kept, source.size() - kept);
    EXPECT_EQ(client->readLong(), static_cast<std::int64_t>(source.size()) - kept);
    EXPECT_EQ(client->readString(), md5(source));
    EXPECT_EQ(readFile(path), source);
}

TEST_F(FaultTest, FullDiskKeepsThePartialAndTheOldFileAndTheUploadResumesOnceThereIsRoom)
{
    // A 2 MiB disk of its own, seen only by the server, 1.2 MiB of it taken.
    const auto disk = m_home->path() / "disk";
    fs::create_directories(disk);
    DaemonProcess daemon({"--no-discovery"}, {"unshare", "-rm", "sh", "-c",
        R"(mount -t tmpfs -o size=2m tmpfs "$1" && printf old > "$1/song.mp3" &&)"
        R"( head -c 1200k /dev/zero > "$1/filler" && shift && exec "$@")",
        "sh", disk.string()});
    if (daemon.port() == 0)
        GTEST_SKIP() << "no user and mount namespace for a small disk: " << daemon.err("\n", 1s);
    // What the server sees, through its own view of the file system.
    const auto seen = fs::path("/proc/" + std::to_string(daemon.pid()) + "/root") / disk.relative_path();
    const auto path = (disk / "song.mp3").string();
    const auto source = pattern(1500000);

    auto client = daemon.connect();
    client->sendCommand(Command::UploadFiles, uploadOne(path, static_cast<std::int64_t>(source.size())));
    ASSERT_EQ(client->readReply().data, number(0));
    auto sender = sendInBackground(*client, source);
    auto reply = client->readReply();
    sender.join();
    EXPECT_EQ(reply.code, Command::UploadFiles);
    EXPECT_TRUE(reply.isError());
    EXPECT_NE(reply.message.find("No space left on device"), std::string::npos) << reply.message;
    EXPECT_TRUE(client->waitForClose(5s));

    EXPECT_EQ(readFile(seen / "song.mp3"), "old");
    const auto kept = static_cast<std::int64_t>(fs::file_size(seen / "song.mp3.zandrel"));
    EXPECT_GT(kept, 0);
    EXPECT_EQ(readFile(seen / "song.mp3.zandrel"), source.substr(0, static_cast<std::size_t>(kept)));

    client = daemon.connect();
    client->sendCommand(Command::DeleteFiles, join({number(1), text((disk / "filler").string())}));
    expectDataPacket(*client, Command::DeleteFiles, flag(true));
    client->sendCommand(Command::UploadFiles, uploadOne(path, static_cast<std::int64_t>(source.size())));
    ASSERT_EQ(client->readReply().data, number(kept));
    client->sendRaw(reinterpret_cast<const std::uint8_t*>(source.data()) + kept, source.size() - kept);
    EXPECT_EQ(client->readLong(), static_cast<std::int64_t>(source.size()) - kept);
    EXPECT_EQ(client->readString(), md5(source));
    EXPECT_EQ(readFile(seen / "song.mp3"), source);
    expectSessionAlive(*client);
}

TEST(DownloadFault, AFileDeletedWhileSentArrivesWholeWithADigestThatDiffers)
{
    // The open file is read to its end; the digest, taken afterwards at the
    // path, is that of no file, so the phone sees that something changed.
    LoopbackServer server;
    const auto path = server.home().path() / "gone.bin";
    {
        std::ofstream(path, std::ios::binary);
    }
    fs::resize_file(path, 64 << 20);
    auto client = server.connect();
    client->sendCommand(Command::DownloadFiles, join({number(1), text(path.string()), number(0), flag(true)}));
    ASSERT_TRUE(client->readReply(true).isEmptyHeader);
    client->readExact(static_cast<std::size_t>(client->readLong()));
    std::vector<std::uint8_t> block(1 << 20);
    client->readInto(block.data(), block.size());
    fs::remove(path);
    for (int i = 1; i < 64; ++i)
        client->readInto(block.data(), block.size());
    EXPECT_EQ(client->readString(), md5(""));
    EXPECT_EQ(client->readExact(79), BitHelper::encodeFileSyncInfo(FileSyncInfo::finish()));
    expectSessionAlive(*client);
}

} // namespace

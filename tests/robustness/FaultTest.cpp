// Faults a running server meets: the process killed mid-upload, a disk that
// fills up. Each ends with the user's data whole and the server serving.

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "integration/DaemonProcess.h"
#include "session/SessionTestHelpers.h"
#include "wire/Digest.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace SessionTest;

namespace {

std::string pattern(std::size_t length)
{
    std::string text(length, '\0');
    for (std::size_t i = 0; i < length; ++i)
        text[i] = static_cast<char>((i * 131 + i / 977) & 0xff);
    return text;
}

void startUpload(SyncClient& client, const std::string& path, const std::string& source)
{
    client.sendCommand(Command::UploadFiles, join({flag(true), number(1), text(path),
        number(static_cast<std::int64_t>(source.size())), number(1500000000), text("ignored")}));
}

// Uploads `source` again; the server answers that it kept `kept` bytes and,
// given the rest, the whole file's digest.
void resume(SyncClient& client, const std::string& path, const std::string& source, std::int64_t kept)
{
    startUpload(client, path, source);
    ASSERT_EQ(client.readReply().data, number(kept));
    client.sendRaw(reinterpret_cast<const std::uint8_t*>(source.data()) + kept, source.size() - kept);
    EXPECT_EQ(client.readLong(), static_cast<std::int64_t>(source.size()) - kept);
    EXPECT_EQ(client.readString(), Digest::md5Hex(source.data(), source.size()));
}

using FaultTest = DaemonHome;

TEST_F(FaultTest, UploadResumesAfterTheServerWasKilledMidFile)
{
    writeSettings();
    const auto source = pattern(3 << 20);
    const auto path = (home.path() / "in/video.m4v").string();
    const auto partial = path + ".zandrel";
    {
        DaemonProcess daemon({"--no-discovery"});
        ASSERT_NE(daemon.port(), 0) << daemon.err("\n", 1s);
        auto client = daemon.connect();
        startUpload(*client, path, source);
        ASSERT_EQ(client->readReply().data, number(0));
        client->sendRaw(reinterpret_cast<const std::uint8_t*>(source.data()), 1300000);
        // Two chunks on disk, the third arriving.
        eventually([&] {
            std::error_code missing;
            return fs::file_size(partial, missing) >= 1024000 && !missing;
        }, 20s);
        daemon.kill();
    }
    const auto kept = static_cast<std::int64_t>(fs::file_size(partial));
    ASSERT_GE(kept, 1024000);
    EXPECT_FALSE(fs::exists(path));

    DaemonProcess daemon({"--no-discovery"});
    ASSERT_NE(daemon.port(), 0) << daemon.err("\n", 1s);
    resume(*daemon.connect(), path, source, kept);
    EXPECT_EQ(readFile(path), source);
}

TEST_F(FaultTest, FullDiskKeepsThePartialAndTheOldFileAndTheUploadResumesOnceThereIsRoom)
{
    writeSettings();
    // A 2 MiB disk of its own, seen only by the server, 1.2 MiB of it taken.
    const auto disk = home.path() / "disk";
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
    startUpload(*client, path, source);
    ASSERT_EQ(client->readReply().data, number(0));
    // The server stops reading half-way, so the send may be refused.
    std::thread sender([&client, &source] {
        try {
            client->sendRaw(reinterpret_cast<const std::uint8_t*>(source.data()), source.size());
        } catch (const std::exception&) {
        }
    });
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
    resume(*client, path, source, kept);
    EXPECT_EQ(readFile(seen / "song.mp3"), source);
    expectSessionAlive(*client);
}

} // namespace

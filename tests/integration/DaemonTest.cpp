// zandrel-syncd as a person runs it: a fresh $HOME gets the default settings
// file, the start line names the addresses, the port and the file, log lines
// go to standard error with --log-stderr, and SIGTERM ends it cleanly.

#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>

#include <fmt/format.h>

#include <gtest/gtest.h>

#include "integration/DaemonProcess.h"
#include "client/ProtocolClient.h"
#include "wire/BitHelper.h"
#include "wire/StreamIO.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using DaemonTest = DaemonHome;

TEST_F(DaemonTest, ServesLogsToStandardErrorAndEndsOnSigterm)
{
    writeSettings("<key>trace</key><true/>");
    ASSERT_TRUE(runIp({"addr", "add", "192.168.1.23/24", "dev", "lo"}));
    DaemonProcess d({"--log-stderr", "--no-discovery"});
    auto out = d.out("to keep one.\n");
    auto port = d.port();
    ASSERT_NE(port, 0) << out;
    const auto portText = std::to_string(port);
    EXPECT_NE(out.find("serving on port " + portText + " at 192.168.1.23 (settings: "
                  + (home.path() / kSettingsFile).string() + ")\n"),
        std::string::npos)
        << out;
    EXPECT_NE(out.find("port 0 in the settings is outside 1024-65535, so the system chose port " + portText + ";"),
        std::string::npos)
        << out;

    auto c = d.connect();
    c->sendCommand(17);
    EXPECT_EQ(c->readExact(19).back(), 1);
    c->close();

    auto err = d.err("Connection closed.\n");
    EXPECT_NE(err.find("Server started on port " + portText + "\n"), std::string::npos);
    EXPECT_NE(err.find("\nAdded connection.\nConnection from 127.0.0.1:"), std::string::npos) << err;
    EXPECT_NE(err.find(".\nCommand: 17, Len = 40\n"), std::string::npos) << err;
    EXPECT_NE(err.find("\nAuthenticated.\nStarting sync.\nConnection closed.\n"), std::string::npos) << err;
    EXPECT_EQ(d.terminate(), 0);
    EXPECT_NE(d.err("Stopped Echo server\n", 5s).find("Stopped Echo server\n"), std::string::npos);
}

TEST_F(DaemonTest, HardeningFlagsApplyToThisRunOnlyAndBadFlagsSayWhatToDo)
{
    auto file = writeSettings();
    DaemonProcess d({"--no-discovery", "--listen", "127.0.0.2", "--strict-identify", "--read-only", "--confine"});
    auto port = d.port();
    ASSERT_NE(port, 0);
    SyncClient c;
    c.connect("127.0.0.2", port);
    c.sendCommandWithPassword(14, "wrong");
    EXPECT_EQ(c.readExact(18), StreamIO::dataPacket(16, {}));
    EXPECT_THROW(SyncClient().connect("127.0.0.1", port, 2s), std::exception);
    EXPECT_EQ(d.terminate(), 0);
    EXPECT_EQ(readFile(file).find("listenAddress"), std::string::npos);

    for (auto [flags, says] : {std::pair<std::vector<std::string>, std::string>{{"--listen", "everywhere"},
                                   "--listen needs an IPv4 address"},
             {{"--listen", "127.0.0.1", "--listen", "127.0.0.2"}, "--listen is given twice (127.0.0.1 and 127.0.0.2)"},
             {{"--frobnicate"}, "unknown option '--frobnicate'"}}) {
        DaemonProcess bad(flags);
        EXPECT_EQ(bad.exitCode(), 2);
        EXPECT_EQ(bad.err(says, 5s).rfind("zandrel-syncd: " + says, 0), 0u) << bad.err("", 0s);
    }
}

// On loopback only the daemon says it is not discoverable, and binds nothing
// on the discovery port (its own namespace: nothing else runs there).
TEST_F(DaemonTest, ALoopbackListenAddressTurnsDiscoveryOffAndSaysSo)
{
    writeSettings();
    DaemonProcess d({"--listen", "127.0.0.1"});
    auto out = d.out("\n");
    EXPECT_NE(out.find("); discovery off: listening on 127.0.0.1 only\n"), std::string::npos) << out;
    // The discovery port, 31415, as /proc lists it.
    const auto udp = "/proc/" + std::to_string(d.pid()) + "/net/udp";
    bool bound = false;
    for (int check = 0; check < 10 && !bound; ++check, std::this_thread::sleep_for(100ms))
        bound = readFile(udp).find(":7AB7 ") != std::string::npos;
    EXPECT_FALSE(bound) << "the discovery port is bound";
    EXPECT_EQ(d.terminate(), 0);
}

TEST_F(DaemonTest, FreshOrUnwritableSettingsServeTheDefaultsAndSettingsThatCannotWorkStopIt)
{
    const auto file = home.path() / kSettingsFile;
    {
        // Written for a fresh home; start at login is the tray's alone.
        DaemonProcess d({"--no-discovery"});
        EXPECT_EQ(d.port(), 35000);
        EXPECT_NE(readFile(file).find("<key>hashword</key>"), std::string::npos);
        EXPECT_FALSE(fs::exists(home.path() / ".config/autostart/ZandrelSync.desktop"));
        // Port taken, address elsewhere: exit 78, which the unit does not restart on.
        for (auto [flags, says] : {std::pair<std::vector<std::string>, std::string>{{},
                                       "cannot listen on port 35000: another program"},
                 {{"--listen", "10.9.9.9"}, "10.9.9.9 is not an address of this machine"}}) {
            flags.push_back("--no-discovery");
            DaemonProcess failing(flags);
            EXPECT_EQ(failing.exitCode(), 78);
            EXPECT_EQ(failing.err(says, 5s).rfind("zandrel-syncd: " + says, 0), 0u) << failing.err("", 0s);
        }
        EXPECT_EQ(d.terminate(), 0);
    }
    home.write(kSettingsFile, "not a settings file<");
    {
        DaemonProcess d({"--no-discovery"});
        EXPECT_EQ(d.exitCode(), 78);
        EXPECT_EQ(d.err("not starting", 5s), "zandrel-syncd: cannot read the settings file " + file.string()
                                               + " (not a property list); not starting. Correct the file, or remove "
                                                 "it to start again with the default settings.\n");
        EXPECT_EQ(readFile(file), "not a settings file<");
    }
    // A home below a plain file cannot be made, not even by root.
    auto blocker = home.write("blocker", "");
    ::setenv("HOME", (blocker / "home").c_str(), 1);
    DaemonProcess d({"--no-discovery"});
    EXPECT_EQ(d.port(), 35000);
    auto err = d.err("writable", 5s);
    EXPECT_NE(err.find((blocker / "home" / kSettingsFile).string() + " could not be written"), std::string::npos)
        << err;
    EXPECT_NE(err.find("Make " + home.path().string() + " writable"), std::string::npos) << err;
    EXPECT_EQ(d.terminate(), 0);
}

// A phone deletes a folder and overwrites a file; from a terminal, with the
// server still running, `activity` lists both and `restore` brings both back
// byte for byte, the overwritten file's old content beside the new one.
TEST_F(DaemonTest, WhatAPhoneRemovedIsListedAndRestoredFromATerminal)
{
    writeSettings();
    const auto album = home.write("Music/album/1.mp3", "one").parent_path().string();
    home.write("Music/album/2.mp3", "two");
    const auto notes = home.write("Music/notes.txt", "old").string();
    DaemonProcess d({"--no-discovery", "--listen", "127.0.0.1"});
    ASSERT_NE(d.port(), 0);
    ProtocolClient phone;
    phone.connect("127.0.0.1", d.port());
    phone.setPassword("Sesamely");
    EXPECT_TRUE(phone.deleteFolders({album}));
    ProtocolClient::UploadHandler handler;
    handler.read = [](std::size_t, std::int64_t, std::uint8_t* buffer, std::size_t length) {
        std::copy_n("new", length, buffer);
        return length;
    };
    phone.uploadFiles({{notes, 3, 1, ""}}, false, handler);
    EXPECT_FALSE(fs::exists(album));

    auto run = [](std::vector<std::string> args, int expectedExit) {
        DaemonProcess command(std::move(args));
        // Everything it prints: it holds no NUL, so this reads to the end.
        auto out = command.out(std::string(1, '\0'), 5s);
        EXPECT_EQ(command.exitCode(), expectedExit) << out;
        return out;
    };
    std::string listed;
    for (int tries = 0; tries < 50 && listed.find("replaced") == std::string::npos; ++tries) {
        std::this_thread::sleep_for(100ms);
        listed = run({"activity"}, 0);
    }
    EXPECT_NE(listed.find("127.0.0.1  deleted folder  " + album + "  6 B  (kept)\n"), std::string::npos) << listed;
    EXPECT_NE(listed.find("127.0.0.1  replaced  " + notes + "  3 B  (kept)\n"), std::string::npos) << listed;

    auto restored = run({"restore", "--since", "-5m"}, 0);
    EXPECT_NE(restored.find(" " + notes + " as " + notes + " (restored)\n"), std::string::npos) << restored;
    EXPECT_NE(restored.find(" " + album + "\n"), std::string::npos) << restored;
    EXPECT_EQ(readFile(album + "/1.mp3") + readFile(album + "/2.mp3"), "onetwo");
    EXPECT_EQ(readFile(notes) + readFile(notes + " (restored)"), "newold");

    EXPECT_EQ(run({"restore", "--since", "-5m"}, 0),
        "Nothing to restore: no item kept in that time is still in the trash.\n");
    EXPECT_EQ(run({"restore", "999"}, 1), "Could not restore #999: no such entry\n");
    EXPECT_EQ(run({"activity", "--since", "soon"}, 2), "");
}

TEST_F(DaemonTest, SighupRereadsTheSettingsAndRestartsTheServer)
{
    const auto file = writeSettings();
    DaemonProcess d({"--no-discovery", "--listen", "0.0.0.0"});
    ASSERT_EQ(d.out("\n").find("0.0.0.0"), std::string::npos) << "every address, those phones can use";
    home.write(kSettingsFile, "broken<");
    ::kill(d.pid(), SIGHUP);
    EXPECT_NE(d.err("in use\n").find("zandrel-syncd: SIGHUP: cannot read the settings file"), std::string::npos);

    home.write(kSettingsFile, "<plist version=\"1.0\"><dict><key>port</key><integer>35123</integer></dict></plist>");
    ::kill(d.pid(), SIGHUP);
    const auto out = d.out("serving on port 35123");
    EXPECT_NE(out.find("SIGHUP: reading " + file.string() + " again and restarting the server\n"
                       "zandrel-syncd serving on port 35123 at "), std::string::npos) << out;
    EXPECT_EQ(d.terminate(), 0);
}

namespace {

struct Ran {
    int code;
    std::string out;
};

// zandrel-syncd run to its end, as a person runs status and devices.
Ran syncd(std::vector<std::string> args)
{
    DaemonProcess p(std::move(args));
    Ran ran;
    ran.out = p.out("\x01") + p.err("\x01", 2s);
    ran.code = p.exitCode();
    return ran;
}

Bytes downloadOf(const std::string& path)
{
    Bytes fields = BitHelper::encodeLongLong(1);
    fields += BitHelper::encodeString(path);
    fields += BitHelper::encodeLongLong(0);
    fields += BitHelper::encodeBool(false);
    return fields;
}

} // namespace

// A download that a slow phone is not reading stands still in the status,
// which names the file and how far it has come.
TEST_F(DaemonTest, StatusShowsTheDownloadUnderWayAndExitsThreeWithoutAServer)
{
    auto none = syncd({"status"});
    EXPECT_EQ(none.code, 3);
    EXPECT_NE(none.out.find("no server runs for this user"), std::string::npos) << none.out;

    writeSettings();
    const auto big = home.write("big.bin", std::string(40'000'000, 'z'));
    DaemonProcess d({"--no-discovery"});
    const auto port = d.port();
    ASSERT_NE(port, 0);
    auto c = d.connect();
    c->sendCommand(26, downloadOf(big.string()));
    Ran status{};
    for (int i = 0; i < 50 && status.out.find(big.string()) == std::string::npos; ++i) {
        std::this_thread::sleep_for(100ms);
        status = syncd({"status"});
    }
    EXPECT_EQ(status.code, 0);
    EXPECT_NE(status.out.find(fmt::format("Serving on port {} at ", port)), std::string::npos) << status.out;
    EXPECT_NE(status.out.find(fmt::format("(process {}, up ", d.pid())), std::string::npos) << status.out;
    EXPECT_NE(status.out.find("1 phone connected:\n  127.0.0.1:"), std::string::npos) << status.out;
    EXPECT_NE(status.out.find(": download " + big.string() + ", "), std::string::npos) << status.out;
    EXPECT_NE(status.out.find(" of 40.0 MB ("), std::string::npos) << status.out;

    auto json = syncd({"status", "--json"}).out;
    EXPECT_NE(json.find("\"running\":true,\"pid\":" + std::to_string(d.pid())), std::string::npos) << json;
    EXPECT_NE(json.find("\"command\":\"download\",\"file\":\"" + big.string() + "\",\"done\":"), std::string::npos)
        << json;
    EXPECT_NE(json.find(",\"total\":40000000,"), std::string::npos) << json;
    c->close();
    EXPECT_EQ(d.terminate(), 0);
}

// With admission "known" a phone not allowed is answered as a wrong password
// is, and the log says how to let it in; allowed, its next command is
// served; blocked, its session ends at once.
TEST_F(DaemonTest, KnownPhonesOnlyUntilAllowedAndBlockingEndsTheSession)
{
    writeSettings("<key>admission</key><string>known</string>");
    DaemonProcess d({"--no-discovery", "--log-stderr"});
    ASSERT_NE(d.port(), 0);
    Bytes refusedTwice = StreamIO::dataPacket(16, {});
    refusedTwice += StreamIO::dataPacket(16, {});
    auto c = d.connect();
    c->sendCommand(14);
    EXPECT_EQ(c->readExact(36), refusedTwice);
    const auto hint = d.err("devices allow 127.0.0.1\n");
    EXPECT_NE(hint.find("Held out the phone at 127.0.0.1: admission is \"known\" and it is not allowed. To let it in: "
                        "zandrel-syncd devices allow 127.0.0.1\n"),
        std::string::npos)
        << hint;

    auto allowed = syncd({"devices", "allow", "127.0.0.1", "--name", "Anna's phone"});
    EXPECT_EQ(allowed.code, 0);
    EXPECT_EQ(allowed.out, "Allowed 127.0.0.1.\n");
    c->sendCommand(17);
    EXPECT_EQ(c->readExact(19), StreamIO::dataPacket(17, BitHelper::encodeBool(true)));
    auto listed = syncd({"devices", "--json"}).out;
    EXPECT_NE(listed.find("{\"address\":\"127.0.0.1\",\"hardware\":\"\",\"name\":\"Anna's phone\",\"standing\":"
                          "\"allowed\""),
        std::string::npos)
        << listed;
    EXPECT_NE(listed.find("\"connected\":true}"), std::string::npos) << listed;

    auto blocked = syncd({"devices", "block", "127.0.0.1"});
    EXPECT_EQ(blocked.out, "Blocked 127.0.0.1; its 1 open session ended.\n");
    EXPECT_TRUE(c->waitForClose(5s));
    EXPECT_EQ(syncd({"devices", "forget", "127.0.0.1"}).out, "Forgot 127.0.0.1.\n");
    auto unknown = syncd({"devices", "forget", "127.0.0.1"});
    EXPECT_EQ(unknown.code, 1);
    EXPECT_EQ(syncd({"devices", "allow", "phone"}).code, 2);
    EXPECT_EQ(d.terminate(), 0);
}

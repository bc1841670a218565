// zandrel-syncd as a person runs it: a fresh $HOME gets the default settings
// file, the start line names the addresses, the port and the file, log lines
// go to standard error with --log-stderr, and SIGTERM ends it cleanly.

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "netns/Namespaces.h"
#include "client/SyncClient.h"
#include "wire/BitHelper.h"
#include "wire/StreamIO.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// The daemon as a child process with its standard output and error piped.
class Daemon {
public:
    explicit Daemon(std::vector<std::string> args)
    {
        int out[2], err[2];
        if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe");
        m_pid = ::fork();
        if (m_pid == 0) {
            ::dup2(out[1], 1);
            ::dup2(err[1], 2);
            std::vector<char*> argv{const_cast<char*>(ZANDREL_SYNCD)};
            for (auto& a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            ::execv(ZANDREL_SYNCD, argv.data());
            ::_exit(127);
        }
        ::close(out[1]);
        ::close(err[1]);
        m_out = out[0];
        m_err = err[0];
    }
    ~Daemon()
    {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
        ::close(m_out);
        ::close(m_err);
    }
    // Standard output or error as far as it has come once `text` appeared
    // or the time is up.
    std::string out(const std::string& text, std::chrono::milliseconds limit = 10s)
    {
        return readUntil(m_out, m_outText, text, limit);
    }
    std::string err(const std::string& text, std::chrono::milliseconds limit = 10s)
    {
        return readUntil(m_err, m_errText, text, limit);
    }
    int terminate()
    {
        ::kill(m_pid, SIGTERM);
        return exitCode();
    }
    int exitCode()
    {
        int status = 0;
        ::waitpid(m_pid, &status, 0);
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    static std::string& readUntil(int fd, std::string& buffer, const std::string& text, std::chrono::milliseconds limit)
    {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (buffer.find(text) == std::string::npos) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            pollfd p{fd, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0)
                break;
            char chunk[4096];
            auto n = ::read(fd, chunk, sizeof chunk);
            if (n <= 0)
                break;
            buffer.append(chunk, static_cast<std::size_t>(n));
        }
        return buffer;
    }

    pid_t m_pid = -1;
    int m_out = -1, m_err = -1;
    std::string m_outText, m_errText;
};

// Each test gets a network of its own, so daemons on the default port in
// tests that ctest runs side by side never meet.
class DaemonTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (auto why = isolateNetwork(); !why.empty())
            GTEST_SKIP() << "no private network for the daemon: " << why;
    }
};

std::uint16_t portFrom(const std::string& startLine)
{
    auto at = startLine.find("port ");
    return at == std::string::npos ? 0 : static_cast<std::uint16_t>(std::stoi(startLine.substr(at + 5)));
}

} // namespace

TEST_F(DaemonTest, FreshHomeGetsDefaultsAndTheServerAnswers)
{
    TempHome home;
    // Port 0 is out of range: the system chooses, so tests never collide.
    home.write("Library/Preferences/com.orvantics.ZandrelSync.plist",
        R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
        R"(<key>port</key><integer>0</integer><key>trace</key><true/></dict></plist>)");
    ASSERT_TRUE(runIp({"addr", "add", "192.168.1.23/24", "dev", "lo"}));
    Daemon d({"--log-stderr", "--no-discovery"});
    auto out = d.out("to keep one.\n");
    auto port = portFrom(out);
    ASSERT_NE(port, 0) << out;
    auto settingsFile = (home.path() / "Library/Preferences/com.orvantics.ZandrelSync.plist").string();
    const auto portText = std::to_string(port);
    EXPECT_NE(out.find("serving on port " + portText + " at 192.168.1.23 (settings: " + settingsFile + ")\n"),
        std::string::npos) << out;
    EXPECT_NE(out.find("port 0 in the settings is outside 1024-65535, so the system chose port " + portText + ";"),
        std::string::npos) << out;

    SyncClient c;
    c.connect("127.0.0.1", port);
    c.sendCommandWithPassword(17, SyncClient::hashPassword("Sesamely"));
    EXPECT_EQ(c.readExact(19).back(), 1);
    c.close();

    auto err = d.err("Connection closed.\n");
    EXPECT_NE(err.find("Server started on port " + std::to_string(port) + "\n"), std::string::npos);
    EXPECT_NE(err.find("\nAdded connection.\nCommand: 17, Len = 40\n"), std::string::npos) << err;
    EXPECT_NE(err.find("\nAuthenticated.\nStarting sync.\nConnection closed.\n"), std::string::npos) << err;
    EXPECT_EQ(d.terminate(), 0);
    EXPECT_NE(d.err("Stopped Echo server\n", 5s).find("Stopped Echo server\n"), std::string::npos);
}

TEST_F(DaemonTest, WritesTheDefaultSettingsFile)
{
    TempHome home;
    Daemon d({"--no-discovery"});
    auto out = d.out("\n");
    auto file = home.path() / "Library/Preferences/com.orvantics.ZandrelSync.plist";
    ASSERT_TRUE(fs::exists(file)) << out;
    EXPECT_NE(readFile(file).find("<key>hashword</key>"), std::string::npos);
    // Trace is off by default, so nothing was logged; the daemon never
    // touches login items.
    EXPECT_FALSE(fs::exists(home.path() / ".config/autostart/ZandrelSync.desktop"));
    d.terminate();
}

TEST_F(DaemonTest, BadFlagSaysWhatToDo)
{
    Daemon d({"--frobnicate"});
    auto err = d.err("--help", 5s);
    EXPECT_NE(err.find("unknown option '--frobnicate'"), std::string::npos);
    EXPECT_EQ(d.exitCode(), 2);
}

TEST_F(DaemonTest, HardeningFlagsApplyToThisRunOnly)
{
    TempHome home;
    auto file = home.write("Library/Preferences/com.orvantics.ZandrelSync.plist",
        R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
        R"(<key>port</key><integer>0</integer></dict></plist>)");
    Daemon d({"--no-discovery", "--listen", "127.0.0.2", "--strict-identify", "--read-only", "--confine"});
    auto port = portFrom(d.out("\n"));
    ASSERT_NE(port, 0);
    SyncClient c;
    c.connect("127.0.0.2", port);
    c.sendCommandWithPassword(14, "wrong");
    EXPECT_EQ(c.readExact(18), StreamIO::dataPacket(16, {}));
    EXPECT_THROW(SyncClient().connect("127.0.0.1", port, 2s), std::exception);
    EXPECT_EQ(d.terminate(), 0);
    EXPECT_EQ(readFile(file).find("listenAddress"), std::string::npos);

    Daemon bad({"--listen", "everywhere"});
    EXPECT_NE(bad.err("127.0.0.1", 5s).find("--listen needs an IPv4 address"), std::string::npos);
    EXPECT_EQ(bad.exitCode(), 2);
}

TEST_F(DaemonTest, BrokenSettingsFileIsNamedAndDefaultsServe)
{
    TempHome home;
    auto file = home.write("Library/Preferences/com.orvantics.ZandrelSync.plist", "not a settings file<");
    Daemon d({"--no-discovery"});
    auto out = d.out("\n");
    EXPECT_EQ(portFrom(out), 35000) << out;
    auto err = d.err("rewritten", 5s);
    EXPECT_NE(err.find("zandrel-syncd: Error reading plist: "), std::string::npos) << err;
    EXPECT_NE(err.find(file.string() + " could not be read"), std::string::npos) << err;
    EXPECT_EQ(readFile(file), "not a settings file<");
    EXPECT_EQ(d.terminate(), 0);
}

TEST_F(DaemonTest, UnwritableHomeIsSaidAndDefaultsServe)
{
    TempHome home;
    // A home below a plain file cannot be made, not even by root.
    auto blocker = home.write("blocker", "");
    ::setenv("HOME", (blocker / "home").c_str(), 1);
    Daemon d({"--no-discovery"});
    EXPECT_EQ(portFrom(d.out("\n")), 35000);
    auto err = d.err("writable", 5s);
    EXPECT_NE(err.find((blocker / "home/Library/Preferences/com.orvantics.ZandrelSync.plist").string()
                  + " could not be written"), std::string::npos) << err;
    EXPECT_NE(err.find("Make " + home.path().string() + " writable"), std::string::npos) << err;
    EXPECT_EQ(d.terminate(), 0);
}

#pragma once

#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/SyncClient.h"
#include "netns/Namespaces.h"
#include "TestSupport.h"

// zandrel-syncd as a child process with its standard output and error piped;
// `prefix` is a command that ends by running it (unshare ... sh -c ...).
// Killed when it goes, if still running.
class DaemonProcess {
public:
    explicit DaemonProcess(std::vector<std::string> args, std::vector<std::string> prefix = {})
    {
        int out[2], err[2];
        if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe");
        prefix.push_back(ZANDREL_SYNCD);
        prefix.insert(prefix.end(), args.begin(), args.end());
        m_pid = ::fork();
        if (m_pid == 0) {
            ::dup2(out[1], 1);
            ::dup2(err[1], 2);
            std::vector<char*> argv;
            for (auto& a : prefix)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            ::execvp(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(out[1]);
        ::close(err[1]);
        m_out = out[0];
        m_err = err[0];
    }
    ~DaemonProcess()
    {
        kill();
        ::close(m_out);
        ::close(m_err);
    }
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    // Standard output or error as far as it has come once `text` appeared
    // or the time is up.
    std::string out(const std::string& text, std::chrono::milliseconds limit = std::chrono::seconds(10))
    {
        return readUntil(m_out, m_outText, text, limit);
    }
    std::string err(const std::string& text, std::chrono::milliseconds limit = std::chrono::seconds(10))
    {
        return readUntil(m_err, m_errText, text, limit);
    }
    // The port of the start line; 0 when it did not start (err says why).
    std::uint16_t port()
    {
        const auto line = out("\n");
        const auto at = line.find("port ");
        return at == std::string::npos ? 0 : static_cast<std::uint16_t>(std::stoi(line.substr(at + 5)));
    }
    std::unique_ptr<SyncClient> connect()
    {
        auto client = std::make_unique<SyncClient>();
        client->connect("127.0.0.1", port());
        client->setPasswordHash(SyncClient::hashPassword("Sesamely"));
        client->setTimeout(std::chrono::seconds(20));
        return client;
    }
    pid_t pid() const { return m_pid; }
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
    void kill()
    {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
            m_pid = -1;
        }
    }

private:
    static std::string& readUntil(int fd, std::string& buffer, const std::string& text, std::chrono::milliseconds limit)
    {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (buffer.find(text) == std::string::npos) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            pollfd p{fd, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0)
                break;
            char chunk[4096];
            const auto n = ::read(fd, chunk, sizeof chunk);
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

// A home of its own in a network of its own, so daemons on the default port
// in tests that ctest runs side by side never meet.
class DaemonHome : public ::testing::Test {
protected:
    static constexpr const char* kSettingsFile = "Library/Preferences/com.orvantics.ZandrelSync.plist";

    void SetUp() override
    {
        if (auto why = isolateNetwork(); !why.empty())
            GTEST_SKIP() << "no private network for the daemon: " << why;
    }
    // Port 0 is out of range: the system chooses, so tests never collide.
    std::filesystem::path writeSettings(const std::string& moreKeys = "")
    {
        return home.write(kSettingsFile, R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
                                         R"(<key>port</key><integer>0</integer>)"
                + moreKeys + "</dict></plist>");
    }

    TempHome home;
};

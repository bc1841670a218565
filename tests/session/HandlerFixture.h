#pragma once

#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <poll.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "SessionTestHelpers.h"
#include "TestSupport.h"
#include "bridge/UIBridge.h"
#include "journal/Journal.h"
#include "journal/SessionActivity.h"
#include "session/FileSystemOps.h"
#include "session/FileTransfer.h"
#include "session/FolderQueries.h"
#include "settings/Settings.h"

// The handlers of one session on one end of a socket pair, and the phone on
// the other: no listener, no session loop, no TCP. A command runs on a
// thread of its own, as on a session thread, once its password is taken as
// read; the test writes its fields and reads the answers as a phone does.
class HandlerSession : private StreamLogger {
public:
    HandlerSession(const Settings& settings, const UIBridge& bridge) : m_settings(settings), m_bridge(bridge) {}
    ~HandlerSession() override
    {
        phone.close(); // a command still waiting for the phone fails
        if (m_thread.joinable())
            m_thread.join();
    }

    // Sends `fields` and starts `command` (one handler call).
    void start(std::function<void()> command, const Bytes& fields = {})
    {
        if (m_thread.joinable())
            m_thread.join();
        phone.sendRaw(fields);
        m_failure = nullptr;
        m_thread = std::thread([this, command = std::move(command)] {
            try {
                command();
            } catch (...) {
                // A failed command ends its session, which closes the connection.
                m_failure = std::current_exception();
                m_streams.input->close();
                m_streams.output->close();
            }
        });
    }

    // The command returned, took every field sent and wrote nothing more
    // than what was read, so the session would go on with the next command.
    void expectAnswered()
    {
        EXPECT_FALSE(failed()) << "the command failed";
        pollfd unread[] = {{m_streams.input->fd(), POLLIN, 0}, {phone.fd(), POLLIN, 0}};
        ASSERT_GE(::poll(unread, 2, 0), 0);
        EXPECT_FALSE(unread[0].revents & POLLIN) << "fields left unread";
        EXPECT_FALSE(unread[1].revents & POLLIN) << "more answered than expected";
    }

    // The command's error packet, then the failure that ends the session.
    void expectFailure(std::uint8_t code, const std::string& reason)
    {
        SessionTest::expectNext(phone, StreamIO::errorPacket(code, reason));
        EXPECT_TRUE(phone.waitForClose(std::chrono::seconds(5)));
        EXPECT_TRUE(failed()) << "the command did not fail";
    }

    // Waits for the command to end however it ends; true when it failed.
    bool failed()
    {
        m_thread.join();
        return static_cast<bool>(m_failure);
    }

    SyncClient phone;

private:
    static StreamPair openPair(SyncClient& phone)
    {
        int fds[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
            throw std::runtime_error("no socket pair");
        phone.adopt(fds[1]);
        phone.setTimeout(std::chrono::seconds(20));
        auto streams = makeStreamPair(fds[0]);
        streams.input->open();
        streams.output->open();
        return streams;
    }

    void logInfo(const std::string& message) override { m_bridge.logInfo(message); }
    void logMessage(const std::string& message) override { m_bridge.logMessage(message); }
    void logError(const std::string& message) override { m_bridge.logError(message); }
    bool verbose() const override { return m_settings.getVerbose(); }

    const Settings& m_settings;
    const UIBridge& m_bridge;
    std::atomic<bool> m_answerable{true};
    StreamPair m_streams = openPair(phone);
    StreamIO m_io{*m_streams.input, *m_streams.output, *this};
    Peer m_peer{"127.0.0.1", 50000};
    SessionActivity m_activity{Journal::shared(), m_settings, m_peer.address};
    SessionWork m_work{m_peer};
    SessionContext m_context{
        m_io, *m_streams.input, m_settings, m_bridge, m_answerable, m_peer, m_activity, m_work};
    std::thread m_thread;
    std::exception_ptr m_failure;

public:
    FolderQueries folders{m_context};
    FileTransfer transfers{m_context};
    FileSystemOps fileOps{m_context};
};

// A temporary $HOME, settings with logging on, a captured log, and one
// session's handlers; more sessions on demand.
class HandlerTest : public ::testing::Test {
protected:
    HandlerTest() { settings->setTrace(true); }

    std::unique_ptr<HandlerSession> newSession() { return std::make_unique<HandlerSession>(*settings, *bridge); }
    std::filesystem::path at(const std::string& relative) const { return home.path() / relative; }
    SyncClient& phone() { return session->phone; }

    TempHome home;
    CapturedLog log;
    std::shared_ptr<Settings> settings = std::make_shared<Settings>(Settings::NoLoginItems{});
    std::shared_ptr<UIBridge> bridge = std::make_shared<UIBridge>(settings);
    std::unique_ptr<HandlerSession> session = newSession();
};

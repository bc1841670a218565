#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "TestSupport.h"
#include "server/App.h"
#include "client/SyncClient.h"
#include "settings/Settings.h"

class Doorkeeper;
class ProtocolClient;

// A real server on 127.0.0.1 with a system-chosen port, in a temporary
// $HOME, logging (trace on) into a capturing sink; discovery is off; the
// doorkeeper the front ends install decides who comes in.
class LoopbackServer {
public:
    explicit LoopbackServer(bool start = true);
    // App::stop waits for the sessions, so none outlives the home folder and
    // the log sink.
    ~LoopbackServer() { stop(); }

    void start();
    void stop() { m_app->stop(); }
    std::uint16_t port() const { return m_port; }
    Settings& settings() { return *m_settings; }
    App& app() { return *m_app; }
    TempHome& home() { return m_home; }
    CapturedLog& log() { return m_log; }
    // Who may come in (admission "everyone" until the settings say otherwise).
    Doorkeeper& doorkeeper() { return *m_doorkeeper; }

    // A connected client that sends the right password hash.
    std::unique_ptr<SyncClient> connect();
    // Connects a typed client the same way.
    void attach(ProtocolClient& client);
    // The password hash the server expects.
    std::string hash() const { return m_settings->getHashedPassword(); }

private:
    TempHome m_home;
    CapturedLog m_log;
    std::shared_ptr<Settings> m_settings;
    std::unique_ptr<App> m_app;
    std::shared_ptr<Doorkeeper> m_doorkeeper;
    std::uint16_t m_port = 0;
};

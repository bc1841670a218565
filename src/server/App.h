#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

class Admission;
class Journal;
class Broadcaster;
class ProgressView;
class Settings;
class SocketListener;
class UIBridge;

// The server as a whole: start runs a server thread that makes the
// broadcaster and the listener, listens, logs the start-up lines and turns
// the run loop that accepts connections and fires session timers; stop ends
// it. start and stop are called on one thread (the main thread).
class App {
public:
    explicit App(std::shared_ptr<Settings> settings);
    ~App();
    App(const App&) = delete;
    App& operator=(const App&) = delete;

    void start();
    void stop();
    void addSettingsDialog(std::shared_ptr<ProgressView> dialog);

    // Blocks until the server thread has reached "running" (or the time
    // runs out); returns the port it listens on, 0 when listening failed.
    std::optional<std::uint16_t> waitUntilRunning(std::chrono::milliseconds timeout);
    bool isRunning() const { return m_isRunning; }
    // When off, the broadcaster is made but never started (daemon --no-discovery).
    void setDiscoveryEnabled(bool enabled) { m_discovery = enabled; }
    // True when the settings' listen address keeps discovery off whatever
    // the switch says: a server on loopback only is announced to nobody.
    static bool discoveryOffFor(const Settings& settings);
    // How long each connection lives (360 s); only tests shorten it. Takes
    // effect at the next start.
    void setSessionLifetime(std::chrono::milliseconds lifetime) { m_sessionLifetime = lifetime; }

    // Who may be served, asked by every session before each command; null
    // (the default) serves everyone. Sessions started later use it.
    void setAdmission(std::shared_ptr<Admission> admission);

    std::shared_ptr<UIBridge> uiBridge() const { return m_uiBridge; }
    std::shared_ptr<Settings> settings() const { return m_settings; }
    std::shared_ptr<SocketListener> listener() const;
    std::shared_ptr<ProgressView> settingsDialog() const;

    // Where the process's log lines go: the system log (the default) or
    // standard error, the bare message and a newline. Front ends choose
    // before they start anything.
    static void logToStandardError(bool toStandardError);

private:
    void serverThread();
    void purgeKeptItems();

    std::shared_ptr<Settings> m_settings;
    std::shared_ptr<UIBridge> m_uiBridge;
    std::shared_ptr<ProgressView> m_settingsDialog;
    std::atomic<bool> m_isRunning{false};
    std::atomic<bool> m_discovery{true};
    std::atomic<bool> m_starting{false};
    std::chrono::milliseconds m_sessionLifetime;

    // Guards the two pointers below and the running signal.
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::shared_ptr<SocketListener> m_listener;
    std::shared_ptr<Broadcaster> m_broadcaster;
    std::shared_ptr<Admission> m_admission;
    std::optional<std::uint16_t> m_listeningPort;
    std::thread m_serverThread;
    // The journal this run writes to (purged at start and hourly); under m_mutex.
    std::shared_ptr<Journal> m_journal;
};

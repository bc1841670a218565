#include "server/App.h"

#include <thread>

#include <fmt/format.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>

#include "journal/Journal.h"
#include "log/SystemLog.h"
#include "settings/Settings.h"
#include "bridge/UIBridge.h"
#include "discovery/Broadcaster.h"
#include "server/SocketListener.h"

App::App(std::shared_ptr<Settings> settings)
    : m_settings(std::move(settings))
    , m_uiBridge(std::make_shared<UIBridge>(m_settings))
    , m_sessionLifetime(SocketServer::kLifetime)
{
}

App::~App()
{
    stop();
    if (m_serverThread.joinable())
        m_serverThread.join();
}

void App::start()
{
    // A second start while the first is still coming up would make a second
    // server thread fighting over the port; it is ignored instead.
    if (m_isRunning || m_starting.exchange(true))
        return;
    // A previous server thread has finished its run by now (stop waited for
    // it); collect it before starting the next.
    if (m_serverThread.joinable())
        m_serverThread.join();
    purgeKeptItems();
    m_serverThread = std::thread([this] { serverThread(); });
}

void App::purgeKeptItems()
{
    // Now and hourly, on the journal's own thread, with the limits the
    // settings hold at that time.
    std::weak_ptr<Settings> settings = m_settings;
    auto journal = Journal::shared();
    {
        std::lock_guard lock(m_mutex);
        m_journal = journal;
    }
    journal->purgeEvery(std::chrono::hours(1), [settings] {
        KeepLimits limits;
        if (auto current = settings.lock())
            limits = {current->getKeepDays(), current->getKeepPercent()};
        return limits;
    });
}

void App::serverThread()
{
    auto loop = std::make_shared<asio::io_context>(1);
    auto work = asio::make_work_guard(*loop);

    auto broadcaster = std::make_shared<Broadcaster>(m_settings, m_uiBridge);
    auto listener = std::make_shared<SocketListener>(m_settings, m_uiBridge, m_sessionLifetime);
    {
        std::lock_guard lock(m_mutex);
        listener->setAdmission(m_admission);
        m_broadcaster = broadcaster;
        m_listener = listener;
    }

    // 1024..65535 as given; anything else lets the system choose.
    auto port = m_settings->getPort();
    bool inRange = static_cast<std::uint32_t>(port - 1024) < 64512u;
    listener->setPort(inRange ? static_cast<std::uint16_t>(port) : 0);
    listener->setAddress(m_settings->getListenAddress());

    std::optional<TCPServerError> error;
    bool listening = listener->start(&error, loop);
    if (listening)
        m_uiBridge->logInfo(fmt::format("Starting server on port {}", listener->port()));
    else
        m_uiBridge->logError(fmt::format("Error starting server: {}", error ? error->description() : "(null)"));
    // Both lines come even when listening failed.
    // kept: see docs/protocol.md (start lines after a failed listen)
    m_uiBridge->logInfo(fmt::format("Server started on port {}", listener->port()));
    m_uiBridge->logInfo(m_settings->getIdentifier());

    {
        std::lock_guard lock(m_mutex);
        m_listeningPort = listening ? listener->port() : 0;
        m_isRunning = true;
        m_starting = false;
    }
    m_changed.notify_all();
    if (m_discovery)
        broadcaster->startBroadcasting();

    // With no listening socket the loop has nothing to serve and returns at
    // once, as an empty run loop does.
    if (listening)
        loop->run();

    // Wait for stop to finish its work before the loop goes away.
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_isRunning; });
}

void App::stop()
{
    // A server still coming up is let up first, so that a stop right after
    // a start (a quick save, a quick quit) never leaves it running.
    if (m_starting)
        waitUntilRunning(std::chrono::seconds(30));
    if (!m_isRunning)
        return;
    std::shared_ptr<SocketListener> listener;
    std::shared_ptr<Broadcaster> broadcaster;
    {
        std::lock_guard lock(m_mutex);
        listener = m_listener;
        broadcaster = m_broadcaster;
    }
    broadcaster->stopBroadcasting();
    listener->stop();
    listener->shutdown();
    {
        std::lock_guard lock(m_mutex);
        m_listener.reset();
        m_broadcaster.reset();
    }
    listener.reset();
    broadcaster.reset();
    // The sessions' last entries are in the file when stop returns, and no
    // purge is left running behind the front end's back.
    std::shared_ptr<Journal> journal;
    {
        std::lock_guard lock(m_mutex);
        journal = m_journal;
    }
    if (journal)
        journal->flush();
    m_uiBridge->logInfo("Stopped Echo server");
    {
        std::lock_guard lock(m_mutex);
        m_isRunning = false;
        m_listeningPort.reset();
    }
    m_changed.notify_all();
    if (m_serverThread.joinable())
        m_serverThread.join();
}

bool App::discoveryOffFor(const Settings& settings)
{
    return Broadcaster::staysSilent(settings.getListenAddress());
}

std::optional<std::uint16_t> App::waitUntilRunning(std::chrono::milliseconds timeout)
{
    std::unique_lock lock(m_mutex);
    if (!m_changed.wait_for(lock, timeout, [this] { return m_listeningPort.has_value(); }))
        return std::nullopt;
    return m_listeningPort;
}

void App::addSettingsDialog(std::shared_ptr<ProgressView> dialog)
{
    {
        std::lock_guard lock(m_mutex);
        m_settingsDialog = dialog;
    }
    m_uiBridge->setSettingsDialog(std::move(dialog));
}

std::shared_ptr<SocketListener> App::listener() const
{
    std::lock_guard lock(m_mutex);
    return m_listener;
}

std::shared_ptr<ProgressView> App::settingsDialog() const
{
    std::lock_guard lock(m_mutex);
    return m_settingsDialog;
}

void App::logToStandardError(bool toStandardError)
{
    SystemLog::setSink(toStandardError ? std::make_shared<StderrSink>() : nullptr);
}

void App::setAdmission(std::shared_ptr<Admission> admission)
{
    std::lock_guard lock(m_mutex);
    m_admission = std::move(admission);
    if (m_listener)
        m_listener->setAdmission(m_admission);
}

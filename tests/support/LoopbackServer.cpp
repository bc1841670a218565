#include "LoopbackServer.h"

#include <chrono>

#include "client/ProtocolClient.h"
#include "journal/Journal.h"
#include "server/DeviceBook.h"
#include "server/Doorkeeper.h"

LoopbackServer::LoopbackServer(bool startNow)
{
    m_settings = std::make_shared<Settings>(Settings::NoLoginItems{});
    m_settings->setTrace(true);
    m_settings->setPort(0); // out of range: the system chooses a free port
    m_app = std::make_unique<App>(m_settings);
    m_app->setDiscoveryEnabled(false);
    // As the daemon and the tray run it: with admission "everyone" every
    // session test shows the doorkeeper changes no byte.
    m_doorkeeper = std::make_shared<Doorkeeper>(m_settings, m_app->uiBridge(), DeviceBook::open());
    m_app->setAdmission(m_doorkeeper);
    if (startNow)
        start();
}

void LoopbackServer::start()
{
    m_app->start();
    auto port = m_app->waitUntilRunning(std::chrono::seconds(10));
    if (!port || *port == 0)
        throw std::runtime_error("the test server did not start");
    m_port = *port;
    // The journal opens its file and purges on its own thread at start; a
    // test counts descriptors and log lines from a settled server.
    Journal::shared()->flush();
}

std::unique_ptr<SyncClient> LoopbackServer::connect()
{
    auto client = std::make_unique<SyncClient>();
    client->connect("127.0.0.1", m_port);
    client->setPasswordHash(hash());
    client->setTimeout(std::chrono::seconds(20));
    return client;
}

void LoopbackServer::attach(ProtocolClient& client)
{
    client.connect("127.0.0.1", m_port);
    client.setPasswordHash(hash());
    client.setTimeout(std::chrono::seconds(20));
}

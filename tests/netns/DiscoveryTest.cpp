// Discovery between two hosts: the server on the desktop namespace, the
// phone's side in a second namespace across a veth pair. Both ends use UDP
// port 31415, which is why one host is not enough.

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <sys/socket.h>

#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include "bridge/UIBridge.h"
#include "discovery/Broadcaster.h"
#include "netns/Namespaces.h"
#include "settings/Settings.h"
#include "wire/Protocol.h"

using namespace std::chrono_literals;

namespace {

const std::string kQuery("ZandrelSync\0", 12);

class DiscoveryBetweenHosts : public ::testing::Test {
protected:
    void SetUp() override
    {
        const std::string why = m_hosts.make();
        if (!why.empty())
            GTEST_SKIP() << "two-host discovery tests need network namespaces: " << why;
        m_settings = std::make_shared<Settings>(Settings::NoLoginItems{});
        m_settings->setTrace(true);
        m_phonePort = m_hosts.phoneSocket();
        ASSERT_TRUE(bindReceiver(m_phonePort.get(), "0.0.0.0", Protocol::kDiscoveryPort));
    }

    void start()
    {
        m_broadcaster = std::make_unique<Broadcaster>(m_settings, std::make_shared<UIBridge>(m_settings));
        m_broadcaster->startBroadcasting();
    }

    // Sends the datagram to the query group from the phone's address `from`
    // until `done` holds: the answering thread may not be listening yet.
    bool queryUntil(const std::string& payload, const std::function<bool()>& done, const char* from = "0.0.0.0")
    {
        Fd sender = m_hosts.phoneSocket();
        if (!bindReceiver(sender.get(), from, 0))
            return false;
        for (int attempt = 0; attempt < 50; ++attempt) {
            sendDatagram(sender.get(), payload, Protocol::kQueryGroup, Protocol::kDiscoveryPort);
            if (done())
                return true;
        }
        return false;
    }
    std::optional<Datagram> queryUntilAnswered(const std::string& payload, const char* from = "0.0.0.0")
    {
        std::optional<Datagram> answer;
        queryUntil(payload, [&] { return (answer = receive(m_phonePort.get(), 100ms)).has_value(); }, from);
        return answer;
    }

    TwoHosts m_hosts;
    TempHome m_home;
    CapturedLog m_log;
    std::shared_ptr<Settings> m_settings;
    std::unique_ptr<Broadcaster> m_broadcaster;
    Fd m_phonePort;
};

TEST_F(DiscoveryBetweenHosts, QueryIsAnsweredByUnicastToTheSendersPort)
{
    start();
    auto answer = queryUntilAnswered(kQuery);
    ASSERT_TRUE(answer) << "no answer to the query";
    EXPECT_EQ(answer->payload, m_settings->getIdentifier());
    EXPECT_EQ(answer->from, TwoHosts::kDesktop);
    EXPECT_EQ(answer->to, TwoHosts::kPhone);
    // 10.77.0.2 read as little-endian bytes: 0x02004D0A.
    EXPECT_TRUE(m_log.waitFor("Received ZandrelSync from 33574154"));
    EXPECT_TRUE(m_log.waitFor("Tier 2 connect"));

    // Bytes after the zero are ignored; the answer goes to whichever address
    // asked, and 10.77.0.130 (0x82004D0A) is logged as a signed number.
    answer = queryUntilAnswered(kQuery + "ignored after the zero", TwoHosts::kPhoneHigh);
    ASSERT_TRUE(answer) << "no answer to the second query";
    EXPECT_EQ(answer->payload, m_settings->getIdentifier());
    EXPECT_EQ(answer->to, TwoHosts::kPhoneHigh);
    EXPECT_TRUE(m_log.waitFor("Received ZandrelSync from -2113909494"));
}

TEST_F(DiscoveryBetweenHosts, OtherDatagramsAreFalseAlarmsInTheSystemLogOnly)
{
    // With trace off the bridge writes nothing, so any line seen here was
    // written to the system log directly.
    m_settings->setTrace(false);
    m_log.sink().clear();
    start();
    auto logged = [&](const std::string& payload, const std::string& line) {
        return queryUntil(payload, [&] { return m_log.waitFor(line, 100); });
    };
    ASSERT_TRUE(logged("ZandrelSyncX", "False alarm tier 2 connect of ZandrelSyncX"));
    // Only the first 12 bytes count.
    ASSERT_TRUE(logged("Hello, phone here", "False alarm tier 2 connect of Hello, phone"));
    EXPECT_FALSE(receive(m_phonePort.get(), 200ms)) << "a false alarm was answered";
    for (const auto& line : m_log.lines())
        EXPECT_EQ(line.rfind("False alarm tier 2 connect of ", 0), 0u) << line;
}

TEST_F(DiscoveryBetweenHosts, AnnouncementReachesThePhonesGroupAtOnce)
{
    ASSERT_TRUE(joinGroup(m_phonePort.get(), Protocol::kAnnounceGroup));
    start();
    auto announcement = receive(m_phonePort.get(), 3s);
    ASSERT_TRUE(announcement) << "no announcement";
    EXPECT_EQ(announcement->payload, m_settings->getIdentifier());
    EXPECT_EQ(announcement->from, TwoHosts::kDesktop);
    EXPECT_EQ(announcement->to, "225.3.1.4");
    EXPECT_EQ(announcement->ttl, 32);
}

TEST_F(DiscoveryBetweenHosts, AfterAQuietWaitQueriesAreNoLongerRead)
{
    start();
    ASSERT_TRUE(queryUntilAnswered(kQuery)) << "no answer to the first query";
    // Let one wait of the answering thread end without a datagram: answers to
    // queries sent while retrying may still trickle in, so the 5-second quiet
    // spell is counted from the last of them.
    while (receive(m_phonePort.get(), 6s)) {
    }
    m_log.sink().clear();
    Fd sender = m_hosts.phoneSocket();
    for (int attempt = 0; attempt < 10; ++attempt) {
        sendDatagram(sender.get(), kQuery, Protocol::kQueryGroup, Protocol::kDiscoveryPort);
        EXPECT_FALSE(receive(m_phonePort.get(), 100ms)) << "a query was still read after the quiet wait";
    }
    EXPECT_FALSE(m_log.contains("Tier 2 connect"));
}

// Listening on loopback only, the server is out of every phone's reach:
// nothing is announced, no query answered, nothing bound on the discovery
// port. Listening on one other address, announcements and answers name that
// address alone, though the desktop has two.
TEST_F(DiscoveryBetweenHosts, ALoopbackServerIsNotAnnouncedAndAnotherSingleAddressIsAnnouncedAlone)
{
    ASSERT_TRUE(runIp({"addr", "add", "10.77.9.9/24", "dev", "lo"}));
    ASSERT_TRUE(joinGroup(m_phonePort.get(), Protocol::kAnnounceGroup));
    m_settings->setListenAddress("127.0.0.1");
    start();
    Fd sender = m_hosts.phoneSocket();
    int heard = 0;
    for (int attempt = 0; attempt < 10; ++attempt) {
        sendDatagram(sender.get(), kQuery, Protocol::kQueryGroup, Protocol::kDiscoveryPort);
        heard += receive(m_phonePort.get(), 100ms) ? 1 : 0;
    }
    EXPECT_EQ(heard, 0) << "a loopback server was announced or answered for";
    Fd port(::socket(AF_INET, SOCK_DGRAM, 0));
    EXPECT_TRUE(bindReceiver(port.get(), "0.0.0.0", Protocol::kDiscoveryPort)) << "the discovery port is bound";
    m_broadcaster.reset();

    m_settings->setListenAddress("");
    ASSERT_NE(m_settings->getIdentifier().find("10.77.9.9"), std::string::npos);
    m_settings->setListenAddress(TwoHosts::kDesktop);
    const std::string identifier = m_settings->getIdentifier();
    EXPECT_NE(identifier.find(std::string(":") + TwoHosts::kDesktop + ":"), std::string::npos) << identifier;
    EXPECT_EQ(identifier.find("10.77.9.9"), std::string::npos) << identifier;
    port = Fd();
    start();
    auto announcement = receive(m_phonePort.get(), 3s);
    ASSERT_TRUE(announcement) << "no announcement";
    EXPECT_EQ(announcement->payload, identifier);
    auto answer = queryUntilAnswered(kQuery);
    ASSERT_TRUE(answer) << "no answer";
    EXPECT_EQ(answer->payload, identifier);
    EXPECT_EQ(answer->to, TwoHosts::kPhone);
}

} // namespace

// The broadcaster on one host: stopping, the identifier's size limit and the
// lines logged when the network refuses. Each test runs in a private network
// namespace of its own (lo only) and is skipped where none can be made.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <iterator>
#include <string>
#include <vector>

#include <netinet/in.h>
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

class BroadcasterTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const std::string why = isolateNetwork();
        if (!why.empty())
            GTEST_SKIP() << "broadcaster tests send datagrams only inside a private network namespace: " << why;
        m_settings = std::make_shared<Settings>(Settings::NoLoginItems{});
        m_settings->setTrace(true);
        m_bridge = std::make_shared<UIBridge>(m_settings);
        m_log.sink().clear();
    }

    std::unique_ptr<Broadcaster> started()
    {
        auto b = std::make_unique<Broadcaster>(m_settings, m_bridge);
        b->startBroadcasting();
        return b;
    }

    // A socket on port 31415 that hears the announcement group on lo.
    Fd listener()
    {
        Fd sock(::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
        EXPECT_TRUE(bindReceiver(sock.get(), "0.0.0.0", Protocol::kDiscoveryPort));
        EXPECT_TRUE(joinGroup(sock.get(), Protocol::kAnnounceGroup));
        return sock;
    }

    // Makes the identifier exactly `size` bytes long through the version label.
    void setIdentifierSize(std::size_t size)
    {
        m_settings->setVersion("");
        const std::size_t rest = m_settings->getIdentifier().size();
        ASSERT_LT(rest, size);
        m_settings->setVersion(std::string(size - rest, 'v'));
        ASSERT_EQ(m_settings->getIdentifier().size(), size);
    }

    static bool stopsWithin(Broadcaster& b, std::chrono::seconds limit)
    {
        auto stopped = std::async(std::launch::async, [&b] { b.stopBroadcasting(); });
        return stopped.wait_for(limit) == std::future_status::ready;
    }

    TempHome m_home;
    CapturedLog m_log;
    std::shared_ptr<Settings> m_settings;
    std::shared_ptr<UIBridge> m_bridge;
};

TEST_F(BroadcasterTest, StopRightAfterStartReturnsAtOnceAndAnIdentifierOver999BytesIsAnError)
{
    // Destroyed at once too: threads that start only now must not outlive it.
    EXPECT_TRUE(stopsWithin(*started(), 2s));

    Fd sock = listener();
    setIdentifierSize(1000);
    auto b = started();
    EXPECT_TRUE(m_log.waitFor("Error creating identifier string"));
    EXPECT_FALSE(receive(sock.get(), 200ms)) << "an identifier too long was sent";
}

TEST_F(BroadcasterTest, BusyPortIsRetriedWhileAnnouncementsGoOnAndStopCutsThePauseShort)
{
    // Holding port 31415 (no address reuse on either side) keeps the
    // answering thread from binding.
    Fd sock = listener();
    setIdentifierSize(999);
    auto b = started();
    EXPECT_TRUE(m_log.waitFor("Broadcast exception in threadproc2: bind() failed in threadproc2."));
    auto announcement = receive(sock.get(), 3s);
    ASSERT_TRUE(announcement) << "no announcement while the answering thread waits to retry";
    EXPECT_EQ(announcement->payload, m_settings->getIdentifier());
    EXPECT_TRUE(stopsWithin(*b, 2s)) << "stop sat out the 20-second retry pause";
}

TEST_F(BroadcasterTest, WithoutAMulticastRouteTheFailedSendAndJoinAreLogged)
{
    ASSERT_TRUE(runIp({"route", "del", "224.0.0.0/4", "dev", "lo"}));
    const auto length = m_settings->getIdentifier().size();
    auto b = started();
    ASSERT_TRUE(m_log.waitFor("Errno = " + std::to_string(ENETUNREACH)));
    EXPECT_TRUE(m_log.waitFor("Broadcast exception in threadproc2: Couldn't join multicast group"));
    b.reset();

    const auto lines = m_log.lines();
    auto first = std::find(lines.begin(), lines.end(), "Could not sendto 225.3.1.4");
    ASSERT_NE(first, lines.end());
    // The other thread's line may come between; the three keep their order.
    std::vector<std::string> own;
    std::copy_if(first, lines.end(), std::back_inserter(own),
                 [](const std::string& l) { return l.rfind("Broadcast exception", 0) != 0; });
    ASSERT_GE(own.size(), 3u);
    EXPECT_EQ(own[1], "amountSent = -1 len = " + std::to_string(length));
    EXPECT_EQ(own[2], "Errno = " + std::to_string(ENETUNREACH));
}

} // namespace

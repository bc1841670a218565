// Discovery from the phone's side of a veth pair, the real broadcaster on the
// desktop's: both ends need UDP port 31415.

#include <chrono>
#include <memory>
#include <string>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bridge/UIBridge.h"
#include "client/ClientErrors.h"
#include "client/Discovery.h"
#include "discovery/Broadcaster.h"
#include "netns/Namespaces.h"
#include "settings/Settings.h"
#include "support/TestSupport.h"

using namespace std::chrono_literals;

namespace {

class DiscoveryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const std::string why = m_hosts.make();
        if (!why.empty())
            GTEST_SKIP() << "discovery tests need network namespaces: " << why;
        m_settings = std::make_shared<Settings>(Settings::NoLoginItems{});
        m_settings->setPort(35123);
        m_broadcaster = std::make_unique<Broadcaster>(m_settings, std::make_shared<UIBridge>(m_settings));
        m_broadcaster->startBroadcasting();
    }

    // Options whose socket lives on the phone, listening or asking.
    Discovery::Options phoneOptions(bool listen)
    {
        Discovery::Options options;
        options.listenForAnnouncements = listen;
        options.sendQuery = !listen;
        options.timeout = 15s;
        options.stopAfter = 1;
        options.queryInterval = 200ms;
        options.makeSocket = [this] {
            Fd socket = m_hosts.phoneSocket();
            return socket.valid() ? ::dup(socket.get()) : -1;
        };
        return options;
    }

    TwoHosts m_hosts;
    TempHome m_home;
    std::shared_ptr<Settings> m_settings;
    std::unique_ptr<Broadcaster> m_broadcaster;
};

// The query goes first: the server stops reading queries after its first
// quiet wait of 5 seconds, and the phone asks again every 200 ms from the
// moment the broadcaster is up. Each step waits for its datagram, not for
// a time; the time-outs only bound a failure.
TEST_F(DiscoveryTest, FindsTheServerByAnnouncementAndByQuery)
{
    auto found = Discovery(phoneOptions(false)).run();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].from, TwoHosts::kDesktop);
    EXPECT_EQ(found[0].identity.port, 35123);
    EXPECT_TRUE(found[0].identity.acceptsHash(m_settings->getHashedPassword()));

    found = Discovery(phoneOptions(true)).run();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].identity.raw, m_settings->getIdentifier());

    // The answering thread holds the port (it has answered): discovering on
    // the desktop is refused plainly.
    Discovery::Options onDesktop;
    onDesktop.timeout = 100ms;
    try {
        Discovery(onDesktop).run();
        FAIL() << "the port was free";
    } catch (const ClientError& e) {
        EXPECT_THAT(e.what(), ::testing::HasSubstr("in use"));
    }
}

} // namespace

// Discovery from the phone's side of a veth pair, with the real broadcaster
// on the desktop's side: both ends need UDP port 31415, so one host is not
// enough.

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
        m_bridge = std::make_shared<UIBridge>(m_settings);
        m_broadcaster = std::make_unique<Broadcaster>(m_settings, m_bridge);
        m_broadcaster->startBroadcasting();
    }

    // Options whose socket lives on the phone.
    Discovery::Options phoneOptions()
    {
        Discovery::Options options;
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
    std::shared_ptr<UIBridge> m_bridge;
    std::unique_ptr<Broadcaster> m_broadcaster;
};

TEST_F(DiscoveryTest, FindsTheServerByAnnouncementAndByQuery)
{
    auto options = phoneOptions();
    options.sendQuery = false;
    auto found = Discovery(options).run();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].identity.raw, m_settings->getIdentifier());

    options = phoneOptions();
    options.listenForAnnouncements = false;
    found = Discovery(options).run();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].from, TwoHosts::kDesktop);
    EXPECT_EQ(found[0].identity.port, 35123);
    EXPECT_TRUE(found[0].identity.acceptsHash(m_settings->getHashedPassword()));

    // Having answered, the answering thread holds the port on the desktop:
    // discovering from there is refused plainly.
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

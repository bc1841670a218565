#include <memory>
#include <thread>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "server/SocketListener.h"
#include "server/TCPServer.h"
#include "bridge/UIBridge.h"
#include "settings/Settings.h"

TEST(TCPServer, PortZeroGivesARealPortAndStopIsRepeatable)
{
    auto loop = std::make_shared<asio::io_context>();
    auto work = asio::make_work_guard(*loop);
    std::thread turner([loop] { loop->run(); });
    TCPServer server;
    EXPECT_EQ(server.nativeSocket(), TCPServer::kNoSocket);
    std::optional<TCPServerError> error;
    ASSERT_TRUE(server.start(&error, loop));
    EXPECT_FALSE(error);
    EXPECT_NE(server.port(), 0);
    EXPECT_GE(server.nativeSocket(), 0);
    EXPECT_TRUE(server.stop());
    EXPECT_EQ(server.nativeSocket(), TCPServer::kNoSocket);
    EXPECT_TRUE(server.stop());
    EXPECT_EQ(server.nativeSocket(), TCPServer::kNoSocket);
    turner.join(); // stop() stopped the loop
}

TEST(TCPServer, PortInUseFailsWithCodeOne)
{
    HeldPort other(true);
    auto loop = std::make_shared<asio::io_context>();
    TCPServer server;
    server.setPort(other.port());
    std::optional<TCPServerError> error;
    EXPECT_FALSE(server.start(&error, loop));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain, "TCPServerErrorDomain");
    EXPECT_EQ(error->code, 1);
    EXPECT_EQ(server.nativeSocket(), TCPServer::kNoSocket);
}

// Binding to the one address given is seen from outside in DaemonTest.
TEST(TCPServer, ListenAddressThatIsNoIPv4AddressFailsWithCodeOne)
{
    auto loop = std::make_shared<asio::io_context>();
    TCPServer server;
    server.setAddress("localhost");
    std::optional<TCPServerError> error;
    EXPECT_FALSE(server.start(&error, loop));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, 1);
}

TEST(SocketListener, ShutdownWithNoConnectionIsHarmless)
{
    TempHome home;
    auto settings = std::make_shared<Settings>(Settings::NoLoginItems{});
    auto listener = std::make_shared<SocketListener>(settings, std::make_shared<UIBridge>(settings));
    listener->shutdown();
    listener->shutdown();
    EXPECT_TRUE(listener->connections().empty());
}

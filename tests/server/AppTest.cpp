#include <gtest/gtest.h>

#include "LoopbackServer.h"
#include "server/SocketListener.h"

using namespace std::chrono_literals;

TEST(App, PortsOutsideTheRangeLetTheSystemChooseAndSaySo)
{
    for (std::int32_t configured : {1023, 65536, -1}) {
        LoopbackServer server(false);
        server.settings().setPort(configured);
        server.start();
        auto port = server.port();
        EXPECT_NE(port, 0);
        EXPECT_NE(port, configured);
        // The start-up lines, first and in their order.
        auto p = std::to_string(port);
        auto lines = server.log().lines();
        std::vector<std::string> expected{
            "Starting server on port " + p, "Server started on port " + p, server.settings().getIdentifier()};
        ASSERT_GE(lines.size(), 3u);
        EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 3), expected) << configured;
    }
}

TEST(App, ListenFailureIsLoggedAndTheRestGoesOn)
{
    LoopbackServer first;
    LoopbackServer second(false);
    second.settings().setPort(first.port());
    // The first server's port is in the allowed range only when the system
    // gave one from 1024 up, which ephemeral ports always are.
    second.app().start();
    auto port = second.app().waitUntilRunning(10s);
    ASSERT_TRUE(port);
    EXPECT_EQ(*port, 0);
    EXPECT_TRUE(second.log().contains("Error starting server: Error Domain=TCPServerErrorDomain Code=1"));
    EXPECT_TRUE(second.log().contains("Server started on port " + std::to_string(first.port())));
    EXPECT_TRUE(second.app().isRunning());
}

TEST(App, StopWhenNotRunningLogsNothingAndAStoppedAppServesAgain)
{
    LoopbackServer server(false);
    server.app().stop();
    EXPECT_TRUE(server.log().lines().empty());

    server.start();
    server.stop();
    EXPECT_TRUE(server.log().contains("Stopped Echo server"));
    EXPECT_FALSE(server.app().isRunning());
    // Served again, with trace off: a session and a stop write nothing.
    server.settings().setTrace(false);
    server.settings().setVerbose(true);
    server.log().sink().clear();
    server.start();
    auto c = server.connect();
    c->sendCommand(17);
    EXPECT_EQ(c->readExact(19).back(), 1);
    c->close();
    server.stop();
    EXPECT_TRUE(server.log().lines().empty());
}

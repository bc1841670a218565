#include <memory>
#include <thread>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "server/TCPServer.h"

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
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(server.stop());
        EXPECT_EQ(server.nativeSocket(), TCPServer::kNoSocket);
    }
    turner.join(); // stop() stopped the loop
}

// Binding to the one address given is seen from outside in DaemonTest.
TEST(TCPServer, PortInUseOrAnAddressThatIsNoIPv4AddressFailsWithCodeOne)
{
    HeldPort other(true);
    for (bool byAddress : {false, true}) {
        auto loop = std::make_shared<asio::io_context>();
        TCPServer server;
        if (byAddress)
            server.setAddress("localhost");
        else
            server.setPort(other.port());
        std::optional<TCPServerError> error;
        EXPECT_FALSE(server.start(&error, loop));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->description(), "Error Domain=TCPServerErrorDomain Code=1");
        EXPECT_EQ(server.nativeSocket(), TCPServer::kNoSocket);
    }
}

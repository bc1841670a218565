#include <memory>

#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "server/TCPServer.h"

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

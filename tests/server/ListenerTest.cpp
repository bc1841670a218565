#include <memory>

#include <asio/io_context.hpp>
#include <gtest/gtest.h>

#include "server/TCPServer.h"

// A port in use is seen through the app; binding to the one address given
// is seen from outside in DaemonTest.
TEST(TCPServer, AnAddressThatIsNoIPv4AddressFailsWithCodeOne)
{
    TCPServer server;
    server.setAddress("localhost");
    std::optional<TCPServerError> error;
    EXPECT_FALSE(server.start(&error, std::make_shared<asio::io_context>()));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->description(), "Error Domain=TCPServerErrorDomain Code=1");
    EXPECT_EQ(server.nativeSocket(), TCPServer::kNoSocket);
}

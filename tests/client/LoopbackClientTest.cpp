// The typed client's calls that neither the command line nor the transfer
// classes make, against the real server: what the server does with them is
// the session tests' business; here the client must encode each one and read
// its answer so that the connection stays in step.

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "LoopbackServer.h"
#include "client/HostIdentity.h"
#include "client/ProtocolClient.h"
#include "wire/Paths.h"

namespace fs = std::filesystem;

namespace {

TEST(LoopbackClientTest, QueriesOutsideTheCommandLineStayInStepWithTheServer)
{
    LoopbackServer server;
    ProtocolClient client;
    server.attach(client);
    auto at = [&](const std::string& relative) { return (server.home().path() / relative).string(); };
    server.home().write("top/a.txt", "aaa");
    fs::create_directories(at("top/sub"));

    auto id = HostIdentity::parse(client.identifyHost());
    ASSERT_TRUE(id);
    EXPECT_TRUE(id->acceptsHash(server.hash()));
    EXPECT_TRUE(client.startSync());
    EXPECT_FALSE(client.lastReplyRefusedPassword());
    EXPECT_EQ(client.defaultPath(), Paths::expandTilde(server.settings().getBasePath()));
    EXPECT_TRUE(client.pathExists("~"));
    EXPECT_FALSE(client.pathExists(at("top/a.txt")));
    client.calculateFileHash(); // answers nothing: the next reply is the next command's
    EXPECT_EQ(client.parentFolder("/no/such/b/"), "/no/such");
    auto folder = client.folderInfo(at("top"));
    EXPECT_EQ(folder.fullName, at("top"));
    EXPECT_EQ(folder.fileCount, 1);
    EXPECT_TRUE(client.finishSync());

    // A refused password is told apart from a server error, and the
    // connection survives it.
    client.setPassword("not the password");
    EXPECT_THROW(client.createDirectories({at("never")}), PasswordRequired);
    EXPECT_TRUE(client.startSync());
    EXPECT_TRUE(client.lastReplyRefusedPassword());
    EXPECT_FALSE(fs::exists(at("never")));
}

} // namespace

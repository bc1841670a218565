#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "LoopbackServer.h"
#include "app/SocketListener.h"
#include "session/SocketServer.h"
#include "wire/BitHelper.h"
#include "wire/StreamIO.h"

using namespace std::chrono_literals;

namespace {

// Bytes of one reply packet as the server writes it, read back whole.
Bytes replyBytes(SyncClient& c, std::size_t n) { return c.readExact(n); }

Bytes passwordRequired() { return StreamIO::dataPacket(16, {}); }

class SessionLoop : public ::testing::Test {
protected:
    LoopbackServer server;

    bool waitForSessions(std::size_t n)
    {
        auto deadline = std::chrono::steady_clock::now() + 5s;
        while (std::chrono::steady_clock::now() < deadline) {
            if (server.app().listener()->connections().size() == n)
                return true;
            std::this_thread::yield();
        }
        return server.app().listener()->connections().size() == n;
    }
};

} // namespace

TEST_F(SessionLoop, IdentifyAuthenticatesWhateverThePassword)
{
    auto c = server.connect();
    c->sendCommandWithPassword(14, "");
    auto id = server.settings().getIdentifier();
    EXPECT_EQ(replyBytes(*c, 18 + 8 + id.size()), StreamIO::dataPacket(14, BitHelper::encodeString(id)));

    // Authenticated now: a wrong password costs one code-16 packet, then the
    // command is answered (here: a command that needs the login).
    c->sendCommandWithPassword(33, "wrong");
    EXPECT_EQ(replyBytes(*c, 18), passwordRequired());
    EXPECT_EQ(replyBytes(*c, 19), StreamIO::dataPacket(33, BitHelper::encodeBool(true)));

    EXPECT_TRUE(server.log().waitFor("Identifying host: " + id));
    EXPECT_TRUE(server.log().contains("Received password: "));
    EXPECT_TRUE(server.log().contains("Not authenticated.  Received 'wrong' != '" + server.hash() + "'."));
}

TEST_F(SessionLoop, WrongPasswordOnAProtectedCommandGetsTwoRefusals)
{
    auto c = server.connect();
    c->sendCommandWithPassword(18, "nope");
    EXPECT_EQ(replyBytes(*c, 18), passwordRequired());
    EXPECT_EQ(replyBytes(*c, 18), passwordRequired());
    // Nothing else came: the next answer belongs to the next command.
    c->sendCommand(17);
    EXPECT_EQ(replyBytes(*c, 19), StreamIO::dataPacket(17, BitHelper::encodeBool(true)));
}

TEST_F(SessionLoop, StartAndFinishNeedNoLogin)
{
    auto c = server.connect();
    c->sendCommand(17);
    EXPECT_EQ(replyBytes(*c, 19), (Bytes{0x11, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1}));
    c->sendCommandWithPassword(33, "bad");
    EXPECT_EQ(replyBytes(*c, 18), passwordRequired());
    EXPECT_EQ(replyBytes(*c, 19), StreamIO::dataPacket(33, BitHelper::encodeBool(true)));
    EXPECT_TRUE(server.log().waitFor("Finished sync."));
    EXPECT_TRUE(server.log().contains("Starting sync."));
    EXPECT_TRUE(server.log().contains("Authenticated."));
}

TEST_F(SessionLoop, UnknownCodesGetTheInvalidHeaderOnly)
{
    auto c = server.connect();
    for (std::uint8_t code : {15, 16, 0, 200}) {
        c->sendCommand(code);
        EXPECT_EQ(replyBytes(*c, 18), StreamIO::emptyHeader(34)) << int(code);
    }
    c->sendCommandWithPassword(200, "bad");
    EXPECT_EQ(replyBytes(*c, 18), passwordRequired());
    EXPECT_EQ(replyBytes(*c, 18), StreamIO::emptyHeader(34));
    EXPECT_TRUE(server.log().waitFor("Invalid command."));
    EXPECT_TRUE(server.log().contains("Command: 200, Len = 11"));
}

TEST_F(SessionLoop, TrailingPayloadOfAnUnknownCommandIsReadAsTheNextCommand)
{
    auto c = server.connect();
    // Code 99 carrying a start-sync command inside its payload.
    Bytes inner{17};
    inner += BitHelper::encodeLongLong(8 + server.hash().size());
    inner += BitHelper::encodeString(server.hash());
    c->sendCommand(99, inner);
    EXPECT_EQ(replyBytes(*c, 18), StreamIO::emptyHeader(34));
    EXPECT_EQ(replyBytes(*c, 19), StreamIO::dataPacket(17, BitHelper::encodeBool(true)));
}

TEST_F(SessionLoop, ThreeClientsAreThreeSessionsUntilTheyLeave)
{
    auto a = server.connect();
    auto b = server.connect();
    auto c = server.connect();
    for (auto* x : {a.get(), b.get(), c.get()}) {
        x->sendCommand(17);
        x->readExact(19);
    }
    EXPECT_TRUE(waitForSessions(3));
    a->close();
    b->close();
    EXPECT_TRUE(waitForSessions(1));
    c->close();
    EXPECT_TRUE(waitForSessions(0));
}

TEST_F(SessionLoop, PeerLeavingBetweenCommandsLogsNoError)
{
    auto c = server.connect();
    c->sendCommand(17);
    c->readExact(19);
    c->close();
    ASSERT_TRUE(server.log().waitFor("Connection closed."));
    for (const auto& line : server.log().lines())
        EXPECT_EQ(line.find("Exception"), std::string::npos) << line;
}

TEST_F(SessionLoop, PasswordCutMidwayEndsTheSessionWithCode15)
{
    auto c = server.connect();
    Bytes partial{17};
    partial += BitHelper::encodeLongLong(40);
    partial += BitHelper::encodeLongLong(32);
    partial += Bytes{'A', 'B', 'C'};
    c->sendRaw(partial);
    c->shutdownSend();
    auto reason = std::string("0 returned while trying to verifying password");
    EXPECT_EQ(c->readExact(18 + reason.size()), StreamIO::errorPacket(15, reason));
    EXPECT_TRUE(c->waitForClose(5s));
    EXPECT_TRUE(server.log().waitFor("Exception in run loop: " + reason));
    EXPECT_TRUE(server.log().contains("Exception thrown verifying password: " + reason));
}

TEST_F(SessionLoop, PasswordCutInsideItsLength)
{
    auto c = server.connect();
    Bytes partial{17};
    partial += BitHelper::encodeLongLong(40);
    partial += Bytes{1, 0};
    c->sendRaw(partial);
    c->shutdownSend();
    auto reason = std::string("0 returned while trying to get length of string");
    EXPECT_EQ(c->readExact(18 + reason.size()), StreamIO::errorPacket(15, reason));
}

TEST_F(SessionLoop, LogLinesOfOneSessionInOrder)
{
    auto c = server.connect();
    c->sendCommand(17);
    c->readExact(19);
    c->close();
    ASSERT_TRUE(server.log().waitFor("Connection closed."));
    std::vector<std::string> expected{"Added connection.", "Command: 17, Len = " + std::to_string(8 + server.hash().size()),
        "Received password: " + server.hash(), "Authenticated.", "Starting sync.", "Connection closed."};
    auto lines = server.log().lines();
    auto first = std::find(lines.begin(), lines.end(), "Added connection.");
    ASSERT_NE(first, lines.end());
    EXPECT_EQ(std::vector<std::string>(first, lines.end()), expected);
}

TEST(SessionLifetime, TimerClosesAnIdleConnection)
{
    SocketServer::setLifetime(300ms);
    LoopbackServer server;
    auto c = server.connect();
    EXPECT_TRUE(c->waitForClose(5s));
    // The idle loop keeps the session until it is told to end.
    EXPECT_EQ(server.app().listener()->connections().size(), 1u);
    EXPECT_FALSE(server.log().contains("Connection closed."));
    SocketServer::setLifetime(360s);
}

TEST(SessionLifetime, StopEndsEverySession)
{
    LoopbackServer server;
    auto a = server.connect();
    auto b = server.connect();
    a->sendCommand(17);
    a->readExact(19);
    server.stop();
    EXPECT_TRUE(a->waitForClose(5s));
    EXPECT_TRUE(b->waitForClose(5s));
    EXPECT_TRUE(server.log().waitFor("Stopped Echo server"));
}

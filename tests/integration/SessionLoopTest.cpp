#include <algorithm>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "LoopbackServer.h"
#include "app/SocketListener.h"
#include "session/SessionTestHelpers.h"
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

TEST_F(SessionLoop, StrictIdentifyLogsInOnlyWithTheRightHashAndAlwaysAnswers)
{
    server.settings().setStrictIdentify(true);
    auto id = server.settings().getIdentifier();
    const Bytes identified = StreamIO::dataPacket(14, BitHelper::encodeString(id));
    auto c = server.connect();
    c->sendCommandWithPassword(14, "");
    EXPECT_EQ(replyBytes(*c, 18), passwordRequired());
    EXPECT_EQ(replyBytes(*c, identified.size()), identified);
    // Still not logged in: a protected command is refused twice.
    c->sendCommandWithPassword(18, "nope");
    EXPECT_EQ(replyBytes(*c, 18), passwordRequired());
    EXPECT_EQ(replyBytes(*c, 18), passwordRequired());

    // The right hash logs in: a later wrong password costs one refusal only.
    c->sendCommand(14);
    EXPECT_EQ(replyBytes(*c, identified.size()), identified);
    c->sendCommandWithPassword(18, "nope");
    EXPECT_EQ(replyBytes(*c, 18), passwordRequired());
    auto reply = c->readReply();
    EXPECT_EQ(reply.code, 18);
    EXPECT_FALSE(reply.isError());
}

TEST_F(SessionLoop, StartAndFinishAreAnsweredWithoutLoginProtectedCommandsAreNot)
{
    auto c = server.connect();
    // Not logged in: each wrong password costs a refusal, then 17 and 33
    // are answered all the same.
    c->sendCommandWithPassword(17, "bad");
    EXPECT_EQ(replyBytes(*c, 18), passwordRequired());
    EXPECT_EQ(replyBytes(*c, 19), StreamIO::dataPacket(17, BitHelper::encodeBool(true)));
    c->sendCommandWithPassword(33, "bad");
    EXPECT_EQ(replyBytes(*c, 18), passwordRequired());
    EXPECT_EQ(replyBytes(*c, 19), StreamIO::dataPacket(33, BitHelper::encodeBool(true)));
    // A protected command is refused twice and nothing else comes: the next
    // answer belongs to the next command.
    c->sendCommandWithPassword(18, "nope");
    EXPECT_EQ(replyBytes(*c, 18), passwordRequired());
    EXPECT_EQ(replyBytes(*c, 18), passwordRequired());
    c->sendCommand(17);
    EXPECT_EQ(replyBytes(*c, 19), (Bytes{0x11, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1}));
    EXPECT_TRUE(server.log().waitFor("Authenticated."));
    EXPECT_TRUE(server.log().contains("Starting sync."));
    EXPECT_TRUE(server.log().contains("Finished sync."));
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
    c->sendCommand(99, SessionTest::join({Bytes{17}, SessionTest::number(8 + server.hash().size()),
                                            SessionTest::text(server.hash())}));
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

TEST_F(SessionLoop, PasswordCutMidwayEndsTheSessionWithCode15)
{
    // Cut inside the password's bytes, and inside its length.
    const std::vector<std::pair<Bytes, std::string>> cuts = {
        {SessionTest::join({SessionTest::number(32), Bytes{'A', 'B', 'C'}}), "0 returned while trying to verifying password"},
        {Bytes{1, 0}, "0 returned while trying to get length of string"}};
    for (const auto& [sent, reason] : cuts) {
        auto c = server.connect();
        c->sendRaw(SessionTest::join({Bytes{17}, SessionTest::number(40), sent}));
        c->shutdownSend();
        EXPECT_EQ(c->readExact(18 + reason.size()), StreamIO::errorPacket(15, reason));
        EXPECT_TRUE(c->waitForClose(5s));
        EXPECT_TRUE(server.log().waitFor("Exception in run loop: " + reason));
        EXPECT_TRUE(server.log().contains("Exception thrown verifying password: " + reason));
    }
}

// Exactly these lines: a peer that leaves between commands logs no error.
TEST_F(SessionLoop, PeerLeavingBetweenCommandsLogsTheSessionLinesOnly)
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

TEST(SessionLifetime, TimerEndsTheSessionAtOnce)
{
    LoopbackServer server(false);
    server.app().setSessionLifetime(300ms);
    server.start();
    auto idle = server.connect();
    auto busy = server.connect();
    busy->sendCommand(17);
    busy->readExact(19);
    EXPECT_TRUE(idle->waitForClose(5s));
    EXPECT_TRUE(busy->waitForClose(5s));
    // Ended like a session whose phone went away: thread gone, registry empty.
    EXPECT_TRUE(SocketServer::waitForAllSessions(5s));
    EXPECT_TRUE(server.app().listener()->connections().empty());
    auto lines = server.log().lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "Connection closed."), 2);
    EXPECT_FALSE(server.log().contains("Stopped Echo server"));
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

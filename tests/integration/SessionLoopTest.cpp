#include <algorithm>
#include <chrono>
#include <regex>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

#include "LoopbackServer.h"
#include "server/Doorkeeper.h"
#include "server/SocketListener.h"
#include "session/SessionTestHelpers.h"
#include "wire/BitHelper.h"
#include "wire/Digest.h"
#include "wire/Paths.h"
#include "wire/StreamIO.h"

using namespace std::chrono_literals;
using namespace SessionTest;

namespace {

Bytes passwordRequired() { return StreamIO::dataPacket(16, {}); }

class SessionLoop : public ::testing::Test {
protected:
    LoopbackServer server;
};

} // namespace

// Before a login each wrong password costs a code-16 packet: 17 and 33 are
// answered all the same, a protected command is refused twice. Identify logs
// in whatever its password; after that a wrong password costs one refusal.
// Strict, identify takes the password rule like any other command.
TEST_F(SessionLoop, IdentifyLogsInWhateverThePasswordUnlessStrict)
{
    const auto id = server.settings().getIdentifier();
    const Bytes identified = StreamIO::dataPacket(14, BitHelper::encodeString(id));
    auto c = server.connect();
    for (std::uint8_t code : {17, 33}) {
        c->sendCommandWithPassword(code, "bad");
        EXPECT_EQ(c->readExact(18), passwordRequired());
        EXPECT_EQ(c->readExact(19), StreamIO::dataPacket(code, BitHelper::encodeBool(true)));
    }
    c->sendCommandWithPassword(18, "nope");
    EXPECT_EQ(c->readExact(18), passwordRequired());
    EXPECT_EQ(c->readExact(18), passwordRequired());

    // Nothing else came for 18: the next answer is identify's.
    c->sendCommandWithPassword(14, "");
    EXPECT_EQ(c->readExact(identified.size()), identified);
    c->sendCommandWithPassword(18, "wrong");
    EXPECT_EQ(c->readExact(18), passwordRequired());
    const auto home = Paths::expandTilde(server.settings().getBasePath());
    EXPECT_EQ(c->readExact(18 + 8 + home.size()), StreamIO::dataPacket(18, BitHelper::encodeString(home)));
    c->sendCommand(17);
    EXPECT_EQ(c->readExact(19), (Bytes{0x11, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1}));

    EXPECT_TRUE(server.log().waitFor("Authenticated."));
    for (const auto& line : {"Identifying host: " + id, std::string("Starting sync."), std::string("Finished sync."),
             std::string("Not authenticated.  Received '(hidden)' != '(hidden)'.")})
        EXPECT_TRUE(server.log().contains(line)) << line;

    server.settings().setStrictIdentify(true);
    auto s = server.connect();
    s->sendCommandWithPassword(14, "");
    EXPECT_EQ(s->readExact(18), passwordRequired());
    EXPECT_EQ(s->readExact(identified.size()), identified);
    // Still not logged in: a protected command is refused twice.
    s->sendCommandWithPassword(18, "nope");
    EXPECT_EQ(s->readExact(18), passwordRequired());
    EXPECT_EQ(s->readExact(18), passwordRequired());
    s->sendCommand(14);
    EXPECT_EQ(s->readExact(identified.size()), identified);
    s->sendCommandWithPassword(18, "nope");
    EXPECT_EQ(s->readExact(18), passwordRequired());
    EXPECT_FALSE(s->readReply().isError());
}

TEST_F(SessionLoop, UnknownCodesGetTheInvalidHeaderAndTheirPayloadIsReadAsCommands)
{
    auto c = server.connect();
    for (std::uint8_t code : {15, 16, 0, 200}) {
        c->sendCommand(code);
        EXPECT_EQ(c->readExact(18), StreamIO::emptyHeader(34)) << int(code);
    }
    c->sendCommandWithPassword(200, "bad");
    EXPECT_EQ(c->readExact(18), passwordRequired());
    EXPECT_EQ(c->readExact(18), StreamIO::emptyHeader(34));
    EXPECT_TRUE(server.log().waitFor("Invalid command."));
    EXPECT_TRUE(server.log().contains("Command: 200, Len = 11"));

    // What follows the password is not skipped: it is read as the next
    // command (here code 99 carrying a start sync).
    c->sendCommand(99, join({Bytes{17}, number(8 + server.hash().size()), text(server.hash())}));
    EXPECT_EQ(c->readExact(18), StreamIO::emptyHeader(34));
    EXPECT_EQ(c->readExact(19), StreamIO::dataPacket(17, BitHelper::encodeBool(true)));
}

// Each code reaches its own handler: the first line it logs and the code it
// answers under. 25 answers nothing, so 17's answer comes first.
TEST_F(SessionLoop, EveryCommandReachesItsOwnHandler)
{
    const std::string home = server.home().path().string();
    server.settings().setBasePath("~");
    const std::vector<std::tuple<std::uint8_t, Bytes, std::string>> commands = {
        {18, {}, "Default path: " + home}, {19, text("/a/b"), "Parent folder of '/a/b' is '/a'."},
        {20, text("/"), "Path exists: YES"}, {21, text(home), "Folder info: " + home},
        {22, text(home), "Folders in folder: " + home}, {23, text(home), "Files in folder: " + home},
        {24, join({text(home), flag(false)}), "All files in folder: " + home + ", MD5 = NO"},
        {25, {}, "Starting sync."}, {26, join({number(0), flag(false)}), "Downloading files. File count = 0"},
        {27, join({flag(false), number(0)}), "Uploading files. File count = 0, hash = NO"},
        {28, number(0), "Creating directories. Count = 0"}, {29, number(0), "Deleting files. Count = 0"},
        {30, number(0), "Deleting folders. Count = 0"}, {31, number(0), "Renaming files. Count = 0"},
        {32, text(home), "Free space for path: " + home}};
    for (const auto& [code, fields, line] : commands) {
        auto c = server.connect();
        c->sendCommand(code, fields);
        if (code == 25)
            c->sendCommand(17);
        EXPECT_EQ(c->peek(1), Bytes{code == 25 ? std::uint8_t{17} : code});
        EXPECT_TRUE(server.log().waitFor(line)) << line;
    }
}

TEST_F(SessionLoop, PasswordCutMidwayEndsTheSessionWithCode15)
{
    // Cut inside the password's bytes, and inside its length.
    const std::vector<std::pair<Bytes, std::string>> cuts = {
        {join({number(32), Bytes{'A', 'B', 'C'}}), "0 returned while trying to verifying password"},
        {Bytes{1, 0}, "0 returned while trying to get length of string"}};
    for (const auto& [sent, reason] : cuts) {
        auto c = server.connect();
        c->sendRaw(join({Bytes{17}, number(40), sent}));
        c->shutdownSend();
        EXPECT_EQ(c->readExact(18 + reason.size()), StreamIO::errorPacket(15, reason));
        EXPECT_TRUE(c->waitForClose(5s));
        EXPECT_TRUE(server.log().waitFor("Exception in run loop: " + reason));
        EXPECT_TRUE(server.log().contains("Exception thrown verifying password: " + reason));
    }
}

// Exactly these lines: a peer that leaves between commands logs no error.
// "Added connection." is followed by our line naming the phone.
TEST_F(SessionLoop, PeerLeavingBetweenCommandsLogsTheSessionLinesOnly)
{
    auto c = server.connect();
    c->sendCommand(17);
    c->readExact(19);
    c->close();
    ASSERT_TRUE(server.log().waitFor("Connection closed."));
    std::vector<std::string> expected{"Added connection.", "Connection from 127.0.0.1:",
        "Command: 17, Len = " + std::to_string(8 + server.hash().size()),
        "Received password: (hidden)", "Authenticated.", "Starting sync.", "Connection closed."};
    auto lines = server.log().lines();
    auto first = std::find(lines.begin(), lines.end(), "Added connection.");
    ASSERT_NE(first, lines.end());
    std::vector<std::string> seen(first, lines.end());
    // The phone's port is the client's, whichever the system gave it.
    ASSERT_GT(seen.size(), 1u);
    if (seen[1].starts_with(expected[1]) && seen[1].ends_with("."))
        seen[1] = expected[1];
    EXPECT_EQ(seen, expected);
}

// The log never holds what a phone logs in with: right, wrong (another
// hash) or absent, the password lines show "(hidden)" or "(null)". The one
// 32-digit run left is the identifier's MD5 of the stored hash, which every
// phone on the network receives in the announcements anyway.
TEST_F(SessionLoop, NoLogLineHoldsAPasswordHash)
{
    auto c = server.connect();
    c->sendCommand(17);
    c->readExact(19);
    c->sendCommandWithPassword(33, SyncClient::hashPassword("not the password"));
    EXPECT_EQ(c->readExact(18), passwordRequired());
    c->readExact(19);
    c->sendCommand(14);
    c->readReply();
    c->close();
    ASSERT_TRUE(server.log().waitFor("Connection closed."));
    EXPECT_TRUE(server.log().contains("Not authenticated.  Received '(hidden)' != '(hidden)'."));
    const std::regex hexRun("[0-9A-Fa-f]{32}");
    const std::string announced = Digest::md5OfString(server.hash());
    for (const auto& line : server.log().lines()) {
        for (std::sregex_iterator m(line.begin(), line.end(), hexRun), end; m != end; ++m)
            EXPECT_EQ(m->str(), announced) << line;
    }
}

// A phone held out gets, for every command, what a wrong password gets on a
// session not logged in: two code-16 packets and nothing read past the
// password. Identify does not log it in and never shows the identifier.
// Allowed, its next command is served; blocked, it is held out whatever
// the setting, and blocking ends its open session.
TEST_F(SessionLoop, HeldOutPhonesGetTheWrongPasswordAnswerToEveryCommand)
{
    Bytes refused = passwordRequired();
    refused += passwordRequired();
    auto& door = server.doorkeeper();
    std::vector<std::string> asked;
    door.setAsker([&](const Peer& peer) { asked.push_back(peer.address); });
    const auto id = server.settings().getIdentifier();
    const Bytes identified = StreamIO::dataPacket(14, BitHelper::encodeString(id));
    for (const char* rule : {"known", "ask"}) {
        server.settings().setAdmission(rule);
        auto c = server.connect();
        for (std::uint8_t code : {22, 14, 17, 33, 200, 14})
            c->sendCommand(code);
        for (int i = 0; i < 6; ++i)
            EXPECT_EQ(c->readExact(36), refused) << rule << " reply " << i;
        door.setStanding("127.0.0.1", Doorkeeper::Standing::Allowed);
        c->sendCommand(14);
        EXPECT_EQ(c->readExact(identified.size()), identified) << rule;
        door.forget("127.0.0.1");
        server.settings().setAdmission("everyone");
    }
    EXPECT_EQ(asked, std::vector<std::string>{"127.0.0.1"}) << "asked under \"ask\" only, once a session";
    EXPECT_TRUE(server.log().contains("Held out the phone at 127.0.0.1: admission is \"known\" and it is not "
                                      "allowed. To let it in: zandrel-syncd devices allow 127.0.0.1"));

    auto c = server.connect();
    c->sendCommand(17);
    EXPECT_EQ(c->readExact(19), StreamIO::dataPacket(17, BitHelper::encodeBool(true)));
    // The earlier phones' sessions end on their own threads.
    auto held = server.app().listener()->statuses();
    for (int i = 0; i < 100 && held.size() > 1; ++i) {
        std::this_thread::sleep_for(50ms);
        held = server.app().listener()->statuses();
    }
    ASSERT_EQ(held.size(), 1u);
    EXPECT_FALSE(held[0].heldOut);
    door.setStanding("127.0.0.1", Doorkeeper::Standing::Blocked);
    c->sendCommand(14);
    EXPECT_EQ(c->readExact(36), refused);
    EXPECT_TRUE(server.app().listener()->statuses().at(0).heldOut);
    EXPECT_EQ(server.app().listener()->endSessionsFrom("127.0.0.1"), 1);
    EXPECT_TRUE(c->waitForClose(5s));
    EXPECT_TRUE(server.log().contains("Held out the phone at 127.0.0.1: it is blocked."));
}

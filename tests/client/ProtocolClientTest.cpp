// The typed client against scripted server bytes: what each call sends, and
// how it reads every kind of reply, the streamed ones and their failures
// included.

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ScriptedServer.h"
#include "client/ProtocolClient.h"
#include "records/DirSyncInfo.h"
#include "records/FileSyncInfo.h"
#include "records/RecordEncoding.h"
#include "session/SessionTestHelpers.h"

using SessionTest::flag;
using SessionTest::join;
using SessionTest::number;
using SessionTest::text;

namespace {

const std::string kHash = "0123456789ABCDEF0123456789ABCDEF";

Bytes dataPacket(std::uint8_t code, const Bytes& data) { return StreamIO::dataPacket(code, data); }
Bytes errorPacket(std::uint8_t code, const std::string& message) { return StreamIO::errorPacket(code, message); }
Bytes emptyHeader(std::uint8_t code) { return StreamIO::emptyHeader(code); }
Bytes request(std::uint8_t code, const Bytes& fields = {}) { return scriptedRequest(code, kHash, fields); }
Bytes passwordRequest() { return dataPacket(16, {}); }
Bytes startSyncAccepted() { return dataPacket(17, flag(true)); }

Bytes fileRecord(const std::string& path, std::uint64_t size, const std::string& hash = "")
{
    FileSyncInfo f = FileSyncInfo::finish();
    f.fullName = path;
    f.name = path.substr(path.rfind('/') + 1);
    f.size = size;
    f.hash = hash;
    return BitHelper::encodeFileSyncInfo(f);
}

Bytes folderRecord(const std::string& path, const std::string& parent)
{
    DirSyncInfo d = DirSyncInfo::finish();
    d.fullName = path;
    d.parent = parent;
    d.name = path.substr(path.rfind('/') + 1);
    return BitHelper::encodeDirSyncInfo(d);
}

class ProtocolClientTest : public ::testing::Test {
protected:
    ProtocolClientTest() { m_client.setPasswordHash(kHash); }

    // A script that first accepts the password check.
    static Bytes accepted(std::initializer_list<Bytes> rest) { return join({startSyncAccepted(), join(rest)}); }

    ProtocolClient m_client;
};

TEST_F(ProtocolClientTest, EachCommandSendsItsFieldsInTheServersOrder)
{
    ScriptedServer server(m_client,
        accepted({dataPacket(19, text("/a")), dataPacket(28, flag(true)),
            dataPacket(31, flag(false)), dataPacket(32, number(4096)),
            emptyHeader(26), BitHelper::encodeFileSyncInfo(FileSyncInfo::finish())}),
        false);
    EXPECT_EQ(m_client.parentFolder("/a/b"), "/a");
    EXPECT_TRUE(m_client.createDirectories({"/x", "/y/z"}));
    EXPECT_FALSE(m_client.renameFiles({{"/o1", "/n1"}, {"/o2", "/n2"}}));
    EXPECT_EQ(m_client.freeSpace("/"), 4096);
    // Two files asked for, none sent: the stream may end early only by error.
    EXPECT_THROW(m_client.downloadFiles({{"/d1", 7}, {"/d2", 0}}, true, {}), ProtocolError);

    Bytes expected = join({request(17), request(19, text("/a/b")),
        request(28, join({number(2), text("/x"), text("/y/z")})),
        request(31, join({number(2), text("/o1"), text("/n1"), text("/o2"), text("/n2")})),
        request(32, text("/")),
        // The digest flag comes last on download...
        request(26, join({number(2), text("/d1"), number(7), text("/d2"), number(0), flag(true)}))});
    EXPECT_EQ(server.received(), expected);
}

TEST_F(ProtocolClientTest, UploadSendsFlagFirstThenOnlyTheMissingBytes)
{
    Bytes digest = text(std::string(32, 'f'));
    ScriptedServer server(m_client,
        accepted({dataPacket(27, join({number(3), number(0)})), number(2), digest, number(4), digest}), false);
    const std::string first = "ABCDE", second = "wxyz";
    ProtocolClient::UploadHandler handler;
    std::vector<std::int64_t> offsets;
    handler.onOffsets = [&](const std::vector<std::int64_t>& o) { offsets = o; };
    handler.read = [&](std::size_t index, std::int64_t position, std::uint8_t* buffer, std::size_t length) {
        const std::string& data = index == 0 ? first : second;
        auto n = std::min(length, data.size() - static_cast<std::size_t>(position));
        std::copy_n(data.data() + position, n, buffer);
        return n;
    };
    auto results = m_client.uploadFiles(
        {{"/u/1", 5, 100, "d1"}, {"/u/2", 4, 200, "d2"}}, true, handler);
    EXPECT_EQ(offsets, (std::vector<std::int64_t>{3, 0}));
    ASSERT_EQ(results.size(), 2u);
    EXPECT_EQ(results[0].offset, 3);
    EXPECT_EQ(results[0].received, 2);
    EXPECT_EQ(results[1].received, 4);
    EXPECT_EQ(results[1].digest, std::string(32, 'f'));

    Bytes expected = join({request(17),
        request(27,
            join({flag(true), number(2), text("/u/1"), number(5), number(100), text("d1"), text("/u/2"), number(4),
                number(200), text("d2")})),
        Bytes{'D', 'E', 'w', 'x', 'y', 'z'}});
    EXPECT_EQ(server.received(), expected);
}

TEST_F(ProtocolClientTest, ARefusedPasswordSendsNothingMore)
{
    // Start sync is answered all the same, after the refusal.
    ScriptedServer server(m_client, join({passwordRequest(), startSyncAccepted()}), false);
    EXPECT_THROW(m_client.createDirectories({"/would/be/read/as/commands"}), PasswordRequired);
    EXPECT_TRUE(m_client.lastReplyRefusedPassword());
    EXPECT_TRUE(m_client.isConnected());
    EXPECT_EQ(server.received(), request(17));
}

TEST_F(ProtocolClientTest, TwoRefusalsMeanTheCommandWasSkipped)
{
    // A session that took the password once and then refuses it (its
    // settings changed) answers a command it skips with two refusals.
    ScriptedServer server(m_client, accepted({passwordRequest(), passwordRequest()}));
    EXPECT_TRUE(m_client.startSync());
    EXPECT_THROW(m_client.defaultPath(), PasswordRequired);
    EXPECT_FALSE(m_client.isConnected());
}

TEST_F(ProtocolClientTest, ErrorPacketsAndUnknownCommandsEndTheConnection)
{
    {
        ScriptedServer server(m_client, accepted({errorPacket(21, "Path ~/x does not exist.")}));
        try {
            m_client.folderInfo("~/x");
            FAIL() << "no error";
        } catch (const ServerError& e) {
            EXPECT_EQ(e.code(), 21);
            EXPECT_EQ(e.message(), "Path ~/x does not exist.");
        }
        EXPECT_FALSE(m_client.isConnected());
    }
    {
        ScriptedServer server(m_client, accepted({emptyHeader(34)}));
        EXPECT_THROW(m_client.pathExists("/"), UnknownCommand);
        EXPECT_FALSE(m_client.isConnected());
    }
    {
        ScriptedServer server(m_client, accepted({dataPacket(20, {1, 1})}));
        EXPECT_THROW(m_client.pathExists("/"), ProtocolError);
    }
}

TEST_F(ProtocolClientTest, TreeWalkDeliversRecordsInStreamOrder)
{
    ScriptedServer server(m_client,
        accepted({emptyHeader(24), folderRecord("/r", "/"), fileRecord("/r/a", 1, std::string(32, 'a')),
            folderRecord("/r/s", "/r"), fileRecord("/r/s/b", 2), BitHelper::encodeDirSyncInfo(DirSyncInfo::finish()),
            dataPacket(33, flag(true))}),
        false);
    std::vector<std::string> seen;
    ProtocolClient::TreeHandler handler;
    handler.onFolder = [&](const RemoteFolder& f) { seen.push_back("d " + f.fullName); };
    handler.onFile = [&](const RemoteFile& f) { seen.push_back("f " + f.fullName + " " + f.hash); };
    m_client.allFilesInFolder("/r", true, handler);
    EXPECT_EQ(seen, (std::vector<std::string>{"d /r", "f /r/a " + std::string(32, 'a'), "d /r/s", "f /r/s/b "}));
    // The end marker left the connection in step.
    EXPECT_TRUE(m_client.finishSync());
}

TEST_F(ProtocolClientTest, AnErrorPacketInsideAStreamIsReported)
{
    ScriptedServer server(m_client,
        accepted({emptyHeader(24), folderRecord("/r", "/"), errorPacket(24, "0 returned while trying to x")}));
    int folders = 0;
    ProtocolClient::TreeHandler handler;
    handler.onFolder = [&](const RemoteFolder&) { ++folders; };
    try {
        m_client.allFilesInFolder("/r", false, handler);
        FAIL() << "no error";
    } catch (const ServerError& e) {
        EXPECT_EQ(e.message(), "0 returned while trying to x");
    }
    EXPECT_EQ(folders, 1);
}

TEST_F(ProtocolClientTest, DownloadStreamsDataAndDigests)
{
    const std::string content = "0123456789";
    // Data that starts like an error packet of this command but goes on is data.
    std::string lookalike("\x1a\x01\x03\0\0\0\0\0\0\0abc\0\0\0\0\0\0\0\0tail", 25);
    Bytes script = accepted({emptyHeader(26), fileRecord("/f", content.size()), Bytes(content.begin() + 4, content.end()),
        text(std::string(32, '1')), fileRecord("/g", lookalike.size()), Bytes(lookalike.begin(), lookalike.end()),
        text(std::string(32, '2')), BitHelper::encodeFileSyncInfo(FileSyncInfo::finish())});
    ScriptedServer server(m_client, script, false);
    std::vector<std::string> data(2);
    std::vector<std::string> digests(2);
    std::vector<std::int64_t> announced(2);
    ProtocolClient::DownloadHandler handler;
    handler.onFile = [&](std::size_t i, const RemoteFile&, std::int64_t toCome) { announced[i] = toCome; };
    handler.onData = [&](std::size_t i, const std::uint8_t* d, std::size_t n) { data[i].append(d, d + n); };
    handler.onFileDone = [&](std::size_t i, const std::string& digest) { digests[i] = digest; };
    m_client.downloadFiles({{"/f", 4}, {"/g", 0}}, true, handler);
    EXPECT_EQ(announced, (std::vector<std::int64_t>{6, 25}));
    EXPECT_EQ(data[0], "456789");
    EXPECT_EQ(data[1], lookalike);
    EXPECT_EQ(digests[1], std::string(32, '2'));
}

TEST_F(ProtocolClientTest, DownloadFailuresNeverReachTheSink)
{
    // A file that cannot be opened: its record, then the error packet where
    // its data would be.
    ScriptedServer server(m_client,
        accepted({emptyHeader(26), fileRecord("/locked", 100), errorPacket(26, "Failed to open file: /locked")}));
    std::size_t bytes = 0;
    ProtocolClient::DownloadHandler handler;
    handler.onData = [&](std::size_t, const std::uint8_t*, std::size_t n) { bytes += n; };
    try {
        m_client.downloadFiles({{"/locked", 0}}, false, handler);
        FAIL() << "no error";
    } catch (const ServerError& e) {
        EXPECT_EQ(e.message(), "Failed to open file: /locked");
    }
    EXPECT_EQ(bytes, 0u);
}

TEST_F(ProtocolClientTest, UploadReportsWhatTheServerSaysInsteadOfACount)
{
    {
        ScriptedServer server(m_client, accepted({dataPacket(27, number(0)), errorPacket(27, "disk full")}));
        ProtocolClient::UploadHandler handler;
        handler.read = [](std::size_t, std::int64_t, std::uint8_t* b, std::size_t n) {
            std::fill_n(b, n, 'x');
            return n;
        };
        try {
            m_client.uploadFiles({{"/u", 3, 0, ""}}, false, handler);
            FAIL() << "no error";
        } catch (const ServerError& e) {
            EXPECT_EQ(e.message(), "disk full");
        }
    }
    {
        // A local source that runs dry abandons the upload.
        ScriptedServer server(m_client, accepted({dataPacket(27, number(0))}), false);
        ProtocolClient::UploadHandler handler;
        handler.read = [](std::size_t, std::int64_t, std::uint8_t*, std::size_t) { return std::size_t(0); };
        EXPECT_THROW(m_client.uploadFiles({{"/u", 3, 0, ""}}, false, handler), ClientError);
        EXPECT_FALSE(m_client.isConnected());
    }
}

} // namespace

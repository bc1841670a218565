// The typed client against scripted server bytes: the replies a healthy
// server on loopback never gives (refusals, error packets inside streams,
// data that looks like an error packet, bytes out of place).

#include <algorithm>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/ProtocolClient.h"
#include "records/DirSyncInfo.h"
#include "records/FileSyncInfo.h"
#include "records/RecordEncoding.h"
#include "session/SessionTestHelpers.h"

using namespace SessionTest;

namespace {

const std::string kHash = "0123456789ABCDEF0123456789ABCDEF";

Bytes dataPacket(std::uint8_t code, const Bytes& data) { return StreamIO::dataPacket(code, data); }
Bytes errorPacket(std::uint8_t code, const std::string& message) { return StreamIO::errorPacket(code, message); }
Bytes emptyHeader(std::uint8_t code) { return StreamIO::emptyHeader(code); }
Bytes passwordRequest() { return dataPacket(16, {}); }
Bytes startSyncAccepted() { return dataPacket(17, flag(true)); }

// The far end of a socket pair handed to the client: writes its whole script
// at once (far below the socket buffer), then closes its side as the server
// does after an error packet, or stays open.
class ScriptedServer {
public:
    ScriptedServer(ProtocolClient& client, const Bytes& script, bool closeWhenDone = true)
    {
        int fds[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
            throw std::runtime_error("socketpair");
        client.adopt(fds[0]);
        client.setTimeout(std::chrono::seconds(5));
        m_fd = fds[1];
        ::send(m_fd, script.data(), script.size(), MSG_NOSIGNAL);
        if (closeWhenDone)
            ::shutdown(m_fd, SHUT_WR);
    }
    ~ScriptedServer() { ::close(m_fd); }

    // What the client has sent so far: it writes before it reads a reply.
    Bytes received()
    {
        std::uint8_t buffer[4096];
        return Bytes(buffer, buffer + std::max<ssize_t>(::recv(m_fd, buffer, sizeof buffer, MSG_DONTWAIT), 0));
    }

private:
    int m_fd = -1;
};

Bytes fileRecord(const std::string& path, std::uint64_t size)
{
    FileSyncInfo f = FileSyncInfo::finish();
    f.fullName = path;
    f.name = path.substr(path.rfind('/') + 1);
    f.size = size;
    return BitHelper::encodeFileSyncInfo(f);
}

class ProtocolClientTest : public ::testing::Test {
protected:
    ProtocolClientTest() { m_client.setPasswordHash(kHash); }

    // A script that first accepts the password check.
    static Bytes accepted(std::initializer_list<Bytes> rest) { return join({startSyncAccepted(), join(rest)}); }

    // How a call against the script (after the password check) fails: "code
    // message" of what the server said, else the kind of error; and whether
    // the connection outlived it.
    std::string failure(std::initializer_list<Bytes> script, const std::function<void()>& call, bool close = true)
    {
        ScriptedServer server(m_client, accepted(script), close);
        std::string what = "no error";
        try {
            call();
        } catch (const UnknownCommand&) {
            what = "unknown command";
        } catch (const ServerError& e) {
            what = std::to_string(e.code()) + " " + e.message();
        } catch (const ProtocolError&) {
            what = "protocol error";
        } catch (const ClientError&) {
            what = "client error";
        }
        return what + (m_client.isConnected() ? " (still connected)" : "");
    }

    ProtocolClient m_client;
};

TEST_F(ProtocolClientTest, ARefusedPasswordSendsNothingMore)
{
    {
        // Start sync is answered all the same, after the refusal.
        ScriptedServer server(m_client, join({passwordRequest(), startSyncAccepted()}), false);
        EXPECT_THROW(m_client.createDirectories({"/would/be/read/as/commands"}), PasswordRequired);
        EXPECT_TRUE(m_client.lastReplyRefusedPassword());
        EXPECT_TRUE(m_client.isConnected());
        // Start sync alone: code, length, the password hash.
        EXPECT_EQ(server.received(), join({{17}, number(8 + 32), text(kHash)}));
    }
    // A session that took the password once and then refuses it (its
    // settings changed) answers a command it skips with two refusals.
    ScriptedServer server(m_client, join({startSyncAccepted(), passwordRequest(), passwordRequest()}));
    EXPECT_TRUE(m_client.startSync());
    EXPECT_THROW(m_client.defaultPath(), PasswordRequired);
    EXPECT_FALSE(m_client.isConnected());
}

TEST_F(ProtocolClientTest, DownloadStreamsDataAndDigests)
{
    // Data that starts like an error packet of this command but goes on is
    // data; resuming from an offset is left to the tests against the server.
    std::string lookalike("\x1a\x01\x03\0\0\0\0\0\0\0abc\0\0\0\0\0\0\0\0tail", 25);
    Bytes script = accepted({emptyHeader(26), fileRecord("/g", lookalike.size()),
        Bytes(lookalike.begin(), lookalike.end()), text(std::string(32, '2')),
        BitHelper::encodeFileSyncInfo(FileSyncInfo::finish())});
    ScriptedServer server(m_client, script, false);
    std::string data, digest;
    std::int64_t announced = 0;
    ProtocolClient::DownloadHandler handler;
    handler.onFile = [&](std::size_t, const RemoteFile&, std::int64_t toCome) { announced = toCome; };
    handler.onData = [&](std::size_t, const std::uint8_t* d, std::size_t n) { data.append(d, d + n); };
    handler.onFileDone = [&](std::size_t, const std::string& d) { digest = d; };
    m_client.downloadFiles({{"/g", 0}}, true, handler);
    EXPECT_EQ(announced, 25);
    EXPECT_EQ(data, lookalike);
    EXPECT_EQ(digest, std::string(32, '2'));
}

// Failures end the connection; an error packet inside a stream is told from
// data, and no byte of a failed file reaches the sink.
TEST_F(ProtocolClientTest, FailuresEndTheConnection)
{
    auto& c = m_client;
    EXPECT_EQ(failure({emptyHeader(34)}, [&] { c.pathExists("/"); }), "unknown command");
    // A malformed reply read whole leaves the connection in step.
    EXPECT_EQ(failure({dataPacket(20, {1, 1})}, [&] { c.pathExists("/"); }), "protocol error (still connected)");
    // Two files asked for, none sent: a stream may end early only by error.
    EXPECT_EQ(failure({emptyHeader(26), fileRecord("", 0)},
                  [&] { c.downloadFiles({{"/d1", 7}, {"/d2", 0}}, true, {}); }, false),
        "protocol error");
    ProtocolClient::TreeHandler walk;
    walk.onFolder = [](const RemoteFolder&) {};
    auto root = BitHelper::encodeDirSyncInfo(DirSyncInfo::initFromPath("/"));
    EXPECT_EQ(failure({emptyHeader(24), root, errorPacket(24, "0 returned while walking")},
                  [&] { c.allFilesInFolder("/", false, walk); }),
        "24 0 returned while walking");

    // A file that cannot be opened: its record, then the error packet where its data would be.
    std::size_t bytes = 0;
    ProtocolClient::DownloadHandler sink;
    sink.onData = [&](std::size_t, const std::uint8_t*, std::size_t n) { bytes += n; };
    EXPECT_EQ(failure({emptyHeader(26), fileRecord("/locked", 100), errorPacket(26, "Failed to open file: /locked")},
                  [&] { c.downloadFiles({{"/locked", 0}}, false, sink); }),
        "26 Failed to open file: /locked");
    EXPECT_EQ(bytes, 0u);

    // What the server says comes instead of the byte count; a local source
    // that runs dry abandons the upload.
    ProtocolClient::UploadHandler source;
    source.read = [](std::size_t, std::int64_t, std::uint8_t* b, std::size_t n) { return std::fill_n(b, n, 'x'), n; };
    auto upload = [&] { c.uploadFiles({{"/u", 3, 0, ""}}, false, source); };
    EXPECT_EQ(failure({dataPacket(27, number(0)), errorPacket(27, "disk full")}, upload), "27 disk full");
    source.read = [](std::size_t, std::int64_t, std::uint8_t*, std::size_t) { return std::size_t(0); };
    EXPECT_EQ(failure({dataPacket(27, number(0))}, upload, false), "client error");
}

} // namespace

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/ClientErrors.h"
#include "client/RemoteRecords.h"
#include "client/SyncClient.h"
#include "wire/Commands.h"

// The sync protocol as typed calls: one method per command, each sending its
// fields in the order the server reads them and decoding its reply. Streamed
// replies (tree walk, downloads, uploads) go through callbacks so nothing
// grows with the size of a tree or a file. Blocking; one thread.
//
// Failures: ServerError for an error packet (the server has then ended the
// session), PasswordRequired when the password hash is refused, UnknownCommand
// for a server without the command, ProtocolError for bytes out of place,
// ClientError for the connection itself.
class ProtocolClient {
public:
    struct TreeHandler {
        // Pre-order: a folder, then its files, then each subfolder in turn.
        std::function<void(const RemoteFolder&)> onFolder;
        std::function<void(const RemoteFile&)> onFile;
    };

    struct DownloadItem {
        std::string path;
        // Where to start; bytes before it are not sent again.
        std::int64_t offset = 0;
    };
    struct DownloadHandler {
        // The file's record has arrived; `bytesToCome` bytes of data follow
        // (its size now, less the offset, never below 0).
        std::function<void(std::size_t index, const RemoteFile& record, std::int64_t bytesToCome)> onFile;
        std::function<void(std::size_t index, const std::uint8_t* data, std::size_t length)> onData;
        // Every byte has arrived; `digest` is the MD5 of the whole file on
        // the server when digests were asked for, else empty.
        std::function<void(std::size_t index, const std::string& digest)> onFileDone;
    };

    struct UploadItem {
        std::string path; // where the server stores the file
        std::int64_t size = 0;
        std::int64_t modified = 0; // seconds since 1970, set on the stored file
        // Sent along when digests are asked for; the server answers with its own.
        std::string digest;
    };
    struct UploadResult {
        std::int64_t offset = 0;   // what the server already held
        std::int64_t received = 0; // what it took in this time
        std::string digest;        // of the stored file, when asked for
    };
    struct UploadHandler {
        // The offsets the server resumes from, one per item, before any data moves.
        std::function<void(const std::vector<std::int64_t>& offsets)> onOffsets;
        // Fills `buffer` with up to `length` bytes of item `index` starting at
        // `position`; returns how many. Required. Returning 0 before the item
        // is complete abandons the upload (the server keeps what it has).
        std::function<std::size_t(std::size_t index, std::int64_t position, std::uint8_t* buffer, std::size_t length)> read;
        std::function<void(std::size_t index, std::int64_t sent, std::int64_t total)> onProgress;
        std::function<void(std::size_t index, const UploadResult& result)> onFileDone;
    };

    ProtocolClient();

    void connect(const std::string& host, std::uint16_t port,
        std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Takes over a connected socket, as connect() would have made.
    void adopt(int fd);
    void close() { m_conn.close(); }
    bool isConnected() const { return m_conn.isConnected(); }
    void setPassword(const std::string& plain) { setPasswordHash(SyncClient::hashPassword(plain)); }
    void setPasswordHash(std::string hash);
    // How long a read may wait for the next byte (a digest of a large file
    // on the server can take a while).
    void setTimeout(std::chrono::milliseconds timeout) { m_conn.setTimeout(timeout); }
    // The byte level, for what the typed calls do not cover.
    SyncClient& connection() { return m_conn; }

    // Asks once per connection whether the server takes the password (by a
    // start-sync exchange, which every server answers), so that no command
    // with fields is sent to a session that would read its fields as the
    // next commands. Throws PasswordRequired when refused.
    void verifyPassword();
    // True when the last reply was preceded by a password refusal that the
    // server did not act on (start and finish sync answer all the same).
    bool lastReplyRefusedPassword() const { return m_refused; }

    std::string identifyHost();
    bool startSync();

    std::string defaultPath();
    bool pathExists(const std::string& path);
    std::vector<RemoteFolder> foldersInFolder(const std::string& path);
    std::vector<RemoteFile> filesInFolder(const std::string& path);
    void allFilesInFolder(const std::string& path, bool withHash, const TreeHandler& handler);

    // A file the server cannot send (it cannot open it, or cannot name it)
    // throws ServerError naming its index; the session has then ended.
    void downloadFiles(const std::vector<DownloadItem>& items, bool withHash, const DownloadHandler& handler);
    // The server's MD5 of each file, asked for without its data: each item's
    // offset is the size the caller expects. A file whose size is not that
    // gets an empty digest. A file the server cannot open throws ServerError
    // naming its index.
    std::vector<std::string> remoteDigests(const std::vector<DownloadItem>& items);
    std::vector<UploadResult> uploadFiles(const std::vector<UploadItem>& items, bool withHash, const UploadHandler& handler);

    bool createDirectories(const std::vector<std::string>& paths);
    bool deleteFiles(const std::vector<std::string>& paths);
    bool deleteFolders(const std::vector<std::string>& paths);
    bool renameFiles(const std::vector<std::pair<std::string, std::string>>& renames);
    std::int64_t freeSpace(const std::string& path);

private:
    void send(std::uint8_t code, const Bytes& fields = {});
    // Reads the reply to `code`, dealing with password refusals, error
    // packets and the unknown-command answer.
    SyncClient::Reply awaitReply(std::uint8_t code, bool streamed = false);
    SyncClient::Reply exchange(std::uint8_t code, const Bytes& fields = {});
    bool batch(std::uint8_t code, const Bytes& items, std::size_t count);
    // Throws ServerError when the next bytes of a stream are an error packet
    // for `code` followed by the end of the connection.
    void failOnErrorPacket(std::uint8_t code);
    // The same, waiting at most `wait` for the packet: for places where a
    // healthy stream may have nothing more to send.
    void failOnErrorPacketWithin(std::uint8_t code, std::chrono::milliseconds wait);
    // Runs `body`, closing the connection when anything but a refused
    // password escapes it.
    template <typename Body>
    auto guarded(Body&& body) -> decltype(body());
    // One length-prefixed record of a stream, its body checked for size.
    Bytes readRecordBody(std::uint8_t code);
    RemoteFile readFileRecord(std::uint8_t code);
    std::string readDigest(std::uint8_t code);
    void receiveFile(std::size_t index, const DownloadItem& item, bool withHash, const DownloadHandler& handler,
        Bytes& buffer);
    void receiveFileData(std::size_t index, std::int64_t length, const DownloadHandler& handler, Bytes& buffer);
    UploadResult sendFileData(std::size_t index, const UploadItem& item, std::int64_t offset, bool withHash,
        const UploadHandler& handler, Bytes& buffer);

    SyncClient m_conn;
    bool m_passwordVerified = false;
    bool m_refused = false;
};

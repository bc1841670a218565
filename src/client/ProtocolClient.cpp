#include "client/ProtocolClient.h"

#include <algorithm>

#include "client/RecordDecoder.h"
#include "wire/BitConverter.h"
#include "wire/BitHelper.h"
#include "wire/Protocol.h"

namespace {

// Reasons the server sends are short texts; a longer "message" at the place
// of a stream element is data that merely looks like an error packet.
constexpr std::int64_t kMaxErrorMessage = 64 * 1024;
constexpr std::size_t kDigestLength = 32;

Bytes encodePath(const std::string& path)
{
    return BitHelper::encodeString(std::string_view(path));
}

std::string dataString(const SyncClient::Reply& reply)
{
    const Bytes& d = reply.data;
    if (d.size() < 8 || static_cast<std::uint64_t>(BitConverter::toInt64(d.data())) != d.size() - 8)
        throw ProtocolError("the reply to command " + std::to_string(reply.code) + " is not one string");
    return std::string(d.begin() + 8, d.end());
}

bool dataBool(const SyncClient::Reply& reply)
{
    if (reply.data.size() != 1)
        throw ProtocolError("the reply to command " + std::to_string(reply.code) + " is not one boolean");
    return reply.data[0] != 0;
}

std::int64_t dataLong(const SyncClient::Reply& reply)
{
    if (reply.data.size() != 8)
        throw ProtocolError("the reply to command " + std::to_string(reply.code) + " is not one number");
    return BitConverter::toInt64(reply.data.data());
}

} // namespace

ProtocolClient::ProtocolClient()
{
    m_conn.setReadAhead(true);
}

void ProtocolClient::connect(const std::string& host, std::uint16_t port, std::chrono::milliseconds timeout)
{
    m_passwordVerified = false;
    m_refused = false;
    m_conn.connect(host, port, timeout);
}

void ProtocolClient::adopt(int fd)
{
    m_passwordVerified = false;
    m_refused = false;
    m_conn.adopt(fd);
}

void ProtocolClient::setPasswordHash(std::string hash)
{
    if (hash != m_conn.passwordHash())
        m_passwordVerified = false;
    m_conn.setPasswordHash(std::move(hash));
}

// Every failure but a refused password leaves the connection out of step
// (or already ended by the server), so it is closed on the way out.
template <typename Body>
auto ProtocolClient::guarded(Body&& body) -> decltype(body())
{
    try {
        return body();
    } catch (const PasswordRequired&) {
        throw;
    } catch (...) {
        m_conn.close();
        throw;
    }
}

void ProtocolClient::send(std::uint8_t code, const Bytes& fields)
{
    if (!m_conn.isConnected())
        throw ClientError("not connected");
    m_conn.sendCommand(code, fields);
}

SyncClient::Reply ProtocolClient::awaitReply(std::uint8_t code, bool streamed)
{
    m_refused = false;
    int refusals = 0;
    for (;;) {
        auto reply = m_conn.readReply(streamed);
        if (reply.isError()) {
            m_conn.close();
            throw ServerError(reply.code, reply.message);
        }
        if (reply.code == Command::PasswordRequired) {
            // One refusal is followed by the real reply when the command needs
            // no authentication or the session has it already; a second one
            // means the command was skipped, and any fields sent after the
            // password are being read as commands.
            m_refused = true;
            if (++refusals < 2)
                continue;
            m_conn.close();
            throw PasswordRequired(code);
        }
        if (reply.code == Command::Invalid && code != Command::Invalid) {
            m_conn.close();
            throw UnknownCommand(code);
        }
        if (reply.code != code)
            throw ProtocolError("expected the reply to command " + std::to_string(code) + ", got code "
                + std::to_string(reply.code));
        if (reply.isEmptyHeader != streamed)
            throw ProtocolError("the reply to command " + std::to_string(code)
                + (streamed ? " should announce a stream" : " should carry data"));
        return reply;
    }
}

SyncClient::Reply ProtocolClient::exchange(std::uint8_t code, const Bytes& fields)
{
    if (code != Command::IdentifyHost && code != Command::StartSync && code != Command::FinishSync)
        verifyPassword();
    return guarded([&] {
        send(code, fields);
        return awaitReply(code);
    });
}

void ProtocolClient::verifyPassword()
{
    if (m_passwordVerified)
        return;
    startSync();
    if (m_refused)
        throw PasswordRequired(Command::StartSync);
}

std::string ProtocolClient::identifyHost()
{
    return dataString(exchange(Command::IdentifyHost));
}

bool ProtocolClient::startSync()
{
    bool ok = dataBool(exchange(Command::StartSync));
    if (!m_refused)
        m_passwordVerified = true;
    return ok;
}

std::string ProtocolClient::defaultPath()
{
    return dataString(exchange(Command::DefaultPath));
}

bool ProtocolClient::pathExists(const std::string& path)
{
    return dataBool(exchange(Command::PathExists, encodePath(path)));
}

std::vector<RemoteFolder> ProtocolClient::foldersInFolder(const std::string& path)
{
    return RecordDecoder::decodeFolderList(exchange(Command::FoldersInFolder, encodePath(path)).data);
}

std::vector<RemoteFile> ProtocolClient::filesInFolder(const std::string& path)
{
    return RecordDecoder::decodeFileList(exchange(Command::FilesInFolder, encodePath(path)).data);
}

void ProtocolClient::failOnErrorPacket(std::uint8_t code)
{
    // The error packet has no marker of its own: it is taken for one only
    // when its code, status, message and zero data length line up and the
    // connection ends right after it, as the server ends every session after
    // an error. Where a stream goes on, something always follows an element,
    // so the look ahead cannot stall on a healthy stream.
    auto head = m_conn.peek(10);
    if (head.size() < 10 || head[0] != code || head[1] != 1)
        return;
    auto length = BitConverter::toInt64(head.data() + 2);
    if (length < 0 || length > kMaxErrorMessage)
        return;
    auto total = 18 + static_cast<std::size_t>(length);
    auto whole = m_conn.peek(total + 1);
    if (whole.size() != total || BitConverter::toInt64(whole.data() + 10 + length) != 0)
        return;
    m_conn.close();
    throw ServerError(code, std::string(whole.begin() + 10, whole.begin() + 10 + length));
}

void ProtocolClient::failOnErrorPacketWithin(std::uint8_t code, std::chrono::milliseconds wait)
{
    auto saved = m_conn.timeout();
    m_conn.setTimeout(wait);
    try {
        failOnErrorPacket(code);
    } catch (const ServerError&) {
        throw;
    } catch (const ClientError&) {
    }
    m_conn.setTimeout(saved);
}

Bytes ProtocolClient::readRecordBody(std::uint8_t code)
{
    failOnErrorPacket(code);
    auto length = m_conn.readLong();
    if (length < RecordDecoder::kFolderEndBodyLength || length > RecordDecoder::kMaxRecordBodyLength)
        throw ProtocolError("a record of " + std::to_string(length) + " bytes is out of place in the reply to command "
            + std::to_string(code));
    return m_conn.readExact(static_cast<std::size_t>(length));
}

RemoteFile ProtocolClient::readFileRecord(std::uint8_t code)
{
    return RecordDecoder::decodeFileBody(readRecordBody(code));
}

std::string ProtocolClient::readDigest(std::uint8_t code)
{
    failOnErrorPacket(code);
    auto digest = m_conn.readString(kDigestLength);
    if (digest.size() != kDigestLength)
        throw ProtocolError("a digest of " + std::to_string(digest.size()) + " characters");
    return digest;
}

void ProtocolClient::allFilesInFolder(const std::string& path, bool withHash, const TreeHandler& handler)
{
    verifyPassword();
    guarded([&] {
        Bytes fields = encodePath(path);
        fields += BitHelper::encodeBool(withHash);
        send(Command::AllFilesInFolder, fields);
        awaitReply(Command::AllFilesInFolder, true);
        for (;;) {
            auto record = RecordDecoder::decodeRecordBody(readRecordBody(Command::AllFilesInFolder));
            if (auto* folder = std::get_if<RemoteFolder>(&record)) {
                if (RecordDecoder::isEndMarker(*folder))
                    return;
                if (handler.onFolder)
                    handler.onFolder(*folder);
            } else if (handler.onFile) {
                handler.onFile(std::get<RemoteFile>(record));
            }
        }
    });
}

void ProtocolClient::receiveFileData(std::size_t index, std::int64_t length, const DownloadHandler& handler, Bytes& buffer)
{
    // A file that cannot be opened is answered by an error packet where its
    // data would be, after its record has gone out.
    if (length > 0)
        failOnErrorPacket(Command::DownloadFiles);
    while (length > 0) {
        auto want = static_cast<std::size_t>(std::min<std::int64_t>(length, static_cast<std::int64_t>(buffer.size())));
        auto got = m_conn.readSome(buffer.data(), want);
        if (got == 0)
            throw ClientError("the server closed the connection in the middle of a file");
        if (handler.onData)
            handler.onData(index, buffer.data(), got);
        length -= static_cast<std::int64_t>(got);
    }
}

void ProtocolClient::downloadFiles(const std::vector<DownloadItem>& items, bool withHash, const DownloadHandler& handler)
{
    verifyPassword();
    guarded([&] {
        Bytes fields = BitHelper::encodeLongLong(static_cast<std::int64_t>(items.size()));
        for (const auto& item : items) {
            fields += encodePath(item.path);
            fields += BitHelper::encodeLongLong(item.offset);
        }
        fields += BitHelper::encodeBool(withHash);
        send(Command::DownloadFiles, fields);
        awaitReply(Command::DownloadFiles, true);
        Bytes buffer(Protocol::kChunkSize);
        for (std::size_t i = 0; i < items.size(); ++i) {
            try {
                receiveFile(i, items[i], withHash, handler, buffer);
            } catch (const ServerError& e) {
                // An error packet in a file's place is the server's answer
                // about that file; one that says the connection failed is not.
                if (e.isConnectionFailure() || e.item())
                    throw;
                throw ServerError(e.code(), e.message(), i);
            }
        }
        if (!RecordDecoder::isEndMarker(readFileRecord(Command::DownloadFiles)))
            throw ProtocolError("the download sent more files than were asked for");
    });
}

void ProtocolClient::receiveFile(
    std::size_t index, const DownloadItem& item, bool withHash, const DownloadHandler& handler, Bytes& buffer)
{
    auto record = readFileRecord(Command::DownloadFiles);
    if (RecordDecoder::isEndMarker(record)) {
        // A path the server cannot name (not UTF-8) gets a record with every
        // field empty, which reads like the end marker, then at once an
        // error packet; a stream that really ended has nothing after it.
        failOnErrorPacketWithin(Command::DownloadFiles, std::chrono::seconds(2));
        throw ProtocolError("the download ended after " + std::to_string(index) + " files");
    }
    auto toCome = std::max<std::int64_t>(0, static_cast<std::int64_t>(record.size) - item.offset);
    if (handler.onFile)
        handler.onFile(index, record, toCome);
    receiveFileData(index, toCome, handler, buffer);
    // The server opens a file only after its record has gone out: an empty
    // or fully resumed file is known to be there only once the stream goes
    // on past it without an error packet.
    std::string digest = withHash ? readDigest(Command::DownloadFiles) : std::string();
    if (!withHash)
        failOnErrorPacket(Command::DownloadFiles);
    if (handler.onFileDone)
        handler.onFileDone(index, digest);
}

std::vector<std::string> ProtocolClient::remoteDigests(const std::vector<DownloadItem>& items)
{
    std::vector<std::string> digests(items.size());
    std::vector<bool> sizeMatches(items.size(), false);
    DownloadHandler handler;
    handler.onFile = [&](std::size_t at, const RemoteFile& record, std::int64_t) {
        sizeMatches[at] = static_cast<std::int64_t>(record.size) == items[at].offset;
    };
    handler.onFileDone = [&](std::size_t at, const std::string& digest) {
        if (sizeMatches[at])
            digests[at] = digest;
    };
    downloadFiles(items, true, handler);
    return digests;
}

ProtocolClient::UploadResult ProtocolClient::sendFileData(std::size_t index, const UploadItem& item,
    std::int64_t offset, bool withHash, const UploadHandler& handler, Bytes& buffer)
{
    UploadResult result;
    result.offset = offset;
    const std::int64_t total = std::max<std::int64_t>(0, item.size - offset);
    for (std::int64_t sent = 0; sent < total;) {
        auto want = static_cast<std::size_t>(std::min<std::int64_t>(total - sent, static_cast<std::int64_t>(buffer.size())));
        auto got = handler.read(index, offset + sent, buffer.data(), want);
        if (got == 0 || got > want)
            throw ClientError("the local data for " + item.path + " ended " + std::to_string(total - sent)
                + " bytes early");
        try {
            m_conn.sendRaw(buffer.data(), got);
        } catch (const ClientError&) {
            // The server may have stopped reading because it failed; its
            // error packet says why better than a broken pipe does.
            failOnErrorPacketWithin(Command::UploadFiles, std::chrono::seconds(2));
            throw;
        }
        sent += static_cast<std::int64_t>(got);
        if (handler.onProgress)
            handler.onProgress(index, sent, total);
    }
    // The received count is checked against what was sent before anything
    // else is tried: after the last file nothing follows it to look ahead at.
    auto count = m_conn.peek(8);
    if (count.size() == 8 && BitConverter::toInt64(count.data()) != total)
        failOnErrorPacket(Command::UploadFiles);
    result.received = m_conn.readLong();
    if (result.received != total)
        throw ProtocolError("the server took " + std::to_string(result.received) + " bytes of " + item.path
            + " where " + std::to_string(total) + " were sent");
    if (withHash)
        result.digest = readDigest(Command::UploadFiles);
    return result;
}

std::vector<ProtocolClient::UploadResult> ProtocolClient::uploadFiles(
    const std::vector<UploadItem>& items, bool withHash, const UploadHandler& handler)
{
    verifyPassword();
    return guarded([&] {
        Bytes fields = BitHelper::encodeBool(withHash);
        fields += BitHelper::encodeLongLong(static_cast<std::int64_t>(items.size()));
        for (const auto& item : items) {
            fields += encodePath(item.path);
            fields += BitHelper::encodeLongLong(item.size);
            fields += BitHelper::encodeLongLong(item.modified);
            if (withHash)
                fields += encodePath(item.digest);
        }
        send(Command::UploadFiles, fields);
        auto reply = awaitReply(Command::UploadFiles);
        if (reply.data.size() != 8 * items.size())
            throw ProtocolError("the server sent " + std::to_string(reply.data.size() / 8) + " offsets for "
                + std::to_string(items.size()) + " files");
        std::vector<std::int64_t> offsets;
        for (std::size_t i = 0; i < items.size(); ++i)
            offsets.push_back(BitConverter::toInt64(reply.data.data() + 8 * i));
        if (handler.onOffsets)
            handler.onOffsets(offsets);
        std::vector<UploadResult> results;
        Bytes buffer(items.empty() ? 0 : Protocol::kChunkSize);
        for (std::size_t i = 0; i < items.size(); ++i) {
            results.push_back(sendFileData(i, items[i], offsets[i], withHash, handler, buffer));
            if (handler.onFileDone)
                handler.onFileDone(i, results.back());
        }
        return results;
    });
}

bool ProtocolClient::batch(std::uint8_t code, const Bytes& items, std::size_t count)
{
    Bytes fields = BitHelper::encodeLongLong(static_cast<std::int64_t>(count));
    fields += items;
    return dataBool(exchange(code, fields));
}

bool ProtocolClient::createDirectories(const std::vector<std::string>& paths)
{
    Bytes items;
    for (const auto& p : paths)
        items += encodePath(p);
    return batch(Command::CreateDirectories, items, paths.size());
}

bool ProtocolClient::deleteFiles(const std::vector<std::string>& paths)
{
    Bytes items;
    for (const auto& p : paths)
        items += encodePath(p);
    return batch(Command::DeleteFiles, items, paths.size());
}

bool ProtocolClient::deleteFolders(const std::vector<std::string>& paths)
{
    Bytes items;
    for (const auto& p : paths)
        items += encodePath(p);
    return batch(Command::DeleteFolders, items, paths.size());
}

bool ProtocolClient::renameFiles(const std::vector<std::pair<std::string, std::string>>& renames)
{
    Bytes items;
    for (const auto& [from, to] : renames) {
        items += encodePath(from);
        items += encodePath(to);
    }
    return batch(Command::RenameFiles, items, renames.size());
}

std::int64_t ProtocolClient::freeSpace(const std::string& path)
{
    return dataLong(exchange(Command::FreeSpace, encodePath(path)));
}

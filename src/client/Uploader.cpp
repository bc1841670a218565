#include "client/Uploader.h"

#include <filesystem>

#include "client/LocalFile.h"
#include "wire/Digest.h"

Uploader::Uploader(ProtocolClient& client, bool withDigests)
    : m_client(client)
    , m_withDigests(withDigests)
{
}

std::string Uploader::remotePath(const std::string& folder, const std::string& name)
{
    if (!folder.empty() && folder.back() == '/')
        return folder + name;
    return folder + "/" + name;
}

std::vector<Uploader::Outcome> Uploader::send(
    const std::vector<std::string>& locals, const std::string& remoteFolder, TransferProgress* progress)
{
    std::vector<Outcome> outcomes(locals.size());
    std::vector<std::size_t> which;
    std::vector<ProtocolClient::UploadItem> items;
    for (std::size_t i = 0; i < locals.size(); ++i) {
        Outcome& out = outcomes[i];
        out.local = locals[i];
        auto name = std::filesystem::path(locals[i]).filename().string();
        out.remote = remotePath(remoteFolder, name);
        auto size = LocalFile::sizeOf(locals[i]);
        if (size < 0 || name.empty()) {
            out.error = "not a readable file: " + locals[i];
            continue;
        }
        ProtocolClient::UploadItem item{out.remote, size, LocalFile::modifiedOf(locals[i]), {}};
        if (m_withDigests)
            item.digest = Digest::md5OfFile(locals[i]);
        items.push_back(item);
        which.push_back(i);
    }
    if (items.empty())
        return outcomes;

    std::size_t openIndex = items.size();
    std::vector<bool> done(items.size(), false);
    LocalFile file;
    ProtocolClient::UploadHandler handler;
    handler.onOffsets = [&](const std::vector<std::int64_t>& offsets) {
        for (std::size_t at = 0; at < offsets.size(); ++at)
            outcomes[which[at]].resumedFrom = offsets[at];
    };
    handler.read = [&](std::size_t at, std::int64_t position, std::uint8_t* buffer, std::size_t length) {
        if (openIndex != at) {
            file = LocalFile(outcomes[which[at]].local, LocalFile::Mode::Read);
            openIndex = at;
            if (progress)
                progress->start(std::filesystem::path(outcomes[which[at]].local).filename().string(), position, items[at].size);
        }
        return file.readAt(position, buffer, length);
    };
    handler.onProgress = [&](std::size_t at, std::int64_t sent, std::int64_t) {
        outcomes[which[at]].sent = sent;
        if (progress)
            progress->update(outcomes[which[at]].resumedFrom + sent);
    };
    handler.onFileDone = [&](std::size_t at, const ProtocolClient::UploadResult& result) {
        Outcome& out = outcomes[which[at]];
        done[at] = true;
        file.close();
        if (progress && openIndex == at)
            progress->finish();
        out.sent = result.received;
        if (!m_withDigests)
            return;
        out.verified = result.digest == items[at].digest;
        if (!out.verified)
            out.error = "the stored file does not match (" + items[at].digest + " here, " + result.digest + " there)";
    };
    try {
        m_client.uploadFiles(items, m_withDigests, handler);
    } catch (const ServerError& e) {
        if (progress)
            progress->finish();
        // The server ends the session after an error: no file after the
        // last finished one has arrived.
        for (std::size_t at = 0; at < items.size(); ++at)
            if (!done[at])
                outcomes[which[at]].error = e.message().empty() ? e.what() : e.message();
    }
    return outcomes;
}

#include "client/Downloader.h"

#include <filesystem>
#include <algorithm>
#include <optional>

#include "client/LocalFile.h"
#include "wire/Digest.h"
#include "wire/Paths.h"

// One remote file on its way to its local copy.
struct Downloader::Job {
    Outcome outcome;
    std::int64_t offset = 0;
    RemoteFile record;
    LocalFile file;
    bool done = false;
    // The local copy is longer than the remote file, or a resumed copy
    // failed its digest: fetch it again from the first byte.
    bool again = false;
};

namespace {

std::string localPathFor(const std::string& remote, const std::string& folder)
{
    return (std::filesystem::path(folder) / Paths::lastPathComponent(remote)).string();
}

} // namespace

Downloader::Downloader(ProtocolClient& client, bool withDigests, std::function<void()> reconnect)
    : m_client(client)
    , m_withDigests(withDigests)
    , m_reconnect(std::move(reconnect))
{
}

std::vector<Downloader::Outcome> Downloader::fetch(
    const std::vector<std::string>& remotes, const std::string& folder, TransferProgress* progress)
{
    std::filesystem::create_directories(folder);
    std::vector<Job> jobs(remotes.size());
    std::vector<std::size_t> which;
    for (std::size_t i = 0; i < remotes.size(); ++i) {
        Job& job = jobs[i];
        job.outcome.remote = remotes[i];
        job.outcome.local = localPathFor(remotes[i], folder);
        if (std::filesystem::is_directory(job.outcome.local)) {
            job.outcome.error = "a local folder is in the way: " + job.outcome.local;
            continue;
        }
        job.offset = std::max<std::int64_t>(0, LocalFile::sizeOf(job.outcome.local));
        job.outcome.resumedFrom = job.offset;
        which.push_back(i);
    }
    runBatchAndRecover(jobs, which, progress);
    std::vector<Outcome> outcomes;
    for (auto& job : jobs)
        outcomes.push_back(std::move(job.outcome));
    return outcomes;
}

void Downloader::runBatchAndRecover(std::vector<Job>& jobs, std::vector<std::size_t> which, TransferProgress* progress)
{
    std::vector<std::size_t> again;
    std::vector<ProtocolClient::DownloadItem> items;
    for (auto i : which)
        items.push_back({jobs[i].outcome.remote, jobs[i].offset});

    ProtocolClient::DownloadHandler handler;
    std::optional<std::size_t> current;
    handler.onFile = [&](std::size_t at, const RemoteFile& record, std::int64_t toCome) {
        Job& job = jobs[which[at]];
        current = at;
        job.record = record;
        job.again = job.offset > static_cast<std::int64_t>(record.size);
        if (progress && !job.again)
            progress->start(record.name, job.offset, job.offset + toCome);
    };
    handler.onData = [&](std::size_t at, const std::uint8_t* data, std::size_t length) {
        Job& job = jobs[which[at]];
        if (!job.file.isOpen())
            job.file = LocalFile(job.outcome.local, job.offset == 0 ? LocalFile::Mode::WriteTruncate : LocalFile::Mode::Write);
        job.file.writeAt(job.offset + job.outcome.received, data, length);
        job.outcome.received += static_cast<std::int64_t>(length);
        if (progress)
            progress->update(job.offset + job.outcome.received);
    };
    handler.onFileDone = [&](std::size_t at, const std::string& digest) {
        Job& job = jobs[which[at]];
        job.done = true;
        if (job.again) {
            again.push_back(which[at]);
            return;
        }
        // An empty remote file, or a copy already complete, sends no data.
        if (!job.file.isOpen())
            job.file = LocalFile(job.outcome.local, job.offset == 0 ? LocalFile::Mode::WriteTruncate : LocalFile::Mode::Write);
        job.file.close();
        LocalFile::setModified(job.outcome.local, job.record.modified);
        if (progress)
            progress->finish();
        if (!m_withDigests)
            return;
        auto local = Digest::md5OfFile(job.outcome.local);
        if (local == digest)
            job.outcome.verified = true;
        else if (job.offset > 0)
            again.push_back(which[at]);
        else
            job.outcome.error = "the copy does not match the server's digest (" + local + " here, " + digest + " there)";
    };

    try {
        m_client.downloadFiles(items, m_withDigests, handler);
    } catch (const ServerError& e) {
        // The server ends the session after an error packet; the file it
        // failed on is the one whose record came last, unless that one was
        // complete already.
        if (progress)
            progress->finish();
        std::string error = e.message().empty() ? e.what() : e.message();
        bool blamed = current && !jobs[which[*current]].done;
        std::size_t next = current ? *current + 1 : 0;
        for (std::size_t at = 0; at < which.size(); ++at) {
            Job& job = jobs[which[at]];
            job.file.close();
            if (!job.done && (at < next || !blamed || !m_reconnect))
                job.outcome.error = error;
        }
        if (!blamed || !m_reconnect || next >= which.size())
            return;
        m_reconnect();
        for (std::size_t at = next; at < which.size(); ++at)
            again.push_back(which[at]);
    }
    if (again.empty())
        return;
    for (auto i : again) {
        Job& job = jobs[i];
        if (job.done) {
            job.file.close();
            job.offset = 0;
            job.outcome.resumedFrom = 0;
            job.outcome.received = 0;
        }
        job.done = job.again = false;
    }
    runBatchAndRecover(jobs, again, progress);
}

#include "client/Uploader.h"

#include "wire/Digest.h"
#include "wire/Paths.h"

using Job = UploadJob;

namespace {

// The MD5 of no bytes at all.
constexpr const char* kDigestOfNothing = "d41d8cd98f00b204e9800998ecf8427e";

} // namespace

Uploader::Uploader(ProtocolClient& client, Options options, std::function<void()> connect)
    : TransferRun(client, options, std::move(connect))
{
}

std::string Uploader::remotePath(const std::string& folder, const std::string& name)
{
    if (!folder.empty() && folder.back() == '/')
        return folder + name;
    return folder + "/" + name;
}

std::string Uploader::digestOf(Job& job)
{
    if (job.digest.empty())
        job.digest = Digest::md5OfFile(job.outcome.local);
    return job.digest;
}

std::vector<Uploader::Outcome> Uploader::send(
    const std::vector<Item>& items, TransferProgress* progress, const std::function<void(const Outcome&)>& settled)
{
    std::vector<Job> jobs(items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
        Job& job = jobs[i];
        job.outcome.local = items[i].local;
        job.outcome.remote = items[i].remote;
        job.info = items[i].info;
        job.absent = items[i].absent;
        job.outcome.size = LocalFile::sizeOf(items[i].local);
        job.modified = LocalFile::modifiedOf(items[i].local);
        if (job.outcome.size < 0)
            job.fail("not a readable file: " + items[i].local);
    }
    return run(jobs, progress, settled);
}

void Uploader::plan(std::vector<Job>& jobs)
{
    describe(jobs);
    decide(jobs);
}

// What the server holds at each remote path, one listing per folder. A
// folder standing there would be replaced by the file: that is refused.
void Uploader::describe(std::vector<Job>& jobs)
{
    auto groups = byRemoteFolder(jobs, [](const Job& job) { return !job.finished && !job.info && !job.absent; });
    for (auto& [folder, group] : groups) {
        if (!m_client.pathExists(folder))
            continue; // the server makes the folders an upload needs
        auto files = m_client.filesInFolder(folder);
        for (Job* job : group) {
            if (auto found = listed(files, *job))
                job->info = *found;
            else if (m_client.pathExists(job->outcome.remote))
                job->fail("a folder on the server is in the way: " + job->outcome.remote);
        }
    }
}

void Uploader::decide(std::vector<Job>& jobs)
{
    std::vector<Job*> asked;
    for (auto& job : jobs) {
        if (job.finished)
            continue;
        job.needed = true;
        if (!job.info || static_cast<std::int64_t>(job.info->size) != job.outcome.size)
            continue;
        if (!m_options.verify) {
            job.needed = job.info->modified != job.modified;
        } else if (!job.info->hash.empty()) {
            job.needed = job.info->hash != digestOf(job);
        } else {
            asked.push_back(&job);
        }
    }
    if (!asked.empty()) {
        std::vector<std::string> digests(asked.size());
        try {
            digests = m_client.remoteDigests(digestRequests(asked));
        } catch (const ServerError&) {
            // Listed a moment ago and unreadable now: send it all the same.
            recover();
        }
        for (std::size_t at = 0; at < asked.size(); ++at)
            asked[at]->needed = digests[at].empty() || digests[at] != digestOf(*asked[at]);
    }
    for (auto& job : jobs) {
        if (job.finished)
            continue;
        if (!job.needed)
            job.finish(Result::UpToDate);
        else if (m_options.dryRun)
            job.finish(Result::WouldMove);
    }
}

// Refused before any file was under way: it is the command the server
// refuses, for all of them.
bool Uploader::refused(const std::vector<Job*>& which, const ServerError& error)
{
    for (Job* job : which)
        if (!job->finished && (!m_current || job == m_current))
            job->fail(error.what());
    return true;
}

// After a lost connection: a file whose bytes had all gone out may be in
// place already (the server moves it before it sends its digest); sending it
// again would only be cut off at the same point.
void Uploader::reconnected(const std::vector<Job*>& which)
{
    std::vector<Job*> asked;
    for (Job* job : which)
        if (!job->finished && job->offsetsKnown)
            asked.push_back(job);
    if (asked.empty())
        return;
    std::vector<std::string> digests(asked.size());
    try {
        // Asking for the digest of an absent file would end the session.
        for (std::size_t at = 0; at < asked.size(); ++at) {
            Job& job = *asked[at];
            auto folder = Paths::deletingLastPathComponent(job.outcome.remote);
            if (!m_client.pathExists(folder))
                return;
            bool there = false;
            for (const auto& f : m_client.filesInFolder(folder))
                there = there
                    || (f.name == Paths::lastPathComponent(job.outcome.remote)
                        && static_cast<std::int64_t>(f.size) == job.outcome.size
                        && (m_options.verify || f.modified == job.modified));
            if (!there)
                return;
        }
        if (m_options.verify)
            digests = m_client.remoteDigests(digestRequests(asked));
    } catch (const ServerError&) {
        recover();
        return;
    } catch (const ClientError&) {
        return; // lost again: the next attempt finds out
    }
    for (std::size_t at = 0; at < asked.size(); ++at) {
        if (m_options.verify && (digests[at].empty() || digests[at] != digestOf(*asked[at])))
            continue;
        asked[at]->outcome.verified = m_options.verify;
        asked[at]->finish(Result::Moved);
    }
}

void Uploader::runOnce(const std::vector<Job*>& which, TransferProgress* progress)
{
    std::vector<ProtocolClient::UploadItem> items;
    for (Job* job : which) {
        ProtocolClient::UploadItem item{job->outcome.remote, job->outcome.size, job->modified, {}};
        if (m_options.verify)
            item.digest = digestOf(*job);
        items.push_back(item);
    }
    LocalFile file;
    std::size_t openIndex = items.size();
    ProtocolClient::UploadHandler handler;
    handler.onOffsets = [&](const std::vector<std::int64_t>& offsets) {
        for (std::size_t at = 0; at < offsets.size(); ++at) {
            if (!which[at]->offsetsKnown)
                which[at]->outcome.resumedFrom = offsets[at];
            which[at]->offsetsKnown = true;
        }
        if (!which.empty())
            m_current = which.front();
    };
    handler.read = [&](std::size_t at, std::int64_t position, std::uint8_t* buffer, std::size_t length) {
        if (openIndex != at) {
            m_current = which[at];
            m_lastSent = 0;
            file = LocalFile(which[at]->outcome.local, LocalFile::Mode::Read);
            openIndex = at;
            if (progress)
                progress->start(Paths::lastPathComponent(which[at]->outcome.local), position, items[at].size);
        }
        return file.readAt(position, buffer, length);
    };
    handler.onProgress = [&](std::size_t at, std::int64_t sent, std::int64_t total) {
        m_moved += sent - m_lastSent;
        which[at]->outcome.moved += sent - m_lastSent;
        m_lastSent = sent;
        if (progress)
            progress->update(items[at].size - total + sent);
    };
    handler.onFileDone = [&](std::size_t at, const ProtocolClient::UploadResult& result) {
        Job& job = *which[at];
        file.close();
        m_lastSent = 0;
        if (progress)
            progress->finish();
        if (at + 1 < which.size())
            m_current = which[at + 1];
        if (m_options.verify && result.digest != job.digest) {
            // The server resumed from a partial file left by some other
            // content; the stored file is now whole, so a second upload
            // starts from the first byte.
            if (result.offset > 0 && !job.restarted) {
                job.restarted = true;
                job.outcome.resumedFrom = 0;
                return;
            }
            // A server that stores nothing (read only) answers the digest
            // of no file at all.
            if (result.digest == kDigestOfNothing && job.outcome.size > 0)
                job.fail("the server did not store it (the server may be read-only)");
            else
                job.fail("the stored file does not match (" + job.digest + " here, " + result.digest + " there)");
            return;
        }
        job.outcome.verified = m_options.verify;
        job.finish(Result::Moved);
        settle(job);
    };
    m_client.uploadFiles(items, m_options.verify, handler);
}

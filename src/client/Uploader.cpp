#include "client/Uploader.h"

#include <filesystem>
#include <map>

#include <fmt/format.h>

#include "client/LocalFile.h"
#include "client/Reconnect.h"
#include "wire/Digest.h"
#include "wire/Paths.h"

struct Uploader::Job {
    Outcome outcome;
    std::optional<RemoteFile> info;
    bool absent = false;
    std::int64_t modified = 0;
    std::string digest;       // of the local file, once needed
    bool needed = false;
    bool finished = false;
    bool reported = false;
    bool restarted = false;
    bool offsetsKnown = false;

    void fail(std::string why)
    {
        outcome.result = Result::Failed;
        outcome.error = std::move(why);
        finished = true;
    }
};

Uploader::Uploader(ProtocolClient& client, Options options, std::function<void()> connect)
    : m_client(client)
    , m_options(options)
    , m_connect(std::move(connect))
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
    m_settled = settled;
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
    describe(jobs);
    decide(jobs);
    reportSettled(jobs);
    if (!m_options.dryRun)
        transfer(jobs, progress);
    reportSettled(jobs);
    std::vector<Outcome> outcomes;
    for (auto& job : jobs)
        outcomes.push_back(std::move(job.outcome));
    return outcomes;
}

// What the server holds at each remote path, one listing per folder. A
// folder standing there would be replaced by the file: that is refused.
void Uploader::describe(std::vector<Job>& jobs)
{
    std::map<std::string, std::vector<Job*>> byFolder;
    for (auto& job : jobs)
        if (!job.finished && !job.info && !job.absent)
            byFolder[Paths::deletingLastPathComponent(job.outcome.remote)].push_back(&job);
    for (auto& [folder, group] : byFolder) {
        if (!m_client.pathExists(folder))
            continue; // the server makes the folders an upload needs
        auto files = m_client.filesInFolder(folder);
        for (Job* job : group) {
            auto name = Paths::lastPathComponent(job->outcome.remote);
            for (const auto& f : files)
                if (f.name == name)
                    job->info = f;
            if (!job->info && m_client.pathExists(job->outcome.remote))
                job->fail("a folder on the server is in the way: " + job->outcome.remote);
        }
    }
}

void Uploader::decide(std::vector<Job>& jobs)
{
    std::vector<Job*> asked;
    std::vector<ProtocolClient::DownloadItem> items;
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
            items.push_back({job.outcome.remote, job.outcome.size});
        }
    }
    if (!items.empty()) {
        std::size_t failedAt = 0;
        std::vector<std::string> digests(items.size());
        try {
            digests = m_client.remoteDigests(items, &failedAt);
        } catch (const ServerError&) {
            // Listed a moment ago and unreadable now: send it all the same.
            if (m_connect)
                m_connect();
        }
        for (std::size_t at = 0; at < asked.size(); ++at)
            asked[at]->needed = digests[at].empty() || digests[at] != digestOf(*asked[at]);
    }
    for (auto& job : jobs) {
        if (job.finished)
            continue;
        if (!job.needed) {
            job.outcome.result = Result::UpToDate;
            job.finished = true;
        } else if (m_options.dryRun) {
            job.outcome.result = Result::WouldSend;
            job.finished = true;
        }
    }
}

void Uploader::transfer(std::vector<Job>& jobs, TransferProgress* progress)
{
    Reconnect reconnect(m_connect, m_options.retries, progress);
    for (;; reportSettled(jobs)) {
        std::vector<Job*> which;
        for (auto& job : jobs)
            if (job.needed && !job.finished)
                which.push_back(&job);
        if (which.empty())
            return;
        const std::int64_t movedBefore = m_moved;
        bool settled = false;
        std::string lost;
        m_current = nullptr;
        try {
            runOnce(which, progress);
            continue;
        } catch (const ServerError& e) {
            lost = e.what();
            if (!e.isConnectionFailure()) {
                // Refused before any file was under way: it is the
                // command the server refuses, for all of them.
                for (Job* job : which)
                    if (!job->finished && (!m_current || job == m_current))
                        job->fail(e.what());
                settled = true;
            }
        } catch (const LocalFileError& e) {
            lost = e.what();
            m_client.close();
            if (m_current) {
                m_current->fail(e.what());
                settled = true;
            }
        } catch (const ProtocolError&) {
            throw;
        } catch (const PasswordRequired&) {
            throw;
        } catch (const ClientError& e) {
            lost = e.what();
        }
        bool left = false;
        for (Job* job : which)
            left = left || !job->finished;
        if (!left)
            return;
        if (m_current && !m_current->finished)
            ++m_current->outcome.reconnects;
        if (reconnect.again(m_moved > movedBefore || settled)) {
            settleFromServer(which);
            continue;
        }
        if (progress)
            progress->finish();
        for (Job* job : which)
            if (!job->finished)
                job->fail(fmt::format("connection lost ({}); gave up after {} attempts to reconnect; run the "
                                      "same command again to resume",
                    lost, reconnect.retries()));
        return;
    }
}

// After a lost connection: a file whose bytes had all gone out may be in
// place already (the server moves it before it sends its digest); sending it
// again would only be cut off at the same point.
void Uploader::settleFromServer(std::vector<Job*>& which)
{
    std::vector<Job*> asked;
    std::vector<ProtocolClient::DownloadItem> items;
    for (Job* job : which) {
        if (job->finished || !job->offsetsKnown)
            continue;
        asked.push_back(job);
        items.push_back({job->outcome.remote, job->outcome.size});
    }
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
            digests = m_client.remoteDigests(items);
    } catch (const ServerError& e) {
        if (m_connect)
            m_connect();
        return;
    } catch (const ClientError&) {
        return; // lost again: the next attempt finds out
    }
    for (std::size_t at = 0; at < asked.size(); ++at) {
        if (m_options.verify && (digests[at].empty() || digests[at] != digestOf(*asked[at])))
            continue;
        asked[at]->outcome.result = Result::Sent;
        asked[at]->outcome.verified = m_options.verify;
        asked[at]->finished = true;
    }
}

void Uploader::runOnce(std::vector<Job*>& which, TransferProgress* progress)
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
        which[at]->outcome.sent += sent - m_lastSent;
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
            job.fail("the stored file does not match (" + job.digest + " here, " + result.digest + " there)");
            return;
        }
        job.outcome.verified = m_options.verify;
        job.outcome.result = Result::Sent;
        job.finished = true;
        settle(job);
    };
    m_client.uploadFiles(items, m_options.verify, handler);
}

void Uploader::settle(Job& job)
{
    if (m_settled && job.finished && !job.reported) {
        job.reported = true;
        m_settled(job.outcome);
    }
}

void Uploader::reportSettled(std::vector<Job>& jobs)
{
    for (auto& job : jobs)
        settle(job);
}

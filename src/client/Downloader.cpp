#include "client/Downloader.h"

#include <filesystem>
#include <map>

#include <fmt/format.h>

#include "client/LocalFile.h"
#include "client/Reconnect.h"
#include "wire/Digest.h"
#include "wire/Paths.h"

namespace fs = std::filesystem;

struct Downloader::Job {
    Outcome outcome;
    RemoteFile info;
    bool needed = false;      // to be fetched
    bool probe = false;       // same size here: the server's digest decides
    bool finished = false;
    bool reported = false;    // nothing more to do this run
    bool restarted = false;   // already fetched once more from the first byte
    std::int64_t have = 0;    // bytes in the partial file
    LocalFile file;

    void fail(std::string why)
    {
        outcome.result = Result::Failed;
        outcome.error = std::move(why);
        finished = true;
        file.close();
    }
};

Downloader::Downloader(ProtocolClient& client, Options options, std::function<void()> connect)
    : m_client(client)
    , m_options(options)
    , m_connect(std::move(connect))
{
}

std::string Downloader::partialPath(const std::string& local)
{
    return local + kPartialSuffix;
}

std::vector<Downloader::Outcome> Downloader::fetch(
    const std::vector<Item>& items, TransferProgress* progress, const std::function<void(const Outcome&)>& settled)
{
    m_settled = settled;
    std::vector<Job> jobs(items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
        jobs[i].outcome.remote = items[i].remote;
        jobs[i].outcome.local = items[i].local;
        if (items[i].info)
            jobs[i].info = *items[i].info;
        else
            jobs[i].info.fullName.clear(); // looked up below
    }
    describe(jobs);
    decide(jobs);
    probe(jobs);
    planResume(jobs);
    reportSettled(jobs);
    if (!m_options.dryRun)
        transfer(jobs, progress);
    reportSettled(jobs);
    std::vector<Outcome> outcomes;
    for (auto& job : jobs)
        outcomes.push_back(std::move(job.outcome));
    return outcomes;
}

void Downloader::recover()
{
    if (m_connect)
        m_connect();
}

// Sizes and dates of the files not yet described, one listing per folder.
void Downloader::describe(std::vector<Job>& jobs)
{
    std::map<std::string, std::vector<Job*>> byFolder;
    for (auto& job : jobs)
        if (job.info.fullName.empty())
            byFolder[Paths::deletingLastPathComponent(job.outcome.remote)].push_back(&job);
    for (auto& [folder, group] : byFolder) {
        try {
            // Listing a folder that is not there would end the session.
            std::vector<RemoteFile> files;
            if (m_client.pathExists(folder))
                files = m_client.filesInFolder(folder);
            for (Job* job : group) {
                auto name = Paths::lastPathComponent(job->outcome.remote);
                for (const auto& f : files)
                    if (f.name == name)
                        job->info = f;
                if (!job->info.fullName.empty())
                    continue;
                job->fail(m_client.pathExists(job->outcome.remote) ? "a folder on the server (get -r fetches folders)"
                                                                   : "no such file on the server");
            }
        } catch (const ServerError& e) {
            for (Job* job : group)
                job->fail(e.what());
            recover();
        }
    }
}

void Downloader::decide(std::vector<Job>& jobs)
{
    for (auto& job : jobs) {
        if (job.finished)
            continue;
        const auto& local = job.outcome.local;
        job.outcome.size = static_cast<std::int64_t>(job.info.size);
        std::error_code ec;
        if (fs::is_directory(local, ec)) {
            job.fail("a local folder is in the way: " + local);
            continue;
        }
        if (LocalFile::sizeOf(local) == job.outcome.size) {
            if (!m_options.verify) {
                if (LocalFile::modifiedOf(local) == job.info.modified) {
                    job.outcome.result = Result::UpToDate;
                    job.finished = true;
                    continue;
                }
            } else if (job.info.hash.empty()) {
                job.probe = true;
                continue;
            } else if (Digest::md5OfFile(local) == job.info.hash) {
                job.outcome.result = Result::UpToDate;
                job.finished = true;
                continue;
            }
        }
        job.needed = true;
    }
}

// Asks the server for the digest of each remote file whose local namesake
// has its size, sending no data (the offset is the whole size).
void Downloader::probe(std::vector<Job>& jobs)
{
    std::vector<Job*> asked;
    std::vector<ProtocolClient::DownloadItem> items;
    for (auto& job : jobs)
        if (job.probe && !job.finished) {
            asked.push_back(&job);
            items.push_back({job.outcome.remote, job.outcome.size});
        }
    if (items.empty())
        return;
    std::vector<std::string> digests(items.size());
    std::size_t failedAt = 0;
    try {
        digests = m_client.remoteDigests(items, &failedAt);
    } catch (const ServerError& e) {
        asked[failedAt]->fail(e.what());
        recover();
    }
    for (std::size_t at = 0; at < asked.size(); ++at) {
        Job& job = *asked[at];
        if (job.finished)
            continue;
        if (!digests[at].empty() && Digest::md5OfFile(job.outcome.local) == digests[at]) {
            job.outcome.result = Result::UpToDate;
            job.finished = true;
            continue;
        }
        job.needed = true;
    }
}

void Downloader::planResume(std::vector<Job>& jobs)
{
    // Resume only from our own partial file, and only when it was written
    // for this very version of the remote file (its date is the remote
    // file's, set after every piece written) and is no longer than it.
    for (auto& job : jobs) {
        if (!job.needed || job.finished)
            continue;
        auto partial = partialPath(job.outcome.local);
        auto size = LocalFile::sizeOf(partial);
        if (size > 0 && size <= job.outcome.size && LocalFile::modifiedOf(partial) == job.info.modified)
            job.have = size;
        job.outcome.resumedFrom = job.have;
        if (m_options.dryRun) {
            job.outcome.result = Result::WouldFetch;
            job.finished = true;
        }
    }
}

void Downloader::transfer(std::vector<Job>& jobs, TransferProgress* progress)
{
    Reconnect reconnect(m_connect, m_options.retries, progress);
    for (;; reportSettled(jobs)) {
        std::vector<std::size_t> which;
        for (std::size_t i = 0; i < jobs.size(); ++i)
            if (jobs[i].needed && !jobs[i].finished)
                which.push_back(i);
        if (which.empty())
            return;
        const std::int64_t movedBefore = m_moved;
        bool settled = false; // the failure was one file's, and that file is done
        std::string lost;
        m_current = nullptr;
        try {
            runOnce(jobs, which, progress);
            continue;
        } catch (const ServerError& e) {
            // The server ends the session after an error packet; unless the
            // connection itself failed, it failed on the file whose record
            // came last.
            if (!e.isConnectionFailure())
                settled = failCurrent(jobs, which, e.what());
            lost = e.what();
        } catch (const LocalFileError& e) {
            settled = failCurrent(jobs, which, e.what());
            m_client.close();
            lost = e.what();
        } catch (const ProtocolError&) {
            throw;
        } catch (const PasswordRequired&) {
            throw;
        } catch (const ClientError& e) {
            lost = e.what();
        }
        for (auto& job : jobs)
            job.file.close();
        bool left = false;
        for (auto i : which)
            left = left || !jobs[i].finished;
        if (!left)
            return;
        if (m_current && !m_current->finished)
            ++m_current->outcome.reconnects;
        if (reconnect.again(m_moved > movedBefore || settled))
            continue;
        if (progress)
            progress->finish();
        for (auto i : which)
            if (!jobs[i].finished)
                jobs[i].fail(fmt::format("connection lost ({}); gave up after {} attempts to reconnect; run the "
                                         "same command again to resume", lost, reconnect.retries()));
        return;
    }
}

bool Downloader::failCurrent(std::vector<Job>& jobs, const std::vector<std::size_t>& which, const std::string& why)
{
    Job* job = m_current;
    if (!job) {
        for (auto i : which)
            if (!jobs[i].finished) {
                job = &jobs[i];
                break;
            }
    }
    if (!job)
        return false;
    job->fail(why);
    return true;
}

void Downloader::runOnce(std::vector<Job>& jobs, const std::vector<std::size_t>& which, TransferProgress* progress)
{
    std::vector<ProtocolClient::DownloadItem> items;
    for (auto i : which)
        items.push_back({jobs[i].outcome.remote, jobs[i].have});

    ProtocolClient::DownloadHandler handler;
    handler.onFile = [&](std::size_t at, const RemoteFile& record, std::int64_t) {
        Job& job = jobs[which[at]];
        m_current = &job;
        job.info.size = record.size;
        job.info.modified = record.modified;
        job.outcome.size = static_cast<std::int64_t>(record.size);
        if (job.have > job.outcome.size)
            return; // shrank on the server: fetched again whole below
        job.file = LocalFile(partialPath(job.outcome.local),
            job.have == 0 ? LocalFile::Mode::WriteTruncate : LocalFile::Mode::Write);
        job.file.setModified(job.info.modified);
        if (progress)
            progress->start(Paths::lastPathComponent(job.outcome.local), job.have, job.outcome.size);
    };
    handler.onData = [&](std::size_t at, const std::uint8_t* data, std::size_t length) {
        Job& job = jobs[which[at]];
        job.file.writeAt(job.have, data, length);
        // The date marks the partial file as belonging to this version of
        // the remote file; writing has just moved it.
        job.file.setModified(job.info.modified);
        job.have += static_cast<std::int64_t>(length);
        job.outcome.received += static_cast<std::int64_t>(length);
        m_moved += static_cast<std::int64_t>(length);
        if (progress)
            progress->update(job.have);
    };
    handler.onFileDone = [&](std::size_t at, const std::string& digest) {
        Job& job = jobs[which[at]];
        if (progress)
            progress->finish();
        m_current = nullptr;
        complete(job, digest);
        settle(job);
    };
    m_client.downloadFiles(items, m_options.verify, handler);
}

void Downloader::complete(Job& job, const std::string& digest)
{
    job.file.close();
    const auto partial = partialPath(job.outcome.local);
    std::error_code ec;
    if (job.have > job.outcome.size || (m_options.verify && Digest::md5OfFile(partial) != digest)) {
        // A resumed copy may have begun from bytes of an older version of
        // the file; one fetch from the first byte settles it.
        fs::remove(partial, ec);
        bool resumed = job.outcome.resumedFrom > 0 || job.have > job.outcome.size;
        job.have = 0;
        if (resumed && !job.restarted) {
            job.restarted = true;
            job.outcome.resumedFrom = 0;
            return;
        }
        job.fail("the copy does not match the server's digest " + digest + " (nothing was replaced)");
        return;
    }
    job.outcome.verified = m_options.verify;
    fs::rename(partial, job.outcome.local, ec);
    if (ec) {
        job.fail("cannot move " + partial + " into place: " + ec.message());
        return;
    }
    LocalFile::setModified(job.outcome.local, job.info.modified);
    job.outcome.result = Result::Fetched;
    job.finished = true;
}

void Downloader::settle(Job& job)
{
    if (m_settled && job.finished && !job.reported) {
        job.reported = true;
        m_settled(job.outcome);
    }
}

void Downloader::reportSettled(std::vector<Job>& jobs)
{
    for (auto& job : jobs)
        settle(job);
}

#include "client/Downloader.h"

#include <filesystem>

#include "client/Names.h"
#include "wire/Digest.h"
#include "wire/Paths.h"

namespace fs = std::filesystem;

using Job = DownloadJob;

Downloader::Downloader(ProtocolClient& client, Options options, std::function<void()> connect)
    : TransferRun(client, options, std::move(connect))
{
}

std::string Downloader::partialPath(const std::string& local)
{
    return local + kPartialSuffix;
}

std::vector<Downloader::Outcome> Downloader::fetch(
    const std::vector<Item>& items, TransferProgress* progress, const std::function<void(const Outcome&)>& settled)
{
    std::vector<Job> jobs(items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
        jobs[i].outcome.remote = items[i].remote;
        jobs[i].outcome.local = items[i].local;
        if (items[i].info)
            jobs[i].info = *items[i].info;
    }
    return run(jobs, progress, settled);
}

void Downloader::plan(std::vector<Job>& jobs)
{
    describe(jobs);
    decide(jobs);
    probe(jobs);
    planResume(jobs);
}

// Sizes and dates of the files not yet described, one listing per folder.
void Downloader::describe(std::vector<Job>& jobs)
{
    auto groups = byRemoteFolder(jobs, [](const Job& job) { return job.info.fullName.empty(); });
    for (auto& [folder, group] : groups) {
        try {
            // Listing a folder that is not there would end the session.
            std::vector<RemoteFile> files;
            if (m_client.pathExists(folder))
                files = m_client.filesInFolder(folder);
            for (Job* job : group) {
                if (auto found = listed(files, *job)) {
                    job->info = *found;
                    continue;
                }
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
        if (auto kind = LocalFile::kindOf(local); !kind.empty()) {
            job.fail(local + " is " + kind + " here, not a file: move it away, or get into another folder with --to");
            continue;
        }
        if (LocalFile::sizeOf(local) == job.outcome.size) {
            if (!m_options.verify) {
                if (LocalFile::modifiedOf(local) == job.info.modified) {
                    job.finish(Result::UpToDate);
                    continue;
                }
            } else if (job.info.hash.empty()) {
                job.probe = true;
                continue;
            } else if (Digest::md5OfFile(local) == job.info.hash) {
                job.finish(Result::UpToDate);
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
    for (auto& job : jobs)
        if (job.probe && !job.finished)
            asked.push_back(&job);
    if (asked.empty())
        return;
    std::vector<std::string> digests(asked.size());
    try {
        digests = m_client.remoteDigests(digestRequests(asked));
    } catch (const ServerError& e) {
        Job& job = *asked[e.item().value_or(0)];
        job.skip(whySkipped(job.outcome.remote, e));
        recover();
    }
    for (std::size_t at = 0; at < asked.size(); ++at) {
        Job& job = *asked[at];
        if (job.finished)
            continue;
        if (!digests[at].empty() && Digest::md5OfFile(job.outcome.local) == digests[at])
            job.finish(Result::UpToDate);
        else
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
        if (m_options.dryRun)
            job.finish(Result::WouldMove);
    }
}

void Downloader::runOnce(const std::vector<Job*>& which, TransferProgress* progress)
{
    std::vector<ProtocolClient::DownloadItem> items;
    for (Job* job : which)
        items.push_back({job->outcome.remote, job->have});
    // However this attempt ends, no partial file stays open past it.
    struct CloseFiles {
        const std::vector<Job*>& jobs;
        ~CloseFiles()
        {
            for (Job* job : jobs)
                job->file.close();
        }
    } closeFiles{which};

    ProtocolClient::DownloadHandler handler;
    handler.onFile = [&](std::size_t at, const RemoteFile& record, std::int64_t) {
        Job& job = *which[at];
        m_current = &job;
        job.info.size = record.size;
        job.info.modified = record.modified;
        job.outcome.size = static_cast<std::int64_t>(record.size);
        if (job.have > job.outcome.size)
            return; // shrank on the server: fetched again whole below
        if (progress)
            progress->start(Names::shown(Paths::lastPathComponent(job.outcome.local)), job.have, job.outcome.size);
    };
    handler.onData = [&](std::size_t at, const std::uint8_t* data, std::size_t length) {
        Job& job = *which[at];
        if (!job.file.isOpen())
            openPartial(job);
        job.file.writeAt(job.have, data, length);
        // The date marks the partial file as belonging to this version of
        // the remote file; writing has just moved it.
        job.file.setModified(job.info.modified);
        job.have += static_cast<std::int64_t>(length);
        job.outcome.moved += static_cast<std::int64_t>(length);
        m_moved += static_cast<std::int64_t>(length);
        if (progress)
            progress->update(job.have);
    };
    handler.onFileDone = [&](std::size_t at, const std::string& digest) {
        Job& job = *which[at];
        if (progress)
            progress->finish();
        m_current = nullptr;
        complete(job, digest);
        settle(job);
    };
    m_client.downloadFiles(items, m_options.verify, handler);
}

// The server sends an error packet for a file it cannot send, after its
// record: the file is skipped and the rest goes on.
bool Downloader::refused(const std::vector<Job*>& which, const ServerError& error)
{
    if (!error.item())
        return failCurrent(which, error.what());
    Job& job = *which[*error.item()];
    job.skip(whySkipped(job.outcome.remote, error));
    return true;
}

std::string Downloader::whySkipped(const std::string& remote, const ServerError& error)
{
    if (!Names::travels(remote))
        return Names::kCannotTravel;
    if (error.message().starts_with("Failed to open file"))
        return "the server could not open it";
    return "the server could not send it: " + error.message();
}

// Made when the first byte arrives, so that a file the server then cannot
// send leaves nothing behind here.
void Downloader::openPartial(Job& job)
{
    job.file = LocalFile(partialPath(job.outcome.local),
        job.have == 0 ? LocalFile::Mode::WriteTruncate : LocalFile::Mode::Write);
    job.file.setModified(job.info.modified);
}

void Downloader::complete(Job& job, const std::string& digest)
{
    if (!job.file.isOpen() && job.have == 0)
        openPartial(job); // an empty file: nothing came to make it
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
    job.finish(Result::Moved);
}

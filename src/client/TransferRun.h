#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "client/ClientErrors.h"
#include "client/LocalFile.h"
#include "client/ProtocolClient.h"
#include "client/Reconnect.h"
#include "client/TransferProgress.h"
#include "wire/Paths.h"

// What Downloader and Uploader share: the outcome of each file, the order a
// run takes, and the loop that moves what is left again after the server
// drops the connection. One thread.

// Skipped: the server answered that it cannot send this one file; the
// rest of the run goes on.
enum class TransferResult { Moved, UpToDate, WouldMove, Skipped, Failed };

struct TransferOutcome {
    std::string local;
    std::string remote;
    TransferResult result = TransferResult::Failed;
    std::int64_t size = 0;        // of the file at the source
    std::int64_t resumedFrom = 0; // bytes the destination already held
    std::int64_t moved = 0;       // bytes moved this time
    bool verified = false;        // digest compared and equal
    int reconnects = 0;           // connections lost while it moved
    std::string error;            // why it failed
};

struct TransferRunOptions {
    // Digests decide what is identical and check every copy; off, files of
    // equal size and date count as identical.
    bool verify = true;
    // Work out what would move and move nothing.
    bool dryRun = false;
    // Reconnections in a row that move no byte before giving up.
    int retries = 5;
};

// One file of a run; each direction adds what it needs to know.
struct TransferJob {
    TransferOutcome outcome;
    bool needed = false;    // to be moved
    bool finished = false;
    bool reported = false;  // handed to the caller's callback
    bool restarted = false; // already sent once more from the first byte

    void finish(TransferResult result)
    {
        outcome.result = result;
        finished = true;
    }
    void fail(std::string why)
    {
        outcome.error = std::move(why);
        finish(TransferResult::Failed);
    }
    void skip(std::string why)
    {
        outcome.error = std::move(why);
        finish(TransferResult::Skipped);
    }
};

template <typename Job>
class TransferRun {
protected:
    TransferRun(ProtocolClient& client, TransferRunOptions options, std::function<void()> connect)
        : m_client(client)
        , m_options(options)
        , m_connect(std::move(connect))
    {
    }
    virtual ~TransferRun() = default;

    // Looks at both sides and settles what need not move.
    virtual void plan(std::vector<Job>& jobs) = 0;
    // Moves `which` over the connection as it is; throws when it is lost.
    virtual void runOnce(const std::vector<Job*>& which, TransferProgress* progress) = 0;
    // The server answered an error packet (and ended the session); true
    // when that settled a file.
    virtual bool refused(const std::vector<Job*>& which, const ServerError& error)
    {
        return failCurrent(which, error.what());
    }
    // A fresh connection is open after one was lost.
    virtual void reconnected(const std::vector<Job*>& which) { (void)which; }

    // Plans, reports what is settled already, moves the rest (unless a dry
    // run) and reports it as each file settles.
    std::vector<TransferOutcome> run(
        std::vector<Job>& jobs, TransferProgress* progress, const std::function<void(const TransferOutcome&)>& settled)
    {
        m_settled = settled;
        plan(jobs);
        reportSettled(jobs);
        if (!m_options.dryRun)
            transfer(jobs, progress);
        reportSettled(jobs);
        std::vector<TransferOutcome> outcomes;
        for (auto& job : jobs)
            outcomes.push_back(std::move(job.outcome));
        return outcomes;
    }

    // The jobs `pick` chooses, by the remote folder they are in, so each
    // folder is listed once.
    template <typename Pick>
    static std::map<std::string, std::vector<Job*>> byRemoteFolder(std::vector<Job>& jobs, Pick pick)
    {
        std::map<std::string, std::vector<Job*>> groups;
        for (auto& job : jobs)
            if (pick(job))
                groups[Paths::deletingLastPathComponent(job.outcome.remote)].push_back(&job);
        return groups;
    }

    // The listed file of the job's remote name, if any.
    static const RemoteFile* listed(const std::vector<RemoteFile>& files, const Job& job)
    {
        const RemoteFile* found = nullptr;
        auto name = Paths::lastPathComponent(job.outcome.remote);
        for (const auto& f : files)
            if (f.name == name)
                found = &f;
        return found;
    }

    // What to ask the server's digest of: each remote file at its size here.
    static std::vector<ProtocolClient::DownloadItem> digestRequests(const std::vector<Job*>& jobs)
    {
        std::vector<ProtocolClient::DownloadItem> items;
        for (Job* job : jobs)
            items.push_back({job->outcome.remote, job->outcome.size});
        return items;
    }

    // Fails the file the last command was busy with, or else the first one
    // not finished; false when none is left.
    bool failCurrent(const std::vector<Job*>& which, const std::string& why)
    {
        Job* job = m_current;
        for (auto it = which.begin(); !job && it != which.end(); ++it)
            if (!(*it)->finished)
                job = *it;
        if (!job)
            return false;
        job->fail(why);
        return true;
    }

    void recover()
    {
        if (m_connect)
            m_connect();
    }

    // Hands a finished file not yet reported to the caller.
    void settle(Job& job)
    {
        if (m_settled && job.finished && !job.reported) {
            job.reported = true;
            m_settled(job.outcome);
        }
    }

    ProtocolClient& m_client;
    TransferRunOptions m_options;
    std::function<void()> m_connect;
    std::int64_t m_moved = 0;
    Job* m_current = nullptr; // the file the last command is busy with

private:
    void reportSettled(std::vector<Job>& jobs)
    {
        for (auto& job : jobs)
            settle(job);
    }

    void transfer(std::vector<Job>& jobs, TransferProgress* progress)
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
            bool settled = false; // the failure was one file's, and that file is done
            std::string lost;
            m_current = nullptr;
            try {
                runOnce(which, progress);
                continue;
            } catch (const ServerError& e) {
                if (!e.isConnectionFailure())
                    settled = refused(which, e);
                lost = e.what();
            } catch (const LocalFileError& e) {
                settled = failCurrent(which, e.what());
                m_client.close();
                lost = e.what();
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
                reconnected(which);
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

    std::function<void(const TransferOutcome&)> m_settled;
};

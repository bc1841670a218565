#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "client/ProtocolClient.h"
#include "client/TransferProgress.h"

// Fetches remote files to local paths through one ProtocolClient without
// ever leaving a wrong file behind: bytes go into a partial file of our own
// next to the destination (never a name the server uses for its own
// partials), a later run resumes only from that, and the destination is
// replaced only by a complete copy that passed the server's digest (unless
// verification is off). A destination identical to the remote file is left
// alone. When the server drops the connection (it ends every session a few
// minutes after it began) the fetch reconnects and resumes by itself, a
// bounded number of times. One thread.
class Downloader {
public:
    struct Options {
        // Check each copy against the server's MD5 before it replaces
        // anything; off, files of equal size and date count as identical.
        bool verify = true;
        // Work out what would move and move nothing.
        bool dryRun = false;
        // Reconnections in a row that move no byte before giving up.
        int retries = 5;
    };

    struct Item {
        std::string remote; // absolute path on the server
        std::string local;  // the destination file
        // What a listing of the server already said about the file (a tree
        // walk with digests); looked up when absent.
        std::optional<RemoteFile> info;
    };

    enum class Result { Fetched, UpToDate, WouldFetch, Failed };

    struct Outcome {
        std::string remote;
        std::string local;
        Result result = Result::Failed;
        std::int64_t size = 0;        // of the remote file
        std::int64_t resumedFrom = 0; // bytes the partial file already held
        std::int64_t received = 0;    // bytes fetched this time
        bool verified = false;        // digest compared and equal
        int reconnects = 0;           // connections lost while it moved
        std::string error;            // why it failed
    };

    // `connect` opens a fresh session on the client (after the server ended
    // one); without it a lost connection fails what is left.
    Downloader(ProtocolClient& client, Options options, std::function<void()> connect = {});

    // Each file's outcome also goes to `settled` (when given) as soon as it
    // is known, identical files first.
    std::vector<Outcome> fetch(const std::vector<Item>& items, TransferProgress* progress = nullptr,
        const std::function<void(const Outcome&)>& settled = {});

    // Where the bytes of `local` wait until the copy is complete.
    static std::string partialPath(const std::string& local);
    static constexpr const char* kPartialSuffix = ".zandrel-part";

private:
    struct Job;
    void describe(std::vector<Job>& jobs);
    void decide(std::vector<Job>& jobs);
    void probe(std::vector<Job>& jobs);
    void planResume(std::vector<Job>& jobs);
    void transfer(std::vector<Job>& jobs, TransferProgress* progress);
    void runOnce(std::vector<Job>& jobs, const std::vector<std::size_t>& which, TransferProgress* progress);
    void complete(Job& job, const std::string& digest);
    // Fails the file the last command was busy with; false when there was none.
    bool failCurrent(std::vector<Job>& jobs, const std::vector<std::size_t>& which, const std::string& why);
    // After the server ended the session over one command's failure.
    void recover();

    // Hands a finished file not yet reported (or every one) to m_settled.
    void settle(Job& job);
    void reportSettled(std::vector<Job>& jobs);

    ProtocolClient& m_client;
    std::function<void(const Outcome&)> m_settled;
    Options m_options;
    std::function<void()> m_connect;
    std::int64_t m_moved = 0;
    Job* m_current = nullptr; // whose record came last and is not complete
};

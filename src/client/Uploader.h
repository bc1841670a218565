#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "client/ProtocolClient.h"
#include "client/TransferProgress.h"

// Sends local files to remote paths through one ProtocolClient. A remote
// file identical to the local one (same size and digest) is left alone; the
// server resumes an interrupted upload by itself from its own partial file,
// and with verification on (the default) the server's digest of every stored
// file is compared with the local one. When the server drops the connection
// (it ends every session a few minutes after it began) the upload reconnects
// and goes on from the offset the server answers, a bounded number of
// times. One thread.
class Uploader {
public:
    struct Options {
        bool verify = true;
        bool dryRun = false;
        int retries = 5;
    };

    struct Item {
        std::string local;
        std::string remote; // absolute path on the server
        // What a listing of the server said about the remote file (a tree
        // walk with digests). Absent: looked up, unless `absent` says the
        // listing found nothing there.
        std::optional<RemoteFile> info;
        bool absent = false;
    };

    enum class Result { Sent, UpToDate, WouldSend, Failed };

    struct Outcome {
        std::string local;
        std::string remote;
        Result result = Result::Failed;
        std::int64_t size = 0;        // of the local file
        std::int64_t resumedFrom = 0; // bytes the server already held
        std::int64_t sent = 0;        // bytes sent this time
        bool verified = false;        // digest compared and equal
        int reconnects = 0;           // connections lost while it moved
        std::string error;
    };

    Uploader(ProtocolClient& client, Options options, std::function<void()> connect = {});

    // Each file's outcome also goes to `settled` (when given) as soon as it
    // is known, identical files first.
    std::vector<Outcome> send(const std::vector<Item>& items, TransferProgress* progress = nullptr,
        const std::function<void(const Outcome&)>& settled = {});

    // `folder` + "/" + `name`, without doubling a trailing slash.
    static std::string remotePath(const std::string& folder, const std::string& name);

private:
    struct Job;
    void describe(std::vector<Job>& jobs);
    void decide(std::vector<Job>& jobs);
    void transfer(std::vector<Job>& jobs, TransferProgress* progress);
    void runOnce(std::vector<Job*>& which, TransferProgress* progress);
    void settleFromServer(std::vector<Job*>& which);
    std::string digestOf(Job& job);

    // Hands a finished file not yet reported (or every one) to m_settled.
    void settle(Job& job);
    void reportSettled(std::vector<Job>& jobs);

    ProtocolClient& m_client;
    std::function<void(const Outcome&)> m_settled;
    Options m_options;
    std::function<void()> m_connect;
    std::int64_t m_moved = 0;
    std::int64_t m_lastSent = 0; // of the file on its way
    Job* m_current = nullptr; // whose data is on its way
};

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "client/ProtocolClient.h"
#include "client/TransferProgress.h"
#include "client/TransferRun.h"

// Sends local files to remote paths through one ProtocolClient. A remote
// file identical to the local one (same size and digest) is left alone; the
// server resumes an interrupted upload by itself from its own partial file,
// and with verification on (the default) the server's digest of every stored
// file is compared with the local one. When the server drops the connection
// (it ends every session a few minutes after it began) the upload reconnects
// and goes on from the offset the server answers, a bounded number of
// times. One thread.
// One file of an upload.
struct UploadJob : TransferJob {
    std::optional<RemoteFile> info; // what the server lists at the remote path
    bool absent = false;            // a listing found nothing there
    std::int64_t modified = 0;      // of the local file
    std::string digest;             // of the local file, once needed
    bool offsetsKnown = false;
};

class Uploader : private TransferRun<UploadJob> {
public:
    using Options = TransferRunOptions;
    using Outcome = TransferOutcome;
    using Result = TransferResult;

    struct Item {
        std::string local;
        std::string remote; // absolute path on the server
        // What a listing of the server said about the remote file (a tree
        // walk with digests). Absent: looked up, unless `absent` says the
        // listing found nothing there.
        std::optional<RemoteFile> info;
        bool absent = false;
    };

    Uploader(ProtocolClient& client, Options options, std::function<void()> connect = {});

    // Each file's outcome also goes to `settled` (when given) as soon as it
    // is known, identical files first.
    std::vector<Outcome> send(const std::vector<Item>& items, TransferProgress* progress = nullptr,
        const std::function<void(const Outcome&)>& settled = {});

    // `folder` + "/" + `name`, without doubling a trailing slash.
    static std::string remotePath(const std::string& folder, const std::string& name);

private:
    void plan(std::vector<UploadJob>& jobs) override;
    void describe(std::vector<UploadJob>& jobs);
    void decide(std::vector<UploadJob>& jobs);
    void runOnce(const std::vector<UploadJob*>& which, TransferProgress* progress) override;
    bool refused(const std::vector<UploadJob*>& which, const ServerError& error) override;
    void reconnected(const std::vector<UploadJob*>& which) override;
    std::string digestOf(UploadJob& job);

    std::int64_t m_lastSent = 0; // of the file on its way
};

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "client/LocalFile.h"
#include "client/ProtocolClient.h"
#include "client/TransferProgress.h"
#include "client/TransferRun.h"

// Fetches remote files to local paths through one ProtocolClient without
// ever leaving a wrong file behind: bytes go into a partial file of our own
// next to the destination (never a name the server uses for its own
// partials), a later run resumes only from that, and the destination is
// replaced only by a complete copy that passed the server's digest (unless
// verification is off). A destination identical to the remote file is left
// alone. When the server drops the connection (it ends every session a few
// minutes after it began) the fetch reconnects and resumes by itself, a
// bounded number of times. One thread.
// One file of a fetch.
struct DownloadJob : TransferJob {
    RemoteFile info;       // what the server lists; fullName empty until known
    bool probe = false;    // same size here: the server's digest decides
    std::int64_t have = 0; // bytes in the partial file
    LocalFile file;
};

class Downloader : private TransferRun<DownloadJob> {
public:
    using Options = TransferRunOptions;
    using Outcome = TransferOutcome;
    using Result = TransferResult;

    struct Item {
        std::string remote; // absolute path on the server
        std::string local;  // the destination file
        // What a listing of the server already said about the file (a tree
        // walk with digests); looked up when absent.
        std::optional<RemoteFile> info;
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
    // Why the server could not send `remote`, from its error packet.
    static std::string whySkipped(const std::string& remote, const ServerError& error);

private:
    void plan(std::vector<DownloadJob>& jobs) override;
    void describe(std::vector<DownloadJob>& jobs);
    void decide(std::vector<DownloadJob>& jobs);
    void probe(std::vector<DownloadJob>& jobs);
    void planResume(std::vector<DownloadJob>& jobs);
    void runOnce(const std::vector<DownloadJob*>& which, TransferProgress* progress) override;
    bool refused(const std::vector<DownloadJob*>& which, const ServerError& error) override;
    void openPartial(DownloadJob& job);
    void complete(DownloadJob& job, const std::string& digest);
};

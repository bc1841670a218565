#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "client/ProtocolClient.h"
#include "client/TransferProgress.h"

// Fetches remote files into a local folder through one ProtocolClient. A local
// file that is shorter than the remote one is taken as an interrupted copy
// and only the rest is fetched; one that is longer is fetched again whole.
// With digests on, each result is checked against the server's MD5 (and a
// resumed copy that fails the check is fetched again whole). One thread.
class Downloader {
public:
    struct Outcome {
        std::string remote;
        std::string local;
        std::int64_t resumedFrom = 0; // bytes already there
        std::int64_t received = 0;    // bytes fetched this time
        bool verified = false;        // digest compared and equal
        std::string error;            // empty when the file arrived
    };

    // `reconnect` (optional) opens a fresh session after the server has
    // ended one over a file it could not send, so the others still come.
    Downloader(ProtocolClient& client, bool withDigests, std::function<void()> reconnect = {});

    // Fetches every remote path into `folder` under its own name.
    std::vector<Outcome> fetch(const std::vector<std::string>& remotes, const std::string& folder,
        TransferProgress* progress = nullptr);

private:
    struct Job;
    // One download command for the jobs listed in `which`, then again for
    // those to fetch from the start and, after a fresh session, for those
    // the server never reached.
    void runBatchAndRecover(std::vector<Job>& jobs, std::vector<std::size_t> which, TransferProgress* progress);

    ProtocolClient& m_client;
    bool m_withDigests;
    std::function<void()> m_reconnect;
};

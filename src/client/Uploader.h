#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client/ProtocolClient.h"
#include "client/TransferProgress.h"

// Sends local files into a remote folder through one ProtocolClient. The
// server resumes an interrupted upload by itself (it says how much it already
// holds); with digests on, the server's MD5 of each stored file is compared
// with the local one. One thread.
class Uploader {
public:
    struct Outcome {
        std::string local;
        std::string remote;
        std::int64_t resumedFrom = 0; // bytes the server already held
        std::int64_t sent = 0;        // bytes sent this time
        bool verified = false;        // digest compared and equal
        std::string error;            // empty when the file arrived
    };

    Uploader(ProtocolClient& client, bool withDigests);

    // Sends every local file into `remoteFolder` under its own name. Local
    // files that cannot be read are reported and left out.
    std::vector<Outcome> send(const std::vector<std::string>& locals, const std::string& remoteFolder,
        TransferProgress* progress = nullptr);

    // `folder` + "/" + `name`, without doubling a trailing slash.
    static std::string remotePath(const std::string& folder, const std::string& name);

private:
    ProtocolClient& m_client;
    bool m_withDigests;
};

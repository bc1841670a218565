#pragma once

#include "session/SessionContext.h"

// The two commands that move file contents (codes 26 and 27): download
// sends files from given offsets, upload receives files into partial files
// it resumes from and moves them into place, both with digests on request.
// Receptions of all sessions take turns under one process-wide upload
// lock. Called on the session thread.
class FileTransfer {
public:
    explicit FileTransfer(SessionContext context) : m_ctx(context) {}

    void downloadFiles();
    void uploadFiles();

private:
    SessionContext m_ctx;
};

#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

#include "client/TransferProgress.h"

// A one-line progress display of a transfer, redrawn in place on a terminal
// (standard error by default) and silent when the stream is not a terminal.
class ProgressMeter : public TransferProgress {
public:
    explicit ProgressMeter(std::FILE* stream = stderr);
    // Draws even when the stream is not a terminal (for tests).
    ProgressMeter(std::FILE* stream, bool force);

    void start(const std::string& name, std::int64_t done, std::int64_t total) override;
    void update(std::int64_t done) override;
    void finish() override;
    void note(const std::string& text) override;
    void clear() override;

    // "512 B", "1.5 KiB", "3.2 GiB".
    static std::string formatSize(std::int64_t bytes);
    // "42s", "3m05s", "1h02m".
    static std::string formatDuration(double seconds);
    // The line as drawn, without the carriage return: name, percent, bytes,
    // and once the rate is known the rate and the time left; then the note.
    static std::string line(const std::string& name, std::int64_t done, std::int64_t total, double bytesPerSecond,
        const std::string& note = {});

private:
    void draw();

    std::FILE* m_stream;
    bool m_enabled;
    std::string m_name;
    std::string m_note;
    std::int64_t m_done = 0;
    std::int64_t m_total = 0;
    std::int64_t m_startDone = 0;
    std::chrono::steady_clock::time_point m_started;
    std::chrono::steady_clock::time_point m_lastDraw;
    std::chrono::steady_clock::time_point m_lastMove;
    bool m_active = false;
    // Something is drawn on the current terminal line.
    bool m_shown = false;
};

#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

// The one process-wide destination of log lines: the system log by default,
// standard error on request, a capturing sink in tests. Callable from any
// thread; each line is written whole.
class LogSink {
public:
    virtual ~LogSink() = default;
    virtual void write(std::string_view line) = 0;
};

// syslog(3), "%s" with the bare message.
class SyslogSink : public LogSink {
public:
    void write(std::string_view line) override;
};

// The bare message and a newline on standard error, nothing added.
class StderrSink : public LogSink {
public:
    void write(std::string_view line) override;
};

// Keeps every line for a test to look at.
class CapturingSink : public LogSink {
public:
    void write(std::string_view line) override;
    std::vector<std::string> lines() const;
    bool contains(std::string_view line) const;
    // Waits until the line has been written, or the time runs out.
    bool waitFor(std::string_view line, std::chrono::milliseconds timeout) const;
    void clear();

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_written;
    std::vector<std::string> m_lines;
};

namespace SystemLog {

// Installs the sink every later line goes to; null restores syslog.
void setSink(std::shared_ptr<LogSink> sink);
std::shared_ptr<LogSink> sink();
// Writes one line to the current sink, ungated.
void write(std::string_view line);

} // namespace SystemLog

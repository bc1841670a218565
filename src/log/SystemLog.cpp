#include "log/SystemLog.h"

#include <algorithm>
#include <cstdio>

#include <syslog.h>
#include <unistd.h>

void SyslogSink::write(std::string_view line)
{
    std::string text(line);
    ::syslog(LOG_NOTICE, "%s", text.c_str());
}

void StderrSink::write(std::string_view line)
{
    std::string text(line);
    text += '\n';
    // One write call per line keeps lines from interleaving across threads.
    const char* p = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        ssize_t n = ::write(STDERR_FILENO, p, left);
        if (n <= 0)
            break;
        p += n;
        left -= static_cast<std::size_t>(n);
    }
}

void CapturingSink::write(std::string_view line)
{
    {
        std::lock_guard lock(m_mutex);
        m_lines.emplace_back(line);
    }
    m_written.notify_all();
}

bool CapturingSink::waitFor(std::string_view line, std::chrono::milliseconds timeout) const
{
    std::unique_lock lock(m_mutex);
    return m_written.wait_for(lock, timeout, [&] {
        return std::find(m_lines.begin(), m_lines.end(), line) != m_lines.end();
    });
}

std::vector<std::string> CapturingSink::lines() const
{
    std::lock_guard lock(m_mutex);
    return m_lines;
}

bool CapturingSink::contains(std::string_view line) const
{
    std::lock_guard lock(m_mutex);
    return std::find(m_lines.begin(), m_lines.end(), line) != m_lines.end();
}

void CapturingSink::clear()
{
    std::lock_guard lock(m_mutex);
    m_lines.clear();
}

namespace SystemLog {

namespace {
std::mutex g_sinkMutex;
std::shared_ptr<LogSink>& current()
{
    static std::shared_ptr<LogSink> sink = std::make_shared<SyslogSink>();
    return sink;
}
} // namespace

void setSink(std::shared_ptr<LogSink> sink)
{
    std::lock_guard lock(g_sinkMutex);
    current() = sink ? std::move(sink) : std::make_shared<SyslogSink>();
}

std::shared_ptr<LogSink> sink()
{
    std::lock_guard lock(g_sinkMutex);
    return current();
}

void write(std::string_view line)
{
    sink()->write(line);
}

} // namespace SystemLog

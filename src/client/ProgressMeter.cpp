#include "client/ProgressMeter.h"

#include <algorithm>

#include <unistd.h>

#include <fmt/format.h>

namespace {
// Redrawing more often than this only costs time on slow terminals.
constexpr auto kRedrawInterval = std::chrono::milliseconds(100);
constexpr std::size_t kNameWidth = 32;
} // namespace

ProgressMeter::ProgressMeter(std::FILE* stream)
    : ProgressMeter(stream, ::isatty(::fileno(stream)) == 1)
{
}

ProgressMeter::ProgressMeter(std::FILE* stream, bool force)
    : m_stream(stream)
    , m_enabled(force)
{
}

std::string ProgressMeter::formatSize(std::int64_t bytes)
{
    static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024)
        return fmt::format("{} B", bytes);
    double value = static_cast<double>(bytes);
    int unit = 0;
    while (value >= 1024 && unit < 4) {
        value /= 1024;
        ++unit;
    }
    return fmt::format("{:.1f} {}", value, units[unit]);
}

std::string ProgressMeter::line(const std::string& name, std::int64_t done, std::int64_t total, double bytesPerSecond)
{
    int percent = total > 0 ? static_cast<int>(100 * std::min(done, total) / total) : 100;
    std::string shown = name.size() > kNameWidth ? "..." + name.substr(name.size() - (kNameWidth - 3)) : name;
    std::string text = fmt::format("{:<{}} {:>3}%  {} / {}", shown, kNameWidth, percent, formatSize(done), formatSize(total));
    if (bytesPerSecond > 0)
        text += fmt::format("  {}/s", formatSize(static_cast<std::int64_t>(bytesPerSecond)));
    return text;
}

void ProgressMeter::start(const std::string& name, std::int64_t done, std::int64_t total)
{
    m_name = name;
    m_done = m_startDone = done;
    m_total = total;
    m_started = m_lastDraw = m_lastMove = std::chrono::steady_clock::now();
    m_active = true;
    draw();
}

void ProgressMeter::update(std::int64_t done)
{
    m_done = done;
    m_lastMove = std::chrono::steady_clock::now();
    if (m_lastMove - m_lastDraw >= kRedrawInterval)
        draw();
}

void ProgressMeter::finish()
{
    if (!m_active)
        return;
    draw();
    if (m_enabled)
        std::fputc('\n', m_stream);
    m_active = false;
}

void ProgressMeter::draw()
{
    if (!m_enabled)
        return;
    auto now = std::chrono::steady_clock::now();
    m_lastDraw = now;
    // The rate is over the time bytes were moving: a digest computed after
    // the last byte does not slow the figure down.
    double seconds = std::chrono::duration<double>(m_lastMove - m_started).count();
    double rate = seconds > 0.2 ? static_cast<double>(m_done - m_startDone) / seconds : 0;
    // Clears to the end of the line so a shorter redraw leaves no tail.
    std::fprintf(m_stream, "\r%s\033[K", line(m_name, m_done, m_total, rate).c_str());
    std::fflush(m_stream);
}

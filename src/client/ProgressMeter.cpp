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

std::string ProgressMeter::formatDuration(double seconds)
{
    auto s = static_cast<std::int64_t>(seconds + 0.5);
    if (s < 60)
        return fmt::format("{}s", s);
    if (s < 3600)
        return fmt::format("{}m{:02}s", s / 60, s % 60);
    return fmt::format("{}h{:02}m", s / 3600, s % 3600 / 60);
}

std::string ProgressMeter::line(const std::string& name, std::int64_t done, std::int64_t total, double bytesPerSecond,
    const std::string& note)
{
    int percent = total > 0 ? static_cast<int>(100 * std::min(done, total) / total) : 100;
    std::string shown = name.size() > kNameWidth ? "..." + name.substr(name.size() - (kNameWidth - 3)) : name;
    std::string text = fmt::format("{:<{}} {:>3}%  {} / {}", shown, kNameWidth, percent, formatSize(done), formatSize(total));
    if (bytesPerSecond > 0) {
        text += fmt::format("  {}/s", formatSize(static_cast<std::int64_t>(bytesPerSecond)));
        if (done < total)
            text += "  " + formatDuration(static_cast<double>(total - done) / bytesPerSecond) + " left";
    }
    if (!note.empty())
        text += "  [" + note + "]";
    return text;
}

void ProgressMeter::start(const std::string& name, std::int64_t done, std::int64_t total)
{
    // The same file again after a reconnection keeps its note ("resumed").
    if (name != m_name)
        m_note.clear();
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
    if (!m_shown || m_lastMove - m_lastDraw >= kRedrawInterval)
        draw();
}

void ProgressMeter::note(const std::string& text)
{
    m_note = text;
    if (m_active)
        draw();
}

void ProgressMeter::finish()
{
    if (!m_active)
        return;
    // The finished line goes away: the per-file report says what happened.
    clear();
    m_active = false;
    m_note.clear();
    m_name.clear();
}

void ProgressMeter::clear()
{
    if (!m_enabled || !m_shown)
        return;
    std::fputs("\r\033[K", m_stream);
    std::fflush(m_stream);
    m_shown = false;
}

void ProgressMeter::draw()
{
    if (!m_enabled || !m_active)
        return;
    auto now = std::chrono::steady_clock::now();
    m_lastDraw = now;
    // The rate is over the time bytes were moving: a digest computed after
    // the last byte does not slow the figure down.
    double seconds = std::chrono::duration<double>(m_lastMove - m_started).count();
    double rate = seconds > 0.2 ? static_cast<double>(m_done - m_startDone) / seconds : 0;
    // Clears to the end of the line so a shorter redraw leaves no tail.
    std::fprintf(m_stream, "\r%s\033[K", line(m_name, m_done, m_total, rate, m_note).c_str());
    std::fflush(m_stream);
    m_shown = true;
}

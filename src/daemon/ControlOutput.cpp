#include "ControlOutput.h"

#include <ctime>

#include <fmt/format.h>

namespace ControlOutput {

std::string bytes(std::int64_t count)
{
    if (count < 1000)
        return fmt::format("{} B", count);
    const char* units[] = {"KB", "MB", "GB", "TB", "PB"};
    double value = static_cast<double>(count);
    int unit = -1;
    while (value >= 1000 && unit < 4) {
        value /= 1000;
        ++unit;
    }
    return value < 100 ? fmt::format("{:.1f} {}", value, units[unit]) : fmt::format("{:.0f} {}", value, units[unit]);
}

std::string date(std::int64_t secondsSince1970)
{
    if (secondsSince1970 <= 0)
        return "never";
    std::time_t t = static_cast<std::time_t>(secondsSince1970);
    std::tm local{};
    localtime_r(&t, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

std::string duration(std::int64_t seconds)
{
    if (seconds < 60)
        return fmt::format("{}s", seconds);
    if (seconds < 3600)
        return fmt::format("{}m {:02}s", seconds / 60, seconds % 60);
    if (seconds < 86400)
        return fmt::format("{}h {:02}m", seconds / 3600, seconds / 60 % 60);
    return fmt::format("{}d {}h", seconds / 86400, seconds / 3600 % 24);
}

} // namespace ControlOutput

#include "journal/When.h"

#include <cstdio>
#include <ctime>
#include <regex>

namespace When {

namespace {

std::optional<std::int64_t> age(const std::smatch& m, std::int64_t nowMs)
{
    std::int64_t count = std::stoll(m[1].str());
    const char unit = m[2].str()[0];
    std::int64_t unitMs = unit == 's' ? 1000 : unit == 'm' ? 60000 : unit == 'h' ? 3600000 : 86400000;
    return nowMs - count * unitMs;
}

// Local time; mktime works out daylight saving itself.
std::optional<std::int64_t> local(std::tm parts)
{
    parts.tm_isdst = -1;
    std::time_t t = std::mktime(&parts);
    if (t == static_cast<std::time_t>(-1))
        return std::nullopt;
    return static_cast<std::int64_t>(t) * 1000;
}

} // namespace

std::optional<std::int64_t> parse(const std::string& text, std::int64_t nowMs)
{
    static const std::regex ageForm(R"(-(\d{1,6})([smhd]))");
    static const std::regex timeForm(R"((\d{1,2}):(\d\d)(?::(\d\d))?)");
    static const std::regex dateForm(R"((\d{4})-(\d\d)-(\d\d)(?:[T ](\d{1,2}):(\d\d)(?::(\d\d))?)?)");
    std::smatch m;
    if (std::regex_match(text, m, ageForm))
        return age(m, nowMs);
    std::tm parts{};
    if (std::regex_match(text, m, timeForm)) {
        std::time_t now = static_cast<std::time_t>(nowMs / 1000);
        localtime_r(&now, &parts);
        parts.tm_hour = std::stoi(m[1].str());
        parts.tm_min = std::stoi(m[2].str());
        parts.tm_sec = m[3].matched ? std::stoi(m[3].str()) : 0;
    } else if (std::regex_match(text, m, dateForm)) {
        parts.tm_year = std::stoi(m[1].str()) - 1900;
        parts.tm_mon = std::stoi(m[2].str()) - 1;
        parts.tm_mday = std::stoi(m[3].str());
        parts.tm_hour = m[4].matched ? std::stoi(m[4].str()) : 0;
        parts.tm_min = m[5].matched ? std::stoi(m[5].str()) : 0;
        parts.tm_sec = m[6].matched ? std::stoi(m[6].str()) : 0;
        if (parts.tm_mon > 11 || parts.tm_mday < 1 || parts.tm_mday > 31)
            return std::nullopt;
    } else {
        return std::nullopt;
    }
    if (parts.tm_hour > 23 || parts.tm_min > 59 || parts.tm_sec > 60)
        return std::nullopt;
    return local(parts);
}

std::string localText(std::int64_t ms)
{
    std::time_t t = static_cast<std::time_t>(ms / 1000);
    std::tm parts{};
    localtime_r(&t, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

} // namespace When

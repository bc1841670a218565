#include "settings/NumberText.h"

#include <cctype>
#include <cstring>
#include <limits>

namespace NumberText {

namespace {

std::size_t skipBlanks(const std::string& text, std::size_t i)
{
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])))
        ++i;
    return i;
}

} // namespace

std::int64_t leadingInteger(const std::string& text)
{
    std::size_t i = skipBlanks(text, 0);
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-'))
        negative = text[i++] == '-';
    constexpr std::int64_t limit = std::numeric_limits<std::int64_t>::max();
    std::int64_t value = 0;
    for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
        int digit = text[i] - '0';
        if (value > (limit - digit) / 10)
            return negative ? std::numeric_limits<std::int64_t>::min() : limit;
        value = value * 10 + digit;
    }
    return negative ? -value : value;
}

bool leadingTruth(const std::string& text)
{
    std::size_t i = skipBlanks(text, 0);
    if (i < text.size() && (text[i] == '+' || text[i] == '-'))
        ++i;
    while (i < text.size() && text[i] == '0')
        ++i;
    return i < text.size() && text[i] != '\0' && std::strchr("YyTt123456789", text[i]) != nullptr;
}

std::string trim(const std::string& s)
{
    std::size_t begin = 0;
    std::size_t end = s.size();
    while (begin < end && std::isspace(static_cast<unsigned char>(s[begin])))
        ++begin;
    while (end > begin && std::isspace(static_cast<unsigned char>(s[end - 1])))
        --end;
    return s.substr(begin, end - begin);
}

} // namespace NumberText

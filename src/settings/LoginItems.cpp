#include "settings/LoginItems.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "settings/FileWrite.h"
#include "wire/Paths.h"
#include "settings/NumberText.h"

namespace LoginItems {

namespace {

// Characters that make an Exec argument need quotes.
constexpr const char* kReserved = " \t\n\"'\\><~|&;$*?#()`";
// Characters that need a backslash inside a quoted Exec argument.
constexpr const char* kEscapedInQuotes = "\"`$\\";

bool contains(const char* set, char c)
{
    return c != '\0' && std::strchr(set, c) != nullptr;
}

// The string-value escapes of desktop entries, applied before the Exec
// quoting rules when read and after them when written.
std::string escapeString(const std::string& s)
{
    std::string out;
    for (char c : s) {
        switch (c) {
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        case '\r': out += "\\r"; break;
        default: out += c;
        }
    }
    return out;
}

std::string unescapeString(const std::string& s)
{
    std::string out;
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '\\' || i + 1 == s.size()) {
            out += s[i];
            continue;
        }
        switch (char next = s[++i]) {
        case 's': out += ' '; break;
        case 'n': out += '\n'; break;
        case 't': out += '\t'; break;
        case 'r': out += '\r'; break;
        case '\\': out += '\\'; break;
        default: out += '\\'; out += next;
        }
    }
    return out;
}

// "%" starts a field code in Exec; a literal one is doubled.
std::string doublePercent(const std::string& s)
{
    std::string out;
    for (char c : s) {
        out += c;
        if (c == '%')
            out += '%';
    }
    return out;
}

std::string undoublePercent(const std::string& s)
{
    std::string out;
    for (std::size_t i = 0; i < s.size(); ++i) {
        out += s[i];
        if (s[i] == '%' && i + 1 < s.size() && s[i + 1] == '%')
            ++i;
    }
    return out;
}

} // namespace

std::string entryPath()
{
    std::string config;
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && xdg[0] == '/')
        config = xdg;
    else
        config = Paths::homeDirectory() + "/.config";
    return config + "/autostart/ZandrelSync.desktop";
}

std::string execValue(const std::string& programPath)
{
    std::string arg = doublePercent(programPath);
    bool needsQuotes = arg.empty();
    for (char c : arg)
        needsQuotes = needsQuotes || contains(kReserved, c);
    if (needsQuotes) {
        std::string quoted = "\"";
        for (char c : arg) {
            if (contains(kEscapedInQuotes, c))
                quoted += '\\';
            quoted += c;
        }
        arg = quoted + "\"";
    }
    return escapeString(arg);
}

std::optional<std::string> execProgram(const std::string& value)
{
    const std::string line = unescapeString(value);
    std::size_t i = 0;
    while (i < line.size() && std::isspace(static_cast<unsigned char>(line[i])))
        ++i;
    if (i == line.size())
        return std::nullopt;
    std::string arg;
    if (line[i] == '"') {
        for (++i; i < line.size() && line[i] != '"'; ++i) {
            if (line[i] == '\\' && i + 1 < line.size())
                ++i;
            arg += line[i];
        }
    } else {
        for (; i < line.size() && !std::isspace(static_cast<unsigned char>(line[i])); ++i)
            arg += line[i];
    }
    return undoublePercent(arg);
}

std::optional<std::string> entryProgram(const std::string& entryFile)
{
    std::ifstream in(entryFile);
    std::string line;
    bool inMainGroup = false;
    std::optional<std::string> exec;
    bool hidden = false;
    while (std::getline(in, line)) {
        line = NumberText::trim(line);
        if (line.empty() || line[0] == '#')
            continue;
        if (line[0] == '[') {
            inMainGroup = line == "[Desktop Entry]";
            continue;
        }
        auto equals = line.find('=');
        if (!inMainGroup || equals == std::string::npos)
            continue;
        const std::string key = NumberText::trim(line.substr(0, equals));
        const std::string value = NumberText::trim(line.substr(equals + 1));
        if (key == "Exec")
            exec = value;
        else if (key == "Hidden")
            hidden = value == "true";
    }
    if (!exec || hidden)
        return std::nullopt;
    return execProgram(*exec);
}

bool writeEntry(const std::string& entryFile, const std::string& programPath)
{
    const std::string text = "[Desktop Entry]\n"
                             "Type=Application\n"
                             "Name=ZandrelSync\n"
                             "Exec=" + execValue(programPath) + "\n"
                             "Terminal=false\n";
    return FileWrite::replaceAtomically(entryFile, text, 0644);
}

} // namespace LoginItems

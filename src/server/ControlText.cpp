#include "server/ControlText.h"

#include <fmt/format.h>

namespace ControlText {

std::string line(const std::vector<std::string>& fields)
{
    std::string text;
    for (std::size_t i = 0; i < fields.size(); ++i) {
        if (i)
            text += '\t';
        for (char c : fields[i]) {
            switch (c) {
            case '\t': text += "\\t"; break;
            case '\n': text += "\\n"; break;
            case '\\': text += "\\\\"; break;
            default: text += c;
            }
        }
    }
    return text + '\n';
}

std::vector<std::string> fields(std::string_view line)
{
    std::vector<std::string> found(1);
    for (std::size_t i = 0; i < line.size(); ++i) {
        char c = line[i];
        if (c == '\t') {
            found.emplace_back();
        } else if (c == '\\' && i + 1 < line.size()) {
            char next = line[++i];
            found.back() += next == 't' ? '\t' : next == 'n' ? '\n' : next;
        } else {
            found.back() += c;
        }
    }
    return found;
}

std::vector<std::vector<std::string>> records(std::string_view text)
{
    std::vector<std::vector<std::string>> found;
    while (!text.empty()) {
        auto end = text.find('\n');
        found.push_back(fields(text.substr(0, end)));
        if (end == std::string_view::npos)
            break;
        text.remove_prefix(end + 1);
    }
    return found;
}

std::string jsonQuote(std::string_view text)
{
    std::string quoted = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\')
            quoted += fmt::format("\\{}", static_cast<char>(c));
        else if (c < 0x20)
            quoted += fmt::format("\\u{:04x}", c);
        else
            quoted += static_cast<char>(c);
    }
    return quoted + '"';
}

} // namespace ControlText

#include "client/Json.h"

#include <fmt/format.h>

#include "client/Names.h"

namespace Json {

std::string quote(std::string_view text)
{
    std::string out = "\"";
    for (unsigned char c : Names::shown(text)) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\t':
            out += "\\t";
            break;
        case '\r':
            out += "\\r";
            break;
        default:
            if (c < 0x20)
                out += fmt::format("\\u{:04x}", c);
            else
                out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

} // namespace Json

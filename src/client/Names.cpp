#include "client/Names.h"

#include "wire/BitHelper.h"

namespace Names {

namespace {

// The length a lead byte announces; 0 for a byte no sequence starts with.
std::size_t sequenceLength(unsigned char lead)
{
    if (lead < 0x80)
        return 1;
    if (lead >= 0xC2 && lead <= 0xDF)
        return 2;
    if (lead >= 0xE0 && lead <= 0xEF)
        return 3;
    if (lead >= 0xF0 && lead <= 0xF4)
        return 4;
    return 0;
}

} // namespace

bool travels(std::string_view name)
{
    return BitHelper::isUtf8(name.data(), name.size());
}

std::string shown(std::string_view name)
{
    std::string out;
    for (std::size_t at = 0; at < name.size();) {
        auto length = sequenceLength(static_cast<unsigned char>(name[at]));
        if (length != 0 && length <= name.size() - at && BitHelper::isUtf8(name.data() + at, length)) {
            out.append(name.substr(at, length));
            at += length;
        } else {
            out += "\xEF\xBF\xBD";
            ++at;
        }
    }
    return out;
}

} // namespace Names

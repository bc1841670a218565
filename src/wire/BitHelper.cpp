#include "wire/BitHelper.h"

#include <stdexcept>

#include <utf8proc.h>

#include "wire/BitConverter.h"

namespace BitHelper {

namespace {

// Same failure as a byte-range extraction past the end of the buffer.
void checkRange(const Bytes& data, std::int64_t index, std::int64_t length)
{
    // Compared without adding, so that a length near 2^63 cannot wrap past
    // the check and let the read run off the buffer.
    if (index < 0 || length < 0 || length > static_cast<std::int64_t>(data.size()) - index)
        throw std::out_of_range("range out of bounds");
}

} // namespace

Bytes encodeLongLong(std::int64_t value) { return BitConverter::getBytesFromLongLong(value); }

Bytes encodeBool(bool value) { return BitConverter::getBytesFromBool(value); }

Bytes encodeByte(std::uint8_t value) { return Bytes{value}; }

Bytes encodeString(std::string_view value)
{
    Bytes out = encodeLongLong(static_cast<std::int64_t>(value.size()));
    out.insert(out.end(), value.begin(), value.end());
    return out;
}

Bytes encodeString(const std::optional<std::string>& value)
{
    return encodeString(value ? std::string_view(*value) : std::string_view());
}

Bytes encodeString(const std::string& value)
{
    return encodeString(std::string_view(value));
}

Bytes encodeString(const char* value)
{
    return encodeString(value ? std::string_view(value) : std::string_view());
}

Bytes encodeLongLongNumber(std::optional<std::int64_t> value) { return encodeLongLong(value.value_or(0)); }

Bytes encodeLongLongArray(const std::vector<std::int64_t>& values)
{
    Bytes out;
    for (auto v : values)
        out += encodeLongLong(v);
    return out;
}

std::int64_t decodeLongLong(const Bytes& data, std::int32_t& index)
{
    checkRange(data, index, 8);
    auto value = BitConverter::toInt64(data.data() + index);
    index += 8;
    return value;
}

bool decodeBool(const Bytes& data, std::int32_t& index)
{
    checkRange(data, index, 1);
    bool value = BitConverter::toBool(data.data() + index);
    index += 1;
    return value;
}

std::optional<std::string> decodeString(const Bytes& data, std::int32_t& index)
{
    std::int64_t n = decodeLongLong(data, index);
    checkRange(data, index, n);
    auto text = stringFromBinary(data.data() + index, static_cast<std::size_t>(n));
    // The cursor moves as a 32-bit addition.
    // kept: see docs/protocol.md (32-bit string cursor)
    index = static_cast<std::int32_t>(static_cast<std::uint32_t>(index) + static_cast<std::uint32_t>(n));
    return text;
}

std::int64_t decodeLongLongNumber(const Bytes& data, std::int32_t& index) { return decodeLongLong(data, index); }

bool isUtf8(const void* data, std::size_t length)
{
    const auto* bytes = static_cast<const utf8proc_uint8_t*>(data);
    std::size_t pos = 0;
    while (pos < length) {
        // Plain ASCII needs no decoding, and is most of what arrives.
        if (bytes[pos] < 0x80) {
            ++pos;
            continue;
        }
        utf8proc_int32_t cp = 0;
        auto step = utf8proc_iterate(bytes + pos, static_cast<utf8proc_ssize_t>(length - pos), &cp);
        if (step <= 0)
            return false;
        pos += static_cast<std::size_t>(step);
    }
    return true;
}

std::optional<std::string> stringFromBinary(const std::uint8_t* data, std::size_t length)
{
    if (!isUtf8(data, length))
        return std::nullopt;
    return std::string(reinterpret_cast<const char*>(data), length);
}

std::optional<std::string> stringFromBinary(const Bytes& data)
{
    return stringFromBinary(data.data(), data.size());
}

} // namespace BitHelper

#include "settings/PlistFile.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

#include <fcntl.h>
#include <unistd.h>

#include <fmt/format.h>

#include "settings/FileWrite.h"
#include "settings/NumberText.h"

namespace PlistFile {

namespace {

std::optional<std::string> readAll(const std::string& path, std::string& error)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = fmt::format("cannot open the file ({})", std::strerror(errno));
        return std::nullopt;
    }
    std::string data;
    char buf[65536];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            error = fmt::format("cannot read the file ({})", std::strerror(errno));
            ::close(fd);
            return std::nullopt;
        }
        if (n == 0)
            break;
        data.append(buf, static_cast<std::size_t>(n));
    }
    ::close(fd);
    return data;
}

int detectFormat(const std::string& data)
{
    if (plist_is_binary(data.data(), static_cast<uint32_t>(std::min<std::size_t>(data.size(), 8))))
        return kFormatBinary;
    std::size_t i = 0;
    if (data.compare(0, 3, "\xEF\xBB\xBF") == 0)
        i = 3;
    while (i < data.size() && std::isspace(static_cast<unsigned char>(data[i])))
        ++i;
    return (i < data.size() && data[i] == '<') ? kFormatXml : kFormatUnknown;
}

// libplist of this generation reports no reason of its own for a failed
// parse, so the reason is named after the format the bytes were taken for.
Node parse(const std::string& data, int format, std::string& error)
{
    plist_t root = nullptr;
    if (format == kFormatBinary)
        plist_from_bin(data.data(), static_cast<uint32_t>(data.size()), &root);
    else if (format == kFormatXml)
        plist_from_xml(data.data(), static_cast<uint32_t>(data.size()), &root);
    Node node(root);
    if (!node) {
        error = format == kFormatBinary ? "malformed binary property list"
              : format == kFormatXml    ? "malformed XML property list"
                                        : "not a property list";
    } else if (plist_get_node_type(root) != PLIST_DICT) {
        error = "the root of the property list is not a dictionary";
        node.reset();
    }
    return node;
}

std::int32_t clampToInt32(std::int64_t v)
{
    if (v > std::numeric_limits<std::int32_t>::max())
        return std::numeric_limits<std::int32_t>::max();
    if (v < std::numeric_limits<std::int32_t>::min())
        return std::numeric_limits<std::int32_t>::min();
    return static_cast<std::int32_t>(v);
}

} // namespace

ReadResult readDictionary(const std::string& path)
{
    ReadResult result;
    std::optional<std::string> data = readAll(path, result.error);
    if (!data)
        return result;
    if (data->size() > std::numeric_limits<uint32_t>::max()) {
        result.error = "the file is too large";
        return result;
    }
    if (data->empty()) {
        result.error = "the file is empty";
        return result;
    }
    result.format = detectFormat(*data);
    result.root = parse(*data, result.format, result.error);
    return result;
}

bool writeXml(const std::string& path, plist_t root)
{
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(root, &xml, &length);
    if (!xml)
        return false;
    std::string text(xml, length);
    plist_to_xml_free(xml);
    return FileWrite::replaceAtomically(path, text, 0600);
}

std::optional<std::string> stringValue(plist_t node)
{
    switch (plist_get_node_type(node)) {
    case PLIST_STRING: {
        // By pointer and length: a string that holds U+0000 (possible in a
        // binary file) makes the copying getter abort the process.
        uint64_t length = 0;
        const char* text = plist_get_string_ptr(node, &length);
        return text ? std::string(text, static_cast<std::size_t>(length)) : std::string();
    }
    case PLIST_BOOLEAN:
        return std::string(plist_bool_val_is_true(node) ? "1" : "0");
    case PLIST_UINT: {
        uint64_t v = 0;
        plist_get_uint_val(node, &v);
        return std::to_string(static_cast<std::int64_t>(v));
    }
    case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(node, &d);
        return fmt::format("{}", d);
    }
    default:
        return std::nullopt;
    }
}

std::optional<std::int32_t> intValue(plist_t node)
{
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN:
        return plist_bool_val_is_true(node) ? 1 : 0;
    case PLIST_UINT: {
        // Stored as 64 bits, negative values in two's complement; the
        // 32-bit reading keeps the low bits, as a narrowing integer read does.
        uint64_t v = 0;
        plist_get_uint_val(node, &v);
        return static_cast<std::int32_t>(static_cast<uint32_t>(v));
    }
    case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(node, &d);
        if (std::isnan(d))
            return 0;
        return clampToInt32(static_cast<std::int64_t>(std::clamp(d, -9.0e18, 9.0e18)));
    }
    case PLIST_STRING:
        return clampToInt32(NumberText::leadingInteger(*stringValue(node)));
    default:
        return std::nullopt;
    }
}

std::optional<bool> boolValue(plist_t node)
{
    switch (plist_get_node_type(node)) {
    case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(node, &d);
        return d != 0.0;
    }
    case PLIST_BOOLEAN:
        return plist_bool_val_is_true(node) != 0;
    case PLIST_UINT: {
        uint64_t v = 0;
        plist_get_uint_val(node, &v);
        return v != 0;
    }
    case PLIST_STRING:
        return NumberText::leadingTruth(*stringValue(node));
    default:
        return std::nullopt;
    }
}

} // namespace PlistFile

#include "session/WalkRecords.h"

#include <cstring>

namespace WalkRecords {

namespace {

// Multi-byte values go out least significant byte first.
class Appender {
public:
    Appender(Bytes& out, std::size_t bodyLength)
    {
        std::size_t at = out.size();
        out.resize(at + 8 + bodyLength);
        m_p = out.data() + at;
        number(static_cast<std::int64_t>(bodyLength));
    }
    void number(std::int64_t v)
    {
        auto u = static_cast<std::uint64_t>(v);
        for (int i = 0; i < 8; ++i)
            *m_p++ = static_cast<std::uint8_t>(u >> (8 * i));
    }
    void raw(std::string_view s)
    {
        if (!s.empty())
            std::memcpy(m_p, s.data(), s.size());
        m_p += s.size();
    }
    void text(std::string_view s)
    {
        number(static_cast<std::int64_t>(s.size()));
        raw(s);
    }
    void byte(std::uint8_t b) { *m_p++ = b; }
    // The full path, then parent and name: the record's first three strings.
    void names(const Common& item)
    {
        number(static_cast<std::int64_t>(item.folderPart.size() + item.name.size()));
        raw(item.folderPart);
        raw(item.name);
        text(item.parent);
        text(item.name);
    }
    // archive, compressed, encrypted, hidden, readonly, system
    void flags(const Common& item)
    {
        byte(0);
        byte(0);
        byte(0);
        byte(item.name.starts_with('.') ? 1 : 0);
        byte(item.readonly ? 1 : 0);
        byte(0);
    }

private:
    std::uint8_t* m_p;
};

std::size_t namesLength(const Common& item)
{
    return 24 + item.folderPart.size() + 2 * item.name.size() + item.parent.size();
}

std::int64_t readNumber(const std::uint8_t* p)
{
    std::uint64_t u = 0;
    for (int i = 7; i >= 0; --i)
        u = (u << 8) | p[i];
    return static_cast<std::int64_t>(u);
}

} // namespace

void appendFolder(Bytes& out, const Common& item, std::int32_t fileCount)
{
    Appender a(out, namesLength(item) + 16 + 6 + 8);
    a.names(item);
    a.number(item.created);
    a.number(item.modified);
    a.flags(item);
    a.number(fileCount);
}

void appendFile(Bytes& out, const Common& item, std::string_view extension, std::int32_t kind, std::uint64_t size,
    std::string_view hash)
{
    Appender a(out, namesLength(item) + 8 + extension.size() + 1 + 24 + 6 + 8 + hash.size());
    a.names(item);
    a.text(extension);
    // The kind goes out as one byte, unlike the folder's 8-byte file count.
    a.byte(static_cast<std::uint8_t>(kind & 0xFF));
    a.number(static_cast<std::int64_t>(size));
    a.number(item.created);
    a.number(item.modified);
    a.flags(item);
    a.text(hash);
}

void fillDigest(Bytes& record, std::string_view hash)
{
    // The digest is the record's last field: its length is the last 8 bytes.
    std::uint64_t grown = static_cast<std::uint64_t>(readNumber(record.data())) + hash.size();
    record.resize(record.size() - 8);
    Appender tail(record, hash.size());
    tail.raw(hash);
    for (int i = 0; i < 8; ++i)
        record[i] = static_cast<std::uint8_t>(grown >> (8 * i));
}

std::string_view fullNameAt(const Bytes& out, std::size_t at)
{
    auto length = static_cast<std::size_t>(readNumber(out.data() + at + 8));
    return {reinterpret_cast<const char*>(out.data() + at + 16), length};
}

} // namespace WalkRecords

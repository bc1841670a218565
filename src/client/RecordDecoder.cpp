#include "client/RecordDecoder.h"

#include <limits>
#include <string>

#include "client/ClientErrors.h"
#include "wire/BitConverter.h"

namespace RecordDecoder {

namespace {

// Reads values off a record body, refusing to run past its end. Strings are
// kept as the bytes the server sent: a file name that is not valid UTF-8 is
// still a name the server will accept back.
class Reader {
public:
    explicit Reader(const Bytes& data, std::size_t at = 0) : m_data(data), m_at(at) {}

    std::size_t left() const { return m_data.size() - m_at; }
    std::size_t position() const { return m_at; }

    std::int64_t longLong()
    {
        need(8);
        auto v = BitConverter::toInt64(m_data.data() + m_at);
        m_at += 8;
        return v;
    }
    std::uint8_t byte()
    {
        need(1);
        return m_data[m_at++];
    }
    bool boolean() { return byte() != 0; }
    std::string string()
    {
        auto n = longLong();
        if (n < 0 || static_cast<std::uint64_t>(n) > left())
            throw ProtocolError("a record string runs past its record");
        std::string s(m_data.begin() + static_cast<std::ptrdiff_t>(m_at),
            m_data.begin() + static_cast<std::ptrdiff_t>(m_at + static_cast<std::size_t>(n)));
        m_at += static_cast<std::size_t>(n);
        return s;
    }

private:
    void need(std::size_t n) const
    {
        if (left() < n)
            throw ProtocolError("a record ends too early");
    }

    const Bytes& m_data;
    std::size_t m_at;
};

template <typename T>
void readFlags(Reader& in, T& record)
{
    record.archive = in.boolean();
    record.compressed = in.boolean();
    record.encrypted = in.boolean();
    record.hidden = in.boolean();
    record.readonly = in.boolean();
    record.system = in.boolean();
}

void expectEnd(const Reader& in, const char* what)
{
    if (in.left() != 0)
        throw ProtocolError(std::string(what) + " record is longer than its fields");
}

// Takes one length-prefixed record off a list, leaving the reader after it.
Bytes nextRecord(const Bytes& data, std::size_t& at)
{
    Reader in(data, at);
    auto length = in.longLong();
    if (length < 0 || static_cast<std::uint64_t>(length) > in.left())
        throw ProtocolError("a record's length runs past the data");
    auto from = data.begin() + static_cast<std::ptrdiff_t>(in.position());
    Bytes body(from, from + static_cast<std::ptrdiff_t>(length));
    at = in.position() + static_cast<std::size_t>(length);
    return body;
}

std::int64_t listCount(Reader& in)
{
    auto count = in.longLong();
    // Every record takes at least its 8-byte length field.
    if (count < 0 || static_cast<std::uint64_t>(count) > in.left() / 8)
        throw ProtocolError("a list announces more records than it holds");
    return count;
}

// A count, then each record with its own length field, and nothing after.
template <typename Decode>
auto decodeList(const Bytes& data, Decode decode, const char* what)
{
    Reader in(data);
    auto count = listCount(in);
    std::size_t at = in.position();
    std::vector<decltype(decode(data))> out;
    out.reserve(static_cast<std::size_t>(count));
    for (std::int64_t i = 0; i < count; ++i)
        out.push_back(decode(nextRecord(data, at)));
    if (at != data.size())
        throw ProtocolError(std::string(what) + " is longer than its records");
    return out;
}

} // namespace

RemoteFolder decodeFolderBody(const Bytes& body)
{
    Reader in(body);
    RemoteFolder f;
    f.fullName = in.string();
    f.parent = in.string();
    f.name = in.string();
    f.created = in.longLong();
    f.modified = in.longLong();
    readFlags(in, f);
    // Sent sign-extended from the server's 32-bit count.
    auto count = in.longLong();
    if (count < std::numeric_limits<RecordField::FileCount>::min()
        || count > std::numeric_limits<RecordField::FileCount>::max())
        throw ProtocolError("a folder's file count is out of range");
    f.fileCount = static_cast<RecordField::FileCount>(count);
    expectEnd(in, "a folder");
    return f;
}

RemoteFile decodeFileBody(const Bytes& body)
{
    Reader in(body);
    RemoteFile f;
    f.fullName = in.string();
    f.parent = in.string();
    f.name = in.string();
    f.extension = in.string();
    f.kind = in.byte();
    f.size = static_cast<RecordField::Size>(in.longLong());
    f.created = in.longLong();
    f.modified = in.longLong();
    readFlags(in, f);
    f.hash = in.string();
    expectEnd(in, "a file");
    return f;
}

Record decodeRecordBody(const Bytes& body)
{
    // Both layouts open with three strings. What is left after them decides:
    // a folder has exactly its 30 fixed bytes, a file at least a fourth
    // string, its 31 fixed bytes and the hash string's length.
    Reader in(body);
    in.string();
    in.string();
    in.string();
    if (in.left() == kFolderFixedBytes)
        return decodeFolderBody(body);
    return decodeFileBody(body);
}

std::vector<RemoteFolder> decodeFolderList(const Bytes& data)
{
    return decodeList(data, decodeFolderBody, "a folder list");
}

std::vector<RemoteFile> decodeFileList(const Bytes& data)
{
    return decodeList(data, decodeFileBody, "a file list");
}

bool isEndMarker(const RemoteFolder& folder)
{
    return folder.fullName.empty() && folder.parent.empty() && folder.name.empty();
}

bool isEndMarker(const RemoteFile& file)
{
    return file.fullName.empty() && file.parent.empty() && file.name.empty() && file.extension.empty();
}

} // namespace RecordDecoder

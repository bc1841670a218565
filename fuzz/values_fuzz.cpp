// Feeds arbitrary bytes to the value decoders and the client's record
// decoders: they must fail only by throwing, and what they decode must
// encode back to the same bytes.
#include <cstdint>
#include <cstdlib>
#include <exception>

#include "client/ClientErrors.h"
#include "client/RecordDecoder.h"
#include "wire/BitConverter.h"
#include "wire/BitHelper.h"

namespace {

void require(bool condition)
{
    if (!condition)
        std::abort();
}

// Walks the buffer with the cursor decoders, steered by the bytes
// themselves, the way a reply of unknown shape would be read.
void decodeValues(const Bytes& data)
{
    std::int32_t index = 0;
    std::size_t steps = 0;
    while (index >= 0 && static_cast<std::size_t>(index) < data.size() && steps++ < 64) {
        const std::uint8_t pick = data[static_cast<std::size_t>(index)] % 4;
        ++index;
        const std::int32_t before = index;
        try {
            switch (pick) {
            case 0: {
                std::int64_t v = BitHelper::decodeLongLong(data, index);
                require(index == before + 8);
                require(BitHelper::encodeLongLong(v) == Bytes(data.begin() + before, data.begin() + before + 8));
                break;
            }
            case 1: {
                bool v = BitHelper::decodeBool(data, index);
                require(index == before + 1 && v == (data[static_cast<std::size_t>(before)] != 0));
                break;
            }
            case 2: {
                auto text = BitHelper::decodeString(data, index);
                if (text) {
                    // A decoded string re-encodes to exactly the bytes it came from.
                    Bytes again = BitHelper::encodeString(*text);
                    require(before + static_cast<std::int64_t>(again.size()) <= static_cast<std::int64_t>(data.size()));
                    require(std::equal(again.begin(), again.end(), data.begin() + before));
                }
                break;
            }
            default:
                BitHelper::decodeLongLongNumber(data, index);
                break;
            }
        } catch (const std::out_of_range&) {
            return;
        }
    }
}

template <typename Decode>
void tryDecode(Decode&& decode)
{
    try {
        decode();
    } catch (const ProtocolError&) {
    } catch (const std::out_of_range&) {
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    const Bytes data(bytes, bytes + size);
    decodeValues(data);

    if (auto text = BitHelper::stringFromBinary(data))
        require(Bytes(text->begin(), text->end()) == data);
    if (size >= 8)
        require(BitConverter::getBytesFromLongLong(BitConverter::toInt64(bytes)) == Bytes(bytes, bytes + 8));

    tryDecode([&] { RecordDecoder::decodeRecordBody(data); });
    tryDecode([&] { RecordDecoder::decodeFolderList(data); });
    tryDecode([&] { RecordDecoder::decodeFileList(data); });
    return 0;
}

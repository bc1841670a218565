#include <fstream>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "wire/BitHelper.h"
#include "wire/StreamIO.h"
#include "wire/SyncException.h"

namespace {

class RecordingLogger : public StreamLogger {
public:
    void logInfo(const std::string& m) override { lines.push_back(m); }
    void logMessage(const std::string& m) override { lines.push_back(m); }
    void logError(const std::string& m) override { lines.push_back(m); }
    bool verbose() const override { return isVerbose; }
    std::vector<std::string> lines;
    bool isVerbose = false;
};

// A stream pair on one end of a socket pair; the test plays the peer.
class StreamIOTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        int fds[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        m_peer = fds[1];
        m_streams = makeStreamPair(fds[0]);
        m_streams.input->open();
        m_streams.output->open();
        m_io = std::make_unique<StreamIO>(*m_streams.input, *m_streams.output, m_log);
    }
    void TearDown() override
    {
        if (m_peer >= 0)
            ::close(m_peer);
    }
    void peerSends(const Bytes& b) { ASSERT_EQ(::write(m_peer, b.data(), b.size()), static_cast<ssize_t>(b.size())); }
    void peerCloses()
    {
        ::close(m_peer);
        m_peer = -1;
    }
    // The name and reason of the SyncException `f` ends with.
    template <typename F>
    static std::string failure(F f)
    {
        try {
            f();
        } catch (const SyncException& e) {
            return e.name() + " | " + e.reason();
        }
        return "no exception";
    }

    int m_peer = -1;
    StreamPair m_streams;
    RecordingLogger m_log;
    std::unique_ptr<StreamIO> m_io;
};

} // namespace

TEST(Packets, ExactBytes)
{
    Bytes startSync = StreamIO::dataPacket(17, BitHelper::encodeBool(true));
    EXPECT_EQ(startSync, (Bytes{0x11, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1}));

    Bytes error = StreamIO::errorPacket(20, "bad");
    EXPECT_EQ(error, (Bytes{0x14, 1, 3, 0, 0, 0, 0, 0, 0, 0, 0x62, 0x61, 0x64, 0, 0, 0, 0, 0, 0, 0, 0}));

    Bytes header = StreamIO::emptyHeader(34);
    EXPECT_EQ(header, (Bytes{0x22, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
}

// This process's resident memory in KiB ("VmRSS", or "VmHWM" for the peak).
long residentKiB(const std::string& field)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.starts_with(field + ":"))
            return std::stol(line.substr(field.size() + 1));
    return -1;
}

// Starts a new peak; false where the kernel does not allow it.
bool resetPeak()
{
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
    clear.flush();
    return clear.good() && residentKiB("VmHWM") >= 0;
}

// A length from the wire is no allocation: a negative one is refused, one
// past 4 GB fails after the first piece, and 1 GiB with ten bytes behind it
// costs next to nothing.
TEST_F(StreamIOTest, ADeclaredLengthIsNeverTrustedForAnAllocation)
{
    peerSends(BitHelper::encodeLongLong(-4));
    EXPECT_EQ(failure([&] { m_io->readString("x"); }), "Negative Length Packet? | ");
    peerSends(BitHelper::encodeLongLong(5'000'000'000LL));
    peerSends(Bytes{'a'});
    EXPECT_EQ(failure([&] { m_io->readString("x"); }), "4GB File?? | ");
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "a sanitizer's allocator and shadow memory are not this program's figures";
#endif
    if (!resetPeak())
        GTEST_SKIP() << "the peak resident memory cannot be reset here";
    long before = residentKiB("VmRSS");
    peerSends(BitHelper::encodeLongLong(1LL << 30));
    peerSends(Bytes(10, 'y'));
    peerCloses();
    EXPECT_EQ(failure([&] { m_io->readString("x"); }), "Read Failed | 0 returned while trying to x");
    EXPECT_LT(residentKiB("VmHWM") - before, 512);
}

// A read on a closed stream says so in verbose mode only; a write names what
// it was writing.
TEST_F(StreamIOTest, ClosedStreamsAndAVanishedPeerFailWithTheirContext)
{
    m_streams.input->close();
    std::uint8_t b;
    EXPECT_EQ(failure([&] { m_io->read(&b, 1, "ctx"); }), "Read Failed | 0 returned while trying to ctx");
    EXPECT_TRUE(m_log.lines.empty());
    m_log.isVerbose = true;
    EXPECT_EQ(failure([&] { m_io->read(&b, 1, "ctx"); }), "Read Failed | 0 returned while trying to ctx");
    EXPECT_EQ(m_log.lines, std::vector<std::string>{"Stream closed. Status = 6"});

    peerCloses();
    Bytes big(1 << 20, 0);
    EXPECT_EQ(failure([&] { m_io->writeData(big, "sending file data"); }),
              "Error occurred while writing data | Stream error sending file data");
    m_streams.output->close();
    EXPECT_EQ(failure([&] { m_io->writeEmptyHeader(34, "invalid"); }),
              "End of stream while writing data | End of stream invalid");
}

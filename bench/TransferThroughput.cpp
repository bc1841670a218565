// Download and upload speed of the server against the plain speed of the
// same bytes through a loopback socket, as ratios from one run.

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "LoopbackServer.h"
#include "wire/BitHelper.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::int64_t kSize = 256LL << 20;

double seconds(Clock::time_point since)
{
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// The reference: the same number of bytes through a bare loopback TCP pair.
double rawLoopback()
{
    int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof a);
    ::listen(listener, 1);
    socklen_t len = sizeof a;
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len);
    std::thread sender([&] {
        int s = ::accept(listener, nullptr, nullptr);
        std::vector<char> chunk(512000, 'x');
        for (std::int64_t sent = 0; sent < kSize;)
            sent += ::send(s, chunk.data(), std::min<std::int64_t>(chunk.size(), kSize - sent), 0);
        ::close(s);
    });
    int c = ::socket(AF_INET, SOCK_STREAM, 0);
    auto start = Clock::now();
    ::connect(c, reinterpret_cast<sockaddr*>(&a), sizeof a);
    std::vector<char> buffer(512000);
    for (std::int64_t got = 0; got < kSize;) {
        auto n = ::recv(c, buffer.data(), buffer.size(), 0);
        if (n <= 0)
            break;
        got += n;
    }
    double t = seconds(start);
    sender.join();
    ::close(c);
    ::close(listener);
    return t;
}

double download(LoopbackServer& server, const std::string& path)
{
    auto c = server.connect();
    Bytes fields = BitHelper::encodeLongLong(1);
    fields += BitHelper::encodeString(path);
    fields += BitHelper::encodeLongLong(0);
    fields += BitHelper::encodeBool(false);
    auto start = Clock::now();
    c->sendCommand(26, fields);
    c->readReply(true);
    c->readExact(static_cast<std::size_t>(c->readLong()));
    for (std::int64_t got = 0; got < kSize;) {
        auto n = std::min<std::int64_t>(kSize - got, 512000);
        c->readExact(static_cast<std::size_t>(n));
        got += n;
    }
    c->readExact(79);
    return seconds(start);
}

double upload(LoopbackServer& server, const std::string& path)
{
    auto c = server.connect();
    Bytes fields = BitHelper::encodeBool(false);
    fields += BitHelper::encodeLongLong(1);
    fields += BitHelper::encodeString(path);
    fields += BitHelper::encodeLongLong(kSize);
    fields += BitHelper::encodeLongLong(1700000000);
    auto start = Clock::now();
    c->sendCommand(27, fields);
    c->readReply();
    Bytes chunk(512000, 'y');
    for (std::int64_t sent = 0; sent < kSize;) {
        auto n = std::min<std::int64_t>(kSize - sent, static_cast<std::int64_t>(chunk.size()));
        c->sendRaw(Bytes(chunk.begin(), chunk.begin() + n));
        sent += n;
    }
    c->readLong();
    return seconds(start);
}

} // namespace

int main()
{
    LoopbackServer server(false);
    server.settings().setTrace(false);
    server.start();
    auto file = server.home().path() / "big.bin";
    {
        std::ofstream out(file, std::ios::binary);
        std::vector<char> chunk(1 << 20, 'z');
        for (std::int64_t i = 0; i < kSize; i += static_cast<std::int64_t>(chunk.size()))
            out.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    }
    double raw = rawLoopback();
    double down = download(server, file.string());
    double up = upload(server, (server.home().path() / "up.bin").string());
    auto mbps = [](double t) { return static_cast<double>(kSize) / (1 << 20) / t; };
    std::printf("256 MiB through bare loopback:  %.0f MiB/s\n", mbps(raw));
    std::printf("download through the server:    %.0f MiB/s  (ratio to bare %.2f)\n", mbps(down), raw / down);
    std::printf("upload through the server:      %.0f MiB/s  (ratio to bare %.2f; fsync after every chunk)\n",
        mbps(up), raw / up);
    return 0;
}

// The upload reference: a bare receiver that writes every 512000-byte chunk
// and fsyncs it before taking the next. Listens on 127.0.0.1, prints its
// port; per connection reads an 8-byte path length, the path and an 8-byte
// size, receives the bytes and answers the count as 8 bytes.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "BenchSocket.h"

int main()
{
    int listener = listenOnLoopback();
    std::printf("%d\n", boundPort(listener));
    std::fflush(stdout);
    std::vector<char> chunk(512000);
    for (;;) {
        int s = ::accept(listener, nullptr, nullptr);
        if (s < 0)
            continue;
        std::int64_t length = 0, size = 0, received = 0;
        std::string path;
        if (readAll(s, &length, 8)) {
            path.resize(static_cast<std::size_t>(length));
            readAll(s, path.data(), path.size());
            readAll(s, &size, 8);
        }
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        while (fd >= 0 && received < size) {
            auto n = static_cast<std::size_t>(std::min<std::int64_t>(size - received, chunk.size()));
            if (!readAll(s, chunk.data(), n) || ::write(fd, chunk.data(), n) != static_cast<ssize_t>(n)
                || ::fsync(fd) != 0)
                break;
            received += static_cast<std::int64_t>(n);
        }
        if (fd >= 0)
            ::close(fd);
        writeAll(s, &received, 8);
        ::close(s);
    }
}

// The download reference: a bare sender that reads a file in 512000-byte
// chunks and sends each one, nothing else. Listens on 127.0.0.1, prints its
// port, and per connection reads an 8-byte path length and the path.

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
        std::int64_t length = 0;
        std::string path;
        if (readAll(s, &length, 8)) {
            path.resize(static_cast<std::size_t>(length));
            readAll(s, path.data(), path.size());
        }
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        for (ssize_t n; fd >= 0 && (n = ::read(fd, chunk.data(), chunk.size())) > 0;)
            if (!writeAll(s, chunk.data(), static_cast<std::size_t>(n)))
                break;
        if (fd >= 0)
            ::close(fd);
        ::close(s);
    }
}

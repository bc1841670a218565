// Feeds arbitrary bytes to one session over a socket pair: the session
// sits on one end, the input is written to the other, which is then shut
// down; replies are read and dropped. A fuzzed session creates, deletes and
// renames whatever its input names, so this target refuses to run anywhere
// but the scratch root scripts/fuzz prepares (a chroot in a user and mount
// namespace holding nothing of the real file system).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <asio/io_context.hpp>

#include "log/SystemLog.h"
#include "bridge/UIBridge.h"
#include "session/SocketServer.h"
#include "settings/Settings.h"

namespace fs = std::filesystem;

namespace {

// Written by scripts/fuzz at the top of the scratch root.
constexpr const char* kMarker = "/.zandrel-scratch-root";
// The folder the seed inputs work in; rebuilt before every input.
constexpr const char* kScratch = "/scratch";
// What the scratch root holds besides what fuzzed sessions leave behind.
const char* const kKept[] = {".zandrel-scratch-root", "lib", "lib64", "usr", "bin", "home", "corpus", "artifacts",
    "fuzz_session", "proc", "dev"};

class DropLines : public LogSink {
public:
    void write(std::string_view) override {}
};

class NoRegistry : public SessionRegistry {
public:
    void removeConnection(SocketServer*) override {}
};

struct World {
    std::shared_ptr<Settings> settings;
    std::shared_ptr<UIBridge> bridge;
    std::shared_ptr<NoRegistry> registry;
    std::shared_ptr<asio::io_context> io;
};
World* g_world = nullptr;

void refuseUnlessConfined()
{
    std::error_code ec;
    if (fs::exists(kMarker, ec) && !fs::exists("/etc/passwd", ec))
        return;
    std::fprintf(stderr,
        "fuzz_session: not inside a scratch root. A fuzzed session deletes and renames files; run it with\n"
        "  scripts/fuzz session SECONDS\n"
        "which confines it to a scratch folder in a private user and mount namespace.\n");
    std::_Exit(2);
}

void writeFile(const fs::path& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

// The same small tree before every input, and nothing left of the last one.
void resetScratch()
{
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/", ec)) {
        const std::string name = entry.path().filename();
        if (std::find(std::begin(kKept), std::end(kKept), name) == std::end(kKept))
            fs::remove_all(entry.path(), ec);
    }
    fs::remove_all(kScratch, ec);
    const fs::path docs = fs::path(kScratch) / "Documents";
    fs::create_directories(docs / "Music" / "Album", ec);
    fs::create_directories(docs / "Empty", ec);
    writeFile(docs / "a.txt", "alpha\n");
    writeFile(docs / "Music" / "song.mp3", std::string(3000, 'm'));
    writeFile(docs / "Music" / "Album" / "track.m4a", "track");
    writeFile(docs / "old.bin.zandrel", "partial");
}

void drain(int fd)
{
    char buffer[65536];
    while (::read(fd, buffer, sizeof buffer) > 0) {
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    refuseUnlessConfined();
    // The sanitizers have read /proc/self by now. Gone, it cannot be walked
    // by a fuzzed session: its files claim no size and some never end.
    ::umount2("/proc", MNT_DETACH);
    ::setenv("HOME", "/home/fuzz", 1);
    std::error_code ec;
    fs::create_directories("/home/fuzz", ec);
    auto sink = std::make_shared<DropLines>();
    SystemLog::setSink(sink);

    static World world;
    world.settings = std::make_shared<Settings>(Settings::NoLoginItems{});
    world.settings->setBasePath(std::string(kScratch) + "/Documents");
    // Every log line is formatted, then dropped.
    world.settings->setTrace(true);
    world.settings->setVerbose(true);
    world.bridge = std::make_shared<UIBridge>(world.settings);
    world.registry = std::make_shared<NoRegistry>();
    world.io = std::make_shared<asio::io_context>();
    g_world = &world;
    ::signal(SIGPIPE, SIG_IGN);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    resetScratch();
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0)
        std::abort();
    auto started = SocketServer::create(makeStreamPair(pair[0]), g_world->settings, g_world->bridge,
        g_world->registry, g_world->io);

    // Inputs that fit the socket's buffer are written at once; a larger
    // one needs a writer of its own, or both directions could fill up.
    auto feed = [fd = pair[1], bytes, size] {
        std::size_t done = 0;
        while (done < size) {
            ssize_t n = ::send(fd, bytes + done, size - done, MSG_NOSIGNAL);
            if (n <= 0)
                break;
            done += static_cast<std::size_t>(n);
        }
        ::shutdown(fd, SHUT_WR);
    };
    if (size <= 64 * 1024) {
        feed();
        drain(pair[1]);
    } else {
        std::thread writer(feed);
        drain(pair[1]);
        writer.join();
    }
    ::close(pair[1]);

    // A session that does not end once its peer has gone hangs here, and
    // the fuzzer's time-out reports it.
    started.thread.join();
    started.session.reset();
    // The lifetime timers of finished sessions are cancelled here.
    g_world->io->restart();
    g_world->io->poll();
    return 0;
}

// 200 phones at once against a real zandrel-syncd on loopback: each
// identifies, walks a tree with digests, uploads a few files, downloads them
// again and leaves. Every reply is checked; afterwards the daemon's threads
// and descriptors must be back where they were before the crowd came.
// Prints wall time, p50/p99 per operation, peak RSS and the resource counts.
// Bounded: a fixed number of clients, socket time-outs, an overall deadline.
//
//   build/bin/bench_LoadClients [CLIENTS]      (run by scripts/bench, inside a
//                                               private network namespace)

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "client/ProtocolClient.h"
#include "wire/Digest.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kFolders = 8;
constexpr int kFilesPerFolder = 12;
constexpr int kUploads = 3;
constexpr std::size_t kUploadBytes = 96 * 1024;
constexpr auto kDeadline = std::chrono::seconds(240);

[[noreturn]] void fail(const std::string& why)
{
    std::fprintf(stderr, "bench_LoadClients: %s\n", why.c_str());
    std::exit(1);
}

struct Daemon {
    pid_t pid = -1;
    std::uint16_t port = 0;
};

// Starts zandrel-syncd (next to this program) in `home` and waits for its
// start line.
Daemon startDaemon(const fs::path& home)
{
    const fs::path exe = fs::read_symlink("/proc/self/exe").parent_path() / "zandrel-syncd";
    int out[2];
    if (::pipe(out) != 0)
        fail("pipe");
    Daemon d;
    d.pid = ::fork();
    if (d.pid == 0) {
        ::dup2(out[1], STDOUT_FILENO);
        ::close(out[0]);
        ::close(out[1]);
        int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, STDERR_FILENO);
        ::setenv("HOME", home.c_str(), 1);
        ::execl(exe.c_str(), exe.c_str(), "--no-discovery", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(out[1]);
    std::string line;
    char c;
    while (::read(out[0], &c, 1) == 1 && c != '\n')
        line += c;
    ::close(out[0]);
    auto at = line.find("serving on port ");
    if (at == std::string::npos)
        fail("zandrel-syncd did not start: " + line);
    d.port = static_cast<std::uint16_t>(std::stoi(line.substr(at + 16)));
    return d;
}

struct Resources {
    long threads = 0;
    long fds = 0;
    long rssKiB = 0;
    long peakKiB = 0;
};

Resources resourcesOf(pid_t pid)
{
    Resources r;
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    long value;
    while (status >> key) {
        if (key == "Threads:" && status >> value)
            r.threads = value;
        else if (key == "VmRSS:" && status >> value)
            r.rssKiB = value;
        else if (key == "VmHWM:" && status >> value)
            r.peakKiB = value;
    }
    for ([[maybe_unused]] const auto& fd : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd"))
        ++r.fds;
    return r;
}

std::string contentOf(int client, int file)
{
    std::string data(kUploadBytes, '\0');
    std::uint32_t x = static_cast<std::uint32_t>(client * 7919 + file * 104729 + 1);
    for (auto& ch : data) {
        x = x * 1664525u + 1013904223u;
        ch = static_cast<char>(x >> 24);
    }
    return data;
}

// The tree every phone walks, and the digest each of its files must show.
std::map<std::string, std::string> makeTree(const fs::path& root)
{
    std::map<std::string, std::string> digests;
    for (int f = 0; f < kFolders; ++f) {
        fs::path folder = root / ("folder" + std::to_string(f));
        fs::create_directories(folder);
        for (int i = 0; i < kFilesPerFolder; ++i) {
            std::string text(1000 + 997 * i, static_cast<char>('a' + (f + i) % 26));
            fs::path file = folder / ("file" + std::to_string(i) + ".txt");
            std::ofstream(file, std::ios::binary) << text;
            digests[file.string()] = Digest::md5Hex(text.data(), text.size());
        }
    }
    return digests;
}

enum Op { Identify, Walk, Upload, Download, Whole, OpCount };
const char* const kOpNames[OpCount] = {"identify", "walk+digests", "upload x3", "download x3", "whole client"};

struct Timings {
    std::mutex mutex;
    std::vector<double> ms[OpCount];
    void add(Op op, Clock::duration d)
    {
        std::lock_guard lock(mutex);
        ms[op].push_back(std::chrono::duration<double, std::milli>(d).count());
    }
};

// One phone's visit; returns what went wrong, or an empty text.
std::string visit(int id, std::uint16_t port, const fs::path& tree, const std::map<std::string, std::string>& expected,
    const std::string& identifier, const fs::path& uploads, Timings& timings)
{
    ProtocolClient client;
    auto started = Clock::now();
    auto lap = started;
    auto time = [&](Op op) {
        auto now = Clock::now();
        timings.add(op, now - lap);
        lap = now;
    };
    try {
        client.connect("127.0.0.1", port, std::chrono::seconds(30));
        client.setTimeout(std::chrono::seconds(60));
        client.setPassword("Sesamely");
        if (client.identifyHost() != identifier)
            return "identify: a different identifier";
        time(Identify);

        std::map<std::string, std::string> seen;
        client.allFilesInFolder(tree.string(), true,
            {[](const RemoteFolder&) {}, [&](const RemoteFile& f) { seen[f.fullName] = f.hash; }});
        if (seen != expected)
            return "walk: files or digests differ";
        time(Walk);

        std::vector<std::string> contents;
        std::vector<ProtocolClient::UploadItem> items;
        for (int i = 0; i < kUploads; ++i) {
            contents.push_back(contentOf(id, i));
            items.push_back({(uploads / ("c" + std::to_string(id)) / ("up" + std::to_string(i) + ".bin")).string(),
                static_cast<std::int64_t>(kUploadBytes), 1700000000, ""});
        }
        ProtocolClient::UploadHandler up;
        up.read = [&](std::size_t index, std::int64_t position, std::uint8_t* buffer, std::size_t length) {
            const std::string& data = contents[index];
            std::size_t n = std::min(length, data.size() - static_cast<std::size_t>(position));
            std::copy_n(data.data() + position, n, buffer);
            return n;
        };
        auto results = client.uploadFiles(items, true, up);
        for (int i = 0; i < kUploads; ++i) {
            if (results[i].received != static_cast<std::int64_t>(kUploadBytes)
                || results[i].digest != Digest::md5Hex(contents[i].data(), contents[i].size()))
                return "upload: wrong count or digest";
        }
        time(Upload);

        std::vector<ProtocolClient::DownloadItem> wanted;
        for (const auto& item : items)
            wanted.push_back({item.path, 0});
        std::vector<std::string> got(kUploads);
        std::vector<std::string> digests(kUploads);
        ProtocolClient::DownloadHandler down;
        down.onData = [&](std::size_t i, const std::uint8_t* data, std::size_t n) {
            got[i].append(reinterpret_cast<const char*>(data), n);
        };
        down.onFileDone = [&](std::size_t i, const std::string& digest) { digests[i] = digest; };
        client.downloadFiles(wanted, true, down);
        for (int i = 0; i < kUploads; ++i) {
            if (got[i] != contents[i] || digests[i] != Digest::md5Hex(contents[i].data(), contents[i].size()))
                return "download: wrong bytes or digest";
        }
        time(Download);
        client.close();
        timings.add(Whole, Clock::now() - started);
    } catch (const std::exception& e) {
        return std::string("failed: ") + e.what();
    }
    return {};
}

double percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<std::size_t>(p * static_cast<double>(v.size())))];
}

} // namespace

int main(int argc, char** argv)
{
    const int clients = argc > 1 ? std::clamp(std::atoi(argv[1]), 1, 1000) : 200;
    // The crowd and the daemon both need descriptors: one per client here.
    std::signal(SIGPIPE, SIG_IGN);

    char pattern[] = "/tmp/zandrel-load-XXXXXX";
    if (!::mkdtemp(pattern))
        fail("mkdtemp");
    const fs::path home = pattern;
    const fs::path tree = home / "tree";
    const fs::path uploads = home / "uploads";
    auto expected = makeTree(tree);

    Daemon daemon = startDaemon(home);
    // Deadline: the whole run is bounded, whatever hangs.
    std::thread([pid = daemon.pid] {
        std::this_thread::sleep_for(kDeadline);
        std::fprintf(stderr, "bench_LoadClients: over the %lld s deadline\n",
            static_cast<long long>(kDeadline.count()));
        ::kill(pid, SIGKILL);
        std::_Exit(1);
    }).detach();

    std::string identifier;
    {
        ProtocolClient first;
        first.connect("127.0.0.1", daemon.port);
        identifier = first.identifyHost();
        first.close();
    }
    // One whole visit first, so that what the daemon makes once and keeps
    // (its digest cache, say) is part of the baseline, not counted as left over.
    Timings warmUp;
    if (auto failure = visit(clients, daemon.port, tree, expected, identifier, uploads, warmUp); !failure.empty())
        fail("the first visit failed: " + failure);
    // Baseline once the warm-up session is gone.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const Resources before = resourcesOf(daemon.pid);

    Timings timings;
    std::vector<std::string> failures(static_cast<std::size_t>(clients));
    std::barrier start(clients + 1);
    std::vector<std::thread> threads;
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back([&, i] {
            start.arrive_and_wait();
            failures[static_cast<std::size_t>(i)] = visit(i, daemon.port, tree, expected, identifier, uploads, timings);
        });
    }
    auto wallStart = Clock::now();
    start.arrive_and_wait();
    Resources busiest = before;
    std::atomic<bool> done{false};
    std::thread sampler([&] {
        while (!done) {
            Resources now = resourcesOf(daemon.pid);
            busiest.threads = std::max(busiest.threads, now.threads);
            busiest.fds = std::max(busiest.fds, now.fds);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    for (auto& t : threads)
        t.join();
    const double wall = std::chrono::duration<double>(Clock::now() - wallStart).count();
    done = true;
    sampler.join();

    // Sessions end on their own threads after the phones have gone.
    Resources after = resourcesOf(daemon.pid);
    for (int i = 0; i < 100 && (after.threads != before.threads || after.fds != before.fds); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        after = resourcesOf(daemon.pid);
    }

    int failed = 0;
    for (int i = 0; i < clients; ++i) {
        if (!failures[static_cast<std::size_t>(i)].empty()) {
            if (failed++ < 5)
                std::fprintf(stderr, "client %d: %s\n", i, failures[static_cast<std::size_t>(i)].c_str());
        }
    }

    std::printf("%d clients at once, each: identify, walk %d files with digests, upload %d x %zu KiB, "
                "download them again\n",
        clients, kFolders * kFilesPerFolder, kUploads, kUploadBytes / 1024);
    std::printf("wall time:                  %.2f s; %d of %d clients correct\n", wall, clients - failed, clients);
    for (int op = 0; op < OpCount; ++op)
        std::printf("%-28s p50 %8.1f ms   p99 %8.1f ms\n", (std::string(kOpNames[op]) + ":").c_str(),
            percentile(timings.ms[op], 0.50), percentile(timings.ms[op], 0.99));
    std::printf("daemon threads:             %ld before, %ld at most, %ld after\n", before.threads, busiest.threads,
        after.threads);
    std::printf("daemon descriptors:         %ld before, %ld at most, %ld after\n", before.fds, busiest.fds, after.fds);
    std::printf("daemon resident memory:     %ld MiB before, %ld MiB after, %ld MiB peak (VmHWM)\n",
        before.rssKiB / 1024, after.rssKiB / 1024, after.peakKiB / 1024);

    ::kill(daemon.pid, SIGTERM);
    int status = 0;
    ::waitpid(daemon.pid, &status, 0);
    fs::remove_all(home);

    const bool baseline = after.threads == before.threads && after.fds == before.fds;
    if (!baseline)
        std::printf("daemon threads or descriptors did not return to their baseline\n");
    return failed == 0 && baseline ? 0 : 1;
}

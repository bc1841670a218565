// The speed table: the server against plain references on the same machine,
// in one run. Each row is a ratio (ours / reference, higher is better),
// measured over several rounds with the two sides taking turns going first;
// the table shows the median ratio and the spread (lowest to highest).
//
// Run by scripts/bench inside a private network namespace; everything talks
// over 127.0.0.1. Options: --size-mib N (default 1024), --rounds N (default 5),
// --big (adds the rows of a 1,000,000-file library, built once in
// /var/tmp/zandrel-bench-big and reused by later runs).

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "BenchSocket.h"
#include "wire/BitHelper.h"
#include "wire/Protocol.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::size_t kChunk = 512000;

Bytes operator+(Bytes a, const Bytes& b)
{
    a += b;
    return a;
}

double since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Every child still running, so that a failed run leaves none behind.
std::vector<pid_t> g_children;

[[noreturn]] void die(const std::string& why)
{
    std::fprintf(stderr, "bench_table: %s\n", why.c_str());
    for (pid_t pid : g_children) {
        ::kill(pid, SIGTERM);
        ::waitpid(pid, nullptr, 0);
    }
    std::exit(1);
}

// A child process; its first stdout line is kept when asked for.
struct Child {
    pid_t pid = -1;
    std::string firstLine;

    static Child start(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
        bool readLine, const std::string& untilText = {})
    {
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0)
            die("pipe");
        Child c;
        c.pid = ::fork();
        if (c.pid == 0) {
            for (const auto& [k, v] : env)
                ::setenv(k.c_str(), v.c_str(), 1);
            ::dup2(readLine ? out[1] : ::open("/dev/null", O_WRONLY), 1);
            int devnull = ::open("/dev/null", O_WRONLY);
            ::dup2(devnull, 2);
            std::vector<char*> args;
            for (const auto& a : argv)
                args.push_back(const_cast<char*>(a.c_str()));
            args.push_back(nullptr);
            ::execvp(args[0], args.data());
            ::_exit(127);
        }
        ::close(out[1]);
        g_children.push_back(c.pid);
        if (readLine) {
            std::string line;
            char ch;
            while (::read(out[0], &ch, 1) == 1) {
                if (ch == '\n') {
                    if (untilText.empty() || line.find(untilText) != std::string::npos)
                        break;
                    line.clear();
                } else {
                    line += ch;
                }
            }
            c.firstLine = line;
        }
        ::close(out[0]);
        return c;
    }

    void stop()
    {
        if (pid > 0) {
            ::kill(pid, SIGTERM);
            ::waitpid(pid, nullptr, 0);
            std::erase(g_children, pid);
            pid = -1;
        }
    }
};

// Runs a command to its end with stdout discarded; returns seconds.
double timed(const std::vector<std::string>& argv)
{
    auto start = Clock::now();
    Child c = Child::start(argv, {}, false);
    int status = 0;
    ::waitpid(c.pid, &status, 0);
    std::erase(g_children, c.pid);
    double t = since(start);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        die("failed: " + argv[0] + " " + (argv.size() > 1 ? argv[1] : ""));
    return t;
}

// A buffered reader over one connection.
class Conn {
public:
    explicit Conn(int port) : m_fd(connectToLoopback(port)), m_buf(1 << 20)
    {
        if (m_fd < 0)
            die("cannot connect");
    }
    ~Conn() { ::close(m_fd); }
    void send(const Bytes& b)
    {
        if (!writeAll(m_fd, b.data(), b.size()))
            die("send failed");
    }
    void sendRaw(const char* p, std::size_t n)
    {
        if (!writeAll(m_fd, p, n))
            die("send failed");
    }
    // Hands the next `n` bytes to `sink` in pieces.
    void take(std::size_t n, const std::function<void(const char*, std::size_t)>& sink = {})
    {
        while (n > 0) {
            if (m_pos == m_end) {
                ssize_t got = ::recv(m_fd, m_buf.data(), m_buf.size(), 0);
                if (got <= 0)
                    die("connection ended early");
                m_pos = 0;
                m_end = static_cast<std::size_t>(got);
            }
            std::size_t piece = std::min(n, m_end - m_pos);
            if (sink)
                sink(m_buf.data() + m_pos, piece);
            m_pos += piece;
            n -= piece;
        }
    }
    std::int64_t number()
    {
        std::int64_t v = 0;
        take(8, [&, at = std::size_t(0)](const char* p, std::size_t n) mutable {
            std::memcpy(reinterpret_cast<char*>(&v) + at, p, n);
            at += n;
        });
        return v;
    }

private:
    int m_fd;
    std::vector<char> m_buf;
    std::size_t m_pos = 0, m_end = 0;
};

// Writes what arrives to a file, as a phone saving a download would.
struct FileSink {
    int fd;
    explicit FileSink(const fs::path& p)
        : fd(p.empty() ? -1 : ::open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644))
    {
    }
    ~FileSink()
    {
        if (fd >= 0)
            ::close(fd);
    }
    void operator()(const char* p, std::size_t n) const
    {
        if (fd >= 0 && ::write(fd, p, n) != static_cast<ssize_t>(n))
            die("write failed");
    }
};

class Bench {
public:
    Bench(std::int64_t sizeMiB, int rounds, fs::path bin)
        : m_size(sizeMiB << 20), m_rounds(rounds), m_bin(std::move(bin))
    {
        char tmpl[] = "/tmp/zandrel-bench-XXXXXX";
        if (!::mkdtemp(tmpl))
            die("mkdtemp");
        m_root = tmpl;
        for (const char* d : {"home", "cache", "data", "out", "up", "rsync-up"})
            fs::create_directories(m_root / d);
        m_password = BitHelper::encodeString(Protocol::hashPassword(Protocol::kDefaultPassword));
    }
    ~Bench()
    {
        m_server.stop();
        for (auto& c : m_refs)
            c.stop();
        std::error_code ignored;
        fs::remove_all(m_root, ignored);
    }

    void prepare()
    {
        std::mt19937_64 random(7);
        auto fill = [&](const fs::path& p, std::int64_t size) {
            std::vector<std::uint64_t> block(1 << 17);
            std::ofstream out(p, std::ios::binary);
            for (std::int64_t left = size; left > 0;) {
                for (auto& w : block)
                    w = random();
                auto n = std::min<std::int64_t>(left, static_cast<std::int64_t>(block.size() * 8));
                out.write(reinterpret_cast<const char*>(block.data()), n);
                left -= n;
            }
        };
        fill(data("big.bin"), m_size);
        fill(data("part.bin"), m_size / 16);
        const int files = 2000, perFolder = 100;
        for (int i = 0; i < files; ++i) {
            fs::path folder = data("tree") / ("d" + std::to_string(i / perFolder));
            if (i % perFolder == 0)
                fs::create_directories(folder);
            fs::path f = folder / ("f" + std::to_string(i) + ".bin");
            fill(f, m_size / files);
            m_treeFiles.push_back(f.string());
        }
        // 100,000 empty files in 1,000 folders at 1 GiB, fewer when scaled down.
        int emptyFolders = static_cast<int>(std::clamp<std::int64_t>(m_size / (1 << 20), 10, 1000));
        for (int d = 0; d < emptyFolders; ++d) {
            fs::path folder = data("empty") / ("d" + std::to_string(d));
            fs::create_directories(folder);
            for (int f = 0; f < 100; ++f)
                ::close(::open((folder / ("f" + std::to_string(f))).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
        }
        std::printf("data: %lld MiB file, %d files in a tree, %d empty files in %d folders; %d rounds\n",
            static_cast<long long>(m_size >> 20), files, emptyFolders * 100, emptyFolders, m_rounds);
        std::fflush(stdout);

        startServer();
        m_rawPort = std::stoi(startRef({(m_bin / "ref_raw_sender").string()}));
        m_fsyncPort = std::stoi(startRef({(m_bin / "ref_fsync_receiver").string()}));
        startRsync();
    }

    void run()
    {
        for (int round = 0; round < m_rounds; ++round) {
            bool oursFirst = round % 2 == 0;
            std::fprintf(stderr, "round %d of %d\n", round + 1, m_rounds);
            pair("download, no digest, vs raw sender", oursFirst, [&] { return download(data("big.bin")); },
                [&] { return rawDownload(data("big.bin")); });
            pair("upload vs fsync-every-chunk receiver", oursFirst, [&] { return upload(); },
                [&] { return rawUpload(); });
            pair("download vs rsync daemon", oursFirst, [&] { return download(data("big.bin")); },
                [&] { return rsyncDownload(); });
            pair("upload vs rsync daemon (no fsync)", oursFirst, [&] { return upload(); },
                [&] { return rsyncUpload(); });
            digestWalks(oursFirst);
            pair("walk, no digests, vs find -printf", oursFirst, [&] { return walk(data("empty"), false); },
                [&] {
                    return timed({"find", data("empty").string(), "-printf", "%s %T@ %p\\n"});
                });
            concurrent();
        }
        noteMemory();
    }

    void print() const
    {
        std::printf("\n| row | ours / reference (median) | spread | target |\n|---|---|---|---|\n");
        for (const auto& [name, target] : kRows) {
            auto it = m_ratios.find(name);
            if (it == m_ratios.end())
                continue;
            auto v = it->second;
            std::sort(v.begin(), v.end());
            double median = v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
            std::printf("| %s | %.2f | %.2f to %.2f | %s |\n", name.c_str(), median, v.front(), v.back(),
                target.c_str());
        }
        std::printf("| server peak resident memory over all rows | %lld MiB | | <= 32 MiB |\n",
            static_cast<long long>(m_peakKiB / 1024));
        if (m_bigPeakKiB > 0)
            std::printf("| server peak resident memory over the 1,000,000-file rows | %lld MiB | | <= 32 MiB |\n"
                        "| digest cache file per file | %.0f bytes | | <= 120 bytes |\n",
                static_cast<long long>(m_bigPeakKiB / 1024), m_cacheBytesPerFile);
    }

    // The 1,000,000-file library: walks without digests against find, and
    // the digest walk after a restart against the first one. The server is
    // started afresh so that its peak is these rows' own.
    void runBig()
    {
        const fs::path tree = bigTree();
        restartServer(false);
        const long long before = std::exchange(m_peakKiB, 0);
        for (int round = 0; round < m_rounds; ++round) {
            std::fprintf(stderr, "big round %d of %d\n", round + 1, m_rounds);
            pair("1,000,000 files: walk, no digests, vs find -printf", round % 2 == 0,
                [&] { return walk(tree, false); },
                [&] { return timed({"find", tree.string(), "-printf", "%s %T@ %p\\n"}); });
        }
        for (int round = 0; round < std::min(m_rounds, 3); ++round) {
            restartServer(true);
            double cold = walk(tree, true);
            // The digests reach the file when the server stops.
            restartServer(false);
            m_cacheBytesPerFile = static_cast<double>(cacheFileBytes()) / kBigFiles;
            double restarted = walk(tree, true);
            m_ratios["1,000,000 files: digest walk after a restart (times faster)"].push_back(cold / restarted);
            std::fprintf(stderr, "  1,000,000 files with digests: first %.3f s, after a restart %.3f s\n", cold,
                restarted);
        }
        noteMemory();
        m_bigPeakKiB = m_peakKiB;
        m_peakKiB = std::max(before, m_peakKiB);
    }

private:
    inline static const std::vector<std::pair<std::string, std::string>> kRows = {
        {"download, no digest, vs raw sender", ">= 1.0"},
        {"upload vs fsync-every-chunk receiver", ">= 1.3"},
        {"download vs rsync daemon", ">= 2.0"},
        {"upload vs rsync daemon (no fsync)", ">= 1.0"},
        {"walk with digests vs openssl dgst -md5", ">= 1.6"},
        {"the same walk again at once (times faster)", ">= 20"},
        {"the same walk after a server restart (times faster)", ">= 20"},
        {"walk, no digests, vs find -printf", ">= 0.5"},
        {"16 sessions x 1/16 of the size vs one session alone", ">= 0.9"},
        {"1,000,000 files: walk, no digests, vs find -printf", ">= 1.0"},
        {"1,000,000 files: digest walk after a restart (times faster)", ">= 20"},
    };
    static constexpr int kBigFolders = 1000;
    static constexpr int kBigFiles = 1000 * kBigFolders;

    // 1,000 folders of 1,000 small files, built once outside the repository
    // (a marker says it is whole) and kept for the next run.
    static fs::path bigTree()
    {
        const fs::path tree = "/var/tmp/zandrel-bench-big";
        if (fs::exists(tree / ".complete"))
            return tree;
        std::fprintf(stderr, "building %s once (1,000,000 files)\n", tree.c_str());
        fs::remove_all(tree);
        for (int d = 0; d < kBigFolders; ++d) {
            fs::path folder = tree / ("d" + std::to_string(d));
            fs::create_directories(folder);
            for (int f = 0; f < kBigFiles / kBigFolders; ++f) {
                std::string body = "file " + std::to_string(d) + "/" + std::to_string(f) + "\n";
                int fd = ::open((folder / ("f" + std::to_string(f) + ".txt")).c_str(),
                    O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0644);
                if (fd < 0 || ::write(fd, body.data(), body.size()) != static_cast<ssize_t>(body.size()))
                    die("cannot build the big tree");
                ::close(fd);
            }
        }
        std::ofstream(tree / ".complete").close();
        return tree;
    }

    std::uintmax_t cacheFileBytes() const
    {
        std::uintmax_t total = 0;
        std::error_code ignored;
        for (const char* suffix : {"", "-wal"}) {
            auto size = fs::file_size(m_root / "cache" / "zandrel" / (std::string("digests.sqlite") + suffix), ignored);
            if (!ignored)
                total += size;
        }
        return total;
    }

    fs::path data(const std::string& name) const { return m_root / "data" / name; }

    void pair(const std::string& row, bool oursFirst, const std::function<double()>& ours,
        const std::function<double()>& reference)
    {
        double a, b;
        if (oursFirst) {
            a = ours();
            b = reference();
        } else {
            b = reference();
            a = ours();
        }
        m_ratios[row].push_back(b / a);
        std::fprintf(stderr, "  %-45s ours %.3f s, reference %.3f s\n", row.c_str(), a, b);
    }

    void startServer()
    {
        m_server = Child::start({(m_bin / "zandrel-syncd").string(), "--no-discovery", "--log-stderr"},
            {{"HOME", (m_root / "home").string()}, {"XDG_CACHE_HOME", (m_root / "cache").string()}}, true,
            "serving on port");
        auto at = m_server.firstLine.find("serving on port ");
        if (at == std::string::npos)
            die("the server did not start");
        m_port = std::stoi(m_server.firstLine.substr(at + 16));
    }

    void noteMemory()
    {
        std::ifstream status("/proc/" + std::to_string(m_server.pid) + "/status");
        for (std::string line; std::getline(status, line);)
            if (line.rfind("VmHWM:", 0) == 0)
                m_peakKiB = std::max(m_peakKiB, std::stoll(line.substr(6)));
    }

    void restartServer(bool dropCache)
    {
        noteMemory();
        m_server.stop();
        if (dropCache) {
            fs::remove_all(m_root / "cache");
            fs::create_directories(m_root / "cache");
        }
        startServer();
    }

    std::string startRef(const std::vector<std::string>& argv)
    {
        m_refs.push_back(Child::start(argv, {}, true));
        return m_refs.back().firstLine;
    }

    void startRsync()
    {
        m_rsyncPort = 30000 + static_cast<int>(::getpid() % 20000);
        std::ofstream conf(m_root / "rsyncd.conf");
        conf << "use chroot = no\n[data]\npath = " << (m_root / "data").string()
             << "\nread only = yes\n[up]\npath = " << (m_root / "rsync-up").string() << "\nread only = no\n";
        conf.close();
        // As the namespace's root the daemon would drop its groups, which a
        // user namespace refuses; it runs as an ordinary user one level down.
        m_refs.push_back(Child::start({"unshare", "-U", "--map-user=1000", "--map-group=1000", "rsync", "--daemon", "--no-detach", "--address=127.0.0.1",
                                          "--port=" + std::to_string(m_rsyncPort),
                                          "--config=" + (m_root / "rsyncd.conf").string()},
            {}, false));
        for (int i = 0; i < 100; ++i) {
            int fd = connectToLoopback(m_rsyncPort);
            if (fd >= 0) {
                ::close(fd);
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        die("the rsync daemon did not start");
    }

    Bytes command(std::uint8_t code, const Bytes& fields) const
    {
        Bytes payload = m_password + fields;
        Bytes out(1, code);
        out += BitHelper::encodeLongLong(static_cast<std::int64_t>(payload.size()));
        return out + payload;
    }

    double download(const fs::path& file, const fs::path& to = {}, bool save = true)
    {
        fs::path dest = save ? (to.empty() ? m_root / "out" / "ours.bin" : to) : fs::path();
        if (!dest.empty())
            fs::remove(dest);
        auto start = Clock::now();
        {
            Conn c(m_port);
            FileSink sink(dest);
            c.send(command(26, BitHelper::encodeLongLong(1) + BitHelper::encodeString(file.string())
                    + BitHelper::encodeLongLong(0) + BitHelper::encodeBool(false)));
            c.take(18);
            c.take(static_cast<std::size_t>(c.number()));
            c.take(static_cast<std::size_t>(fs::file_size(file)), std::ref(sink));
            c.take(79);
        }
        return since(start);
    }

    double rawDownload(const fs::path& file)
    {
        fs::path dest = m_root / "out" / "raw.bin";
        fs::remove(dest);
        auto start = Clock::now();
        {
            Conn c(m_rawPort);
            FileSink sink(dest);
            c.send(BitHelper::encodeString(file.string()));
            c.take(static_cast<std::size_t>(fs::file_size(file)), std::ref(sink));
        }
        return since(start);
    }

    // Sends the big file's bytes, read from it in chunks as a phone would.
    void sendFile(Conn& c)
    {
        int fd = ::open(data("big.bin").c_str(), O_RDONLY | O_CLOEXEC);
        std::vector<char> chunk(kChunk);
        for (ssize_t n; (n = ::read(fd, chunk.data(), chunk.size())) > 0;)
            c.sendRaw(chunk.data(), static_cast<std::size_t>(n));
        ::close(fd);
    }

    double upload()
    {
        fs::path dest = m_root / "up" / "ours.bin";
        fs::remove(dest);
        auto start = Clock::now();
        {
            Conn c(m_port);
            c.send(command(27, BitHelper::encodeBool(false) + BitHelper::encodeLongLong(1)
                    + BitHelper::encodeString(dest.string()) + BitHelper::encodeLongLong(m_size)
                    + BitHelper::encodeLongLong(1700000000)));
            c.take(18);
            c.take(static_cast<std::size_t>(c.number()));
            sendFile(c);
            if (c.number() != m_size)
                die("upload: short count");
        }
        return since(start);
    }

    double rawUpload()
    {
        fs::path dest = m_root / "up" / "raw.bin";
        fs::remove(dest);
        auto start = Clock::now();
        {
            Conn c(m_fsyncPort);
            c.send(BitHelper::encodeString(dest.string()) + BitHelper::encodeLongLong(m_size));
            sendFile(c);
            if (c.number() != m_size)
                die("raw upload: short count");
        }
        return since(start);
    }

    std::string rsyncUrl(const std::string& module, const std::string& name) const
    {
        return "rsync://127.0.0.1:" + std::to_string(m_rsyncPort) + "/" + module + "/" + name;
    }

    double rsyncDownload()
    {
        fs::path dest = m_root / "out" / "rsync.bin";
        fs::remove(dest);
        return timed({"rsync", "--whole-file", rsyncUrl("data", "big.bin"), dest.string()});
    }

    double rsyncUpload()
    {
        fs::remove(m_root / "rsync-up" / "big.bin");
        return timed({"rsync", "--whole-file", data("big.bin").string(), rsyncUrl("up", "big.bin")});
    }

    // Reads a whole walk, record by record, up to the end marker.
    double walk(const fs::path& folder, bool withDigests)
    {
        auto start = Clock::now();
        Conn c(m_port);
        c.send(command(24, BitHelper::encodeString(folder.string()) + BitHelper::encodeBool(withDigests)));
        c.take(18);
        for (;;) {
            auto length = c.number();
            c.take(static_cast<std::size_t>(length));
            if (length == 54)
                break;
        }
        return since(start);
    }

    // Cold walk against openssl; then the same walk at once, and after a
    // restart, against the cold one.
    void digestWalks(bool oursFirst)
    {
        restartServer(true);
        double cold = 0;
        pair("walk with digests vs openssl dgst -md5", oursFirst, [&] { return cold = walk(data("tree"), true); },
            [&] {
                std::vector<std::string> argv = {"openssl", "dgst", "-md5"};
                argv.insert(argv.end(), m_treeFiles.begin(), m_treeFiles.end());
                return timed(argv);
            });
        double again = walk(data("tree"), true);
        m_ratios["the same walk again at once (times faster)"].push_back(cold / again);
        // Give the cache's writer its moment before the server goes away.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        restartServer(false);
        double restarted = walk(data("tree"), true);
        m_ratios["the same walk after a server restart (times faster)"].push_back(cold / restarted);
        std::fprintf(stderr, "  walks again: at once %.3f s, after a restart %.3f s\n", again, restarted);
    }

    void concurrent()
    {
        const int sessions = 16;
        fs::path part = data("part.bin");
        double alone = download(part, {}, false);
        auto start = Clock::now();
        std::vector<std::thread> threads;
        for (int i = 0; i < sessions; ++i)
            threads.emplace_back([&] { download(part, {}, false); });
        for (auto& t : threads)
            t.join();
        m_ratios["16 sessions x 1/16 of the size vs one session alone"].push_back(sessions * alone / since(start));
    }

    std::int64_t m_size;
    int m_rounds;
    fs::path m_bin;
    fs::path m_root;
    Bytes m_password;
    std::vector<std::string> m_treeFiles;
    Child m_server;
    std::vector<Child> m_refs;
    int m_port = 0, m_rawPort = 0, m_fsyncPort = 0, m_rsyncPort = 0;
    long long m_peakKiB = 0;
    long long m_bigPeakKiB = 0;
    double m_cacheBytesPerFile = 0;
    std::map<std::string, std::vector<double>> m_ratios;
};

} // namespace

int main(int argc, char** argv)
{
    std::int64_t sizeMiB = 1024;
    int rounds = 5;
    bool big = false;
    for (int i = 1; i < argc; ++i) {
        std::string opt = argv[i];
        if (opt == "--big")
            big = true;
        else if (opt == "--size-mib" && i + 1 < argc)
            sizeMiB = std::max<std::int64_t>(16, std::atoll(argv[++i]));
        else if (opt == "--rounds" && i + 1 < argc)
            rounds = std::max(1, std::atoi(argv[++i]));
        else
            die("unknown option " + opt + " (use --size-mib N, --rounds N, --big)");
    }
    std::signal(SIGPIPE, SIG_IGN);
    Bench bench(sizeMiB, rounds, fs::canonical("/proc/self/exe").parent_path());
    bench.prepare();
    bench.run();
    if (big)
        bench.runBig();
    bench.print();
    return 0;
}

// Sessions give back every thread and descriptor they took, however they
// end, and the listener survives running out of either.

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "LoopbackServer.h"
#include "server/SocketListener.h"

using namespace std::chrono_literals;

namespace {

// Threads and open descriptors of this process.
struct Usage {
    long threads = 0;
    long descriptors = 0;

    static Usage now()
    {
        auto count = [](const char* folder) {
            auto entries = std::filesystem::directory_iterator(folder);
            return static_cast<long>(std::distance(begin(entries), end(entries)));
        };
        return {count("/proc/self/task"), count("/proc/self/fd")};
    }
};

long virtualMemoryBytes()
{
    std::ifstream status("/proc/self/status");
    std::string key;
    long kib = 0;
    while (status >> key && key != "VmSize:") {
    }
    status >> kib;
    return kib * 1024;
}

// The sessions have ended and their threads and descriptors are given back.
bool backTo(LoopbackServer& server, const Usage& baseline)
{
    return eventually([&] {
        auto usage = Usage::now();
        return server.app().listener()->connections().empty() && usage.threads <= baseline.threads
            && usage.descriptors <= baseline.descriptors;
    });
}

void identifyAndGo(LoopbackServer& server)
{
    auto c = server.connect();
    c->sendCommandWithPassword(14, "");
    EXPECT_EQ(c->readReply().code, 14);
}

// Lowers this process's soft limit on a resource for the life of the object.
class Limit {
public:
    Limit(int resource, rlim_t soft) : m_resource(resource)
    {
        ::getrlimit(resource, &m_old);
        rlimit lower = m_old;
        lower.rlim_cur = std::min(soft, m_old.rlim_cur);
        m_applied = ::setrlimit(resource, &lower) == 0;
    }
    ~Limit() { ::setrlimit(m_resource, &m_old); }
    bool applied() const { return m_applied; }

private:
    int m_resource;
    rlimit m_old{};
    bool m_applied = false;
};

// Sanitizers reserve address space and open descriptors of their own as
// they go, so a limit on either fails them rather than the code under test.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

} // namespace

TEST(Resources, ConnectionsLeaveNothingBehindHoweverTheyEnd)
{
    // One heap for every thread, so that address space grows only with
    // what threads keep, not with the allocator's per-thread arenas.
    ::mallopt(M_ARENA_MAX, 1);
    LoopbackServer server(false);
    server.app().setSessionLifetime(500ms);
    server.start();
    identifyAndGo(server);
    ASSERT_TRUE(eventually([&] { return server.app().listener()->connections().empty(); }));
    auto baseline = Usage::now();
    const long memory = virtualMemoryBytes();
    // Phones that leave, with no stop: ended sessions are joined as they go,
    // or each would keep its stack (megabytes of address space) until stop.
    for (int i = 0; i < 200; ++i)
        identifyAndGo(server);
    EXPECT_TRUE(backTo(server, baseline));
    if (!kSanitized) {
        EXPECT_LT(virtualMemoryBytes() - memory, 256l << 20);
    }
    {
        // Phones the lifetime timer cuts off: idle, stopped inside a header,
        // and between commands.
        std::vector<std::unique_ptr<SyncClient>> held;
        for (int i = 0; i < 30; ++i) {
            auto c = server.connect();
            if (i % 3 == 1)
                c->sendRaw(Bytes{17, 1, 0});
            if (i % 3 == 2)
                c->sendCommand(17);
            held.push_back(std::move(c));
        }
        for (auto& c : held)
            EXPECT_TRUE(c->waitForClose(10s));
    }
    EXPECT_TRUE(backTo(server, baseline));
    auto lines = server.log().lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "Connection closed."), 231);
}

TEST(Resources, AcceptPausesWhileDescriptorsRunOutAndResumesWhenTheyFreeUp)
{
    if (kSanitized)
        GTEST_SKIP() << "the sanitizers' own checks need descriptors, and none are left";
    LoopbackServer server;
    std::vector<int> spare;
    SyncClient waiting;
    {
        Limit limit(RLIMIT_NOFILE, Usage::now().descriptors + 64);
        spare.push_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        ASSERT_GE(spare.back(), 0);
        for (int fd; (fd = ::dup(spare.front())) >= 0;)
            spare.push_back(fd);
        // One left for the phone; none for the server to accept it with.
        ::close(spare.back());
        spare.pop_back();
        waiting.connect("127.0.0.1", server.port());
        waiting.setPasswordHash(server.hash());
        EXPECT_TRUE(server.log().waitFor("Could not accept a connection: Too many open files. Retrying."));
        // Nothing can come while the server has no descriptor for the phone.
        pollfd p{waiting.fd(), POLLIN, 0};
        EXPECT_EQ(::poll(&p, 1, 600), 0);
        // Spinning would have retried thousands of times by now.
        EXPECT_LT(server.app().listener()->acceptFailures(), 20u);
        for (int fd : spare)
            ::close(fd);
    }
    waiting.setTimeout(10s);
    waiting.sendCommand(17);
    EXPECT_EQ(waiting.readReply().code, 17);
    auto lines = server.log().lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                  [](const auto& line) { return line.starts_with("Could not accept a connection"); }),
        1);
}

TEST(Resources, ASessionThreadThatCannotStartLeavesNothingBehind)
{
    if (kSanitized)
        GTEST_SKIP() << "a limit on address space breaks the sanitizer, not the thread";
    LoopbackServer server;
    // Live sessions use up the stacks that ended threads left for reuse, so
    // that the next thread needs fresh address space.
    std::vector<std::unique_ptr<SyncClient>> live;
    for (int i = 0; i < 8; ++i) {
        live.push_back(server.connect());
        live.back()->sendCommand(17);
        live.back()->readExact(19);
    }
    SyncClient refused;
    bool closed = false;
    {
        Limit limit(RLIMIT_AS, static_cast<rlim_t>(virtualMemoryBytes() + (1 << 20)));
        ASSERT_TRUE(limit.applied());
        refused.connect("127.0.0.1", server.port());
        closed = refused.waitForClose(10s);
    }
    EXPECT_TRUE(closed);
    live.clear();
    EXPECT_TRUE(eventually([&] { return server.app().listener()->connections().empty(); }));
    identifyAndGo(server);
}

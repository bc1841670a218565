// How much CPU the server spends while phones are connected but silent:
// the ratio of the server process's CPU time to wall time, idle with no
// session and idle with 50 open sessions, in one run.

#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include <sys/resource.h>

#include "LoopbackServer.h"

namespace {

double cpuSeconds()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    auto tv = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return tv(u.ru_utime) + tv(u.ru_stime);
}

double cpuShareOver(std::chrono::milliseconds wall)
{
    double before = cpuSeconds();
    std::this_thread::sleep_for(wall);
    return (cpuSeconds() - before) / (static_cast<double>(wall.count()) / 1000.0);
}

} // namespace

int main()
{
    LoopbackServer server;
    const auto window = std::chrono::seconds(3);
    double empty = cpuShareOver(window);

    std::vector<std::unique_ptr<SyncClient>> clients;
    for (int i = 0; i < 50; ++i) {
        clients.push_back(server.connect());
        clients.back()->sendCommand(17);
        clients.back()->readExact(19);
    }
    double loaded = cpuShareOver(window);

    std::printf("idle CPU share, no session:   %.5f%%\n", empty * 100);
    std::printf("idle CPU share, 50 sessions:  %.5f%%\n", loaded * 100);
    std::printf("ratio 50 sessions / none:     %.2f (CPU ms per second: %.3f)\n",
        empty > 0 ? loaded / empty : 0.0, loaded * 1000);
    clients.clear();
    return 0;
}

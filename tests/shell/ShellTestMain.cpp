// The shell's tests run on Qt's offscreen platform, in a network namespace
// of their own when the process may make one, so nothing they start (the
// server, its announcements, the update checks) can reach a real network.

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <sched.h>
#include <unistd.h>

#include <QApplication>
#include <gtest/gtest.h>

#include "ShellTestSupport.h"
#include "settings/HostInfo.h"

namespace {

// Must run while the process has a single thread. Two addresses on lo stand
// in for a machine on two networks.
bool enterPrivateNetwork()
{
    if (::unshare(CLONE_NEWNET) != 0) {
        const uid_t uid = ::getuid();
        const gid_t gid = ::getgid();
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
            return false;
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
        std::ofstream("/proc/self/gid_map") << "0 " << gid << " 1";
    }
    return std::system("ip link set lo up && ip route add 224.0.0.0/4 dev lo"
                       " && ip addr add 10.77.9.1/32 dev lo && ip addr add 10.77.9.2/32 dev lo") == 0;
}

bool listingOnly(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i)
        if (std::string(argv[i]) == "--gtest_list_tests")
            return true;
    return false;
}

} // namespace

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", ZANDREL_TEST_QPA_PLATFORM);
    if (!listingOnly(argc, argv)) {
        g_ownsNetworkNamespace = enterPrivateNetwork();
        if (!g_ownsNetworkNamespace)
            std::fprintf(stderr, "shell tests: no private network namespace could be made; "
                                 "run them inside `unshare -rn` (tests that change addresses skip)\n");
    }
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    HostInfo::setProgramPath("/usr/bin/ZandrelSync"); // as installed: a build folder's leaves login items alone
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

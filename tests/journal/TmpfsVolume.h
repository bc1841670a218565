#pragma once

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

// Runs `body` in a child with its own user and mount namespaces and a tmpfs
// at `where`; the child's exit code is the body's answer (0 = as expected).
// Returns -1 when namespaces cannot be made here.
inline int onTmpfs(
    const std::filesystem::path& where, const std::function<int()>& body, const std::string& size = "size=8m")
{
    pid_t child = ::fork();
    if (child == 0) {
        uid_t uid = ::getuid();
        gid_t gid = ::getgid();
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            ::_exit(99);
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << uid << " " << uid << " 1";
        std::ofstream("/proc/self/gid_map") << gid << " " << gid << " 1";
        if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0
            || ::mount("tmpfs", where.c_str(), "tmpfs", 0, size.c_str()) != 0)
            ::_exit(99);
        ::_exit(body());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    int code = WIFEXITED(status) ? WEXITSTATUS(status) : 98;
    return code == 99 ? -1 : code;
}


#include "wire/Paths.h"

#include <cstdlib>
#include <vector>

#include <pwd.h>
#include <unistd.h>

namespace Paths {

namespace {

std::string homeOf(const std::string& user)
{
    std::vector<char> buf(16384);
    passwd pw{};
    passwd* found = nullptr;
    if (user.empty())
        getpwuid_r(geteuid(), &pw, buf.data(), buf.size(), &found);
    else
        getpwnam_r(user.c_str(), &pw, buf.data(), buf.size(), &found);
    return (found && found->pw_dir) ? std::string(found->pw_dir) : std::string();
}

// Collapses runs of "/" and drops a trailing one, the way the path-component
// rules see a path before they split it.
std::string standardSlashes(const std::string& path)
{
    std::string out;
    for (char c : path) {
        if (c == '/' && !out.empty() && out.back() == '/')
            continue;
        out += c;
    }
    if (out.size() > 1 && out.back() == '/')
        out.pop_back();
    return out;
}

} // namespace

std::string homeDirectory()
{
    if (const char* home = std::getenv("HOME"); home && *home)
        return home;
    return homeOf("");
}

std::string expandTilde(const std::string& path)
{
    if (path.empty() || path[0] != '~')
        return path;
    auto slash = path.find('/');
    std::string user = path.substr(1, slash == std::string::npos ? std::string::npos : slash - 1);
    std::string home = user.empty() ? homeDirectory() : homeOf(user);
    if (home.empty())
        return path;
    std::string rest = slash == std::string::npos ? std::string() : path.substr(slash);
    if (home.size() > 1 && home.back() == '/')
        home.pop_back();
    return standardSlashes(home + rest);
}

std::string deletingLastPathComponent(const std::string& path)
{
    std::string p = standardSlashes(path);
    if (p == "/")
        return "/";
    auto slash = p.rfind('/');
    if (slash == std::string::npos)
        return "";
    if (slash == 0)
        return "/";
    return p.substr(0, slash);
}

std::string lastPathComponent(const std::string& path)
{
    std::string p = standardSlashes(path);
    if (p == "/")
        return "/";
    auto slash = p.rfind('/');
    return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::string pathExtension(const std::string& path)
{
    std::string last = lastPathComponent(path);
    if (last == "/")
        return "";
    auto dot = last.rfind('.');
    if (dot == std::string::npos)
        return "";
    return last.substr(dot + 1);
}

} // namespace Paths

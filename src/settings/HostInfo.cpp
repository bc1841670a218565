#include "settings/HostInfo.h"

#include <cctype>
#include <climits>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <vector>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "settings/NumberText.h"

namespace HostInfo {

namespace {

std::mutex g_pathMutex;
std::string g_machineInfoPath = "/etc/machine-info";
std::string g_programPath; // empty: the running program's

// The value part of a shell-style assignment: quotes removed, backslash
// escapes resolved, unquoted trailing blanks dropped.
std::string unquote(const std::string& raw)
{
    std::string out;
    std::size_t keep = 0; // length up to the last quoted or escaped character
    char quote = 0;
    for (std::size_t i = 0; i < raw.size(); ++i) {
        char c = raw[i];
        if (quote == '\'') {
            if (c == '\'')
                quote = 0;
            else
                out += c;
        } else if (c == '\\' && i + 1 < raw.size()) {
            out += raw[++i];
        } else if (quote == '"') {
            if (c == '"')
                quote = 0;
            else
                out += c;
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else {
            out += c;
            if (!std::isspace(static_cast<unsigned char>(c)))
                keep = out.size();
            continue;
        }
        keep = out.size();
    }
    out.resize(keep);
    return out;
}

} // namespace

std::optional<std::string> prettyHostname(const std::string& machineInfoPath)
{
    std::ifstream in(machineInfoPath);
    std::string line;
    std::optional<std::string> found;
    while (std::getline(in, line)) {
        auto equals = line.find('=');
        if (equals == std::string::npos || NumberText::trim(line.substr(0, equals)) != "PRETTY_HOSTNAME")
            continue;
        found = unquote(NumberText::trim(line.substr(equals + 1))); // the last assignment wins
    }
    if (found && found->empty())
        found.reset();
    return found;
}

std::string computerName(const std::string& machineInfoPath)
{
    std::string name;
    if (auto pretty = prettyHostname(machineInfoPath)) {
        name = *pretty;
    } else {
        char host[HOST_NAME_MAX + 1] = {};
        if (::gethostname(host, sizeof host - 1) == 0)
            name = host;
    }
    for (char& c : name) {
        if (c == ':')
            c = ' ';
    }
    return name;
}

std::string machineInfoPath()
{
    std::lock_guard lock(g_pathMutex);
    return g_machineInfoPath;
}

void setMachineInfoPath(const std::string& path)
{
    std::lock_guard lock(g_pathMutex);
    g_machineInfoPath = path;
}

std::string userName()
{
    std::vector<char> buf(16384);
    passwd pw{};
    passwd* found = nullptr;
    if (::getpwuid_r(::geteuid(), &pw, buf.data(), buf.size(), &found) == 0 && found && found->pw_name)
        return found->pw_name;
    return std::to_string(::geteuid());
}

std::string programPath()
{
    {
        std::lock_guard lock(g_pathMutex);
        if (!g_programPath.empty())
            return g_programPath;
    }
    std::vector<char> buf(PATH_MAX);
    for (;;) {
        ssize_t n = ::readlink("/proc/self/exe", buf.data(), buf.size());
        if (n < 0)
            return std::string();
        if (static_cast<std::size_t>(n) < buf.size())
            return std::string(buf.data(), static_cast<std::size_t>(n));
        buf.resize(buf.size() * 2);
    }
}

void setProgramPath(const std::string& path)
{
    std::lock_guard lock(g_pathMutex);
    g_programPath = path;
}

std::optional<std::string> buildFolderOf(const std::string& programPath)
{
    namespace fs = std::filesystem;
    std::error_code ec;
    for (fs::path folder = fs::path(programPath).parent_path(); !folder.empty(); folder = folder.parent_path()) {
        if (fs::exists(folder / "CMakeCache.txt", ec))
            return folder.string();
        if (folder == folder.root_path())
            break;
    }
    return std::nullopt;
}

std::optional<std::vector<std::string>> interfaceAddresses()
{
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0)
        return std::nullopt;
    std::vector<std::string> found;
    for (ifaddrs* ifa = list; ifa; ifa = ifa->ifa_next) {
        if (!ifa->ifa_addr || ifa->ifa_addr->sa_family != AF_INET)
            continue;
        // inet_ntop gives the same dotted quad as inet_ntoa without its
        // shared buffer, so two threads may ask at once.
        char text[INET_ADDRSTRLEN] = {};
        const auto* in = reinterpret_cast<const sockaddr_in*>(ifa->ifa_addr);
        if (::inet_ntop(AF_INET, &in->sin_addr, text, sizeof text))
            found.emplace_back(text);
    }
    ::freeifaddrs(list);
    return found;
}

std::vector<std::string> orderAddresses(const std::vector<std::string>& found, const std::string& lastIP)
{
    std::vector<std::string> ordered;
    for (const std::string& address : found) {
        // A prefix test on the text, so every 127.x.x.x loopback goes.
        if (address.compare(0, 3, "127") == 0)
            continue;
        if (address == lastIP)
            ordered.insert(ordered.begin(), address);
        else
            ordered.push_back(address);
    }
    return ordered;
}

} // namespace HostInfo

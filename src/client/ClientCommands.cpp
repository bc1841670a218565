#include "client/ClientCommands.h"

#include <algorithm>
#include <ctime>
#include <ostream>

#include <fmt/format.h>

#include "client/Discovery.h"
#include "client/Downloader.h"
#include "client/HostIdentity.h"
#include "client/ProgressMeter.h"
#include "client/ProtocolClient.h"
#include "client/Uploader.h"

namespace ClientCommands {

namespace {

// Arguments that cannot work, found before anything is sent.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

std::string where(const Target& target)
{
    return target.host + ":" + std::to_string(target.port);
}

// Only the existence test and the default folder expand "~" on the server;
// every other command would take it, or a relative path, literally.
void requireAbsolute(const std::string& path)
{
    if (path.empty() || path.front() != '/')
        throw UsageError("remote paths must be absolute (start with /): " + path
            + (path.starts_with("~") ? "; the server does not expand ~ for this command" : ""));
}

std::string dateText(std::int64_t seconds)
{
    std::time_t t = static_cast<std::time_t>(seconds);
    std::tm local{};
    char text[32] = "-";
    if (seconds != 0 && ::localtime_r(&t, &local))
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
    return text;
}

std::string orDefaultPath(ProtocolClient& client, const std::string& path)
{
    if (path.empty())
        return client.defaultPath();
    requireAbsolute(path);
    // Children are named folder + "/" + name on the server; a trailing
    // slash would leave their parent text unlike the folder's own.
    auto end = path.find_last_not_of('/');
    return end == std::string::npos ? std::string("/") : path.substr(0, end + 1);
}

int reportBatch(bool ok, const std::string& what, Console& console)
{
    if (ok)
        return Ok;
    console.err << "zandrel: the server could not " << what << "\n";
    return Failed;
}

template <typename Outcome>
int reportTransfers(const std::vector<Outcome>& outcomes, const char* verb, Console& console)
{
    int result = Ok;
    for (const auto& o : outcomes) {
        if (!o.error.empty()) {
            console.err << "zandrel: " << verb << " failed: " << o.error << "\n";
            result = Failed;
        }
    }
    return result;
}

} // namespace

void open(ProtocolClient& client, const Target& target)
{
    client.connect(target.host, target.port);
    client.setPasswordHash(target.passwordHash);
    client.setTimeout(target.timeout);
}

int guard(const Target& target, Console& console, const std::function<int()>& body)
{
    try {
        return body();
    } catch (const UsageError& e) {
        console.err << "zandrel: " << e.what() << "\n";
        return Usage;
    } catch (const ConnectError& e) {
        console.err << "zandrel: " << e.what() << "\n"
                    << "  check that the server is running on " << e.host() << " and listening on port " << e.port()
                    << " (--host, --port), and that nothing blocks the way\n";
        return NoConnection;
    } catch (const PasswordRequired&) {
        console.err << "zandrel: the server at " << where(target)
                    << " refused the password; check --password or --hash against the server's settings\n";
        return BadPassword;
    } catch (const UnknownCommand& e) {
        console.err << "zandrel: the server at " << where(target) << " does not support command "
                    << int(e.code()) << "\n";
        return Failed;
    } catch (const ServerError& e) {
        console.err << "zandrel: the server reported: " << e.what() << "\n";
        return Failed;
    } catch (const ProtocolError& e) {
        console.err << "zandrel: the server at " << where(target) << " broke the protocol: " << e.what() << "\n";
        return Failed;
    } catch (const std::exception& e) {
        console.err << "zandrel: " << e.what() << "\n";
        return Failed;
    }
}

int discover(std::chrono::milliseconds timeout, Console& console)
{
    Target none;
    return guard(none, console, [&] {
        Discovery::Options options;
        options.timeout = timeout;
        auto found = Discovery(options).run([&](const Discovery::Found& f) {
            const auto& id = f.identity;
            std::string addresses;
            for (const auto& a : id.addresses)
                addresses += (addresses.empty() ? "" : ",") + a;
            console.out << fmt::format("{}  port {}  {} ({})  {}  addresses {}\n", f.from, id.port, id.computer,
                id.user, id.version, addresses.empty() ? "-" : addresses);
            console.out.flush();
        });
        if (!found.empty())
            return int(Ok);
        console.err << "zandrel: no server answered within " << timeout.count() << " ms\n";
        return int(Failed);
    });
}

int identify(const Target& target, Console& console)
{
    return guard(target, console, [&] {
        ProtocolClient client;
        open(client, target);
        auto text = client.identifyHost();
        auto id = HostIdentity::parse(text);
        if (!id) {
            console.out << text << "\n";
            return int(Ok);
        }
        std::string addresses;
        for (const auto& a : id->addresses)
            addresses += (addresses.empty() ? "" : ", ") + a;
        console.out << "version    " << id->version << "\n"
                    << "computer   " << id->computer << "\n"
                    << "user       " << id->user << "\n"
                    << "addresses  " << addresses << "\n"
                    << "port       " << id->port << "\n"
                    << "password   " << (id->acceptsHash(target.passwordHash) ? "matches" : "does not match") << "\n";
        return int(Ok);
    });
}

int defaultPath(const Target& target, Console& console)
{
    return guard(target, console, [&] {
        ProtocolClient client;
        open(client, target);
        console.out << client.defaultPath() << "\n";
        return int(Ok);
    });
}

int list(const Target& target, const std::string& path, Console& console)
{
    return guard(target, console, [&] {
        if (!path.empty())
            requireAbsolute(path);
        ProtocolClient client;
        open(client, target);
        auto folder = orDefaultPath(client, path);
        auto folders = client.foldersInFolder(folder);
        auto files = client.filesInFolder(folder);
        std::sort(folders.begin(), folders.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
        std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
        for (const auto& f : folders)
            console.out << fmt::format("d  {:<16}  {:>14}  {}/\n", dateText(f.modified), "-", f.name);
        for (const auto& f : files)
            console.out << fmt::format("-  {:<16}  {:>14}  {}\n", dateText(f.modified), f.size, f.name);
        return int(Ok);
    });
}

int tree(const Target& target, const std::string& path, bool md5, Console& console)
{
    return guard(target, console, [&] {
        if (!path.empty())
            requireAbsolute(path);
        ProtocolClient client;
        open(client, target);
        auto root = orDefaultPath(client, path);
        // The walk is pre-order: a folder's parent is always on the stack
        // of folders open above it.
        std::vector<std::string> stack;
        std::int64_t folders = 0, files = 0, bytes = 0;
        ProtocolClient::TreeHandler handler;
        handler.onFolder = [&](const RemoteFolder& f) {
            while (!stack.empty() && stack.back() != f.parent)
                stack.pop_back();
            std::string indent(2 * stack.size(), ' ');
            console.out << indent << (stack.empty() ? f.fullName : f.name) << "/\n";
            stack.push_back(f.fullName);
            ++folders;
        };
        handler.onFile = [&](const RemoteFile& f) {
            std::string indent(2 * stack.size(), ' ');
            console.out << indent << f.name << "  " << f.size;
            if (md5)
                console.out << "  " << f.hash;
            console.out << "\n";
            ++files;
            bytes += static_cast<std::int64_t>(f.size);
        };
        client.allFilesInFolder(root, md5, handler);
        console.out << fmt::format("{} folders, {} files, {}\n", folders, files, ProgressMeter::formatSize(bytes));
        return int(Ok);
    });
}

namespace {

// One line per file that arrived: where, how much, from where it resumed.
void printMoved(Console& console, const std::string& where, std::int64_t bytes, std::int64_t resumedFrom, bool verified)
{
    console.out << where << "  " << bytes << " bytes";
    if (resumedFrom > 0)
        console.out << " (resumed at " << resumedFrom << ")";
    if (verified)
        console.out << ", digest verified";
    console.out << "\n";
}

} // namespace

int get(const Target& target, const std::vector<std::string>& remotes, const std::string& folder, bool md5,
    Console& console)
{
    return guard(target, console, [&] {
        for (const auto& r : remotes)
            requireAbsolute(r);
        ProtocolClient client;
        open(client, target);
        Downloader downloader(client, md5, [&] { open(client, target); });
        auto outcomes = downloader.fetch(remotes, folder.empty() ? "." : folder, console.progress);
        for (const auto& o : outcomes) {
            if (o.error.empty())
                printMoved(console, o.local, o.received, o.resumedFrom, o.verified);
        }
        return reportTransfers(outcomes, "get", console);
    });
}

int put(const Target& target, const std::vector<std::string>& locals, const std::string& remoteFolder, bool md5,
    Console& console)
{
    return guard(target, console, [&] {
        requireAbsolute(remoteFolder);
        ProtocolClient client;
        open(client, target);
        Uploader uploader(client, md5);
        auto outcomes = uploader.send(locals, remoteFolder, console.progress);
        for (const auto& o : outcomes) {
            if (o.error.empty())
                printMoved(console, o.remote, o.sent, o.resumedFrom, o.verified);
        }
        return reportTransfers(outcomes, "put", console);
    });
}

namespace {

// One batch command over absolute paths, reported as one success or failure.
int runBatch(const Target& target, const std::vector<std::string>& paths, Console& console,
    bool (ProtocolClient::*command)(const std::vector<std::string>&), const std::string& what)
{
    return guard(target, console, [&] {
        for (const auto& p : paths)
            requireAbsolute(p);
        ProtocolClient client;
        open(client, target);
        return reportBatch((client.*command)(paths), what, console);
    });
}

} // namespace

int makeFolders(const Target& target, const std::vector<std::string>& paths, Console& console)
{
    return runBatch(target, paths, console, &ProtocolClient::createDirectories, "create every folder");
}

int removeFiles(const Target& target, const std::vector<std::string>& paths, Console& console)
{
    return runBatch(target, paths, console, &ProtocolClient::deleteFiles, "delete every file");
}

int removeFolders(const Target& target, const std::vector<std::string>& paths, Console& console)
{
    return runBatch(target, paths, console, &ProtocolClient::deleteFolders, "delete every folder");
}

int move(const Target& target, const std::string& from, const std::string& to, Console& console)
{
    return guard(target, console, [&] {
        requireAbsolute(from);
        requireAbsolute(to);
        ProtocolClient client;
        open(client, target);
        return reportBatch(client.renameFiles({{from, to}}), "rename " + from + " to " + to, console);
    });
}

int freeSpace(const Target& target, const std::string& path, Console& console)
{
    return guard(target, console, [&] {
        if (!path.empty())
            requireAbsolute(path);
        ProtocolClient client;
        open(client, target);
        auto folder = orDefaultPath(client, path);
        auto free = client.freeSpace(folder);
        console.out << fmt::format("{}  {} bytes free ({})\n", folder, free, ProgressMeter::formatSize(free));
        return int(Ok);
    });
}

} // namespace ClientCommands

#include "client/ClientCommands.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <map>
#include <optional>
#include <ostream>

#include <fmt/format.h>

#include "client/Discovery.h"
#include "client/HostIdentity.h"
#include "client/Json.h"
#include "client/Names.h"
#include "client/ProgressMeter.h"
#include "client/ProtocolClient.h"
#include "wire/Paths.h"

namespace ClientCommands {

namespace {

std::string where(const Target& target)
{
    return target.host + ":" + std::to_string(target.port);
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
    return path.empty() ? client.defaultPath() : trimmed(path);
}

} // namespace

// Only the existence test and the default folder expand "~" on the server;
// every other command would take it, or a relative path, literally.
void requireAbsolute(const std::string& path)
{
    if (path.empty() || path.front() != '/')
        throw UsageError("remote paths must be absolute (start with /): " + path
            + (path.starts_with("~") ? "; the server does not expand ~ for this command" : ""));
}

// Children are named folder + "/" + name on the server; a trailing slash
// would leave their parent text unlike the folder's own.
std::string trimmed(const std::string& path)
{
    auto end = path.find_last_not_of('/');
    return end == std::string::npos ? std::string("/") : path.substr(0, end + 1);
}

void say(Console& console, const std::string& line)
{
    if (console.progress)
        console.progress->clear();
    console.out << line << "\n";
    console.out.flush();
}

void complain(Console& console, const std::string& line)
{
    if (console.progress)
        console.progress->clear();
    console.out.flush();
    console.err << "zandrel: " << line << "\n";
    console.err.flush();
}

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

namespace {

// A name no command can carry back is shown with U+FFFD and marked.
std::string shownName(const std::string& name)
{
    return Names::travels(name) ? name : Names::shown(name) + "  (not UTF-8: cannot be fetched)";
}

std::string problemJson(const std::string& path)
{
    return Names::travels(path) ? "" : std::string(", \"problem\": ") + Json::quote(Names::kCannotTravel);
}

std::string fileJson(const RemoteFile& f, bool withHash)
{
    std::string out = fmt::format("{{\"path\": {}, \"name\": {}, \"type\": \"file\", \"size\": {}, \"modified\": {}, "
                                  "\"created\": {}, \"hidden\": {}, \"readonly\": {}",
        Json::quote(f.fullName), Json::quote(f.name), f.size, f.modified, f.created, f.hidden, f.readonly);
    if (withHash)
        out += ", \"md5\": " + Json::quote(f.hash);
    return out + problemJson(f.fullName) + "}";
}

std::string folderJson(const RemoteFolder& f)
{
    return fmt::format("{{\"path\": {}, \"name\": {}, \"type\": \"folder\", \"modified\": {}, \"created\": {}, "
                       "\"hidden\": {}, \"readonly\": {}, \"files\": {}{}}}",
        Json::quote(f.fullName), Json::quote(f.name), f.modified, f.created, f.hidden, f.readonly, f.fileCount,
        problemJson(f.fullName));
}

template <typename Items, typename ToJson>
std::string jsonArray(const Items& items, ToJson toJson)
{
    std::string out = "[";
    for (const auto& item : items)
        out += (out.size() > 1 ? ", " : "") + toJson(item);
    return out + "]";
}

// The file at `path`, found in its folder's listing (asking the server for
// a folder that is not there would end the session).
std::optional<RemoteFile> findFile(ProtocolClient& client, const std::string& path)
{
    auto folder = Paths::deletingLastPathComponent(path);
    auto name = Paths::lastPathComponent(path);
    if (folder.empty() || !client.pathExists(folder))
        return std::nullopt;
    for (auto& f : client.filesInFolder(folder))
        if (f.name == name)
            return f;
    return std::nullopt;
}

// Says why `path` will not do where a folder is needed (the server would
// answer a file as missing, and end the session); Ok when it is a folder.
int needFolder(ProtocolClient& client, const std::string& path, const char* verb, const std::string& forAFile,
    Console& console)
{
    if (client.pathExists(path))
        return Ok;
    if (findFile(client, path))
        complain(console, fmt::format("{}: {} is a file, not a folder ({})", verb, path, forAFile));
    else
        complain(console, fmt::format("{}: no such folder on the server: {}", verb, path));
    return Failed;
}

// Runs `body` on a fresh connection with the folder the command names, or
// the server's default folder; a relative path is refused before connecting.
int inFolder(const Target& target, const std::string& path, Console& console,
    const std::function<int(ProtocolClient&, const std::string&)>& body)
{
    return guard(target, console, [&] {
        if (!path.empty())
            requireAbsolute(path);
        ProtocolClient client;
        open(client, target);
        return body(client, orDefaultPath(client, path));
    });
}

} // namespace

int list(const Target& target, const std::string& path, bool json, Console& console)
{
    return inFolder(target, path, console, [&](ProtocolClient& client, const std::string& folder) {
        if (!client.pathExists(folder)) {
            auto file = findFile(client, folder);
            if (!file) {
                complain(console, "ls: no such file or folder on the server: " + folder);
                return int(Failed);
            }
            if (json)
                say(console, fileJson(*file, false));
            else
                say(console, fmt::format("{} is a file, {} bytes, modified {}", folder, file->size, dateText(file->modified)));
            return int(Ok);
        }
        auto folders = client.foldersInFolder(folder);
        auto files = client.filesInFolder(folder);
        std::sort(folders.begin(), folders.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
        std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
        if (json) {
            say(console, fmt::format("{{\"path\": {}, \"type\": \"folder\", \"folders\": {}, \"files\": {}}}",
                Json::quote(folder), jsonArray(folders, folderJson),
                jsonArray(files, [](const RemoteFile& f) { return fileJson(f, false); })));
            return int(Ok);
        }
        for (const auto& f : folders)
            console.out << fmt::format("d  {:<16}  {:>14}  {}\n", dateText(f.modified), "-", shownName(f.name + "/"));
        for (const auto& f : files)
            console.out << fmt::format("-  {:<16}  {:>14}  {}\n", dateText(f.modified), f.size, shownName(f.name));
        return int(Ok);
    });
}

namespace {

// Prints a walk as an indented tree or as full paths, as it streams in or,
// sorted, once it is all there.
class TreePrinter {
public:
    TreePrinter(const TreeOptions& options, Console& console)
        : m_options(options)
        , m_console(console)
    {
    }

    void folder(const RemoteFolder& f, std::size_t depth)
    {
        ++m_folders;
        if (m_options.paths)
            m_console.out << shownName(f.fullName + "/") << "\n";
        else
            m_console.out << std::string(2 * depth, ' ') << shownName((depth == 0 ? f.fullName : f.name) + "/") << "\n";
    }

    void file(const RemoteFile& f, std::size_t depth)
    {
        ++m_files;
        m_bytes += static_cast<std::int64_t>(f.size);
        if (m_options.paths)
            m_console.out << Names::shown(f.fullName);
        else
            m_console.out << std::string(2 * depth, ' ') << Names::shown(f.name) << "  " << f.size;
        if (m_options.md5)
            m_console.out << "  " << f.hash;
        if (!Names::travels(f.fullName))
            m_console.out << "  (not UTF-8: cannot be fetched)";
        m_console.out << "\n";
    }

    void summary()
    {
        if (!m_options.paths)
            m_console.out << fmt::format("{} folders, {} files, {}\n", m_folders, m_files,
                ProgressMeter::formatSize(m_bytes));
    }

    std::int64_t folders() const { return m_folders; }
    std::int64_t files() const { return m_files; }
    std::int64_t bytes() const { return m_bytes; }

private:
    const TreeOptions& m_options;
    Console& m_console;
    std::int64_t m_folders = 0, m_files = 0, m_bytes = 0;
};

// A whole walk held in memory, to be sorted or written as JSON.
struct WalkedTree {
    std::vector<RemoteFolder> folders;
    std::vector<RemoteFile> files;

    // Pre-order again, by name: a folder, its files, then its subfolders.
    template <typename OnFolder, typename OnFile>
    void visitSorted(OnFolder onFolder, OnFile onFile)
    {
        if (folders.empty())
            return;
        std::map<std::string, std::vector<const RemoteFolder*>> subfolders;
        std::map<std::string, std::vector<const RemoteFile*>> filesIn;
        for (const auto& f : folders)
            subfolders[f.parent].push_back(&f);
        for (const auto& f : files)
            filesIn[f.parent].push_back(&f);
        auto byName = [](const auto* a, const auto* b) { return a->name < b->name; };
        std::function<void(const RemoteFolder&, std::size_t)> visit = [&](const RemoteFolder& folder, std::size_t depth) {
            onFolder(folder, depth);
            auto& fs = filesIn[folder.fullName];
            std::sort(fs.begin(), fs.end(), byName);
            for (const auto* f : fs)
                onFile(*f, depth + 1);
            auto& subs = subfolders[folder.fullName];
            std::sort(subs.begin(), subs.end(), byName);
            for (const auto* s : subs)
                visit(*s, depth + 1);
        };
        visit(folders.front(), 0);
    }
};

} // namespace

int tree(const Target& target, const std::string& path, const TreeOptions& options, Console& console)
{
    return inFolder(target, path, console, [&](ProtocolClient& client, const std::string& root) {
        if (needFolder(client, root, "tree", "ls describes a file", console) != Ok)
            return int(Failed);
        TreePrinter printer(options, console);
        ProtocolClient::TreeHandler handler;
        WalkedTree walked;
        std::size_t depth = 0;
        if (options.sorted || options.json) {
            handler.onFolder = [&](const RemoteFolder& f) { walked.folders.push_back(f); };
            handler.onFile = [&](const RemoteFile& f) { walked.files.push_back(f); };
        } else {
            // The walk is pre-order: a folder's parent is always on the
            // stack of folders open above it, and its files come right
            // after it, one level deeper.
            handler.onFolder = [&, stack = std::vector<std::string>()](const RemoteFolder& f) mutable {
                while (!stack.empty() && stack.back() != f.parent)
                    stack.pop_back();
                printer.folder(f, stack.size());
                depth = stack.size() + 1;
                stack.push_back(f.fullName);
            };
            handler.onFile = [&](const RemoteFile& f) { printer.file(f, depth); };
        }
        client.allFilesInFolder(root, options.md5, handler);
        if (options.json) {
            if (options.sorted) {
                WalkedTree sorted;
                walked.visitSorted([&](const RemoteFolder& f, std::size_t) { sorted.folders.push_back(f); },
                    [&](const RemoteFile& f, std::size_t) { sorted.files.push_back(f); });
                walked = std::move(sorted);
            }
            std::int64_t bytes = 0;
            for (const auto& f : walked.files)
                bytes += static_cast<std::int64_t>(f.size);
            console.out << fmt::format("{{\"path\": {}, \"folders\": {}, \"files\": {}, \"totals\": {{\"folders\": {}, "
                                       "\"files\": {}, \"bytes\": {}}}}}\n",
                Json::quote(root), jsonArray(walked.folders, folderJson),
                jsonArray(walked.files, [&](const RemoteFile& f) { return fileJson(f, options.md5); }),
                walked.folders.size(), walked.files.size(), bytes);
            return int(Ok);
        }
        if (options.sorted)
            walked.visitSorted([&](const RemoteFolder& f, std::size_t d) { printer.folder(f, d); },
                [&](const RemoteFile& f, std::size_t d) { printer.file(f, d); });
        printer.summary();
        return int(Ok);
    });
}

namespace {

// One item of mkdir, rm, rmdir or mv: a line saying what happened, or a
// message saying why not. The server answers one flag for a whole batch and
// counts as done what it had nothing to do for, so each item goes alone and
// is checked before and after.
using ItemWork = std::function<std::string(ProtocolClient&, const std::string&)>;

struct ItemFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// Said as it stands, not as a failure of the command on the item.
struct ItemRefused : ItemFailure {
    using ItemFailure::ItemFailure;
};

int perItem(const Target& target, const std::vector<std::string>& paths, const char* verb, Console& console,
    const ItemWork& work)
{
    return guard(target, console, [&] {
        for (const auto& p : paths)
            requireAbsolute(p);
        ProtocolClient client;
        open(client, target);
        int result = Ok;
        for (const auto& p : paths) {
            try {
                say(console, work(client, trimmed(p)));
            } catch (const ItemRefused& e) {
                complain(console, e.what());
                result = Failed;
            } catch (const ItemFailure& e) {
                complain(console, std::string(verb) + " " + p + ": " + e.what());
                result = Failed;
            } catch (const ServerError& e) {
                complain(console, std::string(verb) + " " + p + ": " + e.what());
                result = Failed;
                open(client, target); // the server ended the session
            }
        }
        return result;
    });
}

} // namespace

int makeFolders(const Target& target, const std::vector<std::string>& paths, Console& console)
{
    return perItem(target, paths, "mkdir", console, [](ProtocolClient& client, const std::string& p) {
        if (client.pathExists(p))
            return p + "/ exists already";
        if (findFile(client, p))
            throw ItemFailure("a file is in the way");
        if (!client.createDirectories({p}) || !client.pathExists(p))
            throw ItemFailure("the server could not create it (a file in the way above it, no permission, or the "
                              "server may be read-only)");
        return "created " + p + "/";
    });
}

int removeFiles(const Target& target, const std::vector<std::string>& paths, Console& console)
{
    return perItem(target, paths, "rm", console, [](ProtocolClient& client, const std::string& p) {
        if (client.pathExists(p))
            throw ItemFailure("is a folder (rmdir removes folders)");
        if (!findFile(client, p))
            throw ItemFailure("no such file on the server");
        if (!client.deleteFiles({p}))
            throw ItemFailure("the server could not delete it (no permission, or the server may be read-only)");
        return "removed " + p;
    });
}

HomeRelation homeRelation(const std::string& path, const std::string& home)
{
    auto normal = [](const std::string& p) { return trimmed(std::filesystem::path(p).lexically_normal().string()); };
    const auto folder = normal(path);
    const auto base = normal(home);
    if (folder == base)
        return HomeRelation::Is;
    if (folder == "/" || (base.starts_with(folder) && base[folder.size()] == '/'))
        return HomeRelation::Holds;
    return HomeRelation::Apart;
}

namespace {

std::string refusal(const std::string& path, HomeRelation relation, const std::string& home)
{
    if (relation == HomeRelation::Is)
        return "refused: " + path + " is the server's home folder";
    return "refused: " + path + " holds the server's home folder (" + home + ")";
}

// The folder's record, from its parent's listing.
std::optional<RemoteFolder> folderRecord(ProtocolClient& client, const std::string& path)
{
    auto parent = Paths::deletingLastPathComponent(path);
    auto name = Paths::lastPathComponent(path);
    if (parent.empty() || !client.pathExists(parent))
        return std::nullopt;
    for (auto& f : client.foldersInFolder(parent))
        if (f.name == name)
            return f;
    return std::nullopt;
}

bool sameFolder(const std::optional<RemoteFolder>& a, const std::optional<RemoteFolder>& b)
{
    return a && b && a->name == b->name && a->created == b->created && a->modified == b->modified
        && a->fileCount == b->fileCount;
}

// What the text cannot show: `folder` reaches the home folder through a
// link (the server resolves links before it refuses). Its last components
// are followed below `folder` and the folder found there compared with the
// home folder itself.
HomeRelation homeRelationOnDisk(ProtocolClient& client, const std::string& folder, const std::string& home)
{
    const auto homeRecord = folderRecord(client, home);
    if (!homeRecord)
        return HomeRelation::Apart;
    if (sameFolder(folderRecord(client, folder), homeRecord))
        return HomeRelation::Is;
    std::string rest;
    for (auto up = trimmed(home); up != "/" && !up.empty(); up = Paths::deletingLastPathComponent(up)) {
        rest = "/" + Paths::lastPathComponent(up) + rest;
        const auto below = folder + rest;
        if (client.pathExists(below) && sameFolder(folderRecord(client, below), homeRecord))
            return HomeRelation::Holds;
    }
    return HomeRelation::Apart;
}

} // namespace

int removeFolders(const Target& target, const std::vector<std::string>& paths, Console& console)
{
    std::string home;
    return perItem(target, paths, "rmdir", console, [&](ProtocolClient& client, const std::string& p) {
        if (home.empty())
            home = trimmed(client.defaultPath());
        if (auto relation = homeRelation(p, home); relation != HomeRelation::Apart)
            throw ItemRefused(refusal(p, relation, home));
        if (!client.pathExists(p))
            throw ItemFailure(findFile(client, p) ? "is a file (rm removes files)" : "no such folder on the server");
        if (client.deleteFolders({p}))
            return "removed " + p + "/";
        if (!client.pathExists(p))
            throw ItemFailure("the server answered that it could not delete it, yet it is gone");
        if (auto relation = homeRelationOnDisk(client, p, home); relation != HomeRelation::Apart)
            throw ItemRefused(refusal(p, relation, home));
        throw ItemFailure("the server did not delete it, or not all of it (no permission, a folder that holds the "
                          "server's base or home folder, or the server may be read-only)");
    });
}

int move(const Target& target, const std::string& from, const std::string& to, Console& console)
{
    return perItem(target, {from}, "mv", console, [&](ProtocolClient& client, const std::string& p) {
        requireAbsolute(to);
        const auto dest = trimmed(to);
        if (client.pathExists(p))
            throw ItemFailure("is a folder (the server renames files only)");
        if (!findFile(client, p))
            throw ItemFailure("no such file on the server");
        if (client.pathExists(dest) || findFile(client, dest))
            throw ItemFailure(dest + " exists already (the server never replaces a file)");
        if (!client.renameFiles({{p, dest}}))
            throw ItemFailure("the server could not rename it to " + dest
                + " (no permission, or the server may be read-only)");
        return "renamed " + p + " to " + dest;
    });
}

int freeSpace(const Target& target, const std::string& path, bool json, Console& console)
{
    return inFolder(target, path, console, [&](ProtocolClient& client, const std::string& folder) {
        const auto hint = "df " + Paths::deletingLastPathComponent(folder) + " gives the free space where it lies";
        if (needFolder(client, folder, "df", hint, console) != Ok)
            return int(Failed);
        auto free = client.freeSpace(folder);
        if (json)
            console.out << fmt::format("{{\"path\": {}, \"free\": {}}}\n", Json::quote(folder), free);
        else
            console.out << fmt::format("{}  {} bytes free ({})\n", folder, free, ProgressMeter::formatSize(free));
        return int(Ok);
    });
}

} // namespace ClientCommands

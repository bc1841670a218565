// get and put of the zandrel command line: single files and whole trees,
// each file reported as it is settled, and a summary at the end.

#include <algorithm>
#include <filesystem>
#include <map>
#include <ostream>
#include <set>

#include <fmt/format.h>

#include "client/ClientCommands.h"
#include "client/Downloader.h"
#include "client/ProgressMeter.h"
#include "client/ProtocolClient.h"
#include "client/Uploader.h"
#include "wire/Paths.h"
#include "wire/Protocol.h"

namespace fs = std::filesystem;

namespace ClientCommands {

namespace {

std::string detail(std::int64_t bytes, std::int64_t resumedFrom, int reconnects, bool verified, bool dryRun)
{
    std::string text = fmt::format("{} bytes", bytes);
    if (resumedFrom > 0)
        text += fmt::format(", {} at {}", dryRun ? "resuming" : "resumed", resumedFrom);
    if (reconnects > 0)
        text += fmt::format(", {} lost connection{} resumed", reconnects, reconnects == 1 ? "" : "s");
    if (verified)
        text += ", digest verified";
    return text;
}

// How one direction speaks of its files: get names the local copy it made,
// put the remote one.
struct Direction {
    const char* command; // "get"
    const char* done;    // "got"
    const char* would;   // "would get"
    bool toLocal;
};

const Direction kGet{"get", "got", "would get", true};
const Direction kPut{"put", "sent", "would send", false};

// Says each file's outcome as it settles and counts them for the closing line.
struct Tally {
    std::int64_t files = 0;
    std::int64_t bytes = 0;
    std::int64_t skipped = 0;
    std::int64_t failed = 0;

    void add(Console& console, const Direction& how, const TransferOutcome& o)
    {
        const auto& copy = how.toLocal ? o.local : o.remote;
        switch (o.result) {
        case TransferResult::Moved:
        case TransferResult::WouldMove: {
            const bool dry = o.result == TransferResult::WouldMove;
            auto moved = dry ? o.size - o.resumedFrom : o.moved;
            say(console, fmt::format("{} {}  ({})", dry ? how.would : how.done, copy,
                             detail(moved, o.resumedFrom, o.reconnects, o.verified, dry)));
            ++files;
            bytes += moved;
            break;
        }
        case TransferResult::UpToDate:
            say(console, "up to date " + copy);
            ++skipped;
            break;
        case TransferResult::Failed:
            complain(console, fmt::format("{} {}: {}", how.command, how.toLocal ? o.remote : o.local, o.error));
            ++failed;
            break;
        }
    }

    // "got 3 files, 1.2 MiB; 2 up to date; 0 failed", or "would get ...".
    std::string line(const Direction& how, bool dryRun) const
    {
        return fmt::format("{} {} file{}, {}; {} up to date; {} failed", dryRun ? how.would : how.done, files,
            files == 1 ? "" : "s", ProgressMeter::formatSize(bytes), skipped, failed);
    }
};

// The part of a walked path below `root`, checked to stay below it: a name
// from the server never climbs out of the folder it is copied into.
std::optional<fs::path> below(const std::string& root, const std::string& full)
{
    if (full.size() <= root.size() + 1 || full.compare(0, root.size(), root) != 0 || full[root.size()] != '/')
        return std::nullopt;
    fs::path relative(full.substr(root.size() + 1));
    for (const auto& part : relative)
        if (part.empty() || part == "." || part == "..")
            return std::nullopt;
    return relative;
}

// Names no copy carries: the server's own partial uploads, ours, and the
// folder metadata the server's walk leaves out.
bool leftOut(const std::string& name)
{
    return Protocol::isLeftOutOfListings(name) || name.ends_with(Downloader::kPartialSuffix);
}

TransferRunOptions runOptions(const TransferOptions& o)
{
    TransferRunOptions run;
    run.verify = o.verify;
    run.dryRun = o.dryRun;
    run.retries = o.retries;
    return run;
}

} // namespace

int get(const Target& target, const std::vector<std::string>& remotes, const std::string& folder,
    const TransferOptions& options, Console& console)
{
    return guard(target, console, [&] {
        for (const auto& r : remotes)
            requireAbsolute(r);
        const fs::path into = folder.empty() ? "." : folder;
        ProtocolClient client;
        open(client, target);
        Tally tally;
        std::vector<Downloader::Item> items;
        for (const auto& given : remotes) {
            const auto remote = trimmed(given);
            const auto name = Paths::lastPathComponent(remote);
            // The copy is named after the remote item: "/" or ".." would name
            // the local folder's own root or parent.
            if (name == "/" || name == "." || name == "..")
                throw UsageError("name a file or folder to fetch, not " + given);
            const fs::path local = into / name;
            if (!options.recursive || !client.pathExists(remote)) {
                items.push_back({remote, local.string(), std::nullopt});
                continue;
            }
            // A tree: its folders are made here first (empty ones too),
            // then its files fetched; with digests the walk brings them.
            ProtocolClient::TreeHandler walk;
            walk.onFolder = [&](const RemoteFolder& f) {
                auto relative = f.fullName == remote ? std::optional<fs::path>(fs::path()) : below(remote, f.fullName);
                if (!relative) {
                    complain(console, "get: left out " + f.fullName + ": a name that leaves the folder");
                    ++tally.failed;
                } else if (!options.dryRun) {
                    fs::create_directories(local / *relative);
                }
            };
            walk.onFile = [&](const RemoteFile& f) {
                auto relative = below(remote, f.fullName);
                if (!relative) {
                    complain(console, "get: left out " + f.fullName + ": a name that leaves the folder");
                    ++tally.failed;
                    return;
                }
                items.push_back({f.fullName, (local / *relative).string(), f});
            };
            client.allFilesInFolder(remote, options.verify, walk);
        }
        if (!options.dryRun)
            fs::create_directories(into);
        std::stable_sort(items.begin(), items.end(), [](const auto& a, const auto& b) { return a.local < b.local; });

        Downloader downloader(client, runOptions(options), [&] { open(client, target); });
        downloader.fetch(items, console.progress, [&](const TransferOutcome& o) { tally.add(console, kGet, o); });
        say(console, tally.line(kGet, options.dryRun));
        return tally.failed > 0 ? int(Failed) : int(Ok);
    });
}

int put(const Target& target, const std::vector<std::string>& locals, const std::string& remoteFolder,
    const TransferOptions& options, Console& console)
{
    return guard(target, console, [&] {
        requireAbsolute(remoteFolder);
        const auto to = trimmed(remoteFolder);
        for (const auto& l : locals) {
            std::error_code ec;
            if (fs::is_directory(l, ec) && !options.recursive)
                throw UsageError(l + " is a folder (put -r sends folders)");
        }
        ProtocolClient client;
        open(client, target);
        // As cp has it: a trailing slash or an existing folder means into
        // it, anything else is the name the one source is stored as.
        const bool into = remoteFolder.back() == '/' || client.pathExists(to);
        if (!into && locals.size() > 1)
            throw UsageError("several items go into a folder, and " + to
                + " is none: end --to with / to have it made, or name an existing folder");
        Tally tally;
        std::vector<Uploader::Item> items;
        std::vector<std::string> newFolders;
        for (const auto& local : locals) {
            // "Photos/", "." and "dir/.." are named as the folder they are.
            auto whole = fs::absolute(local).lexically_normal();
            if (!whole.has_filename())
                whole = whole.parent_path();
            const auto name = whole.filename().string();
            if (name.empty())
                throw UsageError("name a file or folder to send, not " + local);
            const auto remote = into ? Uploader::remotePath(to, name) : to;
            std::error_code ec;
            if (!fs::is_directory(local, ec)) {
                items.push_back({local, remote, std::nullopt, false});
                continue;
            }
            // What the server holds of this tree already, with digests.
            std::map<std::string, RemoteFile> there;
            std::set<std::string> folders;
            if (client.pathExists(remote)) {
                ProtocolClient::TreeHandler walk;
                walk.onFolder = [&](const RemoteFolder& f) { folders.insert(f.fullName); };
                walk.onFile = [&](const RemoteFile& f) { there[f.fullName] = f; };
                client.allFilesInFolder(remote, options.verify, walk);
            }
            if (!folders.count(remote))
                newFolders.push_back(remote);
            for (auto it = fs::recursive_directory_iterator(local, ec); !ec && it != fs::recursive_directory_iterator();
                 it.increment(ec)) {
                const auto relative = it->path().lexically_relative(local).generic_string();
                const auto path = remote + "/" + relative;
                if (it->is_directory()) {
                    if (!folders.count(path))
                        newFolders.push_back(path);
                } else if (it->is_regular_file() && !leftOut(it->path().filename().string())) {
                    auto found = there.find(path);
                    items.push_back({it->path().string(), path,
                        found == there.end() ? std::nullopt : std::optional<RemoteFile>(found->second),
                        found == there.end()});
                }
            }
            if (ec)
                complain(console, "put: cannot read all of " + local + ": " + ec.message());
        }
        std::sort(newFolders.begin(), newFolders.end());
        std::stable_sort(items.begin(), items.end(), [](const auto& a, const auto& b) { return a.remote < b.remote; });
        // Folders first, so that empty ones arrive too.
        for (const auto& f : newFolders) {
            if (options.dryRun) {
                say(console, "would create " + f + "/");
            } else if (client.createDirectories({f}) && client.pathExists(f)) {
                say(console, "created " + f + "/");
            } else {
                complain(console, "put: cannot create the folder " + f + " on the server");
                ++tally.failed;
            }
        }

        Uploader uploader(client, runOptions(options), [&] { open(client, target); });
        uploader.send(items, console.progress, [&](const TransferOutcome& o) { tally.add(console, kPut, o); });
        say(console, tally.line(kPut, options.dryRun));
        return tally.failed > 0 ? int(Failed) : int(Ok);
    });
}

} // namespace ClientCommands

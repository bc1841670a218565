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
#include "client/Json.h"
#include "client/LocalFile.h"
#include "client/Names.h"
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

const char* resultName(TransferResult result)
{
    switch (result) {
    case TransferResult::Moved:
        return "copied";
    case TransferResult::UpToDate:
        return "up to date";
    case TransferResult::WouldMove:
        return "would copy";
    case TransferResult::Skipped:
        return "skipped";
    case TransferResult::Failed:
        break;
    }
    return "failed";
}

std::string outcomeJson(const TransferOutcome& o)
{
    std::string out = fmt::format("{{\"remote\": {}, \"local\": {}, \"result\": \"{}\", \"size\": {}, \"moved\": {}, "
                                  "\"resumedFrom\": {}, \"verified\": {}",
        Json::quote(o.remote), Json::quote(o.local), resultName(o.result), o.size, o.moved, o.resumedFrom, o.verified);
    if (o.result == TransferResult::Skipped || o.result == TransferResult::Failed)
        out += ", \"reason\": " + Json::quote(o.error);
    return out + "}";
}

// Says each file's outcome as it settles and counts them for the closing
// line, or keeps them for one JSON object at the end.
struct Tally {
    Tally(Console& console, const Direction& how, bool json)
        : console(console)
        , how(how)
        , json(json)
    {
    }

    Console& console;
    const Direction& how;
    bool json;
    std::vector<TransferOutcome> outcomes;
    std::int64_t files = 0;
    std::int64_t bytes = 0;
    std::int64_t upToDate = 0;
    std::int64_t skipped = 0;
    std::int64_t failed = 0;

    void add(const TransferOutcome& o)
    {
        if (json)
            outcomes.push_back(o);
        const auto& copy = Names::shown(how.toLocal ? o.local : o.remote);
        const auto& source = Names::shown(how.toLocal ? o.remote : o.local);
        switch (o.result) {
        case TransferResult::Moved:
        case TransferResult::WouldMove: {
            const bool dry = o.result == TransferResult::WouldMove;
            auto moved = dry ? o.size - o.resumedFrom : o.moved;
            if (!json)
                say(console, fmt::format("{} {}  ({})", dry ? how.would : how.done, copy,
                                 detail(moved, o.resumedFrom, o.reconnects, o.verified, dry)));
            ++files;
            bytes += moved;
            break;
        }
        case TransferResult::UpToDate:
            if (!json)
                say(console, "up to date " + copy);
            ++upToDate;
            break;
        case TransferResult::Skipped:
            complain(console, fmt::format("skipped {}: {}", source, o.error));
            ++skipped;
            break;
        case TransferResult::Failed:
            complain(console, fmt::format("{} {}: {}", how.command, source.empty() ? copy : source, o.error));
            ++failed;
            break;
        }
    }

    // A failure that is no file's transfer (a folder, a name left out).
    void fail(const std::string& remote, const std::string& local, const std::string& why)
    {
        TransferOutcome o;
        o.remote = remote;
        o.local = local;
        o.error = why;
        add(o);
    }

    // "got 3 files, 1.2 MiB; 2 up to date; 0 failed" ("; 1 skipped" when
    // any were), or "would get ...", or the JSON object; the exit code.
    int close(bool dryRun) const
    {
        if (json) {
            std::string list;
            for (const auto& o : outcomes)
                list += (list.empty() ? "" : ", ") + outcomeJson(o);
            say(console, fmt::format("{{\"files\": [{}], \"totals\": {{\"copied\": {}, \"bytes\": {}, "
                                     "\"upToDate\": {}, \"skipped\": {}, \"failed\": {}}}}}",
                             list, files, bytes, upToDate, skipped, failed));
        } else {
            say(console, fmt::format("{} {} file{}, {}; {} up to date; {}{} failed", dryRun ? how.would : how.done,
                             files, files == 1 ? "" : "s", ProgressMeter::formatSize(bytes), upToDate,
                             skipped > 0 ? fmt::format("{} skipped; ", skipped) : "", failed));
        }
        return skipped + failed > 0 ? int(Failed) : int(Ok);
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

// What stands where a local folder should be, when something else does:
// "a file", "a FIFO" ...; empty for nothing or a folder.
std::string inTheWayOfAFolder(const fs::path& path)
{
    if (LocalFile::sizeOf(path) >= 0)
        return "a file";
    auto kind = LocalFile::kindOf(path);
    return kind == "a folder" ? "" : kind;
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
        if (auto kind = inTheWayOfAFolder(into); !kind.empty())
            throw UsageError("--to " + folder + " is " + kind + ", not a folder: name a folder (it is made when missing)");
        ProtocolClient client;
        open(client, target);
        Tally tally(console, kGet, options.json);
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
                const auto here = relative ? local / *relative : fs::path();
                if (!relative) {
                    tally.fail(f.fullName, "", "left out: a name that leaves the folder");
                } else if (auto kind = inTheWayOfAFolder(here); !kind.empty()) {
                    tally.fail(f.fullName, here.string(), here.string() + " is " + kind
                        + " here, not a folder: move it away, or get into another folder with --to");
                } else if (!options.dryRun) {
                    fs::create_directories(here);
                }
            };
            walk.onFile = [&](const RemoteFile& f) {
                auto relative = below(remote, f.fullName);
                if (!relative) {
                    tally.fail(f.fullName, "", "left out: a name that leaves the folder");
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
        downloader.fetch(items, console.progress, [&](const TransferOutcome& o) { tally.add(o); });
        return tally.close(options.dryRun);
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
        Tally tally(console, kPut, options.json);
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
                if (!options.json)
                    say(console, "would create " + f + "/");
            } else if (client.createDirectories({f}) && client.pathExists(f)) {
                if (!options.json)
                    say(console, "created " + f + "/");
            } else {
                tally.fail(f, "", "cannot create the folder on the server (the server may be read-only)");
            }
        }

        Uploader uploader(client, runOptions(options), [&] { open(client, target); });
        uploader.send(items, console.progress, [&](const TransferOutcome& o) { tally.add(o); });
        return tally.close(options.dryRun);
    });
}

} // namespace ClientCommands

#include "daemon/ActivityCommands.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "journal/ActivityStore.h"
#include "journal/When.h"

namespace {

constexpr const char* kActivityUsage = R"(Usage: zandrel-syncd activity [--since WHEN] [--until WHEN] [--device ADDRESS] [--json]

Lists what phones did, newest last, one line each: number, time, phone,
what, path, size, and for removed or replaced items whether they were kept.
WHEN is a date and time (2026-11-24T13:10), a time of today (13:10) or an
age (-10m, -2h, -3d).
)";

constexpr const char* kRestoreUsage = R"text(Usage: zandrel-syncd restore ID...
       zandrel-syncd restore --since WHEN [--until WHEN] [--device ADDRESS] [--dry-run]

Puts items that phones removed or replaced back at their paths, from the
trash; where a path is taken, beside it as "NAME (restored)". Nothing is
ever overwritten. WHEN as for `zandrel-syncd activity`.
)text";

struct Args {
    ChangeFilter filter;
    std::vector<std::int64_t> ids;
    bool json = false;
    bool dryRun = false;
};

std::int64_t nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Returns an exit code when the arguments end the command (help, a mistake).
std::optional<int> parseArgs(int argc, char** argv, bool restore, Args& args)
{
    const char* usage = restore ? kRestoreUsage : kActivityUsage;
    for (int i = 2; i < argc; ++i) {
        std::string arg = argv[i];
        bool takesValue = arg == "--since" || arg == "--until" || arg == "--device";
        if (takesValue && i + 1 >= argc) {
            std::cerr << "zandrel-syncd: " << arg << " needs a value\n" << usage;
            return 2;
        }
        if (arg == "--since" || arg == "--until") {
            auto when = When::parse(argv[++i], nowMs());
            if (!when) {
                std::cerr << fmt::format("zandrel-syncd: '{}' is not a time: use 2026-11-24T13:10, 13:10 or -10m\n",
                    argv[i]);
                return 2;
            }
            (arg == "--since" ? args.filter.since : args.filter.until) = *when;
        } else if (arg == "--device") {
            args.filter.device = argv[++i];
        } else if (arg == "--json" && !restore) {
            args.json = true;
        } else if (arg == "--dry-run" && restore) {
            args.dryRun = true;
        } else if (arg == "--help" || arg == "-h") {
            std::cout << usage;
            return 0;
        } else if (restore && !arg.empty() && arg.find_first_not_of("0123456789") == std::string::npos) {
            args.ids.push_back(std::stoll(arg.substr(0, 18)));
        } else {
            std::cerr << "zandrel-syncd: unknown argument '" << arg << "'\n" << usage;
            return 2;
        }
    }
    if (restore && args.ids.empty() && !args.filter.since) {
        std::cerr << "zandrel-syncd: name the entries to restore (their numbers) or a time with --since\n" << usage;
        return 2;
    }
    return std::nullopt;
}

std::string sizeText(std::int64_t bytes)
{
    if (bytes < 0)
        return "-";
    if (bytes < 1024)
        return fmt::format("{} B", bytes);
    const char* units[] = {"KB", "MB", "GB", "TB"};
    double value = static_cast<double>(bytes) / 1024;
    int unit = 0;
    for (; value >= 1024 && unit < 3; ++unit)
        value /= 1024;
    return fmt::format("{:.1f} {}", value, units[unit]);
}

std::string keptText(const Change& c)
{
    switch (c.state) {
    case Change::State::Kept:
        return "kept";
    case Change::State::Restored:
        return "restored to " + c.target;
    case Change::State::Purged:
        return "kept, since purged";
    case Change::State::None:
        break;
    }
    return c.note.empty() ? "" : "not kept: " + c.note;
}

std::string line(const Change& c)
{
    std::string path = c.kind == Change::Kind::Renamed ? c.path + " -> " + c.target : c.path;
    std::string text = fmt::format("#{}  {}  {}  {}", c.id, When::localText(c.at), c.device.empty() ? "-" : c.device,
        Change::kindText(c.kind));
    if (!path.empty())
        text += "  " + path;
    if (c.size >= 0)
        text += "  " + sizeText(c.size);
    if (auto kept = keptText(c); !kept.empty())
        text += "  (" + kept + ")";
    return text;
}

std::string jsonString(const std::string& text)
{
    std::string out = "\"";
    for (unsigned char ch : text) {
        if (ch == '"' || ch == '\\')
            out += std::string("\\") + static_cast<char>(ch);
        else if (ch < 0x20)
            out += fmt::format("\\u{:04x}", ch);
        else
            out += static_cast<char>(ch);
    }
    return out + "\"";
}

std::string json(const Change& c)
{
    return fmt::format("{{\"id\": {}, \"at\": {}, \"time\": {}, \"device\": {}, \"kind\": {}, \"path\": {}, "
                       "\"target\": {}, \"size\": {}, \"kept\": {}, \"keptAs\": {}, \"note\": {}, \"state\": {}}}",
        c.id, c.at, jsonString(When::localText(c.at)), jsonString(c.device), jsonString(Change::kindText(c.kind)),
        jsonString(c.path), jsonString(c.target), c.size, c.state != Change::State::None ? "true" : "false",
        jsonString(c.keptAs), jsonString(c.note), jsonString(Change::stateText(c.state)));
}

std::unique_ptr<ActivityStore> openStore()
{
    std::string error;
    auto store = ActivityStore::open(&error);
    if (!store)
        std::cerr << fmt::format("zandrel-syncd: the activity journal {} cannot be opened: {}\n",
            ActivityDatabase::defaultFile(), error);
    return store;
}

int activity(const Args& args)
{
    auto store = openStore();
    if (!store)
        return 1;
    auto changes = store->list(args.filter);
    if (args.json) {
        std::cout << "[";
        for (std::size_t i = 0; i < changes.size(); ++i)
            std::cout << (i ? ",\n " : "\n ") << json(changes[i]);
        std::cout << (changes.empty() ? "]\n" : "\n]\n");
        return 0;
    }
    if (changes.empty())
        std::cout << "No activity recorded" << (args.filter.since || args.filter.until || args.filter.device
                                                       ? " that matches."
                                                       : " yet.")
                  << "\n";
    for (const auto& c : changes)
        std::cout << line(c) << "\n";
    return 0;
}

int restore(Args& args)
{
    auto store = openStore();
    if (!store)
        return 1;
    std::vector<Change> wanted;
    if (args.ids.empty()) {
        args.filter.restorableOnly = true;
        wanted = store->list(args.filter);
        // Newest first: a folder comes back before what was deleted from it
        // earlier, which then finds its place inside it.
        std::reverse(wanted.begin(), wanted.end());
        if (wanted.empty()) {
            std::cout << "Nothing to restore: no item kept in that time is still in the trash.\n";
            return 0;
        }
    }
    for (auto id : args.ids) {
        Change c;
        c.id = id;
        wanted.push_back(c);
    }
    int failed = 0;
    for (const auto& c : wanted) {
        if (args.dryRun) {
            std::cout << fmt::format("Would restore #{} {}\n", c.id, c.path);
            continue;
        }
        auto result = store->restore(c.id);
        std::string path = result.path.empty() ? "" : " " + result.path;
        if (!result.restoredTo) {
            ++failed;
            std::cout << fmt::format("Could not restore #{}{}: {}\n", c.id, path, result.why);
        } else if (*result.restoredTo == result.path) {
            std::cout << fmt::format("Restored #{}{}\n", c.id, path);
        } else {
            std::cout << fmt::format("Restored #{}{} as {}\n", c.id, path, *result.restoredTo);
        }
    }
    return failed ? 1 : 0;
}

} // namespace

namespace ActivityCommands {

std::optional<int> dispatch(int argc, char** argv)
{
    if (argc < 2)
        return std::nullopt;
    std::string command = argv[1];
    if (command != "activity" && command != "restore")
        return std::nullopt;
    bool isRestore = command == "restore";
    Args args;
    if (auto done = parseArgs(argc, argv, isRestore, args))
        return done;
    return isRestore ? restore(args) : activity(args);
}

} // namespace ActivityCommands

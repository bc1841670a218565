// zandrel-syncd: the sync server without a desktop, in the foreground until
// SIGTERM or SIGINT.

#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "daemon/ActivityCommands.h"
#include "settings/Settings.h"
#include "server/App.h"

namespace {

constexpr const char* kUsage = R"(Usage: zandrel-syncd [options]

Serves phones on the local network without a desktop, in the foreground.
Settings are read from (or created at) the user's settings file; stop with
Ctrl-C or SIGTERM.

Options:
  --log-stderr     write log lines to standard error instead of the system log
                   (lines appear only when logging is on in the settings)
  --no-discovery   do not announce the server or answer phones looking for it
  --listen ADDRESS listen on this one IPv4 address only (default: all); on a
                   loopback address such as 127.0.0.1 discovery is off
  --confine        refuse every path outside the base folder
  --read-only      let phones browse and download, never change a file
  --strict-identify
                   identify needs the right password, like every command
  --help           show this help and exit
  --version        show the version and exit

Subcommands:
  activity [--since WHEN] [--until WHEN] [--device ADDRESS] [--json]
                   list what phones did (see 'zandrel-syncd activity --help')
  restore ID... | restore --since WHEN [--until WHEN] [--device ADDRESS] [--dry-run]
                   bring back what phones removed or replaced
)";

// Keeps the lines written while the settings load, so that a broken
// settings file can be named on the terminal as well as in the log.
std::shared_ptr<Settings> loadSettings(bool logStderr)
{
    App::logToStandardError(logStderr);
    std::shared_ptr<Settings> settings;
    // Start at login belongs to the desktop application: the daemon neither
    // adds nor removes a login item.
    const auto lines =
        App::linesLoggedDuring([&] { settings = std::make_shared<Settings>(Settings::NoLoginItems{}); });
    // With --log-stderr, standard error carries log lines only, and the line
    // itself is already there.
    if (logStderr || lines.empty())
        return settings;
    for (const auto& line : lines)
        std::cerr << "zandrel-syncd: " << line << "\n";
    std::cerr << fmt::format("zandrel-syncd: the settings file {} could not be read; serving with the default "
                             "settings. Correct or remove the file (it is rewritten when settings are saved).\n",
        Settings::preferencesPath());
    return settings;
}

// The defaults are written when there is no settings file; a file still
// missing afterwards means the home folder refused it, and changes made for
// this run would be lost without a word.
void warnIfSettingsUnwritable()
{
    namespace fs = std::filesystem;
    const fs::path file = Settings::preferencesPath();
    std::error_code ec;
    if (fs::exists(file, ec))
        return;
    fs::path folder = file.parent_path();
    while (!folder.empty() && folder != folder.root_path() && !fs::is_directory(folder, ec))
        folder = folder.parent_path();
    std::cerr << fmt::format("zandrel-syncd: the settings file {} could not be written; serving with the default "
                             "settings, which are not kept. Make {} writable (or set HOME to a folder that is).\n",
        file.string(), folder.string());
}

// Where a phone finds this server: every LAN address with the port, or the
// one address it listens on (on loopback only, no phone finds it: say so).
std::string servingLine(std::uint16_t port, const Settings& settings)
{
    const std::string listen = settings.getListenAddress();
    const auto addresses = listen.empty() ? settings.validIPAddresses() : std::vector<std::string>{listen};
    std::string where = addresses.empty() ? std::string("no network address yet (only this computer can connect)")
                                          : fmt::format("{}", fmt::join(addresses, ", "));
    std::string line = fmt::format("zandrel-syncd serving on port {} at {} (settings: {})", port, where,
        Settings::preferencesPath());
    if (App::discoveryOffFor(settings))
        line += fmt::format("; discovery off: listening on {} only", listen);
    return line;
}

// A port outside 1024-65535 is replaced by one the system chooses (phones
// find it through discovery); say so, or the person looks for the wrong one.
void explainChosenPort(std::uint16_t port, const Settings& settings)
{
    const std::int32_t configured = settings.getPort();
    if (static_cast<std::uint32_t>(configured) - 1024u < 64512u)
        return;
    std::cout << fmt::format("zandrel-syncd: port {} in the settings is outside 1024-65535, so the system chose "
                             "port {}; it changes at every start. Set a port from 1024 to 65535 in {} to keep one.",
        configured, port, Settings::preferencesPath())
              << std::endl;
}

struct Options {
    bool logStderr = false;
    bool discovery = true;
    // The hardening switches: each turns on for this run what the settings
    // file may also turn on; none turns off what the file asks for.
    bool confine = false;
    bool readOnly = false;
    bool strictIdentify = false;
    std::string listenAddress;
};

void applyHardening(const Options& options, Settings& settings)
{
    if (options.confine)
        settings.setConfineToBasePath(true);
    if (options.readOnly)
        settings.setReadOnly(true);
    if (options.strictIdentify)
        settings.setStrictIdentify(true);
    if (!options.listenAddress.empty())
        settings.setListenAddress(options.listenAddress);
}

// Blocks SIGINT/SIGTERM in every thread started later, so that only
// sigwait() below receives them.
sigset_t blockStopSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return set;
}

int parse(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--log-stderr") {
            options.logStderr = true;
        } else if (arg == "--no-discovery") {
            options.discovery = false;
        } else if (arg == "--confine") {
            options.confine = true;
        } else if (arg == "--read-only") {
            options.readOnly = true;
        } else if (arg == "--strict-identify") {
            options.strictIdentify = true;
        } else if (arg == "--listen") {
            if (i + 1 >= argc || !Settings::isListenAddress(argv[i + 1])) {
                std::cerr << "zandrel-syncd: --listen needs an IPv4 address such as 127.0.0.1\n";
                return 2;
            }
            options.listenAddress = argv[++i];
        } else if (arg == "--help" || arg == "-h") {
            std::cout << kUsage;
            return 0;
        } else if (arg == "--version") {
            std::cout << "zandrel-syncd " << Settings::getVersionAPI() << "\n";
            return 0;
        } else {
            std::cerr << "zandrel-syncd: unknown option '" << arg << "'\n"
                      << "Try 'zandrel-syncd --help' for the options.\n";
            return 2;
        }
    }
    return -1;
}

} // namespace

int main(int argc, char** argv)
{
    if (auto rc = ActivityCommands::dispatch(argc, argv))
        return *rc;
    Options options;
    if (int rc = parse(argc, argv, options); rc >= 0)
        return rc;

    sigset_t stopSignals = blockStopSignals();
    auto settings = loadSettings(options.logStderr);
    warnIfSettingsUnwritable();
    applyHardening(options, *settings);
    App app(settings);
    app.setDiscoveryEnabled(options.discovery);
    app.start();

    auto port = app.waitUntilRunning(std::chrono::seconds(30));
    if (!port || *port == 0) {
        const std::string address = settings->getListenAddress();
        if (address.empty())
            std::cerr << fmt::format("zandrel-syncd: could not listen on port {} (is another server running there?). "
                                     "Choose another port in {} or stop the other program.\n",
                settings->getPort(), Settings::preferencesPath());
        else
            std::cerr << fmt::format("zandrel-syncd: could not listen on {} port {} (is that address this "
                                     "machine's, and the port free?). Check the listen address and port in {}.\n",
                address, settings->getPort(), Settings::preferencesPath());
        app.stop();
        return 1;
    }
    std::cout << servingLine(*port, *settings) << std::endl;
    explainChosenPort(*port, *settings);

    int signal = 0;
    sigwait(&stopSignals, &signal);
    app.stop();
    return 0;
}

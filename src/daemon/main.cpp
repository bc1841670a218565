// zandrel-syncd: the sync server without a desktop, in the foreground until
// SIGTERM or SIGINT; SIGHUP re-reads the settings and restarts the server.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <sysexits.h>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "daemon/ActivityCommands.h"
#include "settings/HostInfo.h"
#include "settings/Settings.h"
#include "server/App.h"
#include "ControlCommands.h"

namespace {

constexpr const char* kUsage = R"(Usage: zandrel-syncd [options]

Serves phones on the local network without a desktop, in the foreground.
Settings are read from (or created at) the user's settings file; stop with
Ctrl-C or SIGTERM. SIGHUP (systemctl --user reload zandrel-syncd) reads the
settings file again and restarts the server with it.

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
  status [--json]  what the server of this user is doing: port, addresses,
                   process, uptime, each phone's session and its work
  devices [--json] | devices allow ADDRESS [--name NAME] | devices block ADDRESS | devices forget ADDRESS
                   the phones that have come; let one in, keep one out (its
                   open sessions end at once) or forget it

Exit status: 0 after SIGTERM or SIGINT; 2 for a wrong option; 78 when the
settings cannot work (the settings file cannot be read, the port is taken,
the listen address is not this machine's), which the systemd unit does not
restart on; 1 for any other failure. status exits 3 when no server runs for
this user.
)";

// A configuration that cannot work until a person changes it: the unit's
// RestartPreventExitStatus= names it, so systemd does not retry in a loop.
constexpr int kCannotWork = EX_CONFIG;
constexpr int kUsageError = 2;

void complain(const std::string& text)
{
    std::cerr << "zandrel-syncd: " << text << std::endl;
}

// Nothing when the settings file cannot be read: serving the defaults (the
// default password among them) is not what the person configured.
std::shared_ptr<Settings> loadSettings(bool logStderr)
{
    App::logToStandardError(logStderr);
    // Start at login belongs to the desktop application: the daemon neither
    // adds nor removes a login item.
    auto settings = std::make_shared<Settings>(Settings::NoLoginItems{});
    if (auto why = settings->readError()) {
        complain(fmt::format("cannot read the settings file {} ({}); not starting. Correct the file, or remove it "
                             "to start again with the default settings.",
            Settings::preferencesPath(), *why));
        return nullptr;
    }
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
    complain(fmt::format("the settings file {} could not be written; serving with the default settings, which are "
                         "not kept. Make {} writable (or set HOME to a folder that is).",
        file.string(), folder.string()));
}

// Where a phone finds this server: every LAN address with the port, or the
// one address it listens on (on loopback only, no phone finds it: say so).
std::string servingLine(std::uint16_t port, const Settings& settings)
{
    const auto addresses = settings.servedAddresses();
    std::string where = addresses.empty() ? std::string("no network address yet (only this computer can connect)")
                                          : fmt::format("{}", fmt::join(addresses, ", "));
    std::string line = fmt::format("zandrel-syncd serving on port {} at {} (settings: {})", port, where,
        Settings::preferencesPath());
    if (App::discoveryOffFor(settings))
        line += fmt::format("; discovery off: listening on {} only", settings.getListenAddress());
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

// Blocks SIGINT/SIGTERM/SIGHUP in every thread started later, so that only
// sigwait() below receives them.
sigset_t blockSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
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
                complain("--listen needs an IPv4 address such as 127.0.0.1");
                return kUsageError;
            }
            if (!options.listenAddress.empty()) {
                complain(fmt::format("--listen is given twice ({} and {}); the server listens on one address, or on "
                                     "all of them without --listen",
                    options.listenAddress, argv[i + 1]));
                return kUsageError;
            }
            options.listenAddress = argv[++i];
        } else if (arg == "--help" || arg == "-h") {
            std::cout << kUsage;
            return 0;
        } else if (arg == "--version") {
            std::cout << "zandrel-syncd " << Settings::getVersionAPI() << "\n";
            return 0;
        } else {
            complain("unknown option '" + arg + "'\nTry 'zandrel-syncd --help' for the options.");
            return kUsageError;
        }
    }
    return -1;
}

// Why listening failed, in the words a person can act on.
std::string listenFailure(const Settings& settings)
{
    const std::string address = settings.getListenAddress();
    const auto ours = HostInfo::interfaceAddresses().value_or(std::vector<std::string>{});
    // The whole of 127/8 is this machine's, though lo carries 127.0.0.1 only.
    const bool local = address.rfind("127.", 0) == 0 || address == "0.0.0.0";
    if (!address.empty() && !local && std::find(ours.begin(), ours.end(), address) == ours.end())
        return fmt::format("{} is not an address of this machine (it has {}), so the server cannot listen there. "
                           "Give --listen one of those, or change listenAddress in {}.",
            address, ours.empty() ? std::string("none") : fmt::format("{}", fmt::join(ours, ", ")),
            Settings::preferencesPath());
    return fmt::format("cannot listen on {}port {}: another program (or another zandrel-syncd) is using it. Stop "
                       "that program or choose another port in {}.",
        address.empty() ? std::string() : address + " ", settings.getPort(), Settings::preferencesPath());
}

// Waits for the server to listen and prints where phones find it; false
// (after saying why) when it cannot listen.
bool announceStart(App& app, const Settings& settings)
{
    auto port = app.waitUntilRunning(std::chrono::seconds(30));
    if (!port || *port == 0) {
        complain(listenFailure(settings));
        return false;
    }
    std::cout << servingLine(*port, settings) << std::endl;
    explainChosenPort(*port, settings);
    return true;
}

// SIGHUP: what Save does in the window. A settings file that cannot be read
// leaves the running server as it is; false when the new settings cannot
// be served.
bool reload(App& app, Settings& settings, const Options& options)
{
    if (auto why = Settings(Settings::NoLoginItems{}).readError()) {
        complain(fmt::format("SIGHUP: cannot read the settings file {} ({}); still serving with the settings in use",
            Settings::preferencesPath(), *why));
        return true;
    }
    std::cout << fmt::format("zandrel-syncd: SIGHUP: reading {} again and restarting the server",
                     Settings::preferencesPath())
              << std::endl;
    app.stop();
    settings.readPreferences();
    applyHardening(options, settings);
    app.start();
    return announceStart(app, settings);
}

int serve(const Options& options)
{
    sigset_t signals = blockSignals();
    auto settings = loadSettings(options.logStderr);
    if (!settings)
        return kCannotWork;
    warnIfSettingsUnwritable();
    applyHardening(options, *settings);
    App app(settings);
    app.setDiscoveryEnabled(options.discovery);
    DaemonControl control(app, settings);
    app.start();
    bool serving = announceStart(app, *settings);
    if (serving)
        control.openChannel();
    while (serving) {
        int signal = 0;
        sigwait(&signals, &signal);
        if (signal != SIGHUP)
            break;
        serving = reload(app, *settings, options);
    }
    app.stop();
    return serving ? 0 : kCannotWork;
}

} // namespace

int main(int argc, char** argv)
{
    if (auto rc = ActivityCommands::dispatch(argc, argv))
        return *rc;
    if (int rc = runControlCommand(argc, argv); rc >= 0)
        return rc;
    Options options;
    if (int rc = parse(argc, argv, options); rc >= 0)
        return rc;
    try {
        return serve(options);
    } catch (const std::exception& e) {
        complain(e.what());
        return 1;
    }
}

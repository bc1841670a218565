// zandrel: a command-line client of the sync protocol. Parses the arguments
// and hands each subcommand to ClientCommands, which does the work.

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include <CLI/CLI.hpp>

#include "client/ClientCommands.h"
#include "client/ProgressMeter.h"
#include "client/SyncClient.h"
#include "wire/Protocol.h"

namespace {

struct Arguments {
    ClientCommands::Target target;
    std::string password;
    std::string hash;
    double timeoutSeconds = 120;
    double discoverSeconds = 3;
    std::string path;
    std::vector<std::string> paths;
    std::string folder;
    std::string from;
    std::string to;
    bool json = false;
    ClientCommands::TreeOptions tree;
    ClientCommands::TransferOptions transfer;
    bool noVerify = false;
    bool legacyMd5 = false;
};

// Options as people (and help2man) expect them: "-p, --port PORT".
class Formatter : public CLI::Formatter {
public:
    std::string make_option_name(const CLI::Option* option, bool positional) const override
    {
        auto names = CLI::Formatter::make_option_name(option, positional);
        for (auto at = names.find(','); at != std::string::npos; at = names.find(',', at + 2))
            names.insert(at + 1, " ");
        return names;
    }
};

void addGlobalOptions(CLI::App& app, Arguments& a)
{
    app.add_option("--host", a.target.host, "Server address or name")->capture_default_str()->type_name("HOST");
    app.add_option("-p,--port", a.target.port, "Server TCP port")
        ->capture_default_str()
        ->check(CLI::Range(1, 65535).description(""))
        ->type_name("PORT");
    auto* password = app.add_option("--password", a.password,
        "The server's password (default: $ZANDREL_PASSWORD, else a fresh server's)")
        ->envname("ZANDREL_PASSWORD")
        ->type_name("PASSWORD");
    app.add_option("--hash", a.hash, "The salted password hash itself, instead of --password")
        ->envname("ZANDREL_HASH")
        ->excludes(password)
        ->type_name("HASH");
    app.add_option("--timeout", a.timeoutSeconds, "Seconds a read may wait for the server")
        ->capture_default_str()
        ->type_name("SECONDS");
}

void addTransferOptions(CLI::App* command, Arguments& a, const char* treeHelp)
{
    command->add_flag("-r,--recursive", a.transfer.recursive, treeHelp);
    command->add_flag("--no-verify", a.noVerify,
        "Skip the MD5 digests: do not check copies, and take files of equal size and date as identical");
    command->add_flag("-n,--dry-run", a.transfer.dryRun, "List what would be copied and copy nothing");
    command->add_flag("--json", a.transfer.json,
        "Print one JSON object at the end: every file with its result, and the reason for each one skipped or failed");
    command->add_option("--retries", a.transfer.retries,
        "Reconnections in a row, with no byte moved, before a transfer gives up (0 to 100)")
        ->capture_default_str()
        ->check(CLI::Range(0, 100).description(""))
        ->type_name("N");
    // Digests are checked by default; the switch is accepted so that
    // scripts which pass it go on working.
    command->add_flag("--md5", a.legacyMd5, "Check digests (the default)")->group("");
}

void addSubcommands(CLI::App& app, Arguments& a)
{
    auto* discover = app.add_subcommand("discover", "Find servers on the local network");
    discover->footer("Servers answer the query on UDP port 31415, whatever port it was sent from, so discover "
                     "listens on that port: it cannot run on a computer whose own server holds it. There, "
                     "connect with --host instead.");
    discover->add_option("--wait", a.discoverSeconds, "Seconds to listen")->capture_default_str()->type_name("SECONDS");
    app.add_subcommand("identify", "Show what the server says about itself");
    app.add_subcommand("default-path", "Show the server's default folder");
    auto* ls = app.add_subcommand("ls", "List the folders and files in a folder, or describe one file");
    ls->add_option("path", a.path, "Remote folder or file (default: the server's default folder)")->type_name("PATH");
    ls->add_flag("--json", a.json, "Print one JSON object");
    auto* tree = app.add_subcommand("tree", "List a whole folder tree");
    tree->add_option("path", a.path, "Remote folder (default: the server's default folder)")->type_name("PATH");
    tree->add_flag("--md5", a.tree.md5, "Show each file's MD5 digest (the server reads every file)");
    tree->add_flag("--sort", a.tree.sorted, "Sort by name in each folder (the server's order otherwise)");
    tree->add_flag("--paths", a.tree.paths, "One full path per line instead of the indented tree");
    tree->add_flag("--json", a.tree.json, "Print one JSON object: every folder and file with its full path");
    auto* get = app.add_subcommand("get", "Download files, or whole folders with -r");
    get->add_option("remote", a.paths, "Remote files, or folders with -r")->required()->type_name("PATH");
    get->add_option("--to", a.folder, "Local folder (default: the current one)")->type_name("FOLDER");
    addTransferOptions(get, a, "Copy whole folders, each into a folder of its name");
    auto* put = app.add_subcommand("put", "Upload files, or whole folders with -r");
    put->add_option("local", a.paths, "Local files, or folders with -r")
        ->required()
        ->check(CLI::ExistingPath)
        ->type_name("PATH");
    put->add_option("--to", a.folder,
           "Where on the server: a trailing / or an existing folder means into that folder (made when missing); "
           "anything else is the name the one FILE (or folder, with -r) is stored as")
        ->required()
        ->type_name("PATH");
    addTransferOptions(put, a, "Copy whole folders, each into a remote folder of its name");
    app.add_subcommand("mkdir", "Create folders, with their missing parents")
        ->add_option("path", a.paths, "Remote folders")->required()->type_name("PATH");
    app.add_subcommand("rm", "Delete files; says which could not be deleted")
        ->add_option("path", a.paths, "Remote files")->required()->type_name("PATH");
    app.add_subcommand("rmdir",
           "Delete folders with everything in them (never the server's default folder or one that holds it)")
        ->add_option("path", a.paths, "Remote folders")->required()->type_name("PATH");
    auto* mv = app.add_subcommand("mv", "Rename or move a file (never over an existing one)");
    mv->add_option("old", a.from, "Remote file")->required()->type_name("PATH");
    mv->add_option("new", a.to, "New remote path")->required()->type_name("PATH");
    auto* df = app.add_subcommand("df", "Show the free space where a folder lies");
    df->add_option("path", a.path, "Remote folder (default: the server's default folder)")->type_name("PATH");
    df->add_flag("--json", a.json, "Print one JSON object");
}

// Ctrl-C during get or put: what has arrived stays in the partial files,
// so the same command picks up from there.
bool g_eraseLine = false;

extern "C" void onInterrupt(int)
{
    static const char erase[] = "\r\033[K";
    static const char text[] = "zandrel: interrupted: run the same command again to resume\n";
    if (g_eraseLine)
        (void)!::write(STDERR_FILENO, erase, sizeof erase - 1);
    (void)!::write(STDERR_FILENO, text, sizeof text - 1);
    ::_exit(ClientCommands::Interrupted);
}

void resumeHintOnInterrupt()
{
    g_eraseLine = ::isatty(STDERR_FILENO) == 1;
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
}

int run(CLI::App& app, Arguments& a)
{
    if (!a.hash.empty())
        a.target.passwordHash = a.hash;
    else
        a.target.passwordHash = SyncClient::hashPassword(a.password.empty() ? Protocol::kDefaultPassword : a.password);
    a.target.timeout = std::chrono::milliseconds(static_cast<std::int64_t>(a.timeoutSeconds * 1000));

    ProgressMeter meter(stderr);
    ClientCommands::Console console{std::cout, std::cerr, &meter};
    const auto& t = a.target;
    const std::string name = app.get_subcommands().front()->get_name();
    if (name == "discover")
        return ClientCommands::discover(std::chrono::milliseconds(static_cast<std::int64_t>(a.discoverSeconds * 1000)), console);
    if (name == "identify")
        return ClientCommands::identify(t, console);
    if (name == "default-path")
        return ClientCommands::defaultPath(t, console);
    a.transfer.verify = !a.noVerify;
    if (name == "ls")
        return ClientCommands::list(t, a.path, a.json, console);
    if (name == "tree")
        return ClientCommands::tree(t, a.path, a.tree, console);
    if (name == "get" || name == "put")
        resumeHintOnInterrupt();
    if (name == "get")
        return ClientCommands::get(t, a.paths, a.folder, a.transfer, console);
    if (name == "put")
        return ClientCommands::put(t, a.paths, a.folder, a.transfer, console);
    if (name == "mkdir")
        return ClientCommands::makeFolders(t, a.paths, console);
    if (name == "rm")
        return ClientCommands::removeFiles(t, a.paths, console);
    if (name == "rmdir")
        return ClientCommands::removeFolders(t, a.paths, console);
    if (name == "mv")
        return ClientCommands::move(t, a.from, a.to, console);
    return ClientCommands::freeSpace(t, a.path, a.json, console);
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"zandrel: browse, fetch and send files on a ZandrelSync server", "zandrel"};
    app.formatter(std::make_shared<Formatter>());
    app.set_version_flag("--version", std::string("zandrel ") + ZANDREL_VERSION, "Print the version and exit");
    app.require_subcommand(1);
    app.fallthrough();
    Arguments arguments;
    addGlobalOptions(app, arguments);
    addSubcommands(app, arguments);
    // After the subcommands, which would otherwise each repeat it.
    app.footer("get fetches each file into NAME.zandrel-part next to NAME and replaces NAME only with a complete "
               "copy that matches the server's MD5 digest; put has the server's digest of each stored file checked "
               "the same way. Both resume an interrupted transfer from what has arrived (run the same command "
               "again), reconnect by themselves when the server ends a session, and leave files identical on both "
               "sides alone (--dry-run shows what would move).\n\n"
               "Exit status: 0 done, 1 failed, 2 bad arguments, 3 server unreachable, 4 password refused, "
               "130 interrupted.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? ClientCommands::Ok : ClientCommands::Usage;
    }
    return run(app, arguments);
}

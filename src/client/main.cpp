// zandrel: a command-line client of the sync protocol. Parses the arguments
// and hands each subcommand to ClientCommands, which does the work.

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "client/ClientCommands.h"
#include "client/ProgressMeter.h"
#include "client/SyncClient.h"

namespace {

// A fresh server's password until someone sets another.
constexpr const char* kDefaultPassword = "Sesamely";

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
    bool md5 = false;
};

void addGlobalOptions(CLI::App& app, Arguments& a)
{
    app.add_option("--host", a.target.host, "Server address or name")->capture_default_str();
    app.add_option("-p,--port", a.target.port, "Server TCP port")->capture_default_str()->check(CLI::Range(1, 65535));
    auto* password = app.add_option("--password", a.password,
        "The server's password (default: $ZANDREL_PASSWORD, else a fresh server's)")->envname("ZANDREL_PASSWORD");
    app.add_option("--hash", a.hash, "The salted password hash itself, instead of --password")
        ->envname("ZANDREL_HASH")
        ->excludes(password);
    app.add_option("--timeout", a.timeoutSeconds, "Seconds a read may wait for the server")->capture_default_str();
}

void addSubcommands(CLI::App& app, Arguments& a)
{
    auto* discover = app.add_subcommand("discover", "Find servers on the local network");
    discover->add_option("--wait", a.discoverSeconds, "Seconds to listen")->capture_default_str();
    app.add_subcommand("identify", "Show what the server says about itself");
    app.add_subcommand("default-path", "Show the server's default folder");
    app.add_subcommand("ls", "List the folders and files in a folder")
        ->add_option("path", a.path, "Remote folder (default: the server's default folder)");
    auto* tree = app.add_subcommand("tree", "List a whole folder tree");
    tree->add_option("path", a.path, "Remote folder (default: the server's default folder)");
    tree->add_flag("--md5", a.md5, "Show each file's MD5 digest (the server reads every file)");
    auto* get = app.add_subcommand("get", "Download files, resuming partial local copies");
    get->add_option("remote", a.paths, "Remote files")->required();
    get->add_option("--to", a.folder, "Local folder (default: the current one)");
    get->add_flag("--md5", a.md5, "Check each file against the server's MD5 digest");
    auto* put = app.add_subcommand("put", "Upload files; the server resumes interrupted uploads");
    put->add_option("local", a.paths, "Local files")->required()->check(CLI::ExistingFile);
    put->add_option("--to", a.folder, "Remote folder")->required();
    put->add_flag("--md5", a.md5, "Check each stored file against the local MD5 digest");
    app.add_subcommand("mkdir", "Create folders, with their missing parents")
        ->add_option("path", a.paths, "Remote folders")->required();
    app.add_subcommand("rm", "Delete files (missing ones and folders are skipped)")
        ->add_option("path", a.paths, "Remote files")->required();
    app.add_subcommand("rmdir", "Delete folders with everything in them (missing ones and files are skipped)")
        ->add_option("path", a.paths, "Remote folders")->required();
    auto* mv = app.add_subcommand("mv", "Rename or move a file (never over an existing one)");
    mv->add_option("old", a.from, "Remote file")->required();
    mv->add_option("new", a.to, "New remote path")->required();
    app.add_subcommand("df", "Show the free space where a folder lies")
        ->add_option("path", a.path, "Remote folder (default: the server's default folder)");
}

int run(CLI::App& app, Arguments& a)
{
    if (!a.hash.empty())
        a.target.passwordHash = a.hash;
    else
        a.target.passwordHash = SyncClient::hashPassword(a.password.empty() ? kDefaultPassword : a.password);
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
    if (name == "ls")
        return ClientCommands::list(t, a.path, console);
    if (name == "tree")
        return ClientCommands::tree(t, a.path, a.md5, console);
    if (name == "get")
        return ClientCommands::get(t, a.paths, a.folder, a.md5, console);
    if (name == "put")
        return ClientCommands::put(t, a.paths, a.folder, a.md5, console);
    if (name == "mkdir")
        return ClientCommands::makeFolders(t, a.paths, console);
    if (name == "rm")
        return ClientCommands::removeFiles(t, a.paths, console);
    if (name == "rmdir")
        return ClientCommands::removeFolders(t, a.paths, console);
    if (name == "mv")
        return ClientCommands::move(t, a.from, a.to, console);
    return ClientCommands::freeSpace(t, a.path, console);
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"zandrel: browse, fetch and send files on a ZandrelSync server"};
    app.footer("Exit status: 0 done, 1 failed, 2 bad arguments, 3 server unreachable, 4 password refused.");
    app.require_subcommand(1);
    app.fallthrough();
    Arguments arguments;
    addGlobalOptions(app, arguments);
    addSubcommands(app, arguments);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? ClientCommands::Ok : ClientCommands::Usage;
    }
    return run(app, arguments);
}

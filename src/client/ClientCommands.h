#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

class ProtocolClient;
class TransferProgress;

// What each subcommand of the zandrel command line does: connect, run the
// commands, print the results, and turn every failure into one clear message
// and an exit code. The front end only parses the arguments.
namespace ClientCommands {

enum ExitCode : int {
    Ok = 0,
    Failed = 1,       // the server said no, or a transfer went wrong
    Usage = 2,        // the arguments cannot work
    NoConnection = 3, // the server could not be reached
    BadPassword = 4,  // the server refused the password
};

// The server to talk to and how.
struct Target {
    std::string host = "127.0.0.1";
    std::uint16_t port = 35000;
    std::string passwordHash;
    // How long a read may wait; a digest of a large file takes a while.
    std::chrono::milliseconds timeout{std::chrono::seconds(120)};
};

// Where results (out) and messages (err) go; progress may be null.
struct Console {
    std::ostream& out;
    std::ostream& err;
    TransferProgress* progress = nullptr;
};

int discover(std::chrono::milliseconds timeout, Console& console);
int identify(const Target& target, Console& console);
int defaultPath(const Target& target, Console& console);
// An empty path means the server's default folder.
int list(const Target& target, const std::string& path, Console& console);
int tree(const Target& target, const std::string& path, bool md5, Console& console);
int get(const Target& target, const std::vector<std::string>& remotes, const std::string& folder, bool md5,
    Console& console);
int put(const Target& target, const std::vector<std::string>& locals, const std::string& remoteFolder, bool md5,
    Console& console);
int makeFolders(const Target& target, const std::vector<std::string>& paths, Console& console);
int removeFiles(const Target& target, const std::vector<std::string>& paths, Console& console);
int removeFolders(const Target& target, const std::vector<std::string>& paths, Console& console);
int move(const Target& target, const std::string& from, const std::string& to, Console& console);
int freeSpace(const Target& target, const std::string& path, Console& console);

// Runs `body` and maps what escapes it to a message on console.err and an
// exit code; `target` names the server in the messages.
int guard(const Target& target, Console& console, const std::function<int()>& body);

// A connected client for `target`.
void open(ProtocolClient& client, const Target& target);

} // namespace ClientCommands

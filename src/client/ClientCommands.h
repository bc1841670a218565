#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <stdexcept>
#include <string>
#include <vector>

#include "wire/Protocol.h"

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
    Interrupted = 130, // Ctrl-C, as shells report it
};

// The server to talk to and how.
struct Target {
    std::string host = "127.0.0.1";
    std::uint16_t port = Protocol::kDefaultPort;
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

// Prints a line of results (out) or a message (err), taking the progress
// line off the terminal first so that the two never share a line.
void say(Console& console, const std::string& line);
void complain(Console& console, const std::string& line);

struct TreeOptions {
    bool md5 = false;    // each file's digest (the server reads every file)
    bool sorted = false; // by name within each folder, files before subfolders
    bool paths = false;  // one full path per line instead of the indented tree
    bool json = false;
};

struct TransferOptions {
    bool recursive = false;
    bool verify = true;  // digests decide what is identical and check every copy
    bool dryRun = false;
    int retries = 5;     // reconnections in a row that move no byte
    bool json = false;   // one JSON object at the end instead of a line per file
};

int discover(std::chrono::milliseconds timeout, Console& console);
int identify(const Target& target, Console& console);
int defaultPath(const Target& target, Console& console);
// An empty path means the server's default folder.
int list(const Target& target, const std::string& path, bool json, Console& console);
int tree(const Target& target, const std::string& path, const TreeOptions& options, Console& console);
int get(const Target& target, const std::vector<std::string>& remotes, const std::string& folder,
    const TransferOptions& options, Console& console);
int put(const Target& target, const std::vector<std::string>& locals, const std::string& remoteFolder,
    const TransferOptions& options, Console& console);
// One line per item, and Failed when any item failed.
int makeFolders(const Target& target, const std::vector<std::string>& paths, Console& console);
int removeFiles(const Target& target, const std::vector<std::string>& paths, Console& console);
int removeFolders(const Target& target, const std::vector<std::string>& paths, Console& console);
int move(const Target& target, const std::string& from, const std::string& to, Console& console);
int freeSpace(const Target& target, const std::string& path, bool json, Console& console);

// Arguments that cannot work, found before anything is sent.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};
// Throws UsageError unless `path` is absolute.
void requireAbsolute(const std::string& path);
// `path` without trailing slashes ("/" stays).
std::string trimmed(const std::string& path);

// How a remote folder stands to the server's home (default) folder, by
// their text alone: ".", ".." and repeated or trailing slashes worked out.
// rmdir refuses Is and Holds before it sends anything.
enum class HomeRelation { Apart, Is, Holds };
HomeRelation homeRelation(const std::string& path, const std::string& home);

// Runs `body` and maps what escapes it to a message on console.err and an
// exit code; `target` names the server in the messages.
int guard(const Target& target, Console& console, const std::function<int()>& body);

// A connected client for `target`.
void open(ProtocolClient& client, const Target& target);

} // namespace ClientCommands

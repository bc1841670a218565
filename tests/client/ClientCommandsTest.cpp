// What the command line prints and which exit code it gives, against the
// real server and against no server at all.

#include <cstdio>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "LoopbackServer.h"
#include "client/ClientCommands.h"
#include "client/Downloader.h"
#include "client/ProgressMeter.h"

namespace fs = std::filesystem;
using namespace ClientCommands;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

class ClientCommandsTest : public ::testing::Test {
protected:
    ClientCommandsTest()
    {
        m_target.port = m_server.port();
        m_target.passwordHash = m_server.hash();
        m_target.timeout = std::chrono::seconds(20);
    }

    std::string at(const std::string& relative) { return (m_server.home().path() / relative).string(); }
    void clear()
    {
        m_out.str("");
        m_err.str("");
    }

    LoopbackServer m_server;
    Target m_target;
    std::ostringstream m_out;
    std::ostringstream m_err;
    Console m_console{m_out, m_err, nullptr};
};

TEST_F(ClientCommandsTest, FailuresSayWhatToCheck)
{
    EXPECT_EQ(identify(m_target, m_console), Ok);
    EXPECT_THAT(m_out.str(), HasSubstr("password   matches"));

    HeldPort closed(false); // bound, not listening: connecting is refused
    Target nowhere = m_target;
    nowhere.port = closed.port();
    EXPECT_EQ(identify(nowhere, m_console), NoConnection);
    EXPECT_THAT(m_err.str(), HasSubstr("127.0.0.1:" + std::to_string(closed.port())));
    EXPECT_THAT(m_err.str(), HasSubstr("refused"));

    clear();
    Target wrong = m_target;
    wrong.passwordHash = "WRONG";
    EXPECT_EQ(list(wrong, at(""), false, m_console), BadPassword);
    EXPECT_THAT(m_err.str(), HasSubstr("refused the password"));

    clear();
    EXPECT_EQ(makeFolders(m_target, {"relative/path"}, m_console), Usage);
    TransferOptions recursive;
    recursive.recursive = true;
    EXPECT_EQ(get(m_target, {"/"}, at("into"), recursive, m_console), Usage); // never into the root
    EXPECT_FALSE(fs::exists(at("into")));
    EXPECT_EQ(list(m_target, "~/Music", false, m_console), Usage);
    EXPECT_THAT(m_err.str(), HasSubstr("does not expand ~"));
    EXPECT_FALSE(fs::exists(at("relative")));
}

TEST_F(ClientCommandsTest, ListsAndTreesReadAsAPersonOrAScriptExpects)
{
    m_server.home().write("t/b.txt", "bbb");
    m_server.home().write("t/s/a.txt", "a");
    m_server.home().write("t/a.txt", "a");
    EXPECT_EQ(list(m_target, at("t") + "/", false, m_console), Ok);
    std::string listing = m_out.str();
    EXPECT_EQ(listing.find("d  "), 0u) << listing; // folders first
    EXPECT_THAT(listing, HasSubstr("3  b.txt\n"));
    EXPECT_THAT(listing, HasSubstr("  s/\n"));

    clear();
    EXPECT_EQ(list(m_target, at("t/b.txt"), false, m_console), Ok);
    EXPECT_EQ(m_out.str().find(at("t/b.txt") + " is a file, 3 bytes"), 0u) << m_out.str();
    EXPECT_EQ(list(m_target, at("t/nothing"), false, m_console), Failed);
    EXPECT_THAT(m_err.str(), HasSubstr("no such file or folder"));

    clear();
    TreeOptions sorted;
    sorted.sorted = sorted.md5 = true;
    EXPECT_EQ(tree(m_target, at("t") + "//", sorted, m_console), Ok);
    EXPECT_EQ(m_out.str(), at("t") + "/\n"
                           "  a.txt  1  0cc175b9c0f1b6a831c399e269772661\n"
                           "  b.txt  3  08f8e0260c64418510cefb2b06eee5cd\n"
                           "  s/\n"
                           "    a.txt  1  0cc175b9c0f1b6a831c399e269772661\n"
                           "2 folders, 3 files, 5 B\n");

    clear();
    m_server.home().write("j/q\"uote", "12");
    TreeOptions json;
    json.json = json.sorted = true;
    EXPECT_EQ(list(m_target, at("j"), true, m_console), Ok);
    EXPECT_EQ(tree(m_target, at("j"), json, m_console), Ok);
    EXPECT_EQ(freeSpace(m_target, at("j"), true, m_console), Ok);
    EXPECT_THAT(m_out.str(), HasSubstr("\"files\": [{\"path\": \"" + at("j/q\\\"uote")
                                 + "\", \"name\": \"q\\\"uote\", \"type\": \"file\", \"size\": 2"));
    EXPECT_THAT(m_out.str(), HasSubstr("\"totals\": {\"folders\": 1, \"files\": 1, \"bytes\": 2}}\n"));
    EXPECT_THAT(m_out.str(), HasSubstr("\n{\"path\": \"" + at("j") + "\", \"free\": "));
}

TEST_F(ClientCommandsTest, FileSystemCommandsSayWhichItemsFailed)
{
    m_server.home().write("m/a", "a");
    m_server.home().write("m/b", "b");
    m_server.home().write("m/sub/c", "c");
    EXPECT_EQ(makeFolders(m_target, {at("m/new/deep"), at("m/b")}, m_console), Failed);
    EXPECT_TRUE(fs::is_directory(at("m/new/deep")));
    EXPECT_THAT(m_out.str(), HasSubstr("created " + at("m/new/deep") + "/"));
    EXPECT_THAT(m_err.str(), HasSubstr("mkdir " + at("m/b") + ": a file is in the way"));

    clear();
    EXPECT_EQ(move(m_target, at("m/a"), at("m/b"), m_console), Failed);
    EXPECT_THAT(m_err.str(), HasSubstr("exists already"));
    EXPECT_EQ(move(m_target, at("m/a"), at("m/a2"), m_console), Ok);
    EXPECT_EQ(readFile(at("m/a2")), "a");

    clear();
    EXPECT_EQ(removeFiles(m_target, {at("m/a2"), at("m/gone"), at("m/sub")}, m_console), Failed);
    EXPECT_FALSE(fs::exists(at("m/a2")));
    EXPECT_THAT(m_err.str(), HasSubstr("rm " + at("m/gone") + ": no such file"));
    EXPECT_THAT(m_err.str(), HasSubstr("rm " + at("m/sub") + ": is a folder"));
    EXPECT_TRUE(fs::exists(at("m/sub/c")));
    EXPECT_EQ(removeFolders(m_target, {at("m/b")}, m_console), Failed);
    EXPECT_EQ(removeFolders(m_target, {at("m/new")}, m_console), Ok);
    EXPECT_FALSE(fs::exists(at("m/new")));

    clear();
    EXPECT_EQ(freeSpace(m_target, at("m/b"), false, m_console), Failed);
    EXPECT_EQ(tree(m_target, at("m/b"), {}, m_console), Failed);
    EXPECT_EQ(tree(m_target, at("m/none"), {}, m_console), Failed);
    EXPECT_THAT(m_err.str(), HasSubstr("df: " + at("m/b") + " is a file, not a folder (df " + at("m") + " gives"));
    EXPECT_THAT(m_err.str(), HasSubstr("tree: " + at("m/b") + " is a file, not a folder (ls describes a file)"));
    EXPECT_THAT(m_err.str(), HasSubstr("tree: no such folder on the server: " + at("m/none")));
}

TEST_F(ClientCommandsTest, TreesCopiedTwiceMoveNothingTheSecondTime)
{
    m_server.home().write("src/a.txt", "aaa");
    m_server.home().write("src/sub/b.txt", "bb");
    fs::create_directories(at("src/empty"));
    TransferOptions recursive;
    recursive.recursive = true;

    EXPECT_EQ(put(m_target, {at("src")}, at("up") + "/", recursive, m_console), Ok) << m_err.str();
    EXPECT_EQ(readFile(at("up/src/sub/b.txt")), "bb");
    EXPECT_TRUE(fs::is_directory(at("up/src/empty")));
    EXPECT_THAT(m_out.str(), HasSubstr("sent 2 files, 5 B; 0 up to date; 0 failed"));
    m_server.home().write("src/a.txt", "AAA"); // same size, other bytes
    clear();
    EXPECT_EQ(put(m_target, {at("src")}, at("up"), recursive, m_console), Ok) << m_err.str();
    EXPECT_EQ(m_out.str(), "up to date " + at("up/src/sub/b.txt") + "\n"
            + "sent " + at("up/src/a.txt") + "  (3 bytes, digest verified)\n"
            + "sent 1 file, 3 B; 1 up to date; 0 failed\n");

    clear();
    EXPECT_EQ(get(m_target, {at("up/src")}, at("down"), recursive, m_console), Ok) << m_err.str();
    EXPECT_EQ(readFile(at("down/src/a.txt")), "AAA");
    EXPECT_TRUE(fs::is_directory(at("down/src/empty")));
    recursive.dryRun = true;
    m_server.home().write("up/src/sub/new", "n");
    clear();
    EXPECT_EQ(get(m_target, {at("up/src")}, at("down"), recursive, m_console), Ok) << m_err.str();
    EXPECT_THAT(m_out.str(), HasSubstr("would get 1 file, 1 B; 2 up to date; 0 failed"));
    EXPECT_FALSE(fs::exists(at("down/src/sub/new")));

    // "." is the current folder, and is copied under its own name; --to
    // is a folder to go into when it ends in "/" or is one, else the name
    // the one item is stored as.
    recursive.dryRun = false;
    const auto cwd = fs::current_path();
    fs::current_path(at("src"));
    EXPECT_EQ(put(m_target, {"."}, at("again") + "/", recursive, m_console), Ok) << m_err.str();
    EXPECT_EQ(put(m_target, {"."}, at("renamed"), recursive, m_console), Ok) << m_err.str();
    fs::current_path(cwd);
    EXPECT_EQ(readFile(at("again/src/a.txt")), "AAA");
    EXPECT_EQ(readFile(at("renamed/a.txt")), "AAA");
    EXPECT_EQ(put(m_target, {at("src/a.txt")}, at("again"), {}, m_console), Ok) << m_err.str();
    EXPECT_EQ(put(m_target, {at("src/a.txt")}, at("again/b.txt"), {}, m_console), Ok) << m_err.str();
    EXPECT_EQ(readFile(at("again/a.txt")), "AAA");
    EXPECT_EQ(readFile(at("again/b.txt")), "AAA");
    EXPECT_EQ(put(m_target, {at("src/a.txt"), at("src/sub/b.txt")}, at("none"), {}, m_console), Usage);
    EXPECT_FALSE(fs::exists(at("none")));
}

// rmdir refuses the server's home (default) folder and every folder that
// holds it before it sends anything. Worked out on text alone, so that no
// test ever has a delete of "/" sent.
TEST(HomeRelationTest, DotsAndSlashesAreWorkedOutBeforeComparing)
{
    const struct {
        const char* path;
        HomeRelation expected;
    } table[] = {
        {"/", HomeRelation::Holds},
        {"//", HomeRelation::Holds},
        {"/.", HomeRelation::Holds},
        {"/home/..", HomeRelation::Holds},
        {"/home/u/", HomeRelation::Holds},
        {"/home/u/Documents/..", HomeRelation::Holds},
        {"/home/u/Documents", HomeRelation::Is},
        {"/home/u/./Documents//", HomeRelation::Is},
        {"/home/u/Documents/x/..", HomeRelation::Is},
        {"/home/u/Documents/x", HomeRelation::Apart},
        {"/home/u/Doc", HomeRelation::Apart},
        {"/home/u/Documents2", HomeRelation::Apart},
        {"/srv", HomeRelation::Apart},
    };
    for (const auto& row : table) {
        EXPECT_EQ(homeRelation(row.path, "/home/u/Documents"), row.expected) << row.path;
        EXPECT_EQ(homeRelation(row.path, "/home/u/Documents/"), row.expected) << row.path;
    }
}

// The server's home folder here is a scratch folder inside the test's own
// temporary home.
TEST_F(ClientCommandsTest, RmdirNeverSendsADeleteOfTheHomeFolderAndRefusalsSaySo)
{
    const auto base = at("scratch/base");
    fs::create_directories(base + "/sub");
    m_server.settings().setBasePath(base);
    EXPECT_EQ(removeFolders(m_target, {base + "/", at("scratch/./"), base + "/sub"}, m_console), Failed);
    EXPECT_THAT(m_err.str(), HasSubstr("zandrel: refused: " + base + " is the server's home folder\n"));
    EXPECT_THAT(m_err.str(), HasSubstr("zandrel: refused: " + at("scratch/.") + " holds the server's home folder (" + base + ")\n"));
    EXPECT_THAT(m_out.str(), HasSubstr("removed " + base + "/sub/"));
    EXPECT_TRUE(fs::is_directory(base));
    int deletes = 0;
    for (const auto& line : m_server.log().lines())
        deletes += line.starts_with("Deleting folders.");
    EXPECT_EQ(deletes, 1);

    // Through a link only the server sees the home folder: it answers the
    // item as failed, and the message is the same.
    clear();
    fs::create_directory_symlink(m_server.home().path(), at("alias"));
    EXPECT_EQ(removeFolders(m_target, {at("alias/scratch")}, m_console), Failed);
    EXPECT_EQ(m_err.str(), "zandrel: refused: " + at("alias/scratch") + " holds the server's home folder (" + base + ")\n");
    EXPECT_TRUE(fs::is_directory(base));

    // A server that changes nothing answers each item as failed, and may
    // be read-only.
    clear();
    m_server.settings().setReadOnly(true);
    fs::create_directories(at("other"));
    m_server.home().write("file", "f");
    EXPECT_EQ(removeFolders(m_target, {at("alias/scratch"), at("other")}, m_console), Failed);
    EXPECT_EQ(removeFiles(m_target, {at("file")}, m_console), Failed);
    EXPECT_EQ(makeFolders(m_target, {at("new")}, m_console), Failed);
    EXPECT_THAT(m_err.str(), HasSubstr("refused: " + at("alias/scratch") + " holds the server's home folder"));
    EXPECT_THAT(m_err.str(), HasSubstr("rmdir " + at("other") + ": the server did not delete it"));
    EXPECT_THAT(m_err.str(), HasSubstr("rm " + at("file") + ": the server could not delete it (no permission, or the server may be read-only)"));
    EXPECT_THAT(m_err.str(), HasSubstr("mkdir " + at("new") + ": the server could not create it"));
    m_server.home().write("up.txt", "up");
    EXPECT_EQ(put(m_target, {at("up.txt")}, at("other/"), {}, m_console), Failed);
    EXPECT_THAT(m_err.str(), HasSubstr("put " + at("up.txt") + ": the server did not store it (the server may be read-only)"));
    EXPECT_TRUE(fs::is_directory(at("scratch/base")));
}

struct CliRun {
    int status = -1; // the exit code; -1 when it did not exit
    std::string output; // standard output and error together
};

// Runs the zandrel program with `args`; `whileRunning` (if given) gets its
// process id before the output is read.
CliRun runCli(const std::vector<std::string>& args, const std::function<void(pid_t)>& whileRunning = {})
{
    int out[2];
    if (::pipe(out) != 0)
        return {};
    pid_t child = ::fork();
    if (child == 0) {
        ::dup2(out[1], 1);
        ::dup2(out[1], 2);
        ::close(out[0]);
        std::vector<char*> argv{const_cast<char*>(ZANDREL_CLI)};
        for (const auto& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        ::execv(ZANDREL_CLI, argv.data());
        ::_exit(127);
    }
    ::close(out[1]);
    if (whileRunning)
        whileRunning(child);
    CliRun run;
    char buffer[4096];
    for (ssize_t n; (n = ::read(out[0], buffer, sizeof buffer)) > 0;)
        run.output.append(buffer, static_cast<std::size_t>(n));
    ::close(out[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

// What a person sees first: help, the version, and the messages for a
// destination that cannot take the copy.
TEST_F(ClientCommandsTest, HelpVersionAndMessagesReadAsAPersonExpects)
{
    m_server.home().write("r/a.txt", "a");
    m_server.home().write("r/b.txt", "b");
    fs::create_directories(at("down/a.txt"));
    ASSERT_EQ(::mkfifo(at("down/b.txt").c_str(), 0600), 0);
    m_server.home().write("afile", "x");
    const std::vector<std::string> server{"--port", std::to_string(m_server.port()), "--hash", m_server.hash()};
    auto with = [&](std::vector<std::string> args) {
        args.insert(args.begin(), server.begin(), server.end());
        return args;
    };
    const struct {
        std::vector<std::string> args;
        int status;
        std::vector<std::string> shows;
        std::string never;
    } table[] = {
        {{"--version"}, Ok, {"zandrel 1."}, "Usage"},
        {{"--help"}, Ok, {"Usage: zandrel [OPTIONS] SUBCOMMAND", "  -p, --port PORT", "NAME.zandrel-part", "130 interrupted"}, "UINT"},
        {{"get", "--help"}, Ok, {"Usage: zandrel get [OPTIONS] remote...", "  -r, --recursive"}, "zandrel-part"},
        {{"put", "--help"}, Ok, {"a trailing / or an existing folder means into"}, "zandrel-part"},
        {{"discover", "--help"}, Ok, {"whatever port it was sent from"}, "zandrel-part"},
        {with({"get", at("r/a.txt"), at("r/b.txt"), "--to", at("down")}), Failed,
            {at("down/a.txt") + " is a folder here, not a file: move it away, or get into another folder with --to",
                at("down/b.txt") + " is a FIFO here, not a file"},
            "filesystem"},
        {with({"get", at("r/a.txt"), "--to", at("afile")}), Usage, {"--to " + at("afile") + " is a file, not a folder"}, "filesystem"},
    };
    for (const auto& row : table) {
        auto run = runCli(row.args);
        EXPECT_EQ(run.status, row.status) << row.args.back() << "\n" << run.output;
        for (const auto& text : row.shows)
            EXPECT_THAT(run.output, HasSubstr(text)) << row.args.back();
        EXPECT_THAT(run.output, Not(HasSubstr(row.never))) << row.args.back();
    }

    // Ctrl-C while get waits for a server that never answers.
    int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(::listen(listener, 1), 0);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    auto run = runCli({"--port", std::to_string(ntohs(address.sin_port)), "get", "/x", "--to", at("down")}, [&](pid_t child) {
        pollfd connected{listener, POLLIN, 0};
        EXPECT_EQ(::poll(&connected, 1, 20000), 1); // the client has connected
        ::kill(child, SIGINT);
    });
    ::close(listener);
    EXPECT_EQ(run.status, Interrupted);
    EXPECT_THAT(run.output, HasSubstr("zandrel: interrupted: run the same command again to resume\n"));
}

// Runs `onStart` when the first file starts to arrive.
class FirstFileHook : public TransferProgress {
public:
    explicit FirstFileHook(std::function<void()> onStart) : m_onStart(std::move(onStart)) {}
    void start(const std::string&, std::int64_t, std::int64_t) override
    {
        if (m_onStart)
            std::exchange(m_onStart, nullptr)();
    }
    void update(std::int64_t) override {}
    void finish() override {}

private:
    std::function<void()> m_onStart;
};

// A name the protocol cannot carry, and a file removed after the listing:
// each is the server's answer about one file, and the rest arrive.
TEST_F(ClientCommandsTest, OneFileTheServerCannotSendNeverSinksTheBatch)
{
    m_server.home().write("b/a.txt", "first");
    m_server.home().write("b/caf\xe9.txt", "latin-1 name");
    m_server.home().write("b/ok.txt", "last");
    m_server.home().write("b/vanish.txt", "gone before its turn");
    const std::string shown = "caf\xEF\xBF\xBD.txt";

    EXPECT_EQ(list(m_target, at("b"), false, m_console), Ok);
    EXPECT_THAT(m_out.str(), HasSubstr("  " + shown + "  (not UTF-8: cannot be fetched)\n"));
    TreeOptions json;
    json.json = true;
    EXPECT_EQ(tree(m_target, at("b"), json, m_console), Ok);
    EXPECT_THAT(m_out.str(), HasSubstr("\"name\": \"" + shown + "\""));
    EXPECT_THAT(m_out.str(), HasSubstr("\"problem\": \"the name is not UTF-8, which the protocol cannot carry\"}"));

    clear();
    FirstFileHook removeOne([&] { fs::remove(at("b/vanish.txt")); });
    Console console{m_out, m_err, &removeOne};
    TransferOptions recursive;
    recursive.recursive = true;
    EXPECT_EQ(get(m_target, {at("b")}, at("down"), recursive, console), Failed);
    EXPECT_THAT(m_err.str(), HasSubstr("skipped " + at("b/" + shown) + ": the name is not UTF-8, which the protocol cannot carry\n"));
    EXPECT_THAT(m_err.str(), HasSubstr("skipped " + at("b/vanish.txt") + ": the server could not open it\n"));
    EXPECT_THAT(m_out.str(), HasSubstr("got " + at("down/b/a.txt") + "  (5 bytes, digest verified)"));
    EXPECT_THAT(m_out.str(), HasSubstr("got " + at("down/b/ok.txt") + "  (4 bytes, digest verified)"));
    EXPECT_THAT(m_out.str(), HasSubstr("got 2 files, 9 B; 0 up to date; 2 skipped; 0 failed\n"));
    EXPECT_EQ(readFile(at("down/b/ok.txt")), "last");
    EXPECT_FALSE(fs::exists(at("down/b/vanish.txt")));
    EXPECT_FALSE(fs::exists(at("down/b/vanish.txt") + Downloader::kPartialSuffix));

    // One file alone, and the reasons in --json.
    clear();
    TransferOptions asJson;
    asJson.json = true;
    EXPECT_EQ(get(m_target, {at("b/caf\xe9.txt"), at("b/ok.txt")}, at("down"), asJson, m_console), Failed);
    EXPECT_THAT(m_out.str(), HasSubstr("\"result\": \"skipped\", \"size\": 12, \"moved\": 0, \"resumedFrom\": 0, "
                                       "\"verified\": false, \"reason\": \"the name is not UTF-8, which the protocol cannot carry\"}"));
    EXPECT_THAT(m_out.str(), HasSubstr("\"totals\": {\"copied\": 1, \"bytes\": 4, \"upToDate\": 0, \"skipped\": 1, \"failed\": 0}}\n"));
}

TEST(ProgressLineTest, MakesWayForMessages)
{
    std::FILE* terminal = std::tmpfile();
    ProgressMeter meter(terminal, true);
    std::ostringstream out, err;
    Console console{out, err, &meter};
    meter.start("big.bin", 0, 100);
    complain(console, "get /x: boom");
    EXPECT_EQ(err.str(), "zandrel: get /x: boom\n");
    std::rewind(terminal);
    char drawn[512] = {};
    std::string shown(drawn, std::fread(drawn, 1, sizeof drawn, terminal));
    EXPECT_TRUE(shown.starts_with("\rbig.bin") && shown.ends_with("\r\033[K")) << "bar not erased: " << shown;
    std::fclose(terminal);
}

} // namespace

// The control channel answers its own user only, and the known phones are
// remembered in the activity file.

#include <filesystem>
#include <string>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "server/ControlChannel.h"
#include "server/ControlText.h"
#include "server/DeviceBook.h"
#include "server/NeighbourTable.h"

namespace fs = std::filesystem;

namespace {

mode_t modeOf(const fs::path& path)
{
    struct stat info {};
    ::lstat(path.c_str(), &info);
    return info.st_mode & 07777;
}

} // namespace

// The socket (0600) sits in a folder of its own (0700); a process of
// another user is answered by nothing, whether the mode or the credentials
// check stops it. A socket left behind is replaced; one that answers is not.
TEST(ControlChannel, AnswersItsOwnUserOnlyAndNeverTakesAnotherServersPlace)
{
    TempHome home;
    const auto echo = [](const std::string& request) { return ControlText::line({"got", request}); };
    const std::string path = ControlChannel::defaultPath();
    ASSERT_EQ(path, (home.path() / "run/zandrel/control").string());
    // A killed server's socket is in the way: bound, and nobody listening.
    fs::create_directories(home.path() / "run/zandrel");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    int left = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(left, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(left);
    ControlChannel channel(echo);
    ASSERT_TRUE(channel.isOpen()) << channel.error();
    EXPECT_EQ(modeOf(path), 0600u);
    EXPECT_EQ(modeOf(fs::path(path).parent_path()), 0700u);
    EXPECT_EQ(ControlChannel::ask("status\twith\\tab"), "got\tstatus\\twith\\\\tab\n");
    EXPECT_EQ(ControlText::fields("got\tstatus\\twith\\\\tab"),
        (std::vector<std::string>{"got", "status\twith\\tab"}));

    ControlChannel second(echo);
    EXPECT_FALSE(second.isOpen());
    EXPECT_EQ(second.error(), "another server answers at " + path);

    // Only the owner is answered: a channel owned by another uid closes the
    // connection without a word.
    const std::string strangers = (home.path() / "run/other/control").string();
    ControlChannel notMine(echo, strangers, ::geteuid() + 1);
    ASSERT_TRUE(notMine.isOpen()) << notMine.error();
    EXPECT_EQ(ControlChannel::ask("status", strangers), "");

    if (::geteuid() != 0)
        return;
    // As root, a real second user: the socket's mode keeps it out.
    ::chmod(home.path().c_str(), 0755);
    ::chmod((home.path() / "run").c_str(), 0755);
    pid_t child = ::fork();
    if (child == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0)
            ::_exit(2);
        ::_exit(ControlChannel::ask("status", path) ? 1 : 0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    // Exit 2: there is no second user here (a user namespace maps only this
    // one); the credentials check above stands in for it.
    if (WIFEXITED(status) && WEXITSTATUS(status) == 2)
        return;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "another user reached the channel";
}

// The book keeps each phone once, adds up its sessions and bytes, and keeps
// the person's word (and the name) until the phone is forgotten; the
// hardware address comes from complete neighbour entries only.
TEST(DeviceBook, RemembersPhonesAndThePersonsWord)
{
    TempHome home;
    std::string error;
    auto book = DeviceBook::open(&error);
    ASSERT_TRUE(book) << error;
    EXPECT_TRUE(fs::exists(home.path() / ".local/state/zandrel/activity.sqlite"));
    book->sessionEnded("10.0.0.5", "", 100, 7);
    book->sessionEnded("10.0.0.5", "aa:bb:cc:dd:ee:ff", 20, 3);
    ASSERT_TRUE(book->setStanding("10.0.0.9", DeviceBook::Standing::Blocked, std::nullopt));
    ASSERT_TRUE(book->setStanding("10.0.0.5", DeviceBook::Standing::Allowed, "Anna"));

    auto phone = book->find("10.0.0.5");
    ASSERT_TRUE(phone);
    EXPECT_EQ(phone->hardware, "aa:bb:cc:dd:ee:ff");
    EXPECT_EQ(phone->name, "Anna");
    EXPECT_EQ(phone->sessions, 2);
    EXPECT_EQ(phone->bytesSent, 120);
    EXPECT_EQ(phone->bytesReceived, 10);
    EXPECT_EQ(phone->standing, DeviceBook::Standing::Allowed);
    EXPECT_GT(phone->firstSeen, 0);
    EXPECT_EQ(book->find("10.0.0.9")->lastSeen, 0) << "blocked before it ever came";
    EXPECT_EQ(book->all().size(), 2u);
    EXPECT_TRUE(book->forget("10.0.0.9"));
    EXPECT_FALSE(book->forget("10.0.0.9"));
    // A second connection (the terminal's, while the server runs) sees it all.
    EXPECT_EQ(DeviceBook::open(&error)->all().size(), 1u);

    const auto table = home.write("arp", "IP address       HW type     Flags       HW address            Mask     Device\n"
                                         "10.0.0.5         0x1         0x2         aa:bb:cc:dd:ee:ff     *        eth0\n"
                                         "10.0.0.6         0x1         0x0         00:00:00:00:00:00     *        eth0\n");
    EXPECT_EQ(hardwareAddressOf("10.0.0.5", table.string()), "aa:bb:cc:dd:ee:ff");
    EXPECT_EQ(hardwareAddressOf("10.0.0.6", table.string()), "");
    EXPECT_EQ(hardwareAddressOf("10.0.0.7", table.string()), "");
}

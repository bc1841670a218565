#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "SessionTestHelpers.h"
#include "support/LoopbackServer.h"

namespace fs = std::filesystem;
using namespace SessionTest;

// Confinement as a phone meets it: what leads outside the base folder, by
// "..", by a link or by a dangling link, names nothing; the base itself and
// what lies below it stay reachable.
TEST(DiskPath, ConfinedPathsOutsideTheBaseFolderNameNothing)
{
    LoopbackServer server;
    const fs::path home = server.home().path();
    const std::string base = (home / "base").string();
    server.home().write("base/sub/in.txt", "in");
    server.home().write("outside/secret.txt", "secret");
    fs::create_directory_symlink(home / "outside", home / "base/escape");
    fs::create_symlink(home / "outside/new.txt", home / "base/up.txt.zandrel");
    server.settings().setBasePath(base);
    server.settings().setConfineToBasePath(true);
    auto c = server.connect();

    for (const auto& [path, answer] : {std::pair{base, true}, {base + "/sub/..", true}, {base + "/sub", true},
             {base + "/../outside", false}, {base + "/escape", false}, {base + "/sub/../../outside", false}}) {
        c->sendCommand(Command::PathExists, text(path));
        expectDataPacket(*c, Command::PathExists, flag(answer));
    }
    c->sendCommand(Command::DeleteFiles, join({number(1), text(base + "/escape/secret.txt")}));
    expectDataPacket(*c, Command::DeleteFiles, flag(true));
    EXPECT_TRUE(fs::exists(home / "outside/secret.txt"));

    // A dangling link at the partial's name would have the upload create
    // its target outside.
    c->sendCommand(Command::UploadFiles, join({flag(false), number(1), text(base + "/up.txt"), number(3), number(1)}));
    expectDataPacket(*c, Command::UploadFiles, number(0));
    c->sendRaw(Bytes{'a', 'b', 'c'});
    expectNext(*c, number(3));
    EXPECT_FALSE(fs::exists(home / "outside/new.txt"));

    c->sendCommand(Command::FolderInfo, text(base + "/escape"));
    expectSessionEndsWith(*c, Command::FolderInfo, "Path " + base + "/escape does not exist.");
}

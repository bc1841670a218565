#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "HandlerFixture.h"

namespace fs = std::filesystem;
using namespace SessionTest;

namespace {

class DiskPathTest : public HandlerTest {};

// Confinement as a phone meets it: what leads outside the base folder, by
// "..", by a link or by a dangling link, names nothing; the base itself and
// what lies below it stay reachable.
TEST_F(DiskPathTest, ConfinedPathsOutsideTheBaseFolderNameNothing)
{
    const std::string base = at("base").string();
    home.write("base/sub/in.txt", "in");
    home.write("outside/secret.txt", "secret");
    fs::create_directory_symlink(at("outside"), at("base/escape"));
    fs::create_symlink(at("outside/new.txt"), at("base/up.txt.zandrel"));
    settings->setBasePath(base);
    settings->setConfineToBasePath(true);
    auto& s = *session;

    for (const auto& [path, answer] : {std::pair{base, true}, {base + "/sub/..", true}, {base + "/sub", true},
             {base + "/../outside", false}, {base + "/escape", false}, {base + "/sub/../../outside", false}}) {
        s.start([&s] { s.folders.pathExists(); }, text(path));
        expectDataPacket(s.phone, Command::PathExists, flag(answer));
        s.expectAnswered();
    }
    s.start([&s] { s.fileOps.deleteFiles(); }, join({number(1), text(base + "/escape/secret.txt")}));
    expectDataPacket(s.phone, Command::DeleteFiles, flag(true));
    s.expectAnswered();
    EXPECT_TRUE(fs::exists(at("outside/secret.txt")));

    // A dangling link at the partial's name would have the upload create
    // its target outside.
    s.start([&s] { s.transfers.uploadFiles(); }, join({flag(false), number(1), text(base + "/up.txt"), number(3),
                                                       number(1)}));
    expectDataPacket(s.phone, Command::UploadFiles, number(0));
    s.phone.sendRaw(Bytes{'a', 'b', 'c'});
    expectNext(s.phone, number(3));
    s.expectAnswered();
    EXPECT_FALSE(fs::exists(at("outside/new.txt")));

    s.start([&s] { s.folders.folderInfo(); }, text(base + "/escape"));
    s.expectFailure(Command::FolderInfo, "Path " + base + "/escape does not exist.");
}

} // namespace

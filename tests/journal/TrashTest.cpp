#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <string>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "journal/Trash.h"
#include "TmpfsVolume.h"
#include "support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

std::string contents(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), {});
}

fs::path homeTrash(const TempHome& home) { return home.path() / ".local/share/Trash"; }

TEST(Trash, InfoFilesNameTheEscapedOriginalAndTheLocalDeletionTime)
{
    struct Case {
        std::string name, escaped;
    };
    const Case cases[] = {
        {"plain.txt", "plain.txt"},
        {"two words & 100%#?.mp3", "two%20words%20%26%20100%25%23%3F.mp3"},
        {"caf\xC3\xA9 (live)", "caf%C3%A9%20(live)"},
    };
    TempHome home;
    for (const auto& c : cases) {
        fs::path item = home.write("Music/" + c.name, "x");
        std::time_t before = std::time(nullptr);
        auto kept = Trash::keep(item.string());
        ASSERT_TRUE(kept.kept) << kept.why;
        EXPECT_FALSE(fs::exists(item));
        EXPECT_EQ(contents(kept.item), "x");
        EXPECT_EQ(kept.info, (homeTrash(home) / "info" / (c.name + ".trashinfo")).string());
        std::string text = contents(kept.info);
        std::smatch date;
        ASSERT_TRUE(std::regex_match(text, date,
            std::regex("\\[Trash Info\\]\nPath=(.*)\nDeletionDate=(\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d)\n")))
            << text;
        EXPECT_EQ(date[1].str(), Trash::escapePath(home.path().string()) + "/Music/" + c.escaped);
        EXPECT_EQ(Trash::unescapePath(date[1].str()), item.string());
        EXPECT_TRUE(date[2].str() == Trash::deletionDate(before) || date[2].str() == Trash::deletionDate(before + 1));
    }
    EXPECT_EQ(Trash::deletionDate(0).size(), 19u);
}

TEST(Trash, ClashingNamesAndItemsWithoutInfoGetTheNextFreeName)
{
    TempHome home;
    // An item left in files/ without its info file still takes its name.
    home.write(".local/share/Trash/files/b", "stray");
    std::vector<std::string> names;
    for (const char* path : {"1/a.txt", "2/a.txt", "3/a.txt", "1/b", "1/.hidden"}) {
        auto kept = Trash::keep(home.write(path, path).string());
        ASSERT_TRUE(kept.kept) << kept.why;
        names.push_back(fs::path(kept.item).filename().string());
        EXPECT_EQ(contents(kept.item), path);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"a.txt", "a.2.txt", "a.3.txt", "b.2", ".hidden"}));
    EXPECT_EQ(contents(homeTrash(home) / "files/b"), "stray");
}

TEST(Trash, AFolderGoesWholeAndAnItemInsideATrashIsNotKept)
{
    TempHome home;
    home.write("Photos/2024/a.jpg", "aaaa");
    home.write("Photos/b.jpg", "bb");
    auto kept = Trash::keep((home.path() / "Photos/").string());
    ASSERT_TRUE(kept.kept) << kept.why;
    EXPECT_EQ(Trash::sizeOf(kept.item), 6);
    EXPECT_EQ(kept.original, (home.path() / "Photos").string());

    auto again = Trash::keep(kept.item + "/b.jpg");
    EXPECT_FALSE(again.kept);
    EXPECT_EQ(again.why, "it is inside a trash folder");
    EXPECT_FALSE(Trash::keep(home.write("usb/.Trash-1000/files/x", "x").string()).kept);
}

TEST(Trash, RestoringNeverOverwrites)
{
    TempHome home;
    fs::path item = home.write("Docs/report.txt", "first");
    std::vector<std::string> places;
    for (const char* text : {"first", "second", "third"}) {
        if (std::string(text) != "first")
            home.write("Docs/report.txt", text);
        auto kept = Trash::keep(item.string());
        ASSERT_TRUE(kept.kept);
        home.write("Docs/report.txt", "current");
        std::string why;
        auto back = Trash::putBack(kept.item, kept.info, kept.original, why);
        ASSERT_TRUE(back) << why;
        places.push_back(fs::path(*back).filename().string());
        EXPECT_EQ(contents(*back), text);
        EXPECT_FALSE(fs::exists(kept.info));
        fs::remove(item);
    }
    EXPECT_EQ(places, (std::vector<std::string>{"report.txt (restored)", "report.txt (restored 2)",
                          "report.txt (restored 3)"}));
    std::string why;
    EXPECT_FALSE(Trash::putBack((homeTrash(home) / "files/gone").string(), "", item.string(), why));
    EXPECT_EQ(why, "it is no longer in the trash");
}

// The process dies after the info file is written and before the move: the
// item has not moved, and the info file left alone is cleaned up.
TEST(Trash, AKillBetweenTheTwoStepsLosesNothing)
{
    TempHome home;
    fs::path item = home.write("Music/song.mp3", "song");
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        Trash::keep(item.string(), [] { ::raise(SIGKILL); });
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(contents(item), "song");
    fs::path info = homeTrash(home) / "info/song.mp3.trashinfo";
    EXPECT_TRUE(fs::exists(info));
    // Young info files may belong to a move under way elsewhere.
    EXPECT_EQ(Trash::removeOrphanInfo(homeTrash(home).string(), 600), 0);
    EXPECT_EQ(Trash::removeOrphanInfo(homeTrash(home).string(), 0), 1);
    EXPECT_FALSE(fs::exists(info));
    EXPECT_TRUE(Trash::keep(item.string()).kept);
}

TEST(Trash, AnItemOnAnotherVolumeIsKeptInThatVolumesTrash)
{
    TempHome home;
    fs::path volume = home.path() / "usb";
    fs::create_directories(volume);
    int result = onTmpfs(volume, [&] {
        std::string uid = std::to_string(::getuid());
        std::ofstream(volume / "song.mp3") << "song";
        fs::create_directories(volume / "deep/er");
        std::ofstream(volume / "deep/er/x y") << "xy";
        auto kept = Trash::keep((volume / "song.mp3").string());
        auto deep = Trash::keep((volume / "deep/er/x y").string());
        fs::path trash = volume / (".Trash-" + uid);
        struct stat st {};
        ::lstat(trash.c_str(), &st);
        int failures = 0;
        auto fail = [&](bool bad, int line) {
            if (bad) {
                ++failures;
                std::fprintf(stderr, "failed at line %d\n", line);
            }
        };
        fail(!kept.kept || kept.item != (trash / "files/song.mp3").string(), __LINE__);
        fail((st.st_mode & 0777) != 0700, __LINE__);
        fail(contents(trash / "info/song.mp3.trashinfo").find("\nPath=song.mp3\n") == std::string::npos, __LINE__);
        fail(contents(trash / "info/x y.trashinfo").find("\nPath=deep/er/x%20y\n") == std::string::npos, __LINE__);
        fail(!deep.kept || fs::exists(homeTrash(home) / "files/song.mp3"), __LINE__);
        // A volume's trash that is not a folder of ours: not kept, and why.
        fs::remove_all(trash);
        std::ofstream(trash) << "not a folder";
        std::ofstream(volume / "other") << "o";
        auto refused = Trash::keep((volume / "other").string());
        fail(refused.kept || refused.why.find("is not a folder of this user") == std::string::npos, __LINE__);
        // A read-only volume.
        fs::remove(trash);
        ::mount(nullptr, volume.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr);
        auto readOnly = Trash::keep((volume / "other").string());
        fail(readOnly.kept || readOnly.why != "its volume is read-only", __LINE__);
        return failures;
    });
    if (result < 0)
        GTEST_SKIP() << "no user and mount namespaces here";
    EXPECT_EQ(result, 0);
}

} // namespace

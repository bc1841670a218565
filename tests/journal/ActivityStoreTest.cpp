#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "TmpfsVolume.h"
#include "journal/ActivityStore.h"
#include "journal/Journal.h"
#include "journal/SessionActivity.h"
#include "journal/Trash.h"
#include "journal/When.h"
#include "settings/Settings.h"
#include "support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t kDay = 86400000;

std::int64_t nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// A kept deletion `daysAgo` old, as the writer would have stored it.
Change keptEntry(const fs::path& item, std::int64_t daysAgo)
{
    auto kept = Trash::keep(item.string());
    Change c;
    c.at = nowMs() - daysAgo * kDay;
    c.kind = Change::Kind::DeletedFile;
    c.path = kept.original;
    c.keptAs = kept.item;
    c.info = kept.info;
    c.keptSize = Trash::sizeOf(kept.item);
    c.state = kept.kept ? Change::State::Kept : Change::State::None;
    return c;
}

std::vector<std::string> states(ActivityStore& store)
{
    std::vector<std::string> out;
    for (const auto& c : store.list({}))
        out.push_back(fs::path(c.path).filename().string() + " " + Change::stateText(c.state));
    return out;
}

// Only what this program kept is purged, oldest first: what the person
// trashed is never touched, and entries past 90 days go whatever keepDays says.
TEST(ActivityStore, PurgesByAgeOnlyWhatItKept)
{
    TempHome home;
    auto store = ActivityStore::open();
    ASSERT_TRUE(store);
    std::vector<Change> batch{keptEntry(home.write("a", "a"), 100), keptEntry(home.write("b", "b"), 40),
        keptEntry(home.write("c", "c"), 10)};
    ASSERT_TRUE(store->insert(batch));
    auto mine = Trash::keep(home.write("mine", "the person's own").string());

    EXPECT_EQ(store->purge({365, 100}, nowMs()), 1);
    EXPECT_EQ(states(*store), (std::vector<std::string>{"b kept", "c kept"})) << "older than 90 days: gone";
    EXPECT_EQ(store->purge({30, 100}, nowMs()), 1);
    EXPECT_EQ(states(*store), (std::vector<std::string>{"b purged", "c kept"}));
    EXPECT_FALSE(fs::exists(batch[1].keptAs) || fs::exists(batch[1].info));
    EXPECT_TRUE(fs::exists(batch[2].keptAs) && fs::exists(batch[2].info));
    EXPECT_EQ(store->keptBytes(), 1);
    auto restoredPurged = store->restore(batch[1].id);
    EXPECT_FALSE(restoredPurged.restoredTo);
    EXPECT_EQ(restoredPurged.why, "purged from the trash");

    EXPECT_EQ(store->emptyKept(), 1);
    EXPECT_EQ(store->keptBytes(), 0);
    EXPECT_TRUE(fs::exists(mine.item) && fs::exists(mine.info));

    // An item the person removed from the trash no longer counts as kept.
    std::vector<Change> more{keptEntry(home.write("d", "dd"), 1)};
    ASSERT_TRUE(store->insert(more));
    fs::remove(more[0].keptAs);
    EXPECT_EQ(store->purge({30, 100}, nowMs()), 1);
    EXPECT_EQ(store->keptBytes(), 0);

    // A trash that is not there at all is a volume not mounted now (a stick
    // unplugged): its items stay kept until it comes back.
    std::vector<Change> away{keptEntry(home.write("e", "eee"), 1)};
    ASSERT_TRUE(store->insert(away));
    const fs::path trash = Trash::trashDirOf(away[0].keptAs);
    fs::rename(trash, trash.string() + ".unplugged");
    EXPECT_EQ(store->purge({30, 100}, nowMs()), 0);
    fs::rename(trash.string() + ".unplugged", trash);
    EXPECT_EQ(store->keptBytes(), 3);
}

// On a 1 MiB volume, 10 % is about 100 KiB: of three kept items of 60 KiB,
// the two oldest go.
TEST(ActivityStore, PurgesTheOldestUntilKeptItemsFitTheirShareOfTheVolume)
{
    TempHome home;
    fs::path volume = home.path() / "small";
    fs::create_directories(volume);
    int result = onTmpfs(volume, [&] {
        ::setenv("XDG_DATA_HOME", (volume / "share").c_str(), 1);
        auto store = ActivityStore::open();
        std::vector<Change> batch;
        for (int i = 0; i < 3; ++i) {
            std::ofstream(volume / std::to_string(i)) << std::string(60 * 1024, 'x');
            batch.push_back(keptEntry(volume / std::to_string(i), 3 - i));
        }
        if (!store || !store->insert(batch) || store->purge({30, 10}, nowMs()) != 2)
            return 1;
        return states(*store) == std::vector<std::string>{"0 purged", "1 purged", "2 kept"} ? 0 : 2;
    }, "size=1m");
    if (result < 0)
        GTEST_SKIP() << "no user and mount namespaces here";
    EXPECT_EQ(result, 0);
}

// Keeping that cannot be done never fails the phone's change: the item is
// deleted as before and the journal says why it was not kept.
TEST(SessionActivity, KeepingThatFailsDeletesAndTheJournalSaysWhy)
{
    TempHome home;
    Settings settings(Settings::NoLoginItems{});
    auto journal = std::make_shared<Journal>(ActivityDatabase::defaultFile());
    SessionActivity activity(journal, settings, "10.0.0.9");
    home.write(".local/share/Trash", "a file where the trash would be");
    fs::path file = home.write("doomed.txt", "x");
    fs::path folder = home.write("dir/inner", "y").parent_path();
    fs::path replaced = home.write("up.txt", "old");
    activity.remove(file.string(), false);
    activity.remove(folder.string(), true);
    fs::path inTrash = home.write("usb/.Trash-0/files/old", "z");
    activity.remove(inTrash.string(), false);
    EXPECT_TRUE(activity.replace(replaced.string(), 3, [&] {
        std::ofstream(replaced) << "new";
        return true;
    }));
    EXPECT_FALSE(fs::exists(file) || fs::exists(folder) || fs::exists(inTrash));
    journal->flush();

    auto store = ActivityStore::open();
    std::vector<std::string> notes;
    for (const auto& c : store->list({})) {
        EXPECT_EQ(c.state, Change::State::None);
        EXPECT_EQ(c.device, "10.0.0.9");
        notes.push_back(Change::kindText(c.kind) + ": " + c.note);
    }
    std::string blocked = "the volume's trash " + (home.path() / ".local/share/Trash").string()
        + " is not a folder of this user";
    EXPECT_EQ(notes, (std::vector<std::string>{"deleted file: " + blocked, "deleted folder: " + blocked,
                         "deleted file: it is inside a trash folder", "replaced: " + blocked}));
}

// An upload whose move into place fails gets the old file back where it
// was; nothing is recorded, since nothing changed.
TEST(SessionActivity, AReplacementThatFailsPutsTheKeptItemBack)
{
    TempHome home;
    Settings settings(Settings::NoLoginItems{});
    auto journal = std::make_shared<Journal>(ActivityDatabase::defaultFile());
    SessionActivity activity(journal, settings, "10.0.0.9");
    fs::path file = home.write("up.txt", "old");
    bool sawItGone = false;
    EXPECT_FALSE(activity.replace(file.string(), 3, [&] {
        sawItGone = !fs::exists(file);
        return false;
    }));
    EXPECT_TRUE(sawItGone) << "kept before the move";
    std::ifstream in(file);
    EXPECT_EQ(std::string((std::istreambuf_iterator<char>(in)), {}), "old");
    EXPECT_TRUE(fs::is_empty(home.path() / ".local/share/Trash/info"));
    journal->flush();
    EXPECT_TRUE(ActivityStore::open()->list({}).empty());
}

// Sessions on many threads record at once; every entry arrives, each
// session's under its own number.
TEST(Journal, ManySessionsAtOnceLoseNothing)
{
    TempHome home;
    Settings settings(Settings::NoLoginItems{});
    auto journal = std::make_shared<Journal>(ActivityDatabase::defaultFile());
    constexpr int kSessions = 16, kEach = 300;
    std::vector<std::thread> sessions;
    for (int s = 0; s < kSessions; ++s)
        sessions.emplace_back([&, s] {
            SessionActivity activity(journal, settings, "10.0.0." + std::to_string(s));
            activity.started();
            for (int i = 0; i < kEach; ++i)
                activity.downloaded("/music/" + std::to_string(i), i);
            activity.ended();
        });
    for (auto& t : sessions)
        t.join();
    journal->flush();
    auto all = ActivityStore::open()->list({});
    ASSERT_EQ(all.size(), static_cast<std::size_t>(kSessions * (kEach + 2)));
    std::set<std::int64_t> numbers;
    for (const auto& c : all)
        numbers.insert(c.session);
    EXPECT_EQ(numbers.size(), static_cast<std::size_t>(kSessions));
    ChangeFilter one;
    one.device = "10.0.0.3";
    EXPECT_EQ(ActivityStore::open()->list(one).size(), static_cast<std::size_t>(kEach + 2));
}

TEST(When, ReadsDatesTimesOfTodayAndAges)
{
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    const std::int64_t now = 1795522614000; // 2026-11-24 12:16:54 UTC
    struct Case {
        const char* text;
        std::optional<std::int64_t> ms;
    };
    const Case cases[] = {
        {"-10m", now - 600000},
        {"-2h", now - 7200000},
        {"-3d", now - 3 * kDay},
        {"-30s", now - 30000},
        {"13:10", 1795525800000},
        {"09:05:30", 1795511130000},
        {"2026-11-24", 1795478400000},
        {"2026-11-24T13:10", 1795525800000},
        {"2026-11-24 13:10:05", 1795525805000},
        {"25:00", std::nullopt},
        {"2026-13-01", std::nullopt},
        {"yesterday", std::nullopt},
        {"-5w", std::nullopt},
    };
    for (const auto& c : cases)
        EXPECT_EQ(When::parse(c.text, now), c.ms) << c.text;
    EXPECT_EQ(When::localText(1795525805000), "2026-11-24 13:10:05");
    ::unsetenv("TZ");
    ::tzset();
}

} // namespace

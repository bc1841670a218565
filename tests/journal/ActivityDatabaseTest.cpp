#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <sqlite3.h>

#include <gtest/gtest.h>

#include "journal/ActivityDatabase.h"
#include "support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

const char* const kSchema = "CREATE TABLE IF NOT EXISTS mine (id INTEGER PRIMARY KEY, what TEXT);";

std::string single(sqlite3* db, const char* sql)
{
    sqlite3_stmt* stmt = nullptr;
    std::string value;
    if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) == SQLITE_OK && sqlite3_step(stmt) == SQLITE_ROW)
        if (const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0)))
            value = text;
    sqlite3_finalize(stmt);
    return value;
}

TEST(ActivityDatabase, LivesInTheStateHomeOrBelowHomeWhenUnset)
{
    TempHome home;
    EXPECT_EQ(ActivityDatabase::defaultFile(), (home.path() / ".local/state/zandrel/activity.sqlite").string());
    ::setenv("XDG_STATE_HOME", "/elsewhere/state", 1);
    EXPECT_EQ(ActivityDatabase::defaultFile(), "/elsewhere/state/zandrel/activity.sqlite");
    ::unsetenv("XDG_STATE_HOME");
    EXPECT_EQ(ActivityDatabase::defaultFile(), (home.path() / ".local/state/zandrel/activity.sqlite").string());
    // A relative value is not an XDG home.
    ::setenv("XDG_STATE_HOME", "relative", 1);
    EXPECT_EQ(ActivityDatabase::defaultFile(), (home.path() / ".local/state/zandrel/activity.sqlite").string());
}

TEST(ActivityDatabase, TwoOwnersShareOneWalFileEachWithItsTables)
{
    TempHome home;
    auto journal = ActivityDatabase::open(kSchema);
    auto devices = ActivityDatabase::open("CREATE TABLE IF NOT EXISTS theirs (address TEXT PRIMARY KEY);");
    ASSERT_TRUE(journal && devices);
    EXPECT_TRUE(fs::exists(ActivityDatabase::defaultFile()));
    EXPECT_EQ(single(journal->handle(), "PRAGMA journal_mode"), "wal");
    ASSERT_TRUE(journal->exec("INSERT INTO mine (what) VALUES ('upload')"));
    ASSERT_TRUE(devices->exec("INSERT INTO theirs VALUES ('10.0.0.2')"));
    EXPECT_EQ(single(devices->handle(), "SELECT what FROM mine"), "upload");
    EXPECT_EQ(single(journal->handle(), "SELECT address FROM theirs"), "10.0.0.2");
    std::string error;
    EXPECT_FALSE(journal->exec("INSERT INTO nowhere VALUES (1)", &error));
    EXPECT_NE(error.find("nowhere"), std::string::npos);
}

TEST(ActivityDatabase, ADamagedFileIsSetAsideWithOneLogLineAndANewOneStarted)
{
    TempHome home;
    CapturedLog log;
    std::string file = ActivityDatabase::defaultFile();
    fs::create_directories(fs::path(file).parent_path());
    std::ofstream(file, std::ios::binary) << std::string(8192, 'x');
    std::ofstream(file + "-wal", std::ios::binary) << "stale";

    auto db = ActivityDatabase::open(kSchema);
    ASSERT_TRUE(db);
    ASSERT_TRUE(db->exec("INSERT INTO mine (what) VALUES ('fresh')"));
    EXPECT_EQ(single(db->handle(), "SELECT count(*) FROM mine"), "1");
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].rfind("Activity journal " + file + " was damaged (", 0), 0u) << log.lines()[0];

    std::string aside = log.lines()[0].substr(log.lines()[0].find("set aside as ") + 13);
    aside = aside.substr(0, aside.find(' '));
    auto contents = [](const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(in)), {});
    };
    EXPECT_TRUE(contents(aside) == std::string(8192, 'x'));
    EXPECT_EQ(contents(aside + "-wal"), "stale");

    // The new file is healthy: opening again sets nothing aside.
    db.reset();
    EXPECT_TRUE(ActivityDatabase::open(kSchema));
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST(ActivityDatabase, AFolderThatCannotHoldTheFileGivesNoDatabaseAndAReason)
{
    TempHome home;
    CapturedLog log;
    // A plain file where the folder should be.
    home.write(".local/state/zandrel", "not a folder");
    std::string error;
    EXPECT_FALSE(ActivityDatabase::open(kSchema, &error));
    EXPECT_FALSE(error.empty());
    EXPECT_TRUE(log.lines().empty());
}

} // namespace

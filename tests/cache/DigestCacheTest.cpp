#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "cache/DigestCache.h"
#include "support/TestSupport.h"
#include "wire/Digest.h"

namespace fs = std::filesystem;

namespace {

std::string md5(const std::string& text) { return Digest::md5Hex(text.data(), text.size()); }

void put(const fs::path& path, const std::string& contents) { std::ofstream(path, std::ios::binary) << contents; }

class DigestCacheTest : public ::testing::Test {
protected:
    // No racy window: a file written just now is kept at once.
    std::unique_ptr<DigestCache> open()
    {
        return std::make_unique<DigestCache>(dbFile().string(), std::chrono::nanoseconds(0));
    }
    fs::path dbFile() const { return m_home.path() / "cache" / "digests.sqlite"; }
    fs::path file(const std::string& name) const { return m_home.path() / name; }

    TempHome m_home;
};

TEST_F(DigestCacheTest, ServesAnUnchangedFileAndSeesEveryChange)
{
    auto cache = open();
    fs::path f = file("a.bin");
    put(f, "first");
    EXPECT_EQ(cache->digestOf(f.string()), md5("first"));
    EXPECT_EQ(cache->lookup(*FileState::of(f.string())), md5("first"));

    // Same size, modification time set back: only the change time differs.
    struct stat before {};
    ::stat(f.c_str(), &before);
    put(f, "other");
    timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, f.c_str(), times, 0), 0);
    EXPECT_EQ(cache->digestOf(f.string()), md5("other"));

    // Replaced by another file (a new inode) of the same size.
    put(file("b.bin"), "third");
    fs::rename(file("b.bin"), f);
    EXPECT_EQ(cache->digestOf(f.string()), md5("third"));
}

TEST_F(DigestCacheTest, KeepsNothingForAFileChangedJustBeforeItWasRead)
{
    DigestCache cache(dbFile().string());
    fs::path f = file("fresh.bin");
    put(f, "fresh");
    EXPECT_EQ(cache.digestOf(f.string()), md5("fresh"));
    EXPECT_FALSE(cache.lookup(*FileState::of(f.string())));
}

TEST_F(DigestCacheTest, SurvivesARestart)
{
    fs::path f = file("kept.bin");
    put(f, "kept");
    {
        auto cache = open();
        cache->digestOf(f.string());
    }
    EXPECT_EQ(open()->lookup(*FileState::of(f.string())), md5("kept"));
}

TEST_F(DigestCacheTest, ADamagedFileIsRebuiltAndAnUnusableOneBypassed)
{
    fs::create_directories(dbFile().parent_path());
    put(dbFile(), std::string(8192, 'x'));
    fs::path f = file("a.bin");
    put(f, "contents");
    {
        auto cache = open();
        EXPECT_EQ(cache->digestOf(f.string()), md5("contents"));
        auto problem = cache->takeProblem();
        ASSERT_TRUE(problem);
        EXPECT_NE(problem->find("rebuilt"), std::string::npos) << *problem;
        EXPECT_FALSE(cache->takeProblem()) << "one line, once";
    }
    EXPECT_EQ(open()->lookup(*FileState::of(f.string())), md5("contents"));

    // A cache whose folder cannot be made: digests still come, from memory.
    put(file("plain"), "");
    DigestCache unusable((file("plain") / "digests.sqlite").string(), std::chrono::nanoseconds(0));
    EXPECT_EQ(unusable.digestOf(f.string()), md5("contents"));
    EXPECT_TRUE(unusable.takeProblem());
    EXPECT_EQ(unusable.digestOf(f.string()), md5("contents"));
}

} // namespace

#include <chrono>
#include <filesystem>
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

class DigestCacheTest : public ::testing::Test {
protected:
    // No racy window: a file written just now is kept at once.
    std::unique_ptr<DigestCache> open()
    {
        return std::make_unique<DigestCache>(dbFile().string(), std::chrono::nanoseconds(0));
    }
    fs::path dbFile() const { return m_home.path() / "cache" / "digests.sqlite"; }

    TempHome m_home;
};

TEST_F(DigestCacheTest, ServesAnUnchangedFileAndSeesEveryChange)
{
    auto cache = open();
    fs::path f = m_home.write("a.bin", "first");
    EXPECT_EQ(cache->digestOf(f.string()), md5("first"));
    EXPECT_EQ(cache->lookup(*FileState::of(f.string())), md5("first"));

    // Same size, modification time set back: only the change time differs.
    struct stat before {};
    ::stat(f.c_str(), &before);
    m_home.write("a.bin", "other");
    timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, f.c_str(), times, 0), 0);
    EXPECT_EQ(cache->digestOf(f.string()), md5("other"));

    // Replaced by another file (a new inode) of the same size.
    fs::rename(m_home.write("b.bin", "third"), f);
    EXPECT_EQ(cache->digestOf(f.string()), md5("third"));

    // With the usual racy window, a file changed just now is digested, not kept.
    DigestCache careful((m_home.path() / "careful.sqlite").string());
    EXPECT_EQ(careful.digestOf(f.string()), md5("third"));
    EXPECT_FALSE(careful.lookup(*FileState::of(f.string())));
}

TEST_F(DigestCacheTest, ADamagedFileIsRebuiltAndAnUnusableOneBypassed)
{
    m_home.write("cache/digests.sqlite", std::string(8192, 'x'));
    fs::path f = m_home.write("a.bin", "contents");
    {
        auto cache = open();
        EXPECT_EQ(cache->digestOf(f.string()), md5("contents"));
        auto problem = cache->takeProblem();
        ASSERT_TRUE(problem);
        EXPECT_NE(problem->find("rebuilt"), std::string::npos) << *problem;
        EXPECT_FALSE(cache->takeProblem()) << "one line, once";
    }
    EXPECT_EQ(open()->lookup(*FileState::of(f.string())), md5("contents")) << "kept across a restart";

    // A cache whose folder cannot be made: digests still come, from memory.
    DigestCache unusable((m_home.write("plain", "") / "digests.sqlite").string(), std::chrono::nanoseconds(0));
    EXPECT_EQ(unusable.digestOf(f.string()), md5("contents"));
    EXPECT_TRUE(unusable.takeProblem());
    EXPECT_EQ(unusable.digestOf(f.string()), md5("contents"));
}

} // namespace

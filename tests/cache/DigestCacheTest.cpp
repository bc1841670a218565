#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

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

// Past what the memory front holds after a restart, a folder of neighbouring
// inodes is answered by the file at once, as file by file; an unchanged
// state is known, a changed or unknown one is not, wherever it lies.
TEST_F(DigestCacheTest, AFolderOfNeighboursIsAnsweredFromTheFileAtOnce)
{
    auto state = [](std::uint64_t inode, std::int64_t size) {
        FileState s;
        s.device = 7;
        s.inode = inode;
        s.size = size;
        s.modifiedNs = 1;
        s.changedNs = 2;
        return s;
    };
    {
        auto cache = open();
        for (std::uint64_t i = 1; i <= 25000; ++i) {
            cache->store(state(i, 10), md5(std::to_string(i)));
            if (i % 5000 == 0)
                cache->flush();
        }
    }
    auto cache = open();
    std::vector<std::optional<std::string>> got;
    for (const std::vector<FileState>& folder : {
             std::vector<FileState>{state(24998, 10), state(24996, 10), state(24997, 11), state(25003, 10)},
             std::vector<FileState>{state(24003, 10), state(3, 10), state(2, 11), state(900000, 10)}}) {
        cache->lookupMany(folder, got);
        ASSERT_EQ(got.size(), folder.size());
        for (std::size_t i = 0; i < folder.size(); ++i) {
            bool kept = folder[i].size == 10 && folder[i].inode <= 25000;
            EXPECT_EQ(got[i], kept ? std::optional(md5(std::to_string(folder[i].inode))) : std::nullopt) << i;
        }
    }
}

} // namespace

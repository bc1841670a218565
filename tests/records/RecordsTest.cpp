#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "records/DirSyncInfo.h"
#include "records/FileKind.h"
#include "records/FileSyncInfo.h"
#include "records/RecordEncoding.h"
#include "support/TestSupport.h"

namespace fs = std::filesystem;

namespace {

// The record layout written out by hand, independent of the encoders.
class Layout {
public:
    Layout& i64(std::int64_t v)
    {
        for (int i = 0; i < 8; ++i)
            m_bytes.push_back(static_cast<std::uint8_t>(static_cast<std::uint64_t>(v) >> (8 * i)));
        return *this;
    }
    Layout& text(const std::string& s)
    {
        i64(static_cast<std::int64_t>(s.size()));
        m_bytes.insert(m_bytes.end(), s.begin(), s.end());
        return *this;
    }
    Layout& byte(std::uint8_t b)
    {
        m_bytes.push_back(b);
        return *this;
    }
    Layout& flags(bool hidden, bool readonly)
    {
        return byte(0).byte(0).byte(0).byte(hidden ? 1 : 0).byte(readonly ? 1 : 0).byte(0);
    }
    // The body with its 8-byte length in front.
    Bytes framed() const
    {
        Bytes out = Layout().i64(static_cast<std::int64_t>(m_bytes.size())).m_bytes;
        out.insert(out.end(), m_bytes.begin(), m_bytes.end());
        return out;
    }

private:
    Bytes m_bytes;
};

void setModified(const fs::path& path, std::time_t seconds, long nanoseconds)
{
    timespec times[2] = {{0, UTIME_OMIT}, {seconds, nanoseconds}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

// A birth time is either unknown (0) or the moment the test made the item.
void expectCreatedDuringTest(std::int64_t created, std::time_t start)
{
    if (created != 0) {
        EXPECT_GE(created, start - 1);
        EXPECT_LE(created, std::time(nullptr) + 1);
    }
}

} // namespace

// --- records built from the disk -------------------------------------------

TEST(RecordFromDisk, FileRecordCarriesEveryFieldInOrder)
{
    TempHome home;
    std::time_t start = std::time(nullptr);
    fs::path file = home.write("music/Song.mp3", "hello!");
    setModified(file, 1700000000, 900000000); // fractions are dropped

    FileSyncInfo info = FileSyncInfo::initFromPath("~/music/Song.mp3");
    expectCreatedDuringTest(info.created, start);
    Bytes expected = Layout()
                         .text(file.string())
                         .text((home.path() / "music").string())
                         .text("Song.mp3")
                         .text("mp3")
                         .byte(1)
                         .i64(6)
                         .i64(info.created)
                         .i64(1700000000)
                         .flags(false, false)
                         .text("")
                         .framed();
    EXPECT_EQ(BitHelper::encodeFileSyncInfo(info), expected);
}

TEST(RecordFromDisk, FolderRecordCarriesEveryFieldInOrder)
{
    TempHome home;
    std::time_t start = std::time(nullptr);
    // Only direct plain files count, hidden ones too, but not our partials
    // nor the metadata files.
    home.write(".Stuff/a.txt", "a");
    home.write(".Stuff/.DS_Store", "x");
    home.write(".Stuff/b.zandrel", "x");
    home.write(".Stuff/.hidden", "h");
    home.write(".Stuff/sub/inner.txt", "not direct");
    fs::path folder = home.path() / ".Stuff";
    fs::create_symlink("a.txt", folder / "link");
    ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
    setModified(folder, -2, 500000000); // -1.5 s truncates toward zero

    DirSyncInfo info = DirSyncInfo::initFromPath("~/.Stuff");
    expectCreatedDuringTest(info.created, start);
    Bytes expected = Layout()
                         .text(folder.string())
                         .text(home.path().string())
                         .text(".Stuff")
                         .i64(info.created)
                         .i64(-1)
                         .flags(true, false)
                         .i64(2)
                         .framed();
    EXPECT_EQ(BitHelper::encodeDirSyncInfo(info), expected);
    // A final symbolic link is examined itself: its size is that of "a.txt".
    EXPECT_EQ(FileSyncInfo::initFromPath("~/.Stuff/link").size, 5u);
}

TEST(RecordFromDisk, MissingAndUnwritablePathsGiveReadonlyRecords)
{
    TempHome home;
    const std::string folder = (home.path() / "nowhere").string();
    EXPECT_EQ(BitHelper::encodeFileSyncInfo(FileSyncInfo::initFromPath("~/nowhere/x.txt")),
              Layout().text(folder + "/x.txt").text(folder).text("x.txt").text("txt").byte(3).i64(0).i64(0).i64(0)
                  .flags(false, true).text("").framed());
    EXPECT_TRUE(FileSyncInfo::initFromPath("/nowhere/.profile").hidden);
    EXPECT_EQ(BitHelper::encodeDirSyncInfo(DirSyncInfo::initFromPath("~/nowhere")),
              Layout().text(folder).text(home.path().string()).text("nowhere").i64(0).i64(0).flags(false, true)
                  .i64(0).framed());

    if (::geteuid() != 0) { // root may write anything
        fs::path locked = home.write("locked.txt", "x");
        fs::permissions(locked, fs::perms::owner_read);
        EXPECT_TRUE(FileSyncInfo::initFromPath(locked.string()).readonly);
    }
}

// --- path parts and kinds ---------------------------------------------------

TEST(RecordPathParts, KindComesFromTheLastExtensionOnly)
{
    struct Case {
        const char* path;
        std::int32_t kind;
    };
    const std::vector<Case> cases = {
        {"/x/a.tar.gz", 0},   {"/x/b.MP3", 1},      {"/x/c.cpp", 2},        {"/x/d.TXT", 3},
        {"/x/e.psd", 4},      {"/x/f.mp4", 5},      {"/x/g.jpeg", 6},       {"/x/h.avi", 7},
        {"/x/i.xhtml", 8},    {"/x/noext", 5},      {"/x/trailing.", 5},    {"/x/v.tar/readme", 5},
        {"/x/p.svg", 5},      {"/x/q.jpe", 5},      {"/x/k.p\u212Ag", 0}, // Kelvin sign lower-cases to k
    };
    for (const auto& c : cases)
        EXPECT_EQ(FileSyncInfo::initFromPath(c.path).kind, c.kind) << c.path;
}

// --- fixed-size wire forms --------------------------------------------------

TEST(RecordEncoding, FinishRecordsAndListsHaveTheirFixedForms)
{
    Bytes file = BitHelper::encodeFileSyncInfo(FileSyncInfo::finish());
    EXPECT_EQ(file, Layout().text("").text("").text("").text("").byte(5).i64(0).i64(0).i64(0).flags(false, false).text("").framed());
    Bytes dir = BitHelper::encodeDirSyncInfo(DirSyncInfo::finish());
    EXPECT_EQ(dir, Layout().text("").text("").text("").i64(0).i64(0).flags(false, false).i64(0).framed());

    // A list is a count, then each framed record.
    Bytes two = BitHelper::encodeLongLong(2);
    two += file;
    two += file;
    EXPECT_EQ(BitHelper::encodeFileSyncInfoArray({FileSyncInfo::finish(), FileSyncInfo::finish()}), two);
}

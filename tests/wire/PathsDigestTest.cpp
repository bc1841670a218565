#include <string>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include "wire/Digest.h"
#include "wire/Paths.h"

TEST(Paths, ComponentsFollowTheUsualRulesAndTildeExpandsToHome)
{
    EXPECT_EQ(Paths::deletingLastPathComponent("/a/b/"), "/a");
    EXPECT_EQ(Paths::deletingLastPathComponent("/a"), "/");
    EXPECT_EQ(Paths::deletingLastPathComponent("/"), "/");
    EXPECT_EQ(Paths::deletingLastPathComponent("a"), "");
    EXPECT_EQ(Paths::deletingLastPathComponent(""), "");
    EXPECT_EQ(Paths::lastPathComponent("/"), "/");
    EXPECT_EQ(Paths::lastPathComponent("/a/b/"), "b");
    EXPECT_EQ(Paths::pathExtension("/x/b.MP3"), "MP3"); // case kept for the record

    TempHome home;
    EXPECT_EQ(Paths::expandTilde("~"), home.path().string());
    EXPECT_EQ(Paths::expandTilde("/abs/~x"), "/abs/~x");
    EXPECT_EQ(Paths::expandTilde("~no-such-user-here/x"), "~no-such-user-here/x");
}

TEST(Digest, StringDigestsAreUpperFileDigestsLowerAndOfPlainFilesOnly)
{
    const std::string empty = "d41d8cd98f00b204e9800998ecf8427e";
    EXPECT_EQ(Digest::md5OfString("abc"), "900150983CD24FB0D6963F7D28E17F72");
    EXPECT_EQ(Digest::md5OfFile("/no/such/file"), empty);

    // Larger than one read block, so the blockwise digest is exercised.
    TempHome home;
    const std::string whole = "abc" + std::string(3 << 20, 'x');
    auto path = home.write("digest.bin", whole);
    EXPECT_EQ(Digest::md5OfFile(path.string()), Digest::md5Hex(whole.data(), whole.size()));

    // Each of these would block or read for ever, or name another file (the
    // text before a NUL): all digest as no file.
    auto fifo = home.path() / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(Digest::md5OfFile(fifo.string()), empty);
    EXPECT_EQ(Digest::md5OfFile("/dev/zero"), empty);
    EXPECT_EQ(Digest::md5OfFile(path.string() + std::string(1, '\0') + ".new"), empty);
}

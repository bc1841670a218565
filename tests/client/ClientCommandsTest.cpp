// What the command line prints and which exit code it gives, against the
// real server and against no server at all.

#include <filesystem>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "LoopbackServer.h"
#include "client/ClientCommands.h"

namespace fs = std::filesystem;
using namespace ClientCommands;

namespace {

class ClientCommandsTest : public ::testing::Test {
protected:
    ClientCommandsTest()
    {
        m_target.port = m_server.port();
        m_target.passwordHash = m_server.hash();
        m_target.timeout = std::chrono::seconds(20);
    }

    std::string at(const std::string& relative) { return (m_server.home().path() / relative).string(); }
    void clear()
    {
        m_out.str("");
        m_err.str("");
    }

    LoopbackServer m_server;
    Target m_target;
    std::ostringstream m_out;
    std::ostringstream m_err;
    Console m_console{m_out, m_err, nullptr};
};

TEST_F(ClientCommandsTest, FailuresSayWhatToCheck)
{
    HeldPort closed(false); // bound, not listening: connecting is refused
    Target nowhere = m_target;
    nowhere.port = closed.port();
    EXPECT_EQ(identify(nowhere, m_console), NoConnection);
    EXPECT_NE(m_err.str().find("127.0.0.1:" + std::to_string(closed.port())), std::string::npos) << m_err.str();
    EXPECT_NE(m_err.str().find("refused"), std::string::npos) << m_err.str();

    clear();
    Target wrong = m_target;
    wrong.passwordHash = "WRONG";
    EXPECT_EQ(list(wrong, at(""), m_console), BadPassword);
    EXPECT_NE(m_err.str().find("refused the password"), std::string::npos) << m_err.str();

    clear();
    EXPECT_EQ(makeFolders(m_target, {"relative/path"}, m_console), Usage);
    EXPECT_EQ(list(m_target, "~/Music", m_console), Usage);
    EXPECT_NE(m_err.str().find("does not expand ~"), std::string::npos) << m_err.str();
    EXPECT_FALSE(fs::exists(at("relative")));
}

TEST_F(ClientCommandsTest, IdentifyShowsTheFieldsAndWhetherThePasswordMatches)
{
    EXPECT_EQ(identify(m_target, m_console), Ok);
    EXPECT_NE(m_out.str().find("port       " + std::to_string(m_server.settings().getPort())), std::string::npos)
        << m_out.str();
    EXPECT_NE(m_out.str().find("password   matches"), std::string::npos) << m_out.str();
}

TEST_F(ClientCommandsTest, ListsAndTreesReadAsAPersonExpects)
{
    m_server.home().write("t/b.txt", "bbb");
    m_server.home().write("t/s/a.txt", "a");
    EXPECT_EQ(list(m_target, at("t") + "/", m_console), Ok);
    std::string listing = m_out.str();
    EXPECT_EQ(listing.find("d  "), 0u) << listing; // folders first
    EXPECT_NE(listing.find("3  b.txt\n"), std::string::npos) << listing;
    EXPECT_NE(listing.find("  s/\n"), std::string::npos) << listing;

    clear();
    EXPECT_EQ(tree(m_target, at("t") + "//", true, m_console), Ok);
    EXPECT_EQ(m_out.str(), at("t") + "/\n"
                           "  b.txt  3  08f8e0260c64418510cefb2b06eee5cd\n"
                           "  s/\n"
                           "    a.txt  1  0cc175b9c0f1b6a831c399e269772661\n"
                           "2 folders, 2 files, 4 B\n");
}

TEST_F(ClientCommandsTest, FileSystemCommandsReportWhatFailed)
{
    m_server.home().write("m/a", "a");
    m_server.home().write("m/b", "b");
    EXPECT_EQ(makeFolders(m_target, {at("m/new/deep")}, m_console), Ok);
    EXPECT_TRUE(fs::is_directory(at("m/new/deep")));
    EXPECT_EQ(move(m_target, at("m/a"), at("m/b"), m_console), Failed);
    EXPECT_NE(m_err.str().find("could not rename"), std::string::npos) << m_err.str();
    EXPECT_EQ(removeFiles(m_target, {at("m/a")}, m_console), Ok);
    EXPECT_FALSE(fs::exists(at("m/a")));
    EXPECT_EQ(removeFolders(m_target, {at("m/new")}, m_console), Ok);
    EXPECT_FALSE(fs::exists(at("m/new")));

    clear();
    EXPECT_EQ(freeSpace(m_target, at("m"), m_console), Ok);
    EXPECT_NE(m_out.str().find("bytes free"), std::string::npos) << m_out.str();
    EXPECT_EQ(freeSpace(m_target, at("m/b"), m_console), Failed);
    EXPECT_NE(m_err.str().find("Path " + at("m/b") + " does not exist."), std::string::npos) << m_err.str();
}

} // namespace
